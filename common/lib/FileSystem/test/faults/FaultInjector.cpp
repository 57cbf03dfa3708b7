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
#include <sys/statvfs.h>
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

#define DRX_FAULT_NAME(name, ...) #name,
#define DRX_FAULT_ERRNOS(name, ...) {__VA_ARGS__},

const char* Name(Function function) {
  static const char* const names[] = {DRX_FAULT_FUNCTIONS(DRX_FAULT_NAME)};
  return names[static_cast<std::size_t>(function)];
}

const std::vector<int>& Errnos(Function function) {
  static const std::vector<int> errnos[] = {DRX_FAULT_FUNCTIONS(DRX_FAULT_ERRNOS)};
  return errnos[static_cast<std::size_t>(function)];
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

// Each definition below replaces the C library's for the whole process. A failing call returns
// the function's failure value without doing anything, except close and closedir (see Arm).
#define DRX_RETURN_ADDRESS __builtin_return_address(0)

// Defines name with the given attributes, parameters and noexcept clause: it fails with
// failure when Intercept says so, and otherwise calls the next definition with arguments.
#define DRX_INTERPOSE(attributes, Result, name, parameters, noexceptClause, failure, arguments) \
  attributes Result name parameters noexceptClause {                                            \
    static const auto next = Next<Result(*) parameters>(#name);                                 \
    return Intercept(Function::name, DRX_RETURN_ADDRESS) ? failure : next arguments;            \
  }

namespace {

using drn::faults::Function;
using drn::faults::Intercept;
using drn::faults::Next;

// close and closedir release their descriptor even when they report an error.
template <typename Handle>
int Releasing(Function function, const void* caller, int (*next)(Handle), Handle handle) {
  if (!Intercept(function, caller)) {
    return next(handle);
  }
  const int error = errno;
  next(handle);
  errno = error;
  return -1;
}

}  // namespace

extern "C" {

DRX_INTERPOSE(, int, access, (const char* path, int mode), , -1, (path, mode))
DRX_INTERPOSE(, int, chmod, (const char* path, mode_t mode), noexcept, -1, (path, mode))
DRX_INTERPOSE(, int, dup2, (int from, int to), , -1, (from, to))
DRX_INTERPOSE(DRX_CHILD_SAFE, int, execvp, (const char* file, char* const argv[]), , -1,
              (file, argv))
DRX_INTERPOSE(, int, fchmod, (int fd, mode_t mode), noexcept, -1, (fd, mode))
DRX_INTERPOSE(, int, fchown, (int fd, uid_t owner, gid_t group), noexcept, -1, (fd, owner, group))
DRX_INTERPOSE(, int, fdatasync, (int fd), , -1, (fd))
DRX_INTERPOSE(, pid_t, fork, (), , -1, ())
DRX_INTERPOSE(, int, fsync, (int fd), , -1, (fd))
DRX_INTERPOSE(, int, kill, (pid_t pid, int signal), noexcept, -1, (pid, signal))
DRX_INTERPOSE(, off_t, lseek, (int fd, off_t offset, int whence), , -1, (fd, offset, whence))
DRX_INTERPOSE(, int, lstat, (const char* path, struct stat* buffer), noexcept, -1, (path, buffer))
DRX_INTERPOSE(, DIR*, opendir, (const char* path), , nullptr, (path))
DRX_INTERPOSE(, int, pipe2, (int fds[2], int flags), , -1, (fds, flags))
DRX_INTERPOSE(, int, poll, (pollfd * fds, nfds_t count, int timeout), , -1, (fds, count, timeout))
DRX_INTERPOSE(, ssize_t, read, (int fd, void* buffer, size_t count), , -1, (fd, buffer, count))
DRX_INTERPOSE(, dirent*, readdir, (DIR * dir), , nullptr, (dir))
DRX_INTERPOSE(, int, remove, (const char* path), noexcept, -1, (path))
DRX_INTERPOSE(, int, rename, (const char* from, const char* to), noexcept, -1, (from, to))
DRX_INTERPOSE(, int, renameat2,
              (int fromDir, const char* from, int toDir, const char* to, unsigned int flags),
              noexcept, -1, (fromDir, from, toDir, to, flags))
DRX_INTERPOSE(, int, socketpair, (int domain, int type, int protocol, int fds[2]), noexcept, -1,
              (domain, type, protocol, fds))
DRX_INTERPOSE(, int, stat, (const char* path, struct stat* buffer), noexcept, -1, (path, buffer))
DRX_INTERPOSE(, int, statfs, (const char* path, struct statfs* buffer), noexcept, -1,
              (path, buffer))
DRX_INTERPOSE(, int, statvfs, (const char* path, struct statvfs* buffer), noexcept, -1,
              (path, buffer))
DRX_INTERPOSE(, int, syncfs, (int fd), noexcept, -1, (fd))
DRX_INTERPOSE(, int, system, (const char* command), , -1, (command))
DRX_INTERPOSE(, pid_t, waitpid, (pid_t pid, int* status, int options), , -1, (pid, status, options))
DRX_INTERPOSE(, ssize_t, write, (int fd, const void* buffer, size_t count), , -1,
              (fd, buffer, count))

int close(int fd) {
  static const auto next = Next<int (*)(int)>("close");
  return Releasing(Function::close, DRX_RETURN_ADDRESS, next, fd);
}

int closedir(DIR* dir) {
  static const auto next = Next<int (*)(DIR*)>("closedir");
  return Releasing(Function::closedir, DRX_RETURN_ADDRESS, next, dir);
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

int fcntl(int fd, int command, ...) {
  static const auto next = Next<int (*)(int, int, ...)>("fcntl");
  va_list arguments;
  va_start(arguments, command);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return Intercept(Function::fcntl, DRX_RETURN_ADDRESS) ? -1 : next(fd, command, argument);
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
  const Function function = number == SYS_dup3           ? Function::dup3
                            : number == SYS_memfd_create ? Function::memfd_create
                            : number == SYS_pidfd_open   ? Function::pidfd_open
                            : number == SYS_prctl        ? Function::prctl
                            : number == SYS_signalfd4    ? Function::signalfd
                                                         : Function::count;
  return function != Function::count && Intercept(function, DRX_RETURN_ADDRESS)
             ? -1
             : next(number, values[0], values[1], values[2], values[3], values[4], values[5]);
}

}  // extern "C"
