// The fault sweep: for every operation in the table, records the C library calls one successful
// run makes, then fails each of them in turn with every errno listed for its function, each
// point in a forked child. Per point it checks: no crash, no descriptor and no child process
// left, and the result, records, exception and errno that the library's contract gives for
// that failure. Prints one line per failed point and a closing count; with --table FILE it also
// writes the per-operation table (calls, points, errnos) in Markdown.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "../FileTestSupport.h"
#include "AtomicFile.h"
#include "AtomicUntar.h"
#include "Directory.h"
#include "DurableLinuxApi.h"
#include "FaultInjector.h"
#include "File.h"
#include "Path.h"
#include "StreamingTarApi.h"
#include "SystemCallWrapper.h"
#include "TestHelpers.h"
#include "Untar.h"

namespace drn::faults {
namespace {

using testing::TempDir;

// Phases an operation announces, so that an expectation can tell where a call was made.
enum Phase : int { kAny = 0, kOpen, kUse, kFlush, kClose, kRead };

// What one run of an operation showed.
struct Outcome {
  std::string result;
  std::string exception;  // "type: message", empty when none was thrown
  std::vector<std::string> records;
  int errorAfter = 0;
  std::string content;        // a file's bytes after the operation, where it touches one
  std::string contentBefore;  // the same file's bytes before the File was destroyed
};

// One failure point: the call-th call of function (the inPhase-th within its phase) fails.
struct Point {
  Function function;
  long call;
  long inPhase;
  int phase;
  int error;
};

// What the contract gives for a point; unset fields are not compared.
struct Expected {
  std::optional<std::string> result;
  std::optional<std::string> exception;
  std::vector<std::string> records;
  std::optional<int> errorAfter;
  // Further checks; returns a description of what is wrong, empty when nothing is.
  std::function<std::string(const Outcome&)> check;
  bool childMayRemain = false;
  // Set where the outcome may take one of several forms (output cut at a moment that depends
  // on timing): result, exception and records are then left to check.
  bool checkDecides = false;
  // Set where the number of such calls depends on timing, so the fault may not be reached.
  bool mayNotFire = false;
};

// A check that the operation left exactly want behind.
std::function<std::string(const Outcome&)> Holds(std::string want) {
  return [want = std::move(want)](const Outcome& got) {
    return got.content == want ? std::string()
                               : "left \"" + got.content + "\", want \"" + want + "\"";
  };
}

// errorAfter of a row that wants errno to be the injected error.
constexpr int kInjected = -1;

// One row of the expectations: a failure of function, in the operations whose name the pattern
// finds, in phase (kAny: any), as the inPhase-th call there (0: any), with error (0: any, -E: any
// but E), gives this result (unset: the run without faults'), exception and records. In texts,
// {d} is the point's scratch directory, {a} the shared archive, {e} the error's text, {n} its
// number, {old} and {new} the two endings of a failed replacement's record. The first row that fits
// decides.
struct Row {
  Row(const char* operation, Function function, int phase, long inPhase, int error,
      std::optional<std::string> result = {}, std::string exception = {},
      std::vector<std::string> records = {}, std::optional<int> errorAfter = {})
      : operation(operation),
        function(function),
        phase(phase),
        inPhase(inPhase),
        error(error),
        result(std::move(result)),
        exception(std::move(exception)),
        records(std::move(records)),
        errorAfter(errorAfter) {}
  const char* operation;
  Function function;
  int phase;
  long inPhase;
  int error;
  std::optional<std::string> result;
  std::string exception;
  std::vector<std::string> records;
  std::optional<int> errorAfter;
};

using F = Function;
const std::string kIos = "ios_base::failure (iostream 1): ";
const std::string kFailedRename = "Fail 3/0x8010: replacing {d}/a/f failed on ";

// clang-format off
const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
    {"Path::Exists", F::access, kAny, 0, ENOENT, "false", "", {}, 0},
    {"Path::Exists", F::access, kAny, 0, 0, "true", "", {}, 0},
    {"Path::IsDirectory", F::access, kAny, 0, ENOENT, "false"},
    {"Path::IsDirectory", F::opendir, kAny, 0, 0, "false", "", {}, kInjected},
    {"^File (r|w)", F::access, kOpen, 1, ENOENT, {}, "invalid_argument: could not open specified path",
     {"Impl 3/0x8010: Tried to open \"{d}/f\" but it didn't exist"}},
    {"^File (r|w)", F::open, kOpen, 0, 0, {}, kIos + "Failed on kernel call to open: iostream error",
     {"Impl 3/0x8010: failed on kernel open with {e}"}},
    {"^File in memory", F::memfd_create, kAny, 0, 0, {}, kIos + "could not open in memory: iostream error",
     {"Impl 3/0x8010: failed on ram syscall with: {e}"}},
    {"^File read and write", F::syncfs, kFlush, 2, 0, {}, "", {"SyncInput 3/0x8010: failed on input sync with {e}"}},
    {"^File ", F::lseek, kAny, 0, 0, {}, "", {"SeekSet 7/0x8010: failed on lseek with {e}"}},
    {"^File ", F::write, kAny, 0, 0, {}, "", {"Write 3/0x8010: failed on write with {e}"}},
    {"^File ", F::read, kAny, 0, 0, {}, "", {"underflow 3/0x8010: failed on underflow read with {e}"}},
    {"^File ", F::syncfs, kAny, 0, 0, {}, "", {"SyncOutput 3/0x8010: failed on output sync with {e}"}},
    {"^File ", F::fdatasync, kAny, 0, 0, {}, "", {"SyncOutput 3/0x8010: failed on output sync with {e}"}},
    {"^File ", F::close, kAny, 0, 0, {}, "", {"~File 3/0x8010: failed on close with {n}"}},
    {"File::CreateFile", F::open, kAny, 0, 0, "false, (missing)", "", {"CreateFile 3/0x8010: Could not open {d}/new({e})"}},
    {"File::RecreateFile", F::open, kAny, 0, 0, "false, abcdefghijklmnop", "", {"RecreateFile 3/0x8010: Could not open {d}/f({e})"}},
    {"File::GetFileSize", F::stat, kAny, 0, 0, "0"},
    // An AtomicFile's constructor throws after its record and leaves nothing behind; only root may
    // give a file away, so a fchown refused otherwise lets the replacement go on as the caller's.
    {"^AtomicFile", F::lstat, kOpen, 0, 0, {}, kIos + "AtomicFile cannot examine its path: iostream error",
     {"Impl 3/0x8010: cannot examine {d}/a/f: {e}"}},
    {"^AtomicFile", F::open, kOpen, 0, 0, {}, kIos + "AtomicFile cannot create its temporary file: iostream error",
     {"Impl 3/0x8010: cannot create a temporary file beside {d}/a/f: {e}"}},
    {"^AtomicFile", F::fchown, kOpen, 0, EIO, {}, kIos + "AtomicFile cannot set its temporary file's owner: iostream error",
     {"KeepOwner 3/0x8010: cannot give {d}/a/.f.XXXXXX the owner of {d}/a/f: {e}"}},
    // A failed write makes the stream bad; a later Commit finds nothing to commit.
    {"^AtomicFile, Commit", F::write, kUse, 0, -EINTR, "bad, not committed, bad", "",
     {kFailedRename + "write to {d}/a/.f.XXXXXX: {e}{old}",
      "DoCommit 3/0x8010: nothing to commit for {d}/a/f: already committed, cancelled or failed"}},
    {"^AtomicFile, Cancel", F::write, kUse, 0, -EINTR, "bad, bad", "", {kFailedRename + "write to {d}/a/.f.XXXXXX: {e}{old}"}},
    {"^AtomicFile, dest", F::write, kUse, 0, -EINTR, "bad", "", {kFailedRename + "write to {d}/a/.f.XXXXXX: {e}{old}"}},
    {"^AtomicFile, Commit", F::write, kFlush, 0, -EINTR, "written, not committed, bad", "", {kFailedRename + "write to {d}/a/.f.XXXXXX: {e}{old}"}},
    {"^AtomicFile, Commit", F::fsync, kFlush, 1, 0, "written, not committed, bad", "", {kFailedRename + "fsync of {d}/a/.f.XXXXXX: {e}{old}"}},
    {"^AtomicFile, Commit", F::fsync, kFlush, 0, 0, "written, not committed, bad", "", {kFailedRename + "fsync of {d}/a/: {e}{new}"}},
    {"^AtomicFile, Commit", F::close, kFlush, 1, 0, "written, not committed, bad", "", {kFailedRename + "close of {d}/a/.f.XXXXXX: {e}{old}"}},
    {"^AtomicFile, Commit", F::close, kFlush, 0, 0, "written, not committed, bad", "", {kFailedRename + "close of {d}/a/: {e}{new}"}},
    {"^AtomicFile, Commit", F::rename, kFlush, 0, 0, "written, not committed, bad", "", {kFailedRename + "rename of {d}/a/.f.XXXXXX to {d}/a/f: {e}{old}"}},
    {"^AtomicFile, Commit", F::fchmod, kFlush, 0, 0, "written, not committed, bad", "", {kFailedRename + "setting the mode of {d}/a/.f.XXXXXX: {e}{old}"}},
    {"^AtomicFile, Commit", F::open, kFlush, 0, 0, "written, not committed, bad", "", {kFailedRename + "open of {d}/a/: {e}{new}"}},
    // Only a failed removal leaves the temporary file, and says so.
    {"^AtomicFile", F::remove, kAny, 0, 0, {}, "", {"Discard 3/0x8010: cannot remove the temporary file {d}/a/.f.XXXXXX: {e}"}},
    // A missing path that seems to exist (any error but ENOENT) is no directory; on an existing
    // one, a first answer of ENOENT sends it to mkdir -p, which succeeds.
    {"CreateDirectory, missing", F::access, kAny, 0, -ENOENT, "false, absent"},
    {"CreateDirectory, missing", F::system, kAny, 0, 0, "false, absent"},
    {"CreateDirectory, existing", F::access, kAny, 2, ENOENT, "false, present"},
    {"CreateDirectory, existing", F::opendir, kAny, 0, 0, "false, present"},
    {"EmptyDirectory", F::access, kAny, 0, ENOENT, "false .keep sub sub/y x"},
    {"EmptyDirectory", F::opendir, kAny, 0, 0, "false .keep sub sub/y x"},
    {"EmptyDirectory", F::system, kAny, 0, 0, "false .keep sub sub/y x"},
    // The top level, then sub, then sub/deeper: each lost level takes its files.
    {"GetDirectorySize", F::opendir, kAny, 1, 0, "0"},
    {"GetDirectorySize", F::opendir, kAny, 2, 0, "200"},
    {"GetDirectorySize", F::opendir, kAny, 3, 0, "300"},
    {"GetDirectorySize", F::stat, kAny, 0, 0, "300"},
    {"^AtomicUntar", F::access, kOpen, 1, ENOENT, {}, "runtime_error: Path is not a file",
     {"Impl 3/0x8027: path is not a file: {a}"}},
    {"^Untar", F::access, kOpen, 1, ENOENT, {}, "runtime_error: Path is not a file",
     {"Impl 3/0x8027: path is not a file: {a}"}},
    {"^Untar::Extract", F::access, kUse, 0, ENOENT, "-1", "", {"DoExtract 3/0x8027: specified path is not an existing directory: {d}/out"}},
    {"^Untar::Extract", F::opendir, kUse, 0, 0, "-1", "", {"DoExtract 3/0x8027: specified path is not an existing directory: {d}/out"}},
    {"GetFileSystemUsedSize", F::statfs, kAny, 0, 0, "0", "", {"GetFileSystemUsedSize 3/0x8010: failed to open path with {n}"}},
    {"GetPercentageUsed", F::statfs, kAny, 0, 0, "0", "", {"GetPercentageUsed 3/0x8010: failed to open / with {e}({n})"}},
  };
  return rows;
}
// clang-format on

