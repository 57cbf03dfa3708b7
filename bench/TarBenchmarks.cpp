// Listing tar archives: Untar with either runner against tar run by hand through popen.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "Benchmarks.h"
#include "Path.h"
#include "StreamingTarApi.h"
#include "Untar.h"
#include "Workspace.h"

namespace drn::bench {
namespace {

struct Archive {
  std::string path;
  std::size_t files = 0;
};

// text as one shell word.
std::string Quoted(const std::string& text) {
  std::string word = "'";
  for (const char c : text) {
    word += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return word + "'";
}

// An archive, made by the system's tar, of directories directories holding filesPerDirectory
// empty files each; its members are named name/dNNN/fileNNNN.
Archive MakeArchive(const std::string& name, int directories, int filesPerDirectory) {
  const std::string root = WorkspacePath(name);
  Archive archive{WorkspacePath(name + ".tar"), 0};
  if (::mkdir(root.c_str(), 0755) != 0) {
    throw std::runtime_error("cannot make " + root);
  }
  for (int d = 0; d < directories; ++d) {
    const std::string directory = root + "/d" + std::to_string(1000 + d).substr(1);
    if (::mkdir(directory.c_str(), 0755) != 0) {
      throw std::runtime_error("cannot make " + directory);
    }
    for (int f = 0; f < filesPerDirectory; ++f) {
      const std::string file = directory + "/file" + std::to_string(10000 + f).substr(1);
      const int fd = ::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      if (fd < 0) {
        throw std::runtime_error("cannot make " + file);
      }
      ::close(fd);
      ++archive.files;
    }
  }
  const std::string command =
      "tar -cf " + Quoted(archive.path) + " -C " + Quoted(WorkspacePath()) + " " + Quoted(name);
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("cannot run " + command);
  }
  return archive;
}

// 500 files in 20 directories: about 10 KB of listing, well within one pipe's capacity.
const Archive& SmallArchive() {
  static const Archive archive = MakeArchive("small", 20, 25);
  return archive;
}

// 50,001 entries: the top directory, 100 directories in it and 499 files in each of those.
const Archive& LargeArchive() {
  static const Archive archive = MakeArchive("large", 100, 499);
  return archive;
}

// 100,001 entries: the top directory, 200 directories in it and 499 files in each of those.
const Archive& HugeArchive() {
  static const Archive archive = MakeArchive("huge", 200, 499);
  return archive;
}

// 300 files in 12 directories: a listing as a device program makes it.
const Archive& ThreeHundredArchive() {
  static const Archive archive = MakeArchive("three_hundred", 12, 25);
  return archive;
}

// Memory the calling program holds while it lives: an anonymous mapping with every page
// touched, in small pages (as a heap grows), so that a fork has every page table to copy.
class Ballast {
 public:
  explicit Ballast(std::size_t bytes)
      : bytes(bytes),
        memory(bytes == 0 ? nullptr
                          : ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                                   MAP_PRIVATE | MAP_ANONYMOUS, -1, 0)) {
    if (memory != nullptr && memory != MAP_FAILED) {
      ::madvise(memory, bytes, MADV_NOHUGEPAGE);
      std::memset(memory, 1, bytes);
    }
  }
  ~Ballast() {
    if (memory != nullptr && memory != MAP_FAILED) {
      ::munmap(memory, bytes);
    }
  }
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;

  bool Held() const { return memory != MAP_FAILED; }

 private:
  std::size_t bytes;
  void* memory;
};

// What a caller without the library writes: popen "tar -tf", then the same splitting as Untar's
// listing (no empty lines, no directories).
std::vector<std::string> PopenList(const std::string& archive) {
  const std::string command = "tar -tf " + Quoted(archive);
  FILE* pipe = ::popen(command.c_str(), "r");
  if (pipe == nullptr) {
    return {};
  }
  std::string output;
  std::vector<char> buffer(kBlockSize);
  for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;) {
    output.append(buffer.data(), count);
  }
  if (::pclose(pipe) != 0) {
    return {};
  }
  std::vector<std::string> names;
  std::string_view rest(output);
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    if (!line.empty() && line.back() != '/') {
      names.emplace_back(line);
    }
    rest.remove_prefix(std::min(end + 1, rest.size()));
  }
  return names;
}

