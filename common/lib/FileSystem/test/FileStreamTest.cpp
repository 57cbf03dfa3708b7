// File as a stream: round trips against the bytes in the file, system-call counts, failures.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "File.h"
#include "FileTestSupport.h"
#include "ForwardingLinuxApi.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using ::testing::_;
using testing::Buffers;
using ::testing::Contains;
using testing::Contents;
using ::testing::DoDefault;
using ::testing::ElementsAre;
using testing::ErrorText;
using testing::Fail;
using testing::FileRecord;
using testing::LogCapture;
using testing::MakeForwardingMock;
using ::testing::Mock;
using testing::OpenInMemory;
using testing::OpenPath;
using testing::Pattern;
using testing::ReadWholeFile;
using testing::TempDir;

struct BufferSizes {
  std::uint32_t read, write;
};

class FileRoundTripTest : public ::testing::TestWithParam<BufferSizes> {};

TEST_P(FileRoundTripTest, StreamOperationsMatchTheBytesInTheFile) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "");
  File file = OpenPath(name, Buffers(GetParam().read, GetParam().write));
  const std::string block = Pattern(100);
  file << "alpha " << 42 << '\n';
  file.write(block.data(), static_cast<std::streamsize>(block.size()));
  file << "last line" << std::endl;
  std::string expected = "alpha 42\n" + block + "last line\n";
  EXPECT_EQ(ReadWholeFile(name), expected);

  file.seekp(6);
  file << "97" << std::flush;
  expected.replace(6, 2, "97");
  EXPECT_EQ(ReadWholeFile(name), expected);

  file.seekg(0);
  std::string word;
  int number = 0;
  file >> word >> number;
  EXPECT_EQ(word, "alpha");
  EXPECT_EQ(number, 97);
  EXPECT_EQ(file.get(), '\n');
  std::string readBack(block.size(), '\0');
  file.read(readBack.data(), static_cast<std::streamsize>(readBack.size()));
  EXPECT_EQ(readBack, block);
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

TEST(FileStreamTest, SeekingBothSidesMovesTheWriteSideAndFlushRereadsTheGetArea) {
  File file = OpenInMemory(Buffers(64, 64));
  file << "abcdef" << std::flush;
  EXPECT_EQ(file.get(), 'a');
  EXPECT_EQ(file.pubseekpos(2, std::ios_base::in | std::ios_base::out), std::streampos(2));
  file << "XY";
  EXPECT_EQ(file.get(), 'b');
  file << std::flush;
  std::string all(6, '\0');
  file.read(all.data(), 6);
  EXPECT_EQ(all, "abXYef");
}

// A class derived from File is refilled through its own underflow, also from a flush.
class CountingFile : public File {
 public:
  using File::File;
  using File::overflow;
  int refills = 0;

 protected:
  int underflow() override {
    ++refills;
    return File::underflow();
  }
};

TEST(FileStreamTest, FlushRefillsThroughTheMostDerivedUnderflow) {
  File::Options options = Buffers(8, 8);
  options.inMemory = true;
  CountingFile file(options, nullptr);
  file << "ab";
  EXPECT_EQ(file.overflow(EOF), 0);
  EXPECT_EQ(Contents(file), "ab");
  EXPECT_EQ(file.refills, 0);
  file << std::flush;
  EXPECT_EQ(file.refills, 1);
  EXPECT_EQ(Contents(file), "ab");
}

TEST(FileSystemCallTest, FullPutAreaFlushesOnceOnTheNextCharacter) {
  auto api = MakeForwardingMock();
  auto* calls = api.get();
  File file = OpenInMemory(Buffers(16, 16), std::move(api));
  const int fd = file.GetFD();
  EXPECT_CALL(*calls, DoLSeek).Times(0);
  EXPECT_CALL(*calls, DoWrite).Times(0);
  EXPECT_CALL(*calls, DoSyncFs).Times(0);
  file << "0123456789" << 'a' << "bcdef";
  Mock::VerifyAndClearExpectations(calls);
  {
    const ::testing::InSequence inOrder;
    EXPECT_CALL(*calls, DoLSeek(fd, 0, SEEK_SET));
    EXPECT_CALL(*calls, DoWrite(fd, _, 16));
    EXPECT_CALL(*calls, DoSyncFs(fd));
  }
  file << 'g';
  Mock::VerifyAndClearExpectations(calls);
  EXPECT_EQ(Contents(file), "0123456789abcdef");
}

