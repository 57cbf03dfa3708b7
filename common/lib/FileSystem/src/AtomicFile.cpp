// AtomicFile: a temporary file beside the target, fsynced and renamed over it.
#include "AtomicFile.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <random>
#include <stdexcept>
#include <utility>
#include <vector>

#include "LinuxApi.h"
#include "Log.h"
#include "OutputLoop.h"

namespace drn {
namespace {

constexpr LogCategory kCategory = LogCategory::FileSystem;

// Attempts at a fresh temporary name before giving up (as many as mkstemp makes).
constexpr int kNameAttempts = 238328;
// Random characters in a temporary name, and the ones they are drawn from.
constexpr std::size_t kSuffixLength = 6;
constexpr char kSuffixCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
// The longest file name; ".NAME.XXXXXX" shortens NAME to fit.
constexpr std::size_t kNameMax = 255;
constexpr std::size_t kBaseMax = kNameMax - kSuffixLength - 2;
// A new file's permission bits before the umask.
constexpr unsigned kNewFileMode = 0644;
// The temporary file's bits until Commit gives it an existing target's.
constexpr unsigned kOwnerOnlyMode = 0600;
constexpr int kSetIdBits = S_ISUID | S_ISGID;

// Whether the file system of fd journals its directories, so that the directory's fsync alone
// makes a rename durable, the replaced content freed in the same transaction. Everywhere else
// (FAT, exFAT, and what statfs cannot name) a replacement takes the careful steps.
bool JournalsRenames(int fd) {
  struct statfs status {};
  if (::fstatfs(fd, &status) != 0) {
    return false;
  }
  // ext2 and ext3 share ext4's number; the device's cards carry ext4.
  switch (static_cast<unsigned long>(status.f_type)) {
    case EXT4_SUPER_MAGIC:
    case XFS_SUPER_MAGIC:
    case BTRFS_SUPER_MAGIC:
      return true;
    default:
      return false;
  }
}

}  // namespace

struct AtomicFile::Impl {
  enum class State { Open, Committed, Cancelled, Failed };

  Impl(const std::string& target, std::unique_ptr<LinuxApiIF> api);

  // Gives the temporary file the target's owner and group through its descriptor and sets
  // the mode Commit gives it: the target's, less the set-ID bits where owner and group cannot
  // be kept or link says the target was reached through a symbolic link. Throws
  // std::ios_base::failure after a record (the temporary file removed) when fchown fails for
  // another reason than the caller's lack of permission.
  void KeepOwner(const struct stat& target, bool link);
  // Writes count bytes at data to the temporary file, continuing short writes and retrying
  // EINTR. false when a write failed; the replacement is then given up.
  bool Write(const char* data, std::size_t count);
  // The steps after the last write: fsync, close, rename, fsync of the directory.
  bool Replace();
  // Opens path itself (not its content, so no read permission is needed), so that the content a
  // rename replaces stays allocated until held is closed. false after a failure; a missing path
  // has nothing to hold.
  bool Hold();
  // Opens name with flags, fsyncs and closes it; after the rename, so a failure leaves the new
  // content in place.
  bool SyncByName(const std::string& name, int flags);
  // Gives the replacement up after a failed step: a record naming step and error (0: none),
  // then the temporary file goes. inPlace says the rename had already succeeded. Always false.
  bool Fail(const std::string& step, int error, bool inPlace);
  // Closes the temporary file when it is open and removes it when it is still there.
  void Discard();

