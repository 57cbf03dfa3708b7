// Directory: creating and emptying a directory, the size of its tree, and how full the file
// system that holds it is.
#pragma once

#include <cstdint>
#include <memory>

#include "FileSystemExport.h"
#include "LinuxApiIF.h"
#include "PathIF.h"
#include "SystemCallWrapper.h"

namespace drn {

// One directory, named by a PathIF shared with the caller. Creating and emptying run shell
// commands through system(); the tree is read through the LinuxApiIF; the fill level comes from
// the shared SystemCallWrapper's statfs. A Directory holds no open resource between calls. One
// made without a path answers every operation with its failure value (false or 0) and runs
// nothing; one without a wrapper does the same for GetPercentageUsed. A moved-from Directory may
// only be destroyed.
class DRN_EXPORT Directory {
 public:
  // No path; its own LinuxApi and SystemCallWrapper.
  Directory();
  // Its own LinuxApi.
  Directory(std::shared_ptr<PathIF> path, std::shared_ptr<SystemCallWrapper> systemCallWrapper);
  // Takes over linuxApi; an empty one makes the Directory use a LinuxApi of its own.
  Directory(std::shared_ptr<PathIF> path, std::unique_ptr<LinuxApiIF> linuxApi,
            std::shared_ptr<SystemCallWrapper> systemCallWrapper);
  // A moved-from Directory may only be destroyed.
  Directory(Directory&& other) noexcept;
  virtual ~Directory();
  Directory(const Directory&) = delete;
  Directory& operator=(const Directory&) = delete;
  Directory& operator=(Directory&&) = delete;

  // Makes the directory with every missing parent ("mkdir -p"). An existing entry runs nothing:
  // true for a directory, false for anything else. Otherwise true exactly when the command
  // exits with 0. Path texts that the shell would interpret are quoted; a text that begins with
  // '-' or holds a NUL byte is refused (false, nothing runs). Writes no log record.
  bool CreateDirectory() { return DoCreateDirectory(); }

  // Removes everything in the directory that the shell pattern "*" matches, subdirectories with
  // their contents ("rm -r"); entries whose names begin with a dot stay, as does the directory.
  // false without running anything when the path is missing, no directory or refused as for
  // CreateDirectory; otherwise true exactly when the command exits with 0, which it does not when
  // nothing matches (an empty directory, or one with only dot-named entries). Writes no record.
  bool EmptyDirectory() { return DoEmptyDirectory(); }

  // The bytes in the regular files anywhere below the directory (their sizes as stat reports
  // them). Symbolic links, devices and the like are neither counted nor followed; a part of the
  // tree that cannot be read counts 0, as does the whole when the directory cannot be opened.
  // Writes no log record.
  std::uint64_t GetDirectorySize();

  // The bytes in use on the file system that holds the directory ((blocks - free blocks) x block
  // size; reserved blocks count as free). 0, with a log record, when statfs fails; 0 when the
  // statistics claim more free blocks than blocks. A negative block size ends the process.
  std::uint64_t GetFileSystemUsedSize();

  // That file system's fill level in whole percent, 0 to 100, scaled so that it reads 100 once
  // about 98 % of the blocks are in use (used / total x 102, truncated, capped at 100). 0, with a
  // log record, when the wrapper's statfs fails, the total size is 0 or the block size is
  // negative; 0 when the statistics claim more free blocks than blocks.
  int GetPercentageUsed();

 protected:
  virtual bool DoCreateDirectory();
  virtual bool DoEmptyDirectory();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
