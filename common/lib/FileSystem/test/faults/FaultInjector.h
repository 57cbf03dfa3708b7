// Fails exactly the k-th call of one C library function made by libdrx_FileSystem, with a
// chosen errno, and records the calls a run makes. The C functions are interposed by symbols of
// the executable that link this in; they forward through dlsym(RTLD_NEXT, ...), so the calls the
// library makes straight to the C library are reached as well as those through LinuxApi, and
// sanitizer interceptors stay in the chain. Only calls whose caller lies inside the library are
// counted; everything else (the harness, GoogleTest, the logger) passes through untouched. The
// state lives in shared memory, so calls made by a forked child count towards the same totals.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace drn::faults {

// The interposed functions, in the order of their names. clone is glibc's __clone; dup3,
// memfd_create, pidfd_open and prctl are the system calls of those numbers made through
// syscall, which counts no other number.
enum class Function {
  access,
  chmod,
  clone,
  close,
  closedir,
  dup2,
  dup3,
  execvp,
  fcntl,
  fork,
  fsync,
  lseek,
  memfd_create,
  open,
  opendir,
  pidfd_open,
  pipe2,
  poll,
  prctl,
  read,
  readdir,
  remove,
  rename,
  socketpair,
  stat,
  statfs,
  syncfs,
  system,
  waitpid,
  write,
  count
};

constexpr std::size_t kFunctionCount = static_cast<std::size_t>(Function::count);

const char* Name(Function function);

// One counted call: which function, and the phase the run had announced when it was made.
struct Call {
  Function function;
  int phase;
};

// Forgets every count, the trace and any armed fault.
void Reset();

// From now on, records every counted call in a trace (at most a few thousand).
void StartRecording();
std::vector<Call> Recorded();

// Makes the call-th call (counting from 1 after this) of function fail with error: the caller
// gets the function's failure value and errno set to error. close and closedir still release
// the descriptor, as Linux does when they report an error.
void Arm(Function function, long call, int error);

// Whether the armed fault has been delivered.
bool Fired();

// Labels the calls that follow, so an expectation can tell a flush from the destructor's.
void SetPhase(int phase);

// Stops counting and failing in this process, for a child that is about to end.
void Exiting();

// Resolves everything the interposers need, so that none of it is first done inside a child
// that shares this process's memory (the tar runner's), where it must not be.
void Prepare();

}  // namespace drn::faults
