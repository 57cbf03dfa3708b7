// GuardedChild: a program run under a private intermediate process that waits for it.
#pragma once

#include <signal.h>
#include <sys/types.h>

#include <memory>

#include "SystemCalls.h"

namespace drn {

// A program found on the search path, run as the grandchild of the calling thread under an
// intermediate process that shares the caller's memory, so that starting it costs the same
// whatever the caller's size. The intermediate has no exit signal, so the kernel keeps it for
// the caller to wait for whatever the caller's SIGCHLD disposition, and the caller's SIGCHLD
// handler never hears of it; it waits for the program with SIGCHLD at its own default. Nothing
// process-wide changes and no other child of the caller is waited for. Both die with the
// thread that started them. Ending the program never depends on a descriptor being closed: a
// process forked from the caller may hold a copy of any of them.
class GuardedChild {
 public:
  // The call that failed in starting the program ("socketpair", "clone", "execvp", ...) and
  // its errno; call is null when none failed.
  struct Failure {
    const char* call = nullptr;
    int error = 0;
  };

  // Runs program with argv, standard output on outputFd and standard error on errorFd (both
  // close-on-exec, and left blocking for the program). Returns once the program has been
  // executed or has failed to be (its status is then an exit with 255, and ProgramFailure names
  // the call); nullptr with failure filled and errno set when no process for the program could
  // be made, or when whether the program runs could not be read (it is then killed and waited
  // for). argv must stay valid until then.
  static std::unique_ptr<GuardedChild> Start(const char* program, char* const argv[], int outputFd,
                                             int errorFd, Failure& failure);
  // Kills the program and waits for it, unless it has been waited for.
  ~GuardedChild();
  GuardedChild(const GuardedChild&) = delete;
  GuardedChild& operator=(const GuardedChild&) = delete;

  enum class Wait { Ended, Running, Failed };
  // Waits for the program to end, or only looks when block is false. Ended fills status with
  // the program's wait status; Failed leaves errno as waitpid (or the read of the status the
  // intermediate reports) set it, and there is then nothing left to kill.
  Wait TryWait(bool block, int& status);
  // Kills the program with SIGKILL and waits for it; nothing when it has been waited for.
  void Kill();
  // The call that kept the program from being executed after its process was made (redirecting
  // its output or executing it), or none.
  Failure ProgramFailure() const { return programFailure; }
  // A descriptor that becomes readable when the intermediate, and so the program, has ended,
  // or -1 when the kernel gives none; owned by this object.
  int EndFd() const { return end.Get(); }

  // What the intermediate and the program read from the caller's memory.
  struct Launch {
    const char* program;
    char* const* argv;
    int outputFd;
    int errorFd;
    // The intermediate's end of the socket it shares with the caller, and the caller's end.
    int reportFd;
    int callerEnd;
    pid_t callerPid;
    sigset_t callerMask;
    char* programStack;
  };

 private:
  GuardedChild() = default;

  struct Stacks;
  std::unique_ptr<Stacks> stacks;
  Launch launch{};
  Descriptor report;
  Descriptor end;
  Failure programFailure;
  pid_t intermediate = -1;
};

}  // namespace drn
