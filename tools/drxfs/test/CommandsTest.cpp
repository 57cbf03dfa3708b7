// Each drxfs command run as a process on a real tree: arguments and input in, then exit status,
// standard output, standard error and what the run changed in the tree.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "FakeProgramDir.h"
#include "RunDrxfs.h"
#include "ScratchFileSystem.h"

namespace drn {
namespace {

using testing::DrxfsResult;
using testing::ReadWholeFile;

// Every byte value, over several 64 KiB blocks and a partial one.
const std::string kBinary = [] {
  std::string content(200000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<char>((i * 7 + i / 256) % 256);
  }
  return content;
}();
const std::string kLongName(300, 'n');

// Standard inputs that cannot be read to their end, and one that never ends after "new".
const auto ClosedInput = [](const std::string&) { return testing::kClosedInput; };
int EndlessInput(const std::string& tree) {
  const int fifo = ::open((tree + "/fifo.tar").c_str(), O_RDWR | O_CLOEXEC);
  return ::write(fifo, "new", 3) == 3 ? fifo : -1;
}
// A local stream socket whose peer closed with data it never read: 4097 bytes, then ECONNRESET.
int ResetAfter4097Bytes(const std::string&) {
  int ends[2] = {-1, -1};
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0 ||
      ::write(ends[1], std::string(4097, 'y').data(), 4097) != 4097 ||
      ::write(ends[0], "x", 1) != 1) {
    return -1;
  }
  ::close(ends[1]);
  return ends[0];
}

enum Flags {
  kUnprivileged = 1,
  kUnixOnly = 2,    // needs what FAT cannot hold (pipes, links, permissions, ':', 5 GiB)
  kInTree = 4,      // runs in the tree, with "not an archive" on standard input
  kFullOutput = 8,  // standard output is /dev/full
  // The only programs on PATH: an rm that writes its arguments to "called", and a slow tar that
  // starts a process of its own and writes both process ids to "pids".
  kFakes = 32
};

// Waits, with a limit only a hang reaches, until done() holds, and returns whether it does.
template <typename Done>
bool Eventually(Done done) {
  for (int attempt = 0; attempt < 3000 && !done(); ++attempt) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return done();
}

// Whether pid names a process that has not ended (a zombie has).
bool Running(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  std::getline(stat, line);
  const std::string::size_type state = line.rfind(')') + 2;
  return state < line.size() && line[state] != 'Z' && line[state] != 'X';
}

// "@" in any text stands for the tree. out, err and content are the whole text: exactly, as a
// regular expression, or as a JSON document. Outside of file, the run must change nothing.
struct Case {
  std::vector<std::string> args;
  int status;
  std::string out;
  std::string err;
  std::string file = "";     // the entry the run may change
  std::string content = "";  // what file then holds (a directory: its tree with file contents)
  std::string input = "";
  int flags = 0;
  int (*inputDescriptor)(const std::string& tree) = nullptr;
  int signal = 0;  // sent once tar has started or a replacement has begun
};

void PrintTo(const Case& value, std::ostream* os) {
  *os << ::testing::PrintToString(value.args);
}

std::string Replace(const std::string& text, const std::string& by) {
  return std::regex_replace(text, std::regex("@"), by);
}

// The tree: "file" (x), "out/", "digits", "settings" (old), "binary", archives "corrupt.tar",
// "long.tar" (1000 names of 99 bytes, more than a pipe holds, with a damaged header after the
// 600th), "-" and "logs_2024-05-01T12:30:00.tar" (a.txt alpha, then sub/b.txt beta), "fifo.tar" (a
// pipe no one writes to), "loop" (a link to itself), "locked/inside" (only root may search
// locked), sparse "s/SIZE", "du/" with two directories unprivileged du cannot count, "e/", "dots/"
// (a dotted entry alone), "\xff.tar" (names that are not UTF-8 and "\xc3\xa9t\xc3\xa9.txt"), and
// "m/small", a 64 KiB file system holding "settings".
const char* const kTree = R"(cd "$1" && set -e; printf old > m/small/settings
printf x > file; printf 0123456789 > digits; printf old > settings; mkdir -p out src/sub e/sub dots
printf %02000d 0 > corrupt.tar; printf alpha > src/a.txt; printf beta > src/sub/b.txt
tar -cf ./- -C src a.txt sub; : > e/.hidden; printf y > e/f; printf y > e/sub/file; : > dots/.hidden
m=$(printf %099d 0 | tr 0 m); : > $m; tar --format=gnu -cf long.tar $(yes $m | head -n 1000)
printf %0100d 0 | tr 0 x | dd of=long.tar bs=512 seek=600 conv=notrunc status=none
[ "$2" = fat ] && exit 0
mkdir -p locked s du/open/locked du/listable; printf x > locked/inside; mkfifo fifo.tar; ln -s loop loop
cp ./- logs_2024-05-01T12:30:00.tar; truncate -s 100 du/f; truncate -s 50 du/open/g
truncate -s 1000 du/open/locked/h du/listable/i; chmod 700 locked du/open/locked; chmod 744 du/listable
for size in 1023 1536 1048575 5368709120; do truncate -s $size s/$size; done
b=$(printf "f\377\376.txt"); g=$(printf "\303\251t\303\251.txt"); mkdir u; : > "u/$b"; : > "u/$g"
tar -cf "$(printf "\377").tar" -C u "$b" "$g")";

