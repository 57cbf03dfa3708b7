// The loops that the library's output stream buffers share.
#pragma once

#include <cerrno>
#include <cstddef>
#include <limits>

namespace drn {

// Whether a write that fails with EINTR is tried again.
enum class OnInterrupt { Fail, Retry };

// Hands the count bytes at data to writeOnce, which makes one write call and returns what it
// returned, until every byte is written: a short write goes on with the rest. Returns the number
// of bytes written; fewer than count when a call failed (errno as the call left it) or wrote
// nothing. With OnInterrupt::Retry an EINTR failure is tried again.
template <typename WriteOnce>
std::size_t WriteFully(const char* data, std::size_t count, OnInterrupt onInterrupt,
                       WriteOnce&& writeOnce) {
  std::size_t written = 0;
  while (written < count) {
    const long result = writeOnce(data + written, count - written);
    if (result > 0) {
      written += static_cast<std::size_t>(result);
    } else if (result == 0 || errno != EINTR || onInterrupt == OnInterrupt::Fail) {
      break;
    }
  }
  return written;
}

// Moves a put pointer forward by count characters through bump (a stream buffer's pbump, which
// only takes an int) in steps that fit an int.
template <typename Bump>
void AdvanceInSteps(std::ptrdiff_t count, Bump&& bump) {
  constexpr std::ptrdiff_t kStep = std::numeric_limits<int>::max();
  for (; count > kStep; count -= kStep) {
    bump(static_cast<int>(kStep));
  }
  bump(static_cast<int>(count));
}

}  // namespace drn
