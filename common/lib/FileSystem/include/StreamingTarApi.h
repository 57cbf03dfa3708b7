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

// Runs tar like TarApi, with the same arguments, statuses and records, but captures output of
// any size: the parent drains the pipe while the child runs and reaps the child only at end of
// file. Works when the calling program has descriptors 0 to 2 closed or ignores SIGCHLD. Choose
// it for real archives; TarApi loses what does not fit into one pipe and can wait forever.
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

  // As TarApi::RunCmd: the output of standard output and standard error interleaved as written,
  // with 0, tar's exit status (255 when tar could not be started) or minus errno when no child
  // could be started; std::runtime_error when the wait fails or the child did not exit. When the
  // time-out expires, tar is killed with SIGKILL and reaped, a record is written and
  // std::runtime_error("tar timed out") is thrown. No descriptor and no child is left behind.
  // While it runs, a SIGCHLD disposition of SIG_IGN (or SA_NOCLDWAIT) is set to the default,
  // process-wide, so that the child can be waited for; it is put back before RunCmd returns.
  std::pair<std::string, int> RunCmd(std::vector<std::string>& args) override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
