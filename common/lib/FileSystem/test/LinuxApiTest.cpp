// LinuxApiIF forwarding, and LinuxApi's results and errno against the real C library.
#include "LinuxApi.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "MockLinuxApi.h"
#include "Path.h"
#include "SameCall.h"
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

// Scratch entries shared by the call tables: a regular file and a link to nothing.
const std::string& Scratch() {
  static const testing::TempDir dir;
  static const std::string file = dir.WriteFile("file", "x");
  static const bool linked = (::symlink("missing", (dir / "dangling").c_str()) == 0);
  (void)linked;
  return dir.Path();
}

const std::string kDangling = Scratch() + "/dangling";  // stat fails, lstat succeeds
const std::string kFile = Scratch() + "/file";
const std::string kLongName(300, 'n');  // too long for memfd_create
constexpr const char* kMissing = "/nonexistent/entry";
struct stat statRecord;

using SameLinuxCall = testing::SameCall<LinuxApiIF>;
#define SAME(call) DRN_SAME_CALL(LinuxApiIF, call)

// Calls whose failure (or harmless success) tells the right C function, argument order included.
const SameLinuxCall kSameCalls[] = {
    SAME(open(kMissing, O_RDONLY)),
    SAME(open(kMissing, O_RDWR | O_CREAT, 0600)),
    SAME(access(kMissing, F_OK)),
    SAME(chmod(kMissing, 0600u)),
    SAME(opendir(kFile.c_str())),
    SAME(syscall(SYS_memfd_create, kLongName.c_str(), 0u)),
    SAME(write(-1, text, 1ul)),
    SAME(read(-1, buffer, 1ul)),
    SAME(fsync(-1)),
    SAME(syncfs(-1)),
    SAME(close(-1)),
    SAME(lseek(-1, 0L, SEEK_SET)),
    SAME(ioctl(-1, 0ul, &handleRequest)),
    SAME(ioctl(-1, 0ul, &handleData)),
    SAME(ioctl(-1, 0ul, buffer)),
    SAME(stat(kDangling.c_str(), &statRecord)),
    SAME(lstat(kDangling.c_str(), &statRecord)),
    SAME(remove(kMissing)),
    SAME(readlink(kDangling.c_str(), buffer, sizeof buffer)),
    SAME(system(nullptr)),
    SAME(popen("true", "x")),
    SAME(fgets(buffer, 0, stdin)),
    SAME(setenv("", "x", 1)),
    SAME(unsetenv("")),
    SAME(rename(kMissing, text)),
    SAME(waitpid(999999, &statusWord, WNOHANG)),
    SAME(kill(999999, 0)),
    SAME(mkdir(kMissing, 0700u)),
    SAME(tcgetattr(-1, &attributes)),
    SAME(tcsetattr(-1, TCSANOW, &attributes)),
    SAME(cfsetispeed(&attributes, 12345u)),
    SAME(cfsetospeed(&attributes, 12345u)),
    SAME(poll(nullptr, 0ul, 0)),
    SAME(mmap(nullptr, 4096ul, PROT_READ, MAP_SHARED, -1, 0L)),
    SAME(tcflush(-1, TCIFLUSH)),
};

#undef SAME

class LinuxApiCallTest : public ::testing::TestWithParam<SameLinuxCall> {};

TEST_P(LinuxApiCallTest, SameResultAndErrnoAsTheCLibrary) {
  LinuxApi api;
  testing::ExpectSameCall<LinuxApiIF>(GetParam(), api);
}

INSTANTIATE_TEST_SUITE_P(Calls, LinuxApiCallTest, ::testing::ValuesIn(kSameCalls));

// Calls that need a real object on both sides, or a child process.
TEST(LinuxApiTest, CallsWorkOnRealObjects) {
  LinuxApi api;
  int pipeFds[2];
  ASSERT_EQ(api.pipe(pipeFds), 0);
  EXPECT_EQ(api.write(pipeFds[1], "ab", 2), 2);
  pollfd ready{pipeFds[0], POLLIN, 0};
  EXPECT_EQ(api.poll(&ready, 1, 0), 1);
  char got[2] = {};
  EXPECT_EQ(api.read(pipeFds[0], got, 2), 2);
  EXPECT_EQ(std::string(got, 2), "ab");
  EXPECT_EQ(api.close(pipeFds[0]) + api.close(pipeFds[1]), 0);

  DIR* dir = api.opendir(Scratch().c_str());
  ASSERT_NE(dir, nullptr);
  int names = 0;
  while (const dirent* entry = api.readdir(dir)) {
    names += std::string(entry->d_name) == "file" ? 1 : 0;
  }
  EXPECT_EQ(names, 1);
  EXPECT_EQ(api.closedir(dir), 0);

  FILE* shell = api.popen("echo out; exit 3", "r");
  ASSERT_NE(shell, nullptr);
  EXPECT_STREQ(api.fgets(buffer, sizeof buffer, shell), "out\n");
  EXPECT_EQ(api.pclose(shell), 3 << 8);

  const testing::ScopedEnvironmentVariable zone("TZ", "UTC0");
  api.tzset();
  EXPECT_EQ(::timezone, 0);

  const long memfd = api.syscall(SYS_memfd_create, "name", 0);
  ASSERT_GE(memfd, 0);
  EXPECT_EQ(api.close(static_cast<int>(memfd)), 0);
}

TEST(LinuxApiTest, ForksWaitsAndExecutes) {
  LinuxApi api;
  const int child = api.fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    char program[] = "/nonexistent/program";
    char* const argv[] = {program, nullptr};
    const int result = api.execvp(program, argv);  // returns only on failure
    ::_exit(result == -1 && errno == ENOENT ? 7 : 1);
  }
  int status = 0;
  EXPECT_EQ(api.waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 7);
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
