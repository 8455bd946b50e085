#include "nira_ipc_poller.h"

#include <errno.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <system_error>

namespace {

int Checked(int descriptor) {
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "no descriptor");
  return descriptor;
}

// In whole milliseconds, rounded up, or a sleeper would wake before its time and spin until then.
int MillisecondsUntil(std::optional<CNiraIpcPoller::Clock::time_point> deadline) {
  if (!deadline) return -1;
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - CNiraIpcPoller::Clock::now()).count();
  return static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX));
}

}  // namespace

CNiraIpcPoller::CNiraIpcPoller()
    : m_Epoll(Checked(epoll_create1(EPOLL_CLOEXEC))),
      m_WakeEvent(Checked(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))),
      m_Timer(Checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK))) {
  // Edge-triggered: each event wakes a sleeper, and nobody has to read a count.
  const bool added = Add(m_WakeEvent.Get(), kWoken, EPOLLIN | EPOLLET) && Add(m_Timer.Get(), kTimer, EPOLLIN | EPOLLET);
  if (!added) Checked(-1);
}

bool CNiraIpcPoller::Add(int descriptor, uint64_t id, uint32_t events) {
  epoll_event event = {};
  event.events = events;
  event.data.u64 = id;
  return epoll_ctl(m_Epoll.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool CNiraIpcPoller::Change(int descriptor, uint64_t id, uint32_t events) {
  epoll_event event = {};
  event.events = events;
  event.data.u64 = id;
  return epoll_ctl(m_Epoll.Get(), EPOLL_CTL_MOD, descriptor, &event) == 0;
}

void CNiraIpcPoller::Remove(int descriptor) {
  epoll_ctl(m_Epoll.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
}

CNiraIpcPoller::Ready CNiraIpcPoller::Wait(std::optional<Clock::time_point> deadline) {
  epoll_event event = {};
  for (;;) {
    const int count = epoll_wait(m_Epoll.Get(), &event, 1, MillisecondsUntil(deadline));
    if (count > 0) return {event.data.u64, event.events};
    if (count == 0) return {kTimedOut, 0};
  }
}

void CNiraIpcPoller::Wake() {
  const uint64_t one = 1;
  while (write(m_WakeEvent.Get(), &one, sizeof one) < 0 && errno == EINTR) {
  }
}

void CNiraIpcPoller::WakeAfter(std::chrono::nanoseconds time) {
  itimerspec setting = {};
  setting.it_value.tv_sec = static_cast<time_t>(time.count() / std::nano::den);
  setting.it_value.tv_nsec = static_cast<long>(time.count() % std::nano::den);
  timerfd_settime(m_Timer.Get(), 0, &setting, nullptr);
}
