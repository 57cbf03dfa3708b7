// Directory: creating and emptying real directories, hostile names, the tree walk, and the
// storage-usage queries against the real file system and a scripted statfs.
#include "Directory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "LinuxApi.h"
#include "MockSystemCallWrapper.h"
#include "Narrow.h"
#include "Path.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using ::testing::_;
using ::testing::DoAll;
using ::testing::ElementsAre;
using testing::ListTree;
using testing::LogCapture;
using ::testing::NiceMock;
using testing::ReadWholeFile;
using ::testing::Return;
using testing::RunUnprivileged;
using testing::ScopedEnvironmentVariable;
using testing::ScopedWorkingDirectory;
using ::testing::SetArgPointee;
using ::testing::StrEq;
using testing::TempDir;

Directory On(const std::string& text,
             std::shared_ptr<SystemCallWrapper> wrapper = std::make_shared<SystemCallWrapper>()) {
  return Directory(std::make_shared<Path>(text), std::move(wrapper));
}

void ExpectRecord(const LogRecord& record, LogLevel level, const char* function,
                  const std::string& text) {
  EXPECT_EQ(record.file, "common/lib/FileSystem/src/Directory.cpp");
  EXPECT_EQ(record.function, function);
  EXPECT_EQ(record.level, level);
  EXPECT_EQ(record.category, LogCategory::FileSystem);
  EXPECT_EQ(record.text, text);
}

// Files at three depths, dot-named files and directories, an empty directory, and links to a
// large file outside, to a directory outside and to the tree's own root: the links must be
// neither counted nor followed.
class DirectorySizeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    tree.WriteFile("top", std::string(100, 'a'));
    tree.WriteFile("one/file", std::string(20, 'b'));
    tree.WriteFile("one/two/three/deep", std::string(3, 'c'));
    tree.WriteFile(".hidden", std::string(4000, 'd'));
    tree.WriteFile(".dotdir/inner", std::string(50000, 'e'));
    tree.WriteFile("one/.x/..y", "f");
    tree.MakeDir("one/empty");
    const std::string large = outside.WriteFile("large", std::string(1 << 20, 'z'));
    std::filesystem::create_symlink(large, tree / "linkToLarge");
    std::filesystem::create_directory_symlink(outside.Path(), tree / "one/linkToOutside");
    std::filesystem::create_directory_symlink(tree.Path(), tree / "one/two/linkToRoot");
  }

  static constexpr std::uint64_t kTreeBytes = 100 + 20 + 3 + 4000 + 50000 + 1;
  static constexpr int kDirectories = 7;  // the root, one, two, three, .x, empty, .dotdir
  const TempDir outside;
  const TempDir tree;
};

TEST_F(DirectorySizeTest, SumsRegularFilesAtEveryDepth) {
  const LogCapture capture;
  const int descriptors = testing::CountOpenDescriptors();
  EXPECT_EQ(On(tree.Path()).GetDirectorySize(), kTreeBytes);
  EXPECT_EQ(On(tree.Path() + "/").GetDirectorySize(), kTreeBytes);
  EXPECT_EQ(On(tree / "one").GetDirectorySize(), 24u);
  EXPECT_EQ(testing::CountOpenDescriptors(), descriptors);
  EXPECT_TRUE(capture.Records().empty());
}

// Counts the directory streams opened and closed; everything else is the real call.
class CountingLinuxApi : public LinuxApi {
 public:
  struct Counts {
    int opened = 0;
    int closed = 0;
  };
  explicit CountingLinuxApi(std::shared_ptr<Counts> counts) : counts(std::move(counts)) {}

 protected:
  DIR* DoOpenDir(const char* path) override {
    ++counts->opened;
    return LinuxApi::DoOpenDir(path);
  }
  int DoCloseDir(DIR* dir) override {
    ++counts->closed;
    return LinuxApi::DoCloseDir(dir);
  }

 private:
  std::shared_ptr<Counts> counts;
};

