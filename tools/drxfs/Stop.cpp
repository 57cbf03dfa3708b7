// drxfs: a stop signal ends drxfs together with every process it started.
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Command.h"

namespace drn::drxfs {
namespace {

constexpr std::array<int, 3> kStopSignals = {SIGINT, SIGTERM, SIGHUP};
// How long the processes drxfs started get to end after SIGKILL before drxfs ends anyway (one
// stuck in uninterruptible I/O on the card), and how long no process has to be left before the
// last sweep counts, when the command has not yet come to a halt.
constexpr auto kLongestSweep = std::chrono::seconds(3);
constexpr auto kQuietEnough = std::chrono::milliseconds(100);
constexpr auto kSweepInterval = std::chrono::milliseconds(5);

// Written by the signal handler, so plain lock-free atomics and a pipe only.
std::atomic<int> stopSignal{0};
std::atomic<bool> commandHalted{false};
std::array<int, 2> wakePipe = {-1, -1};

// Held by the stop from its start to the end of drxfs, and by a command while it makes or ends
// the file that a stop removes, so that the stop never removes a name that is no longer that
// file's. A stop waits for it as long as for the processes to end, then ends drxfs without it.
std::timed_mutex holdOff;
std::string removedOnStop;  // guarded by holdOff

extern "C" void OnStopSignal(int signal) {
  const int savedErrno = errno;
  int none = 0;
  stopSignal.compare_exchange_strong(none, signal);
  const char byte = 0;
  // A failed write finds the pipe full, so a wake-up byte is already waiting.
  const ssize_t written = ::write(wakePipe[1], &byte, 1);
  static_cast<void>(written);
  errno = savedErrno;
}

// The processes whose parent is drxfs and that have not ended: its own children and the
// descendants handed to it as their subreaper.
std::vector<pid_t> RunningChildren() {
  std::vector<pid_t> children;
  const pid_t self = ::getpid();
  DIR* proc = ::opendir("/proc");
  if (proc == nullptr) {
    return children;
  }
  for (const dirent* entry = ::readdir(proc); entry != nullptr; entry = ::readdir(proc)) {
    const std::string name = entry->d_name;
    if (name.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    std::ifstream statFile("/proc/" + name + "/stat");
    std::string line;
    std::getline(statFile, line);
    // "PID (COMMAND) STATE PPID ...", where COMMAND may hold blanks and parentheses.
    const std::string::size_type commandEnd = line.rfind(')');
    if (commandEnd == std::string::npos || commandEnd + 4 >= line.size()) {
      continue;
    }
    const char state = line[commandEnd + 2];
    // strtol, not stol: nothing read here may throw on the way out.
    const long parent = std::strtol(line.c_str() + commandEnd + 4, nullptr, 10);
    if (state != 'Z' && state != 'X' && parent == self) {
      children.push_back(static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10)));
    }
  }
  ::closedir(proc);
  return children;
}

// Kills what drxfs started until none of it is left, the orphans of the killed included.
void EndChildren() {
  const auto start = std::chrono::steady_clock::now();
  std::optional<std::chrono::steady_clock::time_point> quietSince;
  for (;;) {
    const std::vector<pid_t> children = RunningChildren();
    for (const pid_t child : children) {
      ::kill(child, SIGKILL);
    }
    const auto now = std::chrono::steady_clock::now();
    if (!children.empty()) {
      quietSince.reset();
    } else if (!quietSince) {
      quietSince = now;
    }
    // A command still running may be starting a child just now; once it has halted, it will
    // not start another.
    if (quietSince && (commandHalted.load() || now - *quietSince >= kQuietEnough)) {
      return;
    }
    if (now - start >= kLongestSweep) {
      return;
    }
    std::this_thread::sleep_for(kSweepInterval);
  }
}

void* StopWhenSignalled(void* /*unused*/) {
  char byte = 0;
  while (::read(wakePipe[0], &byte, 1) < 0 && errno == EINTR) {
  }
  const int signal = stopSignal.load();
  // Once taken, never given back: drxfs ends while the stop holds it.
  if (holdOff.try_lock_for(kLongestSweep) && !removedOnStop.empty()) {
    ::unlink(removedOnStop.c_str());
  }
  EndChildren();
  struct sigaction defaultAction {};
  defaultAction.sa_handler = SIG_DFL;
  ::sigaction(signal, &defaultAction, nullptr);
  static_cast<void>(::raise(signal));
  ::_exit(128 + signal);
}

}  // namespace

void StopOnSignals() {
  // Only the handler's end is non-blocking: a handler must never wait.
  if (::pipe2(wakePipe.data(), O_CLOEXEC) != 0 || ::fcntl(wakePipe[1], F_SETFL, O_NONBLOCK) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot watch for stop signals");
  }
  // Orphaned descendants come to drxfs instead of init, so that a stop finds them too.
  ::prctl(PR_SET_CHILD_SUBREAPER, 1);
  // Detached: it is never joined and ends with the process.
  pthread_t thread{};
  const int error = ::pthread_create(&thread, nullptr, StopWhenSignalled, nullptr);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(), "cannot watch for stop signals");
  }
  ::pthread_detach(thread);
  // A handler, not a blocked mask: children inherit a mask, and tar must stay stoppable by others.
  struct sigaction action {};
  action.sa_handler = OnStopSignal;
  action.sa_flags = SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (const int signal : kStopSignals) {
    // A signal ignored by whoever started drxfs (nohup, a background job) stays ignored.
    struct sigaction previous {};
    if (::sigaction(signal, nullptr, &previous) == 0 && previous.sa_handler != SIG_IGN) {
      ::sigaction(signal, &action, nullptr);
    }
  }
}

void HoldingOffStop(const std::function<void()>& action) {
  const std::lock_guard<std::timed_mutex> lock(holdOff);
  action();
}

void SetRemovedOnStop(const std::string& path) {
  removedOnStop = path;
}

void WaitIfStopping() {
  if (stopSignal.load() == 0) {
    return;
  }
  commandHalted.store(true);
  for (;;) {
    ::pause();
  }
}

}  // namespace drn::drxfs
