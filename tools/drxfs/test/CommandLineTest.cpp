// drxfs's command line as a whole: failures, usage errors, help and the log level.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsResult;
using testing::ExpectOneLineFailure;
using testing::Lines;
using testing::RunDrxfs;
using testing::TempDir;

// A failing command line and the path and reason its one error line must give. "@" at the
// start of a text stands for a directory holding "file", "out/", "corrupt.tar" and
// "fifo.tar", a pipe that no one ever writes to.
struct FailureCase {
  std::vector<std::string> args;
  std::string path;
  std::string reason;
};

void PrintTo(const FailureCase& value, std::ostream* os) {
  *os << ::testing::PrintToString(value.args);
}

class DrxfsFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(DrxfsFailureTest, IsStatusOneWithOneLineNamingPathAndReason) {
  const TempDir dir;
  dir.WriteFile("file", "x");
  dir.MakeDir("out");
  dir.WriteFile("corrupt.tar", std::string(2000, 'x'));
  if (GetParam().path == "@/fifo.tar") {
    if (testing::OnFat(dir.Path())) {
      GTEST_SKIP() << "FAT has no named pipes";
    }
    ASSERT_EQ(::mkfifo((dir / "fifo.tar").c_str(), 0600), 0);
  }
  const auto inDir = [&dir](const std::string& text) {
    return text[0] == '@' ? dir.Path() + text.substr(1) : text;
  };
  std::vector<std::string> args;
  for (const std::string& arg : GetParam().args) {
    args.push_back(inDir(arg));
  }
  const DrxfsResult result = RunDrxfs(args, "input\n");
  ExpectOneLineFailure(result, 1);
  EXPECT_NE(result.err.find(inDir(GetParam().path) + ": "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(GetParam().reason), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DrxfsFailureTest,
    ::testing::Values(
        FailureCase{{"size", "@/missing"}, "@/missing", "No such file"},
        FailureCase{{"size", "@/out"}, "@/out", "Is a directory"},
        FailureCase{{"touch", "@/no/f"}, "@/no/f", "No such file"},
        // Reading address 0 of the process fails: a read error is not an end of file.
        FailureCase{{"cat", "/proc/self/mem"}, "/proc/self/mem", "Input/output error"},
        FailureCase{{"write", "/dev/full"}, "/dev/full", "No space left"},
        FailureCase{{"du", "@/file"}, "@/file", "Not a directory"},
        FailureCase{{"mkdir", "@/file"}, "@/file", "exists and is not a directory"},
        FailureCase{{"mkdir", "@/file/sub"}, "@/file/sub", "Not a directory"},
        FailureCase{{"empty", "@/file"}, "@/file", "Not a directory"},
        FailureCase{{"tar", "list", "@/missing.tar"}, "@/missing.tar", "No such file"},
        FailureCase{{"tar", "list", "@/corrupt.tar"}, "@/corrupt.tar", "not look like a tar"},
        FailureCase{{"tar", "extract", "--streaming", "@/corrupt.tar", "@/out"},
                    "@/corrupt.tar",
                    "not look like a tar"},
        FailureCase{{"tar", "extract", "@/corrupt.tar", "@/file"}, "@/file", "Not a directory"},
        FailureCase{{"tar", "extract", "--streaming", "--timeout", "0.2", "@/fifo.tar", "@/out"},
                    "@/fifo.tar",
                    "tar timed out"}));

TEST(DrxfsStandardOutputTest, AFailedWriteToStandardOutputIsAFailure) {
  ExpectOneLineFailure(RunDrxfs({"path", "/"}, "", "/dev/full"), 1);
}

class DrxfsUsageTest : public ::testing::TestWithParam<std::vector<std::string>> {};

TEST_P(DrxfsUsageTest, IsStatusTwoWithOneLine) {
  ExpectOneLineFailure(RunDrxfs(GetParam()), 2);
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, DrxfsUsageTest,
    ::testing::Values(std::vector<std::string>{}, std::vector<std::string>{"frobnicate"},
                      std::vector<std::string>{"size", "--bogus", "/"},
                      std::vector<std::string>{"path", "/", "/tmp"},
                      std::vector<std::string>{"--log-level", "8", "path", "/"},
                      std::vector<std::string>{"tar"},
                      std::vector<std::string>{"tar", "extract", "--timeout", "1", "a", "/"}));

TEST(DrxfsHelpTest, EveryCommandHasHelp) {
  EXPECT_EQ(RunDrxfs({"--help"}).status, 0);
  const std::vector<std::vector<std::string>> commands = {
      {"path"}, {"touch"}, {"truncate"}, {"size"}, {"cat"},         {"write"},         {"df"},
      {"du"},   {"mkdir"}, {"empty"},    {"tar"},  {"tar", "list"}, {"tar", "extract"}};
  for (std::vector<std::string> args : commands) {
    const std::string name = args.size() == 1 ? args[0] : args[0] + " " + args[1];
    args.emplace_back("--help");
    const DrxfsResult help = RunDrxfs(args);
    EXPECT_EQ(help.status, 0) << name;
    EXPECT_NE(help.out.find("Usage: drxfs " + name), std::string::npos) << help.out;
  }
}

TEST(DrxfsLogLevelTest, ShowsLibraryRecordsOnlyWhenAsked) {
  const TempDir dir;
  const std::string file = dir / "missing/f";
  for (const auto& args : {std::vector<std::string>{"--log-level", "3", "touch", file},
                           std::vector<std::string>{"touch", "--log-level", "3", file}}) {
    const DrxfsResult result = RunDrxfs(args);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(Lines(result.err), 2u) << result.err;
    EXPECT_NE(result.err.find("Could not open " + file), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace drn
