// What the device supplies for logging. Nothing else of the platform's log is used.
#ifndef NIRA_PLATFORM_LOG_H
#define NIRA_PLATFORM_LOG_H

enum { NIRA_PLATFORM_LOG_DEBUG = 3, NIRA_PLATFORM_LOG_INFO = 4, NIRA_PLATFORM_LOG_ERROR = 6 };

#pragma GCC visibility push(default)
extern "C" {

// Writes one line. `log_id` is 0, `priority` one of the above, `format` printf's. Any thread; must not throw. A process
// may define it itself and then receives every line of the library, from the moment the library is loaded.
int __dlog_print(int log_id, int priority, const char* tag, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Whether anybody reads lines of this priority (0: nobody, and the library does not even format them). Optional: a
// platform without it reads every line.
int nira_platform_log_wanted(int priority) __attribute__((weak));
}
#pragma GCC visibility pop

#endif  // NIRA_PLATFORM_LOG_H
