// Sequential reads and writes of a large file: File against the standard file streams and
// plain read(2) and write(2).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "Benchmarks.h"
#include "DurableLinuxApi.h"
#include "File.h"
#include "Path.h"
#include "Workspace.h"

namespace drn::bench {
namespace {

constexpr std::int64_t kReadBytes = std::int64_t{128} << 20;
constexpr std::int64_t kWriteBytes = std::int64_t{128} << 20;
// A syncfs after every block costs up to several milliseconds while other programs write to the
// same file system (2048 of them, for kWriteBytes, took 9.5 s on the reference machine), so the
// writers that synchronise that often write less.
constexpr std::int64_t kSyncedWriteBytes = std::int64_t{16} << 20;
constexpr std::int64_t kEndOfFile = std::char_traits<char>::eof();
constexpr const char* kDestroyCounter = "destroy_ms";

// Reads the whole file named by the second argument, handing it out through the 64 KiB buffer at
// the third, and returns the number of bytes read.
using Reader = std::function<std::int64_t(benchmark::State&, const std::string&, char*)>;
// Writes the 64 KiB block at the second argument to the empty file named by the first until the
// file holds the fourth argument's bytes; the third is a descriptor on the same file system for
// syncfs. false when a call failed.
using Writer = std::function<bool(const std::string&, const char*, int, std::int64_t)>;

// Where the page cache stands at the start of each timed read.
enum class Cache { Warm, Dropped };

// The file every read benchmark reads: kReadBytes of varied bytes, synchronised once, so that
// its pages are clean and can be dropped from the page cache.
const std::string& ReadFilePath() {
  static const std::string path = [] {
    std::string name = WorkspacePath("read.bin");
    const int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
      throw std::runtime_error("cannot create " + name);
    }
    std::vector<char> block(kBlockSize);
    bool written = true;
    for (std::int64_t offset = 0; written && offset < kReadBytes; offset += kBlockSize) {
      FillPattern(block.data(), block.size(), static_cast<std::uint32_t>(offset / kBlockSize + 1));
      written = WriteAll(fd, block.data(), block.size());
    }
    const bool synchronised = written && ::fdatasync(fd) == 0;
    ::close(fd);
    if (!synchronised) {
      throw std::runtime_error("cannot write " + name);
    }
    return name;
  }();
  return path;
}

// The number of the file's pages that are in the page cache.
std::int64_t ResidentPages(int fd, std::int64_t size) {
  void* const map = ::mmap(nullptr, static_cast<std::size_t>(size), PROT_READ, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) {
    return -1;
  }
  const auto pageSize = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  std::vector<unsigned char> pages((static_cast<std::size_t>(size) + pageSize - 1) / pageSize);
  std::int64_t resident = -1;
  if (::mincore(map, static_cast<std::size_t>(size), pages.data()) == 0) {
    resident = 0;
    for (const unsigned char page : pages) {
      resident += page & 1;
    }
  }
  ::munmap(map, static_cast<std::size_t>(size));
  return resident;
}

// Puts the whole file into the page cache (cache Warm) or takes all of it out (Dropped), and
// says whether that worked. DONTNEED drops clean pages only, hence the fdatasync first.
bool SetPageCache(const std::string& path, Cache cache, std::vector<char>& scratch) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  if (cache == Cache::Warm) {
    while (::read(fd, scratch.data(), scratch.size()) > 0) {
    }
  } else {
    ::fdatasync(fd);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  }
  const std::int64_t resident = ResidentPages(fd, kReadBytes);
  ::close(fd);
  const std::int64_t pages = kReadBytes / ::sysconf(_SC_PAGESIZE);
  return cache == Cache::Warm ? resident == pages : resident == 0;
}

