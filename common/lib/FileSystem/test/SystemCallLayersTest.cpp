// The two system-call layers, LinuxApi (through LinuxApiIF) and SystemCallWrapper: each
// operation gives the same result and errno as the call it is named after.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "LinuxApi.h"
#include "SameCall.h"
#include "SystemCallWrapper.h"
#include "TestHelpers.h"

namespace drn {
namespace {

// What the calls fill in or read; the tables compare results and errno only.
char buffer[64];
char program[] = "/nonexistent/program";
char* const arguments[] = {program, nullptr};
int statusWord;
termios attributes;
gpiohandle_request handleRequest;
gpiohandle_data handleData;
sigset_t signals;
epoll_event events[1];
struct statfs statfsRecord;
struct statvfs statvfsRecord;
struct stat statRecord;
mq_attr queueAttributes;
timespec noTime;
__u8 bytes[4];
struct sysinfo systemInformation;
const testing::TempDir scratch;
// A link to nothing: readlink succeeds on it.
const std::string kDangling =
    ::symlink("missing", (scratch / "dangling").c_str()) == 0 ? scratch / "dangling" : "";
constexpr const char* kMissing = "/nonexistent/entry";
constexpr const char* kQueue = "/drx-test-no-such-queue";

class LinuxApiCallTest : public ::testing::TestWithParam<testing::SameCall<LinuxApiIF>> {};

TEST_P(LinuxApiCallTest, SameResultAndErrnoAsTheCLibrary) {
  LinuxApi api;
  GetParam()(api);
}

// Calls whose failure (or harmless success) tells the right C function, argument order included.
// The calls the library makes itself are left to the tests of what it does with them.
#define SAME(call) DRN_SAME_CALL(LinuxApiIF, call)
INSTANTIATE_TEST_SUITE_P(
    Calls, LinuxApiCallTest,
    ::testing::Values(
        SAME(chmod(kMissing, 0600u)), SAME(ioctl(-1, 0ul, &handleRequest)),
        SAME(ioctl(-1, 0ul, &handleData)), SAME(readlink(kDangling.c_str(), buffer, sizeof buffer)),
        SAME(system(nullptr)), SAME(popen("true", "x")), SAME(fgets(buffer, 0, stdin)),
        SAME(setenv("", "x", 1)), SAME(unsetenv("")), SAME(execvp(program, arguments)),
        SAME(waitpid(999999, &statusWord, WNOHANG)), SAME(kill(999999, 0)),
        SAME(mkdir(kMissing, 0700u)), SAME(tcgetattr(-1, &attributes)),
        SAME(tcsetattr(-1, TCSANOW, &attributes)), SAME(cfsetispeed(&attributes, 12345u)),
        SAME(cfsetospeed(&attributes, 12345u)), SAME(poll(nullptr, 0ul, 0)),
        SAME(mmap(nullptr, 4096ul, PROT_READ, MAP_SHARED, -1, 0L)), SAME(tcflush(-1, TCIFLUSH))));
#undef SAME

class SystemCallWrapperCallTest
    : public ::testing::TestWithParam<testing::SameCall<SystemCallWrapper>> {};

TEST_P(SystemCallWrapperCallTest, SameResultAndErrnoAsTheCall) {
  SystemCallWrapper wrapper;
  GetParam()(wrapper);
}

#define SAME(call) DRN_SAME_CALL(SystemCallWrapper, call)
INSTANTIATE_TEST_SUITE_P(
    Calls, SystemCallWrapperCallTest,
    ::testing::Values(
        SAME(kill(999999, 0)), SAME(pthread_sigmask(SIG_BLOCK, nullptr, &signals)),
        SAME(sigemptyset(&signals)), SAME(sigaddset(&signals, 0)),
        SAME(epoll_wait(-1, events, 1, 0)), SAME(epoll_ctl(-1, EPOLL_CTL_ADD, 0, events)),
        SAME(epoll_create1(-1)), SAME(statfs(kMissing, &statfsRecord)),
        SAME(statvfs(kMissing, &statvfsRecord)), SAME(remove(kMissing)), SAME(chdir(kMissing)),
        SAME(opendir(kDangling.c_str())), SAME(open(kMissing, O_RDONLY)), SAME(close(-1)),
        SAME(flock(-1, LOCK_SH)), SAME(stat(kMissing, &statRecord)), SAME(fstat(-1, &statRecord)),
        SAME(lstat(kDangling.c_str(), &statRecord)), SAME(mq_open(kQueue, O_RDONLY)),
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

// Calls that need a real object, or a child process.
TEST(LinuxApiTest, CallsWorkOnRealObjects) {
  LinuxApi api;
  int pipeFds[2];
  ASSERT_EQ(api.pipe(pipeFds), 0);
  EXPECT_EQ(api.close(pipeFds[0]) + api.close(pipeFds[1]), 0);
  EXPECT_EQ(api.pclose(api.popen("exit 3", "r")), 3 << 8);
  const testing::ScopedEnvironmentVariable zone("TZ", "UTC-3");
  api.tzset();
  EXPECT_EQ(::timezone, -3 * 3600);
  const int child = api.fork();
  if (child == 0) {
    ::_exit(7);
  }
  EXPECT_EQ(api.waitpid(child, &statusWord, 0), child);
  EXPECT_EQ(statusWord, 7 << 8);
}

// Calls that need a real object, a pending signal, or no privileges.
TEST(SystemCallWrapperTest, CallsWorkOnRealObjects) {
  SystemCallWrapper wrapper;
  DIR* dir = wrapper.opendir(scratch.Path().c_str());
  ASSERT_NE(dir, nullptr);
  EXPECT_NE(wrapper.readdir(dir), nullptr);
  EXPECT_EQ(wrapper.closedir(dir), 0);
  EXPECT_EQ(wrapper.remove(scratch.MakeDir("empty").c_str()), 0);  // directories too
  EXPECT_EQ(wrapper.ioctl(-1, FIONREAD, input_event{}), -1);       // the record by value
  EXPECT_EQ(errno, EBADF);
  wrapper.store_value(&events[0], 0x0123456789abcdefULL);
  EXPECT_EQ(events[0].data.u64, 0x0123456789abcdefULL);
  EXPECT_EQ(testing::RunInChild([&wrapper] {
              sigset_t usr1;
              wrapper.sigemptyset(&usr1);
              wrapper.sigaddset(&usr1, SIGUSR1);
              wrapper.pthread_sigmask(SIG_BLOCK, &usr1, nullptr);
              ::raise(SIGUSR1);
              int signal = 0;
              return wrapper.sigwait(&usr1, &signal) == 0 && signal == SIGUSR1;
            }),
            0);
  // Refused without privileges, and an unknown command besides: this can never restart anything.
  // (valgrind answers ENOSYS for this call without passing it on.)
  EXPECT_EQ(testing::RunUnprivileged([&wrapper] {
              return ::geteuid() != 0 && wrapper.reboot(0x0badc0de) == -1 &&
                     (errno == EPERM || errno == ENOSYS);
            }),
            0);
}

}  // namespace
}  // namespace drn
