// File::CreateFile, RecreateFile and GetFileSize on real files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "FileTestSupport.h"

namespace drn {
namespace {

using namespace drn::testing;

TEST(FileUtilityTest, CreateKeepsAndRecreateEmptiesWhatExistsAndBothMakeWhatIsMissing) {
  const TempDir dir;
  if (OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT keeps no permission bits and has no symbolic links";
  }
  for (const char* name : {"kept", "emptied"}) {
    ASSERT_EQ(::chmod(dir.WriteFile(name, "contents").c_str(), 0600), 0);
  }
  const mode_t previousMask = ::umask(022);
  EXPECT_TRUE(File::CreateFile(dir / "kept") && File::RecreateFile(dir / "emptied"));
  EXPECT_TRUE(File::CreateFile(dir / "created") && File::RecreateFile(dir / "recreated"));
  ::umask(previousMask);
  const struct {
    const char* name;
    mode_t mode;
    const char* contents;
  } expected[] = {{"kept", 0600, "contents"},
                  {"emptied", 0600, ""},
                  {"created", 0644, ""},
                  {"recreated", 0644, ""}};
  for (const auto& file : expected) {
    struct stat status {};
    ASSERT_EQ(::stat((dir / file.name).c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & (S_IFMT | 0777), S_IFREG | file.mode) << file.name;
    EXPECT_EQ(ReadWholeFile(dir / file.name), file.contents);
    EXPECT_EQ(File::GetFileSize(dir / file.name), std::strlen(file.contents));
  }
  // The size is the target's through a link, and 0 for what cannot be examined.
  std::filesystem::create_symlink(dir / "kept", dir / "link");
  EXPECT_EQ(File::GetFileSize(dir / "link"), 8u);
  EXPECT_EQ(File::GetFileSize(dir / "missing"), 0u);
}

}  // namespace
}  // namespace drn
