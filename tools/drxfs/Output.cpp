// drxfs: failures, size formatting and JSON output shared by the commands.
#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

#include "Command.h"
#include "PathIF.h"

namespace drn::drxfs {

Failure::Failure(const std::string& path, const std::string& reason)
    : std::runtime_error(path + ": " + reason) {}

std::string Reason(const std::string& reason, int error) {
  return error == 0 ? reason : reason + ": " + std::strerror(error);
}

void Require(const PathIF& path, Expect expect) {
  const std::string text(path.GetPath());
  if (!path.Exists()) {
    throw Failure(text, std::strerror(ENOENT));
  }
  if (expect == Expect::NoDirectory && path.IsDirectory()) {
    throw Failure(text, std::strerror(EISDIR));
  }
  if (expect == Expect::Directory && !path.IsDirectory()) {
    throw Failure(text, std::strerror(ENOTDIR));
  }
}

void AddReportOptions(CLI::App& command, Report& report, bool sizes) {
  command.add_flag("--json", report.json, "Print the result as JSON (sizes always in bytes)");
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

void PrintJson(const nlohmann::json& value) {
  std::cout << value.dump() << '\n';
}

}  // namespace drn::drxfs
