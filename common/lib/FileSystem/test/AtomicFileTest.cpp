// AtomicFile on real files: what a replacement leaves behind on success, on cancel and on
// every failure, the order of its durability steps, and the paths it refuses.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/msdos_fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <locale>
#include <map>
#include <memory>
#include <regex>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "AtomicFile.h"
#include "FileTestSupport.h"
#include "LinuxApi.h"
#include "ScratchFileSystem.h"

namespace drn {
namespace {

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace drn::testing;

// What a ScriptedApi does and saw.
struct Script {
  std::string directory;           // shown as "DIR" in calls
  std::vector<std::string> calls;  // "NAME PATH" per call, temporary names shown as "TEMP"
  int failAt = 0;                  // the call (counted from 1) that fails with EIO; 0: none
  unsigned long writeLimit = 0;    // the most one write takes; 0: no limit
  int interruptions = 0;           // the writes still to fail with EINTR
  bool fat = false;                // the FAT request succeeds whatever the file system
  std::function<void(const char*)> beforeCreate;  // runs before each exclusive create
  std::map<int, std::string> names;               // shown names of open descriptors
};

// The real C library, with every call an AtomicFile makes recorded and scriptable.
class ScriptedApi : public LinuxApi {
 public:
  explicit ScriptedApi(std::shared_ptr<Script> script) : script(std::move(script)) {}

 protected:
  int DoOpen(const char* path, int flags) override {
    return Opened(path, Call("open " + Shown(path), [&] { return LinuxApi::DoOpen(path, flags); }));
  }
  int DoOpen(const char* path, int flags, int mode) override {
    if ((flags & O_EXCL) != 0 && script->beforeCreate) {
      script->beforeCreate(path);
    }
    return Opened(
        path, Call("create " + Shown(path), [&] { return LinuxApi::DoOpen(path, flags, mode); }));
  }
  long DoWrite(int fd, const void* buffer, unsigned long count) override {
    return Call("write " + script->names[fd], [&] {
      if (script->interruptions > 0) {
        --script->interruptions;
        errno = EINTR;
        return -1L;
      }
      const unsigned long limit = script->writeLimit;
      return LinuxApi::DoWrite(fd, buffer, limit != 0 && count > limit ? limit : count);
    });
  }
  int DoFsync(int fd) override {
    return Call("fsync " + script->names[fd], [&] { return LinuxApi::DoFsync(fd); });
  }
  int DoClose(int fd) override {
    // Linux releases the descriptor also when close reports an error.
    const int result = LinuxApi::DoClose(fd);
    return Call("close " + script->names[fd], [result] { return result; });
  }
  using LinuxApi::DoIoctl;
  int DoIoctl(int fd, unsigned long request, char* argument) override {
    return Call("ioctl " + script->names[fd],
                [&] { return script->fat ? 0 : LinuxApi::DoIoctl(fd, request, argument); });
  }
  int DoRename(const char* from, const char* to) override {
    return Call("rename " + Shown(from) + " " + Shown(to),
                [&] { return LinuxApi::DoRename(from, to); });
  }
  int DoLstat(const char* path, struct stat* status) override {
    return Call("lstat " + Shown(path), [&] { return LinuxApi::DoLstat(path, status); });
  }

 private:
  std::string Shown(const std::string& path) const {
    static const std::regex temporary(".*/\\.[^/]+\\.[A-Za-z0-9]{6}");
    if (std::regex_match(path, temporary)) {
      return "TEMP";
    }
    return path == script->directory ? "DIR" : std::filesystem::path(path).filename().string();
  }
  template <typename Real>
  auto Call(const std::string& call, Real real) -> decltype(real()) {
    script->calls.push_back(call);
    if (static_cast<int>(script->calls.size()) == script->failAt) {
      errno = EIO;
      return -1;
    }
    return real();
  }
  int Opened(const char* path, int fd) {
    if (fd >= 0) {
      script->names[fd] = Shown(path);
    }
    return fd;
  }

  std::shared_ptr<Script> script;
};

class AtomicFileTest : public ::testing::Test {
 protected:
  AtomicFileTest() { script->directory = dir.Path() + "/"; }
  // A fresh script whose call failAt (0: none) fails, answering the FAT request as FAT if fat.
  void Reset(int failAt, bool fat) {
    *script = Script();
    script->directory = dir.Path() + "/";
    script->failAt = failAt;
    script->fat = fat;
    dir.WriteFile("settings", "old");
  }

