// drxfs path: what the library's Path says about a path.
#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "Command.h"
#include "Path.h"

namespace drn::drxfs {

void AddPathCommands(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  auto report = std::make_shared<Report>();
  CLI::App* command =
      app.add_subcommand("path",
                         "Tell whether PATH exists, whether it is a directory, and its "
                         "base name (the text after the last '/' or '\\')");
  command->add_option("PATH", *text, "The path, used as given")->required();
  AddReportOptions(*command, *report, false);
  commands.push_back({command, [text, report] {
                        const Path path(*text);
                        const bool exists = path.Exists();
                        const bool directory = path.IsDirectory();
                        const std::string basename = path.Basename();
                        if (report->json) {
                          PrintJson({{"path", JsonName(*text)},
                                     {"exists", exists},
                                     {"directory", directory},
                                     {"basename", JsonName(basename)}});
                          return;
                        }
                        std::cout << *text << ": exists=" << (exists ? "yes" : "no")
                                  << " directory=" << (directory ? "yes" : "no") << " basename=\""
                                  << basename << "\"\n";
                      }});
}

}  // namespace drn::drxfs
