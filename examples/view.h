// How the examples print what they do: one aligned line an event, in colour only where somebody looks at a terminal.
#ifndef NIRA_IPC_EXAMPLES_VIEW_H
#define NIRA_IPC_EXAMPLES_VIEW_H

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>

// Any thread may print: a line leaves in one piece, so that two processes can share a terminal.
class View {
 public:
  View(const char* who, const char* colour) : m_Who(who), m_Colour(WantsColour() ? colour : nullptr) {
    setvbuf(stdout, nullptr, _IOLBF, BUFSIZ);
  }

  void Say(const char* what, const std::string& text) { m_Print(" ", what, text, ""); }
  void Sent(const char* what, const std::string& text) { m_Print("→", what, text, ""); }
  void Got(const char* what, const std::string& text) { m_Print("←", what, text, ""); }

  // The same for something that came and is what it should be, or is not.
  void Checked(const char* what, const std::string& text, bool good) {
    if (!good) m_AllGood = false;
    m_Print("←", what, text, good ? " ✓" : " ✗ not as it should be");
  }

  bool AllGood() const { return m_AllGood; }

 private:
  // CLICOLOR_FORCE is for whoever hands our output on to a terminal.
  static bool WantsColour() {
    return std::getenv("NO_COLOR") == nullptr && (isatty(STDOUT_FILENO) == 1 || std::getenv("CLICOLOR_FORCE"));
  }

  void m_Print(const char* arrow, const char* what, const std::string& text, const char* verdict) {
    if (m_Colour != nullptr) {
      std::printf("\033[%sm%-8s\033[0m %-10s %s %s%s\n", m_Colour, m_Who, what, arrow, text.c_str(), verdict);
    } else {
      std::printf("%-8s %-10s %s %s%s\n", m_Who, what, arrow, text.c_str(), verdict);
    }
  }

  const char* const m_Who;
  const char* const m_Colour;
  std::atomic<bool> m_AllGood{true};
};

#endif  // NIRA_IPC_EXAMPLES_VIEW_H
