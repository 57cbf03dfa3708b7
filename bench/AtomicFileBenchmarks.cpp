// Replacing a whole file durably: AtomicFile against the same steps written by hand.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "AtomicFile.h"
#include "Benchmarks.h"
#include "Workspace.h"

namespace drn::bench {
namespace {

constexpr int kRepetitions = 15;
constexpr double kMinSeconds = 0.5;

// Replaces the file at path with the size bytes at data; false when a step failed.
using Replacer = bool (*)(const std::string& path, const char* data, std::size_t size);

bool ReplaceWithAtomicFile(const std::string& path, const char* data, std::size_t size) {
  AtomicFile file(path);
  file.write(data, static_cast<std::streamsize>(size));
  return file.Commit();
}

// The limit: a temporary file written, fsynced, closed and renamed over path, then an fsync of
// the directory, with nothing else around it.
bool ReplaceByHand(const std::string& path, const char* data, std::size_t size) {
  const std::string temporary = WorkspacePath(".replace.tmp");
  const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
  if (fd < 0) {
    return false;
  }
  const bool written = WriteAll(fd, data, size) && ::fsync(fd) == 0;
  if (::close(fd) != 0 || !written || ::rename(temporary.c_str(), path.c_str()) != 0) {
    ::unlink(temporary.c_str());
    return false;
  }
  const int directory = ::open(WorkspacePath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  const bool synchronised = directory >= 0 && ::fsync(directory) == 0;
  return ::close(directory) == 0 && synchronised;
}

void RunReplace(benchmark::State& state, Replacer replace, std::size_t size) {
  const std::string path = WorkspacePath("replaced.bin");
  std::vector<char> content(size);
  FillPattern(content.data(), content.size(), 11);
  for (auto _ : state) {
    if (!replace(path, content.data(), content.size())) {
      state.SkipWithError("the replacement failed");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

}  // namespace

void RegisterAtomicFileBenchmarks() {
  for (const auto& [group, size] : {std::pair{"Replace4KiB", std::size_t{4} << 10},
                                    std::pair{"Replace1MiB", std::size_t{1} << 20}}) {
    for (const auto& [name, replace] :
         {std::pair{"AtomicFile", &ReplaceWithAtomicFile}, std::pair{"by_hand", &ReplaceByHand}}) {
      const std::string full = std::string(group) + "/" + name;
      benchmark::RegisterBenchmark(full.c_str(),
                                   [replace = replace, size = size](benchmark::State& state) {
                                     RunReplace(state, replace, size);
                                   })
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime()
          // Each iteration waits for the disk twice, and other writers on the same disk make
          // that wait vary a lot: more and longer repetitions than the others.
          ->Repetitions(kRepetitions)
          ->MinTime(kMinSeconds);
    }
  }
}

}  // namespace drn::bench
