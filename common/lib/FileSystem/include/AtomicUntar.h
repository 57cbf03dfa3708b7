/// @file
/// AtomicUntar: installs a tar archive as a whole directory tree, so that a power cut at any
/// moment leaves the destination either the complete old tree or the complete new one.
#pragma once

#include <memory>
#include <string>

#include "FileSystemExport.h"
#include "LinuxApiIF.h"
#include "PathIF.h"
#include "Untar.h"

namespace drn {

class SystemCallWrapper;

/// Installs an update archive whole in place of a directory.
///
/// Install first refuses an archive that cannot fit: it sums the member sizes of a verbose
/// listing ("tar -tvf"), each rounded up to the file system's block size, plus one block per
/// member for its directory entry and metadata, and compares that with the space an unprivileged
/// writer may use on the destination's file system (statvfs f_bavail * f_frsize). Then it
/// extracts into a new directory beside the destination, ".NAME.install-XXXXXX" (same parent, so
/// the tree never crosses file systems), makes every extracted file and directory durable, syncs
/// the parent directory, and puts the new tree in the destination's place:
/// - where the file system can exchange two names (renameat2 RENAME_EXCHANGE: ext4, tmpfs, vfat
///   since Linux 6.0 and others), in one step; the old tree then has the install name;
/// - elsewhere (exFAT answers EINVAL), old NAME -> ".NAME.old-XXXXXX", parent sync, install
///   directory -> NAME, parent sync.
/// The parent is synced again and the old tree removed. Durability: one syncfs where the file
/// system's journal makes that enough (ext2/3/4, XFS, Btrfs, F2FS, tmpfs, told by fstatfs
/// magic); on FAT, exFAT and anything else, an fsync of each file and of each directory after
/// its entries.
///
/// After a cut, what is left beside NAME is recognised by name, and Recover (which every Install
/// runs first) tidies it: when NAME is missing and a ".NAME.old-*" exists (a cut between the two
/// renames), the old tree is renamed back to NAME and the parent synced; then every
/// ".NAME.install-*" and ".NAME.old-*" is removed. One Install or Recover per destination at a
/// time: each removes the other's directories.
///
/// System calls go through the LinuxApiIF (open, fsync, syncfs, close, rename, mkdir, opendir,
/// readdir, closedir, lstat, chmod, remove), the SystemCallWrapper (statfs, statvfs) and, for the
/// exchange, renameat2 itself; tar runs through the TarApi.
class DRN_EXPORT AtomicUntar {
 public:
  /// Binds the archive. Empty runner, linuxApi or systemCalls mean a StreamingTarApi, a LinuxApi
  /// and a SystemCallWrapper of its own.
  /// @throws std::runtime_error("Path is not a file") after a record when the archive is null,
  ///         missing or a directory (as Untar).
  explicit AtomicUntar(std::shared_ptr<PathIF> archive, std::shared_ptr<TarApi> runner = nullptr,
                       std::unique_ptr<LinuxApiIF> linuxApi = nullptr,
                       std::shared_ptr<SystemCallWrapper> systemCalls = nullptr);
  virtual ~AtomicUntar();
  /// A moved-from AtomicUntar may only be destroyed or assigned to.
  AtomicUntar(AtomicUntar&& other) noexcept;
  /// A moved-from AtomicUntar may only be destroyed or assigned to.
  AtomicUntar& operator=(AtomicUntar&& other) noexcept;
  AtomicUntar(const AtomicUntar&) = delete;
  AtomicUntar& operator=(const AtomicUntar&) = delete;

  /// Makes the archive's tree destination's whole content. destination need not exist; its
  /// parent must, and a destination that exists must be a directory.
  /// @return true when destination holds the new tree durably (a failure to remove the old tree
  ///         afterwards only writes a level-4 record; the next call removes it). false after a
  ///         level-3 record in category 0x8027 that names the step, with errno set: ENOSPC when
  ///         the archive does not fit (the record gives both numbers; nothing was written), EIO
  ///         when tar failed, otherwise the failed call's errno. Up to the swap destination keeps
  ///         its old tree and the install directory is removed; after it, the record says so.
  ///         Exceptions of the runner pass through, after the install directory is removed.
  bool Install(const std::string& destination) { return DoInstall(destination); }

  /// Tidies what a cut left beside destination (see the class comment).
  /// @return true when nothing is left; false after a level-3 record, errno set by the failed
  ///         call.
  bool Recover(const std::string& destination) { return DoRecover(destination); }

 protected:
  /// What Install does; see Install.
  virtual bool DoInstall(const std::string& destination);
  /// What Recover does; see Recover.
  virtual bool DoRecover(const std::string& destination);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
