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
  ON_CALL(*mock, DoOpen(_, _)).WillByDefault([real](auto... a) { return real->open(a...); });
  ON_CALL(*mock, DoSysCall).WillByDefault([real](auto... a) { return real->syscall(a...); });
  ON_CALL(*mock, DoRead).WillByDefault([real](auto... a) { return real->read(a...); });
  ON_CALL(*mock, DoWrite).WillByDefault([real](auto... a) { return real->write(a...); });
  ON_CALL(*mock, DoLSeek).WillByDefault([real](auto... a) { return real->lseek(a...); });
  ON_CALL(*mock, DoSyncFs).WillByDefault([real](auto... a) { return real->syncfs(a...); });
  ON_CALL(*mock, DoClose).WillByDefault([real](auto... a) { return real->close(a...); });
  return mock;
}

}  // namespace drn::testing