TEST_F(DirectorySizeTest, ReadsThroughTheGivenInterfaceAndClosesEveryStream) {
  const auto counts = std::make_shared<CountingLinuxApi::Counts>();
  Directory directory(std::make_shared<Path>(tree.Path()),
                      std::make_unique<CountingLinuxApi>(counts), nullptr);
  EXPECT_EQ(directory.GetDirectorySize(), kTreeBytes);
  EXPECT_EQ(counts->opened, kDirectories);
  EXPECT_EQ(counts->closed, kDirectories);

  Directory ownInterface(std::make_shared<Path>(tree.Path()), nullptr, nullptr);
  EXPECT_EQ(ownInterface.GetDirectorySize(), kTreeBytes);
}

TEST_F(DirectorySizeTest, UnreadableSubtreeOnlyLowersTheSum) {
  ASSERT_EQ(::chmod((tree / "one").c_str(), 0), 0);
  const std::string root = tree.Path();
  EXPECT_EQ(RunUnprivileged([&root] { return On(root).GetDirectorySize() == kTreeBytes - 24; }), 0);
}

TEST(DirectorySizeEmptyTest, NothingToCountIsZero) {
  const TempDir dir;
  dir.MakeDir("empty");
  dir.MakeDir("onlyDirectories/a/b");
  dir.MakeDir("onlyDirectories/c");
  const std::string file = dir.WriteFile("file", "12345");
  const LogCapture capture;
  for (const std::string& text : {dir / "empty", dir / "onlyDirectories", dir / "missing", file}) {
    EXPECT_EQ(On(text).GetDirectorySize(), 0u) << text;
  }
  EXPECT_TRUE(capture.Records().empty());
}

TEST(DirectoryUsedSizeTest, MatchesTheFileSystemStatistics) {
  const TempDir dir;
  dir.WriteFile("data", std::string(1 << 16, 'x'));
  Directory directory = On(dir.Path());
  const auto usedNow = [&dir] {
    struct statfs stats {};
    EXPECT_EQ(::statfs(dir.Path().c_str(), &stats), 0);
    return (stats.f_blocks - stats.f_bfree) * static_cast<std::uint64_t>(stats.f_bsize);
  };
  // Other processes write to the same file system: retry until it holds still around the call.
  for (int attempt = 0; attempt < 100; ++attempt) {
    const std::uint64_t before = usedNow();
    const std::uint64_t used = directory.GetFileSystemUsedSize();
    if (used == before && usedNow() == before) {
      EXPECT_GT(used, 0u);
      return;
    }
  }
  FAIL() << "never matched the statistics of the file system";
}

TEST(DirectoryUsedSizeTest, FailingStatfsIsLogged) {
  const TempDir dir;
  {
    const LogCapture capture;
    EXPECT_EQ(On(dir / "missing").GetFileSystemUsedSize(), 0u);
    const auto records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    ExpectRecord(records[0], LogLevel::Error, "GetFileSystemUsedSize",
                 "failed to open path with " + std::to_string(ENOENT));
  }
  const LogCapture silent([](LogLevel level) { return level != LogLevel::Error; });
  EXPECT_EQ(On(dir / "missing").GetFileSystemUsedSize(), 0u);
  EXPECT_TRUE(silent.Records().empty());
}

// GetFileSystemUsedSize narrows the block size through this helper; a negative size cannot be
// produced by a real statfs, so the helper is exercised directly.
TEST(DirectoryUsedSizeDeathTest, NegativeBlockSizeEndsTheProcess) {
  EXPECT_EQ(NarrowOrTerminate<std::uint64_t>(4096L), 4096u);
  EXPECT_DEATH(NarrowOrTerminate<std::uint64_t>(-4096L), "narrowing_error");
}

constexpr const char* kCard = "/media/card";

