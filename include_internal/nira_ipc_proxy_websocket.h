// The proxy's transport: a WebSocket client with one connection.
#ifndef NIRA_IPC_PROXY_WEBSOCKET_H
#define NIRA_IPC_PROXY_WEBSOCKET_H

#include <libwebsockets.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ThreadPool.h"
#include "nira_ipc_descriptor.h"
#include "nira_ipc_loop.h"
#include "nira_ipc_message_wait_item.h"
#include "nira_ipc_outgoing_queue.h"
#include "nira_ipc_proxy_intf.h"

// Application threads and workers connect, disconnect and send; what they send they write themselves, with the loop's
// turn. A thread that waits for a reply reads the connection, unless another one does so already. The service thread
// makes the connection attempts, reads while nobody waits, and times asynchronous calls out. None of them runs a
// callback: everything unasked, and every completion of an asynchronous call, goes to the pool.
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
  bool SendMessage(const char* requestType, const std::string& request, std::string& reply) override;
  void SendMessageAsync(CRequestAsyncData* data) override;
  bool SendRequest(const char* requestType, const std::string& request, CNiraIpcMessage& reply) override;
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

  // One connection, from the attempt to its end. Its threads share it: one that still waits may see the next begin.
  struct Link : std::enable_shared_from_this<Link> {
    CNiraIpcProxyWebsocket& transport;
    const std::shared_ptr<CNiraIpcLoop> loop;

    // Guarded by the turn.
    lws* wsi = nullptr;   // the connection, or the attempt at one
    int descriptor = -1;  // once it is established
    uint32_t armed = 0;   // what the service thread's poller watches
    bool isLed = false;   // somebody reads it: a thread that waits for a reply, or just now the service thread
    bool isClosed = false;
    bool mustTellOfEnd = false;         // nobody has acted upon it yet
    std::string received;               // the message that is being assembled
    std::vector<std::string> messages;  // those that are complete, to be acted upon after the turn

    // The descriptor again, for the threads that wait on it: this one stays theirs when libwebsockets closes its own.
    // Constant once established.
    CNiraIpcDescriptor socket;

    std::atomic<size_t> backlog{0};     // what unasked messages hold until they are processed
    std::atomic<bool> isPaused{false};  // the service thread does not read, because that was too much

    explicit Link(CNiraIpcProxyWebsocket& aTransport);
  };
  using LinkPtr = std::shared_ptr<Link>;

  // What a thread has read, and acts upon after the turn.
  struct Batch {
    std::vector<std::string> messages;
    bool isClosed = false;
  };

  static int t_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in, size_t len);
  static bool t_RunCompletion(const std::shared_ptr<CNiraIpcCallbackGate>& gate, Completions& completions);

  bool m_ConnectWebsocket(int port, const char* app_id);
  bool m_CreateContext(const LinkPtr& link);
  bool m_AwaitConnected(Link& link);
  void m_DisconnectWebsocket();
  void m_ServiceThread(Link& link);
  void m_ServeUntilStopped(Link& link);
  void m_Serve(Link& link, uint32_t events);
  void m_Attempt(Link& link);
  int m_WebSocketCbFunction(Link& link, lws* wsi, lws_callback_reasons reason, void* in, size_t len);
  int m_OnEstablished(Link& link);
  void m_OnLinkClosed(Link& link);
  int m_OnReceive(Link& link, const char* in, size_t len);
  void m_OnWritable(Link& link);
  void m_WriteMessageToLWS(Link& link);
  void m_Arm(Link& link);
  void m_Read(Link& link, uint32_t events, Batch& batch);
  void m_ActUpon(Link& link, Batch& batch);
  void m_Lead(Link& link, int key);
  void m_EndLead(Link& link, int key);
  void m_CloseConnection();

  void OnOpen();
  void OnClose();
  void OnError();
  void OnMessage(Link& link, std::string&& text);
  void m_OnMessage(Link& link, std::string&& text);
  void m_PostMessage(Link& link, CNiraIpcMessage&& message);
  void m_TakeFromBacklog(Link& link, size_t bytes);
  void m_PostEvent(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, const char* text);

  bool IsRun();
  void SetIsConnected(bool connected);
  bool m_SetMessageQueue(Link& link, std::string&& message, bool mayWait);
  size_t m_CountQueued();
  std::string m_GetMessageQueue();
  std::string m_ConvertJsonValueToString(const Json::Value& value);

  static void m_SendMessageAsync(CRequestAsyncData* data, CNiraIpcProxyWebsocket* transport);
  static std::string m_MakeEnvelope(const char* requestType, const std::string& request, int key, uint32_t now,
                                    const std::string& caller);
  LinkPtr m_MaySend(std::string& caller);
  int m_CreateKey(uint32_t now, const MessageWaitItems::Completion& completion);
  bool m_QueueRequest(const char* requestType, const std::string& request,
                      const MessageWaitItems::Completion& completion, int& key, LinkPtr& link);
  void m_AwaitReply(Link& link, int key);
  void m_SetLed(Link& link);
  void m_OnAsyncReply(const std::shared_ptr<CRequestAsyncData>& record, CNiraIpcMessage& reply);
  void m_Complete(const std::shared_ptr<CRequestAsyncData>& record, std::string reply);
  void m_RunCompletionsHere();

  static ThreadPool& m_ThreadPool;
  static const ThreadPool::StopAtExit m_StopThreadPool;

  // Constant while a service thread runs; libwebsockets keeps pointers to them.
  lws_protocols m_Protocols[2] = {};
  lws_context_creation_info m_ContextInfo = {};
  int m_nPort = 0;

  std::atomic<bool> m_bTimerSet{false};    // the service thread knows when the next asynchronous call times out
  std::atomic<bool> m_bOverflowed{false};  // the server has left more than the bound unread, or cannot be written

  std::mutex m_Mutex;
  std::condition_variable m_StateChanged;
  Phase m_Phase = Phase::kIdle;  // guarded by m_Mutex, as all below
  std::string m_strAppId;
  bool m_bRun = false;        // the service thread is to go on
  bool m_bConnected = false;  // from established to disconnect, also after the server closed
  bool m_bClosedByServer = false;
  bool m_bAttemptWanted = false;
  unsigned m_nSeed;  // for the requests' keys
  CNiraIpcOutgoingQueue m_MessageQueue;
  LinkPtr m_Link;  // null when idle

  MessageWaitItems m_WaitItems;  // synchronises itself
  const std::shared_ptr<Completions> m_Completions = std::make_shared<Completions>();
};

#endif  // NIRA_IPC_PROXY_WEBSOCKET_H
