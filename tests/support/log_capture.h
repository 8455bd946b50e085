// Every line that the library logs in this process: the test program defines __dlog_print itself.
#ifndef NIRA_IPC_TESTS_LOG_CAPTURE_H
#define NIRA_IPC_TESTS_LOG_CAPTURE_H

#include <string>
#include <vector>

struct LogLine {
  int priority;
  std::string tag;
  std::string text;     // the whole line, prefix included
  std::string message;  // what follows the prefix "<source>: <function>(<line>) > "
};

class LogCapture {
 public:
  // Lines are kept from construction to destruction; one at a time.
  LogCapture();
  ~LogCapture();

  std::vector<LogLine> Lines() const;

  // How many lines have exactly this message, or (for a message that ends in "*") begin with it.
  int Count(const std::string& message) const;
  int Count(int priority, const std::string& message) const;
  bool Has(const std::string& message) const { return Count(message) > 0; }
};

#endif  // NIRA_IPC_TESTS_LOG_CAPTURE_H
