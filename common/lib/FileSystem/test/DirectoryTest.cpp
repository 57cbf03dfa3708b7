// Directory: creating and emptying real directories, the commands that do it, hostile names, the
// tree walk, and the storage-usage queries against the real file system and a scripted statfs.
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
#include <string>
#include <utility>
#include <vector>

#include "FakeProgramDir.h"
#include "MockSystemCallWrapper.h"
#include "Narrow.h"
#include "Path.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using testing::ListTree;
using testing::LogCapture;
using testing::TempDir;
using Entries = std::vector<std::string>;

Directory On(const std::string& text,
             std::shared_ptr<SystemCallWrapper> wrapper = std::make_shared<SystemCallWrapper>()) {
  return Directory(std::make_shared<Path>(text), std::move(wrapper));
}

// Files at three depths, dot-named files and directories, an empty directory, and links to a
// large file and to a directory outside: the links must be neither counted nor followed.
TEST(DirectorySizeTest, SumsTheRegularFilesBelow) {
  const TempDir tree;
  if (testing::OnFat(tree.Path())) {
    GTEST_SKIP() << "FAT has no symbolic links";
  }
  const TempDir outside;
  tree.WriteFile("top", std::string(100, 'a'));
  tree.WriteFile("one/file", std::string(20, 'b'));
  tree.WriteFile("one/two/three/deep", std::string(3, 'c'));
  tree.WriteFile(".hidden", std::string(4000, 'd'));
  tree.WriteFile(".dotdir/..y", std::string(50000, 'e'));
  const std::string empty = tree.MakeDir("one/empty");
  const std::string large = outside.WriteFile("large", std::string(1 << 20, 'z'));
  std::filesystem::create_symlink(large, tree / "linkToLarge");
  std::filesystem::create_directory_symlink(outside.Path(), tree / "one/linkToOutside");
  constexpr std::uint64_t kTreeBytes = 100 + 20 + 3 + 4000 + 50000;

  const LogCapture capture;
  const int descriptors = testing::CountOpenDescriptors();
  EXPECT_EQ(On(tree.Path()).GetDirectorySize(), kTreeBytes);
  EXPECT_EQ(On(tree.Path() + "/").GetDirectorySize(), kTreeBytes);
  for (const std::string& nothing : {empty, tree / "missing", tree / "top"}) {
    EXPECT_EQ(On(nothing).GetDirectorySize(), 0u) << nothing;
  }
  // Given no system-call layer, the three-argument constructor makes its own; a move keeps it.
  Directory ownLayer(std::make_shared<Path>(tree.Path()), nullptr,
                     std::make_shared<SystemCallWrapper>());
  Directory moved(std::move(ownLayer));
  EXPECT_EQ(moved.GetDirectorySize(), kTreeBytes);
  EXPECT_EQ(testing::CountOpenDescriptors(), descriptors) << "a directory stream stayed open";
  EXPECT_TRUE(capture.Records().empty());

  // A subtree the caller may not read counts 0; the rest still adds up.
  ASSERT_EQ(::chmod((tree / "one").c_str(), 0), 0);
  EXPECT_EQ(testing::RunUnprivileged(
                [&tree] { return On(tree.Path()).GetDirectorySize() == kTreeBytes - 23; }),
            0);
}

TEST(DirectoryUsedSizeTest, MatchesTheFileSystemStatisticsOrLogsTheFailure) {
  const TempDir dir;
  dir.WriteFile("data", std::string(1 << 16, 'x'));
  const auto usedNow = [&dir] {
    struct statfs stats {};
    EXPECT_EQ(::statfs(dir.Path().c_str(), &stats), 0);
    return (stats.f_blocks - stats.f_bfree) * static_cast<std::uint64_t>(stats.f_bsize);
  };
  // Other processes write to the same file system: retry until it holds still around the call.
  bool matched = false;
  for (int attempt = 0; attempt < 100 && !matched; ++attempt) {
    const std::uint64_t before = usedNow();
    matched = On(dir.Path()).GetFileSystemUsedSize() == before && before > 0 && usedNow() == before;
  }
  EXPECT_TRUE(matched) << "never matched the statistics of the file system";

  const LogCapture capture;
  EXPECT_EQ(On(dir / "missing").GetFileSystemUsedSize(), 0u);
  EXPECT_EQ(testing::Described(capture.Records()),
            Entries{"GetFileSystemUsedSize 3/0x8010: failed to open path with 2"});  // ENOENT
}

