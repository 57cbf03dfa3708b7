// File as a stream: round trips against the bytes in the file, system-call counts, failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "FileTestSupport.h"
#include "ForwardingLinuxApi.h"

namespace drn {
namespace {

using ::testing::_;
using ::testing::DoDefault;
using ::testing::ElementsAre;
using ::testing::Mock;
using namespace drn::testing;

// A File on a real file "f" in a fresh directory, whose calls go through a forwarding mock.
class FileStreamTest : public ::testing::Test {
 protected:
  File OpenFile(const std::string& content, const File::Options& options) {
    return Open(dir.WriteFile("f", content), options, std::move(api));
  }

  const TempDir dir;
  std::unique_ptr<::testing::NiceMock<MockLinuxApi>> api = MakeForwardingMock();
  MockLinuxApi& calls = *api;
  const LogCapture capture;
};

struct BufferSizes {
  std::uint32_t read, write;
};

class FileRoundTripTest : public FileStreamTest,
                          public ::testing::WithParamInterface<BufferSizes> {};

TEST_P(FileRoundTripTest, StreamOperationsMatchTheBytesInTheFile) {
  File file = OpenFile("", Buffers(GetParam().read, GetParam().write));
  const std::string block = Pattern(100);
  file << "alpha " << 42 << '\n';
  file.write(block.data(), static_cast<std::streamsize>(block.size()));
  file << "last line" << std::endl;
  std::string expected = "alpha 42\n" + block + "last line\n";
  EXPECT_EQ(Contents(file), expected);
  file.seekp(6);
  file << "97" << std::flush;
  EXPECT_EQ(Contents(file), expected.replace(6, 2, "97"));

  std::string word;
  int number = 0;
  std::string readBack(100, '\0');
  file.seekg(0) >> word >> number;
  EXPECT_EQ(file.get(), '\n');
  file.read(readBack.data(), 100);
  EXPECT_EQ(word + ' ' + std::to_string(number) + readBack, "alpha 97" + block);
  std::getline(file, word);
  EXPECT_EQ(word, "last line");
  EXPECT_TRUE(file.good());
  EXPECT_EQ(file.get(), EOF);
}

INSTANTIATE_TEST_SUITE_P(Sizes, FileRoundTripTest,
                         ::testing::Values(BufferSizes{0, 0}, BufferSizes{1, 1}, BufferSizes{7, 5},
                                           BufferSizes{65536, 65536}),
                         [](const auto& info) {
                           return "Read" + std::to_string(info.param.read) + "Write" +
                                  std::to_string(info.param.write);
                         });

// A class derived from File is refilled through its own underflow, also from a flush.
class CountingFile : public File {
 public:
  using File::File;
  int refills = 0;

