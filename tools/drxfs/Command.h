// drxfs: what the commands share: their registration, their failures and their output.
#pragma once

#include <sys/types.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace drn::drxfs {

// One subcommand and what it does once the command line has been parsed. run reports success
// by returning and failure by throwing Failure (or any std::exception).
struct Command {
  const CLI::App* app = nullptr;
  std::function<void()> run;
};
using Commands = std::vector<Command>;

// The longest path and reason that a failure line shows whole; with the command's name in front,
// a failure line stays within about 1 KiB.
constexpr std::size_t kLongestPath = 256;
constexpr std::size_t kLongestReason = 640;

// A failed operation: the path it was working on and why. what() is "PATH: REASON", kept to
// about 1 KiB: a long path loses its middle, a long reason its middle but not its last lines.
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& path, const std::string& reason);
};

// reason, followed by the text of error when error is not 0.
std::string Reason(const std::string& reason, int error);

// text cut to at most about limit bytes: its first quarter and its end, with the number of bytes
// left out between them. Whole "; "-joined lines and UTF-8 characters are kept where possible.
std::string Bounded(const std::string& text, std::size_t limit);

// What a command needs to find at a path.
enum class Expect { Anything, NoDirectory, Directory };

// Throws Failure with the real reason (ENOENT, ENAMETOOLONG, EACCES, ELOOP, ...) when path cannot
// be examined or is not what expect asks for; a Directory must also be readable.
void Require(const std::string& path, Expect expect);

// Takes over the library's log records: those of logLevel and below (0 to 7; -1 when not given:
// DRX_LOG_LEVEL decides, or only critical ones when that is unset) go to standard error, and
// every error record is kept for ThrowOnLibraryError.
void WatchLibraryLog(int logLevel);

// Throws Failure(path, the record's text on one line) when the library logged an error since
// the last throw.
void ThrowOnLibraryError(const std::string& path);

// Runs operation and returns its result. An exception from the library becomes a Failure for
// path, with the library's latest error record as the reason or else the exception's text.
template <typename Operation>
auto ForPath(const std::string& path, Operation&& operation) -> decltype(operation()) {
  try {
    return operation();
  } catch (const Failure&) {
    throw;
  } catch (const std::exception& error) {
    ThrowOnLibraryError(path);
    throw Failure(path, error.what());
  }
}

// From here on, SIGINT, SIGTERM and SIGHUP end every process that drxfs started (its children,
// and their descendants, which drxfs adopts as a subreaper when their parent ends) and then
// drxfs itself, by the same signal, so that its caller sees the usual status 128+signal.
void StopOnSignals();

// Runs action with a stop held off: a stop signal that comes meanwhile ends drxfs after it.
void HoldingOffStop(const std::function<void()>& action);

// Names the file that a stop removes before it ends drxfs (the temporary file of a replacement in
// progress), or none with "". Only within HoldingOffStop, together with what makes or ends that
// file.
void SetRemovedOnStop(const std::string& path);

// While such a stop is under way, waits for it to end the process instead of returning: a
// command whose child was killed neither reports that failure nor exits on its own.
void WaitIfStopping();

// The registration of each command family: adds its subcommands to app and their actions to
// commands.
void AddPathCommands(CLI::App& app, Commands& commands);
void AddFileCommands(CLI::App& app, Commands& commands);
void AddDirectoryCommands(CLI::App& app, Commands& commands);
void AddTarCommands(CLI::App& app, Commands& commands);

// How a command that reports figures or lists prints them.
struct Report {
  bool json = false;
  bool human = false;
};

// Adds --json to command, and -h/--human when it reports sizes.
void AddReportOptions(CLI::App& command, Report& report, bool sizes);

// A byte count as digits, or with human set in binary units with one decimal ("1.5 KiB").
std::string FormatSize(std::uint64_t bytes, bool human);

// A name for JSON output: a string when it is valid UTF-8, otherwise the array of its byte values
// (0 to 255), so that no name is lost or changed.
nlohmann::json JsonName(const std::string& name);

// Writes value to standard output as one line of JSON.
void PrintJson(const nlohmann::json& value);

// The operator's view of an extraction: while it lives (when show), a few times a second one line
// on standard error, rewritten with '\r': the per cent of the archive tar has read, the bytes,
// the rate and the time left. Finish (or the destructor) ends the line with a newline.
class ExtractionProgress {
 public:
  ExtractionProgress(const std::string& archive, bool show);
  ~ExtractionProgress();
  ExtractionProgress(const ExtractionProgress&) = delete;
  ExtractionProgress& operator=(const ExtractionProgress&) = delete;

  // Stops the updates and shows the last line: the whole archive when complete.
  void Finish(bool complete);

 private:
  std::uint64_t ReadPosition();
  void Show(std::uint64_t done, bool last);

  dev_t device = 0;
  ino_t inode = 0;
  std::uint64_t total = 0;
  std::uint64_t position = 0;
  std::string positionFile;  // /proc/PID/fdinfo/FD of tar's archive descriptor, once found
  std::size_t shownLength = 0;
  std::chrono::steady_clock::time_point start;
  std::mutex mutex;
  std::condition_variable stopped;
  bool finished = false;
  std::thread worker;
};

}  // namespace drn::drxfs
