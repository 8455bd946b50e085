// One libwebsockets context and the service thread that owns it, for a proxy or a stub.
//
// libwebsockets allows one call from other threads, lws_cancel_service, and only while the context lives; everything
// else happens on the service thread. So whoever changes something for the service thread to see calls Wake, and
// Wake and the context's end share a lock. Nothing here polls: libwebsockets 4.1 sleeps until an event comes, whatever
// time-out it is given, and so does the thread of a loop that has no context.
//
// Any thread may call Wake, Stop, IsStopping; a loop runs once.
#ifndef NIRA_IPC_LOOP_H
#define NIRA_IPC_LOOP_H

#include <libwebsockets.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include "nira_ipc_callback_gate.h"

class CNiraIpcLoop : public std::enable_shared_from_this<CNiraIpcLoop> {
 public:
  ~CNiraIpcLoop();

  // Creates the context from `info`, to which it adds what makes libwebsockets a good guest in the application's
  // process. False when libwebsockets refuses.
  bool CreateContext(lws_context_creation_info& info);

  // Starts the service thread, which runs `body`. If the process exits while it runs, `gate` is abandoned first and the
  // loop then stopped, before the application's static objects are destroyed.
  void StartThread(const char* name, std::shared_ptr<CNiraIpcCallbackGate> gate, std::function<void()> body);

  // Service thread: waits for events and handles them. False when the loop has to end.
  bool Service();

  // Service thread: closes every connection, with its closing callbacks, and frees the context.
  void DestroyContext();

  // Makes the service thread look around: EVENT_WAIT_CANCELLED comes to the protocol's callback.
  void Wake();

  // Ends the loop and waits for the thread. On the service thread itself it only ends the loop.
  void Stop();

  bool IsStopping() const { return m_Stopping.load(); }
  bool IsServiceThread() const { return m_ServiceThreadId.load() == std::this_thread::get_id(); }

  // Service thread, or before it starts.
  lws_context* Context() const { return m_Context; }

 private:
  class Running;

  std::atomic<bool> m_Stopping{false};
  std::atomic<std::thread::id> m_ServiceThreadId{};
  std::shared_ptr<CNiraIpcCallbackGate> m_Gate;  // constant once the thread has started

  std::mutex m_ContextLock;           // guards m_Context against a Wake that comes while it is destroyed
  std::condition_variable m_Stopped;  // what a loop without context sleeps on
  lws_context* m_Context = nullptr;

  std::mutex m_JoinLock;  // several threads may stop one loop
  std::thread m_Thread;
};

#endif  // NIRA_IPC_LOOP_H
