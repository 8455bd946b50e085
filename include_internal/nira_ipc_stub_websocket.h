// The stub's transport: a WebSocket server on one TCP port.
#ifndef NIRA_IPC_STUB_WEBSOCKET_H
#define NIRA_IPC_STUB_WEBSOCKET_H

#include <libwebsockets.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ThreadPool.h"
#include "nira_ipc_descriptor.h"
#include "nira_ipc_loop.h"
#include "nira_ipc_outgoing_queue.h"
#include "nira_ipc_stub_intf.h"

// The service thread accepts connections, brings them through the handshake, and tells of those that opened and closed.
// An established connection is the workers': one that is idle reads it, processes the first message, leaves the others
// to the pool, and writes the reply. Any thread may send. All of them call libwebsockets with the loop's turn.
//
// m_Lock guards the table of connections and what each has queued; it is held for one push or pop, never while
// libwebsockets, the registry or a callback is called.
class CNiraIpcStubWebsocket : public INiraIpcStub {
 public:
  CNiraIpcStubWebsocket();
  ~CNiraIpcStubWebsocket() override;

  bool Start(int port) override;

  // Ends the service and waits for it: every connection is dropped, each with its close event. Called on the service
  // thread, inside an event, it only begins the end.
  void Stop() override;

  void SendJson(void* handle, const Json::Value& json) override;
  void SendJsonWithHeader(void* handle, const char* header, const Json::Value& json) override;
  void SendText(void* handle, std::string&& text) override;

  // The registration watch: notices that a connection has not registered, and has it disconnected. Nothing starts it by
  // itself. m_RunIntervalThread blocks for so many milliseconds and then checks; for a thread of the caller's.
  void m_CheckClientRegister(void* handle, int ms);
  void m_RunIntervalThread(void* handle, int ms);

 private:
  struct Connection final : ThreadPool::Watcher {
    CNiraIpcStubWebsocket& stub;
    const std::shared_ptr<CNiraIpcCallbackGate> gate;
    std::weak_ptr<Connection> self;
    void* const handle;

    // Guarded by the turn.
    lws* wsi;  // null once it has closed
    const int descriptor;
    uint64_t watch = 0;     // among the workers' descriptors, once the application was told that it opened
    uint32_t armed = 0;     // what they watch for
    bool isServed = false;  // one of them reads it, and will arm it when it is through
    std::string received;   // the message that is being assembled
    bool isEnding = false;  // libwebsockets is closing it, which may take its time

    // Guarded by m_Lock.
    CNiraIpcOutgoingQueue outgoing;
    bool needsService = false;  // it is in m_ToService

    std::atomic<bool> overflowed{false};         // it has left more than the bound unread, or cannot be written
    std::atomic<bool> foundUnregistered{false};  // by the watch
    std::atomic<size_t> backlog{0};              // what its requests hold until they are processed
    std::atomic<bool> readingPaused{false};      // because that was too much

    Connection(CNiraIpcStubWebsocket& aStub, void* aHandle, lws* aWsi)
        : stub(aStub), gate(aStub.Gate()), handle(aHandle), wsi(aWsi), descriptor(lws_get_socket_fd(aWsi)) {}
    void OnReady(uint32_t events) override;
  };
  using ConnectionPtr = std::shared_ptr<Connection>;

  // What happened while a thread had the turn, to be acted upon after it.
  struct Event {
    enum Kind { kOpen, kMessage, kClose } kind;
    ConnectionPtr connection;
    std::string text;
  };
  using Events = std::vector<Event>;

  static int t_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);
  static void INT_HANDLER(int signal);

  void m_SetWebSocketProtocol(const char* name);
  void m_SetWebSocketInfo();
  bool m_SetWebSocketContext();
  int m_Listen(bool onAllInterfaces);
  void m_ServiceThread();
  void m_HandleReady(uint64_t id);
  void m_Accept();
  bool m_IsFull(int descriptor) const;
  bool m_MustLook() const;
  int m_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);

  void m_OnEstablished(lws* wsi, ConnectionPtr** slot);  // slot: libwebsockets' room for our pointer
  void m_OnClosed(ConnectionPtr** slot);
  int m_OnReceive(const ConnectionPtr& connection, const char* data, size_t length);
  int m_OnWriteable(const ConnectionPtr& connection);
  int m_Ending(Connection& connection);
  int m_CheckUnregistered(const ConnectionPtr& connection);

  void m_ReadConnection(const ConnectionPtr& connection, uint32_t events);
  void m_ServiceConnection(Connection& connection, uint32_t events);
  bool m_IsMoreThere(const Connection& connection) const;
  void m_Arm(Connection& connection);
  void m_WriteQueued();
  void m_WriteConnection(Connection& connection);
  void m_TakeMessages(Events& messages);
  void m_Deliver(Events& messages);
  void m_DeliverHere(Event& event);

  void OnOpen(void* handle);
  void OnClose(void* handle);
  void OnMessage(std::string&& text, const ConnectionPtr& connection);
  void m_ProcessMessage(std::string&& text, const ConnectionPtr& connection);
  void t_ThreadMessage(std::string&& text, void* handle);

  int m_SendMessage(void* handle, std::string&& text);
  int m_WebSocketWriteBack(void* handle, std::string&& text);
  void m_NeedsService(const ConnectionPtr& connection);
  void m_TakeFromBacklog(const ConnectionPtr& connection, size_t bytes);

  static ThreadPool& m_ThreadPool;
  static const ThreadPool::StopAtExit m_StopThreadPool;
  static std::atomic<int> destroy_flag;  // a SIGINT came: every stub of the process ends its service

  // Set before the service thread starts, constant from then on; libwebsockets keeps pointers to them.
  int m_nPort = 0;
  lws_protocols m_Protocols[2] = {};
  lws_context_creation_info m_ContextInfo = {};

  std::shared_ptr<CNiraIpcLoop> m_Loop;
  CNiraIpcDescriptor m_Listener;   // service thread only, as the next
  bool m_bListenerPaused = false;  // no descriptors were left to accept with

  // Guarded by the turn.
  unsigned m_nSockets = 0;      // of the context, clients' and others
  unsigned m_nOwnSockets = 0;   // those others
  unsigned m_nEstablished = 0;  // connections that are through the handshake and not ending
  uintptr_t m_nLastHandle = 0;
  Events m_Events;  // those about connections wait here for the service thread

  std::mutex m_Lock;
  std::unordered_map<void*, ConnectionPtr> m_Connections;  // guarded by m_Lock
  std::vector<ConnectionPtr> m_ToService;                  // guarded by m_Lock: those that have something queued
};

#endif  // NIRA_IPC_STUB_WEBSOCKET_H
