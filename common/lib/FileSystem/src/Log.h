// The one way this library writes a log record.
#pragma once

#include "LogClient.h"

// Expands to a statement that asks LogClient::LevelIsEnabled(level) and, only when it answers
// true, builds a LogClient for this file, function and line to which the text is streamed:
//   DRN_LOG(drn::LogLevel::Error, drn::LogCategory::FileSystem) << "failed on write with " << x;
// A disabled level costs that one call; nothing is built or formatted. The switch makes the
// macro safe inside an unbraced if/else.
#define DRN_LOG(level, category)                    \
  switch (0)                                        \
  case 0:                                           \
  default:                                          \
    if (!::drn::LogClient::LevelIsEnabled(level)) { \
    } else                                          \
      ::drn::LogClient(__FILE__, __func__, __LINE__, level, category)
