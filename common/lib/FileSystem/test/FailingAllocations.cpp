// The test program's replaceable operator new and delete, over malloc and free, failing on
// request for the calling thread.
#include "FailingAllocations.h"

#include <cstdlib>
#include <limits>
#include <new>

namespace {

// Allocations of this many bytes or more fail on this thread; the largest size means none.
thread_local std::size_t failFrom = std::numeric_limits<std::size_t>::max();

void* Allocate(std::size_t bytes) {
  if (bytes >= failFrom) {
    throw std::bad_alloc();
  }
  // NOLINTNEXTLINE(cppcoreguidelines-no-malloc): the replaceable operator new is built on it.
  void* memory = std::malloc(bytes == 0 ? 1 : bytes);
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}

}  // namespace

namespace drn::testing {

FailingAllocations::FailingAllocations(std::size_t bytes) {
  failFrom = bytes;
}
FailingAllocations::~FailingAllocations() {
  failFrom = std::numeric_limits<std::size_t>::max();
}

}  // namespace drn::testing

// NOLINTBEGIN(cppcoreguidelines-no-malloc): the replaceable global allocation functions.
void* operator new(std::size_t bytes) {
  return Allocate(bytes);
}
void* operator new[](std::size_t bytes) {
  return Allocate(bytes);
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
// NOLINTEND(cppcoreguidelines-no-malloc)