// GetFileSystemUsedSize narrows the block size through this helper; a negative size cannot be
// produced by a real statfs, so the helper is exercised directly.
TEST(DirectoryUsedSizeDeathTest, NegativeBlockSizeEndsTheProcess) {
  EXPECT_EQ(NarrowOrTerminate<std::uint64_t>(4096L), 4096u);
  EXPECT_DEATH(NarrowOrTerminate<std::uint64_t>(-4096L), "narrowing_error");
}

struct PercentageCase {
  fsblkcnt_t blocks;
  fsblkcnt_t freeBlocks;
  long blockSize;
  int error;  // statfs fails with this errno; 0 for success
  int expected;
  const char* record;  // the one record expected after "GetPercentageUsed ", or "" for none
};

class DirectoryPercentageTest : public ::testing::TestWithParam<PercentageCase> {};

TEST_P(DirectoryPercentageTest, ScalesTheUsedShareBy102) {
  const PercentageCase& c = GetParam();
  auto wrapper = std::make_shared<MockSystemCallWrapper>();
  EXPECT_CALL(*wrapper, statfs(::testing::StrEq("/sd"), ::testing::_))
      .WillOnce([&c](const char*, struct statfs* stats) {
        stats->f_blocks = c.blocks;
        stats->f_bfree = c.freeBlocks;
        stats->f_bavail = 0;  // reserved blocks count as free: only f_bfree may be read
        stats->f_bsize = c.blockSize;
        errno = c.error;
        return c.error == 0 ? 0 : -1;
      });
  const LogCapture capture;
  EXPECT_EQ(On("/sd", wrapper).GetPercentageUsed(), c.expected);
  EXPECT_EQ(testing::Described(capture.Records()),
            Entries(*c.record ? 1 : 0, std::string("GetPercentageUsed ") + c.record));
}

INSTANTIATE_TEST_SUITE_P(Statistics, DirectoryPercentageTest,
                         ::testing::ValuesIn(std::vector<PercentageCase>{
                             {10000, 196, 4096, 0, 100, ""},
                             {100, 101, 4096, 0, 0, ""},
                             {31116288, 15558144, 4096, 0, 51, ""},
                             {0, 0, 4096, 0, 0, "2/0x8010: Total size of uSD card came back as 0"},
                             {100, 50, -4096, 0, 0, "3/0x8010: failed to cast with gsl narrow "},
                             {100, 50, 4096, EACCES, 0,
                              "3/0x8010: failed to open /sd with Permission denied(13)"}}));

