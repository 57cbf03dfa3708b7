// drxfs's command line as a whole: failures, usage errors, help and the log level.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsResult;
using testing::DrxfsSetting;
using testing::ExpectOneLineFailure;
using testing::Lines;
using testing::ReadWholeFile;
using testing::RunDrxfs;
using testing::TempDir;

// A failing command line and the path and reason its one error line must give. "@" at the
// start of a text stands for the directory that FailureTree makes.
struct FailureCase {
  std::vector<std::string> args;
  std::string path;
  std::string reason;
  bool unprivileged = false;
  std::optional<rlim_t> openFileLimit = std::nullopt;
  std::string reasonOnFat = "";  // when FAT's driver gives another reason
};

void PrintTo(const FailureCase& value, std::ostream* os) {
  *os << ::testing::PrintToString(value.args);
}

// A name longer than a file name may be.
const std::string kLongName(300, 'n');

// A directory, made once, holding "file", "out/", "corrupt.tar", "fifo.tar" (a pipe that no one
// ever writes to), "loop" (a symbolic link to itself), "locked/inside" (in a directory only root
// may search), and "long.tar" (1000 names of 99 bytes, more than a pipe holds, with a damaged
// header after the 600th).
const TempDir& FailureTree() {
  static const TempDir dir;
  static const bool made = [] {
    dir.WriteFile("file", "x");
    dir.MakeDir("out");
    dir.WriteFile("corrupt.tar", std::string(2000, 'x'));
    dir.WriteFile("locked/inside", "x");
    std::string names;
    for (int member = 0; member < 1000; ++member) {
      names += " " + std::string(99, 'm');
    }
    dir.WriteFile(std::string(99, 'm'), "");
    const std::string command = "cd '" + dir.Path() + "' && tar --format=gnu -cf long.tar" + names;
    if (std::system(command.c_str()) != 0) {
      return false;
    }
    if (!testing::OnFat(dir.Path()) && (::mkfifo((dir / "fifo.tar").c_str(), 0600) != 0 ||
                                        ::symlink("loop", (dir / "loop").c_str()) != 0 ||
                                        ::chmod((dir / "locked").c_str(), 0700) != 0)) {
      return false;
    }
    std::string archive = ReadWholeFile(dir / "long.tar");
    dir.WriteFile("long.tar", archive.replace(600 * 512, 100, 100, 'x'));
    return true;
  }();
  EXPECT_TRUE(made);
  return dir;
}

// Whether a case needs an entry that FAT cannot hold.
bool NeedsUnixEntries(const std::string& path) {
  return path.find("fifo") != std::string::npos || path.find("loop") != std::string::npos ||
         path.find("locked") != std::string::npos;
}

class DrxfsFailureTest : public ::testing::TestWithParam<FailureCase> {};

