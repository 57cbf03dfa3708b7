// Small helpers around system calls shared by the library's sources: an owned descriptor and the
// one loop that retries a call interrupted by a signal.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace drn {

// Repeats call while it fails with EINTR; returns its last result, errno as that call left it.
template <typename Call>
auto RetryOnEintr(Call call) -> decltype(call()) {
  decltype(call()) result;
  do {
    result = call();
  } while (result < 0 && errno == EINTR);
  return result;
}

// Owns one descriptor. Close hands back close's result; the destructor closes without a word,
// for the paths that leave by an exception.
class Descriptor {
 public:
  explicit Descriptor(int fd = -1) : fd(fd) {}
  ~Descriptor() {
    if (fd >= 0) {
      ::close(fd);
    }
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;

  int Get() const { return fd; }
  void Reset(int other) {
    if (fd >= 0) {
      ::close(fd);
    }
    fd = other;
  }
  int Release() { return std::exchange(fd, -1); }
  int Close() { return ::close(Release()); }

 private:
  int fd;
};

}  // namespace drn