// An archive shared by every point: "one", "dir/" and "dir/two".
std::string& Archive() {
  static std::string archive;
  return archive;
}

std::string Error(int error) {
  return std::strerror(error);
}

// A row's text for a point in dir.
std::string Fill(std::string text, const Point& point, const std::string& dir) {
  const std::pair<const char*, std::string> fields[] = {
      {"{d}", dir},
      {"{a}", Archive()},
      {"{e}", Error(point.error)},
      {"{n}", std::to_string(point.error)},
      {"{old}", "; it keeps its old content"},
      {"{new}", "; the new content is in place but its durability is not confirmed"}};
  for (const auto& [field, value] : fields) {
    for (std::size_t at; (at = text.find(field)) != std::string::npos;) {
      text.replace(at, std::strlen(field), value);
    }
  }
  return text;
}

// What the first row that fits gives the point, or the run without faults' result.
Expected FromRows(const std::string& operation, const Point& point, const Outcome& baseline,
                  const TempDir& dir) {
  Expected expected;
  expected.result = baseline.result;
  for (const Row& row : Rows()) {
    const bool errorFits =
        row.error == 0 || row.error == point.error || (row.error < 0 && -row.error != point.error);
    if (row.function != point.function || (row.phase != kAny && row.phase != point.phase) ||
        (row.inPhase != 0 && row.inPhase != point.inPhase) || !errorFits ||
        !std::regex_search(operation, std::regex(row.operation))) {
      continue;
    }
    expected.result = row.result              ? row.result
                      : row.exception.empty() ? std::optional<std::string>(baseline.result)
                                              : std::nullopt;
    if (!row.exception.empty()) {
      expected.exception = row.exception;
    }
    for (const std::string& record : row.records) {
      expected.records.push_back(Fill(record, point, dir.Path()));
    }
    expected.errorAfter =
        row.errorAfter == kInjected ? std::optional<int>(point.error) : row.errorAfter;
    break;
  }
  return expected;
}

struct Operation {
  std::string name;
  // Runs the operation in a scratch directory, noting what it returns in the outcome.
  std::function<void(const TempDir&, Outcome&)> run;
  // Refines what the rows give the point; none where the rows say everything.
  std::function<Expected(const Point&, const Outcome& baseline, const TempDir&, Expected)> expect;
  // What the operation left in the scratch directory, taken after the run, even one that threw.
  std::function<std::string(const TempDir&)> content = nullptr;
  // The run without faults writes records of a failure (but throws nothing).
  bool failsWithoutFaults = false;
  // A call the run without faults must make (the one a substitute layer exists for), if any.
  Function mustCall = Function::count;
};

// Appends what buffer gives, character by character, up to its end.
void ReadToEnd(std::streambuf& buffer, std::string& into) {
  for (int c = buffer.sgetc(); c != EOF; c = buffer.sgetc()) {
    into += static_cast<char>(c);
    buffer.sbumpc();
  }
}

std::string TarRecord(const std::string& function, const std::string& text) {
  return function + " 3/0x8027: " + text;
}

// Set while a point runs with every log level disabled.
bool& LoggingOff() {
  static bool off = false;
  return off;
}

