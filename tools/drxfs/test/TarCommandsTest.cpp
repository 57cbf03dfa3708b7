// drxfs tar list and tar extract on real archives, with either runner.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsFailureCase;
using testing::DrxfsResult;
using testing::ExpectOneLineFailure;
using testing::ReadWholeFile;
using testing::RunDrxfs;
using testing::TempDir;

// The parameter: whether the command runs tar through the streaming runner.
class DrxfsTarTest : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    dir.WriteFile("src/a.txt", "alpha");
    dir.WriteFile("src/sub/b.txt", "beta");
    // Members in this order: a.txt, sub/, sub/b.txt.
    const std::string command = "tar -cf '" + archive + "' -C '" + (dir / "src") + "' a.txt sub";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }

  std::vector<std::string> WithRunner(std::vector<std::string> args) const {
    if (GetParam()) {
      args.emplace_back("--streaming");
    }
    return args;
  }

  const TempDir dir;
  const std::string archive = dir / "archive.tar";
};

TEST_P(DrxfsTarTest, ListsMembersWithoutDirectories) {
  const DrxfsResult text = RunDrxfs(WithRunner({"tar", "list", archive}));
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_EQ(text.out, "a.txt\nsub/b.txt\n");

  const DrxfsResult json = RunDrxfs(WithRunner({"tar", "list", "--json", archive}));
  ASSERT_EQ(json.status, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  EXPECT_EQ(parsed.at("archive"), archive);
  EXPECT_EQ(parsed.at("entries"), (std::vector<std::string>{"a.txt", "sub/b.txt"}));
}

TEST_P(DrxfsTarTest, ExtractsIntoAnExistingDirectory) {
  const std::string destination = dir.MakeDir("out");
  const DrxfsResult result = RunDrxfs(WithRunner({"tar", "extract", archive, destination}));
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.out + result.err, "");
  EXPECT_EQ(ReadWholeFile(destination + "/a.txt"), "alpha");
  EXPECT_EQ(ReadWholeFile(destination + "/sub/b.txt"), "beta");
}

TEST_P(DrxfsTarTest, CorruptArchiveFailsWithOneLine) {
  const std::string corrupt = dir.WriteFile("corrupt.tar", std::string(2000, 'x'));
  const std::string destination = dir.MakeDir("out");
  for (const auto& args : {WithRunner({"tar", "list", corrupt}),
                           WithRunner({"tar", "extract", corrupt, destination})}) {
    const DrxfsResult result = RunDrxfs(args);
    ExpectOneLineFailure(result, 1);
    EXPECT_NE(result.err.find(corrupt + ": "), std::string::npos) << result.err;
    EXPECT_NE(result.err.find("does not look like a tar archive"), std::string::npos) << result.err;
  }
}

INSTANTIATE_TEST_SUITE_P(Runners, DrxfsTarTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Streaming" : "Default"; });

TEST(DrxfsTarTimeoutTest, KillsATarThatDoesNotFinish) {
  const TempDir dir;
  // tar waits for a writer to open the pipe, which never happens.
  const std::string fifo = dir / "fifo.tar";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const DrxfsResult result =
      RunDrxfs({"tar", "extract", "--streaming", "--timeout", "0.2", fifo, dir.MakeDir("out")});
  ExpectOneLineFailure(result, 1);
  EXPECT_NE(result.err.find(fifo + ": tar timed out"), std::string::npos) << result.err;
}

class DrxfsTarFailureTest : public ::testing::TestWithParam<DrxfsFailureCase> {};

TEST_P(DrxfsTarFailureTest, FailsWithOneLineNamingPathAndReason) {
  const TempDir dir;
  dir.WriteFile("file", "x");
  const std::string command = "tar -cf '" + (dir / "a.tar") + "' -C '" + dir.Path() + "' file";
  ASSERT_EQ(std::system(command.c_str()), 0);
  testing::ExpectFailureCase(dir, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DrxfsTarFailureTest,
    ::testing::Values(
        DrxfsFailureCase{"ListMissing", {"tar", "list", "@/missing.tar"}, "No such file"},
        DrxfsFailureCase{"ListDirectory", {"tar", "list", "@"}, "Is a directory"},
        DrxfsFailureCase{
            "ExtractToMissing", {"tar", "extract", "@/a.tar", "@/out"}, "No such file"},
        DrxfsFailureCase{
            "ExtractToFile", {"tar", "extract", "@/a.tar", "@/file"}, "Not a directory"}),
    testing::FailureCaseName);

}  // namespace
}  // namespace drn
