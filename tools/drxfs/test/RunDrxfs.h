// Runs the built drxfs as a process.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>

#include <csignal>
#include <cstring>

#include "TestHelpers.h"

namespace drn::testing {

struct DrxfsResult {
  int status = -1;  // as a shell reports it: the exit status, or 128 + the ending signal
  std::string out;
  std::string err;
};

// As DrxfsSetting::inputDescriptor: drxfs starts with standard input closed.
constexpr int kClosedInput = -2;

// A run that has not ended after this long hangs, and is killed (status 128 + SIGKILL).
constexpr int kHangLimitMilliseconds = 120 * 1000;

// How drxfs is started. It never sees DRX_LOG_LEVEL.
struct DrxfsSetting {
  std::string input;             // its standard input
  int inputDescriptor = -1;      // when not -1, its standard input instead (or kClosedInput)
  std::string stdoutPath;        // where its standard output goes instead of being read
  std::string workingDirectory;  // empty: the test's own
  bool unprivileged = false;     // runs as kUnprivilegedId
};

// A copy of drxfs and of the libraries it links, made once per test process in a directory every
// user can enter: the build tree may lie where only root can (a checkout in /root), and a run as
// another user must still find the program. Run it with LD_LIBRARY_PATH naming this directory.
inline const TempDir& ReachableDrxfs() {
  static const TempDir dir;
  static const bool copied = [] {
    std::istringstream libraries(DRXFS_LIBRARIES);
    for (std::string library; std::getline(libraries, library, ':');) {
      std::filesystem::copy_file(library, dir / std::filesystem::path(library).filename().string());
    }
    std::filesystem::copy_file(DRXFS_PATH, dir / "drxfs");
    return true;
  }();
  static_cast<void>(copied);
  return dir;
}

// drxfs running as a child of the test; the destructor kills and reaps it if Wait was not called.
class DrxfsProcess {
 public:
  explicit DrxfsProcess(std::vector<std::string> args, const DrxfsSetting& setting = {})
      : outPath(setting.stdoutPath.empty() ? io / "stdout" : setting.stdoutPath) {
    args.insert(args.begin(),
                setting.unprivileged ? ReachableDrxfs() / "drxfs" : std::string(DRXFS_PATH));
    std::vector<char*> argv;
    for (std::string& arg : args) {
      argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    const std::string inPath = io.WriteFile("stdin", setting.input);
    pid = ::fork();
    if (pid == 0) {
      // Files are opened before privileges go, in a directory only root may write to. The test
      // process is single-threaded, so the child may change its environment.
      const int given = setting.inputDescriptor;
      const int in = given == -1 ? ::open(inPath.c_str(), O_RDONLY | O_CLOEXEC) : given;
      const int out = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
      const int err = ::open((io / "stderr").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      const bool ready =
          (given == kClosedInput ? ::close(0) == 0 : in >= 0 && ::dup2(in, 0) == 0) && out >= 0 &&
          err >= 0 && ::dup2(out, 1) == 1 && ::dup2(err, 2) == 2 &&
          (setting.workingDirectory.empty() || ::chdir(setting.workingDirectory.c_str()) == 0) &&
          ::unsetenv("DRX_LOG_LEVEL") == 0 &&
          (!setting.unprivileged ||
           (::setenv("LD_LIBRARY_PATH", ReachableDrxfs().Path().c_str(), 1) == 0 &&
            ::setgroups(0, nullptr) == 0 && ::setgid(kUnprivilegedId) == 0 &&
            ::setuid(kUnprivilegedId) == 0));
      // drxfs starts with descriptors 0 to 2 alone, whatever the test runner left open.
      ::close_range(3, ~0U, 0);
      if (ready) {
        ::execv(argv[0], argv.data());
      }
      ::_exit(127);
    }
  }
  ~DrxfsProcess() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      Wait();
    }
  }

  pid_t Pid() const { return pid; }

  // Waits for drxfs to end, or kills it at kHangLimitMilliseconds, and returns what it did.
  DrxfsResult Wait() {
    if (pid <= 0) {
      return {};
    }
    const int ended = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    pollfd event{ended, POLLIN, 0};
    if (ended >= 0 && ::poll(&event, 1, kHangLimitMilliseconds) == 0) {
      ::kill(pid, SIGKILL);
    }
    ::close(ended);
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    pid = -1;
    return {WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status),
            outPath == io / "stdout" ? ReadWholeFile(outPath) : "", ReadWholeFile(io / "stderr")};
  }

 private:
  TempDir io;
  std::string outPath;
  pid_t pid = -1;
};

}  // namespace drn::testing