// The temporary file's random suffix, replaced by a fixed one so that records and listings can
// be compared.
std::string WithFixedSuffix(const std::string& text) {
  static const std::regex suffix(R"(/\.f\.[A-Za-z0-9]{6})");
  return std::regex_replace(text, suffix, "/.f.XXXXXX");
}

// Runs the operation with every record captured (none while logging is off), and turns what it
// returned or threw into an Outcome.
Outcome Observe(const Operation& operation, const TempDir& dir) {
  Outcome outcome;
  const bool off = LoggingOff();
  const testing::LogCapture log([off](LogLevel) { return !off; });
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
  if (operation.content) {
    outcome.content = operation.content(dir);
  }
  for (const std::string& record : testing::Described(log.Records())) {
    outcome.records.push_back(WithFixedSuffix(record));
  }
  return outcome;
}

// Runs a scalar operation, whose whole outcome the rows give.
Operation Query(std::string name, std::function<std::string(const TempDir&, Outcome&)> query) {
  return {std::move(name),
          [query](const TempDir& dir, Outcome& out) { out.result = query(dir, out); }, nullptr};
}

std::string Flag(bool value) {
  return value ? "true" : "false";
}

// --- File ------------------------------------------------------------------------------------

const std::string kOriginal = "abcdefghijklmnop";
const std::string kData = "0123456789A";

std::string FileContent(const TempDir& dir) {
  return testing::ReadWholeFile(dir / "f");
}

File::Options Options(const PathIF* path, std::uint32_t readSize, std::uint32_t writeSize,
                      bool forRead, bool forWrite) {
  File::Options options = testing::Buffers(readSize, writeSize, forRead, forWrite);
  options.path = path;
  options.inMemory = path == nullptr;
  return options;
}

// Reads the whole file through a File with a get area of bufferSize, a character at a time.
Operation FileRead(std::uint32_t bufferSize) {
  return {"File read, get area " + std::to_string(bufferSize),
          [bufferSize](const TempDir& dir, Outcome& out) {
            const Path path(dir.WriteFile("f", kOriginal));
            SetPhase(kOpen);
            auto file = std::make_unique<File>(Options(&path, bufferSize, 0, true, false));
            SetPhase(kUse);
            ReadToEnd(*file, out.result);
            SetPhase(kClose);
            file.reset();
          },
          [](const Point& point, const Outcome&, const TempDir&, Expected expected) {
            if (point.phase == kUse && point.function != Function::syncfs) {
              // A failed refill ends the reading early; what was read is the file's beginning.
              expected.result.reset();
              expected.check = [](const Outcome& got) {
                return kOriginal.compare(0, got.result.size(), got.result) == 0
                           ? std::string()
                           : "read bytes are not the file's beginning: " + got.result;
              };
            }
            return expected;
          }};
}

// Writes kData over kOriginal through a write-only File with a put area of bufferSize (on the
// durable layer when durable is set), flushes when flush is set, and destroys the File. Every
// byte the stream accepted must reach the file exactly once, at its own offset; only a failure
// in the destructor's own flush loses what it held. The durable layer's sync fails as syncfs does.
Operation FileWrite(std::uint32_t bufferSize, bool flush, bool durable = false) {
  return {"File write, put area " + std::to_string(bufferSize) + (flush ? ", flushed" : "") +
              (durable ? ", durable layer" : ""),
          [bufferSize, flush, durable](const TempDir& dir, Outcome& out) {
            const std::string name = dir.WriteFile("f", kOriginal);
            const Path path(name);
            SetPhase(kOpen);
            auto file =
                std::make_unique<File>(Options(&path, 0, bufferSize, false, true),
                                       durable ? std::make_unique<DurableLinuxApi>() : nullptr);
            SetPhase(kUse);
            std::streambuf& buffer = *file;
            const std::streamsize accepted =
                buffer.sputn(kData.data(), static_cast<std::streamsize>(kData.size()));
            out.result = "accepted " + std::to_string(accepted);
            if (flush) {
              SetPhase(kFlush);
              out.result += buffer.pubsync() == 0 ? ", flushed" : ", flush failed";
            }
            out.contentBefore = testing::ReadWholeFile(name);
            SetPhase(kClose);
            file.reset();
          },
          [flush](const Point& point, const Outcome&, const TempDir&, Expected expected) {
            if (expected.exception) {
              expected.check = Holds(kOriginal);
              return expected;
            }
            const bool positioningOrWrite =
                point.function == Function::lseek || point.function == Function::write;
            const bool losesHeld = positioningOrWrite && point.phase == kClose;
            if (positioningOrWrite && point.phase == kUse) {
              expected.result.reset();
            } else if (positioningOrWrite && point.phase == kFlush) {
              expected.result = "accepted " + std::to_string(kData.size()) + ", flush failed";
            }
            expected.check = [losesHeld](const Outcome& got) {
              if (losesHeld) {
                return got.content == got.contentBefore
                           ? std::string()
                           : "the destructor's failed flush still changed the file: " + got.content;
              }
              const std::size_t accepted = std::stoul(got.result.substr(9));
              const std::string want = kData.substr(0, accepted) + kOriginal.substr(accepted);
              return got.content == want ? std::string()
                                         : "file holds " + got.content + ", want " + want;
            };
            return expected;
          },
          FileContent,
          false,
          durable ? Function::fdatasync : Function::count};
}

// Over a File open for reading and writing with areas of 4: writes "012", flushes (which writes,
// then reloads the get area from the file), reads everything, and destroys the File.
Operation FileReadWrite() {
  return {"File read and write, flushed",
          [](const TempDir& dir, Outcome& out) {
            const std::string name = dir.WriteFile("f", kOriginal);
            const Path path(name);
            SetPhase(kOpen);
            auto file = std::make_unique<File>(Options(&path, 4, 4, true, true));
            std::streambuf& buffer = *file;
            SetPhase(kUse);
            buffer.sputn(kData.data(), 3);
            SetPhase(kFlush);
            out.result = buffer.pubsync() == 0 ? "flushed" : "flush failed";
            SetPhase(kRead);
            ReadToEnd(buffer, out.contentBefore);
            SetPhase(kClose);
            file.reset();
          },
          [](const Point& point, const Outcome&, const TempDir&, Expected expected) {
            if (expected.exception) {
              return expected;
            }
            const std::string written = kData.substr(0, 3) + kOriginal.substr(3);
            const bool inFlush = point.phase == kFlush;
            const Function function = point.function;
            // A flush fails at its write (its first lseek), input sync, or refill (its second).
            const bool outputFails =
                inFlush && (function == Function::write ||
                            (function == Function::lseek && point.inPhase == 1));
            if (inFlush && (outputFails || function == Function::read ||
                            (function == Function::lseek && point.inPhase == 2) ||
                            (function == Function::syncfs && point.inPhase == 2))) {
              expected.result = "flush failed";
            }
            // Until the destructor writes them, bytes a failed flush kept are not in the file.
            const std::string read = outputFails ? kOriginal : written;
            const bool readCut = point.phase == kRead;
            expected.check = [written, read, readCut](const Outcome& got) {
              if (got.content != written) {
                return "file holds " + got.content;
              }
              const bool prefix = read.compare(0, got.contentBefore.size(), got.contentBefore) == 0;
              if (!prefix || (!readCut && got.contentBefore.size() != read.size())) {
                return "read " + got.contentBefore + ", want " + read;
              }
              return std::string();
            };
            return expected;
          },
          FileContent};
}

