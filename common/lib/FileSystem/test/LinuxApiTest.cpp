// LinuxApiIF forwarding, and LinuxApi's results and errno against the real C library.
#include "LinuxApi.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <memory>
#include <string>

#include "MockLinuxApi.h"
#include "Path.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using ::testing::Return;
using ::testing::StrictMock;

// Distinct values for every argument, so that a swapped or altered argument shows.
char text[] = "text";
char other[] = "other";
char buffer[16];
int fds[2];
int statusWord;
struct stat statBuffer;
termios attributes;
pollfd pollSet;
gpiohandle_request handleRequest;
gpiohandle_data handleData;
DIR* const dir = reinterpret_cast<DIR*>(0x10);
dirent entry;
FILE* const stream = reinterpret_cast<FILE*>(0x20);
char* argv[] = {text, nullptr};
void* const mapped = reinterpret_cast<void*>(0x30);

struct ForwardingCase {
  const char* name;
  std::function<void(StrictMock<MockLinuxApi>&, LinuxApiIF&)> check;
};

// Each case expects exactly one call of the Do... partner with the same arguments, and checks
// that its result comes back unchanged.
#define FORWARDS(call, doCall, result)                                 \
  ForwardingCase {                                                     \
#call, [](StrictMock<MockLinuxApi>& mock, LinuxApiIF& api) {         \
      EXPECT_CALL(mock, doCall).WillOnce(Return(result));                \
      EXPECT_EQ(api.call, result);                                       \
    } \
  }

const ForwardingCase kForwardingCases[] = {
    FORWARDS(open(text, 3), DoOpen(text, 3), 11),
    FORWARDS(open(text, 0x41, 0640), DoOpen(text, 0x41, 0640), 12),
    FORWARDS(access(text, 4), DoAccess(text, 4), -1),
    FORWARDS(chmod(text, 0600u), DoChmod(text, 0600u), 13),
    FORWARDS(opendir(text), DoOpenDir(text), dir),
    FORWARDS(closedir(dir), DoCloseDir(dir), 14),
    FORWARDS(readdir(dir), DoReadDir(dir), &entry),
    FORWARDS(syscall(279, text, 7u), DoSysCall(279, text, 7u), 15L),
    FORWARDS(write(5, text, 4ul), DoWrite(5, text, 4ul), 4L),
    FORWARDS(read(6, buffer, 16ul), DoRead(6, buffer, 16ul), 9L),
    FORWARDS(fsync(7), DoFsync(7), 16),
    FORWARDS(syncfs(8), DoSyncFs(8), 17),
    FORWARDS(close(9), DoClose(9), 18),
    FORWARDS(lseek(10, -5L, SEEK_END), DoLSeek(10, -5L, SEEK_END), 123L),
    FORWARDS(ioctl(1, 2ul, &handleRequest), DoIoctl(1, 2ul, &handleRequest), 19),
    FORWARDS(ioctl(1, 3ul, &handleData), DoIoctl(1, 3ul, &handleData), 20),
    FORWARDS(ioctl(1, 4ul, buffer), DoIoctl(1, 4ul, buffer), 21),
    FORWARDS(stat(text, &statBuffer), DoStat(text, &statBuffer), 22),
    FORWARDS(remove(text), DoRemove(text), 23),
    FORWARDS(readlink(text, buffer, 16ul), DoReadlink(text, buffer, 16ul), 24L),
    FORWARDS(lstat(text, &statBuffer), DoLstat(text, &statBuffer), 25),
    FORWARDS(system(text), DoSystem(text), 26),
    FORWARDS(popen(text, other), DoPOpen(text, other), stream),
    FORWARDS(fgets(buffer, 16, stream), DoFGetS(buffer, 16, stream), buffer),
    FORWARDS(pclose(stream), DoPClose(stream), 27),
    FORWARDS(setenv(text, other, 1), DoSetenv(text, other, 1), 28),
    FORWARDS(unsetenv(text), DoUnsetenv(text), 29),
    FORWARDS(rename(text, other), DoRename(text, other), 30),
    FORWARDS(fork(), DoFork(), 31),
    FORWARDS(execvp(text, argv), DoExecvp(text, argv), 32),
    FORWARDS(waitpid(33, &statusWord, 1), DoWaitpid(33, &statusWord, 1), 34),
    FORWARDS(kill(35, 9), DoKill(35, 9), 36),
    FORWARDS(mkdir(text, 0755u), DoMkdir(text, 0755u), 37),
    FORWARDS(tcgetattr(3, &attributes), DoTcgetattr(3, &attributes), 38),
    FORWARDS(tcsetattr(3, 1, &attributes), DoTcsetattr(3, 1, &attributes), 39),
    FORWARDS(cfsetispeed(&attributes, 9600u), DoCfsetispeed(&attributes, 9600u), 40),
    FORWARDS(cfsetospeed(&attributes, 4800u), DoCfsetospeed(&attributes, 4800u), 41),
    FORWARDS(pipe(fds), DoPipe(fds), 42),
    FORWARDS(poll(&pollSet, 1ul, 100), DoPoll(&pollSet, 1ul, 100), 43),
    FORWARDS(mmap(mapped, 4096ul, 1, 2, 3, 8192L), DoMmap(mapped, 4096ul, 1, 2, 3, 8192L), mapped),
    FORWARDS(tcflush(3, 2), DoTcFlush(3, 2), 44),
};