std::shared_ptr<MockSystemCallWrapper> Reporting(fsblkcnt_t blocks, fsblkcnt_t freeBlocks,
                                                 long blockSize) {
  auto wrapper = std::make_shared<NiceMock<MockSystemCallWrapper>>();
  struct statfs stats {};
  stats.f_blocks = blocks;
  stats.f_bfree = freeBlocks;
  stats.f_bavail = 0;  // reserved blocks count as free: only f_bfree may be read
  stats.f_bsize = blockSize;
  EXPECT_CALL(*wrapper, statfs(StrEq(kCard), _))
      .WillOnce(DoAll(SetArgPointee<1>(stats), Return(0)));
  return wrapper;
}

struct PercentageCase {
  const char* name;
  fsblkcnt_t blocks;
  fsblkcnt_t freeBlocks;
  long blockSize;
  int expected;
};

void PrintTo(const PercentageCase& value, std::ostream* os) {
  *os << value.blocks << " blocks, " << value.freeBlocks << " free, " << value.blockSize
      << " bytes each -> " << value.expected;
}

class DirectoryPercentageTest : public ::testing::TestWithParam<PercentageCase> {};

TEST_P(DirectoryPercentageTest, ScalesTheUsedShareBy102) {
  const PercentageCase& c = GetParam();
  const LogCapture capture;
  EXPECT_EQ(On(kCard, Reporting(c.blocks, c.freeBlocks, c.blockSize)).GetPercentageUsed(),
            c.expected);
  EXPECT_TRUE(capture.Records().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Statistics, DirectoryPercentageTest,
    ::testing::Values(PercentageCase{"QuarterUsed", 100, 75, 4096, 25},
                      PercentageCase{"QuarterFree", 100, 25, 4096, 76},
                      PercentageCase{"HalfUsed", 100, 50, 4096, 51},
                      PercentageCase{"NinetyEightPercent", 10000, 200, 4096, 99},
                      PercentageCase{"NinetyEightPointZeroFour", 10000, 196, 4096, 100},
                      PercentageCase{"AllUsed", 100, 0, 4096, 100},
                      PercentageCase{"NoneUsed", 100, 100, 4096, 0},
                      PercentageCase{"MoreFreeThanBlocks", 100, 101, 4096, 0},
                      PercentageCase{"LargeCardHalfUsed", 31116288, 15558144, 4096, 51},
                      PercentageCase{"ByteBlocks", 1000, 900, 1, 10}),
    [](const ::testing::TestParamInfo<PercentageCase>& info) { return info.param.name; });

TEST(DirectoryPercentageRecordTest, ZeroTotalIsCritical) {
  const LogCapture capture;
  EXPECT_EQ(On(kCard, Reporting(0, 0, 4096)).GetPercentageUsed(), 0);
  const auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  ExpectRecord(records[0], LogLevel::Critical, "GetPercentageUsed",
               "Total size of uSD card came back as 0");
}

TEST(DirectoryPercentageRecordTest, NegativeBlockSizeIsCaught) {
  const LogCapture capture;
  EXPECT_EQ(On(kCard, Reporting(100, 50, -4096)).GetPercentageUsed(), 0);
  const auto records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  ExpectRecord(records[0], LogLevel::Error, "GetPercentageUsed", "failed to cast with gsl narrow ");
}

TEST(DirectoryPercentageRecordTest, FailingStatfsNamesPathAndError) {
  const auto failing = [] {
    auto wrapper = std::make_shared<NiceMock<MockSystemCallWrapper>>();
    EXPECT_CALL(*wrapper, statfs(StrEq(kCard), _)).WillOnce([](const char*, struct statfs*) {
      errno = EACCES;
      return -1;
    });
    return wrapper;
  };
  {
    const LogCapture capture;
    EXPECT_EQ(On(kCard, failing()).GetPercentageUsed(), 0);
    const auto records = capture.Records();
    ASSERT_EQ(records.size(), 1u);
    ExpectRecord(records[0], LogLevel::Error, "GetPercentageUsed",
                 std::string("failed to open /media/card with ") + std::strerror(EACCES) + "(" +
                     std::to_string(EACCES) + ")");
  }
  const LogCapture silent([](LogLevel level) { return level != LogLevel::Error; });
  EXPECT_EQ(On(kCard, failing()).GetPercentageUsed(), 0);
  EXPECT_TRUE(silent.Records().empty());
}

TEST(DirectoryWithoutCollaboratorsTest, AnswersWithFailureValues) {
  const TempDir dir;
  dir.WriteFile("f", "abc");
  Directory noPath;
  EXPECT_FALSE(noPath.CreateDirectory());
  EXPECT_FALSE(noPath.EmptyDirectory());
  EXPECT_EQ(noPath.GetDirectorySize(), 0u);
  EXPECT_EQ(noPath.GetFileSystemUsedSize(), 0u);
  EXPECT_EQ(noPath.GetPercentageUsed(), 0);

  Directory noWrapper = On(dir.Path(), nullptr);
  EXPECT_EQ(noWrapper.GetPercentageUsed(), 0);
  EXPECT_EQ(noWrapper.GetDirectorySize(), 3u);
}

TEST(DirectoryCreateTest, MakesEveryMissingLevel) {
  const TempDir dir;
  EXPECT_TRUE(On(dir / "a/b/c").CreateDirectory());
  EXPECT_TRUE(std::filesystem::is_directory(dir / "a/b/c"));
  EXPECT_TRUE(On(dir / "x/y/").CreateDirectory());
  EXPECT_TRUE(std::filesystem::is_directory(dir / "x/y"));
  const std::string file = dir.WriteFile("file", "kept");
  EXPECT_FALSE(On(file).CreateDirectory());
  EXPECT_EQ(ReadWholeFile(file), "kept");
}

TEST(DirectoryEmptyTest, RemovesAllButDotNamedEntries) {
  const TempDir dir;
  for (const char* name : {"d/file", "d/sub/deeper/file", "d/.hidden", "d/.dotdir/inner"}) {
    dir.WriteFile(name, "x");
  }
  const std::vector<std::string> dotEntries{".dotdir", ".dotdir/inner", ".hidden"};
  EXPECT_TRUE(On(dir / "d").EmptyDirectory());
  EXPECT_EQ(ListTree(dir / "d"), dotEntries);
  // Only dot-named entries left: the pattern matches nothing, rm fails and nothing goes.
  EXPECT_FALSE(On(dir / "d").EmptyDirectory());
  EXPECT_EQ(ListTree(dir / "d"), dotEntries);

  dir.WriteFile("d/again", "x");
  EXPECT_TRUE(On(dir / "d/").EmptyDirectory());
  EXPECT_EQ(ListTree(dir / "d"), dotEntries);
}

TEST(DirectoryEmptyTest, NothingToRemoveIsFalse) {
  const TempDir dir;
  const std::string file = dir.WriteFile("file", "kept");
  EXPECT_FALSE(On(dir.MakeDir("empty")).EmptyDirectory());
  EXPECT_FALSE(On(dir / "missing").EmptyDirectory());
  EXPECT_FALSE(On(file).EmptyDirectory());
  EXPECT_EQ(ReadWholeFile(file), "kept");
}

// Replaces mkdir and rm on PATH by scripts that log their name and arguments, one call a line
// with each word followed by '|', and succeed: shows what reached the commands and whether they
// ran at all.
class DirectoryCommandTest : public ::testing::Test {
 protected:
  void SetUp() override {
    for (const char* name : {"mkdir", "rm"}) {
      const std::string script =
          bin.WriteFile(name, "#!/bin/sh\nprintf '%s|' \"${0##*/}\" \"$@\" >> " + log +
                                  "\necho >> " + log + "\n");
      ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
    }
    path.emplace("PATH", bin.Path());
  }
  std::string Calls() const { return ReadWholeFile(log); }

  const TempDir bin;
  const TempDir dir;
  const std::string log = bin / "log";
  std::optional<ScopedEnvironmentVariable> path;
};

TEST_F(DirectoryCommandTest, PathReachesTheCommandAsOneWord) {
  EXPECT_TRUE(On(dir / "new").CreateDirectory());
  EXPECT_TRUE(On(dir / "it's a $(name)").CreateDirectory());
  dir.WriteFile("full/x", "");
  EXPECT_TRUE(On(dir / "full").EmptyDirectory());
  EXPECT_TRUE(On(dir / "full/").EmptyDirectory());
  const std::string d = dir.Path();
  EXPECT_EQ(Calls(), "mkdir|-p|" + d + "/new|\nmkdir|-p|" + d + "/it's a $(name)|\nrm|-r|" + d +
                         "/full/x|\nrm|-r|" + d + "/full/x|\n");
}

TEST_F(DirectoryCommandTest, NothingRunsWhenTheAnswerIsKnown) {
  const std::string file = dir.WriteFile("file", "");
  EXPECT_TRUE(On(dir.Path()).CreateDirectory());
  EXPECT_FALSE(On(file).CreateDirectory());
  EXPECT_FALSE(On(file).EmptyDirectory());
  EXPECT_FALSE(On(dir / "missing").EmptyDirectory());
  Directory noPath;
  EXPECT_FALSE(noPath.CreateDirectory());
  EXPECT_FALSE(noPath.EmptyDirectory());
  EXPECT_EQ(Calls(), "");
}

TEST(DirectoryRefusedPathTest, LeadingDashOrNulRunsNothing) {
  const TempDir root;
  const ScopedWorkingDirectory workingDirectory(root.Path());
  root.WriteFile("-rf/inner", "x");
  root.WriteFile("a/inner", "x");
  const auto before = ListTree(root.Path());
  for (const std::string& text : {std::string("-rf"), std::string("-new"), std::string("--"),
                                  std::string("a\0b", 3), std::string("a\0/../-rf", 9)}) {
    Directory directory = On(text);
    EXPECT_FALSE(directory.CreateDirectory());
    EXPECT_FALSE(directory.EmptyDirectory());
  }
  EXPECT_EQ(ListTree(root.Path()), before);
}

// Names relative to a working directory that holds look-alike siblings: any word of the name
// the shell split off, any command it ran, and any pattern it expanded would show outside.
class DirectoryHostileNameTest : public ::testing::TestWithParam<const char*> {};

TEST_P(DirectoryHostileNameTest, ActsOnlyInsideTheNamedDirectory) {
  const TempDir root;
  const ScopedWorkingDirectory workingDirectory(root.Path());
  for (const char* sibling :
       {"dir/inner", "a/inner", "semi/inner", "new/inner", "x/inner", "keep"}) {
    root.WriteFile(sibling, "x");
  }
  const std::string name = GetParam();
  const auto before = ListTree(root.Path());

  Directory directory = On(name);
  ASSERT_TRUE(directory.CreateDirectory());
  ASSERT_TRUE(std::filesystem::is_directory(name));
  for (const char* entry : {"file", "sub/inner", ".hidden"}) {
    root.WriteFile(name + "/" + entry, "x");
  }
  EXPECT_TRUE(directory.EmptyDirectory());
  EXPECT_THAT(ListTree(name), ElementsAre(".hidden"));

  const std::string top = name.substr(0, name.find('/'));
  auto after = ListTree(root.Path());
  after.erase(std::remove_if(after.begin(), after.end(),
                             [&top](const std::string& entry) {
                               return entry == top || entry.rfind(top + "/", 0) == 0;
                             }),
              after.end());
  EXPECT_EQ(after, before);
}

INSTANTIATE_TEST_SUITE_P(Names, DirectoryHostileNameTest,
                         ::testing::Values("a b", "it's", "say \"x\"", "semi;touch PWNED",
                                           "semi; rm -r dir", "$(touch PWNED)", "`touch PWNED`",
                                           "dir *", "*", "new\nline", "x|touch PWNED",
                                           "x&&touch PWNED", "x>PWNED", "~", "$HOME", "back\\slash",
                                           "tab\there", "glob?[d]", "ends in slash/",
                                           "a b/$(touch PWNED)/'deep'"));

}  // namespace
}  // namespace drn