TEST(FileSystemCallTest, LargeGetAreaCostsOneReadPerFillAndOneAtTheEnd) {
  const TempDir dir;
  constexpr std::uint32_t kArea = 64 * 1024;
  const std::string content = Pattern(3 * kArea);
  const std::string name = dir.WriteFile("f", content);
  auto api = MakeForwardingMock();
  EXPECT_CALL(*api, DoRead(_, _, kArea)).Times(4);
  EXPECT_CALL(*api, DoLSeek).Times(4 + 1);  // one per fill, one for the closing flush
  File file = OpenPath(name, Buffers(kArea, 0, true, false), std::move(api));
  std::string got;
  char chunk[1000];
  while (file.read(chunk, sizeof chunk) || file.gcount() > 0) {
    got.append(chunk, static_cast<std::size_t>(file.gcount()));
  }
  EXPECT_EQ(got, content);
}

TEST(FileSystemCallTest, SeekInsideTheLoadedGetAreaMakesNoCall) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "0123456789");
  auto api = MakeForwardingMock();
  auto* calls = api.get();
  File file = OpenPath(name, Buffers(4, 0, true, false), std::move(api));
  EXPECT_EQ(file.get(), '0');
  EXPECT_CALL(*calls, DoLSeek).Times(0);
  EXPECT_CALL(*calls, DoRead).Times(0);
  file.seekg(3);
  EXPECT_EQ(file.get(), '3');
  file.seekg(1);
  EXPECT_EQ(file.get(), '1');
  Mock::VerifyAndClearExpectations(calls);
  // The area's first byte, like anything outside it, is read again from the file.
  EXPECT_CALL(*calls, DoLSeek(_, 0, SEEK_SET));
  EXPECT_CALL(*calls, DoLSeek(_, 8, SEEK_SET));
  file.seekg(0);
  EXPECT_EQ(file.get(), '0');
  file.seekg(8);
  EXPECT_EQ(file.get(), '8');
  Mock::VerifyAndClearExpectations(calls);
}

TEST(FileFailureTest, FlushFailingPartWayKeepsOnlyTheUnwrittenTail) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "");
  auto api = MakeForwardingMock();
  EXPECT_CALL(*api, DoWrite)
      .WillOnce([](int fd, const void* buffer, unsigned long) { return ::write(fd, buffer, 3); })
      .WillOnce(Fail(EIO, -1L))
      .WillOnce(Fail(EIO, 0L))
      .WillRepeatedly(DoDefault());
  const LogCapture capture;
  File file = OpenPath(name, Buffers(16, 16, false, true), std::move(api));
  file << "0123456789" << std::flush;
  EXPECT_TRUE(file.bad());
  EXPECT_EQ(ReadWholeFile(name), "012");
  file.clear();
  file << std::flush;
  EXPECT_TRUE(file.bad());
  file.clear();
  file << "ab" << std::flush;
  EXPECT_TRUE(file.good());
  EXPECT_EQ(ReadWholeFile(name), "0123456789ab");
  EXPECT_THAT(capture.Records(), ElementsAre(FileRecord("Write", LogLevel::Error,
                                                        ErrorText("failed on write with ", EIO))));
}

TEST(FileFailureTest, BlockOutputStopsAtTheCharacterThatCouldNotBeWritten) {
  const struct {
    std::uint32_t writeBufferSize;
    std::streamsize taken;
    const char* written;
  } cases[] = {{0, 1, "a"}, {4, 8, "abcd"}};
  for (const auto& c : cases) {
    auto api = MakeForwardingMock();
    EXPECT_CALL(*api, DoWrite).WillOnce(DoDefault()).WillRepeatedly(Fail(EIO, -1L));
    File file = OpenInMemory(Buffers(1, c.writeBufferSize), std::move(api));
    EXPECT_EQ(file.sputn("abcdefghijkl", 12), c.taken);
    EXPECT_EQ(Contents(file), c.written);
  }
}

TEST(FileFailureTest, FailedSyncfsFailsOnlyTheInputSide) {
  auto api = MakeForwardingMock();
  ON_CALL(*api, DoSyncFs).WillByDefault(Fail(EIO, -1));
  const LogCapture capture;
  File readWrite = OpenInMemory(Buffers(4, 4), std::move(api));
  readWrite << "ab" << std::flush;
  EXPECT_TRUE(readWrite.bad());
  EXPECT_EQ(Contents(readWrite), "ab");
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(
          FileRecord("SyncOutput", LogLevel::Error, ErrorText("failed on output sync with ", EIO)),
          FileRecord("SyncInput", LogLevel::Error, ErrorText("failed on input sync with ", EIO))));

  const TempDir dir;
  const std::string name = dir.WriteFile("f", "");
  api = MakeForwardingMock();
  ON_CALL(*api, DoSyncFs).WillByDefault(Fail(EIO, -1));
  File writeOnly = OpenPath(name, Buffers(4, 4, false, true), std::move(api));
  writeOnly << "line" << std::endl;
  EXPECT_TRUE(writeOnly.good());
  EXPECT_EQ(ReadWholeFile(name), "line\n");
}