  std::unique_ptr<LinuxApiIF> linuxApi;
  std::string path;
  std::string directory;  // path's directory, for its fsync
  std::string temporary;  // the temporary file's path
  int mode = -1;          // the mode Commit gives the temporary file; -1: the one open gave
  int fd = -1;            // the temporary file while it is open
  int held = -1;          // path's old content, from Hold until the directory is synced
  bool renamed = false;   // the temporary file has become path
  State state = State::Open;
  std::vector<char> writeBuffer;  // only the reserved storage is used; it is the put area
};

AtomicFile::Impl::Impl(const std::string& target, std::unique_ptr<LinuxApiIF> api)
    : linuxApi(api ? std::move(api) : std::make_unique<LinuxApi>()), path(target) {
  if (path.empty()) {
    DRN_LOG(LogLevel::Error, kCategory) << "cannot replace a file with an empty path";
    throw std::invalid_argument("AtomicFile needs the path of a file");
  }
  struct stat status {};
  // A path that ends in a slash names a directory, whether or not it exists.
  bool exists = path.back() != '/' && linuxApi->lstat(path.c_str(), &status) == 0;
  // A symbolic link is replaced by a file with its target's attributes, less the set-ID bits.
  const bool link = exists && S_ISLNK(status.st_mode);
  if (link) {
    exists = linuxApi->stat(path.c_str(), &status) == 0;
  }
  if (path.back() == '/' || (exists && S_ISDIR(status.st_mode))) {
    DRN_LOG(LogLevel::Error, kCategory) << "cannot replace " << path << ": it is a directory";
    throw std::invalid_argument("AtomicFile cannot replace a directory");
  }
  // A device, pipe or socket would become a plain file: never what its users meant.
  if (exists && !S_ISREG(status.st_mode)) {
    DRN_LOG(LogLevel::Error, kCategory) << "cannot replace " << path << ": not a regular file";
    throw std::invalid_argument("AtomicFile replaces regular files only");
  }
  if (!exists && errno != ENOENT) {
    // Its mode could not be carried over.
    DRN_LOG(LogLevel::Error, kCategory)
        << "cannot examine " << path << ": " << std::strerror(errno);
    throw std::ios_base::failure("AtomicFile cannot examine its path");
  }
  const std::size_t slash = path.rfind('/');
  const std::string prefix = slash == std::string::npos ? "" : path.substr(0, slash + 1);
  directory = prefix.empty() ? "." : prefix;
  const std::string base = prefix + "." + path.substr(prefix.size(), kBaseMax) + ".";
  // Unique among the live AtomicFiles of this process (this address) and across processes (the
  // process id); a clash with anything else is an EEXIST and another draw.
  std::seed_seq seed{
      static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(this)),
      static_cast<unsigned>(::getpid()),
      static_cast<unsigned>(std::chrono::steady_clock::now().time_since_epoch().count())};
  std::minstd_rand random(seed);
  std::uniform_int_distribution<std::size_t> pick(0, sizeof(kSuffixCharacters) - 2);
  // A new file's mode is set by open, less the umask. For an existing target the file is for
  // its owner alone until Commit gives it the target's mode, so no one else reads it half
  // written or holds it open with a mode it was not meant to have.
  for (int attempt = 0; fd < 0 && attempt < kNameAttempts; ++attempt) {
    temporary = base;
    for (std::size_t i = 0; i < kSuffixLength; ++i) {
      temporary += kSuffixCharacters[pick(random)];
    }
    // O_EXCL never follows a symbolic link planted at the name; O_NOFOLLOW says so twice.
    fd = linuxApi->open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                        static_cast<int>(exists ? kOwnerOnlyMode : kNewFileMode));
    if (fd < 0 && errno != EEXIST) {
      break;
    }
  }
  if (fd < 0) {
    DRN_LOG(LogLevel::Error, kCategory)
        << "cannot create a temporary file beside " << path << ": " << std::strerror(errno);
    throw std::ios_base::failure("AtomicFile cannot create its temporary file");
  }
  if (exists) {
    KeepOwner(status, link);
  }
}

