/// @file
/// AtomicFile: an output stream that replaces the whole content of one file, so that a power cut
/// leaves either the old content or the new, never a mix.
#pragma once

#include <cstdint>
#include <ios>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include "FileSystemExport.h"
#include "LinuxApiIF.h"

namespace drn {

/// An output stream that replaces a file's whole content atomically and durably.
///
/// The stream writes into a new temporary file beside the target (same directory, so that the
/// rename stays on one file system), named ".NAME.XXXXXX" and created exclusively, never through
/// a symbolic link. Commit flushes the stream, fsyncs the temporary file, closes it, renames it
/// over the target and fsyncs the directory, so that the new name itself survives a power cut.
/// Where the file system does not journal its directories (anything but ext4, XFS and Btrfs:
/// FAT and exFAT among them), Commit also holds the old content open (O_PATH) from before the
/// rename until after the directory's fsync, so that its clusters are not freed before the new
/// entry is durable, and fsyncs the file under its new name before the directory (FAT keeps a
/// file's size and first cluster in its directory entry, which only the file's own fsync writes).
/// Readers that open the target at any time see either its complete old content or the complete
/// new content. Without a successful Commit the target is never touched.
///
/// The first failure is final: nothing is retried (after a failed fsync Linux forgets the error
/// once it has reported it), the temporary file is removed, the target keeps its old content, a
/// level-3 record in category 0x8010 names the failed step and the error, and the stream goes
/// bad. An existing target's owner and group are carried over to the new content where the
/// caller may give them (root may; others keep at least a group they belong to), and so are its
/// permission bits, set-user-ID and set-group-ID included only when both owner and group were
/// kept. Both are set through the temporary file's descriptor: the owner when it is created, the
/// bits at Commit after the last write; until then only its owner may open it. A new target gets
/// 0644 less the umask. Extended attributes and ACLs are not carried over. A
/// symbolic link at the target is replaced by a regular file with its target's owner and bits
/// but never the set-ID ones (the link's own target is left alone). Dropped set-ID bits are
/// told in a level-4 record.
///
/// Every system call goes through the LinuxApiIF, so that a substitute can fail any step. The
/// stream is its own stream buffer, like File; it is used by one thread at a time.
class DRN_EXPORT AtomicFile : public std::ostream, private std::basic_streambuf<char> {
 public:
  /// Starts replacing path by creating the temporary file in path's directory.
  /// @param path the file to replace; it need not exist, its directory must.
  /// @param linuxApi the system-call layer; an empty one means a LinuxApi of its own.
  /// @param writeBufferSize the stream's buffer in bytes; 0 writes every character at once.
  /// @throws std::invalid_argument when path is empty, names a directory (or ends in '/'), or
  ///         names something other than a regular file (a device, a pipe, a socket).
  /// @throws std::ios_base::failure when path cannot be examined, the temporary file cannot
  ///         be created (for example a missing directory, no write permission, a read-only file
  ///         system), or it cannot be given the target's owner for a reason other than the
  ///         caller's lack of permission. Each throw follows a level-3 record.
  explicit AtomicFile(const std::string& path, std::unique_ptr<LinuxApiIF> linuxApi = nullptr,
                      std::uint32_t writeBufferSize = 64 * 1024);

  /// Without a successful Commit (and without Cancel), removes the temporary file; path is left
  /// untouched. Throws nothing.
  ~AtomicFile() override;

  /// Not copyable.
  AtomicFile(const AtomicFile&) = delete;
  /// Not copyable.
  AtomicFile& operator=(const AtomicFile&) = delete;
  /// Not movable: the stream and its buffer are one object.
  AtomicFile(AtomicFile&&) = delete;
  /// Not movable: the stream and its buffer are one object.
  AtomicFile& operator=(AtomicFile&&) = delete;

  /// The stream's locale (both bases declare getloc; this is the stream's).
  using std::basic_ios<char>::getloc;
  /// Sets the stream's locale (both bases declare imbue; this is the stream's).
  using std::basic_ios<char>::imbue;
  /// The stream's character type.
  using std::ostream::char_type;
  /// The stream's integer type for characters and end of file.
  using std::ostream::int_type;
  /// The stream's offset type.
  using std::ostream::off_type;
  /// The stream's position type.
  using std::ostream::pos_type;
  /// The stream's character traits.
  using std::ostream::traits_type;

  /// Makes the bytes written so far path's whole content, durably.
  /// @return true only when every step succeeded: the output was written, the temporary file
  ///         fsynced, closed and renamed over path, (not on ext4) path fsynced, and path's
  ///         directory fsynced. false on any failure (with a level-3 record that names the step and
  ///         the error), after a stream write that failed earlier, on a failed stream (failbit
  ///         too: an insertion of a source buffer that gave nothing sets only that), and on every
  ///         call after the first Commit or a Cancel. When the rename succeeded and only a later
  ///         fsync (or its open or close) failed, the new content is in place but its durability
  ///         is not confirmed; the record says so. Otherwise path keeps its old content.
  ///         Output after Commit fails (badbit).
  bool Commit() { return DoCommit(); }

  /// Gives the replacement up: removes the temporary file and leaves path untouched. Later
  /// output fails (badbit) and a later Commit returns false. Does nothing after Commit or a
  /// first Cancel.
  void Cancel() { DoCancel(); }

  /// The temporary file's path: ".NAME.XXXXXX" in path's directory (relative when path is),
  /// fixed at construction, so that another thread may read it at any time. Until Commit renames
  /// it, or a failure or Cancel removes it, the file of that name is this replacement's.
  const std::string& TemporaryPath() const noexcept;

 protected:
  /// What Commit does; see Commit.
  virtual bool DoCommit();
  /// What Cancel does; see Cancel.
  virtual void DoCancel();

  /// Writes the full buffer out and stores c; EOF on failure (the replacement is given up).
  int overflow(int c) override;
  /// Buffers or writes the n characters at s; 0 on failure (the replacement is given up).
  std::streamsize xsputn(const char* s, std::streamsize n) override;
  /// Writes the buffer out to the temporary file (no fsync: durability comes with Commit).
  /// 0, or -1 when writing failed or the replacement is over.
  int sync() override;

 private:
  struct Impl;

  // Writes the put area to the temporary file and empties it; on failure (or when the
  // replacement is over) leaves no put area, so that later output reaches overflow and fails.
  bool Drain();

  std::unique_ptr<Impl> impl;
};

}  // namespace drn