void RunRead(benchmark::State& state, Cache cache, const Reader& reader) {
  const std::string& path = ReadFilePath();
  std::vector<char> out(kBlockSize);
  // A page once left the cache between the reading and the check: read again before giving up.
  constexpr int kWarmAttempts = 3;
  int attempt = 0;
  while (cache == Cache::Warm && !SetPageCache(path, cache, out)) {
    if (++attempt == kWarmAttempts) {
      state.SkipWithError("the file did not stay in the page cache");
      return;
    }
  }
  for (auto _ : state) {
    if (cache == Cache::Dropped) {
      state.PauseTiming();
      const bool dropped = SetPageCache(path, cache, out);
      state.ResumeTiming();
      if (!dropped) {
        state.SkipWithError("the file could not be dropped from the page cache");
        break;
      }
    }
    if (reader(state, path, out.data()) != kReadBytes) {
      state.SkipWithError("the file was not read whole");
      break;
    }
  }
  state.SetBytesProcessed(state.iterations() * kReadBytes);
  if (state.counters.count(kDestroyCounter) != 0) {
    state.counters[kDestroyCounter].flags = benchmark::Counter::kAvgIterations;
  }
}

File::Options ReadOptions(const PathIF& path) {
  File::Options options;
  options.path = &path;
  options.openForRead = true;
  options.readBufferSize = kBlockSize;
  return options;
}

// Reads stream to its end in blocks of kBlockSize; the bytes read.
std::int64_t ReadBlocks(std::istream& stream, char* out) {
  std::int64_t total = 0;
  do {
    stream.read(out, kBlockSize);
    total += stream.gcount();
    benchmark::ClobberMemory();
  } while (stream);
  return total;
}

// Reads stream to its end one character at a time; the characters read.
std::int64_t ReadCharacters(std::istream& stream) {
  std::int64_t total = 0;
  std::uint64_t sum = 0;
  for (std::int64_t c = stream.get(); c != kEndOfFile; c = stream.get()) {
    sum += static_cast<std::uint64_t>(c);
    ++total;
  }
  benchmark::DoNotOptimize(sum);
  return total;
}

// Also reports what the File's destruction took (counter destroy_ms, per iteration).
std::int64_t FileRead(benchmark::State& state, const std::string& path, char* out) {
  const Path name(path);
  std::optional<File> file(std::in_place, ReadOptions(name));
  const std::int64_t total = ReadBlocks(*file, out);
  const auto start = std::chrono::steady_clock::now();
  file.reset();
  const std::chrono::duration<double, std::milli> destruction =
      std::chrono::steady_clock::now() - start;
  state.counters[kDestroyCounter].value += destruction.count();
  return total;
}

// As FileRead, but the clock stops at the end of the file: the File's destruction, whose flush
// ends with a syncfs also when nothing was written, is left out.
std::int64_t FileReadUntilEnd(benchmark::State& state, const std::string& path, char* out) {
  const Path name(path);
  std::optional<File> file(std::in_place, ReadOptions(name));
  const std::int64_t total = ReadBlocks(*file, out);
  state.PauseTiming();
  file.reset();
  state.ResumeTiming();
  return total;
}

std::int64_t FileGet(benchmark::State&, const std::string& path, char*) {
  const Path name(path);
  File file(ReadOptions(name));
  return ReadCharacters(file);
}

// A standard input stream over path with a 64 KiB buffer of its own.
struct BufferedInput {
  explicit BufferedInput(const std::string& path) : buffer(kBlockSize) {
    stream.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    stream.open(path, std::ios::binary);
  }
  std::vector<char> buffer;
  std::ifstream stream;
};

std::int64_t StreamRead(benchmark::State&, const std::string& path, char* out) {
  BufferedInput input(path);
  return ReadBlocks(input.stream, out);
}

std::int64_t StreamGet(benchmark::State&, const std::string& path, char*) {
  BufferedInput input(path);
  return ReadCharacters(input.stream);
}

std::int64_t SystemRead(benchmark::State&, const std::string& path, char* out) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::int64_t total = 0;
  for (ssize_t count = 0; (count = ::read(fd, out, kBlockSize)) > 0;) {
    total += count;
    benchmark::ClobberMemory();
  }
  ::close(fd);
  return total;
}