Operation FileInMemory() {
  return {"File in memory",
          [](const TempDir&, Outcome& out) {
            SetPhase(kOpen);
            auto file = std::make_unique<File>(Options(nullptr, 4, 8, true, true));
            SetPhase(kUse);
            out.result = std::to_string(static_cast<std::streambuf&>(*file).sputn("hello", 5));
            SetPhase(kClose);
            file.reset();
          },
          nullptr};
}

// CreateFile on a missing name (recreate false) or RecreateFile on a file with contents; the
// result ends with what the name then holds.
Operation CreateOrRecreate(bool recreate) {
  return Query(recreate ? "File::RecreateFile" : "File::CreateFile", [recreate](const TempDir& dir,
                                                                                Outcome&) {
    const std::string name = recreate ? dir.WriteFile("f", kOriginal) : dir / "new";
    const bool done = recreate ? File::RecreateFile(name) : File::CreateFile(name);
    return Flag(done) + ", " + (std::ifstream(name) ? testing::ReadWholeFile(name) : "(missing)");
  });
}

// --- AtomicFile ------------------------------------------------------------------------------

// How a replacement ends.
enum class Ending { Commit, Cancel, Destroy };

// Every entry of directory as "name=content;", in name order.
std::string Entries(const std::string& directory) {
  std::string entries;
  for (const std::string& name : testing::ListTree(directory)) {
    entries += WithFixedSuffix("/" + name).substr(1) + "=" +
               testing::ReadWholeFile(directory + "/" + name) + ";";
  }
  return entries;
}

// Replaces a/f (holding kOriginal when existing is set, else missing) through an AtomicFile with
// a buffer of bufferSize: writes kData in four pieces, then commits, cancels or is destroyed.
// Output after Commit or Cancel must fail. content is a/ afterwards: the target and anything
// else left there.
Operation AtomicReplace(bool existing, std::uint32_t bufferSize, Ending ending) {
  const char* const endings[] = {"Commit", "Cancel", "destruction"};
  std::string name = std::string("AtomicFile, ") + endings[static_cast<int>(ending)] + ", " +
                     (existing ? "existing" : "new") + " target, buffer " +
                     std::to_string(bufferSize);
  return {
      name,
      [existing, bufferSize, ending](const TempDir& dir, Outcome& out) {
        dir.MakeDir("a");
        const std::string target = existing ? dir.WriteFile("a/f", kOriginal) : dir / "a/f";
        SetPhase(kOpen);
        auto file = std::make_unique<AtomicFile>(target, nullptr, bufferSize);
        SetPhase(kUse);
        // A put that finds a buffer of 4 full, then pieces that fit and that do not.
        *file << "0123";
        file->put('4');
        *file << "567";
        *file << "89A";
        out.result = file->good() ? "written" : "bad";
        SetPhase(kFlush);
        if (ending == Ending::Commit) {
          out.result += file->Commit() ? ", committed" : ", not committed";
        } else if (ending == Ending::Cancel) {
          file->Cancel();
        }
        if (ending != Ending::Destroy) {
          *file << 'x';
          out.result += file->bad() ? ", bad" : ", good";
        }
        SetPhase(kClose);
        file.reset();
      },
      [existing, ending](const Point& point, const Outcome&, const TempDir&, Expected expected) {
        const std::string before = existing ? "f=" + kOriginal + ";" : "";
        const std::string after = "f=" + kData + ";";
        const std::string record = expected.records.empty() ? "" : expected.records.front();
        if (point.function == Function::remove) {
          // It holds a prefix of what was written: the bytes drained before the end.
          expected.check = [before](const Outcome& got) {
            const std::string left = ".f.XXXXXX=";
            const std::size_t end =
                got.content.size() - std::min(got.content.size(), before.size() + 1);
            const std::string written = got.content.size() > left.size() + before.size()
                                            ? got.content.substr(left.size(), end - left.size())
                                            : "";
            return got.content == left + written + ";" + before &&
                           kData.compare(0, written.size(), written) == 0
                       ? std::string()
                       : "a/ holds " + got.content;
          };
        } else if (record.find("in place") != std::string::npos) {
          expected.check = Holds(after);
        } else {
          const bool failed = expected.exception || record.rfind("Fail", 0) == 0;
          expected.check = Holds(ending == Ending::Commit && !failed ? after : before);
        }
        return expected;
      },
      [](const TempDir& dir) { return Entries(dir / "a"); }};
}

// --- Directory -------------------------------------------------------------------------------

std::shared_ptr<Directory> DirectoryOn(const std::string& path) {
  return std::make_shared<Directory>(std::make_shared<Path>(path),
                                     std::make_shared<SystemCallWrapper>());
}

// CreateDirectory on a missing path (exists false) or on an existing directory.
Operation CreateDirectory(bool exists) {
  return Query(std::string("Directory::CreateDirectory, ") + (exists ? "existing" : "missing"),
               [exists](const TempDir& dir, Outcome&) {
                 const std::string path = exists ? dir.MakeDir("a/b") : dir / "a/b";
                 const bool result = DirectoryOn(path)->CreateDirectory();
                 const std::vector<std::string> tree = testing::ListTree(dir.Path());
                 return Flag(result) + (std::ifstream(path + "/.") ? ", present" : ", absent") +
                        (tree != std::vector<std::string>{"a", "a/b"} && !tree.empty()
                             ? ", other entries"
                             : "");
               });
}

Operation EmptyDirectory() {
  return Query("Directory::EmptyDirectory", [](const TempDir& dir, Outcome&) {
    dir.WriteFile("d/x", "1");
    dir.WriteFile("d/sub/y", "2");
    dir.WriteFile("d/.keep", "3");
    std::string result = Flag(DirectoryOn(dir / "d")->EmptyDirectory());
    for (const std::string& entry : testing::ListTree(dir / "d")) {
      result += " " + entry;
    }
    return result;
  });
}

// a, b, sub/c and sub/deeper/d, 100 bytes each; one subdirectory per level.
Operation GetDirectorySize() {
  Operation operation = Query("Directory::GetDirectorySize", [](const TempDir& dir, Outcome&) {
    for (const char* name : {"t/a", "t/b", "t/sub/c", "t/sub/deeper/d"}) {
      dir.WriteFile(name, std::string(100, 'x'));
    }
    return std::to_string(DirectoryOn(dir / "t")->GetDirectorySize());
  });
  operation.expect = [](const Point& point, const Outcome&, const TempDir&, Expected expected) {
    if (point.function == Function::readdir) {
      // A failed readdir ends its directory early: a smaller sum of whole files.
      expected.result.reset();
      expected.check = [](const Outcome& got) {
        const unsigned long sum = std::stoul(got.result);
        return sum <= 400 && sum % 100 == 0 ? std::string() : "sum " + got.result;
      };
    }
    return expected;
  };
  return operation;
}

// GetFileSystemUsedSize or GetPercentageUsed of "/", whose only call is its statfs.
Operation StatisticsQuery(bool percentage) {
  return Query(percentage ? "Directory::GetPercentageUsed" : "Directory::GetFileSystemUsedSize",
               [percentage](const TempDir&, Outcome&) {
                 const auto directory = DirectoryOn("/");
                 const std::uint64_t value =
                     percentage ? static_cast<std::uint64_t>(directory->GetPercentageUsed())
                                : directory->GetFileSystemUsedSize();
                 return value > 0 ? "positive" : "0";
               });
}

// --- Tar -------------------------------------------------------------------------------------

// A name of an archive that does not exist, beside the shared one.
std::string MissingArchive() {
  return Archive() + ".missing";
}

std::vector<std::string> Split(const std::string& output) {
  std::vector<std::string> names;
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    if (!line.empty() && line.back() != '/') {
      names.push_back(line);
    }
  }
  return names;
}

