// StreamingTarApi: output of any size, slow and interrupted reading, the time-out, and callers
// with closed standard descriptors or an ignored SIGCHLD.
#include "StreamingTarApi.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <stdexcept>

#include "TarRunFixture.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using testing::Described;
using Lines = std::vector<std::string>;

class StreamingTarApiTest : public testing::TarRunFixture<> {
 protected:
  std::vector<std::string> args = {"-tf", "a.tar"};
};

std::atomic<int> interruptions{0};

// Keeps the reader away from the pipe for a while, and breaks off its poll (which is never
// restarted), so that the child keeps meeting a full pipe.
void StallReader(int) {
  ++interruptions;
  const timespec pause{0, 1'000'000};
  ::nanosleep(&pause, nullptr);
}

TEST_F(StreamingTarApiTest, CapturesMegabytesWholeWhenTheReaderIsSlowAndInterrupted) {
  // Megabytes of every byte value in a period that no pipe or read size divides, written twice
  // with a pause between, which leaves the reader waiting in poll when the signals come.
  std::string payload(4 << 20, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) {
    payload[i] = static_cast<char>(i * 7 % 257);
  }
  const std::string file = "'" + programs.Dir().WriteFile("payload", payload) + "'";
  programs.AddScript("tar", "cat " + file + "; sleep 0.05; cat " + file);
  const auto previous = std::signal(SIGALRM, StallReader);
  const itimerval every2ms{{0, 2000}, {0, 2000}};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &every2ms, nullptr), 0);
  const auto [output, status] = StreamingTarApi().RunCmd(args);
  const itimerval off{};
  ::setitimer(ITIMER_REAL, &off, nullptr);
  std::signal(SIGALRM, previous);
  EXPECT_GT(interruptions.load(), 0);
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(output == payload + payload) << output.size() << " bytes";
}

TEST_F(StreamingTarApiTest, TimeOutKillsAndReapsTar) {
  EXPECT_THROW(StreamingTarApi(std::chrono::milliseconds(0)), std::invalid_argument);
  // Still writing, silent with the output open, and gone quiet with the output closed.
  const Lines scripts = {"while :; do echo x; sleep 0.01; done", "exec sleep 10",
                         "exec >&- 2>&-; exec sleep 10"};
  for (const std::string& script : scripts) {
    programs.AddScript("tar", script);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT([&] { StreamingTarApi(std::chrono::milliseconds(150)).RunCmd(args); },
                ::testing::ThrowsMessage<std::runtime_error>("tar timed out"))
        << script;
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3)) << script;
  }
  EXPECT_EQ(Described(log.Records()),
            Lines(3, "RunCmd 3/0x8027: tar timed out after 150 ms and was killed: tar -tf a.tar"));
}

TEST_F(StreamingTarApiTest, OnlyTheStreamingRunnerWaitsWhenChildSignalsAreIgnored) {
  programs.AddScript("tar", "exit 4");
  EXPECT_EQ(testing::RunInChild([this] {
              const testing::LogCapture childLog;
              std::signal(SIGCHLD, SIG_IGN);
              const bool streamed = StreamingTarApi().RunCmd(args).second == 4;
              struct sigaction after {};
              ::sigaction(SIGCHLD, nullptr, &after);
              try {
                TarApi().RunCmd(args);
              } catch (const std::runtime_error& error) {
                return streamed && after.sa_handler == SIG_IGN &&
                       std::string(error.what()) == "waitpid failure" &&
                       Described(childLog.Records()) ==
                           Lines{"RunCmd 3/0x8027: tar returned 4,\n",
                                 "RunCmd 3/0x8027: waitpid failure: " +
                                     std::string(std::strerror(ECHILD))};
              }
              return false;
            }),
            0);
}

TEST_F(StreamingTarApiTest, OutputReachesThePipeWhenTheCallerHasStandardDescriptorsClosed) {
  programs.AddScript("tar", "echo out; echo err >&2; exit 3");
  // With 1 and 2 closed the pipe's write end is 2; with 0 to 2 closed it is 1.
  for (const int firstClosed : {1, 0}) {
    EXPECT_EQ(testing::RunInChild([&] {
                for (int fd = firstClosed; fd <= 2; ++fd) {
                  ::close(fd);
                }
                const int open = testing::CountOpenDescriptors();
                return StreamingTarApi().RunCmd(args) ==
                           std::make_pair(std::string("out\nerr\n"), 3) &&
                       testing::CountOpenDescriptors() == open;
              }),
              0)
        << "closed from " << firstClosed;
  }
}

}  // namespace
}  // namespace drn
