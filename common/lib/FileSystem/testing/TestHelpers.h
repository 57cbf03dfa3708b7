// Helpers for tests that use real files: a temporary directory, a log capture, running a check
// in a forked child (as an unprivileged user too), counting open descriptors and children,
// listing a tree, a scoped change of the environment, and telling a FAT file system.
#pragma once

#include <grp.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "LogClient.h"

namespace drn::testing {

// A fresh directory (mode 0755, so that checks run by RunUnprivileged can reach inside) under
// TMPDIR (or /tmp), removed with everything in it on destruction.
class TempDir {
 public:
  TempDir() : root((std::filesystem::temp_directory_path() / "drx_test_XXXXXX").string()) {
    if (::mkdtemp(root.data()) == nullptr || ::chmod(root.c_str(), 0755) != 0) {
      throw std::runtime_error("cannot make a temporary directory");
    }
  }
  ~TempDir() {
    std::error_code ignored;
    // Give back search and write permission that a test took away, so everything can go.
    for (auto it = std::filesystem::recursive_directory_iterator(
             root, std::filesystem::directory_options::skip_permission_denied, ignored);
         it != std::filesystem::recursive_directory_iterator(); it.increment(ignored)) {
      if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
        std::filesystem::permissions(it->path(), std::filesystem::perms::owner_all,
                                     std::filesystem::perm_options::add, ignored);
      }
    }
    std::filesystem::remove_all(root, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return root; }
  std::string operator/(const std::string& name) const { return root + "/" + name; }

  // Writes a file (creating missing parent directories) and returns its full path.
  std::string WriteFile(const std::string& name, const std::string& content) const {
    const std::string full = *this / name;
    std::filesystem::create_directories(std::filesystem::path(full).parent_path());
    std::ofstream(full, std::ios::binary) << content;
    return full;
  }

  // Creates a directory (and its parents) and returns its full path.
  std::string MakeDir(const std::string& name) const {
    std::filesystem::create_directories(*this / name);
    return *this / name;
  }

 private:
  std::string root;
};

// Whether path lies on FAT32 or exFAT (an SD card's usual formats, exFAT above 32 GB), which
// keep no owners, permission bits or symbolic links and refuse some characters in names. Tests
// that need those skip there: GTEST_SKIP() << "FAT has no ..." when OnFat(dir.Path()).
inline bool OnFat(const std::string& path) {
  struct statfs stats {};
  return ::statfs(path.c_str(), &stats) == 0 &&
         (stats.f_type == MSDOS_SUPER_MAGIC || stats.f_type == EXFAT_SUPER_MAGIC);
}

inline std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// Collects every record while it lives, with all levels enabled (or the filter given), and puts
// back the previous sink and filter afterwards.
class LogCapture {
 public:
  explicit LogCapture(LogClient::LevelFilter filter = [](LogLevel) { return true; })
      : previousSink(LogClient::SetSink([this](const LogRecord& record) {
          const std::lock_guard<std::mutex> lock(mutex);
          records.push_back(record);
        })),
        previousFilter(LogClient::SetLevelFilter(std::move(filter))) {}
  ~LogCapture() {
    LogClient::SetSink(previousSink);
    LogClient::SetLevelFilter(previousFilter);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<LogRecord> Records() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return records;
  }

 private:
  mutable std::mutex mutex;
  std::vector<LogRecord> records;
  LogClient::Sink previousSink;
  LogClient::LevelFilter previousFilter;
};

// Runs check in a forked child, for changes the test process must not keep (closed standard
// descriptors, resource limits, another user), and returns its exit status: 0 when check
// returned true, 1 when it returned false, 3 when check threw, -1 when the child did not exit.
// The child ends with _exit.
inline int RunInChild(const std::function<bool()>& check) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    int status = 3;
    try {
      status = check() ? 0 : 1;
    } catch (...) {
    }
    ::_exit(status);
  }
  int status = 0;
  while (pid > 0 && ::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  return pid > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The records as "function level/category: text" (level in decimal, category in hex, as in
// "RunCmd 3/0x8027: failed to pipe: 24"), for comparing a whole list of records at once.
inline std::vector<std::string> Described(const std::vector<LogRecord>& records) {
  std::vector<std::string> lines;
  for (const LogRecord& record : records) {
    std::ostringstream line;
    line << record.function << ' ' << static_cast<int>(record.level) << "/0x" << std::hex
         << static_cast<unsigned>(record.category) << ": " << record.text;
    lines.push_back(line.str());
  }
  return lines;
}

// The user that permission checks run as.
constexpr uid_t kUnprivilegedId = 65534;

// Runs check in a forked child that has dropped to an unprivileged user (when running as root)
// and returns its exit status as RunInChild does, or 2 when the privileges could not be dropped.
inline int RunUnprivileged(const std::function<bool()>& check) {
  return RunInChild([&check] {
    if (::geteuid() == 0 && (::setgroups(0, nullptr) != 0 || ::setgid(kUnprivilegedId) != 0 ||
                             ::setuid(kUnprivilegedId) != 0)) {
      ::_exit(2);
    }
    return check();
  });
}

// True while this process has a child, running or ended but not yet reaped (a zombie). Reaps
// nothing. __WALL: children without an exit signal count too.
inline bool HasChildProcesses() {
  siginfo_t info{};
  return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0 || errno != ECHILD;
}

// Open descriptors of this process, for leak checks around code that opens and closes.
inline int CountOpenDescriptors() {
  const std::filesystem::directory_iterator entries("/proc/self/fd");
  return static_cast<int>(std::distance(begin(entries), end(entries)));
}

// Every entry below root (symbolic links not followed) as its path relative to root, sorted:
// compare two listings to see whether anything in a tree was added, removed or renamed.
inline std::vector<std::string> ListTree(const std::string& root) {
  std::vector<std::string> entries;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    entries.push_back(entry.path().lexically_relative(root).string());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

// Sets an environment variable while it lives and puts back the previous value (or its absence).
class ScopedEnvironmentVariable {
 public:
  ScopedEnvironmentVariable(std::string name, const std::string& value)
      : name(std::move(name)), previous(Get(this->name)) {
    ::setenv(this->name.c_str(), value.c_str(), 1);
  }
  ~ScopedEnvironmentVariable() {
    previous ? ::setenv(name.c_str(), previous->c_str(), 1) : ::unsetenv(name.c_str());
  }
  ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
  ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

 private:
  static std::optional<std::string> Get(const std::string& name) {
    const char* value = std::getenv(name.c_str());
    return value != nullptr ? std::optional<std::string>(value) : std::nullopt;
  }

  std::string name;
  std::optional<std::string> previous;
};

}  // namespace drn::testing
