// GuardedChild: the intermediate process, the program under it, and waiting for both.
#include "GuardedChild.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <ctime>
#include <utility>

#if __has_include(<valgrind/valgrind.h>)
#include <valgrind/valgrind.h>
#define DRN_RUNNING_ON_VALGRIND (RUNNING_ON_VALGRIND != 0)
#else
#define DRN_RUNNING_ON_VALGRIND false
#endif

// glibc's own name for clone: the sanitizers intercept clone and treat every call as a fork.
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp,readability-identifier-naming)
extern "C" int __clone(int (*function)(void*), void* stack, int flags, void* argument, ...);

// Marks the code that runs in the intermediate and in the program before it executes: they
// share the calling thread's memory and thread-local storage, so they make raw system calls
// only and leave the sanitizers' bookkeeping, which belongs to the calling thread, alone.
#define DRN_CHILD_CODE __attribute__((no_sanitize("address", "thread", "undefined")))

namespace drn {
namespace {

// The exit status of a program that could not be run, as TarApi's child ends: exit(-1).
constexpr int kCouldNotRun = 255;
constexpr std::size_t kIntermediateStack = std::size_t{64} * 1024;
// The program's search of PATH builds each candidate name on this stack.
constexpr std::size_t kProgramStack = std::size_t{448} * 1024;
// The kernel's signal set is 64 bits wide.
constexpr long kKernelSigsetSize = 8;

// The kernel's struct sigaction (the same order on x86-64 and arm64); all zero is SIG_DFL with
// no flags and nothing blocked.
struct KernelSigaction {
  unsigned long handler;
  unsigned long flags;
  unsigned long restorer;
  unsigned long mask;
};

// What the intermediate tells the caller once the program runs or could not be started: the
// step that failed (an index into kStepCalls, 0 when none did) and its errno.
struct StartReport {
  int step;
  int error;
};
constexpr const char* kStepCalls[] = {nullptr, "clone", "dup3", "execvp"};
enum Step : int { Running = 0, Clone = 1, Redirect = 2, Execute = 3 };

struct ProgramLaunch {
  const GuardedChild::Launch* launch;
  long intermediate;
  // Filled by the program when it cannot be executed; it shares the intermediate's memory.
  StartReport failure;
};

[[noreturn]] DRN_CHILD_CODE void ExitGroup(int status) {
  ::syscall(SYS_exit_group, status);
  __builtin_unreachable();
}

// Dies with the thread that made this process; when that is already gone (its parent changed
// before the request took hold), dies now.
DRN_CHILD_CODE void DieWithParent(long parent) {
  ::syscall(SYS_prctl, PR_SET_PDEATHSIG, SIGKILL, 0, 0, 0);
  if (::syscall(SYS_getppid) != parent) {
    ExitGroup(kCouldNotRun);
  }
}

// The program: standard output and standard error onto their pipes, the caller's signal mask,
// then exec. The intermediate is suspended until then; the caller waits for it to go on. errno
// is the calling thread's, which waits meanwhile.
DRN_CHILD_CODE int RunProgram(void* argument) {
  auto& programLaunch = *static_cast<ProgramLaunch*>(argument);
  const GuardedChild::Launch& launch = *programLaunch.launch;
  DieWithParent(programLaunch.intermediate);
  // The output pipe's write end is made first, so it never has the number 2 while the error
  // pipe's has 1: copying the output onto 1 first never overwrites the other.
  for (const auto& [from, target] :
       {std::pair{launch.outputFd, STDOUT_FILENO}, std::pair{launch.errorFd, STDERR_FILENO}}) {
    // The pipe may have been given this very number (the caller had it closed); dup3 refuses
    // to copy onto itself, so clear close-on-exec instead.
    const long result = from == target ? ::syscall(SYS_fcntl, target, F_SETFD, 0)
                                       : ::syscall(SYS_dup3, from, target, 0);
    if (result < 0) {
      programLaunch.failure = {Redirect, errno};
      ExitGroup(kCouldNotRun);
    }
  }
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &launch.callerMask, nullptr, kKernelSigsetSize);
  ::execvp(launch.program, launch.argv);
  programLaunch.failure = {Execute, errno};
  ExitGroup(kCouldNotRun);
}

// The intermediate starts with every signal blocked. Its handlers are the caller's copied:
// those become the default (SIGCHLD too, so the program is kept to be waited for), so that none
// of the caller's handlers can run here or in the program.
DRN_CHILD_CODE void ResetSignalHandlers() {
  for (int signal = 1; signal <= static_cast<int>(kKernelSigsetSize) * 8; ++signal) {
    KernelSigaction current{};
    if (signal == SIGKILL || signal == SIGSTOP ||
        ::syscall(SYS_rt_sigaction, signal, nullptr, &current, kKernelSigsetSize) != 0) {
      continue;
    }
    const bool ignored = current.handler == reinterpret_cast<unsigned long>(SIG_IGN);
    if (signal == SIGCHLD || (!ignored && current.handler != 0)) {
      const KernelSigaction byDefault{};
      ::syscall(SYS_rt_sigaction, signal, &byDefault, nullptr, kKernelSigsetSize);
    }
  }
}

// The intermediate: starts the program, tells the caller whether it runs (a StartReport on the
// socket it shares with the caller), waits for it, killing it with SIGKILL when the caller sends
// SIGTERM (or closes its end of the socket, or dies), and reports its wait status there. The
// request is a signal because a process forked from the caller may hold a copy of the caller's
// end of the socket, which then never closes. errno is the calling thread's: after the report,
// the only failure these calls can leave in it is EINTR, which the caller's loops take for what
// it is.
DRN_CHILD_CODE int RunIntermediate(void* argument) {
  const auto& launch = *static_cast<const GuardedChild::Launch*>(argument);
  DieWithParent(launch.callerPid);
  ResetSignalHandlers();
  ::syscall(SYS_close, launch.callerEnd);
  ProgramLaunch programLaunch{&launch, ::syscall(SYS_getpid), {Running, 0}};
  const long program =
      __clone(RunProgram, launch.programStack, CLONE_VM | CLONE_VFORK | SIGCHLD, &programLaunch);
  if (program < 0) {
    const StartReport failed{Clone, errno};
    ::syscall(SYS_write, launch.reportFd, &failed, sizeof failed);
    ExitGroup(kCouldNotRun);
  }
  // Nobody else can reap the program, so its number cannot name another process yet.
  const long programEnd = ::syscall(SYS_pidfd_open, program, 0);
  // SIGTERM, blocked here since the start, is read from a descriptor; without one it is let
  // through, and its default action ends the intermediate, whose end kills the program.
  const unsigned long stopRequest = 1UL << (SIGTERM - 1);
  const long stopFd = ::syscall(SYS_signalfd4, -1, &stopRequest, kKernelSigsetSize, 0);
  if (stopFd < 0) {
    ::syscall(SYS_rt_sigprocmask, SIG_UNBLOCK, &stopRequest, nullptr, kKernelSigsetSize);
  }
  ::syscall(SYS_write, launch.reportFd, &programLaunch.failure, sizeof programLaunch.failure);
  ::syscall(SYS_close, launch.outputFd);
  ::syscall(SYS_close, launch.errorFd);

  pollfd events[] = {{launch.reportFd, POLLIN, 0},
                     {static_cast<int>(stopFd), POLLIN, 0},
                     {static_cast<int>(programEnd), POLLIN, 0}};
  // Without a pidfd (a kernel before 5.3) the program's end is looked for every 10 ms.
  const bool watched = programEnd >= 0;
  const timespec tick{0, 10'000'000};
  int status = 0;
  for (;;) {
    ::syscall(SYS_ppoll, events, 3, watched ? nullptr : &tick, nullptr, kKernelSigsetSize);
    if (events[0].revents != 0 || events[1].revents != 0) {
      ::syscall(SYS_kill, program, SIGKILL);
      ::syscall(SYS_wait4, program, &status, 0, nullptr);
      ExitGroup(0);
    }
    if (::syscall(SYS_wait4, program, &status, WNOHANG, nullptr) == program) {
      break;
    }
  }
  ::syscall(SYS_write, launch.reportFd, &status, sizeof status);
  ExitGroup(0);
}

}  // namespace

