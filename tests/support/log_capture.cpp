#include "log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "nira_platform_log.h"

// Neither has a constructor or destructor that does anything: the library logs before main and after it.
static std::mutex g_Lock;
static std::vector<std::pair<int, std::string>>* g_Lines;

int __dlog_print(int, int priority, const char*, const char* format, ...) {
  va_list args;
  va_start(args, format);
  char* line = nullptr;  // formatted even when nobody records: a wrong format or a dead pointer shows under sanitizers
  if (vasprintf(&line, format, args) < 0) abort();
  va_end(args);
  const char* const prefix = strstr(line, ") > ");
  const std::lock_guard<std::mutex> lock(g_Lock);
  if (g_Lines != nullptr) g_Lines->emplace_back(priority, prefix != nullptr ? prefix + 4 : line);
  free(line);
  return 0;
}

void LogCapture::KeepIn(decltype(m_Lines)* lines) {
  const std::lock_guard<std::mutex> lock(g_Lock);
  g_Lines = lines;
}

int LogCapture::Count(const std::string& message, int priority) const {
  const size_t length = !message.empty() && message.back() == '*' ? message.size() - 1 : std::string::npos;
  const std::lock_guard<std::mutex> lock(g_Lock);
  int count = 0;
  for (const auto& [linePriority, text] : m_Lines) {
    if (text.compare(0, length, message, 0, length) == 0 && (priority == 0 || priority == linePriority)) ++count;
  }
  return count;
}