 protected:
  int underflow() override {
    ++refills;
    return File::underflow();
  }
};

TEST_F(FileStreamTest, FlushWritesThenRefillsTheWholeGetAreaFromItsFirstByte) {
  File::Options options = Buffers(64, 64);
  options.inMemory = true;
  CountingFile file(options);
  EXPECT_TRUE((file << std::flush).bad());  // nothing to refill a readable file with
  file.clear();
  file << "abcdef" << std::flush;
  EXPECT_EQ(file.get(), 'a');
  // Both sides: the write side moves.
  EXPECT_EQ(file.pubseekpos(2, std::ios_base::in | std::ios_base::out), std::streampos(2));
  file << "XY";
  EXPECT_EQ(file.get(), 'b');
  const int refills = file.refills;
  file << std::flush;
  EXPECT_EQ(file.refills, refills + 1);
  std::string all(6, '\0');
  file.read(all.data(), 6);
  EXPECT_EQ(all, "abXYef");
}

// No call until the area is full, then one flush on the next character; block output that then
// cannot be written answers how much it took.
TEST_F(FileStreamTest, FullPutAreaFlushesOnceOnTheNextCharacter) {
  File file = OpenFile("", Buffers(4, 4));
  ::testing::MockFunction<void()> areaFull;
  {
    const ::testing::InSequence inOrder;
    EXPECT_CALL(areaFull, Call());
    EXPECT_CALL(calls, DoLSeek(file.GetFD(), 0, SEEK_SET));
    EXPECT_CALL(calls, DoWrite(file.GetFD(), _, 4));
    EXPECT_CALL(calls, DoSyncFs(file.GetFD()));
  }
  file << "ab" << 'c' << "d";
  areaFull.Call();
  file << 'e';
  Mock::VerifyAndClearExpectations(&calls);
  EXPECT_EQ(Contents(file), "abcd");
  ON_CALL(calls, DoWrite).WillByDefault(Fail(EIO, -1L));
  EXPECT_EQ(file.sputn("fghijk", 6), 3);  // "fgh" fill the area; 'i' cannot make room
  EXPECT_EQ(Contents(file), "abcd");
}

TEST_F(FileStreamTest, LargeGetAreaCostsOneReadPerFillAndOneAtTheEnd) {
  constexpr std::uint32_t kArea = 64 * 1024;
  const std::string content = Pattern(3 * kArea);
  EXPECT_CALL(calls, DoRead(_, _, kArea)).Times(4);
  EXPECT_CALL(calls, DoLSeek).Times(4 + 1);  // one per fill, one for the closing flush
  File file = OpenFile(content, Buffers(kArea, 0, true, false));
  std::string got;
  char chunk[1000];
  while (file.read(chunk, sizeof chunk) || file.gcount() > 0) {
    got.append(chunk, static_cast<std::size_t>(file.gcount()));
  }
  EXPECT_EQ(got, content);
}

TEST_F(FileStreamTest, SeekInsideTheLoadedGetAreaMakesNoCall) {
  File file = OpenFile("0123456789", Buffers(4, 0, true, false));
  EXPECT_EQ(file.get(), '0');
  ::testing::MockFunction<void()> leaving;
  const ::testing::InSequence inOrder;
  EXPECT_CALL(leaving, Call());
  EXPECT_CALL(calls, DoLSeek(_, 0, SEEK_SET));
  EXPECT_CALL(calls, DoLSeek(_, 8, SEEK_SET));
  EXPECT_EQ(file.seekg(3).get(), '3');
  EXPECT_EQ(file.seekg(1).get(), '1');
  leaving.Call();
  // The area's first byte, like anything outside it, is read again from the file.
  EXPECT_EQ(file.seekg(0).get(), '0');
  EXPECT_EQ(file.seekg(8).get(), '8');
  Mock::VerifyAndClearExpectations(&calls);
}

TEST_F(FileStreamTest, FlushFailingPartWayKeepsOnlyTheUnwrittenTail) {
  EXPECT_CALL(calls, DoWrite)
      .WillOnce([](int fd, const void* buffer, unsigned long) { return ::write(fd, buffer, 3); })
      .WillOnce(Fail(EIO, -1L))
      .WillOnce(Fail(EIO, 0L))
      .WillRepeatedly(DoDefault());
  File file = OpenFile("", Buffers(16, 16, false, true));
  EXPECT_TRUE((file << "0123456789" << std::flush).bad());
  EXPECT_EQ(Contents(file), "012");
  file.clear();
  EXPECT_TRUE((file << std::flush).bad());
  file.clear();
  EXPECT_TRUE((file << "ab" << std::flush).good());
  EXPECT_EQ(Contents(file), "0123456789ab");
  EXPECT_THAT(capture.Records(),
              ElementsAre(FileRecord("Write", LogLevel::Error, "failed on write with ", EIO)));
}

// Operations the stream buffer only partly implements answer sensibly and say so.
TEST_F(FileStreamTest, PartlyImplementedOperationsAnswerAndLog) {
  File file = OpenFile("0123456789", Buffers(4, 0, true, false));
  EXPECT_EQ(file.tellg(), -1);
  EXPECT_TRUE(file.seekg(1, std::ios_base::beg).fail());
  file.clear();
  EXPECT_EQ(file.in_avail(), 0);
  EXPECT_EQ(file.get(), '0');
  char got[10] = {};
  EXPECT_EQ(file.sgetn(got, -1), 0);
  EXPECT_EQ(file.sgetn(got, 10), 9);  // the rest of the area, then one refill per character
  EXPECT_EQ(std::string(got, 9), "123456789");
  const auto seekoff =
      FileRecord("seekoff", LogLevel::Error, "Call to unimplemented method seekoff");
  const auto uflow = FileRecord("uflow", LogLevel::Debug, "uflow not implemented");
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(seekoff, seekoff,
                  FileRecord("showmanyc", LogLevel::Debug, "showmanyc not implemented"), uflow,
                  FileRecord("xsgetn", LogLevel::Warning, "xsgetn called with negative count size"),
                  FileRecord("xsgetn", LogLevel::Error, "xsgetn multi buffer read not implemented"),
                  uflow, uflow, uflow));
}

}  // namespace
}  // namespace drn