// Both stacks in one mapping, the intermediate's at the top; untouched pages cost nothing.
struct GuardedChild::Stacks {
  Stacks()
      : base(::mmap(nullptr, kIntermediateStack + kProgramStack, PROT_READ | PROT_WRITE,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0)) {}
  ~Stacks() {
    if (base != MAP_FAILED) {
      ::munmap(base, kIntermediateStack + kProgramStack);
    }
  }
  Stacks(const Stacks&) = delete;
  Stacks& operator=(const Stacks&) = delete;

  char* ProgramTop() const { return static_cast<char*>(base) + kProgramStack; }
  char* IntermediateTop() const { return ProgramTop() + kIntermediateStack; }

  void* base;
};

std::unique_ptr<GuardedChild> GuardedChild::Start(const char* program, char* const argv[],
                                                  int outputFd, int errorFd, Failure& failure) {
  const auto failed = [&failure](const char* call, int error) {
    failure = {call, error};
    errno = error;
    return nullptr;
  };
  std::unique_ptr<GuardedChild> child(new GuardedChild());
  child->stacks = std::make_unique<Stacks>();
  if (child->stacks->base == MAP_FAILED) {
    return failed("mmap", errno);
  }
  int fds[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0) {
    return failed("socketpair", errno);
  }
  child->report.Reset(fds[0]);
  Descriptor intermediateEnd(fds[1]);
  child->launch = Launch{program,
                         argv,
                         outputFd,
                         errorFd,
                         intermediateEnd.Get(),
                         fds[0],
                         ::getpid(),
                         {},
                         child->stacks->ProgramTop()};

  // Until the program has been executed, no handler of the caller may run (in the intermediate
  // it would run in the caller's memory) and the calling thread leaves errno to the children.
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_SETMASK, &all, &child->launch.callerMask);
  // No exit signal. valgrind runs clone only for threads or as a fork (keeping CLONE_VFORK,
  // which would hold the caller until tar ends), so under it the intermediate is a plain fork.
  const int flags = DRN_RUNNING_ON_VALGRIND ? 0 : CLONE_VM;
  child->intermediate =
      __clone(RunIntermediate, child->stacks->IntermediateTop(), flags, &child->launch);
  // A user-mode emulator (qemu-user) runs clone only as a thread or as a fork that signals
  // SIGCHLD at its end: there the intermediate is such a fork, which a program that ignores
  // SIGCHLD cannot wait for.
  if (child->intermediate < 0 && errno == EINVAL) {
    child->intermediate =
        __clone(RunIntermediate, child->stacks->IntermediateTop(), SIGCHLD, &child->launch);
  }
  int error = errno;
  const char* call = "clone";
  intermediateEnd.Close();
  if (child->intermediate > 0) {
    // Every signal is blocked, so nothing interrupts this: the report once the program runs or
    // could not be made, end of file when the intermediate ended without a word. A read that
    // fails would leave the report to be taken for the program's status, so the program is
    // given up instead.
    StartReport started{Running, 0};
    const ssize_t count =
        RetryOnEintr([&] { return ::read(child->report.Get(), &started, sizeof started); });
    const bool whole = count == static_cast<ssize_t>(sizeof started) && started.step >= 0 &&
                       started.step <= Execute;
    if (count < 0) {
      error = errno;
      call = "read";
      child->Kill();
    } else if (whole && started.step == Clone) {
      // The intermediate ends at once, having nothing to wait for.
      error = started.error;
      RetryOnEintr([&] { return ::waitpid(child->intermediate, nullptr, __WALL); });
      child->intermediate = -1;
    } else if (whole && started.step != Running) {
      child->programFailure = {kStepCalls[started.step], started.error};
    }
  }
  ::pthread_sigmask(SIG_SETMASK, &child->launch.callerMask, nullptr);
  if (child->intermediate < 0) {
    return failed(call, error);
  }
  // Its number is ours until we wait for it, so the descriptor names the right process.
  child->end.Reset(static_cast<int>(::syscall(SYS_pidfd_open, child->intermediate, 0)));
  return child;
}

