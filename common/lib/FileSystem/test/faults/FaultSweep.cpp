// The fault sweep: for every operation in the table, records the C library calls one successful
// run makes, then fails each of them in turn with every errno listed for its function, each
// point in a forked child. Per point it checks: no crash, no descriptor and no child process
// left, and the result, records, exception, errno and what the operation left behind that the
// library's contract gives for that failure. Prints one line per failed point and a closing
// count; with --table FILE it also writes the per-operation table (calls, points, errnos) in
// Markdown.
#include <fcntl.h>
#include <signal.h>

#include <cstring>
#include <iostream>
#include <map>
#include <regex>

#include "../FileTestSupport.h"
#include "AtomicFile.h"
#include "AtomicUntar.h"
#include "Directory.h"
#include "DurableLinuxApi.h"
#include "FaultInjector.h"
#include "StreamingTarApi.h"
#include "SystemCallWrapper.h"
#include "Untar.h"

namespace drn::faults {
namespace {

using testing::TempDir;
using F = Function;
using Texts = std::vector<std::string>;

// Phases an operation announces, so that a row can tell where a call was made.
enum Phase : int { kAny = 0, kOpen, kUse, kFlush, kClose, kRead };

// What one run of an operation showed: its result and records; the exception it threw ("type:
// message"); what it left behind (taken even after a throw); a File's file before the File was
// destroyed. Its texts name the point's scratch directory {d}, the shared archive {a} and the
// temporary file's random name .f.XXXXXX, so that runs compare.
struct Outcome {
  std::string result;
  Texts records = {};
  std::string exception = {}, content = {}, held = {};
  int errorAfter = 0;
};

// One failure point: the call-th call of function (the inPhase-th within its phase) fails.
struct Point {
  Function function;
  long call, inPhase;
  int phase, error;
};

// What the contract gives for a point; unset fields are not compared. check: further checks,
// which alone decide when checkDecides is set (an outcome of several forms); mayNotFire: the
// number of such calls depends on timing.
struct Expected {
  std::optional<std::string> result = {}, content = {}, errorAfter = {};
  std::string exception = {};
  Texts records = {};
  std::function<std::string(const Outcome&)> check = {};
  bool checkDecides = false, mayNotFire = false, childMayRemain = false;
};

// clang-format off
// What a row says beyond result, exception and records. Errno after the operation: 0, or the
// injected error. kStatus: a tar run that failed with the status in the row's result. kPlainCut:
// TarApi's output ends before the byte whose read failed. kCut: the output ends at a moment
// timing decides, or the row's failed wait comes. kUntouched: the operation left what was there
// before it; kAnyContent and kAnyResult: either may be anything. kPrefix: the result begins the
// usual one. kAccepted: the file holds the bytes the stream accepted over the old ones. kHeld: a
// File's failed last flush changed nothing. kLeftBehind: the temporary file is left with the
// bytes drained before the end.
enum RowFlag : int { kErrnoZero = 1, kErrnoInjected = 1 << 1, kStatus = 1 << 2, kPlainCut = 1 << 3,
  kCut = 1 << 4, kMayNotFire = 1 << 5, kUntouched = 1 << 6, kAnyContent = 1 << 7, kAnyResult = 1 << 8,
  kPrefix = 1 << 9, kAccepted = 1 << 10, kHeld = 1 << 11, kLeftBehind = 1 << 12 };
// clang-format on

// One row of the expectations: a failure of function, in the operations whose name operation
// finds, in phase (kAny: any), as the inPhase-th to last-th call there (0: any; last 0: only
// inPhase), with error (0: any, -E: any but E), gives this result (unset: the usual one),
// exception and records; the usual records follow when neither result nor exception is given.
// In texts, {e} is the error's text, {n} its number, {s} tar's command line and {t} the same
// without spaces. The first row that fits decides; none: the run goes on as usual.
struct Row {
  const char* operation;
  Function function;
  int phase;
  long inPhase;
  int error;
  std::optional<std::string> result = {};
  std::string exception = {};
  Texts records = {};
  int flags = 0;
  long last = 0;
};

// clang-format off
const std::string kIos = "ios_base::failure (iostream 1): ", kTar = "RunCmd 3/0x8027: ";
const std::string kSeek = "SeekSet 7/0x8010: failed on lseek with {e}", kWrite = "Write 3/0x8010: failed on write with {e}";
const std::string kUnderflow = "underflow 3/0x8010: failed on underflow read with {e}";
const std::string kSyncOutput = "SyncOutput 3/0x8010: failed on output sync with {e}";
const std::string kFailed = "Fail 3/0x8010: replacing {d}/a/f failed on ", kTemporary = "{d}/a/.f.XXXXXX";
const std::string kOld = "; it keeps its old content", kNew = "; the new content is in place but its durability is not confirmed";
const std::string kNotDirectory = "DoExtract 3/0x8027: specified path is not an existing directory: {d}/out";
const std::string kWaitFailure = "runtime_error: waitpid failure", kWaitRecord = kTar + "waitpid failure: {e}";
const std::string kReadBack = "flush failed, 012defghijklmnop";
const char* const kRunners = "Tar|Untar";
const char* const kPlain = "^(TarApi|Untar)::[A-Za-z]+$";
const char* const kStreaming = "[Ss]treaming";

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
    {"Path::Exists", F::access, kAny, 0, ENOENT, "false", "", {}, kErrnoZero},
    {"Path::Exists", F::access, kAny, 0, 0, "true", "", {}, kErrnoZero},
    {"Path::IsDirectory", F::access, kAny, 0, ENOENT, "false"},
    {"Path::IsDirectory", F::opendir, kAny, 0, 0, "false", "", {}, kErrnoInjected},
    {"^File (r|w)", F::access, kOpen, 1, ENOENT, {}, "invalid_argument: could not open specified path", {"Impl 3/0x8010: Tried to open \"{d}/f\" but it didn't exist"}, kUntouched},
    {"^File (r|w)", F::open, kOpen, 0, 0, {}, kIos + "Failed on kernel call to open: iostream error", {"Impl 3/0x8010: failed on kernel open with {e}"}, kUntouched},
    {"^File in memory", F::memfd_create, kAny, 0, 0, {}, kIos + "could not open in memory: iostream error", {"Impl 3/0x8010: failed on ram syscall with: {e}"}, kUntouched},
    // A failed read ends the reading early. A flush fails at its write (its first lseek), input
    // sync, or refill (its second); until the destructor writes them, bytes a failed flush kept
    // are not in the file. Every byte the stream accepted reaches the file exactly once, at its
    // own offset; only a failure in the destructor's own flush loses what it held.
    {"^File read,", F::read, kUse, 0, 0, {}, "", {kUnderflow}, kPrefix},
    {"^File read,", F::lseek, kUse, 0, 0, {}, "", {kSeek}, kPrefix},
    {"read and write", F::write, kFlush, 0, 0, "flush failed, abcdefghijklmnop", "", {kWrite}},
    {"read and write", F::lseek, kFlush, 1, 0, "flush failed, abcdefghijklmnop", "", {kSeek}},
    {"read and write", F::lseek, kFlush, 2, 0, kReadBack, "", {kSeek}},
    {"read and write", F::read, kFlush, 0, 0, kReadBack, "", {kUnderflow}},
    {"read and write", F::syncfs, kFlush, 2, 0, kReadBack, "", {"SyncInput 3/0x8010: failed on input sync with {e}"}},
    {"read and write", F::read, kRead, 0, 0, {}, "", {kUnderflow}, kPrefix},
    {"read and write", F::lseek, kRead, 0, 0, {}, "", {kSeek}, kPrefix},
    {"^File write.*flushed", F::write, kFlush, 0, 0, "accepted 11, flush failed", "", {kWrite}},
    {"^File write.*flushed", F::lseek, kFlush, 0, 0, "accepted 11, flush failed", "", {kSeek}},
    {"^File write", F::write, kUse, 0, 0, {}, "", {kWrite}, kAccepted},
    {"^File write", F::lseek, kUse, 0, 0, {}, "", {kSeek}, kAccepted},
    {"^File write", F::write, kClose, 0, 0, {}, "", {kWrite}, kHeld},
    {"^File write", F::lseek, kClose, 0, 0, {}, "", {kSeek}, kHeld},
    {"^File ", F::lseek, kAny, 0, 0, {}, "", {kSeek}},
    {"^File ", F::write, kAny, 0, 0, {}, "", {kWrite}},
    {"^File ", F::read, kAny, 0, 0, {}, "", {kUnderflow}},
    // The durable layer's sync fails as syncfs does.
    {"^File ", F::syncfs, kAny, 0, 0, {}, "", {kSyncOutput}},
    {"^File ", F::fdatasync, kAny, 0, 0, {}, "", {kSyncOutput}},
    {"^File ", F::close, kAny, 0, 0, {}, "", {"~File 3/0x8010: failed on close with {n}"}},
    {"File::CreateFile", F::open, kAny, 0, 0, "false, (missing)", "", {"CreateFile 3/0x8010: Could not open {d}/new({e})"}},
    {"File::RecreateFile", F::open, kAny, 0, 0, "false, abcdefghijklmnop", "", {"RecreateFile 3/0x8010: Could not open {d}/f({e})"}},
    {"File::GetFileSize", F::stat, kAny, 0, 0, "0"},
    // An AtomicFile's constructor throws after its record and leaves nothing behind; only root may
    // give a file away, so a fchown refused otherwise lets the replacement go on as the caller's.
    {"^AtomicFile", F::lstat, kOpen, 0, 0, {}, kIos + "AtomicFile cannot examine its path: iostream error", {"Impl 3/0x8010: cannot examine {d}/a/f: {e}"}, kUntouched},
    {"^AtomicFile", F::open, kOpen, 0, 0, {}, kIos + "AtomicFile cannot create its temporary file: iostream error", {"Impl 3/0x8010: cannot create a temporary file beside {d}/a/f: {e}"}, kUntouched},
    {"^AtomicFile", F::fchown, kOpen, 0, EIO, {}, kIos + "AtomicFile cannot set its temporary file's owner: iostream error", {"KeepOwner 3/0x8010: cannot give " + kTemporary + " the owner of {d}/a/f: {e}"}, kUntouched},
    // A failed write makes the stream bad; a later Commit finds nothing to commit. A failure
    // after the rename leaves the new content in place.
    {"^AtomicFile, Commit", F::write, kUse, 0, -EINTR, "bad, not committed, bad", "", {kFailed + "write to " + kTemporary + ": {e}" + kOld, "DoCommit 3/0x8010: nothing to commit for {d}/a/f: already committed, cancelled or failed"}, kUntouched},
    {"^AtomicFile, Cancel", F::write, kUse, 0, -EINTR, "bad, bad", "", {kFailed + "write to " + kTemporary + ": {e}" + kOld}, kUntouched},
    {"^AtomicFile, dest", F::write, kUse, 0, -EINTR, "bad", "", {kFailed + "write to " + kTemporary + ": {e}" + kOld}, kUntouched},
    {"^AtomicFile, Commit", F::write, kFlush, 0, -EINTR, "written, not committed, bad", "", {kFailed + "write to " + kTemporary + ": {e}" + kOld}, kUntouched},
    // The sweep's scratch files are on tmpfs, whose directories are not journalled: Commit
    // holds the old content (the first open; a missing target has none), renames, syncs the
    // target by name (its own open) before the directory, and releases the old content last
    // (its close, whose failure loses nothing). A failing fstatfs takes these steps too.
    {"^AtomicFile, Commit", F::fsync, kFlush, 1, 0, "written, not committed, bad", "", {kFailed + "fsync of " + kTemporary + ": {e}" + kOld}, kUntouched},
    {"^AtomicFile, Commit", F::fsync, kFlush, 2, 0, "written, not committed, bad", "", {kFailed + "fsync of {d}/a/f: {e}" + kNew}},
    {"^AtomicFile, Commit", F::fsync, kFlush, 3, 0, "written, not committed, bad", "", {kFailed + "fsync of {d}/a/: {e}" + kNew}},
    {"^AtomicFile, Commit", F::close, kFlush, 1, 0, "written, not committed, bad", "", {kFailed + "close of " + kTemporary + ": {e}" + kOld}, kUntouched},
    {"^AtomicFile, Commit", F::close, kFlush, 2, 0, "written, not committed, bad", "", {kFailed + "close of {d}/a/f: {e}" + kNew}},
    {"^AtomicFile, Commit", F::close, kFlush, 3, 0, "written, not committed, bad", "", {kFailed + "close of {d}/a/: {e}" + kNew}},
    {"^AtomicFile, Commit", F::rename, kFlush, 0, 0, "written, not committed, bad", "", {kFailed + "rename of " + kTemporary + " to {d}/a/f: {e}" + kOld}, kUntouched},
    {"^AtomicFile, Commit", F::fchmod, kFlush, 0, 0, "written, not committed, bad", "", {kFailed + "setting the mode of " + kTemporary + ": {e}" + kOld}, kUntouched},
    {"^AtomicFile, Commit", F::open, kFlush, 1, 0, "written, not committed, bad", "", {kFailed + "open of {d}/a/f: {e}" + kOld}, kUntouched},
    {"^AtomicFile, Commit", F::open, kFlush, 2, 0, "written, not committed, bad", "", {kFailed + "open of {d}/a/f: {e}" + kNew}},
    {"^AtomicFile, Commit", F::open, kFlush, 0, 0, "written, not committed, bad", "", {kFailed + "open of {d}/a/: {e}" + kNew}},
    // Only a failed removal leaves the temporary file, and says so.
    {"^AtomicFile", F::remove, kAny, 0, 0, {}, "", {"Discard 3/0x8010: cannot remove the temporary file " + kTemporary + ": {e}"}, kLeftBehind},
    // A missing path that seems to exist (any error but ENOENT) is no directory; on an existing
    // one, a first answer of ENOENT sends it to mkdir -p, which succeeds.
    {"CreateDirectory, missing", F::access, kAny, 0, -ENOENT, "false, absent"},
    {"CreateDirectory, missing", F::system, kAny, 0, 0, "false, absent"},
    {"CreateDirectory, existing", F::access, kAny, 2, ENOENT, "false, present"},
    {"CreateDirectory, existing", F::opendir, kAny, 0, 0, "false, present"},
    {"EmptyDirectory", F::access, kAny, 0, ENOENT, "false .keep sub sub/y x"},
    {"EmptyDirectory", F::opendir, kAny, 0, 0, "false .keep sub sub/y x"},
    {"EmptyDirectory", F::system, kAny, 0, 0, "false .keep sub sub/y x"},
    // The top level, then sub, then sub/deeper: each lost level takes its files; a failed
    // readdir ends its directory early.
    {"GetDirectorySize", F::opendir, kAny, 1, 0, "0"},
    {"GetDirectorySize", F::opendir, kAny, 2, 0, "200"},
    {"GetDirectorySize", F::opendir, kAny, 3, 0, "300"},
    {"GetDirectorySize", F::stat, kAny, 0, 0, "300"},
    {"GetDirectorySize", F::readdir, kAny, 0, 0, {}, "", {}, kAnyResult},
    {"^AtomicUntar", F::access, kOpen, 1, ENOENT, {}, "runtime_error: Path is not a file", {"Impl 3/0x8027: path is not a file: {a}"}},
    {"GetFileSystemUsedSize", F::statfs, kAny, 0, 0, "0", "", {"GetFileSystemUsedSize 3/0x8010: failed to open path with {n}"}},
    {"GetPercentageUsed", F::statfs, kAny, 0, 0, "0", "", {"GetPercentageUsed 3/0x8010: failed to open / with {e}({n})"}},
    {"^Untar", F::access, kOpen, 1, ENOENT, {}, "runtime_error: Path is not a file", {"Impl 3/0x8027: path is not a file: {a}"}},
    {"^Untar::Extract", F::access, kUse, 0, ENOENT, "-1", "", {kNotDirectory}, kUntouched},
    {"^Untar::Extract", F::opendir, kUse, 0, 0, "-1", "", {kNotDirectory}, kUntouched},
    // The tar runners. The streaming runner names the step of the start that failed; a failed
    // pipe, fcntl (but the third, asking for a larger pipe, which the runner does without) or
    // fork is the runner's own; a failed dup2 or execvp in TarApi's child is tar's 255. The
    // streaming runner closes the pipes' four ends with a record, and the socket's, which carry
    // no output, without. Its first read is the report that says tar runs: without it nothing
    // is known of tar, which is killed (having perhaps extracted some entries). Its further
    // reads, of the output and then of tar's status, come as often as timing has it: the status
    // read fails the wait; a read of the output ends it early, or, with EINTR, is retried. A
    // failed wait leaves the child for nobody to reap, as the contract has it. A failed poll
    // only brings a drain forward. A hanging tar is killed at its time-out, before any later
    // read or wait is sure to come.
    {"hangs", F::read, kAny, 2, 0, {}, "", {}, kMayNotFire, 1000},
    {"hangs", F::waitpid, kAny, 0, 0, {}, "", {}, kMayNotFire},
    {"time-out", F::waitpid, kAny, 0, ECHILD, {}, kWaitFailure, {kWaitRecord}, kCut | kMayNotFire},
    {"time-out", F::waitpid, kAny, 0, 0, {}, "", {}, kMayNotFire},
    {kRunners, F::pipe2, kAny, 0, 0, "-{n}", "", {kTar + "failed to pipe: {n}"}, kStatus | kUntouched},
    {kRunners, F::fcntl, kAny, 1, 0, "-{n}", "", {kTar + "failed to pipe: {n}"}, kStatus | kUntouched, 2},
    {kRunners, F::fork, kAny, 0, 0, "-{n}", "", {kTar + "Failed to fork: {t}"}, kStatus | kUntouched},
    {kStreaming, F::socketpair, kAny, 0, 0, "-{n}", "", {kTar + "socketpair failed for {s}: {e}"}, kStatus | kUntouched},
    {kStreaming, F::clone, kAny, 0, 0, "-{n}", "", {kTar + "clone failed for {s}: {e}"}, kStatus | kUntouched},
    {kRunners, F::dup2, kAny, 0, 0, "255", "", {kTar + "tar returned 255,\n"}, kStatus | kUntouched},
    {kRunners, F::dup3, kAny, 0, 0, "255", "", {kTar + "dup3 failed for {s}: {e}"}, kStatus | kUntouched},
    {kPlain, F::execvp, kAny, 0, 0, "255", "", {kTar + "tar returned 255,\n"}, kStatus | kUntouched},
    {kStreaming, F::execvp, kAny, 0, 0, "255", "", {kTar + "execvp failed for {s}: {e}"}, kStatus | kUntouched},
    {kPlain, F::close, kAny, 0, 0, {}, "", {"ClosePipe 3/0x8027: failed to close pipe: {n}"}},
    {kStreaming, F::close, kAny, 2, 0, {}, "", {kTar + "failed to close pipe: {n}"}, 0, 5},
    {kRunners, F::poll, kAny, 0, 0, {}, "", {}, kMayNotFire},
    {kPlain, F::read, kAny, 0, 0, {}, "", {}, kPlainCut},
    {kStreaming, F::read, kAny, 1, -EINTR, "-{n}", "", {kTar + "read failed for {s}: {e}"}, kStatus | kAnyContent},
    {kStreaming, F::read, kAny, 2, -EINTR, {}, kWaitFailure, {kWaitRecord}, kCut | kMayNotFire, 1000},
    {kStreaming, F::read, kAny, 2, EINTR, {}, "", {}, kMayNotFire, 1000},
    {kPlain, F::waitpid, kAny, 0, 0, {}, kWaitFailure, {kWaitRecord}},
    {kStreaming, F::waitpid, kAny, 0, ECHILD, {}, kWaitFailure, {kWaitRecord}},
  };
  return rows;
}
// clang-format on

