// Directory: the tree walk, the storage queries against the real file system and a scripted
// statfs, and the commands that create and empty a directory, under hostile names too.
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
#include <ostream>
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

using testing::LogCapture;
using testing::TempDir;
using Entries = std::vector<std::string>;

Directory On(const std::string& text,
             std::shared_ptr<SystemCallWrapper> wrapper = std::make_shared<SystemCallWrapper>()) {
  return Directory(std::make_shared<Path>(text), std::move(wrapper));
}

// Files at three depths, dot-named files and directories, an empty directory, and links to a
// large file and to a directory outside: the links are neither counted nor followed, and a
// subtree the caller may not read counts 0 while the rest still adds up.
TEST(DirectorySizeTest, SumsTheRegularFilesBelow) {
  const TempDir tree;
  if (testing::OnFat(tree.Path())) {
    GTEST_SKIP() << "FAT has no symbolic links";
  }
  const TempDir outside;
  tree.WriteFile("top", std::string(100, 'a'));
  tree.WriteFile("one/two/three/deep", std::string(20, 'c'));
  tree.WriteFile(".dotdir/..y", std::string(4000, 'e'));
  const std::string empty = tree.MakeDir("one/empty");
  std::filesystem::create_symlink(outside.WriteFile("large", std::string(1 << 20, 'z')),
                                  tree / "linkToLarge");
  std::filesystem::create_directory_symlink(outside.Path(), tree / "one/linkToOutside");
  constexpr std::uint64_t kTreeBytes = 100 + 20 + 4000;

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
  EXPECT_EQ(Directory(std::move(ownLayer)).GetDirectorySize(), kTreeBytes);
  EXPECT_EQ(testing::CountOpenDescriptors(), descriptors) << "a directory stream stayed open";
  EXPECT_TRUE(capture.Records().empty());
  ASSERT_EQ(::chmod((tree / "one").c_str(), 0), 0);
  EXPECT_EQ(testing::RunUnprivileged(
                [&tree] { return On(tree.Path()).GetDirectorySize() == kTreeBytes - 20; }),
            0);
  // Without a path every operation fails; without a wrapper the fill level does.
  Directory noPath;
  EXPECT_FALSE(noPath.CreateDirectory() || noPath.EmptyDirectory());
  EXPECT_EQ(noPath.GetDirectorySize() + noPath.GetFileSystemUsedSize(), 0u);
  EXPECT_EQ(noPath.GetPercentageUsed() + On("/", nullptr).GetPercentageUsed(), 0);
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

// A name, whether CreateDirectory and then (with a file, a subdirectory and a dot-named file put
// inside when it is a directory) EmptyDirectory succeed, and the commands that ran.
struct CommandCase {
  std::string name;
  bool created;
  bool emptied;
  std::string commands;  // each word followed by '|', one command a line
};

void PrintTo(const CommandCase& c, std::ostream* os) {
  *os << ::testing::PrintToString(c.name);
}

// Both commands ran, each with the name as one word.
CommandCase Made(const std::string& name) {
  return {name, true, true, "mkdir|-p|" + name + "|\nrm|-r|" + name + "/file|" + name + "/sub|\n"};
}

// Stand-ins for mkdir and rm, alone on PATH, log their words (mkdir then runs the real one; rm
// removes nothing), in a working directory that holds a file and a directory whose name begins
// with '-', with HOME inside it: any word of the name the shell split off, any command it ran,
// and any pattern, variable or '~' it expanded would show in the log.
class DirectoryCommandTest : public ::testing::TestWithParam<CommandCase> {
 protected:
  void TearDown() override { std::filesystem::current_path(previous); }

  const std::filesystem::path previous = std::filesystem::current_path();
  const TempDir root;
  const testing::ScopedEnvironmentVariable home{"HOME", root / "home"};
  const testing::FakeProgramDir programs{testing::FakeProgramDir::Search::Only};
};

TEST_P(DirectoryCommandTest, PassesTheNameAsOneWordAndOnlyWhenNeeded) {
  const CommandCase& c = GetParam();
  if (testing::OnFat(root.Path()) && std::any_of(c.name.begin(), c.name.end(), [](char ch) {
        return ch < ' ' || std::strchr("\"*:<>?\\|", ch) != nullptr;
      })) {
    GTEST_SKIP() << "FAT refuses control characters and any of \"*:<>?\\| in names";
  }
  const std::string log = programs.Dir() / "log";
  const std::string logWords = "printf '%s|' \"${0##*/}\" \"$@\" >> " + log + "; echo >> " + log;
  programs.AddScript("mkdir", logWords + "; exec /bin/mkdir \"$@\"");
  programs.AddScript("rm", logWords);
  root.WriteFile("file", "x");
  root.MakeDir("-rf");
  std::filesystem::current_path(root.Path());
  EXPECT_EQ(On(c.name).CreateDirectory(), c.created);
  for (const char* entry : {"/file", "/sub/inner", "/.hidden"}) {
    if (c.emptied) {
      root.WriteFile(c.name + entry, "x");
    }
  }
  EXPECT_EQ(On(c.name).EmptyDirectory(), c.emptied);
  EXPECT_EQ(testing::ReadWholeFile(log), c.commands);
}

// An existing entry is answered before any rule for command lines applies; a leading '-' would
// be read as options, a NUL would cut the command short; a trailing '/' takes the pattern
// without another.
INSTANTIATE_TEST_SUITE_P(
    Names, DirectoryCommandTest,
    ::testing::Values(Made("fresh"),
                      CommandCase{"fresh/", true, true,
                                  "mkdir|-p|fresh/|\nrm|-r|fresh/file|fresh/sub|\n"},
                      CommandCase{"-rf", true, false, ""}, CommandCase{"file", false, false, ""},
                      CommandCase{"-new", false, false, ""}, CommandCase{"--", false, false, ""},
                      CommandCase{std::string("b\0c", 3), false, false, ""}, Made("it's"),
                      Made("say \"x\""), Made("semi; rm -r dir"), Made("`touch PWNED`"),
                      Made("dir *"), Made("new\nline"), Made("x|touch PWNED"), Made("~"),
                      Made("$HOME"), Made("back\\slash"), Made("glob?[d]"),
                      Made("a b/$(touch PWNED)/'deep'")));

}  // namespace
}  // namespace drn
