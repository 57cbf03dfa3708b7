// What both tar runners share: statuses, captured output and records, with a stand-in tar, and
// no descriptor or child left behind by any run.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "FakeProgramDir.h"
#include "StreamingTarApi.h"
#include "TestHelpers.h"
#include "Untar.h"

namespace drn {
namespace {

using testing::Described;
using ::testing::ElementsAre;
using testing::FakeProgramDir;
using ::testing::IsEmpty;

struct Runner {
  const char* name;
  std::function<std::shared_ptr<TarApi>()> make;
};

void PrintTo(const Runner& runner, std::ostream* os) {
  *os << runner.name;
}

class TarRunnerTest : public ::testing::TestWithParam<Runner> {
 protected:
  void TearDown() override {
    EXPECT_EQ(testing::CountOpenDescriptors(), descriptors);
    EXPECT_FALSE(testing::HasChildProcesses());
  }

  std::pair<std::string, int> RunScript(const std::string& script) {
    programs.AddScript("tar", script);
    return GetParam().make()->RunCmd(args);
  }

  const int descriptors = testing::CountOpenDescriptors();
  FakeProgramDir programs;
  testing::LogCapture log;
  std::vector<std::string> args = {"-tf", "an archive.tar"};
};

TEST_P(TarRunnerTest, SuccessGivesOutputAndNoRecord) {
  EXPECT_EQ(RunScript("printf 'a\\nb'"), std::make_pair(std::string("a\nb"), 0));
  EXPECT_THAT(log.Records(), IsEmpty());
}

TEST_P(TarRunnerTest, FailureGivesExitStatusAndRecordWithOutput) {
  EXPECT_EQ(RunScript("echo line; exit 2"), std::make_pair(std::string("line\n"), 2));
  EXPECT_THAT(Described(log.Records()), ElementsAre("RunCmd 3/0x8027: tar returned 2,\nline\n"));
}

TEST_P(TarRunnerTest, RunsTarWithTheArgumentsAndInterleavesBothOutputs) {
  const auto [output, status] =
      RunScript("echo out1; echo err1 >&2; printf '[%s]' \"$@\"; echo err2 >&2");
  EXPECT_EQ(output, "out1\nerr1\n[-tf][an archive.tar]err2\n");
  EXPECT_EQ(status, 0);
  EXPECT_THAT(args, ElementsAre("tar", "-tf", "an archive.tar"));
}

TEST_P(TarRunnerTest, ChildKilledBySignalThrows) {
  EXPECT_THAT([&] { RunScript("echo lost; kill -KILL $$"); },
              ::testing::ThrowsMessage<std::runtime_error>("child process did not exit"));
  EXPECT_THAT(Described(log.Records()),
              ElementsAre("RunCmd 3/0x8027: child process did not exit: 9"));
}

TEST_P(TarRunnerTest, MissingTarGivesStatus255) {
  const FakeProgramDir nothing(FakeProgramDir::Search::Only);
  // TarApi's child leaves with exit(), which writes out the stdio buffers it inherited from this
  // process; the test's own pending output must not count as the child's.
  std::fflush(nullptr);
  EXPECT_EQ(GetParam().make()->RunCmd(args), std::make_pair(std::string(), 255));
  EXPECT_THAT(Described(log.Records()), ElementsAre("RunCmd 3/0x8027: tar returned 255,\n"));
}

TEST_P(TarRunnerTest, NoDescriptorLeftForThePipe) {
  const std::shared_ptr<TarApi> runner = GetParam().make();
  EXPECT_EQ(testing::RunInChild([&] {
              {
                // The sanitizers' type check needs a pipe the first time it meets a record's
                // stream; let it meet one while descriptors are left.
                const testing::LogCapture warmUp;
                LogClient("", "", 0, LogLevel::Error, LogCategory::Tar) << 0;
              }
              const testing::LogCapture childLog;
              rlimit limit{};
              ::getrlimit(RLIMIT_NOFILE, &limit);
              const rlimit none{0, limit.rlim_max};
              std::vector<std::string> list = {"-tf", "a.tar"};
              if (::setrlimit(RLIMIT_NOFILE, &none) != 0) {
                return false;
              }
              const auto result = runner->RunCmd(list);
              ::setrlimit(RLIMIT_NOFILE, &limit);
              return result == std::make_pair(std::string(), -EMFILE) &&
                     list == std::vector<std::string>{"-tf", "a.tar"} &&
                     Described(childLog.Records()) ==
                         std::vector<std::string>{"RunCmd 3/0x8027: failed to pipe: 24"};
            }),
            0);
}

INSTANTIATE_TEST_SUITE_P(
    Runners, TarRunnerTest,
    ::testing::Values(Runner{"TarApi", [] { return std::make_shared<TarApi>(); }},
                      Runner{"Streaming", [] { return std::make_shared<StreamingTarApi>(); }},
                      Runner{"StreamingWithTimeOut",
                             [] {
                               return std::make_shared<StreamingTarApi>(std::chrono::seconds(10));
                             }}),
    [](const ::testing::TestParamInfo<Runner>& info) { return info.param.name; });

}  // namespace
}  // namespace drn
