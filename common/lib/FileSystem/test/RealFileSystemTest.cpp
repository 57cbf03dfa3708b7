// The library on real file systems that fill up and fail: a card that fills while a File writes,
// a syncfs that fails with EIO, tar extraction out of blocks and out of inodes, and walks of a
// tree deeper than PATH_MAX and under a descriptor limit of 32.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "Directory.h"
#include "FileTestSupport.h"
#include "ScratchFileSystem.h"
#include "SystemCallWrapper.h"
#include "Untar.h"

namespace drn {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;
using namespace drn::testing;

#define SKIP_UNLESS_MOUNTED(fileSystem)     \
  if (!(fileSystem).Failure().empty()) {    \
    GTEST_SKIP() << (fileSystem).Failure(); \
  }

const std::string kNoSpace = "Write 3/0x8010: failed on write with No space left on device";

// A File writing to a 64 KiB tmpfs card on which room bytes are left (counted in 4 KiB pages).
class CardTest : public ::testing::TestWithParam<std::uint32_t> {
 protected:
  File OpenOnCard(std::size_t room, std::uint32_t putArea) {
    File::CreateFile(card / "data");
    std::ofstream(card / "filler", std::ios::binary) << std::string(64 * 1024 - room, 'f');
    return Open(card / "data", Buffers(0, putArea, false, true));
  }

  const TempDir dir;
  const ScratchFileSystem card{dir / "card", "size=64k"};
  const LogCapture log;
};

// Every byte the stream accepted reaches the file exactly once after space is freed and the
// stream is flushed again; what it did not accept never does. A put area of 3000 bytes sees a
// write cut short by the full card.
TEST_P(CardTest, AcceptedBytesReachTheFileOnceSpaceIsFreed) {
  SKIP_UNLESS_MOUNTED(card);
  const std::string data = Pattern(12000);
  std::streamsize accepted = 0;
  {
    File file = OpenOnCard(8192, GetParam());
    accepted = static_cast<std::streambuf&>(file).sputn(data.data(), 12000);
    ASSERT_LT(accepted, 12000);
    EXPECT_GE(accepted, 8192);
    EXPECT_THAT(Described(log.Records()), Contains(kNoSpace));
    std::filesystem::remove(card / "filler");
    file.clear();
    EXPECT_TRUE(file.flush().good());
  }
  EXPECT_EQ(ReadWholeFile(card / "data"), data.substr(0, static_cast<std::size_t>(accepted)));
}

INSTANTIATE_TEST_SUITE_P(NoSmallAndLargePutArea, CardTest, ::testing::Values(0U, 16U, 3000U));

TEST_F(CardTest, DestructorsFailedFlushIsRecordedAndWritesNothing) {
  SKIP_UNLESS_MOUNTED(card);
  OpenOnCard(0, 64) << "pending";
  EXPECT_THAT(Described(log.Records()), ::testing::ElementsAre(kNoSpace));
  EXPECT_EQ(File::GetFileSize(card / "data"), 0U);
}

// A loop device whose image sits on a tiny tmpfs that is full: ext4 takes the writes into the
// page cache, and writeback fails underneath it.
TEST(FailingCardTest, SyncfsFailingForRealIsRecordedWhileTheFlushSucceeds) {
  const TempDir dir;
  const ScratchFileSystem backing(dir / "backing", "size=4m");
  SKIP_UNLESS_MOUNTED(backing);
  const ScratchFileSystem card(dir / "card", backing / "card.img", 16 * 1024);
  SKIP_UNLESS_MOUNTED(card);
  ASSERT_TRUE(File::CreateFile(card / "data"));
  std::ofstream fill(backing / "fill", std::ios::binary);
  const std::string block = Pattern(64 * 1024);
  while (fill.write(block.data(), static_cast<std::streamsize>(block.size()))) {
  }
  const LogCapture log;
  File file = Open(card / "data", Buffers(0, 64 * 1024, false, true));
  // The bytes fit the put area: the flush alone writes them (into the page cache) and syncs.
  file.write(block.data(), 32 * 1024);
  EXPECT_TRUE(file.flush().good());
  // ext4 reports EIO once the failed writeback has aborted its journal; when the error reaches
  // syncfs first, it is the loop device's own ENOSPC. Either is the writeback failing for real.
  const std::string failed = "SyncOutput 3/0x8010: failed on output sync with ";
  EXPECT_THAT(Described(log.Records()),
              ::testing::ElementsAre(::testing::AnyOf(failed + "Input/output error",
                                                      failed + "No space left on device")));
}

struct ExhaustionCase {
  const char* name;
  const char* options;
  const char* complaint;  // what tar says about it
  int files;
  std::size_t fileSize;
};

// By name: printing the bytes would read the padding, which valgrind reports as uninitialised.
void PrintTo(const ExhaustionCase& value, std::ostream* os) {
  *os << value.name;
}

class ExtractionExhaustionTest : public ::testing::TestWithParam<ExhaustionCase> {};

// tar's failure is the result, with the runner's record; nothing outside the destination is
// touched and no child or descriptor is left.
TEST_P(ExtractionExhaustionTest, FailsWithTarsStatusAndTouchesNothingElse) {
  const TempDir dir;
  const ExhaustionCase& exhaustion = GetParam();
  for (int i = 0; i < exhaustion.files; ++i) {
    dir.WriteFile("src/file" + std::to_string(i), std::string(exhaustion.fileSize, 'x'));
  }
  const std::string archive = dir / "archive.tar";
  ASSERT_EQ(std::system(("tar -cf " + archive + " -C " + dir / "src" + " .").c_str()), 0);
  const ScratchFileSystem card(dir / "card", exhaustion.options);
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
                                   HasSubstr(exhaustion.complaint))));
  for (const std::string& entry : ListTree(dir.Path())) {
    if (entry.rfind("card/destination/", 0) != 0) {
      EXPECT_THAT(before, Contains(entry));
    }
  }
  EXPECT_EQ(ReadWholeFile(dir / "card/beside/kept"), "kept");
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
  EXPECT_FALSE(HasChildProcesses());
}