// What a stream that reads into its own buffer and copies out cannot beat.
std::int64_t SystemReadAndCopy(benchmark::State&, const std::string& path, char* out) {
  std::vector<char> staging(kBlockSize);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::int64_t total = 0;
  for (ssize_t count = 0; (count = ::read(fd, staging.data(), kBlockSize)) > 0;) {
    std::memcpy(out, staging.data(), static_cast<std::size_t>(count));
    total += count;
    benchmark::ClobberMemory();
  }
  ::close(fd);
  return total;
}

// Each iteration starts on an empty file whose truncation the file system has already committed.
void RunWrite(benchmark::State& state, const Writer& writer, std::int64_t bytes) {
  const std::string path = WorkspacePath("write.bin");
  std::vector<char> block(kBlockSize);
  FillPattern(block.data(), block.size(), 7);
  const int directory = ::open(WorkspacePath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (auto _ : state) {
    state.PauseTiming();
    const bool emptied = File::RecreateFile(path) && ::syncfs(directory) == 0;
    state.ResumeTiming();
    if (!emptied) {
      state.SkipWithError("the output file could not be emptied");
      break;
    }
    const bool written = writer(path, block.data(), directory, bytes);
    state.PauseTiming();
    const bool whole = written && static_cast<std::int64_t>(File::GetFileSize(path)) == bytes;
    state.ResumeTiming();
    if (!whole) {
      state.SkipWithError("the file was not written whole");
      break;
    }
  }
  ::close(directory);
  state.SetBytesProcessed(state.iterations() * bytes);
}

// Through a File with a 64 KiB put area on layer (null: the File's own LinuxApi).
bool FileWriteOn(std::unique_ptr<LinuxApiIF> layer, const std::string& path, const char* block,
                 std::int64_t bytes) {
  const Path name(path);
  File::Options options;
  options.path = &name;
  options.openForWrite = true;
  options.writeBufferSize = kBlockSize;
  File file(options, std::move(layer));
  for (std::int64_t offset = 0; file && offset < bytes; offset += kBlockSize) {
    file.write(block, kBlockSize);
  }
  return static_cast<bool>(file);
}

bool FileWrite(const std::string& path, const char* block, int, std::int64_t bytes) {
  return FileWriteOn(nullptr, path, block, bytes);
}

bool DurableFileWrite(const std::string& path, const char* block, int, std::int64_t bytes) {
  return FileWriteOn(std::make_unique<DurableLinuxApi>(), path, block, bytes);
}

// What the durable layer is held to: write(2) of each block, then fdatasync(2) of the file.
bool SystemWriteDatasyncEachBlock(const std::string& path, const char* block, int,
                                  std::int64_t bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  bool written = fd >= 0;
  for (std::int64_t offset = 0; written && offset < bytes; offset += kBlockSize) {
    written = WriteAll(fd, block, kBlockSize) && ::fdatasync(fd) == 0;
  }
  return ::close(fd) == 0 && written;
}

// A standard output stream over path (truncated) with a 64 KiB buffer of its own.
struct BufferedOutput {
  explicit BufferedOutput(const std::string& path) : buffer(kBlockSize) {
    stream.rdbuf()->pubsetbuf(buffer.data(), static_cast<std::streamsize>(buffer.size()));
    stream.open(path, std::ios::binary | std::ios::trunc);
  }
  std::vector<char> buffer;
  std::ofstream stream;
};

bool StreamWriteSyncEachBlock(const std::string& path, const char* block, int directory,
                              std::int64_t bytes) {
  BufferedOutput output(path);
  bool synchronised = true;
  for (std::int64_t offset = 0; output.stream && offset < bytes; offset += kBlockSize) {
    output.stream.write(block, kBlockSize);
    output.stream.flush();
    synchronised = ::syncfs(directory) == 0 && synchronised;
  }
  output.stream.close();
  return synchronised && !output.stream.fail();
}

bool StreamWriteSyncAtEnd(const std::string& path, const char* block, int directory,
                          std::int64_t bytes) {
  BufferedOutput output(path);
  for (std::int64_t offset = 0; output.stream && offset < bytes; offset += kBlockSize) {
    output.stream.write(block, kBlockSize);
  }
  output.stream.close();
  return !output.stream.fail() && ::syncfs(directory) == 0;
}

bool SystemWriteSyncAtEnd(const std::string& path, const char* block, int directory,
                          std::int64_t bytes) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC);
  bool written = fd >= 0;
  for (std::int64_t offset = 0; written && offset < bytes; offset += kBlockSize) {
    written = WriteAll(fd, block, kBlockSize);
  }
  written = ::close(fd) == 0 && written;
  return written && ::syncfs(directory) == 0;
}

