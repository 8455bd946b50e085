#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

#include "nira_platform_log.h"

namespace {

// Never destroyed, and made on first use: the library logs before main and after it.
struct Recorder {
  std::mutex lock;
  bool recording = false;
  std::vector<LogLine> lines;
};

Recorder& TheRecorder() {
  static Recorder& recorder = *new Recorder;
  return recorder;
}

bool Matches(const std::string& message, const std::string& pattern) {
  if (!pattern.empty() && pattern.back() == '*')
    return message.compare(0, pattern.size() - 1, pattern, 0, pattern.size() - 1) == 0;
  return message == pattern;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int __dlog_print(int, int priority, const char* tag,
                                                                   const char* format, ...) {
  Recorder& recorder = TheRecorder();
  std::lock_guard<std::mutex> lock(recorder.lock);
  va_list args;
  va_start(args, format);
  char* raw = nullptr;  // formatted even when nobody records: a wrong format or a dead pointer shows under sanitizers
  const int length = vasprintf(&raw, format, args);
  va_end(args);
  if (length < 0) return -1;
  std::string text(raw, static_cast<size_t>(length));
  free(raw);
  if (!recorder.recording) return 0;
  const size_t prefix = text.find(") > ");
  recorder.lines.push_back({priority, tag, text, prefix == std::string::npos ? text : text.substr(prefix + 4)});
  return 0;
}

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(TheRecorder().lock);
  TheRecorder().recording = true;
  TheRecorder().lines.clear();
}

LogCapture::~LogCapture() {
  std::lock_guard<std::mutex> lock(TheRecorder().lock);
  TheRecorder().recording = false;
}

std::vector<LogLine> LogCapture::Lines() const {
  std::lock_guard<std::mutex> lock(TheRecorder().lock);
  return TheRecorder().lines;
}

int LogCapture::Count(const std::string& message) const {
  return Count(0, message);
}

int LogCapture::Count(int priority, const std::string& message) const {
  int count = 0;
  for (const LogLine& line : Lines()) {
    count += (priority == 0 || line.priority == priority) && Matches(line.message, message) ? 1 : 0;
  }
  return count;
}
