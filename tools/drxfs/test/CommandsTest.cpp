// Each drxfs command's output and exit status on real files, trees and archives.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "FakeProgramDir.h"
#include "RunDrxfs.h"
#include "ScratchFileSystem.h"

namespace drn {
namespace {

using testing::DrxfsResult;
using testing::DrxfsSetting;
using testing::FakeProgramDir;
using testing::ListTree;
using testing::ReadWholeFile;
using testing::RunDrxfs;
using testing::ScratchFileSystem;
using testing::TempDir;
using testing::WithInput;

TEST(DrxfsCommandTest, PathReportsWhatThePathSaysAsTextAndJson) {
  const TempDir dir;
  const std::string logs = dir.MakeDir("logs");
  const DrxfsResult text = RunDrxfs({"path", logs});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, logs + ": exists=yes directory=yes basename=\"logs\"\n");

  const DrxfsResult json = RunDrxfs({"path", "--json", dir / "missing.txt"});
  ASSERT_EQ(json.status, 0) << json.err;
  EXPECT_EQ(nlohmann::json::parse(json.out), (nlohmann::json{{"path", dir / "missing.txt"},
                                                             {"exists", false},
                                                             {"directory", false},
                                                             {"basename", "missing.txt"}}));
}

TEST(DrxfsCommandTest, SizeAndDfPrintBytesOrHumanUnits) {
  const TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no sparse files and none of 4 GiB or more";
  }
  const std::string file = dir.WriteFile("tree/f", "");
  // Sparse: large sizes cost nothing. Values that would show as 1024.0 go to the next unit.
  const std::vector<std::pair<off_t, std::string>> sizes = {
      {1023, "1023 B"}, {1536, "1.5 KiB"}, {1048575, "1.0 MiB"}, {5LL << 30, "5.0 GiB"}};
  for (const auto& [bytes, human] : sizes) {
    ASSERT_EQ(::truncate(file.c_str(), bytes), 0);
    EXPECT_EQ(RunDrxfs({"size", file}).out, std::to_string(bytes) + "\n");
    EXPECT_EQ(RunDrxfs({"size", "-h", file}).out, human + "\n");
  }
  const std::string df = RunDrxfs({"df", dir.Path()}).out;
  EXPECT_TRUE(std::regex_match(df, std::regex("[0-9]+\t[0-9]+%\n"))) << df;
}

