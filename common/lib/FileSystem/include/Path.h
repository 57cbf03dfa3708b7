// Path: PathIF over the system-call interface.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "LinuxApiIF.h"
#include "PathIF.h"

namespace drn {

// An immutable path text. Queries reach the file system through the LinuxApiIF given to the
// constructor (a LinuxApi of its own when that is empty) and cache nothing. A moved-from Path
// may only be destroyed.
class DRN_EXPORT Path : public PathIF {
 public:
  // Keeps a copy of path; an empty linuxApi makes the Path use a LinuxApi of its own.
  explicit Path(std::string_view path, std::unique_ptr<LinuxApiIF> linuxApi = nullptr);
  // A moved-from Path may only be destroyed.
  Path(Path&& other) noexcept;
  ~Path() override;
  Path(const Path&) = delete;
  Path& operator=(const Path&) = delete;
  Path& operator=(Path&&) = delete;

 protected:
  bool DoExists() const override;
  std::string DoBasename() const override;
  std::string_view DoGetPath() const override;
  bool DoIsDirectory() const override;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};

}  // namespace drn
