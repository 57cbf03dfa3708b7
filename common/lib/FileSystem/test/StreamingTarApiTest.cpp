// StreamingTarApi: output of any size, slow and interrupted reading, the time-out, and callers
// that ignore SIGCHLD or go away while tar runs.
#include "StreamingTarApi.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "TarRunFixture.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using namespace std::string_literals;
using testing::Described;
using Lines = std::vector<std::string>;

class StreamingTarApiTest : public testing::TarRunFixture<> {
 protected:
  std::vector<std::string> args = {"-tf", "a.tar"};
};

std::atomic<int> interruptions{0};

// Counts and returns at once: a handler that lingers starves a busy machine's reader.
void CountInterruption(int) {
  ++interruptions;
}

// A failing run with megabytes of output, its waits interrupted: the output comes back whole,
// the record carries its first and last 2 KiB and the count of the bytes between.
TEST_F(StreamingTarApiTest, CapturesMegabytesWholeWhenInterruptedAndRecordsLittle) {
  // Megabytes of every byte value in a period that no pipe or read size divides, written twice
  // with a pause between, which leaves the runner waiting when the signals come.
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

// Threads list over and over while another thread makes and ends children of its own and a
// third watches the SIGCHLD disposition. Ignored: every run succeeds, the disposition never
// changes and no zombie is left. Default: the program can still wait for each of its children.
TEST_F(StreamingTarApiTest, ThreadsRunWhateverTheProgramDoesWithSIGCHLDAndOtherChildren) {
  programs.AddScript("tar", "echo listed; exit 4");
  for (const auto disposition : {SIG_IGN, SIG_DFL}) {
    EXPECT_EQ(testing::RunInChild([&] {
                std::signal(SIGCHLD, disposition);
                std::atomic<int> failures{0};
                std::atomic<bool> running{true};
                std::vector<pid_t> others;
                std::thread maker([&] {
                  while (running) {
                    const pid_t pid = ::fork();
                    if (pid == 0) {
                      ::_exit(0);
                    }
                    others.push_back(pid);
                    std::this_thread::sleep_for(std::chrono::microseconds(500));
                  }
                });
                std::thread watcher([&] {
                  while (running) {
                    struct sigaction current {};
                    ::sigaction(SIGCHLD, nullptr, &current);
                    failures += current.sa_handler != disposition ? 1 : 0;
                  }
                });
                std::vector<std::thread> listers;
                for (int thread = 0; thread < 4; ++thread) {
                  listers.emplace_back([&] {
                    for (int run = 0; run < 75; ++run) {
                      // A throw ends the child with a failing status.
                      std::vector<std::string> listArgs = {"-tf", "a.tar"};
                      failures +=
                          StreamingTarApi().RunCmd(listArgs) == std::make_pair("listed\n"s, 4) ? 0
                                                                                               : 1;
                    }
                  });
                }
                std::for_each(listers.begin(), listers.end(), [](auto& lister) { lister.join(); });
                running = false;
                maker.join();
                watcher.join();
                if (disposition == SIG_IGN) {
                  // Ended children vanish at once, unless something kept them.
                  std::this_thread::sleep_for(std::chrono::milliseconds(100));
                  return failures == 0 && !others.empty() && !testing::HasChildProcesses();
                }
                for (const pid_t other : others) {
                  failures += ::waitpid(other, nullptr, 0) == other ? 0 : 1;
                }
                return failures == 0 && !others.empty();
              }),
              0)
        << (disposition == SIG_IGN ? "ignored" : "default");
  }
}

// A tar that writes its process number and sleeps: when the program that runs it is killed, or
// only the thread that called RunCmd ends, or the time-out expires while a worker that another
// thread forked (without exec) holds a copy of every descriptor of the runner, tar ends within
// seconds, not after its 30. (Who reaps it varies: the intermediate, when it sees the caller go
// first, or the orphans' reaper.)
TEST_F(StreamingTarApiTest, TarDiesWithTheCallingProgramOrThread) {
  const std::string pidFile = programs.Dir() / "tar.pid";
  programs.AddScript("tar", "echo $$ > " + pidFile + ".new; mv " + pidFile + ".new " + pidFile +
                                "; exec sleep 30");
  const auto tarPid = [&] {
    while (::access(pidFile.c_str(), F_OK) != 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return static_cast<pid_t>(std::stoi(testing::ReadWholeFile(pidFile)));
  };
  // Gone, or a zombie, within 5 s; a tar left running sleeps on.
  const auto endsSoon = [](pid_t tar, const std::function<void()>& cause) {
    cause();
    std::string pid;
    std::string name;
    char state = 0;
    for (int waited = 0; waited < 5000; waited += 5) {
      std::ifstream stat("/proc/" + std::to_string(tar) + "/stat");
      if (!(stat >> pid >> name >> state) || state == 'Z') {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  };
  const auto list = [this](std::chrono::milliseconds timeout) {
    std::vector<std::string> listArgs = {"-tf", "a.tar"};
    StreamingTarApi(timeout).RunCmd(listArgs);
  };
  const std::chrono::hours noTimeOut(1);
  for (const std::string cause : {"program killed", "thread ended", "timed out, worker forked"}) {
    ::unlink(pidFile.c_str());
    EXPECT_EQ(testing::RunInChild([&] {
                ::alarm(20);
                if (cause == "program killed") {
                  const pid_t program = ::fork();
                  if (program == 0) {
                    list(noTimeOut);
                    ::_exit(0);
                  }
                  return endsSoon(tarPid(), [&] { ::kill(program, SIGKILL); });
                }
                if (cause == "thread ended") {
                  // The calling thread ends at once, without unwinding, from a signal handler.
                  std::signal(SIGUSR1, [](int) { ::syscall(SYS_exit, 0); });
                  std::thread caller(list, noTimeOut);
                  const bool gone =
                      endsSoon(tarPid(), [&] { ::pthread_kill(caller.native_handle(), SIGUSR1); });
                  caller.detach();
                  return gone;
                }
                int release[2];
                bool timedOut = false;
                std::thread caller([&] {
                  try {
                    list(std::chrono::milliseconds(500));
                  } catch (const std::runtime_error&) {
                    timedOut = true;
                  }
                });
                const pid_t tar = tarPid();
                // The worker holds its copies until the test lets it go, after RunCmd returned.
                const pid_t worker = ::pipe(release) == 0 ? ::fork() : -1;
                if (worker == 0) {
                  char byte = 0;
                  ::close(release[1]);
                  ::_exit(static_cast<int>(::read(release[0], &byte, 1)));
                }
                const bool gone = endsSoon(tar, [&] { caller.join(); });
                ::close(release[1]);
                return worker > 0 && ::waitpid(worker, nullptr, 0) == worker && gone && timedOut;
              }),
              0)
        << cause;
  }
}

}  // namespace
}  // namespace drn