TEST_P(DrxfsFailureTest, IsStatusOneWithOneShortLineNamingPathAndReason) {
#ifdef __SANITIZE_ADDRESS__
  if (GetParam().openFileLimit) {
    GTEST_SKIP() << "the sanitizers' own checks need free descriptors";
  }
#endif
  const TempDir& dir = FailureTree();
  if (NeedsUnixEntries(GetParam().path) && testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no named pipes, symbolic links or permission bits";
  }
  const auto inDir = [&dir](const std::string& text) {
    return text[0] == '@' ? dir.Path() + text.substr(1) : text;
  };
  std::vector<std::string> args;
  for (const std::string& arg : GetParam().args) {
    args.push_back(inDir(arg));
  }
  DrxfsSetting setting;
  setting.input = "input\n";
  setting.unprivileged = GetParam().unprivileged;
  setting.openFileLimit = GetParam().openFileLimit;
  const DrxfsResult result = RunDrxfs(args, setting);
  ExpectOneLineFailure(result, 1);
  // A long path is shown without its middle.
  const std::string path = inDir(GetParam().path);
  const std::string pathEnd = path.substr(path.size() - std::min<std::size_t>(path.size(), 64));
  EXPECT_NE(result.err.find(pathEnd + ": "), std::string::npos) << result.err;
  const std::string& reason = GetParam().reasonOnFat.empty() || !testing::OnFat(dir.Path())
                                  ? GetParam().reason
                                  : GetParam().reasonOnFat;
  EXPECT_NE(result.err.find(reason), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DrxfsFailureTest,
    ::testing::Values(
        FailureCase{{"size", "@/missing"}, "@/missing", "No such file"},
        FailureCase{{"size", "@/out"}, "@/out", "Is a directory"},
        FailureCase{{"size", "@/loop"}, "@/loop", "Too many levels of symbolic links"},
        FailureCase{{"size", "@/locked/inside"}, "@/locked/inside", "Permission denied", true},
        // FAT's look-up does not measure the name: it finds no such entry.
        FailureCase{{"size", "@/" + kLongName},
                    "@/" + kLongName,
                    "File name too long",
                    false,
                    std::nullopt,
                    "No such file"},
        FailureCase{{"touch", "@/no/f"}, "@/no/f", "No such file"},
        // Reading address 0 of the process fails: a read error is not an end of file.
        FailureCase{{"cat", "/proc/self/mem"}, "/proc/self/mem", "Input/output error"},
        FailureCase{{"write", "/dev/full"}, "/dev/full", "No space left"},
        FailureCase{{"write", "@/missing"}, "@/missing", "No such file"},
        FailureCase{{"du", "@/file"}, "@/file", "Not a directory"},
        FailureCase{{"du", "@/locked"}, "@/locked", "Permission denied", true},
        FailureCase{{"df", "/proc"}, "/proc", "total size of 0"},
        FailureCase{{"mkdir", "@/file"}, "@/file", "exists and is not a directory"},
        FailureCase{{"mkdir", "@/file/sub"}, "@/file/sub", "Not a directory"},
        FailureCase{{"mkdir", "@/" + kLongName}, "@/" + kLongName, "File name too long"},
        FailureCase{{"mkdir", "@/locked/sub"}, "@/locked/sub", "Permission denied", true},
        FailureCase{{"empty", "@/file"}, "@/file", "Not a directory"},
        FailureCase{{"tar", "list", "@/missing.tar"}, "@/missing.tar", "No such file"},
        FailureCase{{"tar", "list", "@/corrupt.tar"}, "@/corrupt.tar", "not look like a tar"},
        // Among a listing longer than a failure line, tar's own messages are kept (the streaming
        // runner puts them after the listing).
        FailureCase{{"tar", "list", "@/long.tar"},
                    "@/long.tar",
                    "lines left out ...]; tar: Skipping to next header; tar: Exiting with failure"},
        FailureCase{{"tar", "list", "--runner", "pipe", "@/long.tar"},
                    "@/long.tar",
                    "tar: Skipping to next header"},
        // Descriptors 0 to 4 are taken: no pipe can be made for tar.
        FailureCase{{"tar", "list", "@/file"}, "@/file", "Too many open files", false, 5},
        FailureCase{
            {"tar", "extract", "@/corrupt.tar", "@/out"}, "@/corrupt.tar", "not look like a tar"},
        FailureCase{{"tar", "extract", "@/corrupt.tar", "@/file"}, "@/file", "Not a directory"},
        FailureCase{{"tar", "extract", "--timeout", "0.2", "@/fifo.tar", "@/out"},
                    "@/fifo.tar",
                    "tar timed out"}));

TEST(DrxfsStandardOutputTest, AFailedWriteToStandardOutputIsAFailure) {
  DrxfsSetting setting;
  setting.stdoutPath = "/dev/full";
  ExpectOneLineFailure(RunDrxfs({"path", "/"}, setting), 1);
}

// A command line that is not understood and what its one line must say.
struct UsageCase {
  std::vector<std::string> args;
  std::string says;
};

void PrintTo(const UsageCase& value, std::ostream* os) {
  *os << ::testing::PrintToString(value.args);
}

class DrxfsUsageTest : public ::testing::TestWithParam<UsageCase> {};

TEST_P(DrxfsUsageTest, IsStatusTwoWithOneLine) {
  const DrxfsResult result = RunDrxfs(GetParam().args);
  ExpectOneLineFailure(result, 2);
  EXPECT_NE(result.err.find(GetParam().says), std::string::npos) << result.err;
}

INSTANTIATE_TEST_SUITE_P(
    CommandLines, DrxfsUsageTest,
    ::testing::Values(UsageCase{{}, "drxfs: "},
                      UsageCase{{"frobnicate"}, "drxfs: unknown command \"frobnicate\""},
                      UsageCase{{"tar", "frob"}, "drxfs tar: unknown command \"frob\""},
                      UsageCase{{"size", "--bogus", "/"}, "drxfs size: "},
                      UsageCase{{"path", "/", "/tmp"}, "drxfs path: "},
                      UsageCase{{"--log-level", "8", "path", "/"}, "drxfs path: "},
                      UsageCase{{"tar"}, "drxfs tar: "},
                      UsageCase{{"tar", "list", "--runner", "fast", "a"}, "drxfs tar list: "},
                      UsageCase{{"tar", "extract", "--runner", "pipe", "--timeout", "1", "a", "/"},
                                "needs the streaming runner"}));

TEST(DrxfsHelpTest, EveryCommandHasHelp) {
  EXPECT_EQ(RunDrxfs({"--help"}).status, 0);
  const std::vector<std::vector<std::string>> commands = {
      {"path"}, {"touch"}, {"truncate"}, {"size"}, {"cat"},         {"write"},         {"df"},
      {"du"},   {"mkdir"}, {"empty"},    {"tar"},  {"tar", "list"}, {"tar", "extract"}};
  for (std::vector<std::string> args : commands) {
    const std::string name = args.size() == 1 ? args[0] : args[0] + " " + args[1];
    args.emplace_back("--help");
    const DrxfsResult help = RunDrxfs(args);
    EXPECT_EQ(help.status, 0) << name;
    EXPECT_NE(help.out.find("Usage: drxfs " + name), std::string::npos) << help.out;
  }
}

TEST(DrxfsLogLevelTest, ShowsLibraryRecordsOnlyWhenAsked) {
  const TempDir dir;
  const std::string file = dir / "missing/f";
  for (const auto& args : {std::vector<std::string>{"--log-level", "3", "touch", file},
                           std::vector<std::string>{"touch", "--log-level", "3", file}}) {
    const DrxfsResult result = RunDrxfs(args);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(Lines(result.err), 2u) << result.err;
    EXPECT_NE(result.err.find("Could not open " + file), std::string::npos) << result.err;
  }
}

}  // namespace
}  // namespace drn
