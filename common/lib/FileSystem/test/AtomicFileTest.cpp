// AtomicFile on real files: what a replacement leaves behind on success, on cancel and on a
// failure, the order of its durability steps per kind of file system, and the paths it refuses.
#include <dlfcn.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <locale>
#include <map>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "AtomicFile.h"
#include "FileTestSupport.h"
#include "LinuxApi.h"

// The file system type the library's fstatfs reports in this process: 0 the real one, -1 a
// failure (ENOSYS). The test binary's definition stands in front of the C library's.
long fakedFileSystem = 0;

extern "C" int fstatfs(int fd, struct statfs* buffer) noexcept {
  static const auto next =
      reinterpret_cast<int (*)(int, struct statfs*)>(::dlsym(RTLD_NEXT, "fstatfs"));
  if (fakedFileSystem < 0) {
    errno = ENOSYS;
    return -1;
  }
  const int result = next(fd, buffer);
  if (result == 0 && fakedFileSystem != 0) {
    buffer->f_type = fakedFileSystem;
  }
  return result;
}

namespace drn {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using namespace drn::testing;

// What a ScriptedApi saw, and what it does.
struct Script {
  std::vector<std::string> calls;  // "NAME PATH", the temporary file as "TEMP", the directory "DIR"
  std::map<int, std::string> names;               // shown names of open descriptors
  unsigned long writeLimit = ~0UL;                // the most one write takes
  std::function<void(const char*)> beforeCreate;  // runs before each exclusive create
};

// The real C library, with every call an AtomicFile makes through it recorded. An open of the
// path itself (O_PATH) is shown as "hold NAME", its descriptor as "held NAME".
class ScriptedApi : public LinuxApi {
 public:
  explicit ScriptedApi(std::shared_ptr<Script> script) : script(std::move(script)) {}

 protected:
  int DoOpen(const char* path, int flags) override {
    const std::string held = (flags & O_PATH) != 0 ? "held " : "";
    Seen(held.empty() ? "open " : "hold ", path);
    return Opened(held + Shown(path), LinuxApi::DoOpen(path, flags));
  }
  int DoOpen(const char* path, int flags, int mode) override {
    if (script->beforeCreate) {
      script->beforeCreate(path);
    }
    Seen("create ", path);
    return Opened(Shown(path), LinuxApi::DoOpen(path, flags, mode));
  }
  long DoWrite(int fd, const void* buffer, unsigned long count) override {
    script->calls.push_back("write " + script->names[fd]);
    return LinuxApi::DoWrite(fd, buffer, std::min(count, script->writeLimit));
  }
  int DoFsync(int fd) override {
    script->calls.push_back("fsync " + script->names[fd]);
    return LinuxApi::DoFsync(fd);
  }
  int DoClose(int fd) override {
    script->calls.push_back("close " + script->names[fd]);
    return LinuxApi::DoClose(fd);
  }
  int DoRename(const char* from, const char* to) override {
    Seen("rename " + Shown(from) + " ", to);
    return LinuxApi::DoRename(from, to);
  }

 private:
  static std::string Shown(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    return name.empty() ? "DIR" : name[0] == '.' ? "TEMP" : name;
  }
  void Seen(const std::string& call, const char* path) {
    script->calls.push_back(call + Shown(path));
  }
  int Opened(const std::string& name, int fd) {
    script->names[fd] = name;
    return fd;
  }

  std::shared_ptr<Script> script;
};

class AtomicFileTest : public ::testing::Test {
 protected:
  ~AtomicFileTest() override { fakedFileSystem = 0; }

  std::vector<std::string> Entries() const { return ListTree(dir.Path()); }
  std::unique_ptr<LinuxApiIF> Api() const { return std::make_unique<ScriptedApi>(script); }

