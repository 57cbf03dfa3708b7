// SystemCallWrapper against the real calls, and its substitute.
#include "SystemCallWrapper.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SameCall.h"
#include "TestHelpers.h"

namespace drn {
namespace {

// Records the calls fill in; the tables compare results and errno only.
char buffer[64];
sigset_t signals;
epoll_event events[1];
struct statfs statfsRecord;
struct statvfs statvfsRecord;
struct stat statRecord;
mq_attr queueAttributes;
timespec noTime;
__u8 bytes[4];
struct sysinfo systemInformation;
constexpr const char* kMissing = "/nonexistent/entry";
constexpr const char* kQueue = "/drx-test-no-such-queue";

using SameWrapperCall = testing::SameCall<SystemCallWrapper>;
#define SAME(call) DRN_SAME_CALL(SystemCallWrapper, call)

class SystemCallWrapperCallTest : public ::testing::TestWithParam<SameWrapperCall> {};

TEST_P(SystemCallWrapperCallTest, SameResultAndErrnoAsTheCall) {
  SystemCallWrapper wrapper;
  GetParam()(wrapper);
}

// Calls whose failure (or harmless success) tells the right function, argument order included.
INSTANTIATE_TEST_SUITE_P(
    Calls, SystemCallWrapperCallTest,
    ::testing::Values(
        SAME(kill(999999, 0)), SAME(pthread_sigmask(SIG_BLOCK, nullptr, &signals)),
        SAME(sigemptyset(&signals)), SAME(sigaddset(&signals, 0)),
        SAME(epoll_wait(-1, events, 1, 0)), SAME(epoll_ctl(-1, EPOLL_CTL_ADD, 0, events)),
        SAME(epoll_create1(-1)), SAME(statfs(kMissing, &statfsRecord)),
        SAME(statvfs(kMissing, &statvfsRecord)), SAME(remove(kMissing)), SAME(chdir(kMissing)),
        SAME(opendir("/proc/self/status")), SAME(open(kMissing, O_RDONLY)), SAME(close(-1)),
        SAME(flock(-1, LOCK_SH)), SAME(stat(kMissing, &statRecord)), SAME(fstat(-1, &statRecord)),
        SAME(lstat("/proc/self/exe", &statRecord)), SAME(mq_open(kQueue, O_RDONLY)),
        SAME(mq_open(kQueue, O_RDONLY, 0600, &queueAttributes)), SAME(mq_close(-1)),
        SAME(mq_unlink(kQueue)), SAME(mq_receive(-1, buffer, sizeof buffer, nullptr)),
        SAME(mq_timedreceive(-1, buffer, sizeof buffer, nullptr, &noTime)),
        SAME(mq_send(-1, buffer, 1, 0)), SAME(mq_getattr(-1, &queueAttributes)),
        SAME(ioctl(-1, FIONREAD, static_cast<void*>(buffer))),
        SAME(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, -1, 0)), SAME(munmap(nullptr, 0)),
        SAME(i2c_smbus_read_i2c_block_data(-1, 1, 4, bytes)),
        SAME(i2c_smbus_write_i2c_block_data(-1, 1, 4, bytes)),
        SAME(i2c_smbus_read_byte_data(-1, 1)), SAME(i2c_smbus_read_byte(-1)),
        SAME(i2c_smbus_write_byte_data(-1, 1, 2)), SAME(i2c_smbus_read_word_data(-1, 1)),
        SAME(i2c_smbus_write_word_data(-1, 1, 2)), SAME(i2c_smbus_write_byte(-1, 1)),
        SAME(ioctl(-1, TCFLSH, std::uint8_t{1})), SAME(ioctl(-1, TCFLSH, 1ul)),
        SAME(ioctl(-1, TCFLSH, 1L)), SAME(ioctl(-1, FIOCLEX)),
        SAME(mount("none", kMissing, "none", 0ul, nullptr)), SAME(umount(kMissing)),
        SAME(gethostname(buffer, 0)), SAME(sysinfo(&systemInformation))));

#undef SAME

// Calls that need a real object, a pending signal, or no privileges.
TEST(SystemCallWrapperTest, CallsWorkOnRealObjects) {
  SystemCallWrapper wrapper;
  DIR* dir = wrapper.opendir("/");
  ASSERT_NE(dir, nullptr);
  EXPECT_NE(wrapper.readdir(dir), nullptr);
  EXPECT_EQ(wrapper.closedir(dir), 0);

  const int status = testing::RunInChild([&wrapper] {
    sigset_t usr1;
    wrapper.sigemptyset(&usr1);
    wrapper.sigaddset(&usr1, SIGUSR1);
    wrapper.pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
    ::raise(SIGUSR1);
    int signal = 0;
    return wrapper.sigwait(&usr1, &signal) == 0 && signal == SIGUSR1;
  });
  EXPECT_EQ(status, 0);

  // Refused without privileges, and an unknown command besides: this can never restart anything.
  // (valgrind answers ENOSYS for this call without passing it on.)
  const int refused = testing::RunUnprivileged([&wrapper] {
    return ::geteuid() != 0 && wrapper.reboot(0x0badc0de) == -1 &&
           (errno == EPERM || errno == ENOSYS);
  });
  EXPECT_EQ(refused, 0);
}

// An input_event passed by value is the wrapper's copy: FIONREAD's count never reaches it.
TEST(SystemCallWrapperTest, ByValueRecordIsNotWrittenBackAndStoreValueFillsTheEvent) {
  int pipeFds[2];
  ASSERT_EQ(::pipe(pipeFds), 0);
  ASSERT_EQ(::write(pipeFds[1], "abc", 3), 3);
  SystemCallWrapper wrapper;
  input_event record{};
  std::memset(&record, 0x5a, sizeof record);
  const input_event before = record;
  EXPECT_EQ(wrapper.ioctl(pipeFds[0], FIONREAD, record), 0);
  EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
  int pending = 0;
  EXPECT_EQ(wrapper.ioctl(pipeFds[0], FIONREAD, static_cast<void*>(&pending)), 0);
  EXPECT_EQ(pending, 3);
  ::close(pipeFds[0]);
  ::close(pipeFds[1]);
  epoll_event event{};
  wrapper.store_value(&event, 0x0123456789abcdefULL);
  EXPECT_EQ(event.data.u64, 0x0123456789abcdefULL);
}

}  // namespace
}  // namespace drn
