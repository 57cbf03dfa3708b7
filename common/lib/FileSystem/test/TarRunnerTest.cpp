// Both tar runners with a stand-in tar: outputs, statuses and records, a killed tar, and closing
// a pipe. Then what only the streaming runner does: megabytes of output
// read while interrupted, the time-out, callers that ignore SIGCHLD, and tar's end with the
// program or thread that runs it. No run leaves a descriptor or a child behind.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FakeProgramDir.h"
#include "StreamingTarApi.h"
#include "TestHelpers.h"
#include "Untar.h"

namespace drn {
namespace {

using namespace std::string_literals;
using namespace std::chrono_literals;
using testing::Described;
using Lines = std::vector<std::string>;

template <typename Base>
class TarRunFixture : public Base {
 protected:
  void TearDown() override {
    EXPECT_EQ(testing::CountOpenDescriptors(), descriptors);
    EXPECT_FALSE(testing::HasChildProcesses());
  }

  const int descriptors = testing::CountOpenDescriptors();
  testing::FakeProgramDir programs;
  const testing::LogCapture log;
  std::vector<std::string> args = {"-tf", "an archive.tar"};
};

class TarRunnerTest : public TarRunFixture<::testing::TestWithParam<const char*>> {
 protected:
  std::shared_ptr<TarApi> Make() const {
    if (GetParam() == "TarApi"s) {
      return std::make_shared<TarApi>();
    }
    return GetParam() == "Streaming"s ? std::make_shared<StreamingTarApi>()
                                      : std::make_shared<StreamingTarApi>(10s);
  }
};

// TarApi interleaves standard error with the output as written; the streaming runner returns it
// after the output only when tar fails, and otherwise logs it. A failure's record carries an
// output of up to 4 KiB whole.
TEST_P(TarRunnerTest, GivesTheOutputsAndTheExitStatus) {
  const bool apart = GetParam() != "TarApi"s;
  const std::string pad(3000, '\0');
  const std::string output = "out\0\n[-tf][an archive.tar]"s + pad;
  const std::string interleaved = "out\0\nerr\n[-tf][an archive.tar]"s + pad;
  // The second run gets the list back with "tar" in front already and must not add another.
  for (const int status : {0, 2}) {
    programs.AddScript("tar",
                       "printf 'out\\0\\n'; echo err >&2; printf '[%s]' \"$@\"; "
                       "head -c 3000 /dev/zero; exit " +
                           std::to_string(status));
    EXPECT_EQ(Make()->RunCmd(args),
              std::make_pair(apart ? output + (status == 0 ? "" : "err\n") : interleaved, status));
    EXPECT_THAT(args, ::testing::ElementsAre("tar", "-tf", "an archive.tar"));
  }
  const std::string failed =
      "RunCmd 3/0x8027: tar returned 2,\n" + (apart ? output + "err\n" : interleaved);
  const Lines records =
      apart ? Lines{"RunCmd 4/0x8027: tar wrote on standard error: err\n", failed} : Lines{failed};
  EXPECT_EQ(Described(log.Records()), records);
}

TEST_P(TarRunnerTest, ChildKilledBySignalThrows) {
  programs.AddScript("tar", "echo lost; kill -KILL $$");
  EXPECT_THAT([&] { Make()->RunCmd(args); },
              ::testing::ThrowsMessage<std::runtime_error>("child process did not exit"));
  EXPECT_EQ(Described(log.Records()), Lines{"RunCmd 3/0x8027: child process did not exit: 9"});
}

INSTANTIATE_TEST_SUITE_P(Runners, TarRunnerTest,
                         ::testing::Values("TarApi", "Streaming", "StreamingWithTimeOut"),
                         [](const auto& info) { return std::string(info.param); });

TEST(ClosePipeTest, ClosesBothEndsAndRecordsAFailure) {
  // Whether the read end and the write end are closed beforehand, and ClosePipe's result.
  for (const auto [readClosed, writeClosed, result] :
       {std::array{0, 0, 0}, std::array{1, 0, 0}, std::array{0, 1, 0}, std::array{1, 1, -1}}) {
    const testing::LogCapture log;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    // Closing -1 does nothing.
    for (const int fd : {readClosed != 0 ? fds[0] : -1, writeClosed != 0 ? fds[1] : -1}) {
      ::close(fd);
    }
    EXPECT_EQ(ClosePipe(fds[0], fds[1]), result) << readClosed << writeClosed;
    EXPECT_TRUE(::fcntl(fds[0], F_GETFD) < 0 && ::fcntl(fds[1], F_GETFD) < 0);
    EXPECT_EQ(Described(log.Records()), readClosed + writeClosed == 0
                                            ? Lines{}
                                            : Lines{"ClosePipe 3/0x8027: failed to close pipe: 9"});
  }
}

using StreamingTarApiTest = TarRunFixture<::testing::Test>;

std::atomic<int> interruptions{0};

// Counts and returns at once: a handler that lingers starves a busy machine's reader.
void CountInterruption(int) {
  ++interruptions;
}

// A failing run with megabytes of every byte value in a period that no pipe or read size
// divides, written twice with a pause between that leaves the runner waiting when a 2 ms timer
// interrupts it: the output comes back whole, and the record carries its first and last 2 KiB
// and the count of the bytes between.
TEST_F(StreamingTarApiTest, CapturesMegabytesWholeWhenInterruptedAndRecordsLittle) {
  std::string payload(4 << 20, '\0');
  for (std::size_t i = 0; i < payload.size(); ++i) {
    payload[i] = static_cast<char>(i * 7 % 257);
  }
  const std::string file = "'" + programs.Dir().WriteFile("payload", payload) + "'";
  programs.AddScript("tar", "cat " + file + "; sleep 0.05; cat " + file + "; exit 2");
  const auto previous = std::signal(SIGALRM, CountInterruption);
  itimerval timer{{0, 2000}, {0, 2000}};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &timer, nullptr), 0);
  const auto [output, status] = StreamingTarApi().RunCmd(args);
  timer = {};
  ::setitimer(ITIMER_REAL, &timer, nullptr);
  std::signal(SIGALRM, previous);
  EXPECT_GT(interruptions.load(), 0);
  EXPECT_EQ(status, 2);
  const std::string whole = payload + payload;
  EXPECT_TRUE(output == whole) << output.size() << " bytes";
  EXPECT_TRUE(Described(log.Records()) ==
              Lines{"RunCmd 3/0x8027: tar returned 2,\n" + whole.substr(0, 2048) + "\n[... " +
                    std::to_string(whole.size() - 4096) + " bytes left out ...]\n" +
                    whole.substr(whole.size() - 2048)});
}

