// The app's side of every mode: what is called how often, and what is printed about it.
#ifndef NIRA_IPC_BENCH_APP_H
#define NIRA_IPC_BENCH_APP_H

#include <sys/types.h>

#include <string>
#include <vector>

// What the app prints in the mode "idle" when it has come to rest. It then waits for the end of its input.
constexpr char kIdle[] = "idle";

struct Setting {
  int port = 0;
  pid_t service = 0;
  bool quick = false;
  bool pinned = false;
  long calls = 0;  // instead of sync1's own number
};

struct Mode {
  const char* name;
  bool isStandard;  // run when no mode is named
  void (*run)(const Mode& mode, const Setting& setting);
};

// In the order in which they are run.
const std::vector<Mode>& Modes();

#endif  // NIRA_IPC_BENCH_APP_H
