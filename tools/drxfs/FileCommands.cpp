// drxfs touch, truncate and size: the library's by-name file helpers.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Command.h"
#include "File.h"
#include "Path.h"

namespace drn::drxfs {
namespace {

// A command that applies one by-name helper to FILE and prints nothing on success.
void AddByNameCommand(CLI::App& app, Commands& commands, const std::string& name,
                      const std::string& description, bool (*helper)(const std::string&),
                      const std::string& failure) {
  auto file = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand(name, description);
  command->add_option("FILE", *file, "The file")->required();
  commands.push_back({command, [file, helper, failure] {
                        errno = 0;
                        if (!helper(*file)) {
                          // The helper and its log record leave the failed open's errno.
                          throw Failure(*file, Reason(failure, errno));
                        }
                      }});
}

void AddSizeCommand(CLI::App& app, Commands& commands) {
  auto file = std::make_shared<std::string>();
  auto report = std::make_shared<Report>();
  CLI::App* command =
      app.add_subcommand("size", "Print the size of FILE (symbolic links followed)");
  command->add_option("FILE", *file, "The file")->required();
  AddReportOptions(*command, *report, true);
  commands.push_back({command, [file, report] {
                        // The size helper answers 0 for a missing file; make that an error.
                        Require(Path(*file), Expect::NoDirectory);
                        const std::uint64_t size = File::GetFileSize(*file);
                        if (report->json) {
                          PrintJson({{"path", *file}, {"bytes", size}});
                        } else {
                          std::cout << FormatSize(size, report->human) << '\n';
                        }
                      }});
}

}  // namespace

void AddFileCommands(CLI::App& app, Commands& commands) {
  AddByNameCommand(app, commands, "touch",
                   "Create FILE (mode 0644 less the umask) when it is missing; an existing file "
                   "is left as it is",
                   File::CreateFile, "cannot create");
  AddByNameCommand(app, commands, "truncate",
                   "Empty FILE, creating it (mode 0644 less the umask) when it is missing",
                   File::RecreateFile, "cannot create or empty");
  AddSizeCommand(app, commands);
}

}  // namespace drn::drxfs
