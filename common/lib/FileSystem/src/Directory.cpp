// Directory: shell commands that create and empty it, the tree walk, and file-system usage.
#include "Directory.h"

#include <dirent.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <gsl/narrow>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "File.h"
#include "LinuxApi.h"
#include "Log.h"
#include "Narrow.h"

namespace drn {
namespace {

constexpr LogCategory kCategory = LogCategory::FileSystem;

// Characters that no shell gives a meaning to inside a word.
bool IsPlainShellCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
         std::strchr("/._+,:@%=-", c) != nullptr;
}

// The path text as one shell word that the shell takes literally: unchanged when it holds only
// plain characters, otherwise in single quotes (a quote inside written as '\''). nullopt for a
// text the commands must never see: one beginning with '-' would be read as options, and one
// holding a NUL byte would reach the shell cut short, naming another path.
std::optional<std::string> ShellWord(std::string_view text) {
  if ((!text.empty() && text.front() == '-') || text.find('\0') != std::string_view::npos) {
    return std::nullopt;
  }
  if (std::all_of(text.begin(), text.end(), IsPlainShellCharacter)) {
    return std::string(text);
  }
  std::string word;
  word.reserve(text.size() + 2);
  word += '\'';
  for (const char c : text) {
    if (c == '\'') {
      word += "'\\''";
    } else {
      word += c;
    }
  }
  word += '\'';
  return word;
}

bool IsDotOrDotDot(const char* name) {
  return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// Closes a directory stream through the interface that opened it, on every way out.
class DirectoryStream {
 public:
  DirectoryStream(LinuxApiIF& linuxApi, DIR* dir) : linuxApi(linuxApi), dir(dir) {}
  ~DirectoryStream() { linuxApi.closedir(dir); }
  DirectoryStream(const DirectoryStream&) = delete;
  DirectoryStream& operator=(const DirectoryStream&) = delete;

 private:
  LinuxApiIF& linuxApi;
  DIR* dir;
};

}  // namespace

struct Directory::Impl {
  Impl(std::shared_ptr<PathIF> path, std::shared_ptr<SystemCallWrapper> systemCallWrapper)
      : Impl(std::move(path), nullptr, std::move(systemCallWrapper)) {}
  Impl(std::shared_ptr<PathIF> path, std::unique_ptr<LinuxApiIF> linuxApi,
       std::shared_ptr<SystemCallWrapper> systemCallWrapper)
      : path(std::move(path)),
        linuxApi(linuxApi ? std::move(linuxApi) : std::make_unique<LinuxApi>()),
        systemCallWrapper(std::move(systemCallWrapper)) {}

  // The bytes in the regular files below directoryPath.
  std::uint64_t GetDirectorySize(const std::string& directoryPath);

  std::shared_ptr<PathIF> path;
  std::unique_ptr<LinuxApiIF> linuxApi;
  std::shared_ptr<SystemCallWrapper> systemCallWrapper;

