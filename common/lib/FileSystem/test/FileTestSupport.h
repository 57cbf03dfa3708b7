// Shared by the File tests: opening on a path or in memory, and the shape of File's records.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
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
  File::Options options;
  options.readBufferSize = readBufferSize;
  options.writeBufferSize = writeBufferSize;
  options.openForRead = openForRead;
  options.openForWrite = openForWrite;
  return options;
}

inline File OpenPath(const std::string& path, File::Options options,
                     std::unique_ptr<LinuxApiIF> api = nullptr) {
  const Path text(path);
  options.path = &text;
  return File(options, std::move(api));
}

inline File OpenInMemory(File::Options options, std::unique_ptr<LinuxApiIF> api = nullptr) {
  options.inMemory = true;
  return File(options, std::move(api));
}

// What the file behind the File's descriptor holds now (in memory or on disk).
inline std::string Contents(File& file) {
  return ReadWholeFile("/proc/self/fd/" + std::to_string(file.GetFD()));
}

// n bytes whose period (251) never lines up with a buffer size; '\0' and '\n' included.
inline std::string Pattern(std::size_t n) {
  std::string bytes(n, '\0');
  for (std::size_t i = 0; i < n; ++i) {
    bytes[i] = static_cast<char>(i % 251);
  }
  return bytes;
}

// An action for a failing call: sets errno, returns result.
template <typename Result>
auto Fail(int error, Result result) {
  return [error, result](auto&&...) {
    errno = error;
    return result;
  };
}

inline std::string ErrorText(const char* prefix, int error) {
  return prefix + std::string(std::strerror(error));
}

// A record of File's source, in category 0x8010.
inline ::testing::Matcher<const LogRecord&> FileRecord(const std::string& function, LogLevel level,
                                                       const std::string& text) {
  return IsRecord("common/lib/FileSystem/src/File.cpp", function, level, LogCategory::FileSystem,
                  text);
}

}  // namespace drn::testing