// Still writing, silent with the output open, and gone quiet with the output closed: killed at
// the time-out, whatever the pipes do.
TEST_F(StreamingTarApiTest, TimeOutKillsAndReapsTar) {
  EXPECT_THROW(StreamingTarApi(0ms), std::invalid_argument);
  for (const std::string script :
       {"while :; do echo x; sleep 0.01; done", "exec sleep 10", "exec >&- 2>&-; exec sleep 10"}) {
    programs.AddScript("tar", script);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_THAT([&] { StreamingTarApi(150ms).RunCmd(args); },
                ::testing::ThrowsMessage<std::runtime_error>("tar timed out"))
        << script;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s) << script;
  }
  EXPECT_EQ(
      Described(log.Records()),
      Lines(3,
            "RunCmd 3/0x8027: tar timed out after 150 ms and was killed: tar -tf an archive.tar"));
}

// Four threads list over and over, while a fifth watches the SIGCHLD disposition, in a program
// that ignores SIGHUP, blocks SIGUSR2 and has a child of its own that has ended: tar has that
// mask and ignores SIGHUP alone (SIGCHLD is reset), and the program keeps its disposition and its
// child: with SIGCHLD ignored the child is gone and no zombie is left, with the default the
// program can still wait for it.
TEST_F(StreamingTarApiTest, ThreadsRunWhateverTheProgramDoesWithSIGCHLDAndOtherChildren) {
  programs.AddScript("tar", "exec grep -E '^Sig(Blk|Ign)' /proc/self/status");
  const auto listed = std::make_pair("SigBlk:\t0000000000000800\nSigIgn:\t0000000000000001\n"s, 0);
  for (const auto disposition : {SIG_IGN, SIG_DFL}) {
    EXPECT_EQ(testing::RunInChild([&] {
                ::alarm(60);
                for (int signal = 1; signal < NSIG; ++signal) {
                  std::signal(signal, signal == SIGHUP    ? SIG_IGN
                                      : signal == SIGCHLD ? disposition
                                                          : SIG_DFL);
                }
                sigset_t mask;
                ::sigemptyset(&mask);
                ::sigaddset(&mask, SIGUSR2);
                ::pthread_sigmask(SIG_SETMASK, &mask, nullptr);
                const pid_t other = ::fork();
                if (other == 0) {
                  ::_exit(0);
                }
                std::atomic<int> failures{0};
                std::atomic<bool> running{true};
                std::thread watcher([&] {
                  while (running) {
                    struct sigaction current {};
                    ::sigaction(SIGCHLD, nullptr, &current);
                    failures += current.sa_handler != disposition ? 1 : 0;
                  }
                });
                std::vector<std::thread> listers(4);
                for (std::thread& lister : listers) {
                  lister = std::thread([&] {
                    for (int run = 0; run < 50; ++run) {
                      // A throw ends the child with a failing status.
                      std::vector<std::string> listArgs = {"-tf", "a.tar"};
                      failures += StreamingTarApi().RunCmd(listArgs) == listed ? 0 : 1;
                    }
                  });
                }
                std::for_each(listers.begin(), listers.end(), [](auto& lister) { lister.join(); });
                running = false;
                watcher.join();
                if (disposition == SIG_DFL) {
                  return failures == 0 && ::waitpid(other, nullptr, 0) == other;
                }
                for (int waited = 0; waited < 10000 && testing::HasChildProcesses(); waited += 5) {
                  std::this_thread::sleep_for(5ms);
                }
                return failures == 0 && !testing::HasChildProcesses();
              }),
              0)
        << (disposition == SIG_IGN ? "ignored" : "default");
  }
}

