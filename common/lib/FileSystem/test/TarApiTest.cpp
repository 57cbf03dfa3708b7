// TarApi and its free functions: argument vectors, byte-wise reads, closing the pipe, and the
// limits of waiting before reading.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "FakeProgramDir.h"
#include "TestHelpers.h"
#include "Untar.h"

namespace drn {
namespace {

using testing::Described;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using testing::LogCapture;

struct ConvertCase {
  std::vector<std::string> args;
  std::vector<std::string> after;
};

class ConvertArgsTest : public ::testing::TestWithParam<ConvertCase> {};

TEST_P(ConvertArgsTest, PutsTarInFrontAndPointsIntoTheList) {
  std::vector<std::string> args = GetParam().args;
  const std::vector<char*> argv = ConvertArgs(args);
  EXPECT_EQ(args, GetParam().after);
  ASSERT_EQ(argv.size(), args.size() + 1);
  for (std::size_t i = 0; i < args.size(); ++i) {
    EXPECT_EQ(argv[i], args[i].data()) << i;
  }
  EXPECT_EQ(argv.back(), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    Lists, ConvertArgsTest,
    ::testing::Values(ConvertCase{{"-tf", "a b"}, {"tar", "-tf", "a b"}}, ConvertCase{{}, {"tar"}},
                      ConvertCase{{"tar", "-tf"}, {"tar", "-tf"}},
                      ConvertCase{{"/bin/tar", "-x"}, {"tar", "/bin/tar", "-x"}},
                      ConvertCase{{"TAR"}, {"tar", "TAR"}}, ConvertCase{{""}, {"tar", ""}}));

TEST(ReadFDTest, ReadsEveryByteAndStopsAtAnEmptyPipe) {
  int fds[2];
  ASSERT_EQ(::pipe2(fds, O_NONBLOCK), 0);
  const std::string bytes("a\0b\nc\0", 6);
  ASSERT_EQ(::write(fds[1], bytes.data(), bytes.size()), 6);
  EXPECT_EQ(ReadFD(fds[0]), bytes);
  EXPECT_EQ(ReadFD(fds[0]), "");  // EAGAIN with the write end still open
  ::close(fds[1]);
  EXPECT_EQ(ReadFD(fds[0]), "");  // end of file
  ::close(fds[0]);
}

struct CloseCase {
  bool firstOpen;
  bool secondOpen;
  int result;
};

class ClosePipeTest : public ::testing::TestWithParam<CloseCase> {};

TEST_P(ClosePipeTest, ClosesBothAndLogsAFailure) {
  const LogCapture log;
  int fds[2];
  ASSERT_EQ(::pipe(fds), 0);
  const bool open[2] = {GetParam().firstOpen, GetParam().secondOpen};
  for (int end : {0, 1}) {
    if (!open[end]) {
      ::close(fds[end]);
    }
  }
  EXPECT_EQ(ClosePipe(fds[0], fds[1]), GetParam().result);
  for (int fd : fds) {
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1) << "still open: " << fd;
  }
  const auto records = log.Records();
  if (open[0] && open[1]) {
    EXPECT_THAT(records, IsEmpty());
  } else {
    EXPECT_THAT(Described(records), ElementsAre("ClosePipe 3/0x8027: failed to close pipe: 9"));
    EXPECT_EQ(records.at(0).file, "common/lib/FileSystem/src/Untar.cpp");
  }
}

INSTANTIATE_TEST_SUITE_P(Ends, ClosePipeTest,
                         ::testing::Values(CloseCase{true, true, 0}, CloseCase{false, true, 0},
                                           CloseCase{true, false, 0}, CloseCase{false, false, -1}));

TEST(TarApiTest, IgnoredChildSignalMakesTheWaitFail) {
  const testing::FakeProgramDir programs;
  programs.AddScript("tar", "exit 0");
  EXPECT_EQ(testing::RunInChild([] {
              const LogCapture log;
              std::signal(SIGCHLD, SIG_IGN);
              std::vector<std::string> args;
              try {
                TarApi().RunCmd(args);
              } catch (const std::runtime_error& error) {
                return std::string(error.what()) == "waitpid failure" &&
                       Described(log.Records()) ==
                           std::vector<std::string>{"RunCmd 3/0x8027: waitpid failure: " +
                                                    std::string(std::strerror(ECHILD))};
              }
              return false;
            }),
            0);
}

}  // namespace
}  // namespace drn