TEST(FileFailureTest, FlushOfAReadableFileFailsWhenTheRefillBringsNothing) {
  File file = OpenInMemory(Buffers(4, 4));
  file << std::flush;
  EXPECT_TRUE(file.bad());
}

TEST(FileFailureTest, ReadFailingAfterSomeBytesLeavesThemReadable) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "0123456789");
  auto api = MakeForwardingMock();
  EXPECT_CALL(*api, DoRead)
      .WillOnce([](int fd, void* buffer, unsigned long) { return ::read(fd, buffer, 3); })
      .WillRepeatedly(Fail(EIO, -1L));
  const LogCapture capture([](LogLevel level) { return level == LogLevel::Error; });
  File file = OpenPath(name, Buffers(8, 0, true, false), std::move(api));
  std::string got;
  std::getline(file, got);
  EXPECT_EQ(got, "012");
  EXPECT_TRUE(file.eof());
  const auto failedRead =
      FileRecord("underflow", LogLevel::Error, ErrorText("failed on underflow read with ", EIO));
  EXPECT_THAT(capture.Records(), ElementsAre(failedRead, failedRead));
}

TEST(FileFailureTest, FailedPositioningGivesEndOfFileAndWritesNothing) {
  const TempDir dir;
  const std::string name = dir.WriteFile("f", "0123456789");
  auto api = MakeForwardingMock();
  ON_CALL(*api, DoLSeek).WillByDefault(Fail(ESPIPE, -1L));
  const LogCapture capture;
  {
    File file = OpenPath(name, Buffers(4, 4), std::move(api));
    EXPECT_EQ(file.get(), EOF);
    file.clear();
    file << "ab" << std::flush;
    EXPECT_TRUE(file.bad());
  }
  EXPECT_EQ(ReadWholeFile(name), "0123456789");
  EXPECT_THAT(capture.Records(), Contains(FileRecord("SeekSet", LogLevel::Debug,
                                                     ErrorText("failed on lseek with ", ESPIPE))));
}

TEST(FileFailureTest, FailedCloseIsLoggedWithTheErrorNumber) {
  auto api = MakeForwardingMock();
  ON_CALL(*api, DoClose).WillByDefault([](int fd) {
    ::close(fd);
    return Fail(EIO, -1)();
  });
  const LogCapture capture;
  OpenInMemory(Buffers(1, 1), std::move(api));
  EXPECT_THAT(capture.Records(),
              ElementsAre(FileRecord("~File", LogLevel::Error,
                                     "failed on close with " + std::to_string(EIO))));
}

struct PartialOperationCase {
  const char* name;
  std::function<long long(File&)> run;
  long long result;
  std::vector<::testing::Matcher<const LogRecord&>> records;
};

class FilePartialOperationTest : public ::testing::TestWithParam<PartialOperationCase> {};

TEST_P(FilePartialOperationTest, AnswersAndLogs) {
  const TempDir dir;
  File file = OpenPath(dir.WriteFile("f", "0123456789"), Buffers(4, 0, true, false));
  const LogCapture capture;
  EXPECT_EQ(GetParam().run(file), GetParam().result);
  EXPECT_THAT(capture.Records(), ::testing::ElementsAreArray(GetParam().records));
}

const auto kSeekOff =
    FileRecord("seekoff", LogLevel::Error, "Call to unimplemented method seekoff");
const auto kUflow = FileRecord("uflow", LogLevel::Debug, "uflow not implemented");

INSTANTIATE_TEST_SUITE_P(
    Operations, FilePartialOperationTest,
    ::testing::Values(
        PartialOperationCase{"TellG", [](File& f) { return f.tellg(); }, -1, {kSeekOff}},
        PartialOperationCase{"SeekFromADirection",
                             [](File& f) { return f.seekg(1, std::ios_base::beg).fail(); },
                             1,
                             {kSeekOff}},
        PartialOperationCase{
            "InAvail",
            [](File& f) { return f.in_avail(); },
            0,
            {FileRecord("showmanyc", LogLevel::Debug, "showmanyc not implemented")}},
        PartialOperationCase{
            "NegativeCount",
            [](File& f) {
              char buffer[1];
              return f.sgetn(buffer, -1);
            },
            0,
            {FileRecord("xsgetn", LogLevel::Warning, "xsgetn called with negative count size")}},
        PartialOperationCase{
            "MoreThanTheGetArea",
            [](File& f) {
              std::string got(11, '\0');
              const auto count = f.sgetn(got.data(), 11);
              return got == std::string("0123456789") + '\0' ? count : -2;
            },
            10,
            {FileRecord("xsgetn", LogLevel::Error, "xsgetn multi buffer read not implemented"),
             kUflow, kUflow, kUflow}},
        PartialOperationCase{"Get", [](File& f) { return f.get(); }, '0', {kUflow}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace drn