std::string Joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) {
    text += name + ";";
  }
  return text;
}

// What a point among a runner's calls does to a run: nothing (a retried EINTR or EAGAIN, a
// missing pidfd, parent-death request or larger pipe, a poll that only brings a drain forward,
// which the streaming runner does without), a failure of the runner's own (its status and
// records, or the wait's exception, after which the child is left for nobody to reap, as the
// contract has it), a failed close's record, or output that ends early. TarApi reads a byte at
// a time and stops at a failed read, before that byte; after a failed read the streaming runner
// stops reading and closes its end, and tar, when it had more to write, fails.
struct RunnerFailure {
  int status = 0;
  std::vector<std::string> records;
  bool throws = false;
};

struct RunnerEffect {
  std::optional<RunnerFailure> failure;
  std::vector<std::string> records;
  std::optional<std::size_t> cutAt;  // TarApi's output ends before this byte
  bool cut = false;                  // the streaming runner's output may end anywhere
  bool mayNotFire = false;
};

// One row of what a runner's failed call does: in the runners named (kPlain, kStreaming or
// both), for the inPhase-th calls first to last (0: any) with error (as in Row), a failure with
// status (kNoFailure: none; kMinusError: the error negated) and one record, or only a record;
// throws, cut and mayNotFire as in RunnerFailure and RunnerEffect. In the record, {s} is tar's
// command line with spaces, {t} without them, {e} and {n} the error as in Row.
struct RunnerRow {
  int runners;
  Function function;
  long first;
  long last;
  int error;
  int status;
  const char* record;
  bool throws;
  bool cut;
  bool mayNotFire;
};
enum : int { kPlain = 1, kStreaming = 2, kBoth = 3, kNoFailure = 1000, kMinusError };

// The streaming runner names the step of the start that failed; a failed pipe, fcntl (but the
// third, asking for a larger pipe, which the runner does without) or fork is the runner's own;
// a failed dup2 or execvp in TarApi's child is tar's 255. The streaming runner closes the
// pipes' four ends with a record, and the socket's, which carry no output, without. Its first
// read is the report that says tar runs: without it nothing is known of tar, which is killed.
// Its further reads, of the output and then of tar's status, come as often as timing has it:
// the status read fails the wait; a read of the output ends it early, or, with EINTR, is retried.
// clang-format off
const RunnerRow kRunnerRows[] = {
    {kBoth, F::pipe2, 0, 0, 0, kMinusError, "RunCmd: failed to pipe: {n}", false, false, false},
    {kBoth, F::fcntl, 1, 2, 0, kMinusError, "RunCmd: failed to pipe: {n}", false, false, false},
    {kBoth, F::fork, 0, 0, 0, kMinusError, "RunCmd: Failed to fork: {t}", false, false, false},
    {kStreaming, F::socketpair, 0, 0, 0, kMinusError, "RunCmd: socketpair failed for {s}: {e}", false, false, false},
    {kStreaming, F::clone, 0, 0, 0, kMinusError, "RunCmd: clone failed for {s}: {e}", false, false, false},
    {kBoth, F::dup2, 0, 0, 0, 255, "RunCmd: tar returned 255,\n", false, false, false},
    {kBoth, F::dup3, 0, 0, 0, 255, "RunCmd: dup3 failed for {s}: {e}", false, false, false},
    {kPlain, F::execvp, 0, 0, 0, 255, "RunCmd: tar returned 255,\n", false, false, false},
    {kStreaming, F::execvp, 0, 0, 0, 255, "RunCmd: execvp failed for {s}: {e}", false, false, false},
    {kPlain, F::close, 0, 0, 0, kNoFailure, "ClosePipe: failed to close pipe: {n}", false, false, false},
    {kStreaming, F::close, 2, 5, 0, kNoFailure, "RunCmd: failed to close pipe: {n}", false, false, false},
    {kBoth, F::poll, 0, 0, 0, kNoFailure, nullptr, false, false, true},
    {kStreaming, F::read, 1, 1, -EINTR, kMinusError, "RunCmd: read failed for {s}: {e}", false, false, false},
    {kStreaming, F::read, 2, 1000, -EINTR, 0, "RunCmd: waitpid failure: {e}", true, true, true},
    {kStreaming, F::read, 2, 1000, EINTR, kNoFailure, nullptr, false, false, true},
    {kPlain, F::waitpid, 0, 0, 0, 0, "RunCmd: waitpid failure: {e}", true, false, false},
    {kStreaming, F::waitpid, 0, 0, ECHILD, 0, "RunCmd: waitpid failure: {e}", true, false, false},
};
// clang-format on

// ran: the arguments tar runs with, "tar" first. A failed waitpid may not be reached when the
// run has a time-out; TarApi reads a byte at a time and stops before the byte of a failed read.
RunnerEffect EffectOf(const Point& point, const std::vector<std::string>& ran, bool streaming,
                      bool timed) {
  RunnerEffect effect;
  effect.mayNotFire = timed && point.function == Function::waitpid;
  if (!streaming && point.function == Function::read) {
    effect.cutAt = static_cast<std::size_t>(point.call - 1);
  }
  std::string together;
  std::string spaced;
  for (const std::string& arg : ran) {
    together += arg;
    spaced += (spaced.empty() ? "" : " ") + arg;
  }
  const int error = point.error;
  for (const RunnerRow& row : kRunnerRows) {
    const bool errorFits =
        row.error == 0 || row.error == error || (row.error < 0 && -row.error != error);
    if ((row.runners & (streaming ? kStreaming : kPlain)) == 0 || row.function != point.function ||
        (row.first != 0 && (point.inPhase < row.first || point.inPhase > row.last)) || !errorFits) {
      continue;
    }
    effect.mayNotFire = effect.mayNotFire || row.mayNotFire;
    effect.cut = row.cut;
    if (row.record == nullptr) {
      break;
    }
    std::string record = row.record;
    const std::size_t colon = record.find(": ");
    record = Fill(TarRecord(record.substr(0, colon), record.substr(colon + 2)), point, "");
    for (const auto& [field, value] : {std::pair{"{s}", spaced}, std::pair{"{t}", together}}) {
      if (const std::size_t at = record.find(field); at != std::string::npos) {
        record.replace(at, 3, value);
      }
    }
    if (row.status == kNoFailure) {
      effect.records = {record};
    } else {
      effect.failure =
          RunnerFailure{row.status == kMinusError ? -error : row.status, {record}, row.throws};
    }
    break;
  }
  return effect;
}

// Whether got is the failed wait that effect allows.
bool WaitFailed(const Outcome& got, const RunnerEffect& effect) {
  return effect.failure && effect.failure->throws &&
         got.exception == "runtime_error: waitpid failure" &&
         got.records == effect.failure->records;
}

// What a runner's operation gives for a point. A run cut at a moment timing decides is left to
// cut (or is the failed wait); a failed wait throws, leaving the child for nobody to reap, as the
// contract has it; a failure of the runner's own gives failed's result and its records (and
// more); otherwise the run goes on as usual, with the effect's records.
Expected RunnerExpected(const Point& point, const RunnerEffect& effect, std::string usual,
                        const std::function<std::string(int status)>& failed,
                        std::function<std::string(const Outcome&)> cut,
                        std::vector<std::string> more = {}) {
  Expected expected;
  expected.mayNotFire = effect.mayNotFire;
  if (effect.cut || (effect.failure && effect.mayNotFire)) {
    expected.checkDecides = true;
    // Only a failed waitpid leaves the intermediate, unreaped, as TarApi leaves its child.
    expected.childMayRemain = point.function == Function::waitpid;
    expected.check = [effect, cut = std::move(cut)](const Outcome& got) {
      return WaitFailed(got, effect) ? std::string() : cut(got);
    };
  } else if (effect.failure) {
    expected.records = effect.failure->records;
    if (effect.failure->throws) {
      expected.exception = "runtime_error: waitpid failure";
      expected.childMayRemain = true;
      return expected;
    }
    expected.result = failed(effect.failure->status);
    expected.records.insert(expected.records.end(), more.begin(), more.end());
  } else {
    expected.result = std::move(usual);
    expected.records = effect.records;
  }
  return expected;
}

