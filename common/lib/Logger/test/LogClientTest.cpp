// The logging stand-in: filter, sink, formatting and errno.
#include "LogClient.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace drn {
namespace {

class LogClientTest : public ::testing::Test {
 protected:
  void SetUp() override {
    previousSink =
        LogClient::SetSink([this](const LogRecord& record) { records.push_back(record); });
    previousFilter = LogClient::SetLevelFilter({});
  }
  void TearDown() override {
    LogClient::SetSink(previousSink);
    LogClient::SetLevelFilter(previousFilter);
    ::unsetenv("DRX_LOG_LEVEL");
  }

  std::vector<LogRecord> records;
  LogClient::Sink previousSink;
  LogClient::LevelFilter previousFilter;
};

// A record carries every part given; a null C string ends its text; errno survives it all.
TEST_F(LogClientTest, RecordCarriesEveryPartAndKeepsErrno) {
  errno = EXDEV;
  EXPECT_TRUE(LogClient::LevelIsEnabled(LogLevel::Error));
  {
    LogClient client("common/lib/FileSystem/src/File.cpp", "Impl", 42, LogLevel::Error,
                     LogCategory::FileSystem);
    client << "failed with " << std::string("text ") << std::string_view("view ") << -3 << ' '
           << 7ul << ' ' << 1.5;
  }
  const char* nothing = nullptr;
  LogClient(__FILE__, __func__, __LINE__, LogLevel::Error, LogCategory::Tar)
      << "before " << nothing << "after" << 5;
  EXPECT_EQ(errno, EXDEV);
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].file, "common/lib/FileSystem/src/File.cpp");
  EXPECT_EQ(records[0].function, "Impl");
  EXPECT_EQ(records[0].line, 42);
  EXPECT_EQ(records[0].level, LogLevel::Error);
  EXPECT_EQ(static_cast<int>(records[0].category), 0x8010);
  EXPECT_EQ(records[0].text, "failed with text view -3 7 1.5");
  EXPECT_EQ(records[1].text, "before ");
  EXPECT_EQ(static_cast<int>(records[1].category), 0x8027);
}

TEST_F(LogClientTest, DefaultFilterReadsTheEnvironment) {
  ::unsetenv("DRX_LOG_LEVEL");
  EXPECT_TRUE(LogClient::LevelIsEnabled(LogLevel::Warning));
  EXPECT_FALSE(LogClient::LevelIsEnabled(LogLevel::Notice));
  ::setenv("DRX_LOG_LEVEL", "7", 1);
  EXPECT_TRUE(LogClient::LevelIsEnabled(LogLevel::Debug));
  ::setenv("DRX_LOG_LEVEL", "2", 1);
  EXPECT_TRUE(LogClient::LevelIsEnabled(LogLevel::Critical));
  EXPECT_FALSE(LogClient::LevelIsEnabled(LogLevel::Error));
  for (const char* bad : {"x", "9", "-1", "3x", ""}) {
    ::setenv("DRX_LOG_LEVEL", bad, 1);
    EXPECT_TRUE(LogClient::LevelIsEnabled(LogLevel::Warning)) << bad;
    EXPECT_FALSE(LogClient::LevelIsEnabled(LogLevel::Notice)) << bad;
  }
  // A set filter replaces the default until an empty one restores it; the setter gives it back.
  LogClient::SetLevelFilter([](LogLevel) { return false; });
  EXPECT_FALSE(LogClient::LevelIsEnabled(LogLevel::Emergency));
  const LogClient::LevelFilter previous = LogClient::SetLevelFilter({});
  ASSERT_TRUE(previous);
  EXPECT_FALSE(previous(LogLevel::Emergency));
  EXPECT_TRUE(LogClient::LevelIsEnabled(LogLevel::Emergency));
}

TEST_F(LogClientTest, SinkCallsAreSerialised) {
  int inside = 0;
  int overlaps = 0;
  int count = 0;
  LogClient::SetSink([&](const LogRecord&) {
    overlaps += ++inside == 1 ? 0 : 1;
    ++count;
    std::this_thread::yield();
    --inside;
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < 500; ++i) {
        LogClient(__FILE__, __func__, __LINE__, LogLevel::Error, LogCategory::FileSystem) << i;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(count, 2000);
}

}  // namespace
}  // namespace drn
