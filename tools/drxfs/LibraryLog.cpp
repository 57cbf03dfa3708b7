// drxfs: the library's log records, shown on standard error as far as the log level asks; its
// error records are always kept, so that a command can tell a failure from an empty answer.
#include <array>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <string>
#include <utility>

#include "Command.h"
#include "LogClient.h"

namespace drn::drxfs {
namespace {

// Without --log-level or DRX_LOG_LEVEL only critical records appear, so that a failure is the
// one line that drxfs itself writes.
constexpr int kQuietLogLevel = 2;
constexpr int kErrorLevel = static_cast<int>(LogLevel::Error);

std::array<bool, 8> shown{};
std::string lastError;

bool Shown(int level) {
  return level >= 0 && level < static_cast<int>(shown.size()) && shown[level];
}

// The lines of text joined by "; ", without empty lines or a comma or blanks ending a line:
// records that carry a child's output span several lines.
std::string OneLine(const std::string& text) {
  std::string joined;
  std::string::size_type start = 0;
  while (start < text.size()) {
    std::string::size_type end = text.find('\n', start);
    if (end == std::string::npos) {
      end = text.size();
    }
    std::string line = text.substr(start, end - start);
    while (!line.empty() &&
           (line.back() == ',' || std::isspace(static_cast<unsigned char>(line.back())))) {
      line.pop_back();
    }
    if (!line.empty()) {
      joined += (joined.empty() ? "" : "; ") + line;
    }
    start = end + 1;
  }
  return joined;
}

}  // namespace

void WatchLibraryLog(int logLevel) {
  const char* fromEnvironment = std::getenv("DRX_LOG_LEVEL");
  const bool useDefault = logLevel < 0 && fromEnvironment != nullptr && *fromEnvironment != '\0';
  const int threshold = logLevel < 0 ? kQuietLogLevel : logLevel;
  for (int level = 0; level < static_cast<int>(shown.size()); ++level) {
    // The logging library's own filter still reads DRX_LOG_LEVEL at this point.
    shown[level] =
        useDefault ? LogClient::LevelIsEnabled(static_cast<LogLevel>(level)) : level <= threshold;
  }
  LogClient::SetLevelFilter([](LogLevel level) {
    return static_cast<int>(level) <= kErrorLevel || Shown(static_cast<int>(level));
  });
  LogClient::SetSink([](const LogRecord& record) {
    const int level = static_cast<int>(record.level);
    if (level <= kErrorLevel) {
      lastError = record.text;
    }
    if (Shown(level)) {
      std::cerr << '<' << level << "> 0x" << std::hex << static_cast<unsigned>(record.category)
                << std::dec << ' ' << record.file << ':' << record.line << ' ' << record.function
                << ": " << record.text << '\n';
    }
  });
}

void ThrowOnLibraryError(const std::string& path) {
  if (!lastError.empty()) {
    throw Failure(path, OneLine(std::exchange(lastError, std::string())));
  }
}

}  // namespace drn::drxfs
