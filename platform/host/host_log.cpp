// The Linux host's log. NIRA_IPC_LOG=debug, info, error or off sends lines of that priority and above to stderr;
// without it errors go to the system's log and the terminal stays clean.
//
// Any thread, from before main to after it. The one state is an atomic without a constructor: a library's static
// initialisers may log before those of this source would have run.
#include <dlfcn.h>
#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <unistd.h>

#include <atomic>
#include <memory>

#include "nira_platform_log.h"

// This library's own function, whatever the process binds the public name to.
extern "C" int nira_host_dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((alias("__dlog_print"), visibility("hidden"), format(printf, 4, 5)));

namespace {

constexpr int8_t kEverything = INT8_MIN;
constexpr int8_t kNothing = INT8_MAX;

struct alignas(int32_t) Settings {  // one word, to be read as one
  bool read;
  bool toSyslog;
  int8_t writtenFrom;  // the lowest priority that is written here
  int8_t wantedFrom;   // the lowest that anybody reads
};

std::atomic<Settings> g_Settings{Settings{}};
static_assert(std::atomic<Settings>::is_always_lock_free, "asked before every line");

class ErrnoKeeper {
 public:
  ErrnoKeeper() = default;
  ~ErrnoKeeper() { errno = m_Errno; }
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

 private:
  const int m_Errno = errno;
};

// Whether the process has a log function of its own before this one. The dynamic linker is asked at run time, because a
// compiler may take it for granted that this library's references to its own functions stay at home.
bool IsReplaced() {
  return dlsym(RTLD_DEFAULT, "__dlog_print") != reinterpret_cast<void*>(&nira_host_dlog_print);
}

Settings ReadSettings() {
  static constexpr struct {
    const char* value;
    int8_t writtenFrom;
  } kChoices[] = {{"debug", NIRA_PLATFORM_LOG_DEBUG},
                  {"info", NIRA_PLATFORM_LOG_INFO},
                  {"error", NIRA_PLATFORM_LOG_ERROR},
                  {"off", kNothing}};
  const ErrnoKeeper keeper;
  Settings settings = {true, true, NIRA_PLATFORM_LOG_ERROR, 0};
  const char* value = secure_getenv("NIRA_IPC_LOG");
  for (const auto& choice : kChoices) {
    if (value == nullptr || strcmp(value, choice.value) != 0) continue;
    settings.toSyslog = false;
    settings.writtenFrom = choice.writtenFrom;
  }
  settings.wantedFrom = IsReplaced() ? kEverything : settings.writtenFrom;
  return settings;
}

Settings TheSettings() {
  Settings settings = g_Settings.load(std::memory_order_relaxed);
  if (!settings.read) {
    settings = ReadSettings();
    g_Settings.store(settings, std::memory_order_relaxed);
  }
  return settings;
}

// Room for one line: on the stack as long as it is short.
class Room {
 public:
  char* Get(size_t size) {
    if (size <= sizeof m_Short) return m_Short;
    m_Long.reset(static_cast<char*>(malloc(size)));
    return m_Long.get();
  }

 private:
  struct Free {
    void operator()(char* memory) const { free(memory); }
  };

  char m_Short[2048];
  std::unique_ptr<char, Free> m_Long;
};

// stdio's lock of stderr: the application's lines are kept apart too, and fork() never leaves it locked in the child.
class StderrLock {
 public:
  StderrLock() { flockfile(stderr); }
  ~StderrLock() { funlockfile(stderr); }
  StderrLock(const StderrLock&) = delete;
  StderrLock& operator=(const StderrLock&) = delete;
};

// One write. Only a line that is too long for a pipe's free room takes more; the lock keeps its pieces together.
void WriteWhole(const char* line, size_t size) {
  const StderrLock lock;
  while (size > 0) {
    const ssize_t written = write(STDERR_FILENO, line, size);
    if (written >= 0) {
      line += written;
      size -= static_cast<size_t>(written);
    } else if (errno == EAGAIN) {  // somebody made it non-blocking
      pollfd writable = {STDERR_FILENO, POLLOUT, 0};
      poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return;
    }
  }
}

char* CopyEscaped(const char* text, const char* end, char* to) {
  for (; text != end; ++text) {
    if (*text == '\n') {
      *to++ = '\\';
      *to++ = 'n';
    } else {
      *to++ = *text;
    }
  }
  return to;
}

char PriorityLetter(int priority) {
  if (priority >= NIRA_PLATFORM_LOG_ERROR) return 'E';
  return priority >= NIRA_PLATFORM_LOG_INFO ? 'I' : 'D';
}

int Print(bool toSyslog, int priority, const char* tag, const char* format, va_list args) {
  static constexpr char kHead[] = "%c/%s(%d): ";
  const char letter = PriorityLetter(priority);
  const int pid = getpid();
  va_list argsToMeasure;
  va_copy(argsToMeasure, args);
  const int headSize = snprintf(nullptr, 0, kHead, letter, tag, pid);
  const int textSize = vsnprintf(nullptr, 0, format, argsToMeasure);
  va_end(argsToMeasure);
  if (headSize < 0 || textSize < 0) return -1;

  // The text is formatted into the far half, from where escaping at most doubles it without overtaking itself.
  const size_t head = static_cast<size_t>(headSize);
  const size_t length = static_cast<size_t>(textSize);
  Room room;
  char* line = room.Get(head + 2 * length + 2);
  if (line == nullptr) return -1;
  snprintf(line, head + 1, kHead, letter, tag, pid);
  char* text = line + head + length + 1;
  vsnprintf(text, length + 1, format, args);
  const char* end = text + length;
  while (end != text && end[-1] == '\n') --end;
  char* lineEnd = CopyEscaped(text, end, line + head);
  if (toSyslog) {
    *lineEnd = '\0';
    syslog(LOG_USER | LOG_ERR, "%s", line);
  } else {
    *lineEnd++ = '\n';
    WriteWhole(line, static_cast<size_t>(lineEnd - line));
  }
  return 0;
}

}  // namespace

int __dlog_print(int, int priority, const char* tag, const char* format, ...) {
  const ErrnoKeeper keeper;
  const Settings settings = TheSettings();
  if (priority < settings.writtenFrom) return 0;
  va_list args;
  va_start(args, format);
  const int result = Print(settings.toSyslog, priority, tag, format, args);
  va_end(args);
  return result;
}

int nira_platform_log_wanted(int priority) {
  return priority >= TheSettings().wantedFrom ? 1 : 0;
}
