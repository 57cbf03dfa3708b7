// LinuxApi's results and errno against the real C library, through LinuxApiIF's operations.
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
#include <string>

#include "SameCall.h"
#include "TestHelpers.h"

namespace drn {
namespace {

char text[] = "text";
char buffer[16];
int statusWord;
termios attributes;
gpiohandle_request handleRequest;
gpiohandle_data handleData;

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

class LinuxApiCallTest : public ::testing::TestWithParam<SameLinuxCall> {};

TEST_P(LinuxApiCallTest, SameResultAndErrnoAsTheCLibrary) {
  LinuxApi api;
  GetParam()(api);
}

// Calls whose failure (or harmless success) tells the right C function, argument order included.
INSTANTIATE_TEST_SUITE_P(
    Calls, LinuxApiCallTest,
    ::testing::Values(
        SAME(open(kMissing, O_RDONLY)), SAME(open(kMissing, O_RDWR | O_CREAT, 0600)),
        SAME(access(kMissing, F_OK)), SAME(chmod(kMissing, 0600u)), SAME(opendir(kFile.c_str())),
        SAME(syscall(SYS_memfd_create, kLongName.c_str(), 0u)), SAME(write(-1, text, 1ul)),
        SAME(read(-1, buffer, 1ul)), SAME(fsync(-1)), SAME(syncfs(-1)), SAME(close(-1)),
        SAME(lseek(-1, 0L, SEEK_SET)), SAME(ioctl(-1, 0ul, &handleRequest)),
        SAME(ioctl(-1, 0ul, &handleData)), SAME(ioctl(-1, 0ul, buffer)),
        SAME(stat(kDangling.c_str(), &statRecord)), SAME(lstat(kDangling.c_str(), &statRecord)),
        SAME(remove(kMissing)), SAME(readlink(kDangling.c_str(), buffer, sizeof buffer)),
        SAME(system(nullptr)), SAME(popen("true", "x")), SAME(fgets(buffer, 0, stdin)),
        SAME(setenv("", "x", 1)), SAME(unsetenv("")), SAME(rename(kMissing, text)),
        SAME(waitpid(999999, &statusWord, WNOHANG)), SAME(kill(999999, 0)),
        SAME(mkdir(kMissing, 0700u)), SAME(tcgetattr(-1, &attributes)),
        SAME(tcsetattr(-1, TCSANOW, &attributes)), SAME(cfsetispeed(&attributes, 12345u)),
        SAME(cfsetospeed(&attributes, 12345u)), SAME(poll(nullptr, 0ul, 0)),
        SAME(mmap(nullptr, 4096ul, PROT_READ, MAP_SHARED, -1, 0L)), SAME(tcflush(-1, TCIFLUSH))));

#undef SAME

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
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
}

}  // namespace
}  // namespace drn
