// StreamingTarApi: tar as a child process whose output is read while it runs.
#include "StreamingTarApi.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>
#include <thread>
#include <utility>

#include "Log.h"

namespace drn {
namespace {

using Clock = std::chrono::steady_clock;
using Deadline = std::optional<Clock::time_point>;

constexpr std::size_t kReadSize = std::size_t{64} * 1024;
// What TarApi's child ends with when it cannot start tar: exit(-1).
constexpr int kChildFailed = 255;

// Repeats call while it fails with EINTR; returns its last result, errno as that call left it.
template <typename Call>
auto RetryOnEintr(Call call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

// Time left until deadline as a poll time-out: -1 (wait without end) when there is none.
int MillisecondsLeft(const Deadline& deadline) {
  if (!deadline) {
    return -1;
  }
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

// Owns one descriptor. Close hands back close's result; the destructor closes without a word,
// for the paths that leave by an exception.
class Descriptor {
 public:
  explicit Descriptor(int fd) : fd(fd) {}
  ~Descriptor() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return fd; }
  int Release() { return std::exchange(fd, -1); }
  int Close() { return ::close(Release()); }

 private:
  int fd;
};

// A pipe whose read end is non-blocking and both ends close-on-exec, so that no other child
// inherits them. The child's end stays blocking: tar fails on a full non-blocking output.
int MakePipe(int fds[2]) {
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return -1;
  }
  if (::fcntl(fds[0], F_SETFL, O_NONBLOCK) != 0) {
    const int error = errno;
    ::close(fds[0]);
    ::close(fds[1]);
    errno = error;
    return -1;
  }
  return 0;
}

// While it lives, SIGCHLD has its default disposition if the caller made its children vanish
// on exit (SIG_IGN or SA_NOCLDWAIT), which would leave nothing to wait for. The child inherits
// the default disposition too, so tar can wait for its own children.
class ChildrenKept {
 public:
  ChildrenKept() {
    struct sigaction current {};
    if (::sigaction(SIGCHLD, nullptr, &current) != 0 ||
        (current.sa_handler != SIG_IGN && (current.sa_flags & SA_NOCLDWAIT) == 0)) {
      return;
    }
    struct sigaction byDefault {};
    byDefault.sa_handler = SIG_DFL;
    sigemptyset(&byDefault.sa_mask);
    if (::sigaction(SIGCHLD, &byDefault, nullptr) == 0) {
      previous = current;
    }
  }
  ~ChildrenKept() {
    if (previous) {
      ::sigaction(SIGCHLD, &*previous, nullptr);
    }
  }
  ChildrenKept(const ChildrenKept&) = delete;
  ChildrenKept& operator=(const ChildrenKept&) = delete;

