// Runs the built drxfs as a process and checks the shape of its failures.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "TestHelpers.h"

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
  const auto quoted = [](const std::string& text) {
    std::string result = "'";
    for (const char c : text) {
      result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
  };
  std::string command = "env -u DRX_LOG_LEVEL " + quoted(DRXFS_PATH);
  for (const std::string& arg : args) {
    command += " " + quoted(arg);
  }
  const std::string out = stdoutPath.empty() ? io / "stdout" : stdoutPath;
  command += " <" + quoted(io.WriteFile("stdin", input)) + " >" + quoted(out) + " 2>" +
             quoted(io / "stderr");
  const int status = std::system(command.c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1,
          stdoutPath.empty() ? ReadWholeFile(out) : "", ReadWholeFile(io / "stderr")};
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

}  // namespace drn::testing
