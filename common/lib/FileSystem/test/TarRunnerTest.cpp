// What both tar runners share, with a stand-in tar: output, statuses and records, and no
// descriptor or child left behind by any run; and closing a pipe.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "FailingAllocations.h"
#include "StreamingTarApi.h"
#include "TarRunFixture.h"
#include "TestHelpers.h"
#include "Untar.h"

namespace drn {
namespace {

using namespace std::string_literals;
using testing::Described;
using ::testing::ElementsAre;
using Lines = std::vector<std::string>;

class TarRunnerTest : public testing::TarRunFixture<::testing::TestWithParam<const char*>> {
 protected:
  std::shared_ptr<TarApi> Make() const {
    if (GetParam() == "TarApi"s) {
      return std::make_shared<TarApi>();
    }
    return GetParam() == "Streaming"s ? std::make_shared<StreamingTarApi>()
                                      : std::make_shared<StreamingTarApi>(std::chrono::seconds(10));
  }
  std::vector<std::string> args = {"-tf", "an archive.tar"};
};

// TarApi interleaves standard error with the output as written; the streaming runner returns it
// after the output only when tar fails, and otherwise logs it.
TEST_P(TarRunnerTest, GivesTheOutputsAndTheExitStatus) {
  const bool apart = GetParam() != "TarApi"s;
  const std::string output = "out\0\n[-tf][an archive.tar]"s;
  // The second run gets the list back with "tar" in front already and must not add another.
  for (const int status : {0, 2}) {
    programs.AddScript("tar", "printf 'out\\0\\n'; echo err >&2; printf '[%s]' \"$@\"; exit " +
                                  std::to_string(status));
    const std::string merged =
        apart ? output + (status == 0 ? "" : "err\n") : "out\0\nerr\n[-tf][an archive.tar]"s;
    EXPECT_EQ(Make()->RunCmd(args), std::make_pair(merged, status));
    EXPECT_THAT(args, ElementsAre("tar", "-tf", "an archive.tar"));
  }
  const std::string failed = "RunCmd 3/0x8027: tar returned 2,\n" +
                             (apart ? output + "err\n" : "out\0\nerr\n[-tf][an archive.tar]"s);
  const Lines records =
      apart ? Lines{"RunCmd 4/0x8027: tar wrote on standard error: err\n", failed} : Lines{failed};
  EXPECT_EQ(Described(log.Records()), records);
}

TEST_P(TarRunnerTest, ChildKilledBySignalThrows) {
  programs.AddScript("tar", "echo lost; kill -KILL $$");
  EXPECT_THAT([&] { Make()->RunCmd(args); },
              ::testing::ThrowsMessage<std::runtime_error>("child process did not exit"));
  EXPECT_THAT(Described(log.Records()),
              ElementsAre("RunCmd 3/0x8027: child process did not exit: 9"));
}

// An exception while the argument vector is built (every allocation fails), or while the
// streaming runner reads (its 64 KiB buffer fails), leaves no descriptor and no child behind (the
// fixture checks). TarApi's reading puts bytes into a stream, which swallows a failed allocation.
TEST_P(TarRunnerTest, AnAllocationFailureLeavesNothingBehind) {
  programs.AddScript("tar", "head -c 20000 /dev/zero");
  const bool streaming = GetParam() != "TarApi"s;
  for (const std::size_t failFrom : {std::size_t{1}, std::size_t{32} * 1024}) {
    if (failFrom > 1 && !streaming) {
      continue;
    }
    std::vector<std::string> fresh = {"-tf", "a.tar"};
    const std::shared_ptr<TarApi> runner = Make();
    const testing::FailingAllocations failing(failFrom);
    EXPECT_THROW(runner->RunCmd(fresh), std::bad_alloc) << failFrom;
  }
}

INSTANTIATE_TEST_SUITE_P(Runners, TarRunnerTest,
                         ::testing::Values("TarApi", "Streaming", "StreamingWithTimeOut"),
                         [](const auto& info) { return std::string(info.param); });

TEST(ClosePipeTest, ClosesBothEndsAndRecordsAFailure) {
  // Whether the read end and the write end are closed beforehand, and ClosePipe's result.
  for (const auto [readClosed, writeClosed, result] :
       {std::array{0, 0, 0}, std::array{1, 0, 0}, std::array{0, 1, 0}, std::array{1, 1, -1}}) {
    const testing::LogCapture log;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    // Closing -1 does nothing.
    for (const int fd : {readClosed != 0 ? fds[0] : -1, writeClosed != 0 ? fds[1] : -1}) {
      ::close(fd);
    }
    EXPECT_EQ(ClosePipe(fds[0], fds[1]), result) << readClosed << writeClosed;
    EXPECT_TRUE(::fcntl(fds[0], F_GETFD) < 0 && ::fcntl(fds[1], F_GETFD) < 0);
    EXPECT_EQ(Described(log.Records()), readClosed + writeClosed == 0
                                            ? Lines{}
                                            : Lines{"ClosePipe 3/0x8027: failed to close pipe: 9"});
  }
}

}  // namespace
}  // namespace drn
