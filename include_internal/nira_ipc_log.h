// The library's log lines: "<source>: <function>(<line>) > <text>", to the platform's log.
#ifndef NIRA_IPC_LOG_H
#define NIRA_IPC_LOG_H

#include "nira_platform_log.h"

#define NIRA_IPC_TAG "NIRA_IPC"
#define NIRA_IPC_TAG_PROXY "NIRA_IPC_PROXY"
#define NIRA_IPC_TAG_STUB "NIRA_IPC_STUB"

// The one way to ask whether a priority is wanted. Whoever would do work only for a log line asks first.
inline bool NiraIpcLogWanted(int priority) {
  return nira_platform_log_wanted == nullptr || nira_platform_log_wanted(priority) != 0;
}

constexpr const char* NiraIpcBaseName(const char* path) {
  const char* base = path;
  for (const char* p = path; *p != '\0'; ++p) {
    if (*p == '/') base = p + 1;
  }
  return base;
}

struct NiraIpcLogPlace {
  const char* source;
  const char* function;
  int line;
};

template <class... Args>
void NiraIpcLogLine(int priority, const char* tag, const NiraIpcLogPlace& place, const char* format, Args... args) {
  __dlog_print(0, priority, tag, format, place.source, place.function, place.line, args...);
}

// Never called: it lets the compiler compare a line's arguments with its text.
void NiraIpcCheckLogFormat(const char* text, ...) __attribute__((format(printf, 1, 2)));

// NIRA_IPC_LOG(priority, tag, text, arguments of the text...). The arguments are evaluated only when somebody reads.
#define NIRA_IPC_LOG(priority, tag, ...)                                                         \
  do {                                                                                           \
    if (NiraIpcLogWanted(priority)) {                                                            \
      constexpr const char* kSource = NiraIpcBaseName(__FILE__);                                 \
      NiraIpcLogLine(priority, tag, {kSource, __func__, __LINE__}, "%s: %s(%d) > " __VA_ARGS__); \
    }                                                                                            \
    if (false) NiraIpcCheckLogFormat(__VA_ARGS__);                                               \
  } while (false)

#define NIRA_IPC_LOG_DEBUG(tag, ...) NIRA_IPC_LOG(NIRA_PLATFORM_LOG_DEBUG, tag, __VA_ARGS__)
#define NIRA_IPC_LOG_INFO(tag, ...) NIRA_IPC_LOG(NIRA_PLATFORM_LOG_INFO, tag, __VA_ARGS__)
#define NIRA_IPC_LOG_ERROR(tag, ...) NIRA_IPC_LOG(NIRA_PLATFORM_LOG_ERROR, tag, __VA_ARGS__)

#endif  // NIRA_IPC_LOG_H
