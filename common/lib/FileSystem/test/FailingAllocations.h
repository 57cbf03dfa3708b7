// Makes large enough allocations of the calling thread fail with std::bad_alloc while it lives,
// to drive code down its exception paths.
#pragma once

#include <cstddef>

namespace drn::testing {

class FailingAllocations {
 public:
  // Every operator new of at least bytes on this thread throws std::bad_alloc.
  explicit FailingAllocations(std::size_t bytes);
  ~FailingAllocations();
  FailingAllocations(const FailingAllocations&) = delete;
  FailingAllocations& operator=(const FailingAllocations&) = delete;
};

}  // namespace drn::testing
