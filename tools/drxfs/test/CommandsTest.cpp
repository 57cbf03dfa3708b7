// Each drxfs command's output and exit status on real files, trees and archives.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsResult;
using testing::ReadWholeFile;
using testing::RunDrxfs;
using testing::TempDir;

TEST(DrxfsCommandTest, PathReportsWhatThePathSaysAsTextAndJson) {
  const TempDir dir;
  const std::string logs = dir.MakeDir("logs");
  const DrxfsResult text = RunDrxfs({"path", logs});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, logs + ": exists=yes directory=yes basename=\"logs\"\n");

  const DrxfsResult json = RunDrxfs({"path", "--json", dir / "missing.txt"});
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(nlohmann::json::parse(json.out), (nlohmann::json{{"path", dir / "missing.txt"},
                                                             {"exists", false},
                                                             {"directory", false},
                                                             {"basename", "missing.txt"}}));
}

TEST(DrxfsCommandTest, SizeDuAndDfPrintBytesOrHumanUnits) {
  const TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no sparse files and none of 4 GiB or more";
  }
  const std::string file = dir.WriteFile("tree/f", "");
  // Sparse: large sizes cost nothing. Values that would show as 1024.0 go to the next unit.
  const std::vector<std::pair<off_t, std::string>> sizes = {
      {1023, "1023 B"}, {1536, "1.5 KiB"}, {1048575, "1.0 MiB"}, {5LL << 30, "5.0 GiB"}};
  for (const auto& [bytes, human] : sizes) {
    ASSERT_EQ(::truncate(file.c_str(), bytes), 0);
    EXPECT_EQ(RunDrxfs({"size", file}).out, std::to_string(bytes) + "\n");
    EXPECT_EQ(RunDrxfs({"size", "-h", file}).out, human + "\n");
  }
  dir.WriteFile("tree/a/b/f", std::string(100, 'x'));
  ASSERT_EQ(::truncate(file.c_str(), 2000), 0);
  EXPECT_EQ(RunDrxfs({"du", dir / "tree"}).out, "2100\n");
  EXPECT_EQ(RunDrxfs({"du", "-h", dir / "tree"}).out, "2.1 KiB\n");
  const std::string df = RunDrxfs({"df", dir.Path()}).out;
  EXPECT_TRUE(std::regex_match(df, std::regex("[0-9]+\t[0-9]+%\n"))) << df;
}

TEST(DrxfsCommandTest, FileCommandsChangeAndCopyContents) {
  const TempDir dir;
  const std::string file = dir / "f";
  EXPECT_EQ(RunDrxfs({"touch", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");
  dir.WriteFile("f", "contents");
  EXPECT_EQ(RunDrxfs({"touch", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "contents");
  EXPECT_EQ(RunDrxfs({"truncate", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");

  // Every byte value, over several 64 KiB blocks and a partial one.
  std::string content(200000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<char>((i * 7 + i / 256) % 256);
  }
  const DrxfsResult cat = RunDrxfs({"cat", dir.WriteFile("binary", content)});
  EXPECT_EQ(cat.status, 0) << cat.err;
  EXPECT_TRUE(cat.out == content) << "different output of " << cat.out.size() << " bytes";
  const std::string big = dir.WriteFile("big", "");
  EXPECT_EQ(RunDrxfs({"write", big}, content).status, 0);
  EXPECT_TRUE(ReadWholeFile(big) == content);

  const std::string small = dir.WriteFile("small", "0123456789");
  EXPECT_EQ(RunDrxfs({"write", small}, "ab").status, 0);
  EXPECT_EQ(ReadWholeFile(small), "ab23456789");
  EXPECT_EQ(RunDrxfs({"write", dir / "missing"}, "x").status, 1);
  EXPECT_FALSE(std::filesystem::exists(dir / "missing"));
}

TEST(DrxfsCommandTest, MkdirAndEmptyLeaveWhatIsAlreadyAsAsked) {
  const TempDir dir;
  const std::string nested = dir / "a/b c/d";
  EXPECT_EQ(RunDrxfs({"mkdir", nested}).status, 0);
  dir.WriteFile("a/b c/d/sub/file", "y");
  dir.WriteFile("a/b c/d/.hidden", "z");
  EXPECT_EQ(RunDrxfs({"mkdir", nested}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(nested + "/sub/file"));

  EXPECT_EQ(RunDrxfs({"empty", nested}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(nested + "/.hidden"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(nested), {}), 1);
  const DrxfsResult again = RunDrxfs({"empty", nested});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "");
}

TEST(DrxfsCommandTest, TarListsMembersWithoutDirectoriesAndExtractsWithEitherRunner) {
  const TempDir dir;
  dir.WriteFile("src/a.txt", "alpha");
  dir.WriteFile("src/sub/b.txt", "beta");
  const std::string archive = dir / "archive.tar";
  // Members in this order: a.txt, sub/, sub/b.txt.
  const std::string command = "tar -cf '" + archive + "' -C '" + (dir / "src") + "' a.txt sub";
  ASSERT_EQ(std::system(command.c_str()), 0);
  for (const std::string runner : {"--streaming", "--streaming=false"}) {
    SCOPED_TRACE(runner);
    EXPECT_EQ(RunDrxfs({"tar", "list", runner, archive}).out, "a.txt\nsub/b.txt\n");
    const DrxfsResult json = RunDrxfs({"tar", "list", runner, "--json", archive});
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(nlohmann::json::parse(json.out),
              (nlohmann::json{{"archive", archive}, {"entries", {"a.txt", "sub/b.txt"}}}));

    const std::string out = dir.MakeDir("out" + runner);
    const DrxfsResult extracted = RunDrxfs({"tar", "extract", runner, archive, out});
    EXPECT_EQ(extracted.status, 0) << extracted.err;
    EXPECT_EQ(extracted.out + extracted.err, "");
    EXPECT_EQ(ReadWholeFile(out + "/a.txt"), "alpha");
    EXPECT_EQ(ReadWholeFile(out + "/sub/b.txt"), "beta");
  }
}

}  // namespace
}  // namespace drn