class DrxfsCommandTest : public ::testing::TestWithParam<Case> {
 protected:
  void SetUp() override {
    const bool fat = testing::OnFat(tree.Path());
    if (fat && (GetParam().flags & (kUnixOnly | kUnprivileged)) != 0) {
      GTEST_SKIP() << "FAT holds no pipes, links, permission bits, ':' in names or 5 GiB files";
    }
    const std::string make =
        "sh -c '" + std::string(kTree) + "' sh " + tree.Path() + (fat ? " fat" : "");
    ASSERT_EQ(std::system(make.c_str()), 0);
    tree.WriteFile("binary", kBinary);
    ASSERT_EQ(small.Failure(), "");
  }

  // The tree below path: each entry, with a regular file's contents after "=".
  std::string Shown(const std::string& path) const {
    if (!std::filesystem::is_directory(path)) {
      return ReadWholeFile(path);
    }
    std::string shown;
    for (const std::string& entry : testing::ListTree(path)) {
      const std::string full = path + "/" + entry;
      shown += entry + (std::filesystem::is_regular_file(full) ? "=" + ReadWholeFile(full) : "");
      shown += " ";
    }
    return shown;
  }

  bool Matches(const std::string& text, const std::string& pattern) const {
    const std::string exact = Replace(pattern, tree.Path());
    if (pattern.rfind('{', 0) == 0) {
      return nlohmann::json::parse(text, nullptr, false) == nlohmann::json::parse(exact);
    }
    const std::string escaped = std::regex_replace(tree.Path(), std::regex("[^/\\w]"), "\\$&");
    return text == pattern || text == exact ||
           std::regex_match(text, std::regex(Replace(pattern, escaped)));
  }

  testing::TempDir tree;
  // tar writes valid UTF-8 names as they are only in a UTF-8 locale.
  const testing::ScopedEnvironmentVariable utf8{"LC_ALL", "C.UTF-8"};
  testing::ScratchFileSystem small{tree / "m/small", "size=64k"};
};

TEST_P(DrxfsCommandTest, EndsWithItsStatusOutputAndChange) {
  const Case& run = GetParam();
  std::vector<std::string> args;
  for (const std::string& arg : run.args) {
    args.push_back(Replace(arg, tree.Path()));
  }
  testing::DrxfsSetting setting;
  setting.input = (run.flags & kInTree) != 0 ? "not an archive" : run.input;
  setting.workingDirectory = (run.flags & kInTree) != 0 ? tree.Path() : "";
  setting.unprivileged = (run.flags & kUnprivileged) != 0;
  setting.stdoutPath = (run.flags & kFullOutput) != 0 ? "/dev/full" : "";
  setting.inputDescriptor = run.inputDescriptor != nullptr ? run.inputDescriptor(tree.Path()) : -1;
  ASSERT_TRUE(run.inputDescriptor == nullptr || setting.inputDescriptor != -1) << errno;
  // Only the fakes can be found, and drxfs runs unprivileged: a regression removes nothing.
  std::unique_ptr<testing::FakeProgramDir> fakes;
  if ((run.flags & kFakes) != 0) {
    fakes = std::make_unique<testing::FakeProgramDir>(testing::FakeProgramDir::Search::Only);
    fakes->AddScript("rm", "echo \"$@\" > " + tree / "called");
    fakes->AddScript("tar", "cd " + tree.Path() + "\n/bin/sleep 600 &\necho $$ $! > pids.new\n" +
                                "/bin/mv pids.new pids\nwait");
    ::chmod(tree.Path().c_str(), 0777);
  }
  const std::vector<std::string> before = testing::ListTree(tree.Path());
  testing::DrxfsProcess drxfs(args, setting);
  if (run.signal != 0) {
    ASSERT_TRUE(Eventually([&] {
      return testing::ListTree(tree.Path()) != before &&
             !std::filesystem::exists(tree / "pids.new");
    }));
    ASSERT_EQ(::kill(drxfs.Pid(), run.signal), 0);
  }
  const DrxfsResult result = drxfs.Wait();
  ::close(setting.inputDescriptor);
  // A stop leaves nothing running of what tar started.
  std::ifstream pids(tree / "pids");
  for (pid_t pid = 0; pids >> pid; ::kill(pid, SIGKILL)) {
    EXPECT_TRUE(Eventually([pid] { return !Running(pid); })) << pid;
  }
  EXPECT_EQ(result.status, run.status);
  EXPECT_TRUE(Matches(result.out, run.out)) << result.out.substr(0, 1000);
  EXPECT_TRUE(Matches(result.err, run.err)) << result.err;
  EXPECT_LE(result.err.size(), 1024u);
  std::vector<std::string> after = testing::ListTree(tree.Path()), changed;
  std::set_symmetric_difference(before.begin(), before.end(), after.begin(), after.end(),
                                std::back_inserter(changed));
  for (const std::string& entry : changed) {
    EXPECT_TRUE(!run.file.empty() && (entry + "/").rfind(run.file + "/", 0) == 0) << entry;
  }
  EXPECT_TRUE(run.file.empty() || Matches(Shown(tree / run.file), run.content))
      << Shown(tree / run.file).substr(0, 1000);
}