 private:
  std::optional<struct sigaction> previous;
};

// The forked child: standard output and standard error onto the pipe, then tar. Only
// async-signal-safe calls, and _exit, since the parent may have other threads.
[[noreturn]] void RunChild(int writeEnd, char* const argv[]) {
  for (const int target : {STDOUT_FILENO, STDERR_FILENO}) {
    // The pipe may have been given this very number (the caller had it closed); dup2 onto
    // itself would keep close-on-exec set, so clear the flag instead.
    const int result = writeEnd == target ? ::fcntl(target, F_SETFD, 0) : ::dup2(writeEnd, target);
    if (result < 0) {
      ::_exit(kChildFailed);
    }
  }
  ::execvp("tar", argv);
  ::_exit(kChildFailed);
}

// The started child, killed with SIGKILL and reaped unless it has been waited for.
class Child {
 public:
  explicit Child(pid_t pid) : pid(pid) {}
  ~Child() { Kill(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  enum class Wait { Ended, TimedOut, Failed };

  // Waits for the child to end, up to deadline. Ended fills status; Failed leaves errno as
  // waitpid set it and the child is no longer ours to kill.
  Wait WaitUntil(const Deadline& deadline, int& status) {
    for (;;) {
      const pid_t result =
          RetryOnEintr([&] { return ::waitpid(pid, &status, deadline ? WNOHANG : 0); });
      if (result == pid || result < 0) {
        pid = -1;
        return result < 0 ? Wait::Failed : Wait::Ended;
      }
      // Only with a deadline: the child has closed its output but not yet ended.
      if (MillisecondsLeft(deadline) == 0) {
        return Wait::TimedOut;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }

  void Kill() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      RetryOnEintr([this] { return ::waitpid(pid, nullptr, 0); });
      pid = -1;
    }
  }

 private:
  pid_t pid;
};

// Appends what fd yields to output until end of file (true) or until deadline passes (false).
// A failed poll or read other than EINTR or EAGAIN also ends the output: the read end is closed
// next, so the child cannot block on it.
bool DrainUntilEnd(int fd, std::string& output, const Deadline& deadline) {
  const auto buffer = std::make_unique<char[]>(kReadSize);
  for (;;) {
    if (MillisecondsLeft(deadline) == 0) {
      return false;
    }
    pollfd readable{fd, POLLIN, 0};
    // After an interruption the time left is taken anew, so signals cannot stretch the deadline.
    if (RetryOnEintr([&] { return ::poll(&readable, 1, MillisecondsLeft(deadline)); }) < 0) {
      return true;
    }
    const ssize_t count = RetryOnEintr([&] { return ::read(fd, buffer.get(), kReadSize); });
    if (count == 0 || (count < 0 && errno != EAGAIN)) {
      return true;
    }
    if (count > 0) {
      output.append(buffer.get(), static_cast<std::size_t>(count));
    }
  }
}

std::string Joined(const std::vector<std::string>& args, const std::string& separator) {
  std::string text;
  for (const std::string& arg : args) {
    text += (&arg == &args.front() ? "" : separator) + arg;
  }
  return text;
}

}  // namespace

struct StreamingTarApi::Impl {
  std::optional<std::chrono::milliseconds> timeout;
};

StreamingTarApi::StreamingTarApi() : impl(std::make_unique<Impl>()) {}

StreamingTarApi::StreamingTarApi(std::chrono::milliseconds timeout)
    : impl(std::make_unique<Impl>(Impl{timeout})) {
  if (timeout.count() <= 0) {
    throw std::invalid_argument("tar time-out must be positive");
  }
}

StreamingTarApi::~StreamingTarApi() = default;
StreamingTarApi::StreamingTarApi(StreamingTarApi&& other) noexcept = default;
StreamingTarApi& StreamingTarApi::operator=(StreamingTarApi&& other) noexcept = default;

std::pair<std::string, int> StreamingTarApi::RunCmd(std::vector<std::string>& args) {
  int fds[2] = {-1, -1};
  if (MakePipe(fds) != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to pipe: " << error;
    return {std::string(), -error};
  }
  Descriptor readEnd(fds[0]);
  Descriptor writeEnd(fds[1]);
  std::vector<char*> argv = ConvertArgs(args);
  const Deadline deadline =
      impl->timeout ? Deadline(Clock::now() + *impl->timeout) : Deadline(std::nullopt);

  const ChildrenKept childrenKept;
  const pid_t pid = ::fork();
  if (pid < 0) {
    const int error = errno;
    ClosePipe(readEnd.Release(), writeEnd.Release());
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "Failed to fork: " << Joined(args, "");
    return {std::string(), -error};
  }
  if (pid == 0) {
    RunChild(writeEnd.Get(), argv.data());
  }
  Child child(pid);
  // Without the parent's copy of the write end, end of file comes when the child is done.
  if (writeEnd.Close() != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to close pipe: " << error;
  }

  std::string output;
  const bool ended = DrainUntilEnd(readEnd.Get(), output, deadline);
  if (readEnd.Close() != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to close pipe: " << error;
  }
  int status = 0;
  const Child::Wait wait = ended ? child.WaitUntil(deadline, status) : Child::Wait::TimedOut;
  if (wait == Child::Wait::TimedOut) {
    child.Kill();
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar timed out after " << impl->timeout->count()
                                               << " ms and was killed: " << Joined(args, " ");
    throw std::runtime_error("tar timed out");
  }
  if (wait == Child::Wait::Failed) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "waitpid failure: " << std::strerror(error);
    throw std::runtime_error("waitpid failure");
  }
  if (!WIFEXITED(status)) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "child process did not exit: " << status;
    throw std::runtime_error("child process did not exit");
  }
  const int exitStatus = WEXITSTATUS(status);
  if (exitStatus != 0) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar returned " << exitStatus << ",\n" << output;
  }
  return {std::move(output), exitStatus};
}

}  // namespace drn
