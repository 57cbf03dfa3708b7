// AtomicUntar: extraction beside the destination, durability, then one swap of whole trees.
#include "AtomicUntar.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <sstream>
#include <string_view>
#include <vector>

#include "LinuxApi.h"
#include "Log.h"
#include "Path.h"
#include "StreamingTarApi.h"
#include "SystemCallWrapper.h"

namespace drn {
namespace {

constexpr long kExfatMagic = 0x2011BAB0;  // not in every <linux/magic.h>
constexpr long kF2fsMagic = 0xF2F52010;

// File systems whose syncfs commits a journal (or, for tmpfs, has nothing to persist), so that
// one call makes every file and directory written so far durable.
bool OneSyncIsEnough(long magic) {
  return magic == EXT4_SUPER_MAGIC || magic == XFS_SUPER_MAGIC || magic == BTRFS_SUPER_MAGIC ||
         magic == kF2fsMagic || magic == TMPFS_MAGIC;
}

// A suffix of six characters that are safe in any file name on FAT and exFAT too.
std::string RandomSuffix() {
  static constexpr std::string_view kCharacters = "abcdefghijklmnopqrstuvwxyz0123456789";
  thread_local std::minstd_rand generator(std::random_device{}());
  std::string suffix(6, ' ');
  for (char& c : suffix) {
    c = kCharacters[generator() % kCharacters.size()];
  }
  return suffix;
}

bool StartsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

struct AtomicUntar::Impl {
  Impl(const std::shared_ptr<PathIF>& archive, std::shared_ptr<TarApi> tarRunner,
       std::unique_ptr<LinuxApiIF> api, std::shared_ptr<SystemCallWrapper> calls)
      : runner(tarRunner ? std::move(tarRunner) : std::make_shared<StreamingTarApi>()),
        untar(archive, runner),
        archivePath(archive->GetPath()),
        linuxApi(api ? std::move(api) : std::make_unique<LinuxApi>()),
        systemCalls(calls ? std::move(calls) : std::make_shared<SystemCallWrapper>()) {}

  // The destination split into its parent directory and its own name.
  struct Target {
    std::string parent;
    std::string name;
    std::string Path() const { return parent + "/" + name; }
    std::string Install() const { return parent + "/." + name + ".install-"; }
    std::string Old() const { return parent + "/." + name + ".old-"; }
  };

  bool Split(const std::string& destination, Target& target);
  bool Fail(const std::string& what, int error);
  bool Fits(const Target& target);
  bool MakeInstallDirectory(const Target& target, std::string& suffix);
  bool Sync(const std::string& path, int flags, bool fileSystem);
  bool SyncTree(const std::string& path);
  bool SyncDirectory(const std::string& path);
  bool SyncFileSystem(const std::string& path);
  bool RemoveTree(const std::string& path);
  bool List(const std::string& directory, std::vector<std::string>& names);
  bool Swap(const Target& target, const std::string& suffix, bool exchange);
  bool Tidy(const Target& target);
  bool Exists(const std::string& path, struct stat& status) {
    return linuxApi->lstat(path.c_str(), &status) == 0;
  }