// Any run.
Case Run(std::vector<std::string> args, int status, std::string out, std::string err,
         std::string file, std::string content, std::string input = "", int flags = 0,
         int (*descriptor)(const std::string&) = nullptr, int signal = 0) {
  return Case{std::move(args),    status,           std::move(out), std::move(err), std::move(file),
              std::move(content), std::move(input), flags,          descriptor,     signal};
}

// A success, with what it prints.
Case Prints(std::vector<std::string> args, std::string out, int flags = 0) {
  return Case{std::move(args), 0, std::move(out), "", "", "", "", flags};
}

// A success, with what it leaves in file.
Case Leaves(std::vector<std::string> args, std::string file, std::string content,
            std::string input = "", int flags = 0) {
  return Case{std::move(args),  0,    "", "", std::move(file), std::move(content),
              std::move(input), flags};
}

// A failure: status 1, nothing on standard output, one line naming the path (by default the
// last argument, a long one by its end: the middle is left out) and the reason.
Case Fails(std::vector<std::string> args, const std::string& reason, int flags = 0,
           std::string path = "") {
  if (path.empty()) {
    path = args.back().substr(args.back().size() - std::min<std::size_t>(args.back().size(), 64));
  }
  return Case{std::move(args), 1, "", ".*" + path + ": .*" + reason + ".*\n", "", "", "", flags};
}

// Writing an input that cannot be read to its end into "settings" (old).
Case BadInput(std::vector<std::string> args, int (*input)(const std::string&),
              const std::string& says, std::string left = "old") {
  const std::string err = "drxfs write: @/settings: cannot read standard input: " + says + "\n";
  return Case{std::move(args), 1, "", err, "settings", std::move(left), "", 0, input};
}

// Stopped by signal while tar runs: it ends with the signal, saying nothing.
Case Stopped(int signal, std::vector<std::string> args) {
  return Case{std::move(args),        128 + signal, "",    "", "pids", "[0-9]+ [0-9]+\n", "",
              kFakes | kUnprivileged, nullptr,      signal};
}

const std::string kFull =
    "drxfs write: @/m/small/settings: replacing @/m/small/settings failed on write to .*: No space "
    "left on device; it keeps its old content\n";
const std::string kUnread =
    "drxfs du: @/du/: 2 directories could not be read and not counted, the first "
    "@/du/(open/locked|listable): Permission denied\n";
const std::string kMounted =
    ".*/m/small is a mount point: the mounted file system's contents may already be gone.*\n";
const std::string kStreaming = ".*needs the streaming runner.*\n";
const std::string kLeft = "; it is left as it was";
const std::string kReset = "Connection reset by peer";
const std::string kTar = "a.txt\nsub/b.txt\n";
const std::string kExtracted = "a.txt=alpha sub sub/b.txt=beta ";

