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

// The status of a tar that could not be executed, as TarApi's child ends: exit(-1).
constexpr int kCouldNotRun = 255;
constexpr std::size_t kReadSize = std::size_t{64} * 1024;
// What a record carries of tar's output at most from each end; the rest is counted.
constexpr std::size_t kRecordEnd = std::size_t{2} * 1024;
// The output pipe is made this large where the system allows it, so that tar seldom waits for
// the next drain.
constexpr int kOutputPipeSize = 1 << 20;
// tar writes each listed name with a write of its own; a reader woken by each would cost both
// processes a switch per name. The pipes are therefore drained at intervals, the first short
// and each one twice as long as the last while nothing came, up to the longest; tar's end wakes
// the runner at once.
constexpr int kFirstDrainMs = 2;
constexpr int kLongestDrainMs = 64;

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
int MakePipe(Descriptor& readEnd, Descriptor& writeEnd) {
  int fds[2] = {-1, -1};
  if (::pipe2(fds, O_CLOEXEC) != 0) {
    return -1;
  }
  readEnd.Reset(fds[0]);
  writeEnd.Reset(fds[1]);
  return ::fcntl(fds[0], F_SETFL, O_NONBLOCK);
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

// One pipe's read end and what came through it.
struct Stream {
  Descriptor readEnd;
  std::string text;
  bool atEnd = false;
};

// Appends what stream's pipe holds now to its text; true when anything came. After a read that
// failed other than with EINTR or EAGAIN the read end is closed, so the child cannot block on
// it; at end of file it is kept for RunCmd to close.
bool Drain(Stream& stream, char* buffer) {
  bool came = false;
  while (!stream.atEnd && stream.readEnd.Get() >= 0) {
    const ssize_t count =
        RetryOnEintr([&] { return ::read(stream.readEnd.Get(), buffer, kReadSize); });
    if (count > 0) {
      stream.text.append(buffer, static_cast<std::size_t>(count));
      came = true;
    } else if (count == 0) {
      stream.atEnd = true;
    } else if (errno == EAGAIN) {
      break;
    } else {
      stream.readEnd.Reset(-1);
    }
  }
  return came;
}

enum class Ending { Ended, TimedOut, Failed };

// Drains output and errors until tar has ended (Ended, status filled) or deadline has passed.
// Failed leaves errno as the wait set it. Only tar's end counts, never the pipes' end of file:
// a process forked from the caller may hold a copy of their write ends.
Ending Collect(GuardedChild& child, const Deadline& deadline, Stream& output, Stream& errors,
               int& status) {
  const auto buffer = std::make_unique<char[]>(kReadSize);
  int interval = kFirstDrainMs;
  for (;;) {
    const int left = MillisecondsLeft(deadline);
    if (left == 0) {
      return Ending::TimedOut;
    }
    pollfd end{child.EndFd(), POLLIN, 0};
    // An interruption or a failed poll only makes this drain come early.
    const bool ended = ::poll(&end, 1, left < 0 ? interval : std::min(left, interval)) > 0;
    const bool outputCame = Drain(output, buffer.get());
    const bool errorsCame = Drain(errors, buffer.get());
    interval = outputCame || errorsCame ? kFirstDrainMs : std::min(2 * interval, kLongestDrainMs);
    if (ended || child.EndFd() < 0) {
      const GuardedChild::Wait wait = child.TryWait(false, status);
      if (wait == GuardedChild::Wait::Failed) {
        return Ending::Failed;
      }
      if (wait == GuardedChild::Wait::Ended) {
        // Everything tar wrote is in the pipes by now.
        Drain(output, buffer.get());
        Drain(errors, buffer.get());
        return Ending::Ended;
      }
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
  Stream output;
  Stream errors;
  Descriptor outputEnd;
  Descriptor errorEnd;
  // The output's pipe first: see RunProgram on the numbers of the write ends.
  if (MakePipe(output.readEnd, outputEnd) != 0 || MakePipe(errors.readEnd, errorEnd) != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to pipe: " << error;
    return {std::string(), -error};
  }
  // Best effort: a pipe of the default size only makes tar wait for drains more often.
  ::fcntl(output.readEnd.Get(), F_SETPIPE_SZ, kOutputPipeSize);
  std::vector<char*> argv = ConvertArgs(args);
  const Deadline deadline = impl->timeout ? Deadline{Clock::now() + *impl->timeout} : Deadline{};

  GuardedChild::Failure failure;
  const std::unique_ptr<GuardedChild> child =
      GuardedChild::Start("tar", argv.data(), outputEnd.Get(), errorEnd.Get(), failure);
  if (!child) {
    ClosePipe(output.readEnd.Release(), outputEnd.Release());
    ClosePipe(errors.readEnd.Release(), errorEnd.Release());
    DRN_LOG(LogLevel::Error, LogCategory::Tar)
        << failure.call << " failed for " << Joined(args, " ") << ": "
        << std::strerror(failure.error);
    return {std::string(), -failure.error};
  }
  for (Descriptor* writeEnd : {&outputEnd, &errorEnd}) {
    if (writeEnd->Close() != 0) {
      const int error = errno;
      DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to close pipe: " << error;
    }
  }

  int status = 0;
  const Ending ending = Collect(*child, deadline, output, errors, status);
  const int waitError = errno;
  for (Stream* stream : {&output, &errors}) {
    if (stream->readEnd.Get() >= 0 && stream->readEnd.Close() != 0) {
      const int error = errno;
      DRN_LOG(LogLevel::Error, LogCategory::Tar) << "failed to close pipe: " << error;
    }
  }
  if (ending == Ending::TimedOut) {
    child->Kill();
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar timed out after " << impl->timeout->count()
                                               << " ms and was killed: " << Joined(args, " ");
    throw std::runtime_error("tar timed out");
  }
  if (ending == Ending::Failed) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "waitpid failure: " << std::strerror(waitError);
    throw std::runtime_error("waitpid failure");
  }
  if (!WIFEXITED(status)) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "child process did not exit: " << status;
    throw std::runtime_error("child process did not exit");
  }
  const int exitStatus = WEXITSTATUS(status);
  if (exitStatus == 0) {
    if (!errors.text.empty()) {
      DRN_LOG(LogLevel::Warning, LogCategory::Tar)
          << "tar wrote on standard error: " << Excerpt(errors.text);
    }
    return {std::move(output.text), 0};
  }
  // A failure keeps tar's reason: its standard error follows the output.
  output.text += errors.text;
  const GuardedChild::Failure notRun = child->ProgramFailure();
  if (notRun.call != nullptr && exitStatus == kCouldNotRun) {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << notRun.call << " failed for " << Joined(args, " ")
                                               << ": " << std::strerror(notRun.error);
  } else {
    DRN_LOG(LogLevel::Error, LogCategory::Tar) << "tar returned " << exitStatus << ",\n"
                                               << Excerpt(output.text);
  }
  return {std::move(output.text), exitStatus};
}

}  // namespace drn