struct Operation {
  std::string name;
  // Runs the operation in a scratch directory, noting what it returns in the outcome.
  std::function<void(const TempDir&, Outcome&)> run;
  // What the operation left in the scratch directory, and what was there before it ran.
  std::function<std::string(const TempDir&)> content = {};
  std::string initial = {};
  // The run without faults writes records of a failure (but throws nothing).
  bool failsWithoutFaults = false;
  // A call the run without faults must make (the one a substitute layer exists for), if any.
  Function mustCall = Function::count;
  // A tar runner's operation: tar's command line; the result and further records it gives for
  // tar's output and status; tar's whole output (unset: the usual result's, up to its last '|').
  std::string tar = {};
  std::function<Outcome(const std::string& output, int status)> ran = {};
  std::optional<std::string> output = {};
  // What the rows expect, made into what this operation's contract gives, where rows cannot say.
  std::function<Expected(const Point&, Expected)> expect = {};
};

const std::string kOriginal = "abcdefghijklmnop", kData = "0123456789A";

// Replaces every from in text by to.
std::string Replaced(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

std::string Joined(const Texts& names) {
  std::string text;
  for (const std::string& name : names) {
    text += name + ";";
  }
  return text;
}

// What the first row that fits gives the point, or the run without faults' outcome.
Expected ExpectedOf(const Operation& operation, const Point& point, const Outcome& baseline) {
  const auto fits = [&point, &operation](const Row& row) {
    const int error = row.error;
    return row.function == point.function && (row.phase == kAny || row.phase == point.phase) &&
           (row.inPhase == 0 ||
            (point.inPhase >= row.inPhase && point.inPhase <= std::max(row.last, row.inPhase))) &&
           (error == 0 || error == point.error || (error < 0 && -error != point.error)) &&
           std::regex_search(operation.name, std::regex(row.operation));
  };
  const auto found = std::find_if(Rows().begin(), Rows().end(), fits);
  const Row row = found == Rows().end() ? Row{"", point.function, kAny, 0, 0} : *found;
  const int flags = row.flags;
  const std::string& tar = operation.tar;
  const auto fill = [&point, &tar](const std::string& text) {
    return Replaced(Replaced(Replaced(Replaced(text, "{e}", std::strerror(point.error)), "{n}",
                                      std::to_string(point.error)),
                             "{s}", tar),
                    "{t}", Replaced(tar, " ", ""));
  };
  const bool usual = !row.result && row.exception.empty();
  Expected expected{usual        ? baseline.result
                    : row.result ? std::optional<std::string>(fill(*row.result))
                                 : std::nullopt,
                    row.exception.empty() ? baseline.content : std::optional<std::string>()};
  expected.exception = row.exception;
  std::transform(row.records.begin(), row.records.end(), std::back_inserter(expected.records),
                 fill);
  if (usual) {
    expected.records.insert(expected.records.end(), baseline.records.begin(),
                            baseline.records.end());
  }
  if ((flags & (kErrnoZero | kErrnoInjected)) != 0) {
    expected.errorAfter = std::to_string((flags & kErrnoZero) != 0 ? 0 : point.error);
  }
  expected.mayNotFire = (flags & kMayNotFire) != 0;
  expected.childMayRemain = point.function == F::waitpid;
  expected.checkDecides = (flags & kCut) != 0;
  if ((flags & kUntouched) != 0) {
    expected.content = operation.initial;
  }
  if ((flags & (kAnyResult | kPrefix | kAccepted)) != 0) {
    expected.result.reset();
  }
  if ((flags & (kAnyContent | kAccepted | kHeld | kLeftBehind)) != 0) {
    expected.content.reset();
  }
  const std::string output =
      operation.output.value_or(baseline.result.substr(0, baseline.result.rfind('|')));
  if ((flags & kStatus) != 0) {
    const Outcome failed = operation.ran("", std::stoi(*expected.result));
    expected.result = failed.result;
    expected.records.insert(expected.records.end(), failed.records.begin(), failed.records.end());
  } else if ((flags & kPlainCut) != 0) {
    expected.result = operation.ran(output.substr(0, point.call - 1), 0).result;
  }
  expected.check = [flags, &operation, baseline, output, wait = expected](const Outcome& got) {
    const std::string& left = got.content;
    const std::string& initial = operation.initial;
    const std::size_t drained = left.size() - std::min(left.size(), 11 + initial.size());
    const std::size_t accepted = (flags & kAccepted) != 0 ? std::stoul(got.result.substr(9)) : 0;
    const std::string want =
        (flags & kHeld) != 0       ? got.held
        : (flags & kAccepted) != 0 ? baseline.content.substr(0, accepted) + initial.substr(accepted)
        : (flags & kLeftBehind) != 0 ? ".f.XXXXXX=" + kData.substr(0, drained) + ";" + initial
                                     : left;
    bool fits =
        left == want && ((flags & kPrefix) == 0 || baseline.result.rfind(got.result, 0) == 0);
    // A cut run: the output read so far, with status 0, or tar's failure to write the rest (2)
    // and its record; a tar that fails anyway can never be seen to succeed. Or the row's failed
    // wait.
    for (std::size_t end = 0; (flags & kCut) != 0 && end <= output.size(); ++end) {
      fits = end == 0 ? got.exception == wait.exception && got.records == wait.records : fits;
      for (const int status : {0, 2}) {
        Outcome cut = operation.ran(output.substr(0, end), status);
        if (status != 0) {
          cut.records.insert(cut.records.begin(),
                             kTar + "tar returned 2,\n" + output.substr(0, end));
        }
        fits = fits || ((status != 0 || !operation.failsWithoutFaults) && got.exception.empty() &&
                        got.result == cut.result && got.records == cut.records);
      }
    }
    return fits ? std::string() : "outcome \"" + got.result + "\", left \"" + left + "\"";
  };
  return expected;
}

// An archive shared by every point: "one", "dir/" and "dir/two".
std::string& Archive() {
  static std::string archive;
  return archive;
}

// Runs the operation with every record captured (none when quiet), and turns what it returned
// or threw into an Outcome.
Outcome Observe(const Operation& operation, const TempDir& dir, bool quiet = false) {
  Outcome outcome;
  const testing::LogCapture log([quiet](LogLevel) { return !quiet; });
  try {
    operation.run(dir, outcome);
  } catch (const std::ios_base::failure& error) {
    // The error code is part of what the contract fixes: the default one, iostream's 1.
    outcome.exception = std::string("ios_base::failure (") + error.code().category().name() + " " +
                        std::to_string(error.code().value()) + "): " + error.what();
  } catch (const std::exception& error) {
    const char* type =
        dynamic_cast<const std::invalid_argument*>(&error) != nullptr ? "invalid_argument"
        : dynamic_cast<const std::runtime_error*>(&error) != nullptr  ? "runtime_error"
                                                                      : "other";
    outcome.exception = std::string(type) + ": " + error.what();
  }
  const auto fixed = [&dir](const std::string& text) {
    static const std::regex suffix(R"(\.f\.[A-Za-z0-9]{6})");
    return std::regex_replace(Replaced(Replaced(text, Archive(), "{a}"), dir.Path(), "{d}"), suffix,
                              ".f.XXXXXX");
  };
  outcome.content = fixed(operation.content ? operation.content(dir) : outcome.content);
  outcome.result = fixed(outcome.result);
  for (const std::string& record : testing::Described(log.Records())) {
    outcome.records.push_back(fixed(record));
  }
  return outcome;
}

// The outcome of a run without faults, and the calls it made.
Outcome Baseline(const Operation& operation, std::vector<Call>& trace) {
  const TempDir dir;
  Reset();
  const State& state = Shared();
  Shared().recording = true;
  const Outcome baseline = Observe(operation, dir);
  trace.assign(state.trace,
               state.trace + std::min(state.traceLength.load(), std::size(state.trace)));
  Reset();
  return baseline;
}

// An operation whose result is what query returns.
Operation Query(std::string name, std::function<std::string(const TempDir&)> query) {
  return {std::move(name), [query](const TempDir& dir, Outcome& out) { out.result = query(dir); }};
}

std::string Flag(bool value) {
  return value ? "true" : "false";
}

// Appends what buffer gives, character by character, up to its end.
void ReadToEnd(std::streambuf& buffer, std::string& into) {
  for (int c = buffer.sgetc(); c != EOF; c = buffer.sgetc()) {
    into += static_cast<char>(buffer.sbumpc());
  }
}

// An operation on a File over f in the scratch directory (holding kOriginal), or in memory:
// opens it with options (on the durable layer when durable), lets use work on it, and destroys
// it; each step announces its phase. Its content is f afterwards.
Operation OnFile(std::string name, File::Options options,
                 std::function<void(std::streambuf&, Outcome&)> use, bool durable = false) {
  return {std::move(name),
          [options, use, durable](const TempDir& dir, Outcome& out) {
            const Path path(dir.WriteFile("f", kOriginal));
            File::Options opened = options;
            opened.path = options.inMemory ? nullptr : &path;
            Shared().phase = kOpen;
            auto file = std::make_unique<File>(
                opened, durable ? std::make_unique<DurableLinuxApi>() : nullptr);
            Shared().phase = kUse;
            use(*file, out);
            out.held = testing::ReadWholeFile(dir / "f");
            Shared().phase = kClose;
            file.reset();
          },
          [](const TempDir& dir) { return testing::ReadWholeFile(dir / "f"); },
          kOriginal,
          false,
          durable ? F::fdatasync : F::count};
}

// Writes kData over kOriginal through a write-only File with a put area of bufferSize (on the
// durable layer when durable is set), flushes when flush is set, and destroys the File.
Operation FileWrite(std::uint32_t bufferSize, bool flush, bool durable = false) {
  return OnFile(
      "File write, put area " + std::to_string(bufferSize) + (flush ? ", flushed" : "") +
          (durable ? ", durable layer" : ""),
      testing::Buffers(0, bufferSize, false, true),
      [flush](std::streambuf& buffer, Outcome& out) {
        const auto size = static_cast<std::streamsize>(kData.size());
        out.result = "accepted " + std::to_string(buffer.sputn(kData.data(), size));
        if (flush) {
          Shared().phase = kFlush;
          out.result += buffer.pubsync() == 0 ? ", flushed" : ", flush failed";
        }
      },
      durable);
}

enum class Ending { Commit, Cancel, Destroy };

// Replaces a/f (holding kOriginal when existing is set, else missing) through an AtomicFile with
// a buffer of bufferSize: writes kData in four pieces, then commits, cancels or is destroyed.
// Output after Commit or Cancel must fail. Its content is every entry of a/, as "name=content;"
// in name order.
Operation AtomicReplace(bool existing, std::uint32_t bufferSize, Ending ending) {
  const char* const endings[] = {"Commit", "Cancel", "destruction"};
  return {std::string("AtomicFile, ") + endings[static_cast<int>(ending)] + ", " +
              (existing ? "existing" : "new") + " target, buffer " + std::to_string(bufferSize),
          [existing, bufferSize, ending](const TempDir& dir, Outcome& out) {
            dir.MakeDir("a");
            const std::string target = existing ? dir.WriteFile("a/f", kOriginal) : dir / "a/f";
            Shared().phase = kOpen;
            auto file = std::make_unique<AtomicFile>(target, nullptr, bufferSize);
            Shared().phase = kUse;
            // A put that finds a buffer of 4 full, then pieces that fit and that do not.
            *file << "0123";
            file->put('4');
            *file << "567"
                  << "89A";
            out.result = file->good() ? "written" : "bad";
            Shared().phase = kFlush;
            if (ending == Ending::Commit) {
              out.result += file->Commit() ? ", committed" : ", not committed";
            } else if (ending == Ending::Cancel) {
              file->Cancel();
            }
            if (ending != Ending::Destroy) {
              *file << 'x';
              out.result += file->bad() ? ", bad" : ", good";
            }
            Shared().phase = kClose;
            file.reset();
          },
          [](const TempDir& dir) {
            std::string entries;
            for (const std::string& name : testing::ListTree(dir / "a")) {
              entries += name + "=" + testing::ReadWholeFile(dir / "a/" + name) + ";";
            }
            return entries;
          },
          existing ? "f=" + kOriginal + ";" : "",
          false,
          ending == Ending::Commit ? Function::fstatfs : Function::count};
}

std::shared_ptr<Directory> DirectoryOn(const std::string& path) {
  return std::make_shared<Directory>(std::make_shared<Path>(path),
                                     std::make_shared<SystemCallWrapper>());
}

// A runner's result: its output, then '|' and the status.
Outcome Listed(const std::string& output, int status) {
  return {output + "|" + std::to_string(status)};
}

// A tar runner's operation: run gives the result, ran what it gives for tar's output and status.
Operation OnTar(std::string name, std::function<void(const TempDir&, Outcome&)> run,
                std::string tar, std::function<Outcome(const std::string&, int)> ran = Listed,
                std::optional<std::string> output = {}, bool failsWithoutFaults = false) {
  Operation operation{std::move(name), std::move(run)};
  operation.failsWithoutFaults = failsWithoutFaults;
  operation.tar = std::move(tar);
  operation.ran = std::move(ran);
  operation.output = std::move(output);
  return operation;
}

// TarApi::RunCmd, or StreamingTarApi::RunCmd with or without a time-out, listing the archive;
// or the streaming runner listing a missing archive, which tar fails with status 2 and the
// runner must never report otherwise.
Operation RunCmd(bool streaming, bool timed = false, bool tarFails = false) {
  const std::string archive = tarFails ? "{a}.missing" : "{a}";
  return OnTar(
      std::string(streaming ? "StreamingTarApi" : "TarApi") + "::RunCmd" +
          (timed ? ", time-out" : "") + (tarFails ? ", tar fails" : ""),
      [streaming, timed, archive](const TempDir&, Outcome& out) {
        std::vector<std::string> args = {"-tf", Replaced(archive, "{a}", Archive())};
        const std::unique_ptr<TarApi> runner =
            !streaming ? std::make_unique<TarApi>()
            : timed    ? std::make_unique<StreamingTarApi>(std::chrono::seconds(10))
                       : std::make_unique<StreamingTarApi>();
        Shared().phase = kUse;
        const auto [output, status] = runner->RunCmd(args);
        out.result = output + "|" + std::to_string(status);
      },
      "tar -tf " + archive, Listed, {}, tarFails);
}

// Untar's what on the shared archive, through TarApi, or through StreamingTarApi when
// streaming is set: use gives the result; tar's output is output.
Operation OnArchive(const std::string& what, bool streaming,
                    std::function<std::string(Untar&, const TempDir&, Outcome&)> use,
                    std::string tar, std::string output,
                    std::function<Outcome(const std::string&, int)> ran) {
  return OnTar(
      "Untar::" + what + (streaming ? ", streaming" : ""),
      [streaming, use](const TempDir& dir, Outcome& out) {
        Shared().phase = kOpen;
        Untar untar(std::make_shared<Path>(Archive()),
                    streaming ? std::make_shared<StreamingTarApi>() : nullptr);
        Shared().phase = kUse;
        out.result = use(untar, dir, out);
      },
      std::move(tar), std::move(ran), std::move(output));
}

// Untar::FileList through either runner: the names but the directories'.
Operation FileList(bool streaming) {
  return OnArchive(
      "FileList", streaming,
      [](Untar& untar, const TempDir&, Outcome&) { return Joined(untar.FileList()); },
      "tar -tf {a}", "one\ndir/\ndir/two\n",
      [](const std::string& output, int status) {
        std::string names;
        std::istringstream lines(output);
        for (std::string line; std::getline(lines, line);) {
          names += line.empty() || line.back() == '/' ? "" : line + ";";
        }
        return status == 0
                   ? Outcome{names}
                   : Outcome{"",
                             {"DoFileList 3/0x8027: Tar command failed: " + std::to_string(status) +
                              ", " + output}};
      });
}

// Untar::Extract through either runner; its content is what it extracted (tar writes nothing).
Operation Extract(bool streaming) {
  return OnArchive(
      "Extract", streaming,
      [](Untar& untar, const TempDir& dir, Outcome& out) {
        const std::string destination = dir.MakeDir("out");
        const int status = untar.Extract(std::make_shared<Path>(destination));
        out.content = Joined(testing::ListTree(destination));
        return std::to_string(status);
      },
      "tar --warning=no-timestamp -xf {a} -C {d}/out", "",
      [](const std::string&, int status) { return Outcome{std::to_string(status)}; });
}

// AtomicUntar::Install of the shared archive over a tree holding "old": whatever call fails, the
// destination is the whole old tree or the whole new one. false comes with errno and a level-3
// record last; true with the new tree, and anything left beside it only after a level-4 record.
Operation AtomicInstall() {
  Operation operation{"AtomicUntar::Install",
                      [](const TempDir& dir, Outcome& out) {
                        dir.WriteFile("app/old", "old");
                        Shared().phase = kOpen;
                        AtomicUntar install(std::make_shared<Path>(Archive()));
                        Shared().phase = kUse;
                        errno = 0;
                        out.result = Flag(install.Install(dir / "app"));
                        out.errorAfter = errno;
                      },
                      [](const TempDir& dir) { return Joined(testing::ListTree(dir.Path())); }};
  // The tar runners' rows fit it too; what they would derive from tar's output is replaced below.
  operation.ran = [](const std::string&, int) { return Outcome{}; };
  operation.expect = [](const Point& point, Expected fromRows) {
    if (!fromRows.exception.empty()) {
      return fromRows;
    }
    Expected expected;
    expected.checkDecides = true;
    expected.mayNotFire = true;
    // After a failed wait the runner leaves its child for nobody to reap.
    expected.childMayRemain = point.function == Function::waitpid;
    expected.check = [](const Outcome& got) {
      const std::string content =
          std::regex_replace(got.content, std::regex("\\.app\\.[a-z]+-[a-z0-9]{6}[^;]*;"), "");
      const bool left = content != got.content;
      const bool oldTree = content == "app;app/old;";
      const bool newTree = content == "app;app/dir;app/dir/two;app/one;";
      const std::string last = got.records.empty() ? "" : got.records.back();
      std::string problem;
      if (!got.exception.empty()) {
        problem = oldTree && !left && got.exception.rfind("runtime_error: ", 0) == 0
                      ? ""
                      : "threw " + got.exception + " and left " + got.content;
      } else if (got.result == "true") {
        problem = newTree && (!left || last.find(" 4/0x8027: the old tree") != std::string::npos)
                      ? ""
                      : "installed, but left " + got.content;
      } else if (!(oldTree || newTree) || left) {
        problem = "failed, and left " + got.content;
      } else if (got.errorAfter == 0 || last.find("3/0x8027: installing ") == std::string::npos) {
        problem = "failed with errno " + std::to_string(got.errorAfter) + " after " + last;
      }
      return problem;
    };
    return expected;
  };
  return operation;
}

// Every operation of the library that the sweep covers; adding one is adding an entry.
std::vector<Operation> Operations() {
  std::vector<Operation> operations;
  for (const bool directory : {false, true}) {
    operations.push_back({directory ? "Path::IsDirectory" : "Path::Exists",
                          [directory](const TempDir& dir, Outcome& out) {
                            const Path path(directory ? dir.MakeDir("d") : dir.WriteFile("f", "x"));
                            const bool result = directory ? path.IsDirectory() : path.Exists();
                            out.errorAfter = errno;
                            out.result = Flag(result);
                          }});
  }
  // Reads the whole file through a File with a get area of size, a character at a time.
  for (const std::uint32_t size : {0U, 4U, 64U}) {
    operations.push_back(OnFile(
        "File read, get area " + std::to_string(size), testing::Buffers(size, 0, true, false),
        [](std::streambuf& buffer, Outcome& out) { ReadToEnd(buffer, out.result); }));
    operations.push_back(FileWrite(size, true));
  }
  File::Options inMemory = testing::Buffers(4, 8);
  inMemory.inMemory = true;
  for (Operation operation :
       {FileWrite(4, false), FileWrite(4, true, true),
        // Writes "012", flushes (which writes, then reloads the get area), reads everything.
        OnFile("File read and write, flushed", testing::Buffers(4, 4),
               [](std::streambuf&buffer, Outcome&out) {
                 buffer.sputn(kData.data(), 3);
                 Shared().phase = kFlush;
                 out.result = buffer.pubsync() == 0 ? "flushed, " : "flush failed, ";
                 Shared().phase = kRead;
                 ReadToEnd(buffer, out.result);
               }),
        OnFile("File in memory", inMemory,
               [](std::streambuf&buffer, Outcome&out) {
                 out.result = std::to_string(buffer.sputn("hello", 5));
               }),
        // CreateFile on a missing name, RecreateFile on one with contents; then what it holds.
        Query("File::CreateFile",
              [](const TempDir&dir) {
                const bool done = File::CreateFile(dir / "new");
                return Flag(done) + ", " +
                       (std::ifstream(dir / "new") ? testing::ReadWholeFile(dir / "new")
                                                   : "(missing)");
              }),
        Query("File::RecreateFile",
              [](const TempDir&dir) {
                const std::string name = dir.WriteFile("f", kOriginal);
                return Flag(File::RecreateFile(name)) + ", " + testing::ReadWholeFile(name);
              }),
        Query("File::GetFileSize",
              [](const TempDir&dir) {
                return std::to_string(File::GetFileSize(dir.WriteFile("f", kOriginal)));
              }),
        AtomicReplace(true, 4, Ending::Commit), AtomicReplace(false, 0, Ending::Commit),
        AtomicReplace(true, 64, Ending::Commit), AtomicReplace(true, 4, Ending::Cancel),
        AtomicReplace(true, 4, Ending::Destroy)}) {
    operations.push_back(std::move(operation));
  }
  // CreateDirectory on a missing path or on an existing directory.
  for (const bool exists : {false, true}) {
    operations.push_back(
        Query(std::string("Directory::CreateDirectory, ") + (exists ? "existing" : "missing"),
              [exists](const TempDir& dir) {
                const std::string path = exists ? dir.MakeDir("a/b") : dir / "a/b";
                const bool result = DirectoryOn(path)->CreateDirectory();
                const Texts tree = testing::ListTree(dir.Path());
                return Flag(result) + (std::ifstream(path + "/.") ? ", present" : ", absent") +
                       (tree != Texts{"a", "a/b"} && !tree.empty() ? ", other entries" : "");
              }));
  }
  for (Operation operation :
       {Query("Directory::EmptyDirectory",
              [](const TempDir&dir) {
                for (const char* name : {"d/x", "d/sub/y", "d/.keep"}) {
                  dir.WriteFile(name, "1");
                }
                std::string result = Flag(DirectoryOn(dir / "d")->EmptyDirectory());
                for (const std::string& entry : testing::ListTree(dir / "d")) {
                  result += " " + entry;
                }
                return result;
              }),
        // a, b, sub/c and sub/deeper/d, 100 bytes each; one subdirectory per level.
        Query("Directory::GetDirectorySize",
              [](const TempDir&dir) {
                for (const char* name : {"t/a", "t/b", "t/sub/c", "t/sub/deeper/d"}) {
                  dir.WriteFile(name, std::string(100, 'x'));
                }
                return std::to_string(DirectoryOn(dir / "t")->GetDirectorySize());
              }),
        // Each of "/", whose only call is its statfs.
        Query("Directory::GetFileSystemUsedSize",
              [](const TempDir&) {
                return DirectoryOn("/")->GetFileSystemUsedSize() > 0 ? "positive" : "0";
              }),
        Query("Directory::GetPercentageUsed",
              [](const TempDir&) {
                return DirectoryOn("/")->GetPercentageUsed() > 0 ? "positive" : "0";
              }),
        RunCmd(false), FileList(false), Extract(false), RunCmd(true), RunCmd(true, true),
        RunCmd(true, false, true),
        // Listing a FIFO that nobody writes to: tar waits in its open until the time-out has
        // it killed, which no fault may turn into a wait for ever.
        OnTar(
            "StreamingTarApi::RunCmd, tar hangs",
            [](const TempDir&dir, Outcome&out) {
              const std::string fifo = dir / "fifo.tar";
              ::mkfifo(fifo.c_str(), 0600);
              std::vector<std::string> args = {"-tf", fifo};
              StreamingTarApi runner(std::chrono::milliseconds(100));
              Shared().phase = kUse;
              try {
                const auto [output, status] = runner.RunCmd(args);
                out.result = output + "|" + std::to_string(status);
              } catch (const std::runtime_error& error) {
                out.result = std::string("threw ") + error.what();
              }
            },
            "tar -tf {d}/fifo.tar", Listed, "", true),
        FileList(true), Extract(true), AtomicInstall()}) {
    operations.push_back(std::move(operation));
  }
  return operations;
}

// Runs one point in a forked child, as it is and then with every log level disabled (which
// must change nothing but the records); the child prints what was wrong after label, when
// there is one. Whether the point passed.
bool RunPoint(const Operation& operation, const Point& point, const Outcome& baseline,
              const std::string& label) {
  std::fflush(nullptr);
  const int status = testing::RunInChild([&] {
    ::alarm(20);
    std::string problems;
    for (const bool quiet : {false, true}) {
      const int descriptors = testing::CountOpenDescriptors();
      const TempDir dir;
      Reset(point.function, point.call, point.error);
      const Outcome got = Observe(operation, dir, quiet);
      const bool fired = Shared().fired;
      Reset();
      Expected expected = ExpectedOf(operation, point, baseline);
      if (operation.expect) {
        expected = operation.expect(point, std::move(expected));
      }
      if (quiet) {
        // An outcome of several forms is told apart by its records: only their absence counts.
        expected.records.clear();
        if (expected.checkDecides) {
          expected.check = [](const Outcome& got) {
            return got.records.empty() ? std::string() : "a record while logging is off";
          };
        }
      }
      std::string found;
      const auto differ = [&found](const char* what, const std::string& is,
                                   const std::optional<std::string>& want) {
        found += want && is != *want
                     ? " " + std::string(what) + " \"" + is + "\", want \"" + *want + "\";"
                     : "";
      };
      if (!expected.checkDecides) {
        differ("result", got.result, expected.result);
        differ("exception", got.exception, expected.exception);
        differ("records", Joined(got.records), Joined(expected.records));
        differ("content", got.content, expected.content);
        differ("errno", std::to_string(got.errorAfter), expected.errorAfter);
      }
      const std::string problem = expected.check(got);
      found += problem.empty() ? "" : " " + problem + ";";
      found += fired || expected.mayNotFire ? "" : " the fault was never delivered;";
      if (testing::HasChildProcesses()) {
        found += expected.childMayRemain ? "" : " a child process was left behind;";
        while (::waitpid(-1, nullptr, __WALL) > 0) {
        }
      }
      found += testing::CountOpenDescriptors() == descriptors ? "" : " a descriptor was left open;";
      problems += quiet && !found.empty() ? " with logging off:" + found : found;
    }
    if (!problems.empty() && !label.empty()) {
      std::cout << "FAILED " << label << ":" << problems << std::endl;
    }
    Exiting();
#ifdef DRX_SWEEP_EXIT_WRITES_COVERAGE
    // A coverage build's counters, the library's included, are written by exit; _exit, which
    // ends the child otherwise, would drop them.
    std::exit(problems.empty() ? 0 : 1);
#endif
    return problems.empty();
  });
  if (status != 0 && status != 1 && !label.empty()) {
    std::cout << "FAILED " << label << ": the point's child crashed or hung (status " << status
              << ")" << std::endl;
  }
  return status == 0;
}

// The checks must be able to fail: where the operation as it is passes, a run that loses a
// byte of the file, one that leaves a descriptor open and one that leaves a child process behind
// must each be reported.
bool HarnessSeesFaults() {
  std::vector<Call> trace;
  const Operation write = FileWrite(4, true);
  const Outcome written = Baseline(write, trace);
  const Point writing{F::write, 1, 1, kUse, EIO};
  bool sees = RunPoint(write, writing, written, "");
  for (const int harm : {0, 1, 2}) {
    Operation faulty = write;
    faulty.run = [write, harm](const TempDir& dir, Outcome& out) {
      write.run(dir, out);
      if (harm == 0) {
        dir.WriteFile("f", testing::ReadWholeFile(dir / "f").substr(1));
      } else if (harm == 1) {
        ::open("/dev/null", O_RDONLY | O_CLOEXEC);
      } else if (::fork() == 0) {
        ::_exit(0);
      }
    };
    sees = sees && !RunPoint(faulty, writing, written, "");
  }
  return sees;
}

int Main(int argc, char** argv) {
  std::map<std::string, std::string> options;
  for (int i = 1; i + 1 < argc; i += 2) {
    options[argv[i]] = argv[i + 1];
  }
  Prepare();
  // Records are captured per point; nothing reaches the terminal.
  ::signal(SIGPIPE, SIG_IGN);
  const TempDir shared;
  shared.WriteFile("src/one", "1");
  shared.WriteFile("src/dir/two", "22");
  Archive() = shared / "archive.tar";
  if (std::system(("tar -cf " + Archive() + " -C " + shared / "src" + " one dir").c_str()) != 0 ||
      !HarnessSeesFaults()) {
    std::cout << "fault sweep: no archive, or the harness's own check failed (a File write as it "
                 "is, or a lost byte, a leaked descriptor or a child left behind unseen)\n";
    return 1;
  }
  std::string table =
      "| Operation | Calls | Points | Calls failed (count: errnos) |\n|---|---|---|---|\n";
  std::size_t points = 0;
  std::size_t failed = 0;
  for (const Operation& operation : Operations()) {
    if (operation.name.find(options["--only"]) == std::string::npos) {
      continue;
    }
    std::vector<Call> trace;
    const Outcome baseline = Baseline(operation, trace);
    const std::size_t failedBefore = failed;
    if (!baseline.exception.empty() || baseline.records.empty() == operation.failsWithoutFaults) {
      std::cout << "FAILED " << operation.name << ": the run without faults did not succeed\n";
      ++failed;
    }
    std::size_t operationPoints = 0;
    std::map<Function, long> seen;
    std::map<std::pair<Function, int>, long> seenInPhase;
    for (const Call& call : trace) {
      const long number = ++seen[call.function];
      const long inPhase = ++seenInPhase[{call.function, call.phase}];
      for (const int error : Errnos(call.function)) {
        const std::string label = operation.name + ": " + Name(call.function) + " call " +
                                  std::to_string(number) + " (phase " + std::to_string(call.phase) +
                                  ") with " + strerrorname_np(error);
        ++operationPoints;
        failed += RunPoint(operation, {call.function, number, inPhase, call.phase, error}, baseline,
                           label)
                      ? 0
                      : 1;
      }
    }
    if (operation.mustCall != F::count && seen.count(operation.mustCall) == 0) {
      std::cout << "FAILED " << operation.name << ": never called " << Name(operation.mustCall)
                << "\n";
      ++failed;
    }
    std::cout << operation.name << ": " << trace.size() << " calls, " << operationPoints
              << " points, " << failed - failedBefore << " failed\n";
    table += "| " + operation.name + " | " + std::to_string(trace.size()) + " | " +
             std::to_string(operationPoints) + " |";
    for (const auto& [function, count] : seen) {
      table += std::string(function == seen.begin()->first ? " " : "; ") + Name(function) + " (" +
               std::to_string(count) + ":";
      for (const int error : Errnos(function)) {
        table +=
            std::string(error == Errnos(function).front() ? " " : ", ") + strerrorname_np(error);
      }
      table += ")";
    }
    table += " |\n";
    points += operationPoints;
  }
  if (options.count("--table") != 0) {
    std::ofstream(options["--table"]) << table;
  }
  std::cout << "fault sweep: " << points << " points, " << failed << " failed\n";
  return failed == 0 && points > 0 ? 0 : 1;
}

}  // namespace
}  // namespace drn::faults

int main(int argc, char** argv) {
  return drn::faults::Main(argc, argv);
}
