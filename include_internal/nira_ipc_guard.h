// The last stop of exceptions: at the end of a worker's task, a service thread's callback, an exported constructor.
#ifndef NIRA_IPC_GUARD_H
#define NIRA_IPC_GUARD_H

#include <exception>
#include <utility>

#include "nira_ipc_log.h"

// Runs `body`; an exception that leaves it is told in one error line and gives `failed` instead of body's result.
template <class Body, class Result>
Result NiraIpcGuarded(const char* tag, const char* what, Result failed, Body&& body) noexcept {
  try {
    return std::forward<Body>(body)();
  } catch (const std::exception& exception) {
    NIRA_IPC_LOG_ERROR(tag, "%s ended with an exception: %s", what, exception.what());
  } catch (...) {
    NIRA_IPC_LOG_ERROR(tag, "%s ended with an exception", what);
  }
  return failed;
}

template <class Body>
void NiraIpcGuarded(const char* tag, const char* what, Body&& body) noexcept {
  NiraIpcGuarded(tag, what, false, [&body] {
    body();
    return true;
  });
}

#endif  // NIRA_IPC_GUARD_H
