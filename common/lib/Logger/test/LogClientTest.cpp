// The logging stand-in: the default sink's line, the level filter, errno, and serialised sinks.
#include "LogClient.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace drn {
namespace {

class LogClientTest : public ::testing::Test {
 protected:
  void TearDown() override {
    LogClient::SetSink(previousSink);
    LogClient::SetLevelFilter(previousFilter);
    ::unsetenv("DRX_LOG_LEVEL");
  }

  LogClient::Sink previousSink = LogClient::SetSink({});
  LogClient::LevelFilter previousFilter = LogClient::SetLevelFilter({});
};

// Every part of a record reaches the default sink's line, the category as four hex digits; a
// null C string ends the text; errno survives it all.
TEST_F(LogClientTest, DefaultSinkWritesEveryPartAndErrnoSurvives) {
  ::testing::internal::CaptureStderr();
  errno = EXDEV;
  LogClient("src/File.cpp", "Impl", 42, LogLevel::Error, LogCategory::FileSystem)
      << "failed with " << std::string("text ") << std::string_view("view ") << -3 << ' ' << 7ul
      << ' ' << 1.5;
  const char* nothing = nullptr;
  LogClient("a.cpp", "Run", 7, LogLevel::Debug, static_cast<LogCategory>(0x27))
      << "before " << nothing << "after";
  EXPECT_EQ(errno, EXDEV);
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "<3> 0x8010 src/File.cpp:42 Impl: failed with text view -3 7 1.5\n"
            "<7> 0x0027 a.cpp:7 Run: before \n");
}

// DRX_LOG_LEVEL is the highest level kept (0 to 7); unset or anything else keeps 0 to 4. A set
// filter replaces it, and errno survives one that changes it; an empty one restores it, and the
// setter gives back the filter it replaced.
TEST_F(LogClientTest, LevelFilterReadsTheEnvironmentUnlessSet) {
  const std::pair<const char*, int> cases[] = {
      {nullptr, 4}, {"7", 7},  {"0", 0},  {"2", 2}, {"x", 4},
      {"9", 4},     {"-1", 4}, {"3x", 4}, {"", 4},  {"99999999999999999999", 4}};
  for (const auto& [value, highest] : cases) {
    value != nullptr ? ::setenv("DRX_LOG_LEVEL", value, 1) : ::unsetenv("DRX_LOG_LEVEL");
    for (int level = 0; level <= 7; ++level) {
      EXPECT_EQ(LogClient::LevelIsEnabled(static_cast<LogLevel>(level)), level <= highest)
          << (value != nullptr ? value : "unset") << ", level " << level;
    }
  }
  LogClient::SetLevelFilter([](LogLevel) {
    errno = EIO;
    return false;
  });
  errno = EXDEV;
  EXPECT_FALSE(LogClient::LevelIsEnabled(LogLevel::Emergency));
  EXPECT_EQ(errno, EXDEV);
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
    overlaps += ++inside - 1;
    ++count;
    std::this_thread::yield();
    --inside;
  });
  std::vector<std::thread> threads(4);
  for (std::thread& thread : threads) {
    thread = std::thread([] {
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
