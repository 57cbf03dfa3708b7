// Untar: checks of the archive and destination, the argument lists and the splitting of
// listings (real archives go through it in the drxfs and AtomicUntar tests).
#include "Untar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

#include "MockPath.h"
#include "MockTarApi.h"
#include "Path.h"
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
  std::vector<std::string> expected;
  for (const std::string& path : {dir / "missing", dir.Path(), std::string()}) {
    const auto archive = path.empty() ? nullptr : std::make_shared<Path>(path);
    EXPECT_THAT([&] { Untar(archive, runner); },
                ::testing::ThrowsMessage<std::runtime_error>("Path is not a file"));
    expected.push_back("Impl 3/0x8027: path is not a file: " + path);
  }
  Untar untar(std::make_shared<Path>(file), runner);
  for (const std::string& path : {dir / "missing", file, std::string()}) {
    EXPECT_EQ(untar.Extract(path.empty() ? nullptr : std::make_shared<Path>(path)), -1);
    expected.push_back("DoExtract 3/0x8027: specified path is not an existing directory: " + path);
  }
  EXPECT_THAT(Described(log.Records()), ::testing::ElementsAreArray(expected));
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

}  // namespace
}  // namespace drn