INSTANTIATE_TEST_SUITE_P(
    Runs, DrxfsCommandTest,
    ::testing::Values(
        Prints({"path", "@/out"}, "@/out: exists=yes directory=yes basename=\"out\"\n"),
        Prints({"path", "--json", "@/file"},
               R"({"path": "@/file", "exists": true, "directory": false, "basename": "file"})"),
        // Names that are not UTF-8 are written as their bytes; tar writes them escaped. exFAT
        // keeps names in UTF-16, where such a name has no spelling of its own.
        Prints({"path", "--json", "\xff"},
               R"({"path": [255], "exists": false, "directory": false, "basename": [255]})",
               kInTree | kUnixOnly),
        Prints({"tar", "list", "--json", "\xff.tar"},
               R"({"archive": [255, 46, 116, 97, 114], "entries": ["f\\377\\376.txt", "été.txt"]})",
               kInTree | kUnixOnly),
        Prints({"size", "--json", "@/digits"}, R"({"path": "@/digits", "bytes": 10})"),
        Prints({"du", "--json", "@/e"}, R"({"path": "@/e", "bytes": 2})"),
        Prints({"df", "@"}, "[0-9]+\t[0-9]+%\n"),
        // Values that would show as 1024.0 go to the next unit.
        Prints({"size", "@/s/5368709120"}, "5368709120\n", kUnixOnly),
        Prints({"size", "-h", "@/s/1023"}, "1023 B\n", kUnixOnly),
        Prints({"size", "-h", "@/s/1048575"}, "1.0 MiB\n", kUnixOnly),
        Prints({"cat", "@/binary"}, kBinary), Leaves({"touch", "@/new"}, "new", ""),
        Leaves({"touch", "@/file"}, "file", "x"), Leaves({"truncate", "@/file"}, "file", ""),
        Leaves({"write", "@/file"}, "file", kBinary, kBinary),
        Leaves({"write", "@/digits"}, "digits", "ab23456789", "ab"),
        Leaves({"write", "--atomic", "@/settings"}, "settings", "new", "new"),
        Leaves({"write", "@/fresh", "--atomic"}, "fresh", kBinary, kBinary),
        // More input than the file system holds: nothing changes, and the failure says why.
        Run({"write", "--atomic", "@/m/small/settings"}, 1, "", kFull, "m/small/settings", "old",
            std::string(1 << 20, 'z')),
        BadInput({"write", "@/settings"}, ClosedInput, "Bad file descriptor" + kLeft),
        BadInput({"write", "@/settings"}, ResetAfter4097Bytes,
                 kReset + "; the 4097 bytes read before were written to it",
                 std::string(4097, 'y')),
        BadInput({"write", "--atomic", "@/settings"}, ResetAfter4097Bytes, kReset + kLeft),
        // One directory that may not be read, one whose entries may not be examined.
        Case{{"du", "@/du/"}, 1, "150\n", kUnread, "", "", "", kUnprivileged | kUnixOnly},
        Leaves({"mkdir", "@/a/b c/d"}, "a", "b c b c/d "),
        Leaves({"mkdir", "@/e"}, "e", ".hidden= f=y sub sub/file=y "),
        Leaves({"empty", "@/e"}, "e", ".hidden= "),
        Leaves({"empty", "@/dots"}, "dots", ".hidden= "),
        Case{{"empty", "@/m"}, 1, "", kMounted, "m", "small "},
        // Relative archive names are local files: tar would read "-" from standard input, and
        // look for a host "logs_2024-05-01T12".
        Prints({"tar", "list", "-"}, kTar, kInTree),
        Prints({"tar", "list", "logs_2024-05-01T12:30:00.tar"}, kTar, kInTree | kUnixOnly),
        Prints({"tar", "list", "--json", "-"},
               R"({"archive": "-", "entries": ["a.txt", "sub/b.txt"]})", kInTree),
        Prints({"tar", "list", "--runner", "pipe", "-"}, kTar, kInTree),
        Prints({"tar", "list", "--streaming", "-"}, kTar, kInTree),
        Leaves({"tar", "extract", "-", "out"}, "out", kExtracted, "", kInTree),
        Leaves({"tar", "extract", "--runner", "pipe", "-", "out"}, "out", kExtracted, "", kInTree),
        // One line rewritten with '\r' and ended with a newline, even into a file.
        Run({"tar", "extract", "--progress", "-", "out"}, 0, "", "(\r[0-9]+% .* left *)+\n", "out",
            kExtracted, "", kInTree),
        // The tree replaced whole, and nothing left beside it.
        Leaves({"tar", "extract", "--atomic", "-", "e"}, "e", kExtracted, "", kInTree),
        Fails({"size", "@/missing"}, "No such file"), Fails({"size", "@/out"}, "Is a directory"),
        Fails({"size", "@/locked/inside"}, "Permission denied", kUnprivileged | kUnixOnly),
        // FAT's look-up does not measure the name: it finds no such entry.
        Fails({"size", "@/" + kLongName}, "(File name too long|No such file)"),
        Fails({"mkdir", "@/" + kLongName}, "File name too long"),
        Fails({"touch", "@/no/f"}, "No such file"),
        // Reading address 0 of the process fails: a read error is not an end of file.
        Fails({"cat", "/proc/self/mem"}, "Input/output error"),
        Fails({"write", "@/missing"}, "No such file"), Fails({"du", "@/file"}, "Not a directory"),
        Fails({"df", "/proc"}, "total size of 0"),
        Fails({"mkdir", "@/file"}, "exists and is not a directory"),
        Fails({"mkdir", "@/file/sub"}, "Not a directory"),
        Fails({"empty", "@/file"}, "Not a directory"),
        Fails({"tar", "list", "@/missing.tar"}, "No such file"),
        Fails({"tar", "list", "@/corrupt.tar"}, "not look like a tar"),
        // Among a listing longer than a failure line, tar's own messages are kept (the streaming
        // runner puts them after the listing).
        Fails(
            {"tar", "list", "@/long.tar"},
            "lines left out \\.\\.\\.\\]; tar: Skipping to next header; tar: Exiting with failure"),
        Fails({"tar", "list", "--runner", "pipe", "@/long.tar"}, "tar: Skipping to next header"),
        Fails({"tar", "extract", "@/corrupt.tar", "@/out"}, "not look like a tar", 0,
              "@/corrupt.tar"),
        Fails({"tar", "extract", "@/corrupt.tar", "@/file"}, "Not a directory"),
        Fails({"tar", "extract", "--timeout", "0.2", "@/fifo.tar", "@/out"}, "tar timed out",
              kUnixOnly, "@/fifo.tar"),
        Case{{"write", "/dev/full"}, 1, "", ".*/dev/full: .*No space left.*\n", "", "", "in\n"},
        Case{{"path", "/"}, 1, "", ".*\n", "", "", "", kFullOutput},
        // Library records show only when asked for, wherever the option stands.
        Case{{"--log-level", "3", "touch", "@/no/f"}, 1, "", ".*Could not open @/no/f.*\n.*\n"},
        Case{{"touch", "--log-level", "3", "@/no/f"}, 1, "", ".*Could not open @/no/f.*\n.*\n"},
        // Command lines not understood.
        Case{{}, 2, "", "drxfs: .*\n"},
        Case{{"frobnicate"}, 2, "", "drxfs: unknown command \"frobnicate\".*\n"},
        Case{{"--log-level", "8", "path", "/"}, 2, "", "drxfs path: .*\n"},
        Case{{"tar", "list", "--runner", "fast", "a"}, 2, "", "drxfs tar list: .*\n"},
        Case{{"tar", "extract", "--runner", "pipe", "--timeout", "1", "a", "/"}, 2, "", kStreaming},
        // The root directory is emptied only when asked explicitly.
        Fails({"empty", "/"}, "refusing to empty the root directory", kFakes | kUnprivileged),
        Fails({"empty", "//"}, "refusing to empty the root directory", kFakes | kUnprivileged),
        Fails({"empty", "/."}, "refusing to empty the root directory", kFakes | kUnprivileged),
        Leaves({"empty", "--no-preserve-root", "/"}, "called", "-r /.*\n", "",
               kFakes | kUnprivileged),
        Stopped(SIGINT, {"tar", "list", "@/-"}), Stopped(SIGTERM, {"tar", "list", "@/-"}),
        Stopped(SIGHUP, {"tar", "list", "@/-"}),
        Stopped(SIGTERM, {"tar", "extract", "--timeout", "60", "@/-", "@/out"}),
        Stopped(SIGTERM, {"tar", "extract", "--runner", "pipe", "@/-", "@/out"}),
        // The temporary file of a replacement in progress goes.
        Run({"write", "--atomic", "@/settings"}, 128 + SIGTERM, "", "", "settings", "old", "",
            kUnixOnly, EndlessInput, SIGTERM),
        Prints({"tar", "extract", "--help"}, "[\\s\\S]*Usage: drxfs tar extract [\\s\\S]*")));

}  // namespace
}  // namespace drn