// Whether got is what a run cut by a failed poll or read may give: output that begins the
// whole output, with status 0 (unless tar fails anyway), or tar's failure (status 2) and its
// record; or, for a read, a failed read of tar's status.
std::string CutOutcome(const Outcome& got, const std::string& output, bool tarFails) {
  const std::size_t bar = got.result.rfind('|');
  if (bar == std::string::npos || !got.exception.empty()) {
    return "outcome " + got.result + " " + got.exception;
  }
  const std::string cut = got.result.substr(0, bar);
  const int status = std::stoi(got.result.substr(bar + 1));
  // A tar that fails anyway can never be seen to succeed.
  if (output.compare(0, cut.size(), cut) != 0 || (status != 0 && status != 2) ||
      (tarFails && status == 0)) {
    return "output \"" + cut + "\" with status " + std::to_string(status);
  }
  const std::vector<std::string> want;
  return got.records ==
                 (status == 0
                      ? want
                      : std::vector<std::string>{TarRecord("RunCmd", "tar returned 2,\n" + cut)})
             ? std::string()
             : "records " + Joined(got.records);
}

// TarApi::RunCmd, or StreamingTarApi::RunCmd with or without a time-out, listing the archive;
// or the streaming runner listing a missing archive, which tar fails with status 2 and the
// runner must never report otherwise.
Operation RunCmd(bool streaming, bool timed = false, bool tarFails = false) {
  Operation operation{
      std::string(streaming ? "StreamingTarApi" : "TarApi") + "::RunCmd" +
          (timed ? ", time-out" : "") + (tarFails ? ", tar fails" : ""),
      [streaming, timed, tarFails](const TempDir&, Outcome& out) {
        std::vector<std::string> args = {"-tf", tarFails ? MissingArchive() : Archive()};
        const std::unique_ptr<TarApi> runner =
            !streaming ? std::make_unique<TarApi>()
            : timed    ? std::make_unique<StreamingTarApi>(std::chrono::seconds(10))
                       : std::make_unique<StreamingTarApi>();
        SetPhase(kUse);
        const auto [output, status] = runner->RunCmd(args);
        out.result = output + "|" + std::to_string(status);
        out.content = Joined(args);
      },
      [streaming, timed, tarFails](const Point& point, const Outcome& baseline, const TempDir&,
                                   Expected) {
        const std::string archive = tarFails ? MissingArchive() : Archive();
        const std::string output = baseline.result.substr(0, baseline.result.find('|'));
        const RunnerEffect effect = EffectOf(point, {"tar", "-tf", archive}, streaming, timed);
        Expected expected = RunnerExpected(
            point, effect, effect.cutAt ? output.substr(0, *effect.cutAt) + "|0" : baseline.result,
            [](int status) { return "|" + std::to_string(status); },
            [output, tarFails](const Outcome& got) { return CutOutcome(got, output, tarFails); });
        if (effect.failure && !expected.checkDecides && !expected.exception) {
          // A failed pipe leaves the argument list as it was.
          const bool noPipe =
              point.function == Function::pipe2 || point.function == Function::fcntl;
          expected.check = Holds(noPipe ? "-tf;" + archive + ";" : baseline.content);
        } else if (!effect.failure) {
          expected.records.insert(expected.records.end(), baseline.records.begin(),
                                  baseline.records.end());
        }
        return expected;
      }};
  operation.failsWithoutFaults = tarFails;
  return operation;
}

// The streaming runner listing a FIFO that nobody writes to: tar waits in its open until the
// time-out has it killed, which no fault may turn into a wait for ever.
Operation RunCmdTimesOut() {
  Operation operation{
      "StreamingTarApi::RunCmd, tar hangs",
      [](const TempDir& dir, Outcome& out) {
        const std::string fifo = dir / "fifo.tar";
        ::mkfifo(fifo.c_str(), 0600);
        std::vector<std::string> args = {"-tf", fifo};
        StreamingTarApi runner(std::chrono::milliseconds(100));
        SetPhase(kUse);
        try {
          const auto [output, status] = runner.RunCmd(args);
          out.result = output + "|" + std::to_string(status);
        } catch (const std::runtime_error& error) {
          out.result = std::string("threw ") + error.what();
        }
      },
      [](const Point& point, const Outcome&, const TempDir& dir, Expected) {
        const std::string fifo = dir / "fifo.tar";
        const RunnerEffect effect = EffectOf(point, {"tar", "-tf", fifo}, true, true);
        Expected expected;
        // The drains' reads and polls, and the waits for tar, come as often as time allows.
        expected.mayNotFire = effect.mayNotFire || point.function == Function::read ||
                              point.function == Function::waitpid;
        expected.childMayRemain = point.function == Function::waitpid;
        if (effect.failure && !effect.failure->throws) {
          expected.result = "|" + std::to_string(effect.failure->status);
          expected.records = effect.failure->records;
          return expected;
        }
        expected.result = "threw tar timed out";
        expected.records = effect.records;
        expected.records.push_back(
            TarRecord("RunCmd", "tar timed out after 100 ms and was killed: tar -tf " + fifo));
        return expected;
      }};
  operation.failsWithoutFaults = true;
  return operation;
}

// An Untar on the shared archive, through TarApi, or through StreamingTarApi when streaming is
// set.
Untar UntarOf(bool streaming) {
  return Untar(std::make_shared<Path>(Archive()),
               streaming ? std::make_shared<StreamingTarApi>() : nullptr);
}

// Untar::FileList through either runner.
Operation FileList(bool streaming) {
  return {
      std::string("Untar::FileList") + (streaming ? ", streaming" : ""),
      [streaming](const TempDir&, Outcome& out) {
        SetPhase(kOpen);
        Untar untar = UntarOf(streaming);
        SetPhase(kUse);
        out.result = Joined(untar.FileList());
      },
      [streaming](const Point& point, const Outcome& baseline, const TempDir&, Expected fromRows) {
        if (fromRows.exception) {
          return fromRows;
        }
        const RunnerEffect effect = EffectOf(point, {"tar", "-tf", Archive()}, streaming, false);
        const std::string output = "one\ndir/\ndir/two\n";
        // A cut run gives the names of some beginning of the output; or, when tar failed to
        // write the rest, none and both records.
        return RunnerExpected(
            point, effect,
            effect.cutAt ? Joined(Split(output.substr(0, *effect.cutAt))) : baseline.result,
            [](int) { return std::string(); },
            [output](const Outcome& got) {
              for (std::size_t end = 0; end <= output.size(); ++end) {
                const std::string cut = output.substr(0, end);
                const std::vector<std::string> failed = {
                    TarRecord("RunCmd", "tar returned 2,\n" + cut),
                    TarRecord("DoFileList", "Tar command failed: 2, " + cut)};
                if (got.exception.empty() &&
                    ((got.records.empty() && got.result == Joined(Split(cut))) ||
                     (got.records == failed && got.result.empty()))) {
                  return std::string();
                }
              }
              return "names " + got.result + " " + got.exception;
            },
            {TarRecord("DoFileList",
                       "Tar command failed: " +
                           std::to_string(effect.failure ? effect.failure->status : 0) + ", ")});
      }};
}

