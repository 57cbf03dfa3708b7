// Untar: checks of the archive and destination, the argument lists, the splitting of listings,
// and listing and extracting real archives with either runner.
#include "Untar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

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
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using testing::LogCapture;
using ::testing::NiceMock;
using ::testing::Return;
using testing::TempDir;

std::shared_ptr<PathIF> ArchivePath(const char* text = "the archive.tar") {
  auto path = std::make_shared<NiceMock<MockPath>>();
  ON_CALL(*path, DoExists()).WillByDefault(Return(true));
  ON_CALL(*path, DoIsDirectory()).WillByDefault(Return(false));
  ON_CALL(*path, DoGetPath()).WillByDefault(Return(text));
  return path;
}

class UntarTest : public ::testing::Test {
 protected:
  const std::shared_ptr<MockTarApi> runner = std::make_shared<MockTarApi>();
  const TempDir dir;
  const LogCapture log;
};

TEST_F(UntarTest, UnusableArchiveThrowsAfterOneRecord) {
  const std::string file = dir.WriteFile("file", "");
  const std::vector<std::pair<std::shared_ptr<PathIF>, std::string>> archives = {
      {std::make_shared<Path>(dir / "missing"), dir / "missing"},
      {std::make_shared<Path>(dir.Path()), dir.Path()},
      {nullptr, ""}};
  EXPECT_CALL(*runner, RunCmd(_)).Times(0);
  for (const auto& archive : archives) {
    const LogCapture records;
    EXPECT_THAT([&] { Untar(archive.first, runner); },
                ::testing::ThrowsMessage<std::runtime_error>("Path is not a file"));
    EXPECT_THAT(Described(records.Records()),
                ElementsAre("Impl 3/0x8027: path is not a file: " + archive.second));
  }
  EXPECT_NO_THROW(Untar(std::make_shared<Path>(file), runner));
}

