// drxfs df, du, mkdir and empty: the library's Directory.
#include <dirent.h>
#include <fcntl.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "Command.h"
#include "Directory.h"
#include "LinuxApi.h"
#include "Path.h"
#include "SystemCallWrapper.h"

namespace drn::drxfs {
namespace {

std::unique_ptr<Directory> MakeDirectory(const std::shared_ptr<Path>& path) {
  return std::make_unique<Directory>(path, std::make_shared<SystemCallWrapper>());
}

// Runs action with standard error sent to a temporary file and returns what was written there:
// the message of a shell command that the library runs, kept for the one failure line.
std::string CaptureStandardError(const std::function<void()>& action) {
  struct CloseFile {
    // A temporary file: nothing is lost when closing it fails.
    void operator()(std::FILE* file) const { static_cast<void>(std::fclose(file)); }
  };
  struct Restore {
    int saved;
    ~Restore() {
      ::dup2(saved, STDERR_FILENO);
      ::close(saved);
    }
  };
  std::cerr.flush();
  const std::unique_ptr<std::FILE, CloseFile> capture(std::tmpfile());
  const int saved = capture ? ::dup(STDERR_FILENO) : -1;
  if (saved < 0 || ::dup2(::fileno(capture.get()), STDERR_FILENO) < 0) {
    if (saved >= 0) {
      ::close(saved);
    }
    action();
    return "";
  }
  {
    const Restore restore{saved};
    action();
  }
  std::string text;
  std::rewind(capture.get());
  for (int c = std::fgetc(capture.get()); c != EOF; c = std::fgetc(capture.get())) {
    text.push_back(static_cast<char>(c));
  }
  return text;
}

// The last non-empty line of text, or fallback when there is none.
std::string LastLine(std::string text, const std::string& fallback) {
  while (!text.empty() && text.back() == '\n') {
    text.pop_back();
  }
  return text.empty() ? fallback : text.substr(text.find_last_of('\n') + 1);
}

// Why a shell command that printed nothing failed: the library refuses texts that the command
// would take for options.
std::string Unexplained(const std::string& text, const std::string& failure) {
  return !text.empty() && text[0] == '-'
             ? failure + " (a path that begins with '-' is refused; write ./" + text + ")"
             : failure;
}

// Whether the directory holds an entry that the shell pattern "*" matches, that is one whose
// name does not begin with a dot.
bool HasUndottedEntries(const std::string& directory) {
  LinuxApi api;
  DIR* stream = api.opendir(directory.c_str());
  if (stream == nullptr) {
    throw Failure(directory, Reason("cannot open", errno));
  }
  bool found = false;
  for (const dirent* entry = api.readdir(stream); entry != nullptr && !found;
       entry = api.readdir(stream)) {
    found = entry->d_name[0] != '.';
  }
  api.closedir(stream);
  return found;
}

// Throws Failure when the file system that holds path has no size: a virtual one such as /proc,
// whose fill level means nothing.
void RequireStorage(const std::string& path) {
  struct statfs stats {};
  if (SystemCallWrapper().statfs(path.c_str(), &stats) == 0 && stats.f_blocks == 0) {
    throw Failure(path, "the file system reports a total size of 0 (it holds no storage)");
  }
}

// Throws Failure when DIRECTORY cannot be created for a reason that the creation command would
// only obscure: an entry that is not a directory, a name too long, a directory that may not be
// searched, a loop of symbolic links.
void RequireCreatable(const std::string& path) {
  struct stat status {};
  if (LinuxApi().stat(path.c_str(), &status) == 0) {
    if (!S_ISDIR(status.st_mode)) {
      throw Failure(path, "exists and is not a directory");
    }
  } else if (errno != ENOENT) {
    throw Failure(path, std::strerror(errno));
  }
}

// Whether path is the root directory, by any name ("/", "//", "/tmp/..").
bool IsRootDirectory(const std::string& path) {
  LinuxApi api;
  struct stat status {};
  struct stat root {};
  return api.stat(path.c_str(), &status) == 0 && api.stat("/", &root) == 0 &&
         status.st_dev == root.st_dev && status.st_ino == root.st_ino;
}

// What a failed emptying of directory must add when file systems are mounted inside it: the
// removal went into them before it failed at their mount points. Empty when there are none.
std::string MountedInside(const std::string& directory) {
  const std::unique_ptr<char, decltype(&std::free)> real(::realpath(directory.c_str(), nullptr),
                                                         &std::free);
  const std::unique_ptr<std::FILE, decltype(&::endmntent)> mounts(
      ::setmntent("/proc/self/mounts", "r"), &::endmntent);
  if (!real || !mounts) {
    return "";
  }
  const std::string inside = std::string(real.get()) == "/" ? "/" : std::string(real.get()) + "/";
  std::vector<std::string> found;
  mntent entry{};
  std::array<char, 4096> buffer{};
  while (::getmntent_r(mounts.get(), &entry, buffer.data(), buffer.size()) != nullptr) {
    const std::string mountPoint = entry.mnt_dir;
    if (mountPoint.size() > inside.size() && mountPoint.compare(0, inside.size(), inside) == 0) {
      found.push_back(mountPoint);
    }
  }
  if (found.empty()) {
    return "";
  }
  return "; " + found.front() +
         (found.size() > 1 ? " and " + std::to_string(found.size() - 1) + " more are mount points"
                           : " is a mount point") +
         ": the mounted file system's contents may already be gone";
}

void AddDfCommand(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  auto report = std::make_shared<Report>();
  CLI::App* command = app.add_subcommand(
      "df",
      "Print the bytes in use on the file system that holds PATH and its fill level in "
      "percent (100 from about 98 % on), separated by a tab");
  command->add_option("PATH", *text, "Any path on the file system")->required();
  AddReportOptions(*command, *report, true);
  commands.push_back(
      {command, [text, report] {
         Require(*text, Expect::Anything);
         const auto path = std::make_shared<Path>(*text);
         const auto directory = MakeDirectory(path);
         RequireStorage(*text);
         const std::uint64_t used = directory->GetFileSystemUsedSize();
         ThrowOnLibraryError(*text);
         const int percent = directory->GetPercentageUsed();
         ThrowOnLibraryError(*text);
         if (report->json) {
           PrintJson({{"path", JsonName(*text)}, {"usedBytes", used}, {"percentUsed", percent}});
         } else {
           std::cout << FormatSize(used, report->human) << '\t' << percent << "%\n";
         }
       }});
}

// The directories that a walk could not read: how many, and the first with its reason.
struct Unreadable {
  std::uint64_t count = 0;
  std::string first;
};

void Note(Unreadable& found, const std::string& path, int error) {
  if (found.count++ == 0) {
    found.first = path + ": " + std::strerror(error);
  }
}

// Adds the directories below path (and path itself) that the library's size walk cannot read to
// found. It walks as that walk does, opening each directory by its full path and taking entries
// by their type, so that what it finds is what the size leaves out. path is extended for each
// subdirectory and holds its own text again on return.
void FindUnreadable(std::string& path, Unreadable& found) {
  DIR* const stream = ::opendir(path.c_str());
  if (stream == nullptr) {
    Note(found, path, errno);
    return;
  }
  // A directory that may be read but not searched gives the names of its files, not their sizes.
  if (::faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0) {
    Note(found, path, errno);
    ::closedir(stream);
    return;
  }
  const std::string::size_type length = path.size();
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(stream);
    if (entry == nullptr) {
      if (errno != 0) {
        Note(found, path, errno);
      }
      break;
    }
    if (entry->d_type != DT_DIR || std::strcmp(entry->d_name, ".") == 0 ||
        std::strcmp(entry->d_name, "..") == 0) {
      continue;
    }
    if (!path.empty() && path.back() != '/') {
      path += '/';
    }
    path += entry->d_name;
    FindUnreadable(path, found);
    path.resize(length);
  }
  ::closedir(stream);
}

void AddDuCommand(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  auto report = std::make_shared<Report>();
  CLI::App* command = app.add_subcommand(
      "du",
      "Print the total size of the regular files below DIRECTORY (links not followed). When "
      "subdirectories cannot be read, the size of the rest is printed, a failure line says how "
      "many could not be read and names the first, and the exit status is 1");
  command->add_option("DIRECTORY", *text, "The directory")->required();
  AddReportOptions(*command, *report, true);
  commands.push_back({command, [text, report] {
                        Require(*text, Expect::Directory);
                        const std::uint64_t size =
                            MakeDirectory(std::make_shared<Path>(*text))->GetDirectorySize();
                        Unreadable unreadable;
                        std::string path = *text;
                        FindUnreadable(path, unreadable);
                        if (report->json) {
                          PrintJson({{"path", JsonName(*text)}, {"bytes", size}});
                        } else {
                          std::cout << FormatSize(size, report->human) << '\n';
                        }
                        if (unreadable.count > 0) {
                          throw Failure(
                              *text, std::to_string(unreadable.count) +
                                         (unreadable.count == 1 ? " directory" : " directories") +
                                         " could not be read and not counted, the first " +
                                         unreadable.first);
                        }
                      }});
}

void AddMkdirCommand(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  CLI::App* command = app.add_subcommand(
      "mkdir", "Create DIRECTORY with its missing parents; an existing directory is left alone");
  command->add_option("DIRECTORY", *text, "The directory")->required();
  commands.push_back(
      {command, [text] {
         RequireCreatable(*text);
         const auto path = std::make_shared<Path>(*text);
         bool created = false;
         const std::string messages =
             CaptureStandardError([&] { created = MakeDirectory(path)->CreateDirectory(); });
         if (!created) {
           throw Failure(*text,
                         LastLine(messages, Unexplained(*text, "cannot create the directory")));
         }
       }});
}

void AddEmptyCommand(CLI::App& app, Commands& commands) {
  auto text = std::make_shared<std::string>();
  auto noPreserveRoot = std::make_shared<bool>(false);
  CLI::App* command = app.add_subcommand(
      "empty",
      "Remove everything in DIRECTORY, subdirectories included, except the entries "
      "whose names begin with a dot; the directory itself stays. File systems mounted inside "
      "are emptied too before the removal fails at their mount points");
  command->add_option("DIRECTORY", *text, "The directory")->required();
  command->add_flag("--no-preserve-root", *noPreserveRoot,
                    "Empty the root directory too; without it, a DIRECTORY that is / is refused");
  commands.push_back(
      {command, [text, noPreserveRoot] {
         Require(*text, Expect::Directory);
         if (!*noPreserveRoot && IsRootDirectory(*text)) {
           throw Failure(*text, "refusing to empty the root directory (--no-preserve-root)");
         }
         // With nothing to remove the removal command would fail; the directory
         // is already as asked.
         if (!HasUndottedEntries(*text)) {
           return;
         }
         bool emptied = false;
         const auto path = std::make_shared<Path>(*text);
         const std::string messages =
             CaptureStandardError([&] { emptied = MakeDirectory(path)->EmptyDirectory(); });
         if (!emptied) {
           throw Failure(*text,
                         LastLine(messages, Unexplained(*text, "cannot empty the directory")) +
                             MountedInside(*text));
         }
       }});
}

}  // namespace

void AddDirectoryCommands(CLI::App& app, Commands& commands) {
  AddDfCommand(app, commands);
  AddDuCommand(app, commands);
  AddMkdirCommand(app, commands);
  AddEmptyCommand(app, commands);
}

}  // namespace drn::drxfs
