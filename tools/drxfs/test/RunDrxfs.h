// Runs the built drxfs as a process and checks the shape of its failures.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "TestHelpers.h"

extern char** environ;

namespace drn::testing {

struct DrxfsResult {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs drxfs with args and input on standard input, without DRX_LOG_LEVEL in its environment.
// Standard output goes to stdoutPath when one is given (and is not read back).
inline DrxfsResult RunDrxfs(const std::vector<std::string>& args, const std::string& input = "",
                            const std::string& stdoutPath = "") {
  const TempDir io;
  const std::string in = io.WriteFile("stdin", input);
  const std::string out = stdoutPath.empty() ? io / "stdout" : stdoutPath;
  const std::string err = io / "stderr";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);

  std::vector<char*> argv{const_cast<char*>(DRXFS_PATH)};
  for (const std::string& arg : args) {
    argv.push_back(const_cast<char*>(arg.c_str()));
  }
  argv.push_back(nullptr);
  std::vector<char*> environment;
  for (char** variable = environ; *variable != nullptr; ++variable) {
    if (std::strncmp(*variable, "DRX_LOG_LEVEL=", 14) != 0) {
      environment.push_back(*variable);
    }
  }
  environment.push_back(nullptr);

  DrxfsResult result;
  pid_t pid = 0;
  const int spawned =
      posix_spawn(&pid, DRXFS_PATH, &actions, nullptr, argv.data(), environment.data());
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) {
    ADD_FAILURE() << "cannot start " << DRXFS_PATH << ": " << std::strerror(spawned);
    return result;
  }
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.out = stdoutPath.empty() ? ReadWholeFile(out) : "";
  result.err = ReadWholeFile(err);
  return result;
}

inline std::size_t Lines(const std::string& text) {
  return std::count(text.begin(), text.end(), '\n');
}

// Expects the failure contract: status, nothing on standard output, one line on standard error.
inline void ExpectOneLineFailure(const DrxfsResult& result, int status) {
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(Lines(result.err), 1u) << result.err;
}

// A failing command line: "@" at the start of an argument stands for the temporary directory,
// and the last argument is the path that the error line must name.
struct DrxfsFailureCase {
  const char* name;
  std::vector<std::string> args;
  const char* reason;
};

inline void PrintTo(const DrxfsFailureCase& value, std::ostream* os) {
  *os << value.name;
}

// Runs the case in dir, with a line on standard input, and expects status 1 and one line naming
// the path and the reason.
inline void ExpectFailureCase(const TempDir& dir, const DrxfsFailureCase& failure) {
  std::vector<std::string> args;
  for (const std::string& arg : failure.args) {
    args.push_back(arg[0] == '@' ? dir.Path() + arg.substr(1) : arg);
  }
  const DrxfsResult result = RunDrxfs(args, "input\n");
  ExpectOneLineFailure(result, 1);
  EXPECT_NE(result.err.find(args.back()), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(failure.reason), std::string::npos) << result.err;
}

inline std::string FailureCaseName(const ::testing::TestParamInfo<DrxfsFailureCase>& info) {
  return info.param.name;
}

}  // namespace drn::testing