  std::shared_ptr<TarApi> runner;
  Untar untar;
  std::string archivePath;
  std::unique_ptr<LinuxApiIF> linuxApi;
  std::shared_ptr<SystemCallWrapper> systemCalls;
};

bool AtomicUntar::Impl::Fail(const std::string& what, int error) {
  DRN_LOG(LogLevel::Error, LogCategory::Tar)
      << "installing " << archivePath << " failed: " << what << ": " << std::strerror(error);
  errno = error;
  return false;
}

bool AtomicUntar::Impl::Split(const std::string& destination, Target& target) {
  std::string path = destination;
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  const std::string::size_type slash = path.rfind('/');
  target.parent = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
  target.name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (target.name.empty() || target.name == "." || target.name == ".." || target.name == "/") {
    return Fail("no directory name in \"" + destination + "\"", EINVAL);
  }
  struct stat status {};
  if (!Exists(target.parent, status) || !S_ISDIR(status.st_mode)) {
    return Fail("no parent directory " + target.parent, errno != 0 ? errno : ENOTDIR);
  }
  if (Exists(target.Path(), status) && !S_ISDIR(status.st_mode)) {
    return Fail(target.Path() + " is not a directory", ENOTDIR);
  }
  return true;
}

bool AtomicUntar::Impl::Fits(const Target& target) {
  struct statvfs space {};
  if (systemCalls->statvfs(target.parent.c_str(), &space) != 0) {
    return Fail("statvfs of " + target.parent, errno);
  }
  std::vector<std::string> args = {"-tvf", archivePath};
  const auto [listing, status] = runner->RunCmd(args);
  if (status != 0) {
    return Fail("listing the archive (tar status " + std::to_string(status) + ")", EIO);
  }
  const std::uint64_t block = space.f_frsize != 0 ? space.f_frsize : 4096;
  std::uint64_t needed = 0;
  std::istringstream lines(listing);
  std::string line;
  while (std::getline(lines, line)) {
    std::istringstream fields(line);
    std::string mode;
    std::string owner;
    std::string size;
    if (!(fields >> mode >> owner >> size) || StartsWith(line, "tar: ")) {
      continue;
    }
    std::uint64_t bytes = 0;
    // A device node lists "MAJOR,MINOR" where the size would be: it takes no data blocks.
    if (size.find(',') == std::string::npos &&
        std::from_chars(size.data(), size.data() + size.size(), bytes).ec != std::errc()) {
      return Fail("no member size in the listing line \"" + line + "\"", EINVAL);
    }
    needed += (bytes + block - 1) / block * block + block;
  }
  const std::uint64_t available = std::uint64_t{space.f_bavail} * space.f_frsize;
  if (needed > available) {
    return Fail("it needs " + std::to_string(needed) + " bytes but " + target.parent + " has " +
                    std::to_string(available) + " bytes free",
                ENOSPC);
  }
  return true;
}

bool AtomicUntar::Impl::MakeInstallDirectory(const Target& target, std::string& suffix) {
  for (int attempt = 0; attempt < 100; ++attempt) {
    suffix = RandomSuffix();
    if (linuxApi->mkdir((target.Install() + suffix).c_str(), 0755) == 0) {
      return true;
    }
    if (errno != EEXIST) {
      break;
    }
  }
  return Fail("creating " + target.Install() + suffix, errno);
}

bool AtomicUntar::Impl::List(const std::string& directory, std::vector<std::string>& names) {
  DIR* dir = linuxApi->opendir(directory.c_str());
  if (dir == nullptr) {
    return Fail("opening the directory " + directory, errno);
  }
  errno = 0;
  while (const dirent* entry = linuxApi->readdir(dir)) {
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      names.emplace_back(name);
    }
  }
  const int error = errno;
  linuxApi->closedir(dir);
  return error == 0 ? true : Fail("reading the directory " + directory, error);
}

// Opens path with flags, syncs it (its whole file system when fileSystem is set) and closes it.
bool AtomicUntar::Impl::Sync(const std::string& path, int flags, bool fileSystem) {
  const int fd = linuxApi->open(path.c_str(), O_RDONLY | flags | O_CLOEXEC);
  if (fd < 0) {
    return Fail("opening " + path + " to sync it", errno);
  }
  if ((fileSystem ? linuxApi->syncfs(fd) : linuxApi->fsync(fd)) != 0) {
    const int error = errno;
    linuxApi->close(fd);
    return Fail((fileSystem ? "syncfs of " : "fsync of ") + path, error);
  }
  return linuxApi->close(fd) == 0 ? true : Fail("close of " + path, errno);
}

bool AtomicUntar::Impl::SyncDirectory(const std::string& path) {
  return Sync(path, O_DIRECTORY, false);
}

bool AtomicUntar::Impl::SyncTree(const std::string& path) {
  struct stat status {};
  if (!Exists(path, status)) {
    return Fail("lstat of " + path, errno);
  }
  if (S_ISDIR(status.st_mode)) {
    std::vector<std::string> names;
    if (!List(path, names)) {
      return false;
    }
    for (const std::string& name : names) {
      if (!SyncTree(std::string(path).append("/").append(name))) {
        return false;
      }
    }
    return SyncDirectory(path);
  }
  if (!S_ISREG(status.st_mode)) {
    return true;  // links and nodes live in their directory's entries
  }
  return Sync(path, O_NOFOLLOW, false);
}

bool AtomicUntar::Impl::SyncFileSystem(const std::string& path) {
  return Sync(path, O_DIRECTORY, true);
}

bool AtomicUntar::Impl::RemoveTree(const std::string& path) {
  struct stat status {};
  if (!Exists(path, status)) {
    return errno == ENOENT ? true : Fail("lstat of " + path, errno);
  }
  if (S_ISDIR(status.st_mode)) {
    // A directory the archive made read-only must still be emptied.
    if ((status.st_mode & S_IRWXU) != S_IRWXU &&
        linuxApi->chmod(path.c_str(), (status.st_mode & 07777) | S_IRWXU) != 0) {
      return Fail("making " + path + " removable", errno);
    }
    std::vector<std::string> names;
    if (!List(path, names)) {
      return false;
    }
    for (const std::string& name : names) {
      if (!RemoveTree(std::string(path).append("/").append(name))) {
        return false;
      }
    }
  }
  return linuxApi->remove(path.c_str()) == 0 ? true : Fail("removing " + path, errno);
}

bool AtomicUntar::Impl::Swap(const Target& target, const std::string& suffix, bool exchange) {
  const std::string install = target.Install() + suffix;
  struct stat status {};
  if (!Exists(target.Path(), status)) {
    if (linuxApi->rename(install.c_str(), target.Path().c_str()) != 0) {
      return Fail("renaming " + install + " to " + target.Path(), errno);
    }
    return SyncDirectory(target.parent);
  }
  if (exchange && ::renameat2(AT_FDCWD, install.c_str(), AT_FDCWD, target.Path().c_str(),
                              RENAME_EXCHANGE) == 0) {
    return SyncDirectory(target.parent);
  }
  if (exchange && errno != EINVAL) {
    return Fail("exchanging " + install + " and " + target.Path(), errno);
  }
  // No exchange here: a cut between the two renames leaves the old tree under its old-name,
  // which Recover puts back.
  const std::string old = target.Old() + suffix;
  if (linuxApi->rename(target.Path().c_str(), old.c_str()) != 0) {
    return Fail("renaming " + target.Path() + " to " + old, errno);
  }
  bool placed = SyncDirectory(target.parent);
  if (placed && linuxApi->rename(install.c_str(), target.Path().c_str()) != 0) {
    placed = Fail("renaming " + install + " to " + target.Path(), errno);
  }
  if (!placed) {
    const int error = errno;
    // Until the new tree has the name, the old one goes back; a cut meanwhile is Recover's.
    linuxApi->rename(old.c_str(), target.Path().c_str());
    errno = error;
    return false;
  }
  return SyncDirectory(target.parent);
}

bool AtomicUntar::Impl::Tidy(const Target& target) {
  std::vector<std::string> names;
  if (!List(target.parent, names)) {
    return false;
  }
  const std::string installPrefix = "." + target.name + ".install-";
  const std::string oldPrefix = "." + target.name + ".old-";
  struct stat status {};
  if (!Exists(target.Path(), status)) {
    for (const std::string& name : names) {
      if (StartsWith(name, oldPrefix)) {
        const std::string old = target.parent + "/" + name;
        if (linuxApi->rename(old.c_str(), target.Path().c_str()) != 0) {
          return Fail("putting " + old + " back as " + target.Path(), errno);
        }
        if (!SyncDirectory(target.parent)) {
          return false;
        }
        break;
      }
    }
  }
  for (const std::string& name : names) {
    if ((StartsWith(name, installPrefix) || StartsWith(name, oldPrefix)) &&
        !RemoveTree(target.parent + "/" + name)) {
      return false;
    }
  }
  return true;
}

// The archive is taken by value, as Untar takes it, though only Untar's copy is kept.
// NOLINTNEXTLINE(performance-unnecessary-value-param)
AtomicUntar::AtomicUntar(std::shared_ptr<PathIF> archive, std::shared_ptr<TarApi> runner,
                         std::unique_ptr<LinuxApiIF> linuxApi,
                         std::shared_ptr<SystemCallWrapper> systemCalls)
    : impl(std::make_unique<Impl>(archive, std::move(runner), std::move(linuxApi),
                                  std::move(systemCalls))) {}

AtomicUntar::~AtomicUntar() = default;
AtomicUntar::AtomicUntar(AtomicUntar&& other) noexcept = default;
AtomicUntar& AtomicUntar::operator=(AtomicUntar&& other) noexcept = default;

bool AtomicUntar::DoRecover(const std::string& destination) {
  Impl::Target target;
  return impl->Split(destination, target) && impl->Tidy(target);
}

bool AtomicUntar::DoInstall(const std::string& destination) {
  Impl::Target target;
  if (!impl->Split(destination, target) || !impl->Tidy(target) || !impl->Fits(target)) {
    return false;
  }
  std::string suffix;
  if (!impl->MakeInstallDirectory(target, suffix)) {
    return false;
  }
  const std::string install = target.Install() + suffix;
  struct statfs fileSystem {};
  bool ready = false;
  int status = 0;
  try {
    status = impl->untar.Extract(std::make_shared<Path>(install));
  } catch (...) {
    impl->RemoveTree(install);  // the runner's exception passes through, the tree does not stay
    throw;
  }
  if (status != 0) {
    impl->Fail("extracting into " + install + " (tar status " + std::to_string(status) + ")", EIO);
  } else if (impl->systemCalls->statfs(install.c_str(), &fileSystem) != 0) {
    impl->Fail("statfs of " + install, errno);
  } else {
    const auto magic = static_cast<long>(fileSystem.f_type);
    ready = (OneSyncIsEnough(magic) ? impl->SyncFileSystem(install) : impl->SyncTree(install)) &&
            impl->SyncDirectory(target.parent) && impl->Swap(target, suffix, magic != kExfatMagic);
  }
  if (!ready) {
    const int error = errno;
    struct stat unused {};
    // Until the swap the install directory holds the new tree; after a failed exchange or
    // rename it may hold nothing else.
    if (impl->Exists(install, unused)) {
      impl->RemoveTree(install);
    }
    errno = error;
    return false;
  }
  // After an exchange the old tree has the install name; after the renames, the old-name.
  if (!impl->RemoveTree(install) || !impl->RemoveTree(target.Old() + suffix)) {
    DRN_LOG(LogLevel::Warning, LogCategory::Tar)
        << "the old tree beside " << target.Path() << " is left; the next install removes it";
  }
  return true;
}

}  // namespace drn