// A tar that writes its process number and sleeps: when only the thread that called RunCmd ends
// (so the whole program's end too), or the time-out expires while a worker that another thread
// forked (without exec) holds a copy of every descriptor of the runner, tar ends within seconds,
// not after its 30. (Who reaps it varies: the intermediate, when it sees the caller go first, or
// the orphans' reaper.)
TEST_F(StreamingTarApiTest, TarDiesWithTheCallingProgramOrThread) {
  const std::string pidFile = programs.Dir() / "tar.pid";
  programs.AddScript("tar", "echo $$ > " + pidFile + ".new; mv " + pidFile + ".new " + pidFile +
                                "; exec sleep 30");
  // Waits for tar to start, brings its end about, and waits up to 10 s for it to be gone or a
  // zombie.
  const auto endsSoon = [&](const std::function<void()>& cause) {
    while (::access(pidFile.c_str(), F_OK) != 0) {
      std::this_thread::sleep_for(5ms);
    }
    const std::string stat =
        "/proc/" + std::to_string(std::stoi(testing::ReadWholeFile(pidFile))) + "/stat";
    cause();
    std::string pid;
    std::string name;
    char state = 0;
    for (int waited = 0; waited < 10000; waited += 5) {
      std::ifstream in(stat);
      if (!(in >> pid >> name >> state) || state == 'Z') {
        return true;
      }
      std::this_thread::sleep_for(5ms);
    }
    return false;
  };
  const auto list = [](std::chrono::milliseconds timeout) {
    std::vector<std::string> listArgs = {"-tf", "a.tar"};
    StreamingTarApi(timeout).RunCmd(listArgs);
  };
  for (const std::string cause : {"thread ended", "timed out, worker forked"}) {
    ::unlink(pidFile.c_str());
    EXPECT_EQ(testing::RunInChild([&] {
                ::alarm(30);
                if (cause == "thread ended") {
                  // The calling thread ends at once, without unwinding, from a signal handler.
                  std::signal(SIGUSR1, [](int) { ::syscall(SYS_exit, 0); });
                  std::thread caller(list, 1h);
                  const bool gone =
                      endsSoon([&] { ::pthread_kill(caller.native_handle(), SIGUSR1); });
                  caller.detach();
                  return gone;
                }
                bool timedOut = false;
                std::thread caller([&] {
                  try {
                    list(500ms);
                  } catch (const std::runtime_error&) {
                    timedOut = true;
                  }
                });
                // The worker holds its copies until the test lets it go, after RunCmd returned.
                int release[2] = {-1, -1};
                pid_t worker = -1;
                const bool gone = endsSoon([&] {
                  worker = ::pipe(release) == 0 ? ::fork() : -1;
                  if (worker == 0) {
                    char byte = 0;
                    ::close(release[1]);
                    ::_exit(static_cast<int>(::read(release[0], &byte, 1)));
                  }
                  caller.join();
                });
                ::close(release[1]);
                return worker > 0 && ::waitpid(worker, nullptr, 0) == worker && gone && timedOut;
              }),
              0)
        << cause;
  }
}

}  // namespace
}  // namespace drn
