// The processes that the runner starts, and what they share.
#ifndef NIRA_IPC_BENCH_PROCESS_H
#define NIRA_IPC_BENCH_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

// A process of the benchmark, with pipes for its standard input and output. It dies with the runner, and at the latest
// with this object. Whatever goes wrong is thrown as std::runtime_error. One thread at a time.
class Child {
 public:
  Child(const std::vector<std::string>& command, bool pinned);
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t Pid() const { return m_Pid; }

  // The next line without its end; empty when there is none any more.
  std::string ReadLine();

  void EndInput();

  // Waits for its end, after its last line was read; whether it exited with 0.
  bool Ended();

 private:
  bool m_ReadMore();
  [[noreturn]] void m_BecomeChild(const std::vector<std::string>& command, bool pinned, const int* in, const int* out);

  pid_t m_Pid = -1;
  int m_In = -1;
  int m_Out = -1;
  std::string m_Read;
};

// A secret of this run, in a secure storage of its own that the children find through the environment.
class PrivateSecret {
 public:
  PrivateSecret();
  ~PrivateSecret();
  PrivateSecret(const PrivateSecret&) = delete;
  PrivateSecret& operator=(const PrivateSecret&) = delete;

 private:
  std::string m_Directory;
};

// Lets SIGINT, SIGTERM and SIGHUP end the run in good order: what waits for a child then throws.
void EndOnSignals();
bool HasBeenEnded();

#endif  // NIRA_IPC_BENCH_PROCESS_H
