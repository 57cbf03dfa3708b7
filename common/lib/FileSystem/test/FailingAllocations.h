// Makes large enough allocations of the calling thread fail with std::bad_alloc while it lives,
// to drive code down its exception paths. Defines the program's replaceable operator new and
// delete (over malloc and free): include it in one source file of a program only.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace drn::testing {

// Allocations of this many bytes or more fail on this thread; the largest size means none.
inline thread_local std::size_t failingAllocationsFrom = std::numeric_limits<std::size_t>::max();

class FailingAllocations {
 public:
  // Every operator new of at least bytes on this thread throws std::bad_alloc.
  explicit FailingAllocations(std::size_t bytes) { failingAllocationsFrom = bytes; }
  ~FailingAllocations() { failingAllocationsFrom = std::numeric_limits<std::size_t>::max(); }
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;
};

}  // namespace drn::testing

// NOLINTBEGIN(cppcoreguidelines-no-malloc): the replaceable global allocation functions.
void* operator new(std::size_t bytes) {
  void* memory =
      bytes < drn::testing::failingAllocationsFrom ? std::malloc(bytes ? bytes : 1) : nullptr;
  if (memory == nullptr) {
    throw std::bad_alloc();
  }
  return memory;
}
// The array forms too: a sanitizer's own would neither fail nor pair with these.
void* operator new[](std::size_t bytes) {
  return operator new(bytes);
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
