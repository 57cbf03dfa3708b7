// StreamingTarApi: a tar runner that reads the child's output while it runs, with a time-out.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "FileSystemExport.h"
#include "Untar.h"

namespace drn {

// Runs tar like TarApi, with the same arguments and statuses, but captures output of any size:
// the parent drains the pipes while tar runs. tar's standard error is kept apart from its output.
// tar runs under a private intermediate process that shares the caller's memory, so starting it
// costs the same whatever the caller's size, and that the kernel keeps for RunCmd to wait for
// whatever the caller's SIGCHLD disposition; RunCmd changes nothing process-wide (no signal
// disposition) and never waits for the caller's other children. tar is killed when the calling
// thread or the program dies, and at the time-out whatever copies of the runner's descriptors other
// processes (a worker forked without exec) hold. Works when the calling program has descriptors 0
// to 2 closed. Choose it for real archives; TarApi loses what does not fit into one pipe and can
// wait forever.
class DRN_EXPORT StreamingTarApi : public TarApi {
 public:
  // No time-out: RunCmd waits as long as tar runs.
  StreamingTarApi();
  // RunCmd gives tar at most timeout from start to exit. Throws std::invalid_argument when
  // timeout is not positive.
  explicit StreamingTarApi(std::chrono::milliseconds timeout);
  ~StreamingTarApi() override;
  // A moved-from StreamingTarApi may only be destroyed or assigned to.
  StreamingTarApi(StreamingTarApi&& other) noexcept;
  StreamingTarApi& operator=(StreamingTarApi&& other) noexcept;
  StreamingTarApi(const StreamingTarApi&) = delete;
  StreamingTarApi& operator=(const StreamingTarApi&) = delete;

  // As TarApi::RunCmd, with 0, tar's exit status (255 when tar could not be executed) or minus
  // errno when no process for tar could be made; std::runtime_error when the wait fails or tar
  // did not exit. On success the output is tar's standard output alone, and what tar wrote on
  // standard error is logged at level 4 ("tar wrote on standard error: "); on failure standard
  // error follows standard output, in the result and in the record. A failed step of the start
  // is recorded as "CALL failed for tar ARGS: " and its strerror text (socketpair, clone, read;
  // execvp or dup3 for a tar that could not be executed, instead of "tar returned 255"). When the
  // time-out expires, tar is killed with SIGKILL and reaped, a record is written and
  // std::runtime_error("tar timed out") is thrown. No descriptor and no child is left behind.
  // The record of a failed run carries at most the first and the last 2 KiB of the output, with
  // the number of bytes left out between them; the returned output is whole. Blocks every
  // signal of the calling thread for the moment it takes to start tar. Pass archive names that
  // tar cannot take for options, a remote host (a ':') or standard input ("-"): absolute, or
  // relative beginning with "./".
  std::pair<std::string, int> RunCmd(std::vector<std::string>& args) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
