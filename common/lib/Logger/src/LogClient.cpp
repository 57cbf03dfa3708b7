// Stand-in logging library: default filter from DRX_LOG_LEVEL, default sink on standard error.
#include "LogClient.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>

namespace drn {
namespace {

constexpr int kDefaultThreshold = 4;

int ThresholdFromEnvironment() {
  const char* text = std::getenv("DRX_LOG_LEVEL");
  if (text == nullptr || *text == '\0') {
    return kDefaultThreshold;
  }
  char* end = nullptr;
  const long value = std::strtol(text, &end, 10);
  if (*end != '\0' || value < 0 || value > 7) {
    return kDefaultThreshold;
  }
  return static_cast<int>(value);
}

bool DefaultFilter(LogLevel level) {
  return static_cast<int>(level) <= ThresholdFromEnvironment();
}

void DefaultSink(const LogRecord& record) {
  (void)std::fprintf(stderr, "<%d> 0x%04x %s:%d %s: %s\n", static_cast<int>(record.level),
                     static_cast<unsigned>(record.category), record.file.c_str(), record.line,
                     record.function.c_str(), record.text.c_str());
}

struct State {
  std::mutex filterMutex;
  std::shared_ptr<const LogClient::LevelFilter> filter;
  std::mutex sinkMutex;  // held while the sink runs, so records never interleave
  LogClient::Sink sink;
};

State& GetState() {
  static State state;
  return state;
}

}  // namespace

bool LogClient::LevelIsEnabled(LogLevel level) {
  const int savedErrno = errno;
  State& state = GetState();
  std::shared_ptr<const LevelFilter> filter;
  {
    std::lock_guard<std::mutex> lock(state.filterMutex);
    filter = state.filter;
  }
  const bool enabled = filter ? (*filter)(level) : DefaultFilter(level);
  errno = savedErrno;
  return enabled;
}

LogClient::Sink LogClient::SetSink(Sink sink) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.sinkMutex);
  return std::exchange(state.sink, std::move(sink));
}

LogClient::LevelFilter LogClient::SetLevelFilter(LevelFilter filter) {
  State& state = GetState();
  std::shared_ptr<const LevelFilter> next;
  if (filter) {
    next = std::make_shared<const LevelFilter>(std::move(filter));
  }
  std::lock_guard<std::mutex> lock(state.filterMutex);
  std::shared_ptr<const LevelFilter> previous = std::exchange(state.filter, std::move(next));
  return previous ? *previous : LevelFilter{};
}

LogClient::LogClient(std::string_view file, std::string_view function, int line, LogLevel level) {
  record.file = file;
  record.function = function;
  record.line = line;
  record.level = level;
  errno = savedErrno;
}

LogClient::~LogClient() {
  const int errorNumber = errno;
  record.text = stream.str();
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.sinkMutex);
  if (state.sink) {
    state.sink(record);
  } else {
    DefaultSink(record);
  }
  errno = errorNumber;
}

}  // namespace drn