// Stand-in mkdir and rm log their name and arguments (each word followed by '|', one call a
// line) and succeed: the log shows exactly what ran, and that nothing ran where the answer was
// known without a command or the name was refused.
TEST(DirectoryCommandTest, PassesThePathAsOneWordAndOnlyWhenNeeded) {
  const testing::FakeProgramDir programs;
  const std::string log = programs.Dir() / "log";
  for (const char* name : {"mkdir", "rm"}) {
    programs.AddScript(name, "printf '%s|' \"${0##*/}\" \"$@\" >> " + log + "\necho >> " + log);
  }
  const TempDir dir;
  const testing::ScopedWorkingDirectory workingDirectory(dir.Path());
  dir.WriteFile("file", "");
  dir.WriteFile("full/x", "");
  dir.WriteFile("-rf/inner", "");
  EXPECT_TRUE(On("new").CreateDirectory());
  EXPECT_TRUE(On("it's a $(name)").CreateDirectory());
  EXPECT_TRUE(On("full").EmptyDirectory());
  EXPECT_TRUE(On("full/").EmptyDirectory());
  EXPECT_TRUE(On(dir.Path()).CreateDirectory());
  EXPECT_FALSE(On("missing").EmptyDirectory());
  // An existing directory is answered before any rule for command lines applies (a NUL ends the
  // text the file system sees).
  EXPECT_TRUE(On("-rf").CreateDirectory());
  EXPECT_FALSE(On("-rf").EmptyDirectory());
  EXPECT_TRUE(On(std::string("full\0/../-rf", 12)).CreateDirectory());
  // Not a directory; a leading '-' would be read as options; a NUL would cut the command short.
  for (const std::string& refused :
       {std::string("file"), std::string("-new"), std::string("--"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(On(refused).CreateDirectory()) << refused;
    EXPECT_FALSE(On(refused).EmptyDirectory()) << refused;
  }
  EXPECT_FALSE(On(std::string("full\0/../-rf", 12)).EmptyDirectory());
  // Without a path every operation fails; without a wrapper the fill level does.
  Directory noPath;
  EXPECT_FALSE(noPath.CreateDirectory());
  EXPECT_FALSE(noPath.EmptyDirectory());
  EXPECT_EQ(noPath.GetDirectorySize(), 0u);
  EXPECT_EQ(noPath.GetFileSystemUsedSize(), 0u);
  EXPECT_EQ(noPath.GetPercentageUsed(), 0);
  EXPECT_EQ(On(dir.Path(), nullptr).GetPercentageUsed(), 0);
  EXPECT_EQ(testing::ReadWholeFile(log),
            "mkdir|-p|new|\nmkdir|-p|it's a $(name)|\nrm|-r|full/x|\nrm|-r|full/x|\n");
}

// Names relative to a working directory that holds look-alike siblings and the home directory:
// any word of the name the shell split off, any command it ran, and any pattern, variable or
// '~' it expanded would show outside.
class DirectoryHostileNameTest : public ::testing::TestWithParam<const char*> {};

TEST_P(DirectoryHostileNameTest, CreatesAndEmptiesOnlyTheNamedDirectory) {
  const TempDir root;
  const testing::ScopedWorkingDirectory workingDirectory(root.Path());
  const testing::ScopedEnvironmentVariable home("HOME", root / "home");
  for (const char* sibling : {"dir/f", "a/f", "semi/f", "new/f", "x/f", "home/f", "keep"}) {
    root.WriteFile(sibling, "x");
  }
  const std::string name = GetParam();
  if (testing::OnFat(root.Path()) && std::any_of(name.begin(), name.end(), [](char c) {
        return c < ' ' || std::strchr("\"*:<>?\\|", c) != nullptr;
      })) {
    GTEST_SKIP() << "FAT refuses control characters and any of \"*:<>?\\| in names";
  }
  const Entries before = ListTree(root.Path());
  ASSERT_TRUE(On(name).CreateDirectory());
  EXPECT_FALSE(On(name).EmptyDirectory());  // the pattern matches nothing: rm fails
  for (const char* entry : {"/file", "/sub/inner", "/.hidden", "/.dot/f"}) {
    root.WriteFile(name + entry, "x");
  }
  EXPECT_TRUE(On(name).EmptyDirectory());
  EXPECT_FALSE(On(name).EmptyDirectory());  // only dot-named entries left, and they stay
  EXPECT_EQ(ListTree(name), (Entries{".dot", ".dot/f", ".hidden"}));
  std::filesystem::remove_all(name.substr(0, name.find('/')));
  EXPECT_EQ(ListTree(root.Path()), before);
}

INSTANTIATE_TEST_SUITE_P(Names, DirectoryHostileNameTest,
                         ::testing::Values("it's", "say \"x\"", "semi; rm -r dir", "`touch PWNED`",
                                           "dir *", "new\nline", "x|touch PWNED", "~", "$HOME",
                                           "back\\slash", "glob?[d]", "a b/$(touch PWNED)/'deep'"));

}  // namespace
}  // namespace drn
