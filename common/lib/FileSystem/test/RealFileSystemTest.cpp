// The library on real file systems that fill up: a card that fills while a File writes, and tar
// extraction out of inodes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "FileTestSupport.h"
#include "ScratchFileSystem.h"
#include "Untar.h"

namespace drn {
namespace {

using ::testing::Contains;
using namespace drn::testing;

#define SKIP_UNLESS_MOUNTED(fileSystem)     \
  if (!(fileSystem).Failure().empty()) {    \
    GTEST_SKIP() << (fileSystem).Failure(); \
  }

// A File with no, a small and a 3000-byte put area (which sees a write cut short by the full
// card) writes to a 64 KiB tmpfs card with 8 KiB left. Every byte the stream accepted reaches
// the file exactly once after space is freed and the stream is flushed again; what it did not
// accept never does.
class CardTest : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(CardTest, AcceptedBytesReachTheFileOnceSpaceIsFreed) {
  const TempDir dir;
  const ScratchFileSystem card{dir / "card", "size=64k"};
  SKIP_UNLESS_MOUNTED(card);
  File::CreateFile(card / "data");
  std::ofstream(card / "filler", std::ios::binary) << std::string(56 * 1024, 'f');
  const LogCapture log;
  const std::string data = Pattern(12000);
  std::streamsize accepted = 0;
  {
    File file = Open(card / "data", Buffers(0, GetParam(), false, true));
    accepted = static_cast<std::streambuf&>(file).sputn(data.data(), 12000);
    ASSERT_LT(accepted, 12000);
    EXPECT_GE(accepted, 8192);
    EXPECT_THAT(Described(log.Records()),
                Contains("Write 3/0x8010: failed on write with No space left on device"));
    std::filesystem::remove(card / "filler");
    file.clear();
    EXPECT_TRUE(file.flush().good());
  }
  EXPECT_EQ(ReadWholeFile(card / "data"), data.substr(0, static_cast<std::size_t>(accepted)));
}

INSTANTIATE_TEST_SUITE_P(NoSmallAndLargePutArea, CardTest, ::testing::Values(0U, 16U, 3000U));

// Out of inodes, tar's failure is the result, with the runner's record and tar's complaint;
// nothing outside the destination is touched and no child or descriptor is left.
TEST(ExtractionExhaustionTest, FailsWithTarsStatusAndTouchesNothingElse) {
  const TempDir dir;
  for (int i = 0; i < 20; ++i) {
    dir.WriteFile("src/file" + std::to_string(i), "x");
  }
  const std::string archive = dir / "archive.tar";
  ASSERT_EQ(std::system(("tar -cf " + archive + " -C " + dir / "src" + " .").c_str()), 0);
  const ScratchFileSystem card(dir / "card", "size=1m,nr_inodes=8");
  SKIP_UNLESS_MOUNTED(card);
  dir.WriteFile("card/beside/kept", "kept");
  const std::string destination = dir.MakeDir("card/destination");
  const auto before = ListTree(dir.Path());
  const int descriptors = CountOpenDescriptors();
  const LogCapture log;
  EXPECT_EQ(
      Untar(std::make_shared<Path>(archive), nullptr).Extract(std::make_shared<Path>(destination)),
      2);
  EXPECT_THAT(Described(log.Records()),
              ::testing::ElementsAre(
                  ::testing::AllOf(::testing::StartsWith("RunCmd 3/0x8027: tar returned 2,\n"),
                                   ::testing::HasSubstr("Cannot open: No space left on device"))));
  for (const std::string& entry : ListTree(dir.Path())) {
    if (entry.rfind("card/destination/", 0) != 0) {
      EXPECT_THAT(before, Contains(entry));
    }
  }
  EXPECT_EQ(ReadWholeFile(dir / "card/beside/kept"), "kept");
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
  EXPECT_FALSE(HasChildProcesses());
}

}  // namespace
}  // namespace drn
