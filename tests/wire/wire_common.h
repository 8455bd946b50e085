// What the two programs of the wire tests share.
#ifndef NIRA_IPC_TESTS_WIRE_COMMON_H
#define NIRA_IPC_TESTS_WIRE_COMMON_H

#include <nira_ipc.h>

#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <string>

// One line, at once, from any thread: the time in nanoseconds, and the words. Of a word only the first line, and of a
// long one only the length.
inline void Print(std::initializer_list<std::string> words) {
  const std::chrono::nanoseconds now = std::chrono::steady_clock::now().time_since_epoch();
  std::string line = std::to_string(now.count());
  for (const std::string& word : words) {
    line += " " + (word.size() > 1000 ? std::to_string(word.size()) + " bytes" : word.substr(0, word.find('\n')));
  }
  std::puts(line.c_str());
  std::fflush(stdout);
}

#endif  // NIRA_IPC_TESTS_WIRE_COMMON_H
