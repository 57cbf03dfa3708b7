// AtomicUntar on a small real file system: the order of its durable steps on each kind of file
// system, refusals that write nothing, and the tidying of every state a cut can leave.
#include "AtomicUntar.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/magic.h>
#include <sys/statvfs.h>

#include <cstdlib>
#include <map>

#include "LinuxApi.h"
#include "Path.h"
#include "ScratchFileSystem.h"
#include "SystemCallWrapper.h"
#include "TestHelpers.h"

namespace drn {
namespace {

using namespace drn::testing;
using ::testing::HasSubstr;

constexpr long kExfatMagic = 0x2011BAB0;

// The "version" file of the tree at path, or "-" when there is no tree there.
std::string Version(const std::string& path) {
  return std::filesystem::exists(path) ? ReadWholeFile(path + "/version") : "-";
}

// A SystemCallWrapper whose statfs tells the file-system type magic (0: the real one).
class FileSystemType : public SystemCallWrapper {
 public:
  explicit FileSystemType(long magic) : magic(magic) {}
  int statfs(const char* path, struct statfs* buffer) override {
    const int result = SystemCallWrapper::statfs(path, buffer);
    if (result == 0 && magic != 0) {
      buffer->f_type = magic;
    }
    return result;
  }

 private:
  long magic;
};

// One durable or naming step, with the version the destination held when it was made.
struct Step {
  std::string call;
  std::string path;
  std::string destination;
};

// The real C library, recording each sync, rename and removal.
class RecordingApi : public LinuxApi {
 public:
  RecordingApi(std::string destination, std::vector<Step>& steps)
      : destination(std::move(destination)), steps(steps) {}

 protected:
  using LinuxApi::DoOpen;
  int DoOpen(const char* path, int flags) override {
    const int fd = LinuxApi::DoOpen(path, flags);
    names[fd] = path;
    return fd;
  }
  int DoFsync(int fd) override { return Note("fsync", names[fd], LinuxApi::DoFsync(fd)); }
  int DoSyncFs(int fd) override { return Note("syncfs", names[fd], LinuxApi::DoSyncFs(fd)); }
  int DoRename(const char* from, const char* to) override {
    return Note("rename", from, LinuxApi::DoRename(from, to));
  }
  int DoRemove(const char* path) override { return Note("remove", path, LinuxApi::DoRemove(path)); }

 private:
  int Note(const std::string& call, const std::string& path, int result) {
    steps.push_back({call, path, Version(destination)});
    return result;
  }
  std::string destination;
  std::vector<Step>& steps;
  std::map<int, std::string> names;
};

class AtomicUntarTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!card.Failure().empty()) {
      GTEST_SKIP() << card.Failure();
    }
    dir.WriteFile("new/version", "new");
    dir.WriteFile("new/sub/data", "new data");
    dir.WriteFile("big/version", "big");
    dir.WriteFile("big/zeros", std::string(2u << 20U, '\0'));
    dir.WriteFile("bad.tar", "not an archive");
    for (const char* tree : {"new", "big"}) {
      const std::string make = "tar -cf '" + (dir / tree) + ".tar' -C '" + (dir / tree) + "' .";
      ASSERT_EQ(std::system(make.c_str()), 0);
    }
    WriteTree("app", "old");
  }
  // A tree at name on the card; without a version file when version is empty (a partial tree).
  void WriteTree(const std::string& name, const std::string& version) const {
    std::filesystem::create_directories(card / name + "/sub");
    std::ofstream(card / name + "/sub/data") << "data of " << version;
    if (!version.empty()) {
      std::ofstream(card / name + "/version") << version;
    }
  }
  AtomicUntar Make(const std::string& archive, std::unique_ptr<LinuxApiIF> api = nullptr,
                   long magic = 0) const {
    return AtomicUntar(std::make_shared<Path>(dir / archive), nullptr, std::move(api),
                       std::make_shared<FileSystemType>(magic));
  }

  const LogCapture log;
  const TempDir dir;
  const ScratchFileSystem card{dir / "card", "size=1m"};
  const std::string app = card / "app";
};

// Each kind of file system: its durable steps, then the swap, each made durable before the
// next step relies on it.
class AtomicUntarOrderTest : public AtomicUntarTest, public ::testing::WithParamInterface<long> {};

TEST_P(AtomicUntarOrderTest, MakesEachStepDurableBeforeTheNext) {
  std::vector<Step> steps;
  ASSERT_TRUE(Make("new.tar", std::make_unique<RecordingApi>(app, steps), GetParam()).Install(app));
  EXPECT_EQ(Version(app), "new");
  EXPECT_THAT(ListTree(card.MountPoint()),
              ::testing::ElementsAre("app", "app/sub", "app/sub/data", "app/version"));
  std::vector<std::string> synced;
  std::string held = "old";
  bool parentSynced = false;
  for (const Step& step : steps) {
    if (step.destination != held) {
      EXPECT_TRUE(parentSynced) << "the destination became " << step.destination
                                << " before the directory was synced";
      held = step.destination;
      parentSynced = false;
    }
    const bool parent = step.path == card.MountPoint();
    if (step.call == "syncfs" || (step.call == "fsync" && !parent)) {
      synced.push_back(step.call + step.path.substr(step.path.find(".install-") + 15));
      parentSynced = false;
    }
    parentSynced = parentSynced || (step.call == "fsync" && parent);
    if (step.call == "remove") {
      EXPECT_TRUE(held == "new" && parentSynced) << "removed " << step.path << " too early";
    }
  }
  EXPECT_EQ(held, "new");
  if (GetParam() == 0) {
    EXPECT_THAT(synced, ::testing::ElementsAre("syncfs"));
  } else {
    EXPECT_THAT(synced, ::testing::UnorderedElementsAre("fsync/sub/data", "fsync/sub",
                                                        "fsync/version", "fsync"));
    EXPECT_EQ(synced.back(), "fsync");
    EXPECT_LT(std::find(synced.begin(), synced.end(), "fsync/sub/data") - synced.begin(),
              std::find(synced.begin(), synced.end(), "fsync/sub") - synced.begin());
  }
}

