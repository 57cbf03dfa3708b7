// Injectable interface over the C library calls that paths, files and directories make.
#pragma once

#include <dirent.h>
#include <linux/gpio.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>

#include <cstdio>

#include "FileSystemExport.h"

namespace drn {

// Each public operation forwards its arguments unchanged to its protected Do... partner and
// returns that result unchanged; implementations override only the Do... side. Nothing here
// checks, translates, logs or throws, and errno is left as the call left it.
class DRN_EXPORT LinuxApiIF {
 public:
  virtual ~LinuxApiIF();

  // The C library call of the same name, made through its Do... partner.
  // @{
  int open(const char* path, int flags) { return DoOpen(path, flags); }
  int open(const char* path, int flags, int mode) { return DoOpen(path, flags, mode); }
  int access(const char* path, int mode) { return DoAccess(path, mode); }
  int chmod(const char* path, unsigned int mode) { return DoChmod(path, mode); }
  DIR* opendir(const char* path) { return DoOpenDir(path); }
  int closedir(DIR* dir) { return DoCloseDir(dir); }
  dirent* readdir(DIR* dir) { return DoReadDir(dir); }
  long syscall(long number, const char* text, unsigned int value) {
    return DoSysCall(number, text, value);
  }
  long write(int fd, const void* buffer, unsigned long count) { return DoWrite(fd, buffer, count); }
  long read(int fd, void* buffer, unsigned long count) { return DoRead(fd, buffer, count); }
  int fsync(int fd) { return DoFsync(fd); }
  int syncfs(int fd) { return DoSyncFs(fd); }
  int close(int fd) { return DoClose(fd); }
  long lseek(int fd, long offset, int whence) { return DoLSeek(fd, offset, whence); }
  int ioctl(int fd, unsigned long request, gpiohandle_request* handleRequest) {
    return DoIoctl(fd, request, handleRequest);
  }
  int ioctl(int fd, unsigned long request, gpiohandle_data* data) {
    return DoIoctl(fd, request, data);
  }
  int ioctl(int fd, unsigned long request, char* argument) {
    return DoIoctl(fd, request, argument);
  }
  int stat(const char* path, struct stat* buffer) { return DoStat(path, buffer); }
  int remove(const char* path) { return DoRemove(path); }
  long readlink(const char* path, char* buffer, unsigned long size) {
    return DoReadlink(path, buffer, size);
  }
  int lstat(const char* path, struct stat* buffer) { return DoLstat(path, buffer); }
  void tzset() { DoTzset(); }
  int system(const char* command) { return DoSystem(command); }
  FILE* popen(const char* command, const char* type) { return DoPOpen(command, type); }
  char* fgets(char* buffer, int size, FILE* stream) { return DoFGetS(buffer, size, stream); }
  int pclose(FILE* stream) { return DoPClose(stream); }
  int setenv(const char* name, const char* value, int overwrite) {
    return DoSetenv(name, value, overwrite);
  }
  int unsetenv(const char* name) { return DoUnsetenv(name); }
  int rename(const char* from, const char* to) { return DoRename(from, to); }
  int fork() { return DoFork(); }
  int execvp(const char* file, char* const* argv) { return DoExecvp(file, argv); }
  int waitpid(int pid, int* status, int options) { return DoWaitpid(pid, status, options); }
  int kill(int pid, int signal) { return DoKill(pid, signal); }
  int mkdir(const char* path, unsigned int mode) { return DoMkdir(path, mode); }
  int tcgetattr(int fd, termios* attributes) { return DoTcgetattr(fd, attributes); }
  int tcsetattr(int fd, int when, const termios* attributes) {
    return DoTcsetattr(fd, when, attributes);
  }
  int cfsetispeed(termios* attributes, unsigned int speed) {
    return DoCfsetispeed(attributes, speed);
  }
  int cfsetospeed(termios* attributes, unsigned int speed) {
    return DoCfsetospeed(attributes, speed);
  }
  int pipe(int* fds) { return DoPipe(fds); }
  int poll(pollfd* fds, unsigned long count, int timeout) { return DoPoll(fds, count, timeout); }
  void* mmap(void* address, unsigned long length, int protection, int flags, int fd, long offset) {
    return DoMmap(address, length, protection, flags, fd, offset);
  }
  int tcflush(int fd, int queue) { return DoTcFlush(fd, queue); }
  // @}

 protected:
  virtual int DoOpen(const char* path, int flags) = 0;
  virtual int DoOpen(const char* path, int flags, int mode) = 0;
  virtual int DoAccess(const char* path, int mode) = 0;
  virtual int DoChmod(const char* path, unsigned int mode) = 0;
  virtual DIR* DoOpenDir(const char* path) = 0;
  virtual int DoCloseDir(DIR* dir) = 0;
  virtual dirent* DoReadDir(DIR* dir) = 0;
  virtual long DoSysCall(long number, const char* text, unsigned int value) = 0;
  virtual long DoWrite(int fd, const void* buffer, unsigned long count) = 0;
  virtual long DoRead(int fd, void* buffer, unsigned long count) = 0;
  virtual int DoFsync(int fd) = 0;
  virtual int DoSyncFs(int fd) = 0;
  virtual int DoClose(int fd) = 0;
  virtual long DoLSeek(int fd, long offset, int whence) = 0;
  virtual int DoIoctl(int fd, unsigned long request, gpiohandle_request* handleRequest) = 0;
  virtual int DoIoctl(int fd, unsigned long request, gpiohandle_data* data) = 0;
  virtual int DoIoctl(int fd, unsigned long request, char* argument) = 0;
  virtual int DoStat(const char* path, struct stat* buffer) = 0;
  virtual int DoRemove(const char* path) = 0;
  virtual long DoReadlink(const char* path, char* buffer, unsigned long size) = 0;
  virtual int DoLstat(const char* path, struct stat* buffer) = 0;
  virtual void DoTzset() = 0;
  virtual int DoSystem(const char* command) = 0;
  virtual FILE* DoPOpen(const char* command, const char* type) = 0;
  virtual char* DoFGetS(char* buffer, int size, FILE* stream) = 0;
  virtual int DoPClose(FILE* stream) = 0;
  virtual int DoSetenv(const char* name, const char* value, int overwrite) = 0;
  virtual int DoUnsetenv(const char* name) = 0;
  virtual int DoRename(const char* from, const char* to) = 0;
  virtual int DoFork() = 0;
  virtual int DoExecvp(const char* file, char* const* argv) = 0;
  virtual int DoWaitpid(int pid, int* status, int options) = 0;
  virtual int DoKill(int pid, int signal) = 0;
  virtual int DoMkdir(const char* path, unsigned int mode) = 0;
  virtual int DoTcgetattr(int fd, termios* attributes) = 0;
  virtual int DoTcsetattr(int fd, int when, const termios* attributes) = 0;
  virtual int DoCfsetispeed(termios* attributes, unsigned int speed) = 0;
  virtual int DoCfsetospeed(termios* attributes, unsigned int speed) = 0;
  virtual int DoPipe(int* fds) = 0;
  virtual int DoPoll(pollfd* fds, unsigned long count, int timeout) = 0;
  virtual void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
                       long offset) = 0;
  virtual int DoTcFlush(int fd, int queue) = 0;
};

}  // namespace drn