// The capacity of a new pipe: TarApi captures no more than that.
std::size_t PipeCapacity() {
  int fds[2];
  if (::pipe(fds) != 0) {
    return 0;
  }
  const int capacity = ::fcntl(fds[0], F_GETPIPE_SZ);
  ::close(fds[0]);
  ::close(fds[1]);
  return capacity > 0 ? static_cast<std::size_t>(capacity) : 0;
}

std::size_t ListingBytes(const std::vector<std::string>& names) {
  std::size_t bytes = 0;
  for (const std::string& name : names) {
    bytes += name.size() + 1;
  }
  return bytes;
}

enum class Lister { TarApiRunner, StreamingRunner, Popen };

// One Untar serves every iteration, as it would a program that lists the same archive again.
std::shared_ptr<Untar> MakeUntar(const std::string& archive, Lister lister) {
  std::shared_ptr<TarApi> runner;
  if (lister == Lister::StreamingRunner) {
    runner = std::make_shared<StreamingTarApi>();
  } else {
    runner = std::make_shared<TarApi>();
  }
  return std::make_shared<Untar>(std::make_shared<Path>(archive), runner);
}

void RunList(benchmark::State& state, const Archive& (*archive)(), Lister lister) {
  const Archive& made = archive();
  // TarApi reads no more than one pipe holds: its archive must fit, or it measures a failure.
  if (lister == Lister::TarApiRunner && ListingBytes(PopenList(made.path)) >= PipeCapacity()) {
    state.SkipWithError("the archive's listing does not fit into a pipe");
    return;
  }
  const std::shared_ptr<Untar> untar =
      lister == Lister::Popen ? nullptr : MakeUntar(made.path, lister);
  for (auto _ : state) {
    const std::vector<std::string> names = untar ? untar->FileList() : PopenList(made.path);
    if (names.size() != made.files) {
      state.SkipWithError("the listing is incomplete");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(made.files));
}

void RegisterList(const char* name, const Archive& (*archive)(), Lister lister) {
  benchmark::RegisterBenchmark(
      name, [archive, lister](benchmark::State& state) { RunList(state, archive, lister); })
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime();
}

// The same listing from a caller that holds resident bytes more than the benchmark itself.
void RunListFrom(benchmark::State& state, Lister lister, std::size_t resident) {
  const Ballast ballast(resident);
  if (!ballast.Held()) {
    state.SkipWithError("cannot hold the ballast");
    return;
  }
  RunList(state, ThreeHundredArchive, lister);
}

// Starting a child that runs a program and waiting for it: fork and exec, as the tar runners
// start tar, against posix_spawn, as popen starts its shell.
void RunStart(benchmark::State& state, bool spawn) {
  char program[] = "true";
  char* const argv[] = {program, nullptr};
  for (auto _ : state) {
    pid_t pid = -1;
    if (spawn) {
      if (::posix_spawnp(&pid, program, nullptr, nullptr, argv, environ) != 0) {
        pid = -1;
      }
    } else if ((pid = ::fork()) == 0) {
      ::execvp(program, argv);
      ::_exit(127);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || status != 0) {
      state.SkipWithError("the child did not run");
      break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}

#ifdef DRXFS_PATH
// drxfs tar extract of 64 MiB in 16 files, with its progress line forced on (written to
// /dev/null) or off: what the line costs an extraction.
void RunDrxfsExtract(benchmark::State& state, bool progress) {
  static const std::string archive = [] {
    const std::string root = WorkspacePath("progress");
    std::vector<char> data(std::size_t{4} << 20);
    ::mkdir(root.c_str(), 0755);
    for (int i = 0; i < 16; ++i) {
      FillPattern(data.data(), data.size(), static_cast<std::uint32_t>(i));
      const int fd = ::open((root + "/f" + std::to_string(i)).c_str(),
                            O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      if (fd < 0 || ::write(fd, data.data(), data.size()) != static_cast<ssize_t>(data.size())) {
        throw std::runtime_error("cannot write " + root);
      }
      ::close(fd);
    }
    const std::string path = WorkspacePath("progress.tar");
    const std::string make = "tar -cf " + Quoted(path) + " -C " + Quoted(root) + " .";
    if (std::system(make.c_str()) != 0) {
      throw std::runtime_error("cannot make " + path);
    }
    return path;
  }();
  const std::string destination = WorkspacePath(progress ? "with_progress" : "without_progress");
  const std::string clear = "rm -rf " + Quoted(destination) + " && mkdir " + Quoted(destination);
  std::vector<std::string> args = {DRXFS_PATH, "tar",
                                   "extract",  progress ? "--progress" : "--no-progress",
                                   archive,    destination};
  std::vector<char*> argv;
  for (std::string& arg : args) {
    argv.push_back(arg.data());
  }
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  for (auto _ : state) {
    state.PauseTiming();
    if (std::system(clear.c_str()) != 0) {
      state.SkipWithError("cannot clear the destination");
      break;
    }
    state.ResumeTiming();
    pid_t pid = -1;
    int status = 0;
    if (::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0 ||
        ::waitpid(pid, &status, 0) != pid || status != 0) {
      state.SkipWithError("drxfs failed");
      break;
    }
  }
  posix_spawn_file_actions_destroy(&actions);
  state.SetBytesProcessed(state.iterations() * (std::int64_t{64} << 20));
}
#endif

}  // namespace

void RegisterTarBenchmarks() {
  RegisterList("FileList/TarApi", SmallArchive, Lister::TarApiRunner);
  RegisterList("FileList/StreamingTarApi", SmallArchive, Lister::StreamingRunner);
  RegisterList("FileList/popen_tar", SmallArchive, Lister::Popen);
  RegisterList("FileList50k/StreamingTarApi", LargeArchive, Lister::StreamingRunner);
  RegisterList("FileList50k/popen_tar", LargeArchive, Lister::Popen);
  RegisterList("FileList100k/StreamingTarApi", HugeArchive, Lister::StreamingRunner);
  RegisterList("FileList100k/popen_tar", HugeArchive, Lister::Popen);
  constexpr std::size_t kGiB = std::size_t{1} << 30;
  for (const auto& [name, lister, resident] :
       {std::tuple("FileList300/TarApi", Lister::TarApiRunner, std::size_t{0}),
        std::tuple("FileList300/TarApi_1GiB_caller", Lister::TarApiRunner, kGiB),
        std::tuple("FileList300/StreamingTarApi", Lister::StreamingRunner, std::size_t{0}),
        std::tuple("FileList300/StreamingTarApi_1GiB_caller", Lister::StreamingRunner, kGiB)}) {
    benchmark::RegisterBenchmark(name,
                                 [lister = lister, resident = resident](benchmark::State& state) {
                                   RunListFrom(state, lister, resident);
                                 })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
#ifdef DRXFS_PATH
  for (const bool progress : {false, true}) {
    benchmark::RegisterBenchmark(
        progress ? "Extract/drxfs_progress" : "Extract/drxfs",
        [progress](benchmark::State& state) { RunDrxfsExtract(state, progress); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
#endif
  for (const bool spawn : {false, true}) {
    benchmark::RegisterBenchmark(spawn ? "Start/posix_spawn" : "Start/fork_exec",
                                 [spawn](benchmark::State& state) { RunStart(state, spawn); })
        ->Unit(benchmark::kMicrosecond)
        ->UseRealTime();
  }
}

}  // namespace drn::bench
