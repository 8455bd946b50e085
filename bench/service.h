// The service's side, the same for every mode, and the names that both sides use.
#ifndef NIRA_IPC_BENCH_SERVICE_H
#define NIRA_IPC_BENCH_SERVICE_H

#include <string>

constexpr int kMaxKeys = 1000;
constexpr size_t kPushBytes = 100;

// The key of the parameter with this number, up to kMaxKeys, where there is none.
const std::string& KeyName(int number);

// Prints the port that it listens on, and serves until its standard input ends.
int RunService();

#endif  // NIRA_IPC_BENCH_SERVICE_H
