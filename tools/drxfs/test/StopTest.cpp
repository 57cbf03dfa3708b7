// Stopping drxfs: a signal ends tar and everything tar started, and drxfs with the signal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
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
using testing::FakeProgramDir;
using testing::Unprivileged;

// Whether pid names a process that has not ended (a zombie has).
bool Running(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) {
    return false;
  }
  const std::string::size_type commandEnd = line.rfind(')');
  return commandEnd != std::string::npos && commandEnd + 2 < line.size() &&
         line[commandEnd + 2] != 'Z' && line[commandEnd + 2] != 'X';
}

const char* const kFatReason =
    "FAT keeps no permission bits: the unprivileged fake tar cannot write its process ids there";

// A slow tar, alone on PATH, that starts a process of its own and writes both process ids.
class SlowTar {
 public:
  SlowTar() {
    // drxfs and the fake run unprivileged, and the fake writes here.
    ::chmod(fakes.Dir().Path().c_str(), 0777);
    fakes.AddScript("tar", "/bin/sleep 60 &\necho $$ $! > " + pidFile + ".new\n/bin/mv " + pidFile +
                               ".new " + pidFile + "\nwait");
  }
  ~SlowTar() {
    for (const pid_t pid : started) {
      ::kill(pid, SIGKILL);
    }
  }
  SlowTar(const SlowTar&) = delete;
  SlowTar& operator=(const SlowTar&) = delete;

  // Waits until tar runs and returns its process id and that of its own child.
  std::vector<pid_t> Started() {
    for (int attempt = 0; attempt < 1000 && started.empty(); ++attempt) {
      std::ifstream file(pidFile);
      pid_t pid = 0;
      while (file >> pid) {
        started.push_back(pid);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return started;
  }

  // Which of them still run, after giving a kill that was already sent a moment to land.
  std::vector<pid_t> StillRunning() const {
    std::vector<pid_t> running;
    for (int attempt = 0; attempt < 20; ++attempt) {
      running.clear();
      for (const pid_t pid : started) {
        if (Running(pid)) {
          running.push_back(pid);
        }
      }
      if (running.empty()) {
        break;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return running;
  }

  bool OnFat() const { return testing::OnFat(fakes.Dir().Path()); }
  const std::string& Archive() const { return archive; }
  const std::string& Destination() const { return destination; }

 private:
  FakeProgramDir fakes{FakeProgramDir::Search::Only};
  std::string pidFile = fakes.Dir() / "pids";
  std::string archive = fakes.Dir().WriteFile("archive.tar", "");
  std::string destination = fakes.Dir().MakeDir("out");
  std::vector<pid_t> started;
};

struct StopCase {
  int signal;
  std::vector<std::string> args;  // after "tar"; ARCHIVE and OUT stand for the real paths
};

void PrintTo(const StopCase& value, std::ostream* os) {
  *os << strsignal(value.signal) << ' ' << ::testing::PrintToString(value.args);
}

class DrxfsStopTest : public ::testing::TestWithParam<StopCase> {};

TEST_P(DrxfsStopTest, LeavesNothingRunningAndEndsWithTheSignal) {
  SlowTar tar;
  if (tar.OnFat()) {
    GTEST_SKIP() << kFatReason;
  }
  std::vector<std::string> args = {"tar"};
  for (const std::string& arg : GetParam().args) {
    args.push_back(arg == "ARCHIVE" ? tar.Archive() : arg == "OUT" ? tar.Destination() : arg);
  }
  DrxfsProcess drxfs(args, Unprivileged());
  ASSERT_EQ(tar.Started().size(), 2u);
  ASSERT_EQ(::kill(drxfs.Pid(), GetParam().signal), 0);
  const DrxfsResult result = drxfs.Wait();
  EXPECT_EQ(result.status, 128 + GetParam().signal);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(tar.StillRunning(), std::vector<pid_t>{});
}

INSTANTIATE_TEST_SUITE_P(
    Signals, DrxfsStopTest,
    ::testing::Values(StopCase{SIGINT, {"list", "ARCHIVE"}}, StopCase{SIGTERM, {"list", "ARCHIVE"}},
                      StopCase{SIGHUP, {"list", "ARCHIVE"}},
                      StopCase{SIGTERM, {"list", "--runner", "pipe", "ARCHIVE"}},
                      StopCase{SIGTERM, {"extract", "--timeout", "60", "ARCHIVE", "OUT"}},
                      StopCase{SIGTERM, {"extract", "--runner", "pipe", "ARCHIVE", "OUT"}}));

// What the check above looks for is there to be seen: a drxfs that cannot clean up leaves at
// least tar's own child running.
TEST(DrxfsStopCheckTest, SeesWhatAKilledDrxfsLeavesRunning) {
  SlowTar tar;
  if (tar.OnFat()) {
    GTEST_SKIP() << kFatReason;
  }
  DrxfsProcess drxfs({"tar", "list", tar.Archive()}, Unprivileged());
  ASSERT_EQ(tar.Started().size(), 2u);
  ASSERT_EQ(::kill(drxfs.Pid(), SIGKILL), 0);
  EXPECT_EQ(drxfs.Wait().status, 128 + SIGKILL);
  EXPECT_FALSE(tar.StillRunning().empty());
}

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
  for (int attempt = 0; attempt < 6000 && testing::ListTree(dir.Path()).size() < 2; ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ASSERT_EQ(testing::ListTree(dir.Path()).size(), 2u) << "no replacement was started";
  ASSERT_EQ(::kill(drxfs.Pid(), SIGTERM), 0);
  const DrxfsResult result = drxfs.Wait();
  ::close(input[1]);
  EXPECT_EQ(result.status, 128 + SIGTERM);
  EXPECT_EQ(testing::ListTree(dir.Path()), std::vector<std::string>{"settings"});
  EXPECT_EQ(testing::ReadWholeFile(settings), "old");
}

}  // namespace
}  // namespace drn
