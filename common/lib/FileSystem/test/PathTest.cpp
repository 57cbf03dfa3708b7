// Path: the base-name rule, and queries against real entries.
#include "Path.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <utility>

#include "TestHelpers.h"

namespace drn {
namespace {

using BasenameCase = std::pair<const char*, const char*>;  // text, expected basename

class PathBasenameTest : public ::testing::TestWithParam<BasenameCase> {};

TEST_P(PathBasenameTest, TakesTextAfterLastSeparator) {
  EXPECT_EQ(Path(GetParam().first).Basename(), GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Texts, PathBasenameTest,
                         ::testing::Values(BasenameCase{"", ""}, BasenameCase{"/", ""},
                                           BasenameCase{"a/b/", ""}, BasenameCase{"abc", "abc"},
                                           BasenameCase{"/abc", "abc"}, BasenameCase{"a/..", ".."},
                                           BasenameCase{"a\\b/c", "c"},
                                           BasenameCase{"a/b\\c", "c"}));

// Real entries: the text is kept as given, links are followed, only a missing entry is absent (a
// link loop or an overlong name is something there), errno is 0 after Exists, and a failed
// directory test leaves opendir's errno.
TEST(PathTest, QueriesRealEntries) {
  const testing::TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no symbolic links";
  }
  const std::string file = dir.WriteFile("file", "x");
  std::filesystem::create_directory_symlink(dir.MakeDir("target"), dir / "toDir");
  std::filesystem::create_symlink(dir / "gone", dir / "dangling");
  std::filesystem::create_symlink(dir / "loop", dir / "loop");
  const struct {
    std::string text;
    bool exists, isDirectory;
  } cases[] = {{"", false, false},
               {"/", true, true},
               {file, true, false},
               {dir / "toDir", true, true},
               {dir / "dangling", false, false},
               {dir / "loop", true, false},
               {dir / std::string(300, 'n'), true, false},
               {dir / "missing/below", false, false},
               {file + "/below", false, false},
               {dir.Path() + "//./", true, true}};
  for (const auto& entry : cases) {
    const Path path(entry.text);
    EXPECT_EQ(path.GetPath(), entry.text);
    errno = EBADF;
    EXPECT_EQ(path.Exists(), entry.exists) << entry.text;
    EXPECT_EQ(errno, 0) << entry.text;
    EXPECT_EQ(path.IsDirectory(), entry.isDirectory) << entry.text;
  }
  EXPECT_FALSE(Path(file).IsDirectory());
  EXPECT_EQ(errno, ENOTDIR);
  Path original(file);
  const std::string_view view = original.GetPath();
  const Path moved(std::move(original));
  EXPECT_EQ(moved.GetPath().data(), view.data());  // a move keeps the text where it was
}

}  // namespace
}  // namespace drn
