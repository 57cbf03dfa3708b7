// The real system-call layer: every operation is the C library call of the same name.
#pragma once

#include <memory>

#include "LinuxApiIF.h"

namespace drn {

// Performs each operation through the C library with the same arguments and returns its result
// and errno unchanged. The overrides are protected so that a substitute can derive from LinuxApi,
// override one Do... operation and keep the real behaviour of the rest (an override of one DoOpen
// or DoIoctl overload hides the others: add a using-declaration for them).
class DRN_EXPORT LinuxApi : public LinuxApiIF {
 public:
  LinuxApi();
  ~LinuxApi() override;
  LinuxApi(const LinuxApi&) = delete;
  LinuxApi& operator=(const LinuxApi&) = delete;

 protected:
  int DoOpen(const char* path, int flags) override;
  int DoOpen(const char* path, int flags, int mode) override;
  int DoAccess(const char* path, int mode) override;
  int DoChmod(const char* path, unsigned int mode) override;
  DIR* DoOpenDir(const char* path) override;
  int DoCloseDir(DIR* dir) override;
  dirent* DoReadDir(DIR* dir) override;
  long DoSysCall(long number, const char* text, unsigned int value) override;
  long DoWrite(int fd, const void* buffer, unsigned long count) override;
  long DoRead(int fd, void* buffer, unsigned long count) override;
  int DoFsync(int fd) override;
  int DoSyncFs(int fd) override;
  int DoClose(int fd) override;
  long DoLSeek(int fd, long offset, int whence) override;
  int DoIoctl(int fd, unsigned long request, gpiohandle_request* handleRequest) override;
  int DoIoctl(int fd, unsigned long request, gpiohandle_data* data) override;
  int DoIoctl(int fd, unsigned long request, char* argument) override;
  int DoStat(const char* path, struct stat* buffer) override;
  int DoRemove(const char* path) override;
  long DoReadlink(const char* path, char* buffer, unsigned long size) override;
  int DoLstat(const char* path, struct stat* buffer) override;
  void DoTzset() override;
  int DoSystem(const char* command) override;
  FILE* DoPOpen(const char* command, const char* type) override;
  char* DoFGetS(char* buffer, int size, FILE* stream) override;
  int DoPClose(FILE* stream) override;
  int DoSetenv(const char* name, const char* value, int overwrite) override;
  int DoUnsetenv(const char* name) override;
  int DoRename(const char* from, const char* to) override;
  int DoFork() override;
  int DoExecvp(const char* file, char* const* argv) override;
  int DoWaitpid(int pid, int* status, int options) override;
  int DoKill(int pid, int signal) override;
  int DoMkdir(const char* path, unsigned int mode) override;
  int DoTcgetattr(int fd, termios* attributes) override;
  int DoTcsetattr(int fd, int when, const termios* attributes) override;
  int DoCfsetispeed(termios* attributes, unsigned int speed) override;
  int DoCfsetospeed(termios* attributes, unsigned int speed) override;
  int DoPipe(int* fds) override;
  int DoPoll(pollfd* fds, unsigned long count, int timeout) override;
  void* DoMmap(void* address, unsigned long length, int protection, int flags, int fd,
               long offset) override;
  int DoTcFlush(int fd, int queue) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
