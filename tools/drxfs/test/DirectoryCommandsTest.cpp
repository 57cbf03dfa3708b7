// drxfs df, du, mkdir and empty on real trees.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>

#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsFailureCase;
using testing::DrxfsResult;
using testing::RunDrxfs;
using testing::TempDir;

TEST(DrxfsDuTest, SumsRegularFilesBelowWithoutFollowingLinks) {
  const TempDir dir;
  dir.WriteFile("tree/a/b/f", std::string(100, 'x'));
  const std::string big = dir.WriteFile("tree/a/g", std::string(2000, 'y'));
  ASSERT_EQ(::symlink(big.c_str(), (dir / "tree/link").c_str()), 0);

  EXPECT_EQ(RunDrxfs({"du", dir / "tree"}).out, "2100\n");
  EXPECT_EQ(RunDrxfs({"du", "-h", dir / "tree"}).out, "2.1 KiB\n");
  const DrxfsResult json = RunDrxfs({"du", "--json", dir / "tree"});
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(nlohmann::json::parse(json.out).at("bytes"), 2100);
}

TEST(DrxfsDfTest, ReportsUsedBytesAndFillLevel) {
  const TempDir dir;
  const DrxfsResult text = RunDrxfs({"df", dir.Path()});
  EXPECT_EQ(text.status, 0) << text.err;
  EXPECT_TRUE(std::regex_match(text.out, std::regex("[0-9]+\t[0-9]+%\n"))) << text.out;

  const DrxfsResult json = RunDrxfs({"df", "--json", dir.Path()});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  EXPECT_GT(parsed.at("usedBytes").get<std::uint64_t>(), 0u);
  EXPECT_GE(parsed.at("percentUsed").get<int>(), 0);
  EXPECT_LE(parsed.at("percentUsed").get<int>(), 100);
}

TEST(DrxfsMkdirTest, CreatesParentsAndKeepsAnExistingDirectory) {
  const TempDir dir;
  const std::string nested = dir / "a/b c/d";
  const DrxfsResult created = RunDrxfs({"mkdir", nested});
  EXPECT_EQ(created.status, 0) << created.err;
  EXPECT_TRUE(std::filesystem::is_directory(nested));
  dir.WriteFile("a/b c/d/kept", "x");
  EXPECT_EQ(RunDrxfs({"mkdir", nested}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(nested + "/kept"));
}

TEST(DrxfsEmptyTest, RemovesEverythingButDotEntriesAndAcceptsAnEmptyDirectory) {
  const TempDir dir;
  dir.WriteFile("d/file", "x");
  dir.WriteFile("d/sub/deeper/file", "y");
  dir.WriteFile("d/.hidden", "z");
  const DrxfsResult emptied = RunDrxfs({"empty", dir / "d"});
  EXPECT_EQ(emptied.status, 0) << emptied.err;
  std::vector<std::string> left;
  for (const auto& entry : std::filesystem::directory_iterator(dir / "d")) {
    left.push_back(entry.path().filename());
  }
  EXPECT_EQ(left, std::vector<std::string>{".hidden"});

  const DrxfsResult again = RunDrxfs({"empty", dir / "d"});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "");
}

class DrxfsDirectoryFailureTest : public ::testing::TestWithParam<DrxfsFailureCase> {};

TEST_P(DrxfsDirectoryFailureTest, FailsWithOneLineNamingPathAndReason) {
  const TempDir dir;
  dir.WriteFile("file", "x");
  testing::ExpectFailureCase(dir, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DrxfsDirectoryFailureTest,
    ::testing::Values(DrxfsFailureCase{"DuOfMissing", {"du", "@/missing"}, "No such file"},
                      DrxfsFailureCase{"DuOfFile", {"du", "@/file"}, "Not a directory"},
                      DrxfsFailureCase{"DfOfMissing", {"df", "@/missing"}, "No such file"},
                      DrxfsFailureCase{"MkdirOverFile", {"mkdir", "@/file"}, "not a directory"},
                      // mkdir's own message becomes the reason.
                      DrxfsFailureCase{
                          "MkdirBelowFile", {"mkdir", "@/file/sub"}, "Not a directory"},
                      DrxfsFailureCase{"EmptyOfMissing", {"empty", "@/missing"}, "No such file"},
                      DrxfsFailureCase{"EmptyOfFile", {"empty", "@/file"}, "Not a directory"}),
    testing::FailureCaseName);

}  // namespace
}  // namespace drn