void AtomicFile::Impl::KeepOwner(const struct stat& target, bool link) {
  // Only root may give a file away; anyone may keep a group they belong to (as cp does).
  const auto notPermitted = [] { return errno == EPERM || errno == EINVAL; };
  const bool kept = ::fchown(fd, target.st_uid, target.st_gid) == 0;
  if (!kept && (!notPermitted() ||
                (::fchown(fd, static_cast<uid_t>(-1), target.st_gid) != 0 && !notPermitted()))) {
    const int error = errno;
    DRN_LOG(LogLevel::Error, kCategory)
        << "cannot give " << temporary << " the owner of " << path << ": " << std::strerror(error);
    Discard();
    throw std::ios_base::failure("AtomicFile cannot set its temporary file's owner");
  }
  mode = static_cast<int>(target.st_mode & 07777U);
  // Set-ID bits on a file of another owner or group would lend that owner's privileges to the
  // new content; so would those of a link's target, which whoever made the link chose.
  if ((!kept || link) && (mode & kSetIdBits) != 0) {
    mode &= ~kSetIdBits;
    DRN_LOG(LogLevel::Warning, kCategory)
        << "the set-user-ID and set-group-ID bits of " << path << " are not kept: "
        << (link ? "it is a symbolic link" : "its owner and group could not be");
  }
}

bool AtomicFile::Impl::Write(const char* data, std::size_t count) {
  const std::size_t written =
      WriteFully(data, count, OnInterrupt::Retry, [this](const char* next, std::size_t left) {
        const long result = linuxApi->write(fd, next, left);
        if (result == 0) {
          errno = EIO;  // a regular file that takes nothing cannot take the rest either
        }
        return result;
      });
  return written == count || Fail("write to " + temporary, errno, false);
}

