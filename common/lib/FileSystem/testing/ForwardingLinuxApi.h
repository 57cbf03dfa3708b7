// A GoogleMock LinuxApiIF whose descriptor calls really happen unless a test says otherwise.
#pragma once

#include <gmock/gmock.h>

#include <memory>

#include "LinuxApi.h"
#include "MockLinuxApi.h"

namespace drn::testing {

// open (two arguments), syscall, read, write, lseek, syncfs and close default to the C library,
// so a test can count them, or fail chosen ones, while the bytes still reach real files.
inline std::unique_ptr<::testing::NiceMock<MockLinuxApi>> MakeForwardingMock() {
  using ::testing::_;
  auto mock = std::make_unique<::testing::NiceMock<MockLinuxApi>>();
  const std::shared_ptr<LinuxApiIF> real = std::make_shared<LinuxApi>();
  ON_CALL(*mock, DoOpen(_, _)).WillByDefault([real](const char* path, int flags) {
    return real->open(path, flags);
  });
  ON_CALL(*mock, DoSysCall).WillByDefault([real](long number, const char* text, unsigned value) {
    return real->syscall(number, text, value);
  });
  ON_CALL(*mock, DoRead).WillByDefault([real](int fd, void* buffer, unsigned long count) {
    return real->read(fd, buffer, count);
  });
  ON_CALL(*mock, DoWrite).WillByDefault([real](int fd, const void* buffer, unsigned long count) {
    return real->write(fd, buffer, count);
  });
  ON_CALL(*mock, DoLSeek).WillByDefault([real](int fd, long offset, int whence) {
    return real->lseek(fd, offset, whence);
  });
  ON_CALL(*mock, DoSyncFs).WillByDefault([real](int fd) { return real->syncfs(fd); });
  ON_CALL(*mock, DoClose).WillByDefault([real](int fd) { return real->close(fd); });
  return mock;
}

}  // namespace drn::testing
