// Stand-in for the device's logging library: record construction, level filter and sink.
#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

// Marks what libdrx_Logger exports; everything else is hidden.
#define DRX_LOGGER_EXPORT __attribute__((visibility("default")))

namespace drn {

// Severities follow the syslog numbering.
enum class LogLevel : int { Emergency = 0, Alert, Critical, Error, Warning, Notice, Info, Debug };

// Subsystem tags; only the numeric values are fixed.
enum class LogCategory : std::uint16_t { FileSystem = 0x8010, Tar = 0x8027 };

// A completed record as handed to the sink.
struct LogRecord {
  std::string file;                                // source file that wrote the record
  std::string function;                            // bare function name
  int line = 0;                                    // source line
  LogLevel level = LogLevel::Debug;                // severity
  LogCategory category = LogCategory::FileSystem;  // subsystem
  std::string text;                                // everything inserted into the record
};

// One record under construction: built on the stack, filled by insertion and delivered to the
// sink by its destructor. The constructor, the insertions and LevelIsEnabled leave errno as they
// found it.
class DRX_LOGGER_EXPORT LogClient {
 public:
  using Sink = std::function<void(const LogRecord&)>;  // receives every completed record
  using LevelFilter = std::function<bool(LogLevel)>;   // true for the levels to keep

  // True when a record of this level would be kept. The default filter keeps levels whose number
  // is at most DRX_LOG_LEVEL (0 to 7), or 4 when that is unset or not a number.
  static bool LevelIsEnabled(LogLevel level);

  // Replaces the sink and returns the previous one; an empty sink restores the default, which
  // writes one line per record to standard error. Sink calls are serialised.
  static Sink SetSink(Sink sink);

  // Replaces the level filter and returns the previous one; an empty one restores the default.
  static LevelFilter SetLevelFilter(LevelFilter filter);

  // Starts a record of level for the given source location; each tag sets its category.
  template <typename... Tags>
  LogClient(std::string_view file, std::string_view function, int line, LogLevel level,
            Tags... tags)
      : LogClient(file, function, line, level) {
    static_assert((std::is_same_v<Tags, LogCategory> && ...), "tags must be LogCategory values");
    ((record.category = tags), ...);
    errno = savedErrno;
  }

  LogClient(const LogClient&) = delete;
  LogClient& operator=(const LogClient&) = delete;

  // Appends the value as an untouched std::ostream formats it. A null char* puts the record's
  // stream into the bad state, after which every insertion is ignored.
  template <typename T>
  LogClient& operator<<(const T& value) {
    const int errorNumber = errno;
    stream << value;
    errno = errorNumber;
    return *this;
  }

  ~LogClient();

 private:
  LogClient(std::string_view file, std::string_view function, int line, LogLevel level);

  int savedErrno = errno;  // first member: taken before the stream is built
  LogRecord record;
  std::ostringstream stream;
};

}  // namespace drn
