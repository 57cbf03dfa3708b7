// Path: queries against real files, and through a substitute system-call layer.
#include "Path.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "LinuxApi.h"
#include "MockLinuxApi.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using ::testing::_;
using ::testing::NiceMock;
using ::testing::Return;
using testing::RunUnprivileged;
using ::testing::StrEq;
using testing::TempDir;

struct BasenameCase {
  const char* text;
  const char* expected;
};

void PrintTo(const BasenameCase& value, std::ostream* os) {
  *os << '"' << value.text << "\" -> \"" << value.expected << '"';
}

class PathBasenameTest : public ::testing::TestWithParam<BasenameCase> {};

TEST_P(PathBasenameTest, TakesTextAfterLastSeparator) {
  const Path path(GetParam().text);
  EXPECT_EQ(path.Basename(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Texts, PathBasenameTest,
                         ::testing::Values(BasenameCase{"", ""}, BasenameCase{"/", ""},
                                           BasenameCase{"a/b/", ""}, BasenameCase{"a/b", "b"},
                                           BasenameCase{"a\\b", "b"}, BasenameCase{"abc", "abc"},
                                           BasenameCase{"/abc", "abc"}, BasenameCase{"a/..", ".."},
                                           BasenameCase{"a\\b/c", "c"}, BasenameCase{"a/b\\c", "c"},
                                           BasenameCase{"a//b//", ""}));

// Real entries: the text is kept as given, links are followed, errno is 0 after Exists, and a
// failed directory test leaves opendir's errno.
TEST(PathTest, QueriesRealEntries) {
  const TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no symbolic links";
  }
  const std::string file = dir.WriteFile("file", "x");
  std::filesystem::create_directory_symlink(dir.MakeDir("target"), dir / "toDir");
  std::filesystem::create_symlink(dir / "gone", dir / "dangling");
  const struct {
    std::string text;
    bool exists, isDirectory;
  } cases[] = {{"", false, false},
               {"/", true, true},
               {file, true, false},
               {dir / "toDir", true, true},
               {dir / "dangling", false, false},
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
}

// Seen by an unprivileged user: a directory it may search but not read exists and is no
// directory (errno from opendir), and entries below a directory it may not search exist, since
// access fails with EACCES, which does not prove absence.
TEST(PathTest, PermissionsThatHideADirectoryOrItsEntries) {
  const TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT keeps no permission bits";
  }
  const std::string locked = dir.MakeDir("locked");
  ASSERT_EQ(::chmod(locked.c_str(), 0311), 0);
  dir.WriteFile("closed/inner", "x");
  ASSERT_EQ(::chmod((dir / "closed").c_str(), 0600), 0);
  const int status = RunUnprivileged([&] {
    const Path path(locked);
    const bool unreadable = path.Exists() && !path.IsDirectory() && errno == EACCES;
    return unreadable && Path(dir / "closed/inner").Exists() &&
           Path(dir / "closed/missing").Exists();
  });
  EXPECT_EQ(status, 0);
}

TEST(PathTest, MoveKeepsTheTextView) {
  Path original("some/text");
  const std::string_view view = original.GetPath();
  const Path moved(std::move(original));
  EXPECT_EQ(moved.GetPath().data(), view.data());
  EXPECT_EQ(moved.GetPath(), "some/text");
}

TEST(PathTest, SubstituteSeesOnlyItsCalls) {
  auto api = std::make_unique<NiceMock<MockLinuxApi>>();
  DIR* const fakeDir = reinterpret_cast<DIR*>(0x1234);
  EXPECT_CALL(*api, DoAccess(StrEq("dir"), 0)).Times(2).WillRepeatedly(Return(0));
  EXPECT_CALL(*api, DoOpenDir(StrEq("dir"))).WillOnce(Return(fakeDir));
  EXPECT_CALL(*api, DoCloseDir(fakeDir)).WillOnce(Return(-1));  // result ignored
  const Path path("dir", std::move(api));
  EXPECT_TRUE(path.Exists());
  EXPECT_TRUE(path.IsDirectory());
}

TEST(PathTest, ExistsFollowsTheSavedError) {
  for (const int error : {ENOENT, ENOTDIR, EACCES, ELOOP, ENAMETOOLONG, EIO}) {
    auto api = std::make_unique<NiceMock<MockLinuxApi>>();
    ON_CALL(*api, DoAccess(_, _)).WillByDefault([error](const char*, int) {
      errno = error;
      return -1;
    });
    const Path path("p", std::move(api));
    EXPECT_EQ(path.Exists(), error != ENOENT && error != ENOTDIR) << error;
    EXPECT_EQ(errno, 0);
  }
}

// An override of DoExists is what IsDirectory asks first.
class NeverExists : public Path {
 public:
  using Path::Path;

 protected:
  bool DoExists() const override { return false; }
};

TEST(PathTest, IsDirectoryAsksTheOverriddenExists) {
  auto api = std::make_unique<NiceMock<MockLinuxApi>>();
  EXPECT_CALL(*api, DoOpenDir(_)).Times(0);
  const NeverExists path("/", std::move(api));
  EXPECT_FALSE(path.IsDirectory());
}

TEST(PathTest, SharedAcrossThreads) {
  const TempDir dir;
  const Path path(dir.Path());
  std::vector<std::thread> threads;
  std::vector<int> results(4, 0);
  for (int& result : results) {
    threads.emplace_back([&path, &result] {
      for (int i = 0; i < 200; ++i) {
        result += path.IsDirectory() ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(results, ::testing::Each(200));
}

}  // namespace
}  // namespace drn
