// GoogleMock substitute for LinuxApiIF: every Do... operation is mockable.
#pragma once

#include <gmock/gmock.h>

#include "LinuxApiIF.h"

namespace drn {

// The Do... operations are public here so that tests can set expectations on them.
class MockLinuxApi : public LinuxApiIF {
 public:
  MOCK_METHOD(int, DoOpen, (const char*, int), (override));
  MOCK_METHOD(int, DoOpen, (const char*, int, int), (override));
  MOCK_METHOD(int, DoAccess, (const char*, int), (override));
  MOCK_METHOD(int, DoChmod, (const char*, unsigned int), (override));
  MOCK_METHOD(DIR*, DoOpenDir, (const char*), (override));
  MOCK_METHOD(int, DoCloseDir, (DIR*), (override));
  MOCK_METHOD(dirent*, DoReadDir, (DIR*), (override));
  MOCK_METHOD(long, DoSysCall, (long, const char*, unsigned int), (override));
  MOCK_METHOD(long, DoWrite, (int, const void*, unsigned long), (override));
  MOCK_METHOD(long, DoRead, (int, void*, unsigned long), (override));
  MOCK_METHOD(int, DoFsync, (int), (override));
  MOCK_METHOD(int, DoSyncFs, (int), (override));
  MOCK_METHOD(int, DoClose, (int), (override));
  MOCK_METHOD(long, DoLSeek, (int, long, int), (override));
  MOCK_METHOD(int, DoIoctl, (int, unsigned long, gpiohandle_request*), (override));
  MOCK_METHOD(int, DoIoctl, (int, unsigned long, gpiohandle_data*), (override));
  MOCK_METHOD(int, DoIoctl, (int, unsigned long, char*), (override));
  MOCK_METHOD(int, DoStat, (const char*, struct stat*), (override));
  MOCK_METHOD(int, DoRemove, (const char*), (override));
  MOCK_METHOD(long, DoReadlink, (const char*, char*, unsigned long), (override));
  MOCK_METHOD(int, DoLstat, (const char*, struct stat*), (override));
  MOCK_METHOD(void, DoTzset, (), (override));
  MOCK_METHOD(int, DoSystem, (const char*), (override));
  MOCK_METHOD(FILE*, DoPOpen, (const char*, const char*), (override));
  MOCK_METHOD(char*, DoFGetS, (char*, int, FILE*), (override));
  MOCK_METHOD(int, DoPClose, (FILE*), (override));
  MOCK_METHOD(int, DoSetenv, (const char*, const char*, int), (override));
  MOCK_METHOD(int, DoUnsetenv, (const char*), (override));
  MOCK_METHOD(int, DoRename, (const char*, const char*), (override));
  MOCK_METHOD(int, DoFork, (), (override));
  MOCK_METHOD(int, DoExecvp, (const char*, char* const*), (override));
  MOCK_METHOD(int, DoWaitpid, (int, int*, int), (override));
  MOCK_METHOD(int, DoKill, (int, int), (override));
  MOCK_METHOD(int, DoMkdir, (const char*, unsigned int), (override));
  MOCK_METHOD(int, DoTcgetattr, (int, termios*), (override));
  MOCK_METHOD(int, DoTcsetattr, (int, int, const termios*), (override));
  MOCK_METHOD(int, DoCfsetispeed, (termios*, unsigned int), (override));
  MOCK_METHOD(int, DoCfsetospeed, (termios*, unsigned int), (override));
  MOCK_METHOD(int, DoPipe, (int*), (override));
  MOCK_METHOD(int, DoPoll, (pollfd*, unsigned long, int), (override));
  MOCK_METHOD(void*, DoMmap, (void*, unsigned long, int, int, int, long), (override));
  MOCK_METHOD(int, DoTcFlush, (int, int), (override));
};

}  // namespace drn