// Untar::Extract through either runner.
Operation Extract(bool streaming) {
  return {std::string("Untar::Extract") + (streaming ? ", streaming" : ""),
          [streaming](const TempDir& dir, Outcome& out) {
            const std::string destination = dir.MakeDir("out");
            SetPhase(kOpen);
            Untar untar = UntarOf(streaming);
            SetPhase(kUse);
            out.result = std::to_string(untar.Extract(std::make_shared<Path>(destination)));
            out.content = Joined(testing::ListTree(destination));
          },
          [streaming](const Point& point, const Outcome& baseline, const TempDir& dir,
                      Expected fromRows) {
            if (fromRows.exception) {
              return fromRows;
            }
            const RunnerEffect effect = EffectOf(
                point, {"tar", "--warning=no-timestamp", "-xf", Archive(), "-C", dir / "out"},
                streaming, false);
            // tar writes nothing here, so a cut run is one as usual (or the failed wait).
            Expected expected =
                !fromRows.records.empty()
                    ? fromRows
                    : RunnerExpected(
                          point, effect, baseline.result,
                          [](int status) { return std::to_string(status); },
                          [want = baseline](const Outcome& got) {
                            return got.exception.empty() && got.records.empty() &&
                                           got.result == want.result && got.content == want.content
                                       ? std::string()
                                       : "outcome " + got.result + " " + got.exception;
                          });
            if (expected.checkDecides || expected.exception) {
              return expected;
            }
            const std::string tree = expected.result == baseline.result ? baseline.content : "";
            // tar, killed when whether it runs could not be read, may have extracted some entries.
            const bool killedRunning =
                streaming && point.function == Function::read && point.inPhase == 1;
            const std::string whole = baseline.content;
            expected.check = [tree, killedRunning, whole](const Outcome& got) {
              std::istringstream entries(got.content);
              bool part = killedRunning;
              for (std::string entry; part && std::getline(entries, entry, ';');) {
                part = whole.find(entry + ";") != std::string::npos;
              }
              return got.content == tree || part ? std::string() : "extracted " + got.content;
            };
            return expected;
          }};
}

// AtomicUntar::Install of the shared archive over a tree holding "old": whatever call fails, the
// destination is the whole old tree or the whole new one. false comes with errno and a level-3
// record last; true with the new tree, and anything left beside it only after a level-4 record.
Operation AtomicInstall() {
  return {"AtomicUntar::Install",
          [](const TempDir& dir, Outcome& out) {
            dir.WriteFile("app/old", "old");
            SetPhase(kOpen);
            AtomicUntar install(std::make_shared<Path>(Archive()));
            SetPhase(kUse);
            errno = 0;
            out.result = Flag(install.Install(dir / "app"));
            out.errorAfter = errno;
          },
          [](const Point& point, const Outcome&, const TempDir&, Expected fromRows) {
            if (fromRows.exception) {
              return fromRows;
            }
            Expected expected;
            expected.checkDecides = true;
            expected.mayNotFire = true;
            // After a failed wait the runner leaves its child for nobody to reap.
            expected.childMayRemain = point.function == Function::waitpid;
            expected.check = [](const Outcome& got) {
              const std::string content = std::regex_replace(
                  got.content, std::regex("\\.app\\.[a-z]+-[a-z0-9]{6}[^;]*;"), "");
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
                problem =
                    newTree && (!left || last.find(" 4/0x8027: the old tree") != std::string::npos)
                        ? ""
                        : "installed, but left " + got.content;
              } else if (!(oldTree || newTree) || left) {
                problem = "failed, and left " + got.content;
              } else if (got.errorAfter == 0 ||
                         last.find("3/0x8027: installing ") == std::string::npos) {
                problem = "failed with errno " + std::to_string(got.errorAfter) + " after " + last;
              }
              return problem;
            };
            return expected;
          },
          [](const TempDir& dir) { return Joined(testing::ListTree(dir.Path())); }};
}

// Every operation of the library that the sweep covers; adding one is adding an entry.
std::vector<Operation> Operations() {
  const auto pathQuery = [](bool directory) {
    return Query(directory ? "Path::IsDirectory" : "Path::Exists",
                 [directory](const TempDir& dir, Outcome& out) {
                   const Path path(directory ? dir.MakeDir("d") : dir.WriteFile("f", "x"));
                   const bool result = directory ? path.IsDirectory() : path.Exists();
                   out.errorAfter = errno;
                   return Flag(result);
                 });
  };
  std::vector<Operation> operations = {pathQuery(false), pathQuery(true)};
  for (const std::uint32_t size : {0U, 4U, 64U}) {
    operations.push_back(FileRead(size));
    operations.push_back(FileWrite(size, true));
  }
  for (Operation operation :
       {FileWrite(4, false),
        FileWrite(4, true, true),
        FileReadWrite(),
        FileInMemory(),
        CreateOrRecreate(false),
        CreateOrRecreate(true),
        Query("File::GetFileSize",
              [](const TempDir&dir, Outcome&) {
                return std::to_string(File::GetFileSize(dir.WriteFile("f", kOriginal)));
              }),
        AtomicReplace(true, 4, Ending::Commit),
        AtomicReplace(false, 0, Ending::Commit),
        AtomicReplace(true, 64, Ending::Commit),
        AtomicReplace(true, 4, Ending::Cancel),
        AtomicReplace(true, 4, Ending::Destroy),
        CreateDirectory(false),
        CreateDirectory(true),
        EmptyDirectory(),
        GetDirectorySize(),
        StatisticsQuery(false),
        StatisticsQuery(true),
        RunCmd(false),
        FileList(false),
        Extract(false),
        RunCmd(true),
        RunCmd(true, true),
        RunCmd(true, false, true),
        RunCmdTimesOut(),
        FileList(true),
        Extract(true),
        AtomicInstall()}) {
    operations.push_back(std::move(operation));
  }
  return operations;
}

// --- The harness -----------------------------------------------------------------------------

std::string Compare(const Expected& expected, const Outcome& got) {
  if (expected.checkDecides) {
    const std::string problem = expected.check(got);
    return problem.empty() ? std::string() : " " + problem + ";";
  }
  std::string problems;
  const auto differ = [&problems](const char* what, const std::string& is,
                                  const std::string& want) {
    problems += " " + std::string(what) + " \"" + is + "\", want \"" + want + "\";";
  };
  if (expected.result && *expected.result != got.result) {
    differ("result", got.result, *expected.result);
  }
  if (expected.exception.value_or("") != got.exception) {
    differ("exception", got.exception, expected.exception.value_or(""));
  }
  if (expected.records != got.records) {
    differ("records", Joined(got.records), Joined(expected.records));
  }
  if (expected.errorAfter && *expected.errorAfter != got.errorAfter) {
    differ("errno", std::to_string(got.errorAfter), std::to_string(*expected.errorAfter));
  }
  const std::string problem = expected.check ? expected.check(got) : "";
  return problem.empty() ? problems : problems + " " + problem + ";";
}

