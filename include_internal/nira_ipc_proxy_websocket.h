// The proxy's transport: a WebSocket client with one connection.
#ifndef NIRA_IPC_PROXY_WEBSOCKET_H
#define NIRA_IPC_PROXY_WEBSOCKET_H

#include <libwebsockets.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

#include "ThreadPool.h"
#include "nira_ipc_loop.h"
#include "nira_ipc_message_wait_item.h"
#include "nira_ipc_outgoing_queue.h"
#include "nira_ipc_proxy_intf.h"

// Application threads and workers connect, disconnect and send. The service thread owns the socket: it makes the
// connection attempts, writes what is queued, assembles incoming messages, matches replies to the requests that wait
// for them, and times asynchronous calls out; it runs no callback. Everything unasked, and every completion of an
// asynchronous call, goes to the pool.
//
// m_Mutex guards the state of the connection and the outgoing queue. It is never held while libwebsockets, the wait
// table or a callback is called.
class CNiraIpcProxyWebsocket : public INiraIpcProxy {
 public:
  CNiraIpcProxyWebsocket();
  ~CNiraIpcProxyWebsocket() override;

  bool SetConnect(int port, const char* app_id) override;
  void SetDisconnect() override;
  bool IsConnected() override;
  bool SendMessage(const char* requestType, Json::Value& request, std::string& reply) override;
  void SendMessageAsync(CRequestAsyncData* data) override;
  bool SendRequest(const char* requestType, Json::Value& request, Json::Value& reply) override;
  void TearDown() override;

 private:
  enum class Phase { kIdle, kConnecting, kUp, kDisconnecting };

  // Completed asynchronous calls whose callbacks have still to run. Shared with the tasks of the pool that run them:
  // the thread that frees the proxy may have run them all before those tasks begin.
  struct Completions {
    struct Entry {
      std::shared_ptr<CRequestAsyncData> record;
      std::string reply;
    };
    std::mutex lock;
    std::deque<Entry> entries;  // guarded by lock
  };

  static int t_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);
  static void t_OnTimer(lws_sorted_usec_list_t* timer);
  static bool t_RunCompletion(const std::shared_ptr<CNiraIpcCallbackGate>& gate, Completions& completions);

  bool m_ConnectWebsocket(int port, const char* app_id);
  bool m_CreateContext();
  bool m_AwaitConnected();
  void m_DisconnectWebsocket();
  void m_ServiceThread();
  void m_Attempt();
  int m_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* in, size_t len);
  void m_OnEstablished(lws* wsi);
  void m_OnAttemptEnded(const lws* wsi);
  int m_OnReceive(lws* wsi, const char* in, size_t len);
  void m_OnWritable();
  void m_OnWoken();
  void m_WriteMessageToLWS();
  void m_SetTimer();
  void m_CloseConnection();

  void OnOpen();
  void OnClose();
  void OnError();
  void OnMessage(std::string&& text);
  void m_OnMessage(std::string&& text);
  void m_Post(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, std::string text);

  bool IsRun();
  void SetIsConnected(bool connected);
  bool m_SetMessageQueue(const std::string& message);
  std::string m_GetMessageQueue();
  std::string m_ConvertJsonValueToString(const Json::Value& value);

  bool m_SendMessage(const char* requestType, Json::Value& request, Json::Value& reply);
  static void m_SendMessageAsync(CRequestAsyncData* data, CNiraIpcProxyWebsocket* transport);
  bool m_MaySend(std::string& caller);
  int m_CreateKey(uint32_t now, const MessageWaitItems::Completion& completion);
  bool m_QueueRequest(const char* requestType, Json::Value& request, const MessageWaitItems::Completion& completion,
                      int& key);
  void m_OnAsyncReply(const std::shared_ptr<CRequestAsyncData>& record, const Json::Value& reply);
  void m_Complete(const std::shared_ptr<CRequestAsyncData>& record, std::string reply);
  void m_RunCompletionsHere();

  static ThreadPool& m_ThreadPool;
  static const ThreadPool::StopAtExit m_StopThreadPool;

  // Constant while a service thread runs; libwebsockets keeps pointers to them.
  lws_protocols m_Protocols[2] = {};
  lws_context_creation_info m_ContextInfo = {};
  int m_nPort = 0;

  // Service thread only.
  lws* m_pWsi = nullptr;  // the connection, or the attempt at one
  std::string m_strReceived;
  struct Timer {
    lws_sorted_usec_list_t sul;  // first: libwebsockets hands back its address
    CNiraIpcProxyWebsocket* transport;
    bool isSet;
  } m_Timer = {};

  std::mutex m_Mutex;
  std::condition_variable m_StateChanged;
  Phase m_Phase = Phase::kIdle;  // guarded by m_Mutex, as all below
  std::string m_strAppId;
  bool m_bRun = false;        // the service thread is to go on
  bool m_bConnected = false;  // from established to disconnect, also after the server closed
  bool m_bClosedByServer = false;
  bool m_bAttemptWanted = false;
  bool m_bOverflowed = false;  // the server has left more than the bound unread
  bool m_bWoken = false;       // the service thread has been woken and has not looked yet
  unsigned m_nSeed;            // for the requests' keys
  CNiraIpcOutgoingQueue m_MessageQueue;
  std::shared_ptr<CNiraIpcLoop> m_Loop;  // null when idle

  MessageWaitItems m_WaitItems;  // synchronises itself
  const std::shared_ptr<Completions> m_Completions = std::make_shared<Completions>();
};

#endif  // NIRA_IPC_PROXY_WEBSOCKET_H
