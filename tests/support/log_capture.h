// Every line that the library logs in this process: the test program defines __dlog_print itself.
#ifndef NIRA_IPC_TESTS_LOG_CAPTURE_H
#define NIRA_IPC_TESTS_LOG_CAPTURE_H

#include <string>
#include <utility>
#include <vector>

class LogCapture {
 public:
  // Lines are kept from construction to destruction; one at a time.
  LogCapture() { KeepIn(&m_Lines); }
  ~LogCapture() { KeepIn(nullptr); }

  // How many lines (of this priority, unless it is 0) have exactly this message after the prefix "<source>:
  // <function>(<line>) > ", or, for a message that ends in "*", begin with it.
  int Count(const std::string& message, int priority = 0) const;
  bool Has(const std::string& message) const { return Count(message) > 0; }

 private:
  std::vector<std::pair<int, std::string>> m_Lines;  // priority and message
  static void KeepIn(decltype(m_Lines)* lines);
};

#endif  // NIRA_IPC_TESTS_LOG_CAPTURE_H