template <typename Run>
benchmark::internal::Benchmark* Register(const std::string& name, Run run) {
  return benchmark::RegisterBenchmark(name.c_str(), run)
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
}

benchmark::internal::Benchmark* RegisterRead(const std::string& name, Cache cache,
                                             const Reader& reader) {
  return Register(name,
                  [cache, reader](benchmark::State& state) { RunRead(state, cache, reader); });
}

void RegisterWrite(const std::string& name, const Writer& writer, std::int64_t bytes) {
  Register(name, [writer, bytes](benchmark::State& state) { RunWrite(state, writer, bytes); });
}

// What one syncfs costs when this process has nothing to write: a File pays it at every flush
// and at its destruction, also when it only read.
void SyncWithNothingPending(benchmark::State& state) {
  const int directory = ::open(WorkspacePath().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (auto _ : state) {
    if (::syncfs(directory) != 0) {
      state.SkipWithError("syncfs failed");
      break;
    }
  }
  ::close(directory);
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

void RegisterFileBenchmarks() {
  for (const auto& [group, cache] :
       {std::pair{"ReadCached", Cache::Warm}, std::pair{"ReadDropped", Cache::Dropped}}) {
    const std::string prefix = std::string(group) + "/";
    RegisterRead(prefix + "File_read", cache, FileRead);
    RegisterRead(prefix + "File_read_until_end", cache, FileReadUntilEnd);
    RegisterRead(prefix + "ifstream_read", cache, StreamRead);
    RegisterRead(prefix + "read2", cache, SystemRead);
    RegisterRead(prefix + "read2_copy", cache, SystemReadAndCopy);
    // One character per call takes about a second for the whole file: fewer repetitions.
    RegisterRead(prefix + "File_get", cache, FileGet)->Repetitions(3);
    RegisterRead(prefix + "ifstream_get", cache, StreamGet)->Repetitions(3);
  }
  RegisterWrite("Write/File", FileWrite, kSyncedWriteBytes);
  RegisterWrite("Write/ofstream_syncfs_each_64KiB", StreamWriteSyncEachBlock, kSyncedWriteBytes);
  RegisterWrite("Write/ofstream_syncfs_at_end", StreamWriteSyncAtEnd, kWriteBytes);
  RegisterWrite("Write/write2_syncfs_at_end", SystemWriteSyncAtEnd, kWriteBytes);
  // 128 MiB each in 64 KiB flushes: File on its own layer, on the durable one, and the loop the
  // durable one is held to.
  RegisterWrite("DurableWrite/File", FileWrite, kWriteBytes);
  RegisterWrite("DurableWrite/File_DurableLinuxApi", DurableFileWrite, kWriteBytes);
  RegisterWrite("DurableWrite/write2_fdatasync_each_64KiB", SystemWriteDatasyncEachBlock,
                kWriteBytes);
  Register("Sync/syncfs_nothing_pending", SyncWithNothingPending);
}

}  // namespace drn::bench