GuardedChild::~GuardedChild() {
  Kill();
}

GuardedChild::Wait GuardedChild::TryWait(bool block, int& status) {
  int raw = 0;
  const pid_t result =
      RetryOnEintr([&] { return ::waitpid(intermediate, &raw, __WALL | (block ? 0 : WNOHANG)); });
  if (result == 0) {
    return Wait::Running;
  }
  intermediate = -1;
  if (result < 0) {
    return Wait::Failed;
  }
  // The intermediate reports the program's status and exits with 0; anything else is its own
  // end (it could not start the program, or was killed), which stands for the program's.
  if (!WIFEXITED(raw) || WEXITSTATUS(raw) != 0) {
    status = raw;
    return Wait::Ended;
  }
  // A status that cannot be read is no success: the wait has failed.
  int programStatus = 0;
  const ssize_t count =
      RetryOnEintr([&] { return ::read(report.Get(), &programStatus, sizeof programStatus); });
  if (count < 0) {
    return Wait::Failed;
  }
  status = count == static_cast<ssize_t>(sizeof programStatus) ? programStatus : raw;
  return Wait::Ended;
}

void GuardedChild::Kill() {
  if (intermediate > 0) {
    // The intermediate kills and reaps the program when asked by SIGTERM, and ends. Its number
    // is ours until we wait for it, so the signal reaches no other process. Closing the
    // caller's end of the socket asks too, where no copy of it is held elsewhere.
    if (::kill(intermediate, SIGTERM) != 0) {
      report.Reset(-1);
    }
    RetryOnEintr([this] { return ::waitpid(intermediate, nullptr, __WALL); });
    intermediate = -1;
  }
}

}  // namespace drn