TEST(DrxfsCommandTest, FileCommandsChangeAndCopyContents) {
  const TempDir dir;
  const std::string file = dir / "f";
  EXPECT_EQ(RunDrxfs({"touch", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");
  dir.WriteFile("f", "contents");
  EXPECT_EQ(RunDrxfs({"touch", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "contents");
  EXPECT_EQ(RunDrxfs({"truncate", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");

  // Every byte value, over several 64 KiB blocks and a partial one.
  std::string content(200000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<char>((i * 7 + i / 256) % 256);
  }
  const DrxfsResult cat = RunDrxfs({"cat", dir.WriteFile("binary", content)});
  EXPECT_EQ(cat.status, 0) << cat.err;
  EXPECT_TRUE(cat.out == content) << "different output of " << cat.out.size() << " bytes";
  const std::string big = dir.WriteFile("big", "");
  EXPECT_EQ(RunDrxfs({"write", big}, WithInput(content)).status, 0);
  EXPECT_TRUE(ReadWholeFile(big) == content);

  const std::string small = dir.WriteFile("small", "0123456789");
  EXPECT_EQ(RunDrxfs({"write", small}, WithInput("ab")).status, 0);
  EXPECT_EQ(ReadWholeFile(small), "ab23456789");
}

TEST(DrxfsCommandTest, WriteAtomicReplacesTheWholeFileOrLeavesItAsItWas) {
  const TempDir dir;
  const std::string settings = dir.WriteFile("settings", "an old content longer than the new");
  EXPECT_EQ(RunDrxfs({"write", "--atomic", settings}, WithInput("new")).status, 0);
  EXPECT_EQ(ReadWholeFile(settings), "new");
  const std::string input(300000, 'y');
  EXPECT_EQ(RunDrxfs({"write", dir / "fresh", "--atomic"}, WithInput(input)).status, 0);
  EXPECT_TRUE(ReadWholeFile(dir / "fresh") == input);

  // More input than the file system holds: nothing changes, and the failure says why.
  const ScratchFileSystem small(dir / "small", "size=64k");
  ASSERT_EQ(small.Failure(), "");
  const std::string full = dir.WriteFile("small/settings", "old");
  const DrxfsResult failed =
      RunDrxfs({"write", "--atomic", full}, WithInput(std::string(1 << 20, 'z')));
  EXPECT_EQ(failed.status, 1);
  EXPECT_TRUE(
      std::regex_match(failed.err, std::regex("drxfs write: " + full + ": replacing " + full +
                                              " failed on write to .*: No space "
                                              "left on device; it keeps its old content\n")))
      << failed.err;
  EXPECT_EQ(ReadWholeFile(full), "old");
  EXPECT_EQ(ListTree(small.MountPoint()), std::vector<std::string>{"settings"});
}

// A local stream socket whose peer closed with data it never read: 4097 bytes, then ECONNRESET.
int ResetAfter4097Bytes() {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 ||
      ::write(ends[1], std::string(4097, 'y').data(), 4097) != 4097 ||
      ::write(ends[0], "x", 1) != 1) {
    return -1;
  }
  ::close(ends[1]);
  return ends[0];
}

// What writing an input that cannot be read to its end into a file holding "old" says and leaves
// there.
struct BadInputCase {
  int (*input)();
  bool atomic;
  std::string says;  // after "FILE: cannot read standard input: "
  std::string left;
};

void PrintTo(const BadInputCase& value, std::ostream* os) {
  *os << value.says << (value.atomic ? " --atomic" : "");
}

class DrxfsBadInputTest : public ::testing::TestWithParam<BadInputCase> {};

TEST_P(DrxfsBadInputTest, FailsAndTellsWhatReachedTheFile) {
  const TempDir dir;
  const std::string file = dir.WriteFile("settings", "old");
  DrxfsSetting setting;
  setting.inputDescriptor = GetParam().input();
  ASSERT_NE(setting.inputDescriptor, -1) << std::strerror(errno);
  std::vector<std::string> args = {"write", file};
  if (GetParam().atomic) {
    args.emplace_back("--atomic");
  }
  const DrxfsResult result = RunDrxfs(args, setting);
  ::close(setting.inputDescriptor);
  testing::ExpectOneLineFailure(result, 1);
  EXPECT_NE(result.err.find(file + ": cannot read standard input: " + GetParam().says),
            std::string::npos)
      << result.err;
  EXPECT_EQ(ReadWholeFile(file), GetParam().left);
  EXPECT_EQ(ListTree(dir.Path()), std::vector<std::string>{"settings"});
}

const std::string kLeft = "; it is left as it was";
const std::string kReset = "Connection reset by peer";
const auto closedInput = [] { return testing::kClosedInput; };
const auto directoryInput = [] { return ::open("/", O_RDONLY | O_CLOEXEC); };

INSTANTIATE_TEST_SUITE_P(
    Inputs, DrxfsBadInputTest,
    ::testing::Values(BadInputCase{closedInput, false, "Bad file descriptor" + kLeft, "old"},
                      BadInputCase{closedInput, true, "Bad file descriptor" + kLeft, "old"},
                      BadInputCase{directoryInput, false, "Is a directory" + kLeft, "old"},
                      BadInputCase{directoryInput, true, "Is a directory" + kLeft, "old"},
                      BadInputCase{ResetAfter4097Bytes, false,
                                   kReset + "; the 4097 bytes read before were written to it",
                                   std::string(4097, 'y')},
                      BadInputCase{ResetAfter4097Bytes, true, kReset + kLeft, "old"}));

TEST(DrxfsCommandTest, DuCountsWhatItCanReadAndFailsNamingWhatItCannot) {
  const TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT keeps no permission bits: every directory can be read";
  }
  dir.WriteFile("tree/f", std::string(100, 'x'));
  dir.WriteFile("tree/open/g", std::string(50, 'x'));
  // One directory that may not be read, one whose entries may not be examined.
  dir.WriteFile("tree/open/locked/h", std::string(1000, 'x'));
  dir.WriteFile("tree/listable/i", std::string(1000, 'x'));
  ASSERT_EQ(::chmod((dir / "tree/open/locked").c_str(), 0700), 0);
  ASSERT_EQ(::chmod((dir / "tree/listable").c_str(), 0744), 0);
  const DrxfsResult result = RunDrxfs({"du", dir / "tree/"}, testing::Unprivileged());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "150\n");
  EXPECT_TRUE(std::regex_match(
      result.err, std::regex("drxfs du: " +
                             dir / "tree/: 2 directories could not be read and not "
                                   "counted, the first " +
                             dir / "tree/(open/locked|listable): Permission denied\n")))
      << result.err;
}

TEST(DrxfsCommandTest, MkdirAndEmptyLeaveWhatIsAlreadyAsAsked) {
  const TempDir dir;
  const std::string nested = dir / "a/b c/d";
  EXPECT_EQ(RunDrxfs({"mkdir", nested}).status, 0);
  dir.WriteFile("a/b c/d/sub/file", "y");
  dir.WriteFile("a/b c/d/.hidden", "z");
  EXPECT_EQ(RunDrxfs({"mkdir", nested}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(nested + "/sub/file"));

  EXPECT_EQ(RunDrxfs({"empty", nested}).status, 0);
  EXPECT_TRUE(std::filesystem::exists(nested + "/.hidden"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(nested), {}), 1);
  const DrxfsResult again = RunDrxfs({"empty", nested});
  EXPECT_EQ(again.status, 0);
  EXPECT_EQ(again.err, "");
}

TEST(DrxfsEmptyTest, TheRootDirectoryIsEmptiedOnlyWhenAskedExplicitly) {
  // Only a fake rm can be found, and drxfs runs unprivileged: a regression removes nothing.
  const FakeProgramDir fakes(FakeProgramDir::Search::Only);
  if (testing::OnFat(fakes.Dir().Path())) {
    GTEST_SKIP() << "FAT keeps no permission bits: the unprivileged fake rm cannot write there";
  }
  ::chmod(fakes.Dir().Path().c_str(), 0777);
  const std::string called = fakes.Dir() / "called";
  fakes.AddScript("rm", "echo \"$@\" > " + called);
  const DrxfsSetting setting = testing::Unprivileged();
  for (const std::string root : {"/", "//", "/."}) {
    const DrxfsResult refused = RunDrxfs({"empty", root}, setting);
    testing::ExpectOneLineFailure(refused, 1);
    EXPECT_NE(refused.err.find(root + ": refusing to empty the root directory"), std::string::npos)
        << refused.err;
    EXPECT_FALSE(std::filesystem::exists(called));
  }
  EXPECT_EQ(RunDrxfs({"empty", "--no-preserve-root", "/"}, setting).status, 0);
  EXPECT_EQ(ReadWholeFile(called).rfind("-r /", 0), 0u) << ReadWholeFile(called);
}

TEST(DrxfsEmptyTest, AFailureAtAMountPointSaysTheMountedContentsMayBeGone) {
  const TempDir dir;
  const std::string mountPoint = dir.MakeDir("d/mnt");
  const ScratchFileSystem mounted(mountPoint, "size=1m");
  ASSERT_EQ(mounted.Failure(), "");
  dir.WriteFile("d/mnt/kept-on-the-mount", "x");
  const DrxfsResult result = RunDrxfs({"empty", dir / "d"});
  testing::ExpectOneLineFailure(result, 1);
  const std::string shown = std::filesystem::canonical(mountPoint).string();
  EXPECT_NE(
      result.err.find(shown + " is a mount point: the mounted file system's contents may already "
                              "be gone"),
      std::string::npos)
      << result.err;
  EXPECT_FALSE(std::filesystem::exists(mountPoint + "/kept-on-the-mount"));
}

// The ways of choosing a runner: the default (streaming), the contract's pipe runner, and the
// default's old flag.
const std::vector<std::vector<std::string>> kRunnerChoices = {
    {}, {"--runner", "pipe"}, {"--streaming"}};

// command, then the runner choice, then operands.
std::vector<std::string> TarCommand(const std::string& command,
                                    const std::vector<std::string>& runner,
                                    const std::vector<std::string>& operands) {
  std::vector<std::string> args = {"tar", command};
  args.insert(args.end(), runner.begin(), runner.end());
  args.insert(args.end(), operands.begin(), operands.end());
  return args;
}

// Makes archive in dir from src's a.txt (alpha) and sub/b.txt (beta), in that order with sub/.
void MakeArchive(const TempDir& dir, const std::string& archive) {
  dir.WriteFile("src/a.txt", "alpha");
  dir.WriteFile("src/sub/b.txt", "beta");
  const std::string command = "tar -cf '" + archive + "' -C '" + (dir / "src") + "' a.txt sub";
  ASSERT_EQ(std::system(command.c_str()), 0);
}

// Relative archive names are local files: tar would read "-" from standard input, and look for a
// host "logs_2024-05-01T12".
TEST(DrxfsCommandTest, TarListsMembersWithoutDirectoriesAndExtractsWithEveryRunner) {
  const TempDir dir;
  MakeArchive(dir, dir / "-");
  // FAT refuses ':' in names.
  const bool onFat = testing::OnFat(dir.Path());
  std::vector<std::string> archives = {"-"};
  if (!onFat) {
    archives.emplace_back("logs_2024-05-01T12:30:00.tar");
    std::filesystem::copy_file(dir / "-", dir / archives.back());
  }
  DrxfsSetting setting = WithInput("not an archive");
  setting.workingDirectory = dir.Path();
  for (const auto& runner : kRunnerChoices) {
    SCOPED_TRACE(::testing::PrintToString(runner));
    for (const std::string& archive : archives) {
      const DrxfsResult listed = RunDrxfs(TarCommand("list", runner, {archive}), setting);
      EXPECT_EQ(listed.out, "a.txt\nsub/b.txt\n") << listed.err;
    }
    const DrxfsResult json = RunDrxfs(TarCommand("list", runner, {"--json", "-"}), setting);
    ASSERT_EQ(json.status, 0) << json.err;
    EXPECT_EQ(nlohmann::json::parse(json.out),
              (nlohmann::json{{"archive", "-"}, {"entries", {"a.txt", "sub/b.txt"}}}));

    const std::string out = (onFat ? "out-" : "out:") + std::to_string(runner.size());
    dir.MakeDir(out);
    const DrxfsResult extracted = RunDrxfs(TarCommand("extract", runner, {"-", out}), setting);
    EXPECT_EQ(extracted.status, 0) << extracted.err;
    EXPECT_EQ(extracted.out + extracted.err, "");
    EXPECT_EQ(ReadWholeFile(dir / out + "/a.txt"), "alpha");
    EXPECT_EQ(ReadWholeFile(dir / out + "/sub/b.txt"), "beta");
  }
  if (onFat) {
    GTEST_SKIP() << "FAT refuses ':' in names: only \"-\" was tried";
  }
}

TEST(DrxfsNameTest, JsonWritesNamesThatAreNotUtf8AsTheirBytes) {
  const TempDir dir;
  if (testing::OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT keeps names in UTF-16: a name that is not UTF-8 cannot be made there";
  }
  const std::string bad = "f\xff\xfe.txt";
  const std::string good = "\xc3\xa9t\xc3\xa9.txt";  // "été.txt"
  const std::string file = dir.WriteFile("d\xff/" + bad, "12345");
  dir.WriteFile("d\xff/" + good, "");
  const auto bytes = [](const std::string& text) {
    return nlohmann::json(std::vector<unsigned char>(text.begin(), text.end()));
  };
  const auto json = [](const std::vector<std::string>& args) {
    const DrxfsResult result = RunDrxfs(args);
    EXPECT_EQ(result.status, 0) << result.err;
    return nlohmann::json::parse(result.out);
  };
  EXPECT_EQ(json({"path", "--json", file}), (nlohmann::json{{"path", bytes(file)},
                                                            {"exists", true},
                                                            {"directory", false},
                                                            {"basename", bytes(bad)}}));
  EXPECT_EQ(json({"size", "--json", file}), (nlohmann::json{{"path", bytes(file)}, {"bytes", 5}}));
  EXPECT_EQ(json({"du", "--json", dir / "d\xff"}),
            (nlohmann::json{{"path", bytes(dir / "d\xff")}, {"bytes", 5}}));
  EXPECT_EQ(json({"df", "--json", dir / "d\xff"})["path"], bytes(dir / "d\xff"));

  const std::string archive = dir / "a\xff.tar";
  const std::string command =
      "tar -cf '" + archive + "' -C '" + (dir / "d\xff") + "' '" + bad + "' '" + good + "'";
  ASSERT_EQ(std::system(command.c_str()), 0);
  // tar itself writes such member names escaped (f\377\376.txt), and valid UTF-8 ones as they
  // are only in a UTF-8 locale; the archive's name comes from the command line.
  const testing::ScopedEnvironmentVariable utf8("LC_ALL", "C.UTF-8");
  const nlohmann::json listed = json({"tar", "list", "--json", archive});
  EXPECT_EQ(listed["archive"], bytes(archive));
  EXPECT_EQ(listed["entries"].size(), 2u);
  EXPECT_EQ(listed["entries"].back(), good);
}

}  // namespace
}  // namespace drn
