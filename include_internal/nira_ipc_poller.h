// Where threads sleep until a descriptor is ready or somebody wakes one of them.
//
// Any thread may use any operation; several may sleep in one poller. An event wakes one of them, the one that fell
// asleep last: its stack and its share of the caches are warm. The kernel does all of it, so there is no lock.
#ifndef NIRA_IPC_POLLER_H
#define NIRA_IPC_POLLER_H

#include <sys/epoll.h>

#include <chrono>
#include <cstdint>
#include <optional>

#include "nira_ipc_descriptor.h"

class CNiraIpcPoller {
 public:
  using Clock = std::chrono::steady_clock;

  // What Wait found: the id under which the descriptor was added, or one of those below.
  struct Ready {
    uint64_t id;
    uint32_t events;  // EPOLLIN and the like
  };
  static constexpr uint64_t kWoken = UINT64_MAX;
  static constexpr uint64_t kTimedOut = UINT64_MAX - 1;
  static constexpr uint64_t kTimer = UINT64_MAX - 2;

  // Throws std::system_error when the process has no descriptors left.
  CNiraIpcPoller();
  CNiraIpcPoller(const CNiraIpcPoller&) = delete;
  CNiraIpcPoller& operator=(const CNiraIpcPoller&) = delete;

  // Watches a descriptor. With EPOLLONESHOT it is reported once and then not before Change.
  bool Add(int descriptor, uint64_t id, uint32_t events);
  bool Change(int descriptor, uint64_t id, uint32_t events);
  void Remove(int descriptor);

  // Sleeps until a descriptor is ready, Wake was called or the deadline has passed.
  Ready Wait(std::optional<Clock::time_point> deadline = std::nullopt);

  // Wakes one thread that sleeps, or the next one that is about to.
  void Wake();

  // Does so, once, after that time: Wait then gives kTimer.
  void WakeAfter(std::chrono::nanoseconds time);

 private:
  const CNiraIpcDescriptor m_Epoll;
  const CNiraIpcDescriptor m_WakeEvent;
  const CNiraIpcDescriptor m_Timer;
};

#endif  // NIRA_IPC_POLLER_H
