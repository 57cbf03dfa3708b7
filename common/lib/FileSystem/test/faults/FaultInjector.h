// Fails exactly the k-th call of one C library function made by libdrx_FileSystem, with a
// chosen errno, and records the calls a run makes. The C functions are interposed by symbols of
// the executable that link this in; they forward through dlsym(RTLD_NEXT, ...), so the calls the
// library makes straight to the C library are reached as well as those through LinuxApi, and
// sanitizer interceptors stay in the chain. Only calls whose caller lies inside the library are
// counted; everything else (the harness, GoogleTest, the logger) passes through untouched. The
// state lives in shared memory, so calls made by a forked child count towards the same totals.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <vector>

namespace drn::faults {

// The interposed functions, in the order of their names, each with the errnos the sweep fails
// it with: those it really returns that a caller must survive. clone is glibc's __clone; dup3,
// memfd_create, pidfd_open, prctl and signalfd (signalfd4) are the system calls of those numbers
// made through syscall, which counts no other number.
// clang-format off
#define DRX_FAULT_FUNCTIONS(X)                                                                     \
  X(access, ENOENT, EACCES, EIO) X(chmod, EPERM, EIO) X(clone, EAGAIN, ENOMEM)                     \
  X(close, EIO, EINTR) X(closedir, EIO) X(dup2, EINTR, EMFILE, EBUSY)                              \
  X(dup3, EINTR, EMFILE, EBUSY) X(execvp, ENOENT, EACCES, ENOMEM) X(fchmod, EPERM, EIO)            \
  X(fchown, EPERM, EINVAL, EIO) X(fcntl, EINVAL) X(fdatasync, EIO, ENOSPC) X(fork, EAGAIN, ENOMEM) \
  X(fstatfs, EIO, ENOSYS) X(fsync, EIO, ENOSPC, EINTR) X(kill, EPERM)                              \
  X(lseek, EINVAL, EOVERFLOW)                                                                      \
  X(lstat, EACCES, EIO, ENOMEM)                                                                    \
  X(memfd_create, EMFILE, ENOMEM) X(open, EACCES, EMFILE, ENOSPC, EINTR, EIO)                      \
  X(opendir, EACCES, EMFILE, ENOMEM) X(pidfd_open, EMFILE, ENOMEM) X(pipe2, EMFILE, ENFILE)        \
  X(poll, EINTR, ENOMEM) X(prctl, EINVAL) X(read, EIO, EINTR, EAGAIN) X(readdir, EIO)              \
  X(remove, EACCES, EIO, EBUSY) X(rename, EACCES, EIO, ENOSPC) X(renameat2, EINVAL, EIO, ENOSPC)  \
  X(signalfd, EMFILE, ENOMEM)                                                                      \
  X(socketpair, EMFILE, ENFILE)                                                                    \
  X(stat, EACCES, EIO, ENOMEM) X(statfs, EACCES, EIO, EINTR) X(statvfs, EACCES, EIO)               \
  X(syncfs, EIO, ENOSPC)                                                                           \
  X(system, EAGAIN, ENOMEM) X(waitpid, EINTR, ECHILD) X(write, EIO, ENOSPC, EINTR)
// clang-format on

#define DRX_FAULT_ENUMERATOR(name, ...) name,
enum class Function { DRX_FAULT_FUNCTIONS(DRX_FAULT_ENUMERATOR) count };
#undef DRX_FAULT_ENUMERATOR

const char* Name(Function function);
const std::vector<int>& Errnos(Function function);

// One counted call: which function, and the phase the run had announced when it was made.
struct Call {
  Function function;
  int phase;
};

// What the interposers share with forked children: the number of calls of each function so far;
// the armed fault (the armedCall-th call of armedFunction fails with armedError) and whether it
// was delivered; while recording, a trace of every counted call (at most a few thousand), each
// labelled with phase, which the sweep sets so that an expectation can tell a flush from the
// destructor's.
struct State {
  std::atomic<long> counts[static_cast<std::size_t>(Function::count)];
  std::atomic<int> armedFunction;
  std::atomic<long> armedCall;
  std::atomic<int> armedError;
  std::atomic<bool> fired;
  std::atomic<bool> recording;
  std::atomic<int> phase;
  std::atomic<std::size_t> traceLength;
  Call trace[16384];
};

State& Shared();

// Forgets every count, the trace and any armed fault; then makes the call-th call (counting
// from 1) of function fail with error: the caller gets the function's failure value and errno
// set to error. close and closedir still release the descriptor, as Linux does when they report
// an error.
void Reset(Function function = Function::count, long call = 0, int error = 0);

// Stops counting and failing in this process, for a child that is about to end.
void Exiting();

// Resolves everything the interposers need, so that none of it is first done inside a child
// that shares this process's memory (the tar runner's), where it must not be.
void Prepare();

}  // namespace drn::faults