  // Every entry of the test's directory: after a replacement only the target is left.
  std::vector<std::string> Entries() const { return ListTree(dir.Path()); }
  std::unique_ptr<LinuxApiIF> Api() const { return std::make_unique<ScriptedApi>(script); }
  std::vector<std::string> Texts() const {
    std::vector<std::string> texts;
    for (const LogRecord& record : capture.Records()) {
      texts.push_back(record.text);
    }
    return texts;
  }

  const TempDir dir;
  const std::string target = dir / "settings";
  const std::shared_ptr<Script> script = std::make_shared<Script>();
  const LogCapture capture;
};

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

// Whether the file system of path answers FAT's attribute request with ENOTTY, as every file
// system but FAT does on a kernel (qemu-user answers ENOSYS for requests it does not know).
bool AnswersNotFat(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::uint32_t attributes = 0;
  const bool notFat =
      fd >= 0 && ::ioctl(fd, FAT_IOCTL_GET_ATTRIBUTES, &attributes) != 0 && errno == ENOTTY;
  if (fd >= 0) {
    ::close(fd);
  }
  return notFat;
}

TEST_F(AtomicFileTest, ReplacesTheWholeContentWithEveryBufferSize) {
  const std::string block = Pattern(100000);
  for (const std::uint32_t bufferSize : {0U, 1U, 7U, 4096U, 65536U, 200000U}) {
    SCOPED_TRACE(bufferSize);
    // Longer than the new content: none of its tail may remain.
    dir.WriteFile("settings", std::string(300000, 'x'));
    AtomicFile file(target, nullptr, bufferSize);
    file << "alpha " << 42 << '\n';
    file.write(block.data(), static_cast<std::streamsize>(block.size()));
    file.put('!') << std::flush;
    EXPECT_EQ(ReadWholeFile(target), std::string(300000, 'x')) << "visible before Commit";
    ASSERT_TRUE(file.Commit());
    EXPECT_TRUE(ReadWholeFile(target) == "alpha 42\n" + block + "!");
    EXPECT_THAT(Entries(), ElementsAre("settings"));
  }
  EXPECT_THAT(Texts(), ElementsAre());

  // A new file whose name is as long as names get: the temporary name must still fit.
  const std::string fresh = dir / std::string(255, 'n');
  AtomicFile file(fresh);
  file.imbue(std::locale::classic());  // the stream's, though the buffer base declares one too
  EXPECT_EQ(file.getloc(), std::locale::classic());
  file << "created";
  ASSERT_TRUE(file.Commit());
  EXPECT_EQ(ReadWholeFile(fresh), "created");
}

// Output after Cancel or Commit fails (a fault sweep row); nothing is left behind and only the
// Commits that find nothing to commit record.
TEST_F(AtomicFileTest, CancelAndDestructionLeaveTheOldContentAndEndTheStream) {
  dir.WriteFile("settings", "old");
  {
    AtomicFile abandoned(target);
    abandoned << "new" << std::flush;
    EXPECT_EQ(ReadWholeFile(abandoned.TemporaryPath()), "new") << "not the file written to";
  }
  AtomicFile cancelled(target, nullptr, 4);
  cancelled << "ne";
  cancelled.Cancel();
  cancelled.Cancel();
  cancelled << "w";  // fits the buffer that was there: must fail anyway
  EXPECT_FALSE(cancelled.Commit());
  // Output the stream lost is never committed: a source that cannot be read inserts nothing and
  // sets failbit only.
  AtomicFile lost(target);
  std::ifstream unreadable(dir.Path());
  lost << unreadable.rdbuf();
  ASSERT_FALSE(lost.bad());
  EXPECT_FALSE(lost.Commit());
  EXPECT_EQ(ReadWholeFile(target), "old");
  EXPECT_THAT(Entries(), ElementsAre("settings"));

  AtomicFile committed(target);
  committed << "new";
  ASSERT_TRUE(committed.Commit());
  EXPECT_FALSE(committed.Commit());
  committed.Cancel();
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_THAT(Texts(),
              ElementsAre(HasSubstr("nothing to commit"), HasSubstr("the stream has failed"),
                          HasSubstr("nothing to commit")));
}

TEST_F(AtomicFileTest, KeepsOwnerGroupAndModeWhereItMayAndTheSetIdBitsOnlyThen) {
  if (OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT keeps no owners and no permission bits";
  }
  constexpr uid_t kUser = kUnprivilegedId;  // replaces as itself where unprivileged is set
  constexpr uid_t kOther = 4321;            // a user, and a group kUser belongs to
  // The unprivileged user's directory; link points to a root program elsewhere.
  const std::string home = dir.MakeDir("home");
  ASSERT_EQ(::chown(home.c_str(), kUser, kUser), 0);
  const std::string settings = home + "/settings";
  const std::string program = dir.WriteFile("program", "root's");
  ASSERT_EQ(::chmod(program.c_str(), 04755), 0);
  // Owner, group and mode before; whether kUser replaces it, whether it is a link to program;
  // owner, group and mode after.
  using Case = std::tuple<uid_t, gid_t, mode_t, bool, bool, uid_t, gid_t, mode_t>;
  for (const auto& [owner, group, mode, unprivileged, link, wantOwner, wantGroup, wantMode] :
       {Case{0, 0, 0666, false, false, 0, 0, 0666},
        Case{kUser, kUser, 04755, false, false, kUser, kUser, 04755},
        Case{kUser, kOther, 02750, false, false, kUser, kOther, 02750},
        Case{kUser, kUser, 06755, true, false, kUser, kUser, 06755},
        Case{kUser, 0, 06755, true, false, kUser, kUser, 0755},
        Case{kOther, kOther, 04755, true, false, kUser, kOther, 0755},
        Case{0, 0, 04755, false, true, 0, 0, 0755}}) {
    SCOPED_TRACE(::testing::Message()
                 << std::oct << mode << std::dec << " " << owner << ":" << group
                 << (unprivileged ? " unprivileged" : "") << (link ? " link" : ""));
    std::filesystem::remove(settings);
    if (link) {
      std::filesystem::create_symlink(program, settings);
    } else {
      dir.WriteFile("home/settings", "old");
      ASSERT_EQ(::chown(settings.c_str(), owner, group), 0);
      ASSERT_EQ(::chmod(settings.c_str(), mode), 0);
    }
    const auto replace = [&] {
      AtomicFile file(settings);
      file << "new";
      return file.Commit();
    };
    // As kUser in its own group and kOther's.
    const gid_t groups[] = {kOther};
    EXPECT_EQ(unprivileged ? RunInChild([&] {
                return ::setgroups(1, groups) == 0 && ::setgid(kUser) == 0 &&
                       ::setuid(kUser) == 0 && replace();
              })
                           : (replace() ? 0 : 1),
              0);
    struct stat status {};
    ASSERT_EQ(::lstat(settings.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, wantOwner);
    EXPECT_EQ(status.st_gid, wantGroup);
    EXPECT_EQ(status.st_mode & 07777, wantMode);
    EXPECT_EQ(ReadWholeFile(settings), "new");
  }
  EXPECT_EQ(ReadWholeFile(program), "root's");
  EXPECT_EQ(ModeOf(program), 04755U);
  // The unprivileged replacements record in their own processes.
  EXPECT_THAT(Texts(), ElementsAre(HasSubstr("are not kept: it is a symbolic link")));

  const mode_t mask = ::umask(0);
  ::umask(mask);
  AtomicFile file(dir / "new");
  ASSERT_TRUE(file.Commit());
  EXPECT_EQ(ModeOf(dir / "new"), 0644U & ~mask);
}

TEST_F(AtomicFileTest, RefusesPathsItCannotReplaceWithARecord) {
  const std::string sub = dir.MakeDir("sub");
  EXPECT_THROW(AtomicFile(""), std::invalid_argument);
  EXPECT_THROW(AtomicFile{sub}, std::invalid_argument);
  EXPECT_THROW(AtomicFile(dir / "missing/"), std::invalid_argument);
  EXPECT_THROW(AtomicFile(dir / "missing/settings"), std::ios_base::failure);
  EXPECT_THAT(
      capture.Records(),
      ElementsAre(IsRecord("common/lib/FileSystem/src/AtomicFile.cpp", "Impl", LogLevel::Error,
                           LogCategory::FileSystem, HasSubstr("empty path")),
                  ::testing::Field(&LogRecord::text, HasSubstr(sub + ": it is a directory")),
                  ::testing::Field(&LogRecord::text, HasSubstr("it is a directory")),
                  ::testing::Field(&LogRecord::text, HasSubstr("No such file or directory"))));
  EXPECT_THAT(Entries(), ElementsAre("sub"));
  if (OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no named pipes";
  }
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0644), 0);
  EXPECT_THROW(AtomicFile(dir / "pipe"), std::invalid_argument);
  EXPECT_THAT(capture.Records().back().text, HasSubstr("not a regular file"));
  EXPECT_THAT(Entries(), ElementsAre("pipe", "sub"));
}

TEST_F(AtomicFileTest, APlantedLinkAtTheTemporaryNameIsNotFollowed) {
  if (OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no symbolic links";
  }
  dir.WriteFile("settings", "old");
  const std::string victim = dir.WriteFile("victim", "untouched");
  std::string planted;
  script->beforeCreate = [&](const char* path) {
    if (planted.empty()) {
      planted = path;
      std::filesystem::create_symlink(victim, planted);
    }
  };
  AtomicFile file(target, Api());
  file << "new";
  ASSERT_TRUE(file.Commit());
  EXPECT_EQ(ReadWholeFile(target), "new");
  EXPECT_EQ(ReadWholeFile(victim), "untouched");
  EXPECT_TRUE(std::filesystem::is_symlink(planted)) << "someone else's entry was removed";
  EXPECT_EQ(std::count(script->calls.begin(), script->calls.end(), "create TEMP"), 2);
}

TEST_F(AtomicFileTest, AFullFileSystemFailsTheStreamAndKeepsTheOldContent) {
  const ScratchFileSystem small(dir / "small", "size=64k");
  ASSERT_EQ(small.Failure(), "");
  const std::string settings = dir.WriteFile("small/settings", "old");
  const std::string block = Pattern(1 << 20);
  AtomicFile file(settings);
  file.write(block.data(), static_cast<std::streamsize>(block.size()));
  EXPECT_TRUE(file.bad());
  EXPECT_FALSE(file.Commit());
  EXPECT_EQ(ReadWholeFile(settings), "old");
  EXPECT_THAT(ListTree(small.MountPoint()), ElementsAre("settings"));
  EXPECT_THAT(Texts(), ElementsAre(AllOf(HasSubstr("failed on write to"),
                                         HasSubstr("No space left on device"),
                                         HasSubstr("keeps its old content")),
                                   HasSubstr("nothing to commit")));
}

// On FAT the file is synced under its new name too, before the directory; a FAT request that
// fails otherwise than "not FAT" is taken for FAT. Every other failing call of a replacement is
// the fault sweep's: here, the steps only FAT takes, which fail with the new content in place.
TEST_F(AtomicFileTest, CommitWritesEverythingThenFsyncsTheFileBeforeTheRenameAndTheDirAfter) {
  const std::vector<std::string> fatSteps = {"open settings", "fsync settings", "close settings"};
  for (const auto& [fat, failAt] :
       {std::pair{false, 0}, {true, 0}, {false, 12}, {true, 15}, {true, 16}, {true, 17}}) {
    SCOPED_TRACE(::testing::Message() << (fat ? "FAT, " : "here, ") << "failing call " << failAt);
    Reset(failAt, fat);
    const LogCapture records;
    script->writeLimit = 3;
    script->interruptions = 1;
    AtomicFile file(target, Api(), 8);
    file << "0123456789abcdefghij";
    EXPECT_EQ(file.Commit(), failAt <= 12);
    EXPECT_EQ(ReadWholeFile(target), "0123456789abcdefghij");
    EXPECT_THAT(Entries(), ElementsAre("settings"));
    std::vector<std::string> expected = {
        "lstat settings", "create TEMP", "write TEMP", "write TEMP",          "write TEMP",
        "write TEMP",     "write TEMP",  "write TEMP", "write TEMP",          "write TEMP",
        "fsync TEMP",     "ioctl TEMP",  "close TEMP", "rename TEMP settings"};
    if (failAt > 12) {
      ASSERT_GE(script->calls.size(), static_cast<std::size_t>(failAt));
      EXPECT_EQ(script->calls[failAt - 1], fatSteps[failAt - 15]);
      EXPECT_THAT(Described(records.Records()),
                  ElementsAre(AllOf(HasSubstr("Input/output error"),
                                    HasSubstr("in place but its durability is not "
                                              "confirmed"))));
      continue;
    }
    if (fat || failAt == 12 || !AnswersNotFat(target)) {
      expected.insert(expected.end(), fatSteps.begin(), fatSteps.end());
    }
    expected.insert(expected.end(), {"open DIR", "fsync DIR", "close DIR"});
    EXPECT_EQ(script->calls, expected);
    EXPECT_THAT(records.Records(), ::testing::IsEmpty());
  }
}

}  // namespace
}  // namespace drn
