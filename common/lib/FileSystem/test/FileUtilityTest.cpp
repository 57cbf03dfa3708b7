// File::CreateFile, RecreateFile and GetFileSize on real files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "File.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using testing::LogCapture;
using testing::ReadWholeFile;
using testing::TempDir;

TEST(FileUtilityTest, CreateKeepsAnExistingFile) {
  const TempDir dir;
  const std::string file = dir.WriteFile("f", "contents");
  ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
  EXPECT_TRUE(File::CreateFile(file));
  EXPECT_EQ(ReadWholeFile(file), "contents");
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST(FileUtilityTest, CreateAndRecreateMakeMissingFiles) {
  const TempDir dir;
  const mode_t previousMask = ::umask(022);
  EXPECT_TRUE(File::CreateFile(dir / "a"));
  EXPECT_TRUE(File::RecreateFile(dir / "b"));
  ::umask(previousMask);
  for (const char* name : {"a", "b"}) {
    struct stat status {};
    ASSERT_EQ(::stat((dir / name).c_str(), &status), 0);
    EXPECT_TRUE(S_ISREG(status.st_mode));
    EXPECT_EQ(status.st_mode & 0777, 0644u) << name;
    EXPECT_EQ(status.st_size, 0);
  }
}

TEST(FileUtilityTest, RecreateEmptiesAnExistingFile) {
  const TempDir dir;
  const std::string file = dir.WriteFile("f", "contents");
  EXPECT_TRUE(File::RecreateFile(file));
  EXPECT_EQ(File::GetFileSize(file), 0u);
}

TEST(FileUtilityTest, FailuresAreLoggedAndReported) {
  const TempDir dir;
  const LogCapture capture;
  const std::string missingParent = dir / "no/such";
  EXPECT_FALSE(File::CreateFile(missingParent));
  EXPECT_FALSE(File::RecreateFile(dir.Path()));  // a directory: EISDIR
  const auto records = capture.Records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].text, "Could not open " + missingParent + "(" + std::strerror(ENOENT) + ")");
  EXPECT_EQ(records[0].function, "CreateFile");
  EXPECT_EQ(records[0].file, "common/lib/FileSystem/src/File.cpp");
  EXPECT_EQ(records[0].level, LogLevel::Error);
  EXPECT_EQ(records[0].category, LogCategory::FileSystem);
  EXPECT_EQ(records[1].text, "Could not open " + dir.Path() + "(" + std::strerror(EISDIR) + ")");
  EXPECT_EQ(records[1].function, "RecreateFile");
}

TEST(FileUtilityTest, SizeFollowsLinksAndIsZeroWhenUnknown) {
  const TempDir dir;
  const std::string file = dir.WriteFile("f", std::string(12345, 'x'));
  std::filesystem::create_symlink(file, dir / "link");
  EXPECT_EQ(File::GetFileSize(file), 12345u);
  EXPECT_EQ(File::GetFileSize(dir / "link"), 12345u);
  EXPECT_EQ(File::GetFileSize(dir / "missing"), 0u);
}

}  // namespace
}  // namespace drn
