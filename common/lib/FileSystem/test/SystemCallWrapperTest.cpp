// SystemCallWrapper against the real calls, and its substitute.
#include "SystemCallWrapper.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "MockSystemCallWrapper.h"

namespace drn {
namespace {

using ::testing::_;
using ::testing::Return;
using ::testing::StrEq;

TEST(SystemCallWrapperTest, StatfsIsTheCLibraryCall) {
  auto wrapper = std::make_shared<SystemCallWrapper>();
  struct statfs stats {};
  ASSERT_EQ(wrapper->statfs("/", &stats), 0);
  EXPECT_GT(stats.f_blocks, 0u);
  errno = 0;
  EXPECT_EQ(wrapper->statfs("/nonexistent/x", &stats), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(SystemCallWrapperTest, ByValueRecordIsNotWrittenBack) {
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  ASSERT_EQ(::write(pipeFds[1], "abc", 3), 3);
  SystemCallWrapper wrapper;
  input_event record{};
  std::memset(&record, 0x5a, sizeof record);
  const input_event before = record;
  // FIONREAD stores the pending byte count through its pointer: into the wrapper's copy.
  EXPECT_EQ(wrapper.ioctl(pipeFds[0], FIONREAD, record), 0);
  EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
  int pending = 0;
  EXPECT_EQ(wrapper.ioctl(pipeFds[0], FIONREAD, static_cast<void*>(&pending)), 0);
  EXPECT_EQ(pending, 3);
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
}

TEST(SystemCallWrapperTest, StoreValueWritesTheEventData) {
  SystemCallWrapper wrapper;
  epoll_event event{};
  wrapper.store_value(&event, 0x0123456789abcdefULL);
  EXPECT_EQ(event.data.u64, 0x0123456789abcdefULL);
}

TEST(SystemCallWrapperTest, SubstituteReplacesOnlyWhatItOverrides) {
  MockSystemCallWrapper mock;
  EXPECT_CALL(mock, statfs(StrEq("/card"), _)).WillOnce(Return(-1));
  SystemCallWrapper& wrapper = mock;
  struct statfs stats {};
  EXPECT_EQ(wrapper.statfs("/card", &stats), -1);
  char name[256] = {};
  EXPECT_EQ(wrapper.gethostname(name, sizeof name), 0);  // still the real call
  EXPECT_GT(std::strlen(name), 0u);
}

}  // namespace
}  // namespace drn
