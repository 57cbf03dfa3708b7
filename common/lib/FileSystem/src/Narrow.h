// Checked integer conversion for values whose loss would break a contract.
#pragma once

#include <gsl/narrow>

namespace drn {

// value converted to To. A value that To cannot hold unchanged (sign included) ends the process
// through std::terminate: the narrowing error cannot leave this noexcept function.
template <typename To, typename From>
// NOLINTNEXTLINE(bugprone-exception-escape): the escape is what ends the process.
To NarrowOrTerminate(From value) noexcept {
  return gsl::narrow<To>(value);
}

}  // namespace drn
