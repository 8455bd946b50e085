// What the two programs of the wire tests share.
#ifndef NIRA_IPC_TESTS_WIRE_COMMON_H
#define NIRA_IPC_TESTS_WIRE_COMMON_H

#include <nira_ipc.h>

#include <cstdio>
#include <string>

// One line of words, at once, from any thread. Of a long word only the length.
template <class... Words>
void Print(const Words&... words) {
  std::string line;
  for (const std::string& word : {std::string(words)...}) {
    line += (line.empty() ? "" : " ") + (word.size() > 1000 ? std::to_string(word.size()) + " bytes" : word);
  }
  std::puts(line.c_str());
  std::fflush(stdout);
}

// A new bundle of what `from` holds under "i", "s" and "b", read and set by their types.
inline void* CopyOf(void* from) {
  void* to = nira_ipc_bundle_new();
  int number = 0;
  char* text = nullptr;
  void* block = nullptr;
  unsigned size = 0;
  if (nira_ipc_bundle_get_param_int(from, "i", &number)) nira_ipc_bundle_add_param_int(to, "i", number);
  if (nira_ipc_bundle_get_param_string(from, "s", &text)) nira_ipc_bundle_add_param_string(to, "s", text);
  if (nira_ipc_bundle_get_param_binary(from, "b", &block, &size))
    nira_ipc_bundle_add_param_binary(to, "b", block, size);
  return to;
}

#endif  // NIRA_IPC_TESTS_WIRE_COMMON_H
