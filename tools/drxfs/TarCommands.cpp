// drxfs tar list and tar extract: the library's Untar over TarApi or StreamingTarApi.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cmath>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "AtomicUntar.h"
#include "Command.h"
#include "Path.h"
#include "StreamingTarApi.h"
#include "Untar.h"

namespace drn::drxfs {
namespace {

// The longest time-out that --timeout takes, in seconds.
constexpr double kLongestTimeout = 1e6;

constexpr const char* kStreamingRunner = "streaming";
constexpr const char* kPipeRunner = "pipe";

struct TarOptions {
  std::string archive;
  std::string destination;
  std::string runner = kStreamingRunner;
  double timeoutSeconds = 0;  // 0: none
  bool atomic = false;
  int progress = -1;  // -1: when standard error is a terminal
};

void AddRunnerOptions(CLI::App& command, TarOptions& options) {
  command
      .add_option("--runner", options.runner,
                  "How tar runs: 'streaming' (the default) reads its output while it runs, of any "
                  "size; 'pipe' keeps only what fits into one pipe, about 64 KiB, and waits for "
                  "tar without a limit")
      ->type_name("RUNNER")
      ->check(CLI::IsMember({kStreamingRunner, kPipeRunner}));
  command.add_flag_callback(
      "--streaming", [&options] { options.runner = kStreamingRunner; },
      "The same as --runner streaming");
}

// tar takes a name with a ':' before any '/' for a file on a remote host, and "-" for standard
// input: a relative name goes to it as ./NAME.
std::string ForTar(const std::string& name) {
  return name.empty() || name.front() == '/' ? name : "./" + name;
}

std::shared_ptr<TarApi> MakeRunner(const TarOptions& options) {
  if (options.runner == kPipeRunner) {
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
  Require(options.archive, Expect::NoDirectory);
  auto archive = std::make_shared<Path>(ForTar(options.archive));
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
  AddRunnerOptions(*command, *options);
  AddReportOptions(*command, *report, false);
  commands.push_back(
      {command, [options, report] {
         Untar untar = OpenArchive(*options);
         const std::vector<std::string> names =
             ForPath(options->archive, [&] { return untar.FileList(); });
         // An empty list is also the answer of a failed run; the record tells.
         ThrowOnLibraryError(options->archive);
         if (report->json) {
           nlohmann::json entries = nlohmann::json::array();
           for (const std::string& name : names) {
             entries.push_back(JsonName(name));
           }
           PrintJson({{"archive", JsonName(options->archive)}, {"entries", std::move(entries)}});
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
  command
      ->add_option("DESTINATION", options->destination,
                   "The directory to extract into (with --atomic, the one to replace)")
      ->required();
  AddRunnerOptions(*command, *options);
  command
      ->add_option("--timeout", options->timeoutSeconds,
                   "Kill tar when it has not finished after SECONDS (fractions allowed; streaming "
                   "runner only)")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.001, kLongestTimeout));
  command->parse_complete_callback([options] {
    if (options->timeoutSeconds > 0 && options->runner != kStreamingRunner) {
      throw CLI::ValidationError("--timeout", "needs the streaming runner");
    }
  });
  command->add_flag("--atomic", options->atomic,
                    "Install the archive whole: extract beside DESTINATION (which need not exist), "
                    "make it durable, then put it in DESTINATION's place, so that a power cut "
                    "leaves the old tree or the new one; refused up front when it does not fit");
  command->add_flag_callback(
      "--progress", [options] { options->progress = 1; },
      "Show the per cent of the archive read, bytes, rate and time left on standard error (the "
      "default when it is a terminal)");
  command->add_flag_callback(
      "--no-progress", [options] { options->progress = 0; }, "Show no progress");
  commands.push_back(
      {command, [options] {
         if (!options->atomic) {
           Require(options->destination, Expect::Directory);
         }
         Untar untar = OpenArchive(*options);
         const std::string destination = ForTar(options->destination);
         const bool show =
             options->progress < 0 ? ::isatty(STDERR_FILENO) != 0 : options->progress != 0;
         ExtractionProgress progress(options->archive, show);
         if (options->atomic) {
           AtomicUntar install(std::make_shared<Path>(ForTar(options->archive)),
                               MakeRunner(*options));
           const bool done = install.Install(destination);
           progress.Finish(done);
           if (!done) {
             ThrowOnLibraryError(options->destination);
             throw Failure(options->destination, Reason("not installed", errno));
           }
           return;
         }
         const int status = ForPath(
             options->archive, [&] { return untar.Extract(std::make_shared<Path>(destination)); });
         progress.Finish(status == 0);
         if (status == 0) {
           return;
         }
         ThrowOnLibraryError(options->archive);
         throw Failure(options->archive, status > 0
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
