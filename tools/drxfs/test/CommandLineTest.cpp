// drxfs's command line as a whole: usage errors, help, the log level, standard output failures.
#include <gtest/gtest.h>

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
                      std::vector<std::string>{"--log-level", "8", "path", "/"},
                      std::vector<std::string>{"tar"},
                      std::vector<std::string>{"tar", "extract", "--timeout", "1", "a", "/"}));

TEST(DrxfsHelpTest, EveryCommandHasHelp) {
  const DrxfsResult top = RunDrxfs({"--help"});
  EXPECT_EQ(top.status, 0);
  const std::vector<std::vector<std::string>> commands = {
      {"path"}, {"touch"}, {"truncate"}, {"size"}, {"cat"},         {"write"},         {"df"},
      {"du"},   {"mkdir"}, {"empty"},    {"tar"},  {"tar", "list"}, {"tar", "extract"}};
  for (std::vector<std::string> command : commands) {
    const std::string name = command.size() == 1 ? command[0] : command[0] + " " + command[1];
    if (command.size() == 1) {
      EXPECT_NE(top.out.find("  " + name + " "), std::string::npos) << name;
    }
    command.emplace_back("--help");
    const DrxfsResult help = RunDrxfs(command);
    EXPECT_EQ(help.status, 0) << name;
    EXPECT_NE(help.out.find("Usage: drxfs " + name), std::string::npos) << help.out;
  }
  EXPECT_NE(RunDrxfs({"size", "--help"}).out.find("-h,--human"), std::string::npos);
}

TEST(DrxfsLogLevelTest, ShowsLibraryRecordsOnlyWhenAsked) {
  const TempDir dir;
  const std::string file = dir / "missing/f";
  EXPECT_EQ(Lines(RunDrxfs({"touch", file}).err), 1u);
  for (const auto& args : {std::vector<std::string>{"--log-level", "3", "touch", file},
                           std::vector<std::string>{"touch", "--log-level", "3", file}}) {
    const DrxfsResult result = RunDrxfs(args);
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
