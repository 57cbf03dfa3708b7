// drxfs: the file-system library on the command line, for the people who keep devices running.
#include <fcntl.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

#include "Command.h"

namespace drn::drxfs {
namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;
constexpr int kUnsetLogLevel = -1;
constexpr std::size_t kLongestUsageLine = 1000;

constexpr const char* kFooter =
    "Exit status: 0 on success, 1 when the operation failed, 2 on a usage error.\n"
    "Every failure is one line on standard error naming the path and the reason.\n"
    "SIGINT, SIGTERM or SIGHUP ends tar and whatever else drxfs started, then drxfs (128+signal).\n"
    "--log-level N shows the library's records of level N and below (0 to 7; syslog numbering);\n"
    "without it, DRX_LOG_LEVEL decides, and when that is unset only level 2 and below appear.";

// "drxfs" followed by the subcommands selected so far, e.g. "drxfs tar list".
std::string CommandName(const CLI::App& app) {
  std::string name = "drxfs";
  for (const CLI::App* selected = &app;;) {
    const auto chosen = selected->get_subcommands();
    if (chosen.empty()) {
      return name;
    }
    selected = chosen.front();
    name += " " + selected->get_name();
  }
}

// What is wrong with a command line: a word where a command's name belongs is named as unknown.
std::string Problem(const CLI::App& failed, const CLI::Error& error) {
  const CLI::App* outermost = &failed;
  while (outermost->get_parent() != nullptr) {
    outermost = outermost->get_parent();
  }
  const CLI::App* innermost = outermost;
  while (!innermost->get_subcommands().empty()) {
    innermost = innermost->get_subcommands().front();
  }
  // With fallthrough, words that no command took are kept by the outermost one.
  const std::vector<std::string> rest = outermost->remaining(true);
  if (!innermost->get_subcommands({}).empty() && !rest.empty() && rest.front().rfind('-', 0) != 0) {
    return "unknown command \"" + rest.front() + "\"";
  }
  return error.what();
}

// Opens /dev/null onto each of descriptors 0 to 2 that is closed, so that nothing drxfs opens
// later (the stop's pipe, a file) becomes its standard input or output. Standard input gets it
// write-only and the others read-only: using one still fails as a closed one would (EBADF).
// False when /dev/null cannot be opened.
bool TakeClosedStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    // The lower ones are taken by now, so open returns fd itself.
    if (::fcntl(fd, F_GETFD) < 0 && errno == EBADF &&
        ::open("/dev/null", fd == STDIN_FILENO ? O_WRONLY : O_RDONLY) != fd) {
      return false;
    }
  }
  return true;
}

int Run(const CLI::App& app, const Command& command) {
  try {
    command.run();
  } catch (const std::exception& error) {
    WaitIfStopping();
    std::cout.flush();
    std::cerr << CommandName(app) << ": " << error.what() << '\n';
    return kFailed;
  }
  WaitIfStopping();
  if (!std::cout.flush()) {
    std::cerr << CommandName(app) << ": standard output: write error\n";
    return kFailed;
  }
  return 0;
}

int Main(int argc, char** argv) {
  CLI::App app("Files, directories, paths and tar archives through libdrx_FileSystem.", "drxfs");
  // -h is taken by --human, so help is --help alone, on every command.
  app.set_help_flag("--help", "Print this help and exit");
  app.set_version_flag("--version", "drxfs " DRXFS_VERSION, "Print the version and exit");
  app.footer(kFooter);
  app.require_subcommand(1);
  // Global options may also follow the command's name.
  app.fallthrough();
  app.failure_message([](const CLI::App* failed, const CLI::Error& error) {
    return Bounded(CommandName(*failed) + ": " + Problem(*failed, error), kLongestUsageLine) +
           " (see --help)\n";
  });
  int logLevel = kUnsetLogLevel;
  app.add_option("--log-level", logLevel, "Show the library's log records of level N and below")
      ->type_name("N")
      ->check(CLI::Range(0, 7));

  Commands commands;
  AddPathCommands(app, commands);
  AddFileCommands(app, commands);
  AddDirectoryCommands(app, commands);
  AddTarCommands(app, commands);

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const int status = app.exit(error);
    return status == 0 ? 0 : kUsageError;
  }
  WatchLibraryLog(logLevel);
  StopOnSignals();
  for (const Command& command : commands) {
    if (command.app->parsed()) {
      return Run(app, command);
    }
  }
  std::cerr << "drxfs: no command to run (see --help)\n";
  return kUsageError;
}

}  // namespace
}  // namespace drn::drxfs

int main(int argc, char** argv) {
  if (!drn::drxfs::TakeClosedStandardDescriptors()) {
    std::cerr << "drxfs: /dev/null: cannot open it onto a closed standard descriptor\n";
    return 1;
  }
  try {
    return drn::drxfs::Main(argc, argv);
  } catch (const std::exception& error) {
    // Only setting up the command line or running out of memory gets here.
    std::cerr << "drxfs: " << error.what() << '\n';
    return 1;
  }
}