#undef FORWARDS

void PrintTo(const ForwardingCase& value, std::ostream* os) {
  *os << value.name;
}

class LinuxApiForwardingTest : public ::testing::TestWithParam<ForwardingCase> {};

TEST_P(LinuxApiForwardingTest, OneCallWithUnchangedArgumentsAndResult) {
  StrictMock<MockLinuxApi> mock;
  GetParam().check(mock, mock);
}

INSTANTIATE_TEST_SUITE_P(
    AllOperations, LinuxApiForwardingTest, ::testing::ValuesIn(kForwardingCases),
    [](const auto& info) {
      return std::string(info.param.name).substr(0, std::string(info.param.name).find('(')) +
             std::to_string(info.index);
    });

TEST(LinuxApiForwardingTest, TzsetForwards) {
  StrictMock<MockLinuxApi> mock;
  EXPECT_CALL(mock, DoTzset());
  static_cast<LinuxApiIF&>(mock).tzset();
}

struct FailureCase {
  const char* name;
  std::function<bool(LinuxApiIF&)> failed;
  int expectedErrno;
};

void PrintTo(const FailureCase& value, std::ostream* os) {
  *os << value.name;
}

class LinuxApiFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(LinuxApiFailureTest, ReturnsFailureValueWithCLibraryErrno) {
  LinuxApi api;
  errno = 0;
  EXPECT_TRUE(GetParam().failed(api));
  EXPECT_EQ(errno, GetParam().expectedErrno);
}

const FailureCase kFailureCases[] = {
    {"openMissing", [](LinuxApiIF& api) { return api.open("/nonexistent/x", O_RDONLY) == -1; },
     ENOENT},
    {"openNoCreateMode",
     [](LinuxApiIF& api) { return api.open("/nonexistent/x", O_RDWR | O_CREAT, 0600) == -1; },
     ENOENT},
    {"closeBad", [](LinuxApiIF& api) { return api.close(-1) == -1; }, EBADF},
    {"opendirFile", [](LinuxApiIF& api) { return api.opendir("/proc/self/status") == nullptr; },
     ENOTDIR},
    {"lseekBad", [](LinuxApiIF& api) { return api.lseek(-1, 0, SEEK_SET) == -1; }, EBADF},
    {"readBad", [](LinuxApiIF& api) { return api.read(-1, buffer, 1) == -1; }, EBADF},
    {"syncfsBad", [](LinuxApiIF& api) { return api.syncfs(-1) == -1; }, EBADF},
    {"accessMissing", [](LinuxApiIF& api) { return api.access("/nonexistent", 0) == -1; }, ENOENT},
    {"mmapBad",
     [](LinuxApiIF& api) {
       return api.mmap(nullptr, 4096, PROT_READ, MAP_SHARED, -1, 0) == MAP_FAILED;
     },
     EBADF},
    {"popenBadMode", [](LinuxApiIF& api) { return api.popen("true", "x") == nullptr; }, EINVAL},
};

INSTANTIATE_TEST_SUITE_P(Calls, LinuxApiFailureTest, ::testing::ValuesIn(kFailureCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(LinuxApiTest, RealCallsWork) {
  const testing::TempDir dir;
  LinuxApi api;
  const std::string file = dir / "f";
  const int fd = api.open(file.c_str(), O_RDWR | O_CREAT, 0600);
  ASSERT_GE(fd, 0);
  EXPECT_EQ(api.write(fd, "abc", 3), 3);
  EXPECT_EQ(api.lseek(fd, 1, SEEK_SET), 1);
  char got[2] = {};
  EXPECT_EQ(api.read(fd, got, 2), 2);
  EXPECT_EQ(std::string(got, 2), "bc");
  EXPECT_EQ(api.close(fd), 0);
  EXPECT_EQ(testing::ReadWholeFile(file), "abc");

  const long memfd = api.syscall(SYS_memfd_create, "name", 0);
  ASSERT_GE(memfd, 0);
  EXPECT_EQ(api.close(static_cast<int>(memfd)), 0);
}

// A substitute that replaces one call and keeps the rest real.
class DenyingAccess : public LinuxApi {
 protected:
  int DoAccess(const char*, int) override {
    errno = EACCES;
    ++calls;
    return -1;
  }

 public:
  static inline int calls = 0;
};

TEST(LinuxApiTest, OneOverrideSeesCallsFromInsideTheLibrary) {
  DenyingAccess::calls = 0;
  const Path path("/nonexistent", std::make_unique<DenyingAccess>());
  EXPECT_TRUE(path.Exists());        // EACCES means "something is there"
  EXPECT_FALSE(path.IsDirectory());  // the real opendir still runs
  EXPECT_EQ(DenyingAccess::calls, 2);
}

}  // namespace
}  // namespace drn
