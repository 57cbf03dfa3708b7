// drxfs: failures, size formatting and JSON output shared by the commands.
#include <dirent.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Command.h"
#include "LinuxApi.h"

namespace drn::drxfs {

namespace {

bool IsContinuationByte(char c) {
  return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

}  // namespace

Failure::Failure(const std::string& path, const std::string& reason)
    : std::runtime_error(Bounded(path, kLongestPath) + ": " + Bounded(reason, kLongestReason)) {}

std::string Bounded(const std::string& text, std::size_t limit) {
  if (text.size() <= limit) {
    return text;
  }
  // The end of a tool's message holds its cause, so the end gets the larger part.
  std::size_t headEnd = limit / 4;
  std::size_t tailStart = text.size() - (limit - headEnd);
  const std::size_t lineStart = text.find("; ", tailStart);
  if (lineStart != std::string::npos && lineStart - tailStart < limit / 4 &&
      lineStart + 2 < text.size()) {
    tailStart = lineStart + 2;
  }
  while (headEnd > 0 && IsContinuationByte(text[headEnd])) {
    --headEnd;
  }
  while (tailStart < text.size() && IsContinuationByte(text[tailStart])) {
    ++tailStart;
  }
  return text.substr(0, headEnd) + " [... " + std::to_string(tailStart - headEnd) +
         " bytes left out ...] " + text.substr(tailStart);
}

std::string Reason(const std::string& reason, int error) {
  return error == 0 ? reason : reason + ": " + std::strerror(error);
}

void Require(const std::string& path, Expect expect) {
  // Path counts every entry it cannot rule out as existing; a status call tells why one cannot
  // be used.
  LinuxApi api;
  struct stat status {};
  if (api.stat(path.c_str(), &status) != 0) {
    throw Failure(path, std::strerror(errno));
  }
  const bool directory = S_ISDIR(status.st_mode);
  if (expect == Expect::NoDirectory && directory) {
    throw Failure(path, std::strerror(EISDIR));
  }
  if (expect != Expect::Directory) {
    return;
  }
  if (!directory) {
    throw Failure(path, std::strerror(ENOTDIR));
  }
  DIR* stream = api.opendir(path.c_str());
  if (stream == nullptr) {
    throw Failure(path, std::strerror(errno));
  }
  api.closedir(stream);
}

void AddReportOptions(CLI::App& command, Report& report, bool sizes) {
  command.add_flag("--json", report.json,
                   "Print the result as JSON (sizes always in bytes; a name that is not valid "
                   "UTF-8 as the array of its byte values)");
  if (sizes) {
    command.add_flag("-h,--human", report.human, "Print sizes in binary units (KiB, MiB, ...)");
  }
}

std::string FormatSize(std::uint64_t bytes, bool human) {
  if (!human) {
    return std::to_string(bytes);
  }
  if (bytes < 1024) {
    return std::to_string(bytes) + " B";
  }
  static constexpr std::array<const char*, 6> kUnits = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  auto value = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  // Values that would round up to 1024.0 are shown in the next unit.
  while (value >= 1023.95 && unit + 1 < kUnits.size()) {
    value /= 1024;
    ++unit;
  }
  std::array<char, 32> text{};
  const int length = std::snprintf(text.data(), text.size(), "%.1f %s", value, kUnits[unit]);
  return std::string(text.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
}

nlohmann::json JsonName(const std::string& name) {
  nlohmann::json value = name;
  try {
    // Serialising is what checks the encoding.
    static_cast<void>(value.dump());
  } catch (const nlohmann::json::type_error&) {
    return std::vector<unsigned char>(name.begin(), name.end());
  }
  return value;
}

void PrintJson(const nlohmann::json& value) {
  std::cout << value.dump() << '\n';
}

}  // namespace drn::drxfs
