// drxfs run as a process on real temporary trees: output, JSON, exit status and error lines.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "TestHelpers.h"

extern char** environ;

namespace drn {
namespace {

using testing::ReadWholeFile;
using testing::TempDir;

struct Result {
  int status = -1;
  std::string out;
  std::string err;
};

// Runs drxfs with args and input on standard input, without DRX_LOG_LEVEL in its environment.
// Standard output goes to stdoutPath when one is given.
Result RunDrxfs(const std::vector<std::string>& args, const std::string& input = "",
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

  Result result;
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

std::size_t Lines(const std::string& text) {
  return std::count(text.begin(), text.end(), '\n');
}

// Expects the failure contract: status, nothing on standard output, one line on standard error.
void ExpectOneLineFailure(const Result& result, int status) {
  EXPECT_EQ(result.status, status);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(Lines(result.err), 1u) << result.err;
}

TEST(DrxfsPathTest, ReportsWhatThePathSays) {
  const TempDir dir;
  const std::string logs = dir.MakeDir("logs");
  const Result text = RunDrxfs({"path", logs});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, logs + ": exists=yes directory=yes basename=\"logs\"\n");

  const Result json = RunDrxfs({"path", "--json", dir / "missing.txt"});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  EXPECT_EQ(parsed.at("path"), dir / "missing.txt");
  EXPECT_EQ(parsed.at("exists"), false);
  EXPECT_EQ(parsed.at("directory"), false);
  EXPECT_EQ(parsed.at("basename"), "missing.txt");
}

TEST(DrxfsFileTest, TouchKeepsAndTruncateEmpties) {
  const TempDir dir;
  const std::string file = dir / "f";
  EXPECT_EQ(RunDrxfs({"touch", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");
  dir.WriteFile("f", "contents");
  const Result touched = RunDrxfs({"touch", file});
  EXPECT_EQ(touched.status, 0);
  EXPECT_EQ(touched.out + touched.err, "");
  EXPECT_EQ(ReadWholeFile(file), "contents");
  EXPECT_EQ(RunDrxfs({"truncate", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");
}

struct SizeCase {
  off_t bytes;
  const char* human;
};

class DrxfsSizeTest : public ::testing::TestWithParam<SizeCase> {};

TEST_P(DrxfsSizeTest, PrintsBytesHumanUnitsAndJson) {
  const TempDir dir;
  const std::string file = dir.WriteFile("f", "");
  ASSERT_EQ(::truncate(file.c_str(), GetParam().bytes), 0);  // sparse: large sizes cost nothing
  const std::string bytes = std::to_string(GetParam().bytes);

  EXPECT_EQ(RunDrxfs({"size", file}).out, bytes + "\n");
  EXPECT_EQ(RunDrxfs({"size", "-h", file}).out, std::string(GetParam().human) + "\n");
  const Result json = RunDrxfs({"size", "--json", file});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  EXPECT_EQ(parsed.at("bytes").get<off_t>(), GetParam().bytes);
  EXPECT_EQ(parsed.at("path"), file);
}

INSTANTIATE_TEST_SUITE_P(Sizes, DrxfsSizeTest,
                         ::testing::Values(SizeCase{0, "0 B"}, SizeCase{1023, "1023 B"},
                                           SizeCase{1536, "1.5 KiB"}, SizeCase{1048575, "1.0 MiB"},
                                           SizeCase{5LL << 30, "5.0 GiB"}),
                         [](const auto& info) {
                           return std::to_string(info.param.bytes) + "Bytes";
                         });

struct FailureCase {
  const char* name;
  std::vector<std::string> args;  // "@" stands for the temporary directory
  const char* reason;
};

class DrxfsFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(DrxfsFailureTest, FailsWithOneLineNamingPathAndReason) {
  const TempDir dir;
  dir.MakeDir("sub");
  std::vector<std::string> args;
  std::string path;
  for (const std::string& arg : GetParam().args) {
    args.push_back(arg[0] == '@' ? dir.Path() + arg.substr(1) : arg);
    path = args.back();
  }
  const Result result = RunDrxfs(args);
  ExpectOneLineFailure(result, 1);
  EXPECT_NE(result.err.find(path), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(GetParam().reason), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DrxfsFailureTest,
    ::testing::Values(FailureCase{"SizeOfMissing", {"size", "@/missing"}, "No such file"},
                      FailureCase{"SizeOfDirectory", {"size", "@/sub"}, "Is a directory"},
                      FailureCase{"TouchInMissingDirectory", {"touch", "@/no/f"}, "No such file"},
                      FailureCase{"TruncateDirectory", {"truncate", "@/sub"}, "Is a directory"}),
    [](const auto& info) { return std::string(info.param.name); });

class DrxfsUsageTest : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(DrxfsUsageTest, IsStatusTwoWithOneLine) {
  ExpectOneLineFailure(RunDrxfs(GetParam()), 2);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, DrxfsUsageTest,
    ::testing::Values(std::vector<std::string>{}, std::vector<std::string>{"frobnicate"},
                      std::vector<std::string>{"size"},
                      std::vector<std::string>{"size", "--bogus", "/"},
                      std::vector<std::string>{"path", "/", "/tmp"},
                      std::vector<std::string>{"--log-level", "8", "path", "/"}));

TEST(DrxfsHelpTest, EveryCommandHasHelp) {
  const Result top = RunDrxfs({"--help"});
  EXPECT_EQ(top.status, 0);
  for (const char* command : {"path", "touch", "truncate", "size"}) {
    EXPECT_NE(top.out.find(command), std::string::npos) << command;
    const Result help = RunDrxfs({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find("drxfs " + std::string(command)), std::string::npos) << help.out;
  }
  EXPECT_NE(RunDrxfs({"size", "--help"}).out.find("-h,--human"), std::string::npos);
}

TEST(DrxfsLogLevelTest, ShowsLibraryRecordsOnlyWhenAsked) {
  const TempDir dir;
  const std::string file = dir / "missing/f";
  EXPECT_EQ(Lines(RunDrxfs({"touch", file}).err), 1u);
  for (const auto& args : {std::vector<std::string>{"--log-level", "3", "touch", file},
                           std::vector<std::string>{"touch", "--log-level", "3", file}}) {
    const Result result = RunDrxfs(args);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(Lines(result.err), 2u) << result.err;
    EXPECT_NE(result.err.find("Could not open " + file), std::string::npos) << result.err;
  }
}

TEST(DrxfsOutputTest, AFailedWriteToStandardOutputIsAFailure) {
  ExpectOneLineFailure(RunDrxfs({"path", "/"}, "", "/dev/full"), 1);
}

}  // namespace
}  // namespace drn