bool AtomicFile::Impl::Replace() {
  // After the last write, which clears the set-ID bits of a file that an unprivileged caller
  // writes, and after fchown, which clears them for every caller.
  if (mode >= 0 && ::fchmod(fd, static_cast<mode_t>(mode)) != 0) {
    return Fail("setting the mode of " + temporary, errno, false);
  }
  if (linuxApi->fsync(fd) != 0) {
    return Fail("fsync of " + temporary, errno, false);
  }
  // Where the directory's journal does not carry the rename, two more steps, both needed on FAT
  // and exFAT. (1) FAT keeps a file's size and first cluster in its directory entry, which only
  // the file's own fsync writes, not the directory's: the file is synced again under its new
  // name, before the directory, so a cut in between leaves the new content under both names,
  // never under none. (2) A rename over the target drops the old content's last link; FAT and
  // exFAT free its clusters (FAT chain, exFAT bitmap) only when its inode is evicted, which is at
  // the rename unless someone holds it open. Freed that early, the allocation map may reach the
  // card before the rewritten entry, which then names free clusters that the next write takes.
  // So the old content is held open from before the rename until the directory's fsync has made
  // the new entry durable: at every moment the entry on the card names allocated clusters, old
  // or new. An exchange of the two names (renameat2) is not used: exFAT refuses it (EINVAL), and
  // a cut after it would leave the old content under the temporary name.
  const bool careful = !JournalsRenames(fd);
  // Linux releases the descriptor even when close fails: it is never closed twice.
  const int closed = linuxApi->close(std::exchange(fd, -1));
  if (closed != 0) {
    return Fail("close of " + temporary, errno, false);
  }
  if (careful && !Hold()) {
    return false;
  }
  if (linuxApi->rename(temporary.c_str(), path.c_str()) != 0) {
    return Fail("rename of " + temporary + " to " + path, errno, false);
  }
  renamed = true;
  if ((careful && !SyncByName(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC)) ||
      !SyncByName(directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    return false;
  }
  // Nothing was written through it: its close cannot lose anything, and it releases it anyway.
  if (held >= 0) {
    linuxApi->close(std::exchange(held, -1));
  }
  state = State::Committed;
  return true;
}

bool AtomicFile::Impl::Hold() {
  held = linuxApi->open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  return held >= 0 || errno == ENOENT || Fail("open of " + path, errno, false);
}

bool AtomicFile::Impl::SyncByName(const std::string& name, int flags) {
  const int syncFd = linuxApi->open(name.c_str(), flags);
  if (syncFd < 0) {
    return Fail("open of " + name, errno, true);
  }
  if (linuxApi->fsync(syncFd) != 0) {
    const int error = errno;
    linuxApi->close(syncFd);
    return Fail("fsync of " + name, error, true);
  }
  if (linuxApi->close(syncFd) != 0) {
    return Fail("close of " + name, errno, true);
  }
  return true;
}

bool AtomicFile::Impl::Fail(const std::string& step, int error, bool inPlace) {
  {
    DRN_LOG(LogLevel::Error, kCategory)
        << "replacing " << path << " failed on " << step << (error != 0 ? ": " : "")
        << (error != 0 ? std::strerror(error) : "")
        << (inPlace ? "; the new content is in place but its durability is not confirmed"
                    : "; it keeps its old content");
  }
  state = State::Failed;
  Discard();
  return false;
}

void AtomicFile::Impl::Discard() {
  for (int* open : {&fd, &held}) {
    if (*open >= 0) {
      linuxApi->close(std::exchange(*open, -1));
    }
  }
  if (!renamed && linuxApi->remove(temporary.c_str()) != 0) {
    DRN_LOG(LogLevel::Error, kCategory)
        << "cannot remove the temporary file " << temporary << ": " << std::strerror(errno);
  }
}

// The stream part is built before the buffer part, which is fine: it only stores the pointer.
AtomicFile::AtomicFile(const std::string& path, std::unique_ptr<LinuxApiIF> linuxApi,
                       std::uint32_t writeBufferSize)
    : std::ostream(this), impl(std::make_unique<Impl>(path, std::move(linuxApi))) {
  try {
    impl->writeBuffer.reserve(writeBufferSize);
  } catch (...) {
    // No destructor runs for an object whose construction fails.
    impl->Discard();
    throw;
  }
  char* const begin = impl->writeBuffer.data();
  setp(begin, begin + impl->writeBuffer.capacity());
}

AtomicFile::~AtomicFile() {
  if (impl->state == Impl::State::Open) {
    impl->Discard();
  }
}

bool AtomicFile::DoCommit() {
  Impl& state = *impl;
  if (state.state != Impl::State::Open) {
    DRN_LOG(LogLevel::Error, kCategory)
        << "nothing to commit for " << state.path << ": already committed, cancelled or failed";
    return false;
  }
  // A failed insertion (failbit only, such as a source buffer that gave nothing) lost output
  // as surely as a bad stream did.
  if (fail()) {
    setp(nullptr, nullptr);
    return state.Fail("output that went wrong earlier (the stream has failed)", 0, false);
  }
  const bool drained = Drain();
  setp(nullptr, nullptr);
  return drained && state.Replace();
}

void AtomicFile::DoCancel() {
  if (impl->state == Impl::State::Open) {
    impl->state = Impl::State::Cancelled;
    impl->Discard();
    setp(nullptr, nullptr);
  }
}

const std::string& AtomicFile::TemporaryPath() const noexcept {
  return impl->temporary;
}

bool AtomicFile::Drain() {
  char* const begin = pbase();
  if (impl->state == Impl::State::Open &&
      impl->Write(begin, static_cast<std::size_t>(pptr() - begin))) {
    setp(begin, epptr());
    return true;
  }
  setp(nullptr, nullptr);
  return false;
}

int AtomicFile::overflow(int c) {
  if (!Drain()) {
    return traits_type::eof();
  }
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    return traits_type::not_eof(c);
  }
  const char byte = traits_type::to_char_type(c);
  if (pbase() != epptr()) {
    *pptr() = byte;
    pbump(1);
    return c;
  }
  return impl->Write(&byte, 1) ? c : traits_type::eof();
}

std::streamsize AtomicFile::xsputn(const char* s, std::streamsize n) {
  if (n < 1 || impl->state != Impl::State::Open) {
    return 0;
  }
  const auto count = static_cast<std::size_t>(n);
  if (count > static_cast<std::size_t>(epptr() - pptr())) {
    if (!Drain()) {
      return 0;
    }
    // A block the whole buffer cannot hold goes straight to the file, without a copy.
    if (count >= impl->writeBuffer.capacity()) {
      if (impl->Write(s, count)) {
        return n;
      }
      setp(nullptr, nullptr);
      return 0;
    }
  }
  traits_type::copy(pptr(), s, count);
  AdvanceInSteps(n, [this](int step) { pbump(step); });
  return n;
}

int AtomicFile::sync() {
  return Drain() ? 0 : -1;
}

}  // namespace drn
