// Checks that a system-call layer makes the C library call it is named after: the same call made
// directly and through the layer must give the same result and errno.
#pragma once

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdint>
#include <functional>
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

// A check to run on a layer.
template <typename Layer>
using SameCall = std::function<void(Layer&)>;

}  // namespace drn::testing

// A SameCall whose two sides are ::call and layer.call, written once so they cannot drift apart.
#define DRN_SAME_CALL(Layer, call)                                    \
  ::drn::testing::SameCall<Layer>([](Layer& layer) {                  \
    errno = 0;                                                        \
    const long expected = ::drn::testing::AsLong(::call);             \
    const int expectedErrno = errno;                                  \
    errno = 0;                                                        \
    EXPECT_EQ(::drn::testing::AsLong(layer.call), expected) << #call; \
    EXPECT_EQ(errno, expectedErrno) << #call;                         \
  })
