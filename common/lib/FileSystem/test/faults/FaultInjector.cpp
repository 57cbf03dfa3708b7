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

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <new>
#include <type_traits>

// Marks the code that may run in the tar runner's children (see Intercept).
#define DRX_CHILD_SAFE __attribute__((no_sanitize("address", "undefined")))

namespace drn::faults {
namespace {

// Set once this process has begun to exit: what runs then (a coverage run's counter dump, which
// is linked into the library too) is not the library's work.
bool exiting = false;

}  // namespace

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

namespace {

// The address range of libdrx_FileSystem's loaded segments.
struct Range {
  std::uintptr_t begin = UINTPTR_MAX;
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
          auto& result = *static_cast<Range*>(data);
          for (const ElfW(Phdr)* segment = info->dlpi_phdr;
               segment < info->dlpi_phdr + info->dlpi_phnum; ++segment) {
            const std::uintptr_t begin = info->dlpi_addr + segment->p_vaddr;
            if (segment->p_type == PT_LOAD) {
              result = {std::min(result.begin, begin),
                        std::max(result.end, begin + segment->p_memsz)};
            }
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
  const Range range = LibraryRange();
  const auto address = reinterpret_cast<std::uintptr_t>(caller);
  if (exiting || address < range.begin || address >= range.end) {
    return false;
  }
  State& state = Shared();
  const long number = ++state.counts[static_cast<std::size_t>(function)];
  const std::size_t index = state.recording ? state.traceLength++ : std::size(state.trace);
  if (index < std::size(state.trace)) {
    state.trace[index] = Call{function, state.phase};
  }
  if (state.armedFunction != static_cast<int>(function) || state.armedCall != number) {
    return false;
  }
  state.fired = true;
  errno = state.armedError;
  return true;
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

// What a failing call returns: a null pointer, or -1.
template <typename Result>
Result Failure() {
  if constexpr (std::is_pointer_v<Result>) {
    return nullptr;
  } else {
    return -1;
  }
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

void Reset(Function function, long call, int error) {
  State& state = *new (&Shared()) State{};
  state.armedFunction = static_cast<int>(function);
  state.armedCall = call;
  state.armedError = error;
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

using drn::faults::Failure;
using drn::faults::Function;
using drn::faults::Intercept;
using drn::faults::Next;

// Each definition below replaces the C library's for the whole process. A failing call returns
// the function's failure value without doing anything, except close and closedir, which
// release their descriptor even when they report an error, as Linux's do.
#define DRX_RETURN_ADDRESS __builtin_return_address(0)

// Defines name, with the C library's declaration's parameters, result and noexcept clause: it
// fails when Intercept says so, and otherwise calls the next definition with arguments.
#define DRX_INTERPOSE(name, parameters, arguments)                                               \
  auto name parameters noexcept(noexcept(::name arguments))->decltype(::name arguments) {        \
    static const auto next = Next<decltype(&::name)>(#name);                                     \
    return Intercept(Function::name, DRX_RETURN_ADDRESS) ? Failure<decltype(::name arguments)>() \
                                                         : next arguments;                       \
  }

// The same for close and closedir, which release handle anyway.
#define DRX_INTERPOSE_RELEASING(name, Handle)                         \
  int name(Handle handle) {                                           \
    static const auto next = Next<decltype(&::name)>(#name);          \
    const bool fails = Intercept(Function::name, DRX_RETURN_ADDRESS); \
    const int error = errno;                                          \
    const int result = next(handle);                                  \
    errno = fails ? error : errno;                                    \
    return fails ? -1 : result;                                       \
  }

extern "C" {

// One definition a line: clang-format would run the macro calls together.
// clang-format off
DRX_INTERPOSE(access, (const char* path, int mode), (path, mode))
DRX_INTERPOSE(chmod, (const char* path, mode_t mode), (path, mode))
DRX_INTERPOSE(dup2, (int from, int to), (from, to))
DRX_CHILD_SAFE DRX_INTERPOSE(execvp, (const char* file, char* const argv[]), (file, argv))
DRX_INTERPOSE(fchmod, (int fd, mode_t mode), (fd, mode))
DRX_INTERPOSE(fchown, (int fd, uid_t owner, gid_t group), (fd, owner, group))
DRX_INTERPOSE(fdatasync, (int fd), (fd))
DRX_INTERPOSE(fork, (), ())
DRX_INTERPOSE(fstatfs, (int fd, struct statfs* buffer), (fd, buffer))
DRX_INTERPOSE(fsync, (int fd), (fd))
DRX_INTERPOSE(kill, (pid_t pid, int signal), (pid, signal))
DRX_INTERPOSE(lseek, (int fd, off_t offset, int whence), (fd, offset, whence))
DRX_INTERPOSE(lstat, (const char* path, struct stat* buffer), (path, buffer))
DRX_INTERPOSE(opendir, (const char* path), (path))
DRX_INTERPOSE(pipe2, (int fds[2], int flags), (fds, flags))
DRX_INTERPOSE(poll, (pollfd* fds, nfds_t count, int timeout), (fds, count, timeout))
DRX_INTERPOSE(read, (int fd, void* buffer, size_t count), (fd, buffer, count))
DRX_INTERPOSE(readdir, (DIR* dir), (dir))
DRX_INTERPOSE(remove, (const char* path), (path))
DRX_INTERPOSE(rename, (const char* from, const char* to), (from, to))
DRX_INTERPOSE(renameat2, (int fromDir, const char* from, int toDir, const char* to, unsigned int flags), (fromDir, from, toDir, to, flags))
DRX_INTERPOSE(socketpair, (int domain, int type, int protocol, int fds[2]), (domain, type, protocol, fds))
DRX_INTERPOSE(stat, (const char* path, struct stat* buffer), (path, buffer))
DRX_INTERPOSE(statfs, (const char* path, struct statfs* buffer), (path, buffer))
DRX_INTERPOSE(statvfs, (const char* path, struct statvfs* buffer), (path, buffer))
DRX_INTERPOSE(syncfs, (int fd), (fd))
DRX_INTERPOSE(system, (const char* command), (command))
DRX_INTERPOSE(waitpid, (pid_t pid, int* status, int options), (pid, status, options))
DRX_INTERPOSE(write, (int fd, const void* buffer, size_t count), (fd, buffer, count))
DRX_INTERPOSE_RELEASING(close, int)
DRX_INTERPOSE_RELEASING(closedir, DIR*)

// glibc's clone, which the tar runner calls by this name; it runs in the runner's intermediate
// process too. The runner asks for no thread identifiers, so none are passed on.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
DRX_CHILD_SAFE
int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...) {
  // clang-format on
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
