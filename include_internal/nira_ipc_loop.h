// One libwebsockets context and the service thread that belongs to it, for a proxy or a stub.
//
// libwebsockets is not made for several threads. Here they take turns: whoever calls it holds the loop's turn, for a
// read or a write that does not block, and never while it sleeps or runs a callback of the application. So a reply is
// written by the worker that made it, and read by the caller that waits for it; the service thread serves what nobody
// else does. A thread that only has something to write does not wait for the turn: it says so (Demand), and if somebody
// has the turn he looks again when he gives it up.
//
// Sleeping happens outside, in a poller, but for one phase: while a client connects, libwebsockets alone knows what it
// waits for, and the service thread sleeps in it with the turn, which nobody else wants yet.
//
// Nothing here polls: libwebsockets 4.1 sleeps until an event comes, whatever time-out it is given.
//
// Any thread may call what is not said to be the service thread's; a loop runs once.
#ifndef NIRA_IPC_LOOP_H
#define NIRA_IPC_LOOP_H

#include <libwebsockets.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "nira_ipc_callback_gate.h"
#include "nira_ipc_poller.h"

class CNiraIpcLoop : public std::enable_shared_from_this<CNiraIpcLoop> {
 public:
  // `onDemand` is called with the turn, by the thread that gives it up, if there was a Demand.
  explicit CNiraIpcLoop(std::function<void()> onDemand);
  ~CNiraIpcLoop();

  // Creates the context from `info`, to which it adds what makes libwebsockets a good guest in the application's
  // process. False when libwebsockets refuses. Before the service thread starts.
  bool CreateContext(lws_context_creation_info& info);

  // Starts the service thread, which runs `body`. If the process exits while it runs, `gate` is abandoned first and the
  // loop then stopped, before the application's static objects are destroyed.
  void StartThread(const char* name, std::shared_ptr<CNiraIpcCallbackGate> gate, std::function<void()> body);

  // Runs `body` with the turn, unless the context is gone.
  template <class Body>
  void WithTurn(Body&& body) {
    {
      std::lock_guard<std::mutex> turn(m_Turn);
      if (m_Context != nullptr) body();
    }
    m_Settle();
  }

  // There is something to write: it is written before this returns, or by whoever has the turn now.
  void Demand() {
    m_Demanded = true;
    m_Settle();
  }

  // The same for a thread that does not mind if the service thread writes it a moment later, together with what others
  // have queued: if that is awake, it does so before it sleeps again.
  void DemandSoon() {
    m_Demanded = true;
    if (!m_Awake) m_Settle();
  }

  // Service thread: sleeps in the poller.
  CNiraIpcPoller::Ready Wait(std::optional<CNiraIpcPoller::Clock::time_point> deadline);

  // Service thread: writes what others have left to it. To be called now and then while it is awake.
  void Settle() { m_Settle(); }

  // With the turn: lets libwebsockets handle what the poller has found about one descriptor.
  void ServiceDescriptor(int descriptor, uint32_t events);

  // With the turn: lets libwebsockets look after all its descriptors and timers. For what happens seldom: it asks the
  // kernel about every one.
  void ServiceAll();

  // Service thread: sleeps in libwebsockets until something happens, and handles it. Until the first UsePoller.
  void ServiceInside();

  // Service thread: from now on it sleeps in the poller.
  void UsePoller();
  CNiraIpcPoller& Poller() { return m_Poller; }

  // Service thread: closes every connection, with its closing callbacks, and frees the context.
  void DestroyContext();

  // Wakes the service thread.
  void Wake();

  // Ends the loop and waits for the thread. On the service thread itself it only ends the loop.
  void Stop();

  bool IsStopping() const { return m_Stopping.load(); }
  bool IsServiceThread() const { return m_ServiceThreadId.load() == std::this_thread::get_id(); }

  // With the turn, or before the service thread starts.
  lws_context* Context() const { return m_Context; }

 private:
  class Running;

  void m_Settle();

  const std::function<void()> m_OnDemand;
  std::atomic<bool> m_Stopping{false};
  std::atomic<bool> m_Demanded{false};
  std::atomic<bool> m_Awake{false};  // the service thread will look at m_Demanded before it sleeps
  std::atomic<std::thread::id> m_ServiceThreadId{};
  std::shared_ptr<CNiraIpcCallbackGate> m_Gate;  // constant once the thread has started
  CNiraIpcPoller m_Poller;

  std::mutex m_Turn;
  lws_context* m_Context = nullptr;  // guarded by the turn

  std::mutex m_WakeLock;
  lws_context* m_SleepsInside = nullptr;  // guarded by m_WakeLock: the context that the service thread sleeps in

  std::mutex m_JoinLock;  // several threads may stop one loop
  std::thread m_Thread;
};

#endif  // NIRA_IPC_LOOP_H
