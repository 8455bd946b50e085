// A process on the host's platform that has no log function of its own:  host_log_probe TEXT WIDTH THREADS
//
// Each thread logs TEXT, padded to WIDTH, in each priority. Prints what the system's log was given, and the priorities
// that are wanted.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

#include <thread>
#include <vector>

#include "nira_platform_log.h"

// In place of the C library's, as the host's log calls it: syslog(priority, "%s", line). With _FORTIFY_SOURCE that is
// the second.
extern "C" void syslog(int priority, const char*, const char* line) {
  printf("<%d> %s\n", priority, line);
}
extern "C" void __syslog_chk(int priority, int, const char* format, const char* line) {
  syslog(priority, format, line);
}

int main(int, char** argv) {
  std::vector<std::thread> threads(static_cast<size_t>(atoi(argv[3])));
  for (std::thread& thread : threads) {
    thread = std::thread([argv] {
      errno = EXDEV;
      for (int priority : {3, 4, 6}) __dlog_print(0, priority, "TAG", "%*s", atoi(argv[2]), argv[1]);
      if (errno != EXDEV) abort();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int priority : {3, 4, 6}) printf("%d", nira_platform_log_wanted(priority));
}
