// drxfs touch, truncate and size (the library's by-name file helpers), cat and write (File,
// AtomicFile).
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "AtomicFile.h"
#include "Command.h"
#include "DurableLinuxApi.h"
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
                        // The size helper answers 0 for a file it cannot examine; make that an
                        // error.
                        Require(*file, Expect::NoDirectory);
                        const std::uint64_t size = File::GetFileSize(*file);
                        if (report->json) {
                          PrintJson({{"path", JsonName(*file)}, {"bytes", size}});
                        } else {
                          std::cout << FormatSize(size, report->human) << '\n';
                        }
                      }});
}

// The get and put areas of the streaming commands.
constexpr std::uint32_t kStreamBufferSize = 64 * 1024;

// Opens the existing file at path; a refusal becomes a Failure with the library's reason.
std::unique_ptr<File> OpenFile(const Path& path, bool forWrite) {
  Require(std::string(path.GetPath()), Expect::NoDirectory);
  File::Options options;
  options.path = &path;
  options.openForRead = !forWrite;
  options.openForWrite = forWrite;
  options.readBufferSize = forWrite ? 0 : kStreamBufferSize;
  options.writeBufferSize = forWrite ? kStreamBufferSize : 0;
  // Written bytes reach the card at every flush, on FAT too.
  return ForPath(std::string(path.GetPath()), [&] {
    return std::make_unique<File>(options,
                                  forWrite ? std::make_unique<DurableLinuxApi>() : nullptr);
  });
}

void AddCatCommand(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand(
      "cat", "Copy FILE to standard output, read through the library's File in 64 KiB blocks");
  command->add_option("FILE", *text, "The file")->required();
  commands.push_back({command, [text] {
                        const Path path(*text);
                        const auto file = OpenFile(path, false);
                        std::vector<char> block(kStreamBufferSize);
                        // Take the get area as it stands after each refill: asking for more than
                        // it holds is a read the File does not implement.
                        while (file->sgetc() != std::char_traits<char>::eof()) {
                          const std::streamsize count = file->sgetn(
                              block.data(),
                              std::min<std::streamsize>(file->in_avail(), kStreamBufferSize));
                          if (!std::cout.write(block.data(), count)) {
                            throw Failure("standard output", "write error");
                          }
                        }
                        // A failed read ends the file early; its record tells.
                        ThrowOnLibraryError(*text);
                      }});
}

// What copying standard input did: the bytes copied, and the read error that ended it (0 when
// the input ended).
struct Copied {
  std::uint64_t bytes = 0;
  int error = 0;
};

// Copies standard input to output until it ends or cannot be read. It is read with read(2): the
// standard streams take a read error for the input's end. A failed write becomes a Failure for
// path.
Copied CopyStandardInput(std::ostream& output, const std::string& path) {
  std::vector<char> block(kStreamBufferSize);
  Copied copied;
  for (;;) {
    const ssize_t count = ::read(STDIN_FILENO, block.data(), block.size());
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count <= 0) {
      copied.error = count < 0 ? errno : 0;
      return copied;
    }
    output.write(block.data(), count);
    ThrowOnLibraryError(path);
    if (!output) {
      throw Failure(path, "write failed");
    }
    copied.bytes += static_cast<std::uint64_t>(count);
  }
}

// The failure of a write whose input could not be read, and what became of the file.
Failure InputFailure(const std::string& path, const Copied& copied, bool atomic) {
  const std::string outcome =
      atomic || copied.bytes == 0
          ? "it is left as it was"
          : "the " + std::to_string(copied.bytes) + " bytes read before were written to it";
  return Failure(path, Reason("cannot read standard input", copied.error) + "; " + outcome);
}

// Standard input into the existing file from its first byte; bytes beyond it stay.
void WriteInPlace(const std::string& text) {
  const Path path(text);
  Copied copied;
  {
    const auto file = OpenFile(path, true);
    copied = CopyStandardInput(*file, text);
    file->flush();
    ThrowOnLibraryError(text);
    if (!*file) {
      throw Failure(text, "write failed");
    }
  }
  // Closing can fail too.
  ThrowOnLibraryError(text);
  if (copied.error != 0) {
    throw InputFailure(text, copied, false);
  }
}

// An AtomicFile whose temporary file a stop removes. It is made, ended (committed, cancelled or
// dropped) and named to the stop with a stop held off, so that the stop never misses it and never
// removes a name that is no longer its own.
class StoppableReplacement {
 public:
  explicit StoppableReplacement(const std::string& path) {
    HoldingOffStop([&] {
      file = ForPath(path, [&] { return std::make_unique<AtomicFile>(path); });
      SetRemovedOnStop(file->TemporaryPath());
    });
  }
  ~StoppableReplacement() {
    End([this] { file.reset(); });
  }
  StoppableReplacement(const StoppableReplacement&) = delete;
  StoppableReplacement& operator=(const StoppableReplacement&) = delete;
  StoppableReplacement(StoppableReplacement&&) = delete;
  StoppableReplacement& operator=(StoppableReplacement&&) = delete;

  AtomicFile& Stream() { return *file; }

  bool Commit() {
    bool committed = false;
    End([&] { committed = file->Commit(); });
    return committed;
  }

  void Cancel() {
    End([this] { file->Cancel(); });
  }

 private:
  void End(const std::function<void()>& ending) {
    HoldingOffStop([&] {
      ending();
      SetRemovedOnStop("");
    });
  }

  std::unique_ptr<AtomicFile> file;
};

// Standard input as the file's whole content, replaced atomically; a failure leaves it as it was.
void WriteAtomically(const std::string& path) {
  StoppableReplacement replacement(path);
  const Copied copied = CopyStandardInput(replacement.Stream(), path);
  if (copied.error != 0) {
    replacement.Cancel();
    throw InputFailure(path, copied, true);
  }
  if (!replacement.Commit()) {
    ThrowOnLibraryError(path);
    throw Failure(path, "replacing failed");
  }
}

void AddWriteCommand(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  auto atomic = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(
      "write",
      "Write standard input into FILE. For settings and state files use --atomic: standard "
      "input becomes FILE's whole content, and a power cut leaves the old content or the new. "
      "Without it, standard input is written into the existing FILE from its first byte through "
      "the library's File with a 64 KiB put area; bytes beyond the input are kept. Standard "
      "input that cannot be read (closed, a directory, a connection reset) is a failure: FILE "
      "is left as it was, except without --atomic after bytes were read, which the failure "
      "counts");
  command->add_option("FILE", *text, "The file; without --atomic it must exist")->required();
  command->add_flag(
      "--atomic", *atomic,
      "Replace FILE's whole content through the library's AtomicFile (FILE may be "
      "new; an existing FILE keeps its owner, group and permission bits where drxfs may "
      "set them, its set-ID bits only then). A stop "
      "signal removes the temporary file of the replacement");
  commands.push_back({command, [text, atomic] {
                        if (*atomic) {
                          WriteAtomically(*text);
                        } else {
                          WriteInPlace(*text);
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
  AddCatCommand(app, commands);
  AddWriteCommand(app, commands);
}

}  // namespace drn::drxfs
