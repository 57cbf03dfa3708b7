// Stopping drxfs: a signal ends tar and everything tar started, and drxfs with the signal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "FakeProgramDir.h"
#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsProcess;
using testing::DrxfsResult;
using testing::DrxfsSetting;
using testing::ListTree;

// Waits, with a limit only a hang reaches, until done() holds, and returns whether it does.
template <typename Done>
bool Eventually(Done done) {
  for (int attempt = 0; attempt < 3000 && !done(); ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

// Whether pid names a process that has not ended (a zombie has).
bool Running(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const std::string::size_type state = line.rfind(')') + 2;
  return state < line.size() && line[state] != 'Z' && line[state] != 'X';
}

struct StopCase {
  int signal;
  std::vector<std::string> args;  // after "tar"; ARCHIVE and OUT stand for the real paths
};

void PrintTo(const StopCase& value, std::ostream* os) {
  *os << strsignal(value.signal) << ' ' << ::testing::PrintToString(value.args);
}

class DrxfsStopTest : public ::testing::TestWithParam<StopCase> {};

TEST_P(DrxfsStopTest, LeavesNothingRunningAndEndsWithTheSignal) {
  // A slow tar, alone on PATH, that starts a process of its own and writes both process ids.
  const testing::FakeProgramDir fakes(testing::FakeProgramDir::Search::Only);
  if (testing::OnFat(fakes.Dir().Path())) {
    GTEST_SKIP() << "FAT keeps no permission bits: the unprivileged fake tar cannot write there";
  }
  ::chmod(fakes.Dir().Path().c_str(), 0777);
  const std::string pids = fakes.Dir() / "pids";
  fakes.AddScript("tar", "/bin/sleep 600 &\necho $$ $! > " + pids + ".new\n/bin/mv " + pids +
                             ".new " + pids + "\nwait");
  std::vector<std::string> args = {"tar"};
  for (const std::string& arg : GetParam().args) {
    args.push_back(arg == "ARCHIVE" ? fakes.Dir().WriteFile("archive.tar", "")
                   : arg == "OUT"   ? fakes.Dir().MakeDir("out")
                                    : arg);
  }
  DrxfsSetting setting;
  setting.unprivileged = true;
  DrxfsProcess drxfs(args, setting);
  ASSERT_TRUE(Eventually([&] { return std::filesystem::exists(pids); }));
  std::vector<pid_t> started;
  std::ifstream file(pids);
  for (pid_t pid = 0; file >> pid;) {
    started.push_back(pid);
  }
  ASSERT_EQ(started.size(), 2u);
  ASSERT_EQ(::kill(drxfs.Pid(), GetParam().signal), 0);
  const DrxfsResult result = drxfs.Wait();
  EXPECT_EQ(result.status, 128 + GetParam().signal);
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(Eventually([&] { return !Running(started[0]) && !Running(started[1]); }));
  ::kill(started[0], SIGKILL);
  ::kill(started[1], SIGKILL);
}

INSTANTIATE_TEST_SUITE_P(
    Signals, DrxfsStopTest,
    ::testing::Values(StopCase{SIGINT, {"list", "ARCHIVE"}}, StopCase{SIGTERM, {"list", "ARCHIVE"}},
                      StopCase{SIGHUP, {"list", "ARCHIVE"}},
                      StopCase{SIGTERM, {"list", "--runner", "pipe", "ARCHIVE"}},
                      StopCase{SIGTERM, {"extract", "--timeout", "60", "ARCHIVE", "OUT"}},
                      StopCase{SIGTERM, {"extract", "--runner", "pipe", "ARCHIVE", "OUT"}}));

TEST(DrxfsStopWriteTest, RemovesTheTemporaryFileOfAReplacementInProgress) {
  const testing::TempDir dir;
  const std::string settings = dir.WriteFile("settings", "old");
  // An input that never ends: drxfs waits for more while its temporary file exists.
  int input[2] = {-1, -1};
  ASSERT_EQ(::pipe2(input, O_CLOEXEC), 0);
  DrxfsSetting setting;
  setting.inputDescriptor = input[0];
  DrxfsProcess drxfs({"write", "--atomic", settings}, setting);
  ::close(input[0]);
  ASSERT_EQ(::write(input[1], "new", 3), 3);
  ASSERT_TRUE(Eventually([&] { return ListTree(dir.Path()).size() == 2; })) << "no replacement";
  ASSERT_EQ(::kill(drxfs.Pid(), SIGTERM), 0);
  const DrxfsResult result = drxfs.Wait();
  ::close(input[1]);
  EXPECT_EQ(result.status, 128 + SIGTERM);
  EXPECT_EQ(ListTree(dir.Path()), std::vector<std::string>{"settings"});
  EXPECT_EQ(testing::ReadWholeFile(settings), "old");
}

}  // namespace
}  // namespace drn
