// The stub's transport: a WebSocket server on one TCP port.
#ifndef NIRA_IPC_STUB_WEBSOCKET_H
#define NIRA_IPC_STUB_WEBSOCKET_H

#include <libwebsockets.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "ThreadPool.h"
#include "nira_ipc_loop.h"
#include "nira_ipc_outgoing_queue.h"
#include "nira_ipc_stub_intf.h"

// The service thread owns the sockets: it assembles each connection's messages, hands them to the pool, and writes what
// any thread has queued, one message for each writeable event, in the order queued. Workers process messages; any
// thread may send. m_Lock guards the table of connections and what each has queued; it is held for one push or pop,
// never while libwebsockets, the registry or a callback is called.
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

  // The registration watch: notices that a connection has not registered, and has it disconnected. Nothing starts it by
  // itself. m_RunIntervalThread blocks for so many milliseconds and then checks; for a thread of the caller's.
  void m_CheckClientRegister(void* handle, int ms);
  void m_RunIntervalThread(void* handle, int ms);

 private:
  struct Connection {
    void* const handle;

    // Service thread only.
    lws* wsi;
    std::string received;  // the message that is being assembled

    // Guarded by m_Lock.
    CNiraIpcOutgoingQueue outgoing;
    bool overflowed = false;         // it has left more than the bound unread
    bool foundUnregistered = false;  // by the watch
    bool needsService = false;       // it is in m_ToService
    size_t backlog = 0;              // what its requests hold until they are processed
    bool readingPaused = false;      // because that was too much

    Connection(void* aHandle, lws* aWsi) : handle(aHandle), wsi(aWsi) {}
  };
  using ConnectionPtr = std::shared_ptr<Connection>;

  static int t_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);
  static void INT_HANDLER(int signal);

  void m_SetWebSocketProtocol(const char* name);
  void m_SetWebSocketInfo();
  bool m_SetWebSocketContext();
  void m_ServiceThread();
  int m_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);

  void m_OnEstablished(lws* wsi, ConnectionPtr** slot);  // slot: libwebsockets' room for our pointer
  void m_OnClosed(ConnectionPtr** slot);
  int m_OnReceive(const ConnectionPtr& connection, const char* data, size_t length);
  int m_OnWriteable(const ConnectionPtr& connection);
  int m_CheckUnregistered(const ConnectionPtr& connection);
  void m_OnWoken();
  void m_ServiceConnection(Connection& connection);
  bool m_MayAccept(int descriptor) const;

  void OnOpen(void* handle);
  void OnClose(void* handle);
  void OnMessage(std::string&& text, const ConnectionPtr& connection);
  void t_ThreadMessage(const std::string& text, void* handle);

  int m_SendMessage(void* handle, const std::string& text);
  int m_WebSocketWriteBack(void* handle, const char* text, int length);
  ConnectionPtr m_FindConnection(void* handle);
  bool m_NeedsService(const ConnectionPtr& connection);
  void m_AddToBacklog(const ConnectionPtr& connection, size_t bytes);
  void m_TakeFromBacklog(const ConnectionPtr& connection, size_t bytes);

  static ThreadPool& m_ThreadPool;
  static const ThreadPool::StopAtExit m_StopThreadPool;
  static std::atomic<int> destroy_flag;  // a SIGINT came: every stub of the process ends its service

  // Set before the service thread starts, constant from then on; libwebsockets keeps pointers to them.
  int m_nPort = 0;
  lws_protocols m_Protocols[2] = {};
  lws_context_creation_info m_ContextInfo = {};

  std::shared_ptr<CNiraIpcLoop> m_Loop = std::make_shared<CNiraIpcLoop>();

  // Service thread only.
  unsigned m_nSockets = 0;     // of the context, clients' and others
  unsigned m_nOwnSockets = 0;  // those others
  uintptr_t m_nLastHandle = 0;

  std::mutex m_Lock;
  std::unordered_map<void*, ConnectionPtr> m_Connections;  // guarded by m_Lock
  std::vector<ConnectionPtr> m_ToService;                  // guarded by m_Lock: what the service thread has to look at
};

#endif  // NIRA_IPC_STUB_WEBSOCKET_H
