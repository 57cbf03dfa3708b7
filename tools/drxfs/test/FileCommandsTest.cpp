// drxfs path, touch, truncate, size, cat and write on real files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>

#include "Path.h"
#include "RunDrxfs.h"

namespace drn {
namespace {

using testing::DrxfsFailureCase;
using testing::DrxfsResult;
using testing::ReadWholeFile;
using testing::RunDrxfs;
using testing::TempDir;

TEST(DrxfsPathTest, ReportsWhatThePathSays) {
  const TempDir dir;
  const std::string logs = dir.MakeDir("logs");
  const DrxfsResult text = RunDrxfs({"path", logs});
  EXPECT_EQ(text.status, 0);
  EXPECT_EQ(text.out, logs + ": exists=yes directory=yes basename=\"logs\"\n");

  const DrxfsResult json = RunDrxfs({"path", "--json", dir / "missing.txt"});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  EXPECT_EQ(parsed.at("path"), dir / "missing.txt");
  EXPECT_EQ(parsed.at("exists"), false);
  EXPECT_EQ(parsed.at("directory"), false);
  EXPECT_EQ(parsed.at("basename"), "missing.txt");
}

TEST(DrxfsFileTest, TouchKeepsAndTruncateEmpties) {
  const TempDir dir;
  const std::string file = dir / "f";
  EXPECT_EQ(RunDrxfs({"touch", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");
  dir.WriteFile("f", "contents");
  const DrxfsResult touched = RunDrxfs({"touch", file});
  EXPECT_EQ(touched.status, 0);
  EXPECT_EQ(touched.out + touched.err, "");
  EXPECT_EQ(ReadWholeFile(file), "contents");
  EXPECT_EQ(RunDrxfs({"truncate", file}).status, 0);
  EXPECT_EQ(ReadWholeFile(file), "");
}

struct SizeCase {
  off_t bytes;
  const char* human;
};

void PrintTo(const SizeCase& value, std::ostream* os) {
  *os << value.bytes;
}

class DrxfsSizeTest : public ::testing::TestWithParam<SizeCase> {};

TEST_P(DrxfsSizeTest, PrintsBytesHumanUnitsAndJson) {
  const TempDir dir;
  const std::string file = dir.WriteFile("f", "");
  ASSERT_EQ(::truncate(file.c_str(), GetParam().bytes), 0);  // sparse: large sizes cost nothing
  const std::string bytes = std::to_string(GetParam().bytes);

  EXPECT_EQ(RunDrxfs({"size", file}).out, bytes + "\n");
  EXPECT_EQ(RunDrxfs({"size", "-h", file}).out, std::string(GetParam().human) + "\n");
  const DrxfsResult json = RunDrxfs({"size", "--json", file});
  ASSERT_EQ(json.status, 0) << json.err;
  const auto parsed = nlohmann::json::parse(json.out);
  EXPECT_EQ(parsed.at("bytes").get<off_t>(), GetParam().bytes);
  EXPECT_EQ(parsed.at("path"), file);
}

INSTANTIATE_TEST_SUITE_P(Sizes, DrxfsSizeTest,
                         ::testing::Values(SizeCase{0, "0 B"}, SizeCase{1023, "1023 B"},
                                           SizeCase{1536, "1.5 KiB"}, SizeCase{1048575, "1.0 MiB"},
                                           SizeCase{5LL << 30, "5.0 GiB"}),
                         [](const auto& info) {
                           return std::to_string(info.param.bytes) + "Bytes";
                         });

// Every byte value, over several 64 KiB blocks and a partial one.
std::string BinaryContent() {
  std::string content(200000, '\0');
  for (std::size_t i = 0; i < content.size(); ++i) {
    content[i] = static_cast<char>((i * 7 + i / 256) % 256);
  }
  return content;
}

TEST(DrxfsCatTest, CopiesEveryByte) {
  const TempDir dir;
  const std::string content = BinaryContent();
  const DrxfsResult result = RunDrxfs({"cat", dir.WriteFile("f", content)});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(result.out == content) << "different output of " << result.out.size() << " bytes";
  EXPECT_EQ(RunDrxfs({"cat", dir.WriteFile("empty", "")}).out, "");
}

TEST(DrxfsWriteTest, WritesFromTheFirstByteAndKeepsWhatLiesBeyond) {
  const TempDir dir;
  const std::string small = dir.WriteFile("small", "0123456789");
  EXPECT_EQ(RunDrxfs({"write", small}, "ab").status, 0);
  EXPECT_EQ(ReadWholeFile(small), "ab23456789");

  const std::string content = BinaryContent();
  const std::string big = dir.WriteFile("big", "");
  const DrxfsResult result = RunDrxfs({"write", big}, content);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(ReadWholeFile(big) == content);

  EXPECT_EQ(RunDrxfs({"write", dir / "missing"}, "x").status, 1);
  EXPECT_FALSE(Path(dir / "missing").Exists());
}

class DrxfsFileFailureTest : public ::testing::TestWithParam<DrxfsFailureCase> {};

TEST_P(DrxfsFileFailureTest, FailsWithOneLineNamingPathAndReason) {
  const TempDir dir;
  dir.MakeDir("sub");
  testing::ExpectFailureCase(dir, GetParam());
}

INSTANTIATE_TEST_SUITE_P(
    Commands, DrxfsFileFailureTest,
    ::testing::Values(
        DrxfsFailureCase{"SizeOfMissing", {"size", "@/missing"}, "No such file"},
        DrxfsFailureCase{"SizeOfDirectory", {"size", "@/sub"}, "Is a directory"},
        DrxfsFailureCase{"TouchInMissingDirectory", {"touch", "@/no/f"}, "No such file"},
        DrxfsFailureCase{"TruncateDirectory", {"truncate", "@/sub"}, "Is a directory"},
        DrxfsFailureCase{"CatOfDirectory", {"cat", "@/sub"}, "Is a directory"},
        DrxfsFailureCase{"WriteToMissing", {"write", "@/missing"}, "No such file"},
        // Reading address 0 of the process fails: a read error is not an end of file.
        DrxfsFailureCase{"CatReadError", {"cat", "/proc/self/mem"}, "Input/output error"},
        DrxfsFailureCase{"WriteError", {"write", "/dev/full"}, "No space left"}),
    testing::FailureCaseName);

}  // namespace
}  // namespace drn