 private:
  std::uint64_t SumTree(std::string& directoryPath);
};

std::uint64_t Directory::Impl::GetDirectorySize(const std::string& directoryPath) {
  // One buffer serves the whole walk: each level appends an entry's name to it and cuts it back.
  std::string buffer;
  buffer.reserve(directoryPath.size() + 256);
  buffer = directoryPath;
  return SumTree(buffer);
}

// Sums the regular files below the directory named by directoryPath. directoryPath is extended
// by each entry in turn and holds its original text again on return.
std::uint64_t Directory::Impl::SumTree(std::string& directoryPath) {
  DIR* dir = linuxApi->opendir(directoryPath.c_str());
  if (dir == nullptr) {
    return 0;
  }
  const DirectoryStream stream(*linuxApi, dir);
  const std::string::size_type length = directoryPath.size();
  std::uint64_t sum = 0;
  // A failing readdir ends this directory like its end does: the sum so far stands.
  while (const dirent* entry = linuxApi->readdir(dir)) {
    // The entry's type alone decides: links, devices and unknown types are neither counted nor
    // followed, and no status call is made for them.
    const bool isFile = entry->d_type == DT_REG;
    if (!isFile && (entry->d_type != DT_DIR || IsDotOrDotDot(entry->d_name))) {
      continue;
    }
    directoryPath.resize(length);
    directoryPath += '/';
    directoryPath += entry->d_name;
    sum += isFile ? File::GetFileSize(directoryPath) : SumTree(directoryPath);
  }
  directoryPath.resize(length);
  return sum;
}

Directory::Directory() : Directory(nullptr, std::make_shared<SystemCallWrapper>()) {}

Directory::Directory(std::shared_ptr<PathIF> path,
                     std::shared_ptr<SystemCallWrapper> systemCallWrapper)
    : impl(std::make_unique<Impl>(std::move(path), std::move(systemCallWrapper))) {}

Directory::Directory(std::shared_ptr<PathIF> path, std::unique_ptr<LinuxApiIF> linuxApi,
                     std::shared_ptr<SystemCallWrapper> systemCallWrapper)
    : impl(std::make_unique<Impl>(std::move(path), std::move(linuxApi),
                                  std::move(systemCallWrapper))) {}

Directory::Directory(Directory&& other) noexcept = default;

Directory::~Directory() = default;

bool Directory::DoCreateDirectory() {
  if (!impl || !impl->path) {
    return false;
  }
  // The path is asked whether it exists, then what it is, and only for a command its text: an
  // existing entry is answered whatever its name, before any rule for command lines applies.
  const PathIF& path = *impl->path;
  if (path.Exists()) {
    return path.IsDirectory();
  }
  const std::optional<std::string> word = ShellWord(path.GetPath());
  return word && std::system(("mkdir -p " + *word).c_str()) == 0;
}

bool Directory::DoEmptyDirectory() {
  if (!impl || !impl->path) {
    return false;
  }
  const PathIF& path = *impl->path;
  if (!path.Exists() || !path.IsDirectory()) {
    return false;
  }
  const std::string_view text = path.GetPath();
  const std::optional<std::string> word = ShellWord(text);
  if (!word) {
    return false;
  }
  // The "*" stays outside any quotes so that the shell expands it inside the directory.
  const char* pattern = !text.empty() && text.back() == '/' ? "*" : "/*";
  return std::system(("rm -r " + *word + pattern).c_str()) == 0;
}

std::uint64_t Directory::GetDirectorySize() {
  if (!impl || !impl->path) {
    return 0;
  }
  return impl->GetDirectorySize(std::string(impl->path->GetPath()));
}

std::uint64_t Directory::GetFileSystemUsedSize() {
  if (!impl || !impl->path) {
    return 0;
  }
  const std::string path(impl->path->GetPath());
  struct statfs stats {};
  if (::statfs(path.c_str(), &stats) != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, kCategory) << "failed to open path with " << error;
    return 0;
  }
  // A block size that is not a byte count breaks the kernel's contract: no result is honest.
  const auto blockSize = NarrowOrTerminate<std::uint64_t>(stats.f_bsize);
  if (stats.f_bfree > stats.f_blocks) {
    return 0;
  }
  return (stats.f_blocks - stats.f_bfree) * blockSize;
}

int Directory::GetPercentageUsed() {
  if (!impl || !impl->path || !impl->systemCallWrapper) {
    return 0;
  }
  const std::string path(impl->path->GetPath());
  struct statfs stats {};
  if (impl->systemCallWrapper->statfs(path.c_str(), &stats) != 0) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, kCategory)
        << "failed to open " << path << " with " << std::strerror(error) << "(" << error << ")";
    return 0;
  }
  std::uint64_t blockSize = 0;
  try {
    blockSize = gsl::narrow<std::uint64_t>(stats.f_bsize);
  } catch (const gsl::narrowing_error&) {
    DRN_LOG(LogLevel::Error, kCategory) << "failed to cast with gsl narrow ";
    return 0;
  }
  const std::uint64_t total = stats.f_blocks * blockSize;
  if (total == 0) {
    DRN_LOG(LogLevel::Critical, kCategory) << "Total size of uSD card came back as " << total;
    return 0;
  }
  if (stats.f_bfree > stats.f_blocks) {
    return 0;
  }
  const std::uint64_t used = total - stats.f_bfree * blockSize;
  // Scaled by 102 rather than 100: the card reads as full once about 98 % of it is in use.
  const double scaled = static_cast<double>(used) / static_cast<double>(total) * 102.0;
  return scaled >= 100.0 ? 100 : static_cast<int>(scaled);
}

}  // namespace drn
