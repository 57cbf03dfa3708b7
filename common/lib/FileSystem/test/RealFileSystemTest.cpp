// The library on a real file system that fills up: a card that fills while a File writes.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "FileTestSupport.h"
#include "ScratchFileSystem.h"

namespace drn {
namespace {

using ::testing::Contains;
using namespace drn::testing;

// A File with no, a small and a 3000-byte put area (which sees a write cut short by the full
// card) writes to a 64 KiB tmpfs card with 8 KiB left. Every byte the stream accepted reaches
// the file exactly once after space is freed and the stream is flushed again; what it did not
// accept never does.
class CardTest : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(CardTest, AcceptedBytesReachTheFileOnceSpaceIsFreed) {
  const TempDir dir;
  const ScratchFileSystem card{dir / "card", "size=64k"};
  if (!card.Failure().empty()) {
    GTEST_SKIP() << card.Failure();
  }
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

}  // namespace
}  // namespace drn
