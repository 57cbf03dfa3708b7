// drxfs: the library's log records, shown on standard error as far as the log level asks; its
// error records are always kept, so that a command can tell a failure from an empty answer.
#include <array>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

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

// The lines of text without empty lines or a comma or blanks ending a line: records that carry
// a child's output span several lines.
std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
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
      lines.push_back(std::move(line));
    }
    start = end + 1;
  }
  return lines;
}

// The lines joined by "; ". When that is too long for a failure line, only the first line (what
// failed) and tar's own messages (the cause) are kept, among up to thousands of listed names,
// with the number of lines left out in their place.
std::string OneLine(const std::string& text) {
  const std::vector<std::string> lines = Lines(text);
  std::string joined;
  for (const std::string& line : lines) {
    joined += (joined.empty() ? "" : "; ") + line;
  }
  if (joined.size() <= kLongestReason) {
    return joined;
  }
  joined.clear();
  std::size_t leftOut = 0;
  for (std::size_t index = 0; index < lines.size(); ++index) {
    const bool kept = index == 0 || lines[index].rfind("tar: ", 0) == 0;
    if (kept && leftOut > 0) {
      joined += "; [... " + std::to_string(std::exchange(leftOut, 0)) + " lines left out ...]";
    }
    if (kept) {
      joined += (joined.empty() ? "" : "; ") + lines[index];
    } else {
      ++leftOut;
    }
  }
  if (leftOut > 0) {
    joined += "; [... " + std::to_string(leftOut) + " lines left out ...]";
  }
  return joined;
}

// Records that end in a bare error number, and what they say instead with the number's text.
struct NumberedRecord {
  std::string_view prefix;
  std::string_view replacement;
};
constexpr std::array<NumberedRecord, 5> kNumberedRecords = {{
    {"failed to pipe: ", "failed to pipe: "},
    {"failed to close pipe: ", "failed to close pipe: "},
    {"failed to open path with ", "failed to examine the file system: "},
    {"failed on close with ", "failed to close: "},
    // A negative status: no child could be started.
    {"Tar command failed: -", "tar could not be started: "},
}};

// text with an error number at its end replaced by the number's text ("failed to pipe: 24" →
// "failed to pipe: Too many open files").
std::string WithErrorText(const std::string& text) {
  for (const NumberedRecord& record : kNumberedRecords) {
    if (text.compare(0, record.prefix.size(), record.prefix) != 0) {
      continue;
    }
    const std::string number = text.substr(record.prefix.size());
    if (number.empty() || number.size() > 4 ||
        number.find_first_not_of("0123456789") != std::string::npos) {
      continue;
    }
    return std::string(record.replacement) + std::strerror(std::stoi(number));
  }
  return text;
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
    throw Failure(path, WithErrorText(OneLine(std::exchange(lastError, std::string()))));
  }
}

}  // namespace drn::drxfs
