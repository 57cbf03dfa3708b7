// The library's record macro: filter first, then a record with file, function, line and category.
#include <gmock/gmock.h>
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

TEST(LogMacroTest, AsksTheFilterBeforeFormattingAndIsOneStatementInIfElse) {
  std::vector<LogLevel> asked;
  const testing::LogCapture capture([&asked](LogLevel level) {
    asked.push_back(level);
    return level == LogLevel::Debug;
  });
  const int line = __LINE__ + 4;
  if (formatted != 0)
    DRN_LOG(LogLevel::Error, LogCategory::FileSystem) << Expensive();
  else
    DRN_LOG(LogLevel::Debug, LogCategory::Tar) << "value " << Expensive();
  DRN_LOG(LogLevel::Error, LogCategory::FileSystem) << Expensive();
  EXPECT_EQ(formatted, 1);
  EXPECT_EQ(asked, (std::vector<LogLevel>{LogLevel::Debug, LogLevel::Error}));
  const std::vector<LogRecord> records = capture.Records();
  ASSERT_THAT(testing::Described(records), ::testing::ElementsAre("TestBody 7/0x8027: value text"));
  EXPECT_EQ(records[0].file, "common/lib/FileSystem/test/LogMacroTest.cpp");
  EXPECT_EQ(records[0].line, line);
}

}  // namespace
}  // namespace drn
