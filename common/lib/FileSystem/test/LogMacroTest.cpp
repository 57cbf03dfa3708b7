// The library's record macro: filter first, then a record with file, function, line and category.
#include <gtest/gtest.h>

#include <string>

#include "Log.h"
#include "TestHelpers.h"

namespace drn {
namespace {

int formatted = 0;

std::string Expensive() {
  ++formatted;
  return "text";
}

TEST(LogMacroTest, DisabledLevelBuildsNothing) {
  std::vector<LogLevel> asked;
  const testing::LogCapture capture([&asked](LogLevel level) {
    asked.push_back(level);
    return false;
  });
  formatted = 0;
  DRN_LOG(LogLevel::Error, LogCategory::FileSystem) << Expensive();
  EXPECT_EQ(formatted, 0);
  EXPECT_TRUE(capture.Records().empty());
  EXPECT_EQ(asked, std::vector<LogLevel>{LogLevel::Error});
}

TEST(LogMacroTest, EnabledLevelMakesOneRecord) {
  const testing::LogCapture capture;
  const int line = __LINE__ + 1;
  DRN_LOG(LogLevel::Debug, LogCategory::Tar) << "value " << Expensive();
  const std::vector<LogRecord> records = capture.Records();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0].file, "common/lib/FileSystem/test/LogMacroTest.cpp");
  EXPECT_EQ(records[0].function, "TestBody");
  EXPECT_EQ(records[0].line, line);
  EXPECT_EQ(records[0].level, LogLevel::Debug);
  EXPECT_EQ(records[0].category, LogCategory::Tar);
  EXPECT_EQ(records[0].text, "value text");
}

TEST(LogMacroTest, SafeInUnbracedIfElse) {
  const testing::LogCapture capture;
  const bool condition = false;
  if (condition)
    DRN_LOG(LogLevel::Error, LogCategory::FileSystem) << "then";
  else
    DRN_LOG(LogLevel::Error, LogCategory::FileSystem) << "else";
  ASSERT_EQ(capture.Records().size(), 1u);
  EXPECT_EQ(capture.Records()[0].text, "else");
}

}  // namespace
}  // namespace drn
