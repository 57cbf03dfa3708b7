// StreamingTarApi: output of any size, slow and interrupted reading, the time-out, and callers
// with closed standard descriptors or an ignored SIGCHLD.
#include "StreamingTarApi.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <ctime>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "FakeProgramDir.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using testing::Described;
using ::testing::ElementsAre;
using testing::FakeProgramDir;
using testing::LogCapture;

class StreamingTarApiTest : public ::testing::Test {
 protected:
  void TearDown() override {
    EXPECT_EQ(testing::CountOpenDescriptors(), descriptors);
    EXPECT_FALSE(testing::HasChildProcesses());
  }

  const int descriptors = testing::CountOpenDescriptors();
  FakeProgramDir programs;
  const LogCapture log;
  std::vector<std::string> args = {"-tf", "a.tar"};
};

std::atomic<int> interruptions{0};

// Keeps the reader away from the pipe for a while, and breaks off its poll and read (no
// SA_RESTART), so that the child keeps meeting a full pipe.
void StallReader(int) {
  ++interruptions;
  const timespec pause{0, 1'000'000};
  ::nanosleep(&pause, nullptr);
}

TEST_F(StreamingTarApiTest, CapturesMegabytesWholeWhenTheReaderIsSlowAndInterrupted) {
  // Megabytes of every byte value, written twice with a pause between, which leaves the reader
  // waiting in poll when the signals come.
  std::mt19937 random(7);
  std::string payload(4 << 20, '\0');
  for (char& byte : payload) {
    byte = static_cast<char>(random());
  }
  const std::string file = "'" + programs.Dir().WriteFile("payload", payload) + "'";
  programs.AddScript("tar", "cat " + file + "; sleep 0.05; cat " + file);
  struct sigaction stall {};
  stall.sa_handler = StallReader;
  struct sigaction previous {};
  ASSERT_EQ(::sigaction(SIGALRM, &stall, &previous), 0);
  const itimerval every2ms{{0, 2000}, {0, 2000}};
  const itimerval off{};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &every2ms, nullptr), 0);
  const auto [output, status] = StreamingTarApi().RunCmd(args);
  ::setitimer(ITIMER_REAL, &off, nullptr);
  ::sigaction(SIGALRM, &previous, nullptr);
  EXPECT_GT(interruptions.load(), 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(output.size(), 2 * payload.size());
  EXPECT_TRUE(output == payload + payload);
}

TEST_F(StreamingTarApiTest, TimeOutKillsAndReapsTar) {
  // Still writing, silent with the output open, and gone quiet with the output closed.
  for (const std::string script :
       {"while :; do echo x; sleep 0.01; done", "exec sleep 10", "exec >&- 2>&-; exec sleep 10"}) {
    programs.AddScript("tar", script);
    const LogCapture records;
    std::vector<std::string> list = {"-tf", "a.tar"};
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT([&] { StreamingTarApi(std::chrono::milliseconds(150)).RunCmd(list); },
                ::testing::ThrowsMessage<std::runtime_error>("tar timed out"))
        << script;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << script;
    EXPECT_THAT(Described(records.Records()),
                ElementsAre("RunCmd 3/0x8027: tar timed out after 150 ms and was killed: tar "
                            "-tf a.tar"));
    EXPECT_EQ(records.Records().at(0).file, "common/lib/FileSystem/src/StreamingTarApi.cpp");
    EXPECT_FALSE(testing::HasChildProcesses()) << script;
  }
}

TEST_F(StreamingTarApiTest, TimeOutMustBePositive) {
  EXPECT_THROW(StreamingTarApi(std::chrono::milliseconds(0)), std::invalid_argument);
}

TEST_F(StreamingTarApiTest, WorksWhenTheCallerIgnoresChildSignals) {
  programs.AddScript("tar", "exit 4");
  EXPECT_EQ(testing::RunInChild([this] {
              std::signal(SIGCHLD, SIG_IGN);
              const bool ran = StreamingTarApi().RunCmd(args) == std::make_pair(std::string(), 4);
              struct sigaction after {};
              ::sigaction(SIGCHLD, nullptr, &after);
              return ran && after.sa_handler == SIG_IGN;
            }),
            0);
}

class ClosedStandardDescriptorsTest : public ::testing::TestWithParam<std::set<int>> {};

TEST_P(ClosedStandardDescriptorsTest, OutputStillReachesThePipe) {
  const FakeProgramDir programs;
  programs.AddScript("tar", "echo out; echo err >&2; exit 3");
  EXPECT_EQ(testing::RunInChild([] {
              const LogCapture log;
              for (const int fd : GetParam()) {
                ::close(fd);
              }
              const int descriptors = testing::CountOpenDescriptors();
              std::vector<std::string> args;
              return StreamingTarApi().RunCmd(args) ==
                         std::make_pair(std::string("out\nerr\n"), 3) &&
                     testing::CountOpenDescriptors() == descriptors;
            }),
            0);
}

INSTANTIATE_TEST_SUITE_P(Closed, ClosedStandardDescriptorsTest,
                         ::testing::Values(std::set<int>{0}, std::set<int>{1}, std::set<int>{2},
                                           std::set<int>{1, 2}, std::set<int>{0, 1},
                                           std::set<int>{0, 1, 2}));

}  // namespace
}  // namespace drn
