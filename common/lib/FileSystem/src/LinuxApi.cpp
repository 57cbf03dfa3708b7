// LinuxApi: one C library call per operation, nothing more.
#include "LinuxApi.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

namespace drn {

LinuxApiIF::~LinuxApiIF() = default;

struct LinuxApi::Impl {};

LinuxApi::LinuxApi() : impl(std::make_unique<Impl>()) {}

LinuxApi::~LinuxApi() = default;

int LinuxApi::DoOpen(const char* path, int flags) {
  return ::open(path, flags);
}

int LinuxApi::DoOpen(const char* path, int flags, int mode) {
  return ::open(path, flags, mode);
}

int LinuxApi::DoAccess(const char* path, int mode) {
  return ::access(path, mode);
}

int LinuxApi::DoChmod(const char* path, unsigned int mode) {
  return ::chmod(path, mode);
}

DIR* LinuxApi::DoOpenDir(const char* path) {
  return ::opendir(path);
}

int LinuxApi::DoCloseDir(DIR* dir) {
  return ::closedir(dir);
}

dirent* LinuxApi::DoReadDir(DIR* dir) {
  return ::readdir(dir);
}

long LinuxApi::DoSysCall(long number, const char* text, unsigned int value) {
  return ::syscall(number, text, static_cast<unsigned long>(value));
}

long LinuxApi::DoWrite(int fd, const void* buffer, unsigned long count) {
  return ::write(fd, buffer, count);
}

long LinuxApi::DoRead(int fd, void* buffer, unsigned long count) {
  return ::read(fd, buffer, count);
}

int LinuxApi::DoFsync(int fd) {
  return ::fsync(fd);
}

int LinuxApi::DoSyncFs(int fd) {
  return ::syncfs(fd);
}

int LinuxApi::DoClose(int fd) {
  return ::close(fd);
}

long LinuxApi::DoLSeek(int fd, long offset, int whence) {
  return ::lseek(fd, offset, whence);
}

int LinuxApi::DoIoctl(int fd, unsigned long request, gpiohandle_request* handleRequest) {
  return ::ioctl(fd, request, handleRequest);
}

int LinuxApi::DoIoctl(int fd, unsigned long request, gpiohandle_data* data) {
  return ::ioctl(fd, request, data);
}

int LinuxApi::DoIoctl(int fd, unsigned long request, char* argument) {
  return ::ioctl(fd, request, argument);
}

int LinuxApi::DoStat(const char* path, struct stat* buffer) {
  return ::stat(path, buffer);
}

int LinuxApi::DoRemove(const char* path) {
  return ::remove(path);
}

long LinuxApi::DoReadlink(const char* path, char* buffer, unsigned long size) {
  return ::readlink(path, buffer, size);
}

int LinuxApi::DoLstat(const char* path, struct stat* buffer) {
  return ::lstat(path, buffer);
}

void LinuxApi::DoTzset() {
  ::tzset();
}

int LinuxApi::DoSystem(const char* command) {
  return std::system(command);
}

FILE* LinuxApi::DoPOpen(const char* command, const char* type) {
  return ::popen(command, type);
}

char* LinuxApi::DoFGetS(char* buffer, int size, FILE* stream) {
  return std::fgets(buffer, size, stream);
}

int LinuxApi::DoPClose(FILE* stream) {
  return ::pclose(stream);
}

int LinuxApi::DoSetenv(const char* name, const char* value, int overwrite) {
  return ::setenv(name, value, overwrite);
}

int LinuxApi::DoUnsetenv(const char* name) {
  return ::unsetenv(name);
}

int LinuxApi::DoRename(const char* from, const char* to) {
  return std::rename(from, to);
}

int LinuxApi::DoFork() {
  return ::fork();
}

int LinuxApi::DoExecvp(const char* file, char* const* argv) {
  return ::execvp(file, argv);
}

int LinuxApi::DoWaitpid(int pid, int* status, int options) {
  return ::waitpid(pid, status, options);
}

int LinuxApi::DoKill(int pid, int signal) {
  return ::kill(pid, signal);
}

int LinuxApi::DoMkdir(const char* path, unsigned int mode) {
  return ::mkdir(path, mode);
}

int LinuxApi::DoTcgetattr(int fd, termios* attributes) {
  return ::tcgetattr(fd, attributes);
}

int LinuxApi::DoTcsetattr(int fd, int when, const termios* attributes) {
  return ::tcsetattr(fd, when, attributes);
}

int LinuxApi::DoCfsetispeed(termios* attributes, unsigned int speed) {
  return ::cfsetispeed(attributes, speed);
}

int LinuxApi::DoCfsetospeed(termios* attributes, unsigned int speed) {
  return ::cfsetospeed(attributes, speed);
}

int LinuxApi::DoPipe(int* fds) {
  return ::pipe(fds);
}

int LinuxApi::DoPoll(pollfd* fds, unsigned long count, int timeout) {
  return ::poll(fds, count, timeout);
}

void* LinuxApi::DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                       long offset) {
  return ::mmap(address, length, protection, flags, fd, offset);
}

int LinuxApi::DoTcFlush(int fd, int queue) {
  return ::tcflush(fd, queue);
}

}  // namespace drn
