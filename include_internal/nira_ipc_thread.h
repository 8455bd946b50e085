// How the library starts its own threads.
#ifndef NIRA_IPC_THREAD_H
#define NIRA_IPC_THREAD_H

#include <pthread.h>
#include <signal.h>

#include <string>
#include <thread>
#include <utility>

// While one lives, the calling thread takes no signals, and neither do threads that it starts: the application's
// signals are for the application's threads. The synchronous ones stay as they are, for its crash handlers.
class CNiraIpcSignalShield {
 public:
  CNiraIpcSignalShield() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (int signal : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS}) sigdelset(&blocked, signal);
    pthread_sigmask(SIG_BLOCK, &blocked, &m_Before);
  }
  ~CNiraIpcSignalShield() { pthread_sigmask(SIG_SETMASK, &m_Before, nullptr); }
  CNiraIpcSignalShield(const CNiraIpcSignalShield&) = delete;
  CNiraIpcSignalShield& operator=(const CNiraIpcSignalShield&) = delete;

 private:
  sigset_t m_Before;
};

// Starts a named thread (15 characters at most) that takes none of the application's signals.
template <class Body>
std::thread NiraIpcStartThread(std::string name, Body&& body) {
  CNiraIpcSignalShield shield;
  return std::thread([name = std::move(name), body = std::forward<Body>(body)]() mutable {
    pthread_setname_np(pthread_self(), name.c_str());
    body();
  });
}

#endif  // NIRA_IPC_THREAD_H
