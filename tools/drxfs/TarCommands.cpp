// drxfs tar list and tar extract: the library's Untar over TarApi or StreamingTarApi.
#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Command.h"
#include "Path.h"
#include "StreamingTarApi.h"
#include "Untar.h"

namespace drn::drxfs {
namespace {

// The longest time-out that --timeout takes, in seconds.
constexpr double kLongestTimeout = 1e6;

struct TarOptions {
  std::string archive;
  std::string destination;
  bool streaming = false;
  double timeoutSeconds = 0;  // 0: none
};

CLI::Option* AddStreamingFlag(CLI::App& command, TarOptions& options) {
  return command.add_flag(
      "--streaming", options.streaming,
      "Read tar's output while it runs (any size); the default runner keeps only what fits into "
      "one pipe, about 64 KiB, and waits for tar without a limit");
}

std::shared_ptr<TarApi> MakeRunner(const TarOptions& options) {
  if (!options.streaming) {
    return std::make_shared<TarApi>();
  }
  if (options.timeoutSeconds <= 0) {
    return std::make_shared<StreamingTarApi>();
  }
  const auto milliseconds =
      static_cast<std::chrono::milliseconds::rep>(std::ceil(options.timeoutSeconds * 1000));
  return std::make_shared<StreamingTarApi>(std::chrono::milliseconds(milliseconds));
}

// The archive as an Untar, after the checks that name what is wrong with it.
Untar OpenArchive(const TarOptions& options) {
  auto archive = std::make_shared<Path>(options.archive);
  Require(*archive, Expect::NoDirectory);
  return ForPath(options.archive, [&] { return Untar(archive, MakeRunner(options)); });
}

void AddListCommand(CLI::App& tar, Commands& commands) {
  auto options = std::make_shared<TarOptions>();
  auto report = std::make_shared<Report>();
  CLI::App* command = tar.add_subcommand(
      "list",
      "Print the names of the archive's members in its order, one a line, without "
      "directories");
  command->add_option("ARCHIVE", options->archive, "The tar archive")->required();
  AddStreamingFlag(*command, *options);
  AddReportOptions(*command, *report, false);
  commands.push_back({command, [options, report] {
                        Untar untar = OpenArchive(*options);
                        const std::vector<std::string> names =
                            ForPath(options->archive, [&] { return untar.FileList(); });
                        // An empty list is also the answer of a failed run; the record tells.
                        ThrowOnLibraryError(options->archive);
                        if (report->json) {
                          PrintJson({{"archive", options->archive}, {"entries", names}});
                          return;
                        }
                        for (const std::string& name : names) {
                          std::cout << name << '\n';
                        }
                      }});
}

void AddExtractCommand(CLI::App& tar, Commands& commands) {
  auto options = std::make_shared<TarOptions>();
  CLI::App* command =
      tar.add_subcommand("extract", "Extract the archive into DESTINATION, an existing directory");
  command->add_option("ARCHIVE", options->archive, "The tar archive")->required();
  command->add_option("DESTINATION", options->destination, "The directory to extract into")
      ->required();
  CLI::Option* streaming = AddStreamingFlag(*command, *options);
  command
      ->add_option("--timeout", options->timeoutSeconds,
                   "Kill tar when it has not finished after SECONDS (fractions allowed)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, kLongestTimeout))
      ->needs(streaming);
  commands.push_back({command, [options] {
                        Require(Path(options->destination), Expect::Directory);
                        Untar untar = OpenArchive(*options);
                        const int status = ForPath(options->archive, [&] {
                          return untar.Extract(std::make_shared<Path>(options->destination));
                        });
                        if (status == 0) {
                          return;
                        }
                        ThrowOnLibraryError(options->archive);
                        throw Failure(options->archive,
                                      status > 0
                                          ? "tar exited with status " + std::to_string(status)
                                          : Reason("tar could not be started", -status));
                      }});
}

}  // namespace

void AddTarCommands(CLI::App& app, Commands& commands) {
  CLI::App* tar = app.add_subcommand("tar", "List or extract a tar archive by running tar");
  tar->require_subcommand(1);
  AddListCommand(*tar, commands);
  AddExtractCommand(*tar, commands);
}

}  // namespace drn::drxfs
