// StreamingTarApi: tar as a child process whose output is read while it runs.
#include "StreamingTarApi.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

#include "GuardedChild.h"
#include "Log.h"
#include "SystemCalls.h"

namespace drn {
namespace {

using Clock = std::chrono::steady_clock;
// When the run must have ended; the largest time point stands for none. (A plain time point
// rather than an optional: g++ -O3 warns about an optional time point it cannot follow.)
struct Deadline {
  Clock::time_point when = Clock::time_point::max();
  explicit operator bool() const { return when != Clock::time_point::max(); }
};

constexpr std::size_t kReadSize = std::size_t{64} * 1024;
// What a record carries of tar's output at most from each end; the rest is counted.
constexpr std::size_t kRecordEnd = std::size_t{2} * 1024;

// Time left until deadline as a poll time-out: -1 (wait without end) when there is none.
int MillisecondsLeft(const Deadline& deadline) {
  if (!deadline) {
    return -1;
  }
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(deadline.when - Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, std::numeric_limits<int>::max()));
}

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

enum class Ending { Ended, TimedOut, Failed };

// Waits for tar to end, up to deadline. Ended fills status; Failed leaves errno as the wait set
// it.
Ending WaitUntil(GuardedChild& child, const Deadline& deadline, int& status) {
  for (;;) {
    const GuardedChild::Wait wait = child.TryWait(!deadline, status);
    if (wait != GuardedChild::Wait::Running) {
      return wait == GuardedChild::Wait::Ended ? Ending::Ended : Ending::Failed;
    }
    // Only with a deadline: tar has closed its output but not yet ended.
    if (MillisecondsLeft(deadline) == 0) {
      return Ending::TimedOut;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

// The output as a record carries it: whole when short, otherwise its first and last bytes with
// the number left out between them, so that one failure never sends megabytes to the log.
std::string Excerpt(const std::string& output) {
  if (output.size() <= 2 * kRecordEnd) {
    return output;
  }
  return output.substr(0, kRecordEnd) + "\n[... " + std::to_string(output.size() - 2 * kRecordEnd) +
         " bytes left out ...]\n" + output.substr(output.size() - kRecordEnd);
}

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
  const Deadline deadline = impl->timeout ? Deadline{Clock::now() + *impl->timeout} : Deadline{};

  // The write end is blocking for tar; the read end is ours alone.
  const std::unique_ptr<GuardedChild> child =
      GuardedChild::Start("tar", argv.data(), writeEnd.Get());
  if (!child) {
    const int error = errno;
    ClosePipe(readEnd.Release(), writeEnd.Release());
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "Failed to fork: " << Joined(args, "");
    return {std::string(), -error};
  }
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
  const Ending ending = ended ? WaitUntil(*child, deadline, status) : Ending::TimedOut;
  if (ending == Ending::TimedOut) {
    child->Kill();
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar timed out after " << impl->timeout->count()
                                               << " ms and was killed: " << Joined(args, " ");
    throw std::runtime_error("tar timed out");
  }
  if (ending == Ending::Failed) {
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
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar returned " << exitStatus << ",\n"
                                               << Excerpt(output);
  }
  return {std::move(output), exitStatus};
}

}  // namespace drn
