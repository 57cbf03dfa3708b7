// Untar: checks of the archive and destination, the argument lists, the splitting of listings,
// and listing and extracting real archives with either runner.
#include "Untar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

#include "MockPath.h"
#include "MockTarApi.h"
#include "Path.h"
#include "StreamingTarApi.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using ::testing::_;
using testing::Described;
using ::testing::ElementsAre;
using ::testing::Return;
using Names = std::vector<std::string>;

std::shared_ptr<PathIF> ArchivePath() {
  auto path = std::make_shared<::testing::NiceMock<MockPath>>();
  ON_CALL(*path, DoExists()).WillByDefault(Return(true));
  ON_CALL(*path, DoGetPath()).WillByDefault(Return("the archive.tar"));
  return path;
}

class UntarTest : public ::testing::Test {
 protected:
  const testing::TempDir dir;
  const std::shared_ptr<MockTarApi> runner = std::make_shared<MockTarApi>();
  const testing::LogCapture log;
};

TEST_F(UntarTest, UnusablePathsGiveARecordAndRunNothing) {
  EXPECT_CALL(*runner, RunCmd(_)).Times(0);
  const std::string file = dir.WriteFile("file", "");
  const std::string missing = dir / "missing";
  const std::shared_ptr<Path> none;
  for (const auto& archive :
       {std::make_shared<Path>(missing), std::make_shared<Path>(dir.Path()), none}) {
    EXPECT_THAT([&] { Untar(archive, runner); },
                ::testing::ThrowsMessage<std::runtime_error>("Path is not a file"));
  }
  Untar untar(std::make_shared<Path>(file), runner);
  for (const auto& destination :
       {std::make_shared<Path>(missing), std::make_shared<Path>(file), none}) {
    EXPECT_EQ(untar.Extract(destination), -1);
  }
  const std::string noDirectory =
      "DoExtract 3/0x8027: specified path is not an existing directory: ";
  EXPECT_THAT(Described(log.Records()),
              ElementsAre("Impl 3/0x8027: path is not a file: " + missing,
                          "Impl 3/0x8027: path is not a file: " + dir.Path(),
                          "Impl 3/0x8027: path is not a file: ", noDirectory + missing,
                          noDirectory + file, noDirectory));
}

TEST_F(UntarTest, RunsTheExactCommandsAndGivesTheirFailures) {
  std::vector<Names> calls;
  EXPECT_CALL(*runner, RunCmd(_)).Times(2).WillRepeatedly([&](Names& args) {
    calls.push_back(args);
    return std::make_pair(std::string("bad\n"), 2);
  });
  Untar untar(ArchivePath(), runner);
  EXPECT_THAT(untar.FileList(), ::testing::IsEmpty());
  EXPECT_EQ(untar.Extract(std::make_shared<Path>(dir.Path() + "/")), 2);
  EXPECT_THAT(calls, ElementsAre(ElementsAre("-tf", "the archive.tar"),
                                 ElementsAre("--warning=no-timestamp", "-xf", "the archive.tar",
                                             "-C", dir.Path() + "/")));
  // The runner reports its own failures; Extract adds nothing.
  EXPECT_THAT(Described(log.Records()),
              ElementsAre("DoFileList 3/0x8027: Tar command failed: 2, bad\n"));
}

// tar's output, and the names listed from it.
class UntarListingTest : public ::testing::TestWithParam<std::pair<std::string, Names>> {};

TEST_P(UntarListingTest, KeepsFileLinesInOrder) {
  const auto runner = std::make_shared<::testing::NiceMock<MockTarApi>>();
  ON_CALL(*runner, RunCmd(_)).WillByDefault(Return(std::make_pair(GetParam().first, 0)));
  EXPECT_EQ(Untar(ArchivePath(), runner).FileList(), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Outputs, UntarListingTest,
                         ::testing::ValuesIn(std::vector<std::pair<std::string, Names>>{
                             {"./\n./a\n\n\ndir/\ndir/b\n", {"./a", "dir/b"}},
                             {"", {}},
                             {" a b \na\r\nd/\r\n a b \n", {" a b ", "a\r", "d/\r", " a b "}},
                             {std::string("a\0b\n", 4), {std::string("a\0b", 3)}}}));

// A real archive, listed and extracted by the real tar through either runner.
class UntarArchiveTest : public ::testing::TestWithParam<bool> {};

TEST_P(UntarArchiveTest, ListsAndExtractsARealArchive) {
  const testing::TempDir dir;
  dir.WriteFile("src/a.txt", "alpha");
  dir.WriteFile("src/name with blanks.txt", "blanks");
  dir.WriteFile("src/dir/nested/b.txt", "beta");
  dir.MakeDir("src/empty");
  const std::string archive = dir / "archive.tar";
  const std::string create = "tar --sort=name -cf '" + archive + "' -C '" + (dir / "src") +
                             "' a.txt dir empty 'name with blanks.txt'";
  ASSERT_EQ(std::system(create.c_str()), 0);
  const auto runner = GetParam() ? std::make_shared<StreamingTarApi>() : nullptr;
  Untar untar(std::make_shared<Path>(archive), runner);
  EXPECT_THAT(untar.FileList(), ElementsAre("a.txt", "dir/nested/b.txt", "name with blanks.txt"));
  // A destination text ending in a slash names the same directory.
  ASSERT_EQ(untar.Extract(std::make_shared<Path>(dir.MakeDir("out") + "/")), 0);
  EXPECT_EQ(testing::ListTree(dir / "out"), testing::ListTree(dir / "src"));
  EXPECT_EQ(testing::ReadWholeFile(dir / "out/dir/nested/b.txt"), "beta");
}

INSTANTIATE_TEST_SUITE_P(Runners, UntarArchiveTest, ::testing::Bool(),
                         [](const auto& info) { return info.param ? "Streaming" : "Default"; });

}  // namespace
}  // namespace drn