  const TempDir dir;
  const std::string target = dir / "settings";
  const std::shared_ptr<Script> script = std::make_shared<Script>();
  const LogCapture capture;
};

mode_t ModeOf(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

TEST_F(AtomicFileTest, ReplacesTheWholeContentOfAnExistingOrANewFile) {
  // A name as long as names get (the temporary name must still fit), on content longer than
  // the new one (none of its tail may remain).
  const std::string longest = std::string(255, 'n');
  const std::string path = dir.WriteFile(longest, std::string(300000, 'x'));
  const std::string block = Pattern(100000);
  AtomicFile file(path, nullptr, 7);
  file.imbue(std::locale::classic());  // the stream's, though the buffer base declares one too
  EXPECT_EQ(file.getloc(), std::locale::classic());
  file << "alpha " << 42 << '\n';
  file.write(block.data(), static_cast<std::streamsize>(block.size()));
  file.put('!') << std::flush;
  EXPECT_EQ(ReadWholeFile(path), std::string(300000, 'x')) << "visible before Commit";
  ASSERT_TRUE(file.Commit());
  EXPECT_TRUE(ReadWholeFile(path) == "alpha 42\n" + block + "!");
  // A new file on FAT: there is no old content to hold.
  fakedFileSystem = MSDOS_SUPER_MAGIC;
  AtomicFile fresh(target);
  fresh << "created";
  ASSERT_TRUE(fresh.Commit());
  EXPECT_EQ(ReadWholeFile(target), "created");
  EXPECT_THAT(Entries(), ElementsAre(longest, "settings"));
  EXPECT_TRUE(capture.Records().empty());
}

// Output after Cancel or Commit fails; nothing is left behind and only the Commits that find
// nothing to commit record.
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
  // A source that cannot be read inserts nothing and sets failbit only: never committed.
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
  EXPECT_THAT(Described(capture.Records()),
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
        Case{kUser, kOther, 02750, false, false, kUser, kOther, 02750},
        Case{kUser, kUser, 06755, true, false, kUser, kUser, 06755},
        Case{kUser, 0, 06755, true, false, kUser, kUser, 0755},
        Case{kOther, kOther, 04755, true, false, kUser, kOther, 0755},
        Case{0, 0, 04755, false, true, 0, 0, 0755}}) {
    SCOPED_TRACE(::testing::PrintToString(std::make_tuple(owner, group, mode, unprivileged, link)));
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
    EXPECT_EQ(std::make_tuple(status.st_uid, status.st_gid, status.st_mode & 07777),
              std::make_tuple(wantOwner, wantGroup, wantMode));
    EXPECT_EQ(ReadWholeFile(settings), "new");
  }
  EXPECT_EQ(ReadWholeFile(program), "root's");
  EXPECT_EQ(ModeOf(program), 04755U);
  // The unprivileged replacements record in their own processes.
  EXPECT_THAT(Described(capture.Records()),
              ElementsAre(HasSubstr("are not kept: it is a symbolic link")));

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
  EXPECT_THAT(Described(capture.Records()),
              ElementsAre("Impl 3/0x8010: cannot replace a file with an empty path",
                          "Impl 3/0x8010: cannot replace " + sub + ": it is a directory",
                          HasSubstr("missing/: it is a directory"),
                          HasSubstr("missing/settings: No such file or directory")));
  if (OnFat(dir.Path())) {
    GTEST_SKIP() << "FAT has no named pipes";
  }
  ASSERT_EQ(::mkfifo((dir / "pipe").c_str(), 0644), 0);
  EXPECT_THROW(AtomicFile(dir / "pipe"), std::invalid_argument);
  EXPECT_THAT(capture.Records().back().text, HasSubstr("not a regular file"));
  EXPECT_THAT(Entries(), ElementsAre("pipe", "sub"));
}

// The durability steps on a file system of each kind: where the directory's journal carries
// the rename (ext4, XFS, Btrfs), fsync, rename and the directory's fsync. Everywhere else the
// old content is held from before the rename until the directory is synced, and the file is
// synced under its new name before the directory. Their failures are the fault sweep's.
struct Kind {
  const char* name;
  long type;  // what fstatfs answers; -1: it fails
  bool careful;
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

class AtomicFileStepsTest : public AtomicFileTest, public ::testing::WithParamInterface<Kind> {};

TEST_P(AtomicFileStepsTest, CommitSyncsTheFileRenamesItAndSyncsTheDirectoryInOrder) {
  fakedFileSystem = GetParam().type;
  dir.WriteFile("settings", "old");
  std::string planted;  // someone else's file at the first temporary name drawn: never touched
  script->beforeCreate = [&planted](const char* path) {
    if (planted.empty()) {
      std::ofstream(planted = path) << "someone else's";
    }
  };
  script->writeLimit = 3;
  AtomicFile file(target, Api(), 8);
  file << "0123456789abcdefghij";
  ASSERT_TRUE(file.Commit());
  EXPECT_EQ(ReadWholeFile(target), "0123456789abcdefghij");
  EXPECT_EQ(ReadWholeFile(planted), "someone else's");
  EXPECT_EQ(Entries().size(), 2U);
  // The calls only the careful take are those naming settings, but for the rename.
  std::vector<std::string> expected = {"create TEMP", "create TEMP"};
  expected.insert(expected.end(), 7, "write TEMP");
  for (const std::string call :
       {"fsync TEMP", "close TEMP", "hold settings", "rename TEMP settings", "open settings",
        "fsync settings", "close settings", "open DIR", "fsync DIR", "close DIR",
        "close held settings"}) {
    if (GetParam().careful || call.rfind(" settings") == std::string::npos || call[0] == 'r') {
      expected.push_back(call);
    }
  }
  EXPECT_EQ(script->calls, expected);
  EXPECT_TRUE(capture.Records().empty());
}

INSTANTIATE_TEST_SUITE_P(
    FileSystems, AtomicFileStepsTest,
    ::testing::Values(Kind{"ext4", EXT4_SUPER_MAGIC, false}, Kind{"xfs", XFS_SUPER_MAGIC, false},
                      Kind{"btrfs", BTRFS_SUPER_MAGIC, false},
                      Kind{"vfat", MSDOS_SUPER_MAGIC, true}, Kind{"exfat", EXFAT_SUPER_MAGIC, true},
                      Kind{"tmpfs", TMPFS_MAGIC, true}, Kind{"unknown", -1, true}),
    [](const ::testing::TestParamInfo<Kind>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace drn
