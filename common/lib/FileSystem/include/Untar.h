// Tar archives: the runner that starts tar as a child process, and listing and extraction.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FileSystemExport.h"
#include "PathIF.h"

namespace drn {

// Makes sure args begins with "tar" (inserted in front unless the first string is exactly "tar")
// and returns a pointer to each string's characters, in order, followed by a null pointer, as
// execvp takes them. The pointers are valid while args is neither changed nor destroyed.
DRN_EXPORT std::vector<char*> ConvertArgs(std::vector<std::string>& args);

// Closes readEnd, then writeEnd, always both, and never throws. Returns 0 when both closes
// succeed. Otherwise writes one record with errno and returns the second close's result when the
// first close failed, 0 when only the second one did.
DRN_EXPORT int ClosePipe(int readEnd, int writeEnd);

// Reads fd one byte per call until a read yields no byte (end of file, or any error such as
// EAGAIN on an empty non-blocking descriptor; nothing is retried) and returns every byte read,
// NUL bytes included. Never waits longer than a single read does.
DRN_EXPORT std::string ReadFD(int fd);

// Runs tar as a child process. Stateless; derive and override RunCmd to replace the child.
class DRN_EXPORT TarApi {
 public:
  virtual ~TarApi();

  // Runs "tar" with args (ConvertArgs puts "tar" in front of the caller's vector, unless the pipe
  // could not be made) and returns what the child wrote to standard output and standard error,
  // interleaved as written, with a status: 0, the child's exit status 1 to 255 (255 when tar
  // could not be started), or minus errno when no child could be started (output empty).
  // Waits for the child before it reads anything, so the output is bounded by the capacity of a
  // pipe: a child that writes more meets a full non-blocking pipe and the rest is lost.
  // Throws std::runtime_error when the wait fails or the child did not exit (killed by a signal).
  virtual std::pair<std::string, int> RunCmd(std::vector<std::string>& args);
};

// Lists and extracts one tar archive by running tar through a TarApi.
class DRN_EXPORT Untar {
 public:
  // Binds the archive; a null runner means a TarApi of its own. Throws std::runtime_error("Path
  // is not a file") after a record when the archive is null, missing or a directory.
  explicit Untar(std::shared_ptr<PathIF> archive, std::shared_ptr<TarApi> runner = nullptr);
  virtual ~Untar();
  // A moved-from Untar may only be destroyed or assigned to.
  Untar(Untar&& other) noexcept;
  Untar& operator=(Untar&& other) noexcept;
  Untar(const Untar&) = delete;
  Untar& operator=(const Untar&) = delete;

  // Extracts the archive into destination, an existing directory. Returns 0 on success, tar's
  // exit status when it failed, minus errno when no child could be started, or -1 after a record
  // (running nothing) when destination is null, missing or not a directory. Exceptions of the
  // runner pass through.
  int Extract(std::shared_ptr<PathIF> destination) { return DoExtract(std::move(destination)); }

  // The archive's member names in tar's order, without directories (names ending in '/') and
  // empty lines, otherwise unchanged. Empty, after a record, when the run fails.
  std::vector<std::string> FileList() { return DoFileList(); }

 protected:
  virtual int DoExtract(std::shared_ptr<PathIF> destination);
  virtual std::vector<std::string> DoFileList();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
