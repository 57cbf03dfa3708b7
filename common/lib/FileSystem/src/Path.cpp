// Path: existence, directory and base-name queries over LinuxApiIF.
#include "Path.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

#include "LinuxApi.h"

namespace drn {

PathIF::~PathIF() = default;

struct Path::Impl {
  Impl(std::string_view text, std::unique_ptr<LinuxApiIF> api)
      : path(text), linuxApi(api ? std::move(api) : std::make_unique<LinuxApi>()) {}

  std::string path;
  std::unique_ptr<LinuxApiIF> linuxApi;
};

Path::Path(std::string_view path, std::unique_ptr<LinuxApiIF> linuxApi)
    : impl(std::make_unique<Impl>(path, std::move(linuxApi))) {}

Path::Path(Path&& other) noexcept = default;

Path::~Path() = default;

bool Path::DoExists() const {
  const int result = impl->linuxApi->access(impl->path.c_str(), F_OK);
  const int error = errno;
  errno = 0;
  if (result == 0) {
    return true;
  }
  // Only a missing entry counts as absent: EACCES, ELOOP and the like mean something is there.
  return error != ENOENT && error != ENOTDIR;
}

std::string Path::DoBasename() const {
  const std::string::size_type separator = impl->path.find_last_of("/\\");
  if (separator == std::string::npos) {
    return impl->path;
  }
  return impl->path.substr(separator + 1);
}

std::string_view Path::DoGetPath() const {
  return impl->path;
}

bool Path::DoIsDirectory() const {
  if (!Exists()) {
    return false;
  }
  DIR* dir = impl->linuxApi->opendir(impl->path.c_str());
  if (dir == nullptr) {
    return false;
  }
  impl->linuxApi->closedir(dir);
  return true;
}

}  // namespace drn
