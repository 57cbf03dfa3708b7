// The size of a directory tree and the usage of its file system: Directory against
// std::filesystem, nftw and one statfs call.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "Benchmarks.h"
#include "Directory.h"
#include "Path.h"
#include "SystemCallWrapper.h"
#include "Workspace.h"

namespace drn::bench {
namespace {

constexpr int kTopDirectories = 20;
constexpr int kSubdirectories = 24;  // in each top directory: 20 + 20 x 24 = 500 directories
constexpr int kFilesPerDirectory = 40;

struct Tree {
  std::string root;
  std::int64_t files = 0;
  std::uint64_t bytes = 0;
};

// Puts count files of 0 to 4095 bytes into directory; adds them to tree.
void AddFiles(const std::string& directory, int count, Tree& tree) {
  std::vector<char> content(4096);
  FillPattern(content.data(), content.size(), 3);
  for (int i = 0; i < count; ++i) {
    const std::size_t size = static_cast<std::size_t>(tree.files * 7919 % 4096);
    const std::string name = directory + "/file" + std::to_string(i) + ".dat";
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    const bool written = fd >= 0 && WriteAll(fd, content.data(), size);
    if (fd >= 0) {
      ::close(fd);
    }
    if (!written) {
      throw std::runtime_error("cannot write " + name);
    }
    ++tree.files;
    tree.bytes += size;
  }
}

void MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0755) != 0) {
    throw std::runtime_error("cannot make " + path);
  }
}

// 20,000 files in 500 directories, two levels deep.
const Tree& GetTree() {
  static const Tree tree = [] {
    Tree made;
    made.root = WorkspacePath("tree");
    MakeDirectory(made.root);
    for (int top = 0; top < kTopDirectories; ++top) {
      const std::string topPath = made.root + "/d" + std::to_string(top);
      MakeDirectory(topPath);
      AddFiles(topPath, kFilesPerDirectory, made);
      for (int sub = 0; sub < kSubdirectories; ++sub) {
        const std::string subPath = topPath + "/s" + std::to_string(sub);
        MakeDirectory(subPath);
        AddFiles(subPath, kFilesPerDirectory, made);
      }
    }
    return made;
  }();
  return tree;
}

void RunTreeSize(benchmark::State& state, const std::function<std::uint64_t(const Tree&)>& size) {
  const Tree& tree = GetTree();
  for (auto _ : state) {
    if (size(tree) != tree.bytes) {
      state.SkipWithError("the tree size is wrong");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * tree.files);
}

std::uint64_t DirectorySize(const Tree& tree) {
  Directory directory(std::make_shared<Path>(tree.root), nullptr);
  return directory.GetDirectorySize();
}

std::uint64_t FilesystemSize(const Tree& tree) {
  std::uint64_t sum = 0;
  std::error_code error;
  for (auto it = std::filesystem::recursive_directory_iterator(tree.root, error);
       it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
    if (it->is_regular_file(error)) {
      sum += it->file_size(error);
    }
  }
  return sum;
}

thread_local std::uint64_t nftwSum = 0;

int AddRegularFile(const char*, const struct stat* status, int type, FTW*) {
  if (type == FTW_F && S_ISREG(status->st_mode)) {
    nftwSum += static_cast<std::uint64_t>(status->st_size);
  }
  return 0;
}

std::uint64_t NftwSize(const Tree& tree) {
  nftwSum = 0;
  constexpr int kOpenDirectories = 16;
  if (::nftw(tree.root.c_str(), AddRegularFile, kOpenDirectories, FTW_PHYS) != 0) {
    return 0;
  }
  return nftwSum;
}

void RunUsage(benchmark::State& state, const std::function<std::uint64_t(Directory&)>& query) {
  Directory directory(std::make_shared<Path>(WorkspacePath()),
                      std::make_shared<SystemCallWrapper>());
  for (auto _ : state) {
    benchmark::DoNotOptimize(query(directory));
  }
  state.SetItemsProcessed(state.iterations());
}

void RegisterTreeSize(const char* name, std::uint64_t (*size)(const Tree&)) {
  benchmark::RegisterBenchmark(name, [size](benchmark::State& state) { RunTreeSize(state, size); })
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
}

void RegisterUsage(const char* name, std::uint64_t (*query)(Directory&)) {
  benchmark::RegisterBenchmark(name, [query](benchmark::State& state) { RunUsage(state, query); })
      ->Unit(benchmark::kMicrosecond)
      ->UseRealTime();
}

}  // namespace

void RegisterDirectoryBenchmarks() {
  RegisterTreeSize("DirectorySize/Directory", DirectorySize);
  RegisterTreeSize("DirectorySize/recursive_directory_iterator", FilesystemSize);
  RegisterTreeSize("DirectorySize/nftw", NftwSize);
  RegisterUsage("Usage/GetPercentageUsed", [](Directory& directory) -> std::uint64_t {
    return static_cast<std::uint64_t>(directory.GetPercentageUsed());
  });
  RegisterUsage("Usage/GetFileSystemUsedSize",
                [](Directory& directory) { return directory.GetFileSystemUsedSize(); });
  RegisterUsage("Usage/statfs", [](Directory&) -> std::uint64_t {
    static const std::string path = WorkspacePath();
    struct statfs stats {};
    ::statfs(path.c_str(), &stats);
    return stats.f_blocks - stats.f_bfree;
  });
}

}  // namespace drn::bench