INSTANTIATE_TEST_SUITE_P(
    BlocksAndInodes, ExtractionExhaustionTest,
    ::testing::Values(ExhaustionCase{"blocks", "size=64k", "Wrote only", 1, 256 * 1024},
                      ExhaustionCase{"inodes", "size=1m,nr_inodes=8",
                                     "Cannot open: No space left on device", 20, 10}),
    [](const auto& info) { return std::string(info.param.name); });

std::uint64_t SizeOf(const std::string& directory) {
  return Directory(std::make_shared<Path>(directory), std::make_shared<SystemCallWrapper>())
      .GetDirectorySize();
}

// Levels of 200-character names, a one-byte file in each, built relative to each level's
// descriptor since the full names outgrow PATH_MAX. The walk counts the files it can reach by
// name: those in levels whose names fit, and whose own names fit.
TEST(DeepTreeTest, WalkDeeperThanPathMaxCountsWhatFitsAndLeaksNothing) {
  const TempDir dir;
  // Unmounting removes the tree, whose names are too long for the usual removal.
  const ScratchFileSystem scratch(dir / "deep", "size=1m");
  SKIP_UNLESS_MOUNTED(scratch);
  const std::string name(200, 'd');
  int level = ::open(scratch.MountPoint().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::size_t length = scratch.MountPoint().size();
  std::uint64_t reachable = 0;
  for (int i = 0; i < 24; ++i, length += 1 + name.size()) {
    const int file = ::openat(level, "f", O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_EQ(::write(file, "x", 1), 1);
    ::close(file);
    reachable += length + 2 < PATH_MAX ? 1 : 0;
    ASSERT_EQ(::mkdirat(level, name.c_str(), 0755), 0);
    const int next = ::openat(level, name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(level);
    level = next;
  }
  ::close(level);
  ASSERT_LT(reachable, 24U);
  const int descriptors = CountOpenDescriptors();
  EXPECT_EQ(SizeOf(scratch.MountPoint()), reachable);
  EXPECT_EQ(CountOpenDescriptors(), descriptors);
}

// Open descriptors numbered below limit, leaving out the one that lists them.
int DescriptorsBelow(int limit) {
  int count = -1;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    count += std::stoi(entry.path().filename().string()) < limit ? 1 : 0;
  }
  return count;
}

// One directory handle stays open per level, so under a limit of 32 descriptors the walk stops
// where the handles run out: it sums the levels it could open.
TEST(DeepTreeTest, WalkUnderADescriptorLimitSumsTheLevelsItCouldOpen) {
  const TempDir dir;
  std::string path = "t";
  for (int i = 0; i < 64; ++i, path += "/d") {
    dir.WriteFile(path + "/f", "x");
  }
  constexpr int kNoLimit = 4;
  const int status = RunInChild([&dir] {
    const rlimit limit{32, 32};
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
      ::_exit(kNoLimit);
    }
    const int open = DescriptorsBelow(32);
    return SizeOf(dir / "t") == static_cast<std::uint64_t>(32 - open) &&
           DescriptorsBelow(32) == open;
  });
  if (status == kNoLimit) {
    GTEST_SKIP() << "the descriptor limit cannot be lowered here (valgrind refuses setrlimit)";
  }
  EXPECT_EQ(status, 0);
}

}  // namespace
}  // namespace drn
