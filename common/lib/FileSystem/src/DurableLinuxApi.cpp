// DurableLinuxApi: LinuxApi with a per-file syncfs.
#include "DurableLinuxApi.h"

#include <unistd.h>

namespace drn {

struct DurableLinuxApi::Impl {};

DurableLinuxApi::DurableLinuxApi() : impl(std::make_unique<Impl>()) {}

DurableLinuxApi::~DurableLinuxApi() = default;

int DurableLinuxApi::DoSyncFs(int fd) {
  return ::fdatasync(fd);
}

}  // namespace drn
