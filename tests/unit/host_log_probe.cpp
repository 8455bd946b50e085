// A process on the host's platform that has no log function of its own.
//
//   host_log_probe TEXT WIDTH LINES THREADS
//
// Each thread logs TEXT, padded to WIDTH, as LINES lines of each priority. "out:" lines on stdout tell what the
// system's log was given and which priorities are wanted.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <thread>
#include <vector>

#include "nira_platform_log.h"

// In place of the C library's, as the host's log calls it: syslog(priority, "%s", line). With _FORTIFY_SOURCE that is
// the second.
extern "C" void syslog(int priority, const char*, const char* line) {
  printf("out: <%d> %s\n", priority, line);
}
extern "C" void __syslog_chk(int priority, int, const char* format, const char* line) {
  syslog(priority, format, line);
}

int main(int, char** argv) {
  const auto log = [argv] {
    errno = EXDEV;
    for (int line = 0; line < atoi(argv[3]); ++line) {
      for (int priority : {3, 4, 6}) __dlog_print(0, priority, "TAG", "%*s", atoi(argv[2]), argv[1]);
    }
    if (errno != EXDEV) abort();
  };
  std::vector<std::thread> threads(static_cast<size_t>(atoi(argv[4])));
  for (std::thread& thread : threads) thread = std::thread(log);
  for (std::thread& thread : threads) thread.join();
  printf("out: wanted %d %d %d", nira_platform_log_wanted(3), nira_platform_log_wanted(4), nira_platform_log_wanted(6));
}