INSTANTIATE_TEST_SUITE_P(FileSystems, AtomicUntarOrderTest,
                         ::testing::Values(0L, long{MSDOS_SUPER_MAGIC}, kExfatMagic),
                         [](const auto& info) {
                           return info.param == 0             ? "Journalled"
                                  : info.param == kExfatMagic ? "Exfat"
                                                              : "Fat";
                         });

// Archives and destinations refused: nothing on the card changes.
struct Refusal {
  const char* name;
  const char* archive;
  const char* destination;
  int error;
  const char* record;  // a regular expression
};

void PrintTo(const Refusal& refusal, std::ostream* out) {
  *out << refusal.name;
}

class AtomicUntarRefusalTest : public AtomicUntarTest,
                               public ::testing::WithParamInterface<Refusal> {};

TEST_P(AtomicUntarRefusalTest, ChangesNothing) {
  std::ofstream(card / "file") << "a file";
  const std::vector<std::string> before = ListTree(card.MountPoint());
  struct statvfs space {};
  ASSERT_EQ(::statvfs(app.c_str(), &space), 0);
  const auto freeBefore = space.f_bfree;
  errno = 0;
  EXPECT_FALSE(Make(GetParam().archive).Install(card / GetParam().destination));
  EXPECT_EQ(errno, GetParam().error);
  EXPECT_EQ(ListTree(card.MountPoint()), before);
  EXPECT_EQ(Version(app), "old");
  ASSERT_EQ(::statvfs(app.c_str(), &space), 0);
  EXPECT_EQ(space.f_bfree, freeBefore);
  ASSERT_FALSE(log.Records().empty());
  EXPECT_EQ(log.Records().back().level, LogLevel::Error);
  EXPECT_THAT(log.Records().back().text, ::testing::ContainsRegex(GetParam().record));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, AtomicUntarRefusalTest,
    ::testing::Values(
        // 2 MiB of zeros, "./" and "version", each rounded to 4 KiB, plus 4 KiB each.
        Refusal{"TooBig", "big.tar", "app", ENOSPC,
                "it needs 2113536 bytes but .*/card has 10[0-9]{5} bytes free"},
        Refusal{"NotAnArchive", "bad.tar", "app", EIO, "listing the archive \\(tar status 2\\)"},
        Refusal{"OntoAFile", "new.tar", "file", ENOTDIR, "/card/file is not a directory"}),
    [](const auto& info) { return std::string(info.param.name); });

// What a cut leaves (trees by name and version, "" for a partial one), and what Recover, and
// every Install before it starts, makes of it.
struct Leftover {
  const char* name;
  std::vector<std::pair<std::string, std::string>> trees;
  std::string version;
  std::vector<std::string> left;
};

void PrintTo(const Leftover& leftover, std::ostream* out) {
  *out << leftover.name;
}

class AtomicUntarRecoveryTest : public AtomicUntarTest,
                                public ::testing::WithParamInterface<std::tuple<Leftover, bool>> {};

TEST_P(AtomicUntarRecoveryTest, LeavesOneCompleteTree) {
  const auto& [leftover, byInstall] = GetParam();
  std::filesystem::remove_all(app);
  for (const auto& [name, version] : leftover.trees) {
    WriteTree(name, version);
  }
  // An install that fails after tidying: its archive is no archive.
  EXPECT_EQ(byInstall ? Make("bad.tar").Install(app) : Make("new.tar").Recover(app), !byInstall);
  EXPECT_EQ(Version(app), leftover.version);
  std::vector<std::string> top;
  for (const auto& entry : std::filesystem::directory_iterator(card.MountPoint())) {
    top.push_back(entry.path().filename());
  }
  EXPECT_THAT(top, ::testing::UnorderedElementsAreArray(leftover.left));
}

INSTANTIATE_TEST_SUITE_P(
    Cuts, AtomicUntarRecoveryTest,
    ::testing::Combine(
        ::testing::Values(
            Leftover{
                "WhileExtracting", {{"app", "old"}, {".app.install-a1b2c3", ""}}, "old", {"app"}},
            Leftover{"BetweenRenames",
                     {{".app.old-a1b2c3", "old"}, {".app.install-a1b2c3", "new"}},
                     "old",
                     {"app"}},
            Leftover{
                "AfterExchange", {{"app", "new"}, {".app.install-a1b2c3", ""}}, "new", {"app"}},
            Leftover{"WhileRemovingOld", {{"app", "new"}, {".app.old-a1b2c3", ""}}, "new", {"app"}},
            Leftover{"FirstInstall", {{".app.install-a1b2c3", ""}}, "-", {}},
            Leftover{"OthersKept",
                     {{"app", "old"}, {".apps.install-a1b2c3", "x"}, {".b.old-a1b2c3", "x"}},
                     "old",
                     {"app", ".apps.install-a1b2c3", ".b.old-a1b2c3"}}),
        ::testing::Bool()),
    [](const auto& info) {
      return std::string(std::get<0>(info.param).name) +
             (std::get<1>(info.param) ? "ByInstall" : "ByRecover");
    });

}  // namespace
}  // namespace drn
