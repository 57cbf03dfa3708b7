// The interposing definitions and the shared state behind FaultInjector.h.
#include "FaultInjector.h"

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

// Marks the code that may run in the tar runner's children (see Intercept).
#define DRX_CHILD_SAFE __attribute__((no_sanitize("address", "undefined")))

namespace drn::faults {
namespace {

constexpr std::size_t kTraceCapacity = 16384;

// Shared with forked children, so their calls are counted and can be failed too.
struct State {
  std::atomic<long> counts[kFunctionCount];
  std::atomic<int> armedFunction;
  std::atomic<long> armedCall;
  std::atomic<int> armedError;
  std::atomic<bool> fired;
  std::atomic<bool> recording;
  std::atomic<int> phase;
  std::atomic<std::size_t> traceLength;
  Call trace[kTraceCapacity];
};

// Set once this process has begun to exit: what runs then (a coverage run's counter dump, which
// is linked into the library too) is not the library's work.
bool exiting = false;

State& Shared() {
  static State* const state = [] {
    void* memory =
        ::mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
      std::abort();
    }
    std::atexit([] { exiting = true; });
    return new (memory) State{};
  }();
  return *state;
}

// The address range of libdrx_FileSystem's loaded segments.
struct Range {
  std::uintptr_t begin = 0;
  std::uintptr_t end = 0;
};

Range LibraryRange() {
  static const Range range = [] {
    Range found;
    ::dl_iterate_phdr(
        [](dl_phdr_info* info, std::size_t, void* data) {
          if (info->dlpi_name == nullptr ||
              std::strstr(info->dlpi_name, "libdrx_FileSystem.so") == nullptr) {
            return 0;
          }
          auto* result = static_cast<Range*>(data);
          for (int i = 0; i < info->dlpi_phnum; ++i) {
            const ElfW(Phdr)& segment = info->dlpi_phdr[i];
            if (segment.p_type != PT_LOAD) {
              continue;
            }
            const std::uintptr_t begin = info->dlpi_addr + segment.p_vaddr;
            const std::uintptr_t end = begin + segment.p_memsz;
            result->begin = result->begin == 0 ? begin : std::min(result->begin, begin);
            result->end = std::max(result->end, end);
          }
          return 1;
        },
        &found);
    return found;
  }();
  return range;
}

// Counts a call made from the library and says whether it is the one to fail (errno is then
// set). Calls from anywhere else are neither counted nor failed. It also runs in the tar
// runner's children, which share the caller's memory and leave the sanitizers' bookkeeping alone.
DRX_CHILD_SAFE bool Intercept(Function function, const void* caller) {
  if (exiting) {
    return false;
  }
  const Range range = LibraryRange();
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  if (address < range.begin || address >= range.end) {
    return false;
  }
  State& state = Shared();
  const long number = ++state.counts[static_cast<std::size_t>(function)];
  if (state.recording) {
    const std::size_t index = state.traceLength++;
    if (index < kTraceCapacity) {
      state.trace[index] = Call{function, state.phase};
    }
  }
  if (state.armedFunction == static_cast<int>(function) && state.armedCall == number) {
    state.fired = true;
    errno = state.armedError;
    return true;
  }
  return false;
}

template <typename Pointer>
Pointer Next(const char* name) {
  void* symbol = ::dlsym(RTLD_NEXT, name);
  if (symbol == nullptr) {
    std::fprintf(stderr, "fault injector: no next definition of %s\n", name);
    std::abort();
  }
  return reinterpret_cast<Pointer>(symbol);
}

}  // namespace

const char* Name(Function function) {
  static const char* const names[] = {
      "access", "chmod",  "clone",  "close",  "closedir",     "dup2",   "dup3",    "execvp",
      "fcntl",  "fork",   "fsync",  "lseek",  "memfd_create", "open",   "opendir", "pidfd_open",
      "pipe2",  "poll",   "prctl",  "read",   "readdir",      "remove", "rename",  "socketpair",
      "stat",   "statfs", "syncfs", "system", "waitpid",      "write"};
  static_assert(sizeof(names) / sizeof(names[0]) == kFunctionCount);
  return names[static_cast<std::size_t>(function)];
}

void Reset() {
  State& state = Shared();
  for (auto& count : state.counts) {
    count = 0;
  }
  state.armedFunction = -1;
  state.armedCall = 0;
  state.armedError = 0;
  state.fired = false;
  state.recording = false;
  state.phase = 0;
  state.traceLength = 0;
}

