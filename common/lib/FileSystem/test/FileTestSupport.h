// Shared by the File tests: buffer options, opening on a path or in memory, and test bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "File.h"
#include "LogMatchers.h"
#include "Path.h"
#include "TestHelpers.h"

namespace drn::testing {

inline File::Options Buffers(std::uint32_t readBufferSize, std::uint32_t writeBufferSize,
                             bool openForRead = true, bool openForWrite = true) {
  return {nullptr, false, writeBufferSize, readBufferSize, openForRead, openForWrite};
}

// Opens path, or a new in-memory file when path is empty.
inline File Open(const std::string& path, File::Options options,
                 std::unique_ptr<LinuxApiIF> api = nullptr) {
  const Path text(path);
  options.inMemory = path.empty();
  options.path = path.empty() ? nullptr : &text;
  return File(options, std::move(api));
}

// n bytes whose period (251) never lines up with a buffer size; '\0' and '\n' included.
inline std::string Pattern(std::size_t n) {
  std::string bytes(n, '\0');
  for (std::size_t i = 0; i < n; ++i) {
    bytes[i] = static_cast<char>(i % 251);
  }
  return bytes;
}

}  // namespace drn::testing