// Runs one point in a forked child; returns an empty text when it passed, else what was wrong.
std::string RunPoint(const Operation& operation, const Point& point, const Outcome& baseline) {
  std::fflush(nullptr);
  int report[2];
  if (::pipe2(report, O_CLOEXEC) != 0) {
    return "no pipe for the report";
  }
  const int status = testing::RunInChild([&] {
    ::close(report[0]);
    ::alarm(20);
    // Each point runs twice: as it is, and with every log level disabled, where it must do the
    // same without a record (logging never changes an operation's result).
    const auto runOnce = [&](bool loggingOff) {
      std::string problems;
      const int descriptors = testing::CountOpenDescriptors();
      const TempDir dir;
      LoggingOff() = loggingOff;
      Arm(point.function, point.call, point.error);
      const Outcome got = Observe(operation, dir);
      const bool fired = Fired();
      Reset();
      LoggingOff() = false;
      Expected expected = FromRows(operation.name, point, baseline, dir);
      if (operation.expect) {
        expected = operation.expect(point, baseline, dir, std::move(expected));
      }
      if (loggingOff) {
        expected.records.clear();
        if (expected.checkDecides) {
          // An outcome of several forms is told apart by its records: only their absence is
          // checked.
          expected.check = [](const Outcome& quiet) {
            return quiet.records.empty() ? std::string() : "a record while logging is off";
          };
        }
      }
      problems = Compare(expected, got);
      if (!fired && !expected.mayNotFire) {
        problems += " the fault was never delivered;";
      }
      if (testing::HasChildProcesses()) {
        if (!expected.childMayRemain) {
          problems += " a child process was left behind;";
        }
        while (::waitpid(-1, nullptr, __WALL) > 0) {
        }
      }
      if (testing::CountOpenDescriptors() != descriptors) {
        problems += " a descriptor was left open;";
      }
      return problems;
    };
    std::string problems = runOnce(false);
    const std::string quietProblems = runOnce(true);
    if (!quietProblems.empty()) {
      problems += " with logging off:" + quietProblems;
    }
    // The parent reads only after this child has ended: the report must fit the pipe.
    problems.resize(std::min<std::size_t>(problems.size(), 4096));
    const ssize_t written = ::write(report[1], problems.data(), problems.size());
    Exiting();
#ifdef DRX_SWEEP_EXIT_WRITES_COVERAGE
    // A coverage build's counters, the library's included, are written by exit; _exit, which
    // ends the child otherwise, would drop them.
    std::exit(written == static_cast<ssize_t>(problems.size()) ? 0 : 1);
#endif
    return written == static_cast<ssize_t>(problems.size());
  });
  ::close(report[1]);
  std::string problems;
  char chunk[4096];
  for (ssize_t n; (n = ::read(report[0], chunk, sizeof chunk)) > 0;) {
    problems.append(chunk, static_cast<std::size_t>(n));
  }
  ::close(report[0]);
  if (status != 0) {
    return " the point's child crashed, hung or failed to report (status " +
           std::to_string(status) + ");" + problems;
  }
  return problems;
}

// The checks must be able to fail: a run that loses a byte, one that leaves a descriptor open
// and one that leaves a child process behind must each be reported.
bool HarnessSeesFaults() {
  const Operation write = FileWrite(4, true);
  const Point point{Function::write, 1, 1, kUse, EIO};
  Operation losing = write;
  losing.content = [write](const TempDir& dir) {
    std::string content = write.content(dir);
    content.pop_back();
    return content;
  };
  Operation leaking = write;
  leaking.run = [write](const TempDir& dir, Outcome& out) {
    ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    write.run(dir, out);
  };
  Operation forking = write;
  forking.run = [write](const TempDir& dir, Outcome& out) {
    if (::fork() == 0) {
      ::_exit(0);
    }
    write.run(dir, out);
  };
  for (const Operation* faulty : {&losing, &leaking, &forking}) {
    if (RunPoint(*faulty, point, Outcome()).empty()) {
      return false;
    }
  }
  Operation leaving = AtomicReplace(true, 4, Ending::Commit);
  leaving.content = [replace = leaving](const TempDir& dir) {
    return ".f.XXXXXX=0123;" + replace.content(dir);
  };
  return !RunPoint(leaving, Point{Function::fsync, 1, 1, kFlush, EIO}, Outcome()).empty();
}

int Main(int argc, char** argv) {
  std::string table;
  std::string only;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--table") {
      table = argv[i + 1];
    } else if (option == "--only") {
      only = argv[i + 1];
    }
  }
  Prepare();
  // Records are captured per point; nothing reaches the terminal.
  ::signal(SIGPIPE, SIG_IGN);
  const TempDir shared;
  shared.WriteFile("src/one", "1");
  shared.WriteFile("src/dir/two", "22");
  Archive() = shared / "archive.tar";
  if (std::system(("tar -cf " + Archive() + " -C " + shared / "src" + " one dir").c_str()) != 0) {
    std::cerr << "fault sweep: could not make the archive\n";
    return 1;
  }

  if (!HarnessSeesFaults()) {
    std::cout << "fault sweep: the harness does not see a lost byte, a leaked descriptor or a "
                 "child left behind\n";
    return 1;
  }

  std::ostringstream markdown;
  markdown << "| Operation | Calls | Points | Calls failed (count: errnos) |\n|---|---|---|---|\n";
  std::size_t points = 0;
  std::size_t failed = 0;
  for (const Operation& operation : Operations()) {
    if (!only.empty() && operation.name.find(only) == std::string::npos) {
      continue;
    }
    Outcome baseline;
    std::vector<Call> trace;
    {
      const TempDir dir;
      StartRecording();
      baseline = Observe(operation, dir);
      trace = Recorded();
      Reset();
    }
    if (!baseline.exception.empty() || baseline.records.empty() == operation.failsWithoutFaults) {
      std::cout << "FAILED " << operation.name
                << ": the run without faults did not succeed: " << baseline.exception << "\n";
      ++failed;
    }
    std::size_t operationPoints = 0;
    std::size_t operationFailed = 0;
    std::map<Function, long> seen;
    std::map<std::pair<Function, int>, long> seenInPhase;
    for (const Call& call : trace) {
      const long number = ++seen[call.function];
      const long inPhase = ++seenInPhase[{call.function, call.phase}];
      for (const int error : Errnos(call.function)) {
        const std::string problems =
            RunPoint(operation, Point{call.function, number, inPhase, call.phase, error}, baseline);
        ++operationPoints;
        if (!problems.empty()) {
          ++operationFailed;
          std::cout << "FAILED " << operation.name << ": " << Name(call.function) << " call "
                    << number << " (phase " << call.phase << ") with " << strerrorname_np(error)
                    << ":" << problems << "\n";
        }
      }
    }
    if (operation.mustCall != Function::count && seen.count(operation.mustCall) == 0) {
      std::cout << "FAILED " << operation.name << ": never called " << Name(operation.mustCall)
                << "\n";
      ++operationFailed;
    }
    std::cout << operation.name << ": " << trace.size() << " calls, " << operationPoints
              << " points, " << operationFailed << " failed\n";
    markdown << "| " << operation.name << " | " << trace.size() << " | " << operationPoints << " |";
    const char* separator = " ";
    for (const auto& [function, count] : seen) {
      markdown << separator << Name(function) << " (" << count << ":";
      for (std::size_t i = 0; i < Errnos(function).size(); ++i) {
        markdown << (i == 0 ? " " : ", ") << strerrorname_np(Errnos(function)[i]);
      }
      markdown << ")";
      separator = "; ";
    }
    markdown << " |\n";
    points += operationPoints;
    failed += operationFailed;
  }
  if (!table.empty()) {
    std::ofstream(table) << markdown.str();
  }
  std::cout << "fault sweep: " << points << " points, " << failed << " failed\n";
  return failed == 0 && points > 0 ? 0 : 1;
}

}  // namespace
}  // namespace drn::faults

int main(int argc, char** argv) {
  return drn::faults::Main(argc, argv);
}
