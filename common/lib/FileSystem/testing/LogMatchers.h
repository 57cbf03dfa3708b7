// GoogleMock matchers and printing for completed log records.
#pragma once

#include <gmock/gmock.h>

#include <ostream>
#include <string>

#include "LogClient.h"

namespace drn {

inline void PrintTo(const LogRecord& record, std::ostream* os) {
  *os << record.file << ':' << record.line << ' ' << record.function << " <"
      << static_cast<int>(record.level) << "> 0x" << std::hex
      << static_cast<unsigned>(record.category) << std::dec << " \"" << record.text << '"';
}

namespace testing {

// Matches a record by everything but its line.
inline ::testing::Matcher<const LogRecord&> IsRecord(const std::string& file,
                                                     const std::string& function, LogLevel level,
                                                     LogCategory category,
                                                     const ::testing::Matcher<std::string>& text) {
  return ::testing::AllOf(::testing::Field("file", &LogRecord::file, file),
                          ::testing::Field("function", &LogRecord::function, function),
                          ::testing::Field("level", &LogRecord::level, level),
                          ::testing::Field("category", &LogRecord::category, category),
                          ::testing::Field("text", &LogRecord::text, text));
}

}  // namespace testing
}  // namespace drn