void StartRecording() {
  Reset();
  Shared().recording = true;
}

std::vector<Call> Recorded() {
  const State& state = Shared();
  const std::size_t length = std::min<std::size_t>(state.traceLength, kTraceCapacity);
  return std::vector<Call>(state.trace, state.trace + length);
}

void Arm(Function function, long call, int error) {
  Reset();
  State& state = Shared();
  state.armedError = error;
  state.armedCall = call;
  state.armedFunction = static_cast<int>(function);
}

bool Fired() {
  return Shared().fired;
}

void SetPhase(int phase) {
  Shared().phase = phase;
}

void Exiting() {
  exiting = true;
}

void Prepare() {
  Shared();
  LibraryRange();
  // Neither call comes from the library: both pass through, resolving their next definitions.
  ::syscall(SYS_getpid);
  char* const none[] = {nullptr};
  ::execvp("", none);
}

}  // namespace drn::faults

namespace {
using drn::faults::Function;
using drn::faults::Intercept;
using drn::faults::Next;
}  // namespace

// Each definition below replaces the C library's for the whole process. A failing call returns
// the function's failure value without doing anything, except close and closedir (see Arm).
#define DRX_RETURN_ADDRESS __builtin_return_address(0)

extern "C" {

int access(const char* path, int mode) {
  static const auto next = Next<int (*)(const char*, int)>("access");
  return Intercept(Function::access, DRX_RETURN_ADDRESS) ? -1 : next(path, mode);
}

int chmod(const char* path, mode_t mode) noexcept {
  static const auto next = Next<int (*)(const char*, mode_t)>("chmod");
  return Intercept(Function::chmod, DRX_RETURN_ADDRESS) ? -1 : next(path, mode);
}

// glibc's clone, which the tar runner calls by this name; it runs in the runner's intermediate
// process too. The runner asks for no thread identifiers, so none are passed on.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
DRX_CHILD_SAFE int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...) {
  // Resolved in the caller, whose memory the intermediate shares, before the intermediate runs.
  static const auto next = Next<int (*)(int (*)(void*), void*, int, void*, ...)>("__clone");
  return Intercept(Function::clone, DRX_RETURN_ADDRESS) ? -1
                                                        : next(function, stack, flags, argument);
}

int close(int fd) {
  static const auto next = Next<int (*)(int)>("close");
  if (Intercept(Function::close, DRX_RETURN_ADDRESS)) {
    const int error = errno;
    next(fd);
    errno = error;
    return -1;
  }
  return next(fd);
}

int closedir(DIR* dir) {
  static const auto next = Next<int (*)(DIR*)>("closedir");
  if (Intercept(Function::closedir, DRX_RETURN_ADDRESS)) {
    const int error = errno;
    next(dir);
    errno = error;
    return -1;
  }
  return next(dir);
}

int dup2(int from, int to) {
  static const auto next = Next<int (*)(int, int)>("dup2");
  return Intercept(Function::dup2, DRX_RETURN_ADDRESS) ? -1 : next(from, to);
}

DRX_CHILD_SAFE int execvp(const char* file, char* const argv[]) {
  static const auto next = Next<int (*)(const char*, char* const[])>("execvp");
  return Intercept(Function::execvp, DRX_RETURN_ADDRESS) ? -1 : next(file, argv);
}

int fcntl(int fd, int command, ...) {
  static const auto next = Next<int (*)(int, int, ...)>("fcntl");
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return Intercept(Function::fcntl, DRX_RETURN_ADDRESS) ? -1 : next(fd, command, argument);
}

pid_t fork() {
  static const auto next = Next<pid_t (*)()>("fork");
  return Intercept(Function::fork, DRX_RETURN_ADDRESS) ? -1 : next();
}

int fsync(int fd) {
  static const auto next = Next<int (*)(int)>("fsync");
  return Intercept(Function::fsync, DRX_RETURN_ADDRESS) ? -1 : next(fd);
}

off_t lseek(int fd, off_t offset, int whence) {
  static const auto next = Next<off_t (*)(int, off_t, int)>("lseek");
  return Intercept(Function::lseek, DRX_RETURN_ADDRESS) ? -1 : next(fd, offset, whence);
}

int open(const char* path, int flags, ...) {
  static const auto next = Next<int (*)(const char*, int, ...)>("open");
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return Intercept(Function::open, DRX_RETURN_ADDRESS) ? -1 : next(path, flags, mode);
}

