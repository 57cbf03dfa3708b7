// The benchmarks' workspace: the temporary directory and the helpers that fill it.
#include "Workspace.h"

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include "TestHelpers.h"

namespace drn::bench {
namespace {

std::unique_ptr<testing::TempDir>& Directory() {
  static std::unique_ptr<testing::TempDir> directory;
  return directory;
}

}  // namespace

void OpenWorkspace() {
  Directory() = std::make_unique<testing::TempDir>();
}

void CloseWorkspace() {
  Directory().reset();
}

std::string WorkspacePath(const std::string& name) {
  if (!Directory()) {
    throw std::logic_error("the workspace is not open");
  }
  return name.empty() ? Directory()->Path() : *Directory() / name;
}

bool WriteAll(int fd, const char* data, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(fd, data, size);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    data += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

void FillPattern(char* data, std::size_t size, std::uint32_t seed) {
  std::uint32_t state = seed != 0 ? seed : 1;
  for (std::size_t i = 0; i < size; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    data[i] = static_cast<char>(state);
  }
}

}  // namespace drn::bench
