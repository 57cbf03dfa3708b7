// Checks that a system-call layer makes the C library call it is named after: the same call made
// directly and through the layer must give the same result and errno.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <ostream>
#include <type_traits>

namespace drn::testing {

template <typename Result>
long AsLong(Result result) {
  if constexpr (std::is_pointer_v<Result>) {
    return static_cast<long>(reinterpret_cast<std::intptr_t>(result));
  } else {
    return static_cast<long>(result);
  }
}

template <typename Layer>
struct SameCall {
  const char* name;
  std::function<long()> direct;
  std::function<long(Layer&)> layered;
};

template <typename Layer>
void PrintTo(const SameCall<Layer>& value, std::ostream* os) {
  *os << value.name;
}

template <typename Layer>
void ExpectSameCall(const SameCall<Layer>& call, Layer& layer) {
  errno = 0;
  const long expected = call.direct();
  const int expectedErrno = errno;
  errno = 0;
  EXPECT_EQ(call.layered(layer), expected) << call.name;
  EXPECT_EQ(errno, expectedErrno) << call.name;
}

}  // namespace drn::testing

// A SameCall whose two sides are ::call and layer.call, written once so they cannot drift apart.
#define DRN_SAME_CALL(Layer, call)                                     \
  ::drn::testing::SameCall<Layer> {                                    \
#call, [] { return ::drn::testing::AsLong(::call); },                \
        [](Layer& layer) { return ::drn::testing::AsLong(layer.call); } \
  }