DIR* opendir(const char* path) {
  static const auto next = Next<DIR* (*)(const char*)>("opendir");
  return Intercept(Function::opendir, DRX_RETURN_ADDRESS) ? nullptr : next(path);
}

int pipe2(int fds[2], int flags) {
  static const auto next = Next<int (*)(int[2], int)>("pipe2");
  return Intercept(Function::pipe2, DRX_RETURN_ADDRESS) ? -1 : next(fds, flags);
}

int poll(pollfd* fds, nfds_t count, int timeout) {
  static const auto next = Next<int (*)(pollfd*, nfds_t, int)>("poll");
  return Intercept(Function::poll, DRX_RETURN_ADDRESS) ? -1 : next(fds, count, timeout);
}

ssize_t read(int fd, void* buffer, size_t count) {
  static const auto next = Next<ssize_t (*)(int, void*, size_t)>("read");
  return Intercept(Function::read, DRX_RETURN_ADDRESS) ? -1 : next(fd, buffer, count);
}

dirent* readdir(DIR* dir) {
  static const auto next = Next<dirent* (*)(DIR*)>("readdir");
  return Intercept(Function::readdir, DRX_RETURN_ADDRESS) ? nullptr : next(dir);
}

int remove(const char* path) noexcept {
  static const auto next = Next<int (*)(const char*)>("remove");
  return Intercept(Function::remove, DRX_RETURN_ADDRESS) ? -1 : next(path);
}

int rename(const char* from, const char* to) noexcept {
  static const auto next = Next<int (*)(const char*, const char*)>("rename");
  return Intercept(Function::rename, DRX_RETURN_ADDRESS) ? -1 : next(from, to);
}

int socketpair(int domain, int type, int protocol, int fds[2]) noexcept {
  static const auto next = Next<int (*)(int, int, int, int[2])>("socketpair");
  return Intercept(Function::socketpair, DRX_RETURN_ADDRESS) ? -1
                                                             : next(domain, type, protocol, fds);
}

int stat(const char* path, struct stat* buffer) noexcept {
  static const auto next = Next<int (*)(const char*, struct stat*)>("stat");
  return Intercept(Function::stat, DRX_RETURN_ADDRESS) ? -1 : next(path, buffer);
}

int statfs(const char* path, struct statfs* buffer) noexcept {
  static const auto next = Next<int (*)(const char*, struct statfs*)>("statfs");
  return Intercept(Function::statfs, DRX_RETURN_ADDRESS) ? -1 : next(path, buffer);
}

int syncfs(int fd) noexcept {
  static const auto next = Next<int (*)(int)>("syncfs");
  return Intercept(Function::syncfs, DRX_RETURN_ADDRESS) ? -1 : next(fd);
}

// The system calls the library makes by number are counted under their own names; the others
// (the runner's intermediate waiting for tar, whose number of calls depends on timing) pass.
DRX_CHILD_SAFE long syscall(long number, ...) noexcept {
  static const auto next = Next<long (*)(long, ...)>("syscall");
  va_list arguments;
  va_start(arguments, number);
  long values[6];
  for (long& value : values) {
    value = va_arg(arguments, long);
  }
  va_end(arguments);
  Function function = Function::count;
  switch (number) {
    case SYS_dup3:
      function = Function::dup3;
      break;
    case SYS_memfd_create:
      function = Function::memfd_create;
      break;
    case SYS_pidfd_open:
      function = Function::pidfd_open;
      break;
    case SYS_prctl:
      function = Function::prctl;
      break;
    default:
      break;
  }
  return function != Function::count && Intercept(function, DRX_RETURN_ADDRESS)
             ? -1
             : next(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

int system(const char* command) {
  static const auto next = Next<int (*)(const char*)>("system");
  return Intercept(Function::system, DRX_RETURN_ADDRESS) ? -1 : next(command);
}

pid_t waitpid(pid_t pid, int* status, int options) {
  static const auto next = Next<pid_t (*)(pid_t, int*, int)>("waitpid");
  return Intercept(Function::waitpid, DRX_RETURN_ADDRESS) ? -1 : next(pid, status, options);
}

ssize_t write(int fd, const void* buffer, size_t count) {
  static const auto next = Next<ssize_t (*)(int, const void*, size_t)>("write");
  return Intercept(Function::write, DRX_RETURN_ADDRESS) ? -1 : next(fd, buffer, count);
}

}  // extern "C"