TEST_F(UntarTest, ListsAndExtractsThroughTheGivenRunner) {
  std::vector<std::vector<std::string>> calls;
  EXPECT_CALL(*runner, RunCmd(_)).Times(2).WillRepeatedly([&](std::vector<std::string>& args) {
    calls.push_back(args);
    return std::make_pair(std::string(), 0);
  });
  Untar untar(ArchivePath(), runner);
  EXPECT_THAT(untar.FileList(), IsEmpty());
  EXPECT_EQ(untar.Extract(std::make_shared<Path>(dir.Path() + "/")), 0);
  EXPECT_THAT(calls, ElementsAre(ElementsAre("-tf", "the archive.tar"),
                                 ElementsAre("--warning=no-timestamp", "-xf", "the archive.tar",
                                             "-C", dir.Path() + "/")));
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_F(UntarTest, ExtractIntoNoDirectoryRunsNothing) {
  const std::string file = dir.WriteFile("file", "");
  EXPECT_CALL(*runner, RunCmd(_)).Times(0);
  Untar untar(ArchivePath(), runner);
  for (const std::string& text : {dir / "missing", file}) {
    EXPECT_EQ(untar.Extract(std::make_shared<Path>(text)), -1) << text;
  }
  EXPECT_EQ(untar.Extract(nullptr), -1);
  EXPECT_THAT(
      Described(log.Records()),
      ElementsAre(
          "DoExtract 3/0x8027: specified path is not an existing directory: " + (dir / "missing"),
          "DoExtract 3/0x8027: specified path is not an existing directory: " + file,
          "DoExtract 3/0x8027: specified path is not an existing directory: "));
}

TEST_F(UntarTest, FailedRunsGiveTheStatusAndNoList) {
  EXPECT_CALL(*runner, RunCmd(_))
      .WillOnce(Return(std::make_pair(std::string("bad\n"), 2)))
      .WillOnce(Return(std::make_pair(std::string(), -EMFILE)))
      .WillOnce(Return(std::make_pair(std::string("ignored"), 2)))
      .WillOnce(Return(std::make_pair(std::string(), -EMFILE)));
  Untar untar(ArchivePath(), runner);
  EXPECT_THAT(untar.FileList(), IsEmpty());
  EXPECT_THAT(untar.FileList(), IsEmpty());
  EXPECT_EQ(untar.Extract(std::make_shared<Path>(dir.Path())), 2);
  EXPECT_EQ(untar.Extract(std::make_shared<Path>(dir.Path())), -EMFILE);
  // The runner reports its own failures; Extract adds nothing.
  EXPECT_THAT(Described(log.Records()),
              ElementsAre("DoFileList 3/0x8027: Tar command failed: 2, bad\n",
                          "DoFileList 3/0x8027: Tar command failed: -24, "));
}

struct ListingCase {
  const char* name;
  std::string output;
  std::vector<std::string> names;
};

void PrintTo(const ListingCase& value, std::ostream* os) {
  *os << value.name;
}

class UntarListingTest : public ::testing::TestWithParam<ListingCase> {};

TEST_P(UntarListingTest, KeepsFileLinesInOrder) {
  const auto runner = std::make_shared<NiceMock<MockTarApi>>();
  ON_CALL(*runner, RunCmd(_)).WillByDefault(Return(std::make_pair(GetParam().output, 0)));
  EXPECT_THAT(Untar(ArchivePath(), runner).FileList(), ElementsAreArray(GetParam().names));
}

INSTANTIATE_TEST_SUITE_P(
    Outputs, UntarListingTest,
    ::testing::Values(ListingCase{"nested", "a\ndir/\ndir/b\n", {"a", "dir/b"}},
                      ListingCase{"noFinalNewline", "a\nb", {"a", "b"}},
                      ListingCase{"empty", "", {}}, ListingCase{"onlyNewlines", "\n\n\n", {}},
                      ListingCase{"dotSlash", "./\n./a\n./d/\n", {"./a"}},
                      ListingCase{"duplicates", "a\na\n", {"a", "a"}},
                      ListingCase{"carriageReturnsKept", "a\r\nd/\r\n", {"a\r", "d/\r"}},
                      ListingCase{"blanksKept", " a b \n", {" a b "}},
                      ListingCase{"nulKept", std::string("a\0b\n", 4), {std::string("a\0b", 3)}}),
    [](const ::testing::TestParamInfo<ListingCase>& info) { return info.param.name; });

// Real archives, listed and extracted by the real tar through either runner.
class UntarArchiveTest : public ::testing::TestWithParam<std::function<std::shared_ptr<TarApi>()>> {
 protected:
  void SetUp() override {
    dir.WriteFile("src/a.txt", "alpha");
    dir.WriteFile("src/name with blanks.txt", "blanks");
    dir.WriteFile("src/dir/nested/b.txt", "beta");
    dir.MakeDir("src/empty");
    const std::string command = "tar --sort=name -cf '" + archive + "' -C '" + (dir / "src") +
                                "' a.txt dir empty 'name with blanks.txt'";
    ASSERT_EQ(std::system(command.c_str()), 0);
  }

  const TempDir dir;
  const std::string archive = dir / "archive.tar";
};

TEST_P(UntarArchiveTest, ListsFilesWithoutDirectories) {
  Untar untar(std::make_shared<Path>(archive), GetParam()());
  EXPECT_THAT(untar.FileList(), ElementsAre("a.txt", "dir/nested/b.txt", "name with blanks.txt"));
}

TEST_P(UntarArchiveTest, ExtractsIntoTheDirectory) {
  Untar untar(std::make_shared<Path>(archive), GetParam()());
  // A destination text ending in a slash names the same directory.
  ASSERT_EQ(untar.Extract(std::make_shared<Path>(dir.MakeDir("out") + "/")), 0);
  EXPECT_EQ(testing::ReadWholeFile(dir / "out/a.txt"), "alpha");
  EXPECT_EQ(testing::ReadWholeFile(dir / "out/name with blanks.txt"), "blanks");
  EXPECT_EQ(testing::ReadWholeFile(dir / "out/dir/nested/b.txt"), "beta");
  EXPECT_TRUE(std::filesystem::is_directory(dir / "out/empty"));
}

TEST_P(UntarArchiveTest, SomethingElseThanAnArchiveFails) {
  const LogCapture log;
  Untar untar(std::make_shared<Path>(dir.WriteFile("text.tar", "no archive\n")), GetParam()());
  EXPECT_THAT(untar.FileList(), IsEmpty());
  EXPECT_EQ(untar.Extract(std::make_shared<Path>(dir.Path())), 2);
  const auto records = log.Records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_THAT(records[1].text, ::testing::StartsWith("Tar command failed: 2, tar: "));
}

INSTANTIATE_TEST_SUITE_P(Runners, UntarArchiveTest,
                         ::testing::Values([] { return std::shared_ptr<TarApi>(); },
                                           [] { return std::make_shared<StreamingTarApi>(); }),
                         [](const auto& info) {
                           return info.index == 0 ? "Default" : "Streaming";
                         });

TEST(UntarLargeArchiveTest, OnlyTheStreamingRunnerListsPastThePipe) {
  const TempDir dir;
  std::vector<std::string> names;
  for (int i = 0; i < 1500; ++i) {
    names.push_back("file-with-a-rather-long-name-to-fill-the-listing-" + std::to_string(i));
    dir.WriteFile("src/" + names.back(), "");
  }
  const std::string archive = dir / "big.tar";
  ASSERT_EQ(std::system(("tar -cf " + archive + " -C " + dir.Path() + "/src .").c_str()), 0);
  const LogCapture log;
  EXPECT_THAT(Untar(std::make_shared<Path>(archive)).FileList(), IsEmpty());
  const auto listed =
      Untar(std::make_shared<Path>(archive), std::make_shared<StreamingTarApi>()).FileList();
  std::vector<std::string> expected;
  for (const std::string& name : names) {
    expected.push_back("./" + name);
  }
  EXPECT_THAT(listed, ::testing::UnorderedElementsAreArray(expected));
}

}  // namespace
}  // namespace drn
