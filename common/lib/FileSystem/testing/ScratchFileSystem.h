// A small real file system for a test: a tmpfs with a size or inode limit, or an ext4 image on a
// loop device, mounted inside the test's temporary directory and unmounted on destruction.
#pragma once

#include <sys/mount.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

namespace drn::testing {

class ScratchFileSystem {
 public:
  // Mounts a tmpfs with options such as "size=64k" or "nr_inodes=8" on mountPoint (created).
  ScratchFileSystem(std::string mountPoint, const std::string& tmpfsOptions)
      : mountPoint(std::move(mountPoint)) {
    std::filesystem::create_directories(this->mountPoint);
    if (::mount("tmpfs", this->mountPoint.c_str(), "tmpfs", 0, tmpfsOptions.c_str()) != 0) {
      failure = "cannot mount a tmpfs here: " + std::string(std::strerror(errno));
    }
  }

  // Makes an ext4 file system of sizeKiB in the file image and mounts it on mountPoint (created)
  // through a loop device, which goes away with the mount.
  ScratchFileSystem(std::string mountPoint, const std::string& image, unsigned sizeKiB)
      : mountPoint(std::move(mountPoint)) {
    std::filesystem::create_directories(this->mountPoint);
    std::ofstream(image, std::ios::binary).close();
    std::filesystem::resize_file(image, std::uintmax_t{sizeKiB} * 1024);
    const std::string make = "mkfs.ext4 -q -F '" + image + "' >/dev/null 2>&1";
    const std::string mount =
        "mount -o loop '" + image + "' '" + this->mountPoint + "' >/dev/null 2>&1";
    if (std::system(make.c_str()) != 0) {
      failure = "cannot make an ext4 image (mkfs.ext4 from e2fsprogs)";
    } else if (std::system(mount.c_str()) != 0) {
      failure = "cannot mount an ext4 image on a loop device here";
    }
  }

  ~ScratchFileSystem() {
    if (failure.empty() && ::umount2(mountPoint.c_str(), 0) != 0) {
      ::umount2(mountPoint.c_str(), MNT_DETACH);
    }
  }
  ScratchFileSystem(const ScratchFileSystem&) = delete;
  ScratchFileSystem& operator=(const ScratchFileSystem&) = delete;

  // Empty when mounted; otherwise why not, for a test's skip message.
  const std::string& Failure() const { return failure; }
  std::string operator/(const std::string& name) const { return mountPoint + "/" + name; }
  const std::string& MountPoint() const { return mountPoint; }

 private:
  std::string mountPoint;
  std::string failure;
};

}  // namespace drn::testing
