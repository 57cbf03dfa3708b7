// File: option checks, in-memory files, round trips against the bytes in the file, moves, the
// operations the stream buffer only partly implements, a real card that fills while a File
// writes, and values that do not fit.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <locale>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

#include "FileTestSupport.h"
#include "ForwardingLinuxApi.h"
#include "ScratchFileSystem.h"

namespace drn {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using namespace drn::testing;

// Arguments refused before anything is opened; failures of the open itself are the fault sweep's.
struct OpenFailureCase {
  const char* path;  // "" for none
  bool openForRead, openForWrite;
  const char* message;
  const char* logText;  // "" when it is the message
};

// By path: printing the bytes would read the padding, which valgrind reports as uninitialised.
void PrintTo(const OpenFailureCase& value, std::ostream* os) {
  *os << '"' << value.path << "\" " << value.openForRead << value.openForWrite;
}

class FileOpenFailureTest : public ::testing::TestWithParam<OpenFailureCase> {};

TEST_P(FileOpenFailureTest, ThrowsAndLogsWithoutOpeningAnything) {
  const OpenFailureCase& c = GetParam();
  const Path path(c.path);
  File::Options options = Buffers(8, 8, c.openForRead, c.openForWrite);
  options.path = *c.path != '\0' ? &path : nullptr;
  const LogCapture capture;
  EXPECT_THAT([&] { File file(options, std::make_unique<::testing::StrictMock<MockLinuxApi>>()); },
              ::testing::ThrowsMessage<std::invalid_argument>(::testing::StrEq(c.message)));
  EXPECT_THAT(Described(capture.Records()),
              ElementsAre(std::string("Impl 3/0x8010: ") + (*c.logText ? c.logText : c.message)));
}

INSTANTIATE_TEST_SUITE_P(
    Rows, FileOpenFailureTest,
    ::testing::Values(OpenFailureCase{"", true, true, "No path specified in non memory call", ""},
                      // A missing path is reported before the missing access mode.
                      OpenFailureCase{"/nonexistent", false, false, "could not open specified path",
                                      "Tried to open \"/nonexistent\" but it didn't exist"},
                      OpenFailureCase{"/", true, false, "could not open specified path (directory)",
                                      "Tried to open \"/\" but it was a directory"},
                      OpenFailureCase{"/proc/self/status", false, false,
                                      "openForRead or openForWrite must be true",
                                      "must open file for reading or writing"}));

// Named after the path, or nothing, as /proc shows it; not closed on exec.
TEST(FileOpenTest, InMemoryFileIsNamedAfterThePathAndReadableWithoutAccessFlags) {
  const Path name("scratch");
  for (const PathIF* path : std::initializer_list<const PathIF*>{nullptr, &name}) {
    File file({path, true, 16, 16, false, false});
    const std::string fd = "/proc/self/fd/" + std::to_string(file.GetFD());
    EXPECT_EQ(std::filesystem::read_symlink(fd),
              path ? "/memfd:scratch (deleted)" : "/memfd: (deleted)");
    EXPECT_EQ(::fcntl(file.GetFD(), F_GETFD), 0);
    std::string word;
    file << "hello" << std::flush;
    file >> word;
    EXPECT_EQ(word, "hello");
    EXPECT_EQ(file.getloc(), std::locale());  // one getloc, not two ambiguous ones
  }
}

// Get and put area sizes: none (every character at once), one, odd sizes, and large.
class FileRoundTripTest : public ::testing::TestWithParam<std::pair<std::uint32_t, std::uint32_t>> {
};

TEST_P(FileRoundTripTest, StreamOperationsMatchTheBytesInTheFile) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "");
  File file = Open(name, Buffers(GetParam().first, GetParam().second));
  EXPECT_TRUE((file << std::flush).bad());  // nothing to refill a readable file with
  file.clear();
  const std::string block = Pattern(100);
  file << "alpha " << 42 << '\n';
  file.write(block.data(), static_cast<std::streamsize>(block.size()));
  file << "last line" << std::endl;
  std::string expected = "alpha 42\n" + block + "last line\n";
  EXPECT_EQ(ReadWholeFile(name), expected);
  file.seekp(6);
  file << "97" << std::flush;
  EXPECT_EQ(ReadWholeFile(name), expected.replace(6, 2, "97"));
  EXPECT_EQ(file.get(), 'a');  // a flush refills the get area from its first byte
  std::string word;
  int number = 0;
  std::string readBack(100, '\0');
  file.seekg(0) >> word >> number;
  EXPECT_EQ(file.get(), '\n');
  file.read(readBack.data(), 100);
  EXPECT_EQ(word + ' ' + std::to_string(number) + readBack, "alpha 97" + block);
  std::getline(file, word);
  EXPECT_EQ(word, "last line");
  EXPECT_EQ(file.get(), EOF);
}

