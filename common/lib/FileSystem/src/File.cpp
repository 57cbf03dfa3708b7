// File: opening, the stream buffer over one descriptor, and the by-name helpers.
#include "File.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Log.h"

namespace drn {
namespace {

constexpr LogCategory kCategory = LogCategory::FileSystem;

}  // namespace

bool File::CreateFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT, 0644);
  if (fd >= 0) {
    ::close(fd);
    return true;
  }
  DRN_LOG(LogLevel::Error, kCategory)
      << "Could not open " << path << "(" << std::strerror(errno) << ")";
  return false;
}

bool File::RecreateFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd >= 0) {
    ::close(fd);
    return true;
  }
  DRN_LOG(LogLevel::Error, kCategory)
      << "Could not open " << path << "(" << std::strerror(errno) << ")";
  return false;
}

std::uint64_t File::GetFileSize(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    return 0;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

}  // namespace drn
