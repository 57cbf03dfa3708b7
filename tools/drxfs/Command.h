// drxfs: what the commands share: their registration, their failures and their output.
#pragma once

#include <cstdint>
#include <functional>
#include <nlohmann/json_fwd.hpp>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
}  // namespace CLI

namespace drn::drxfs {

// One subcommand and what it does once the command line has been parsed. run reports success
// by returning and failure by throwing Failure (or any std::exception).
struct Command {
  const CLI::App* app = nullptr;
  std::function<void()> run;
};
using Commands = std::vector<Command>;

// A failed operation: the path it was working on and why. what() is "PATH: REASON".
class Failure : public std::runtime_error {
 public:
  Failure(const std::string& path, const std::string& reason);
};

// reason, followed by the text of error when error is not 0.
std::string Reason(const std::string& reason, int error);

// The registration of each command family: adds its subcommands to app and their actions to
// commands.
void AddPathCommands(CLI::App& app, Commands& commands);
void AddFileCommands(CLI::App& app, Commands& commands);

// How a command that reports figures or lists prints them.
struct Report {
  bool json = false;
  bool human = false;
};

// Adds --json to command, and -h/--human when it reports sizes.
void AddReportOptions(CLI::App& command, Report& report, bool sizes);

// A byte count as digits, or with human set in binary units with one decimal ("1.5 KiB").
std::string FormatSize(std::uint64_t bytes, bool human);

// Writes value to standard output as one line of JSON.
void PrintJson(const nlohmann::json& value);

}  // namespace drn::drxfs