INSTANTIATE_TEST_SUITE_P(Areas, FileRoundTripTest,
                         ::testing::Values(std::pair(0U, 0U), std::pair(1U, 1U), std::pair(7U, 5U),
                                           std::pair(65536U, 65536U)));

// The moved-to File must not reach the moved-from one, even when that goes first; the descriptor
// is closed once.
TEST(FileMoveTest, MovedToFileKeepsDescriptorAndPendingOutput) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "..........");
  auto api = MakeForwardingMock();
  EXPECT_CALL(*api, DoClose);
  const Path path(name);
  auto from =
      std::make_unique<File>(File::Options{&path, false, 64, 4, true, true}, std::move(api));
  const int fd = from->GetFD();
  *from << "pending";
  {
    File to(std::move(*from));
    from.reset();
    EXPECT_EQ(to.GetFD(), fd);
    EXPECT_EQ(to.rdbuf(), nullptr);  // not a usable stream
  }
  EXPECT_EQ(ReadWholeFile(name), "pending...");
}

// Seeks inside the loaded get area make no call; the operations the stream buffer only partly
// implements answer sensibly and say so.
TEST(FileReadTest, SeeksInsideTheGetAreaAndPartlyImplementedOperations) {
  const TempDir dir;
  auto api = MakeForwardingMock();
  MockLinuxApi& calls = *api;
  File file = Open(dir.WriteFile("f", "0123456789"), Buffers(4, 0, true, false), std::move(api));
  const LogCapture capture;
  EXPECT_EQ(file.tellg(), -1);
  EXPECT_TRUE(file.seekg(1, std::ios_base::beg).fail());
  file.clear();
  EXPECT_EQ(file.in_avail(), 0);
  EXPECT_EQ(file.get(), '0');
  EXPECT_CALL(calls, DoLSeek).Times(0);
  EXPECT_EQ(file.seekg(3).get(), '3');
  EXPECT_EQ(file.seekg(1).get(), '1');
  ::testing::Mock::VerifyAndClearExpectations(&calls);
  char got[10] = {};
  EXPECT_EQ(file.sgetn(got, -1), 0);
  EXPECT_EQ(file.sgetn(got, 10), 8);  // the rest of the area, then one refill per character
  EXPECT_EQ(std::string(got, 8), "23456789");
  const std::string seekoff = "seekoff 3/0x8010: Call to unimplemented method seekoff";
  const std::string uflow = "uflow 7/0x8010: uflow not implemented";
  EXPECT_THAT(Described(capture.Records()),
              ElementsAre(seekoff, seekoff, "showmanyc 7/0x8010: showmanyc not implemented", uflow,
                          "xsgetn 4/0x8010: xsgetn called with negative count size",
                          "xsgetn 3/0x8010: xsgetn multi buffer read not implemented", uflow, uflow,
                          uflow));
}

// A File with no, a small and a 3000-byte put area (which sees a write cut short by the full
// card) writes to a 64 KiB tmpfs card with 8 KiB left. Every byte the stream accepted reaches
// the file exactly once after space is freed and the stream is flushed again; what it did not
// accept never does.
class CardTest : public ::testing::TestWithParam<std::uint32_t> {};

TEST_P(CardTest, AcceptedBytesReachTheFileOnceSpaceIsFreed) {
  const TempDir dir;
  const ScratchFileSystem card{dir / "card", "size=64k"};
  if (!card.Failure().empty()) {  // mounting needs root
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

TEST(FileDeathTest, ValuesThatDoNotFitEndTheProcess) {
  const auto openWithHugeDescriptor = [] {
    auto api = std::make_unique<::testing::NiceMock<MockLinuxApi>>();
    ON_CALL(*api, DoSysCall).WillByDefault(::testing::Return(1L << 40));
    Open("", Buffers(1, 1), std::move(api));
  };
  EXPECT_DEATH(openWithHugeDescriptor(), "narrowing_error");
  File file = Open("", Buffers(1, 1));
  const char block[1] = {};
  // The count is checked before a single character is taken.
  EXPECT_DEATH(file.sputn(block, std::streamsize{1} << 31), "narrowing_error");
}

}  // namespace
}  // namespace drn
