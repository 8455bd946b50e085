// Client transport. How a call comes and goes:
//
//   caller: key, wait item, text into the queue, written with the turn -> reads the connection until its reply is
//     there, or sleeps on its item while another caller reads (an asynchronous caller goes its way)
//   reader: assemble with the turn -> match the key -> wake that caller, or hand the completion to the pool
//   whoever the message is for: make its values, if they are wanted
//
// Every request is answered exactly once: by its reply, by its time-out (the waiting caller's clock, or for
// asynchronous calls the service thread's), or by the end of the connection, whichever takes its item from the
// table first. OnClose answers all that wait, after it has set m_bClosedByServer; a request enters the table before it
// looks at that flag. So none slips between.
#include "nira_ipc_proxy_websocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "nira_ipc_guard.h"
#include "nira_ipc_json.h"
#include "nira_ipc_limits.h"
#include "nira_ipc_log.h"
#include "nira_ipc_util.h"

#define TAG NIRA_IPC_TAG_PROXY

namespace {

constexpr unsigned kWorkers = 10;
constexpr size_t kReceiveBufferBytes = 100000;
constexpr unsigned kDescriptors = 8;  // one connection, the wake-up, and some to spare

constexpr size_t kMessagesBetweenWrites = 8;  // while many are read at once

constexpr uint64_t kConnection = 1;  // what the service thread's poller reports

// What the server sees in the handshake. The address itself is a number: a resolver could block for seconds.
constexpr const char* kHost = "localhost";
constexpr const char* kAddress = "127.0.0.1";

// An idle connection stays up: no pings, no hang-up. Kept by pointer.
const lws_retry_bo_t kNoIdleHangUp = {nullptr, 0, 0, 0, 0, 0};

}  // namespace

// Made when the library is loaded and never destroyed: threads of the application may still call while the process
// exits. Its workers are joined then, after the loops have ended and before the application's static objects go.
ThreadPool& CNiraIpcProxyWebsocket::m_ThreadPool = *new ThreadPool(kWorkers, "nira-prox-w");
const ThreadPool::StopAtExit CNiraIpcProxyWebsocket::m_StopThreadPool(m_ThreadPool);

CNiraIpcProxyWebsocket::CNiraIpcProxyWebsocket() : m_nSeed(static_cast<unsigned>(time(nullptr))) {
  static const ThreadPool::StopAtExit stopBeforeStatics(m_ThreadPool);
  (void)stopBeforeStatics;
  m_Protocols[0].name = "";  // asks for no sub-protocol; libwebsockets reads the name, so it cannot be null
  m_Protocols[0].callback = t_WebSocketCbFunction;
  m_Protocols[0].rx_buffer_size = kReceiveBufferBytes;
  m_Protocols[0].tx_packet_size = kNiraIpcWriteBytes;
}

CNiraIpcProxyWebsocket::~CNiraIpcProxyWebsocket() {
  NIRA_IPC_LOG_INFO(TAG, "~CNiraIpcProxyWebsocket");
  CNiraIpcProxyWebsocket::TearDown();
}

bool CNiraIpcProxyWebsocket::SetConnect(int port, const char* app_id) {
  return m_ConnectWebsocket(port, app_id);
}

bool CNiraIpcProxyWebsocket::m_ConnectWebsocket(int port, const char* app_id) {
  NIRA_IPC_LOG_INFO(TAG, "m_ConnectWebsocket port(%d), app_id(%s)", port, app_id);
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Phase != Phase::kIdle) {
      NIRA_IPC_LOG_ERROR(TAG, "this proxy is connected or was not disconnected yet");
      return false;
    }
    m_strAppId = app_id;
    m_Phase = Phase::kConnecting;
    m_bRun = true;
    m_bClosedByServer = m_bOverflowed = m_bAttemptWanted = false;
    m_MessageQueue.Clear();
  }
  const bool connected = NiraIpcGuarded(TAG, "connect", false, [this, port] {
    m_ThreadPool.StartWorkers();
    m_nPort = port;
    const auto link = std::make_shared<Link>(*this);
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      m_Link = link;
    }
    return m_CreateContext(link) && m_AwaitConnected(*link);
  });
  if (!connected) m_DisconnectWebsocket();
  return connected;
}

CNiraIpcProxyWebsocket::Link::Link(CNiraIpcProxyWebsocket& aTransport)
    : transport(aTransport), loop(std::make_shared<CNiraIpcLoop>([this] { transport.m_OnWritable(*this); })) {}

bool CNiraIpcProxyWebsocket::m_CreateContext(const LinkPtr& link) {
  m_ContextInfo = {};
  m_ContextInfo.port = CONTEXT_PORT_NO_LISTEN;
  m_ContextInfo.protocols = m_Protocols;
  m_ContextInfo.fd_limit_per_thread = kDescriptors;
  m_ContextInfo.user = link.get();
  NIRA_IPC_LOG_INFO(TAG, "lws_create_context start");
  if (m_nPort < 1 || m_nPort > 65535 || !link->loop->CreateContext(m_ContextInfo)) {
    NIRA_IPC_LOG_ERROR(TAG, "wsi activate ERROR.[context == NULL]");
    return false;
  }
  link->loop->StartThread("nira-prox-svc", Gate(), [this, link] { m_ServiceThread(*link); });
  return true;
}

// Each step is an attempt, unless the one before is still under way: a service that begins to listen meanwhile is
// found, and one that is slow to answer is not given up.
bool CNiraIpcProxyWebsocket::m_AwaitConnected(Link& link) {
  const auto start = std::chrono::steady_clock::now();
  std::unique_lock<std::mutex> lock(m_Mutex);
  for (int attempt = 0; attempt < kNiraIpcConnectAttempts && m_bRun; ++attempt) {
    if (!m_bConnected) {
      NIRA_IPC_LOG_ERROR(TAG, "[%d] Retry in %d ms.", attempt, static_cast<int>(kNiraIpcConnectStep.count()));
      m_bAttemptWanted = true;
      lock.unlock();
      link.loop->Wake();
      lock.lock();
      m_StateChanged.wait_until(lock, start + (attempt + 1) * kNiraIpcConnectStep,
                                [this] { return m_bConnected || !m_bRun; });
    }
    if (m_bConnected && m_bRun) {
      NIRA_IPC_LOG_INFO(TAG, "Connected.");
      m_Phase = Phase::kUp;
      return true;
    }
  }
  return false;
}

void CNiraIpcProxyWebsocket::SetDisconnect() {
  if (!IsConnected()) return;
  NIRA_IPC_LOG_ERROR(TAG, "SetDisconnect  m_DisconnectWebsocket");
  m_DisconnectWebsocket();
}

// Ends whatever there is of a connection. Of several threads that do so at once, one does it and the others wait; a
// connect that is under way gives up.
void CNiraIpcProxyWebsocket::m_DisconnectWebsocket() {
  LinkPtr link;
  {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_StateChanged.wait(lock, [this] { return m_Phase != Phase::kDisconnecting; });
    if (m_Phase == Phase::kIdle) return;
    m_Phase = Phase::kDisconnecting;
    m_bRun = m_bConnected = false;
    link = m_Link;
    m_StateChanged.notify_all();
  }
  NIRA_IPC_LOG_INFO(TAG, "wsi Disconnect start");
  if (link != nullptr) link->loop->Stop();
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Link.reset();
    m_Phase = Phase::kIdle;
    m_StateChanged.notify_all();
  }
  NIRA_IPC_LOG_INFO(TAG, "wsi Disconnect end");
}

void CNiraIpcProxyWebsocket::TearDown() {
  m_DisconnectWebsocket();
  m_RunCompletionsHere();
  Gate()->CloseAndWait();
}

bool CNiraIpcProxyWebsocket::IsConnected() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  NIRA_IPC_LOG_DEBUG(TAG, "IsConnected = %d", m_bConnected);
  return m_bConnected;
}

bool CNiraIpcProxyWebsocket::IsRun() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_bRun;
}

void CNiraIpcProxyWebsocket::SetIsConnected(bool connected) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  m_bConnected = connected && m_bRun;
  if (m_bConnected) m_bClosedByServer = false;
  NIRA_IPC_LOG_INFO(TAG, "SetIsConnected = %d", connected);
  m_StateChanged.notify_all();
}

void CNiraIpcProxyWebsocket::m_ServiceThread(Link& link) {
  NIRA_IPC_LOG_INFO(TAG, "[Main] lws_service start");
  bool isEstablished = false;
  while (!link.loop->IsStopping() && !isEstablished) {
    link.loop->ServiceInside();
    link.loop->WithTurn([&] { isEstablished = link.descriptor >= 0 || link.isClosed; });
  }
  link.loop->UsePoller();
  m_ServeUntilStopped(link);
  link.loop->DestroyContext();
  m_CloseConnection();  // if it ended without a close event
  NIRA_IPC_LOG_INFO(TAG, "[Main] lws_service end");
}

void CNiraIpcProxyWebsocket::m_ServeUntilStopped(Link& link) {
  m_Serve(link, 0);  // it may have ended already
  while (!link.loop->IsStopping()) {
    m_bTimerSet = false;  // before the look: a call that comes after it wakes this thread
    const auto nextTimeout = m_WaitItems.NextTimeout();
    if (nextTimeout) m_bTimerSet = true;
    const CNiraIpcPoller::Ready ready = link.loop->Wait(nextTimeout);
    if (ready.id == CNiraIpcPoller::kTimedOut) m_WaitItems.AnswerTimedOut(MessageWaitItems::Clock::now());
    if (ready.id == kConnection) m_Serve(link, ready.events);
  }
}

// The service thread takes the lead for as long as it reads. A caller may have come since it was woken, and waits in
// the kernel for its reply: if that were read here, nothing would wake it.
void CNiraIpcProxyWebsocket::m_Serve(Link& link, uint32_t events) {
  Batch batch;
  bool leads = false;
  link.loop->WithTurn([&] {
    leads = m_WaitItems.TryLead();
    link.isLed = true;
    link.armed = 0;
    if (leads || (events & EPOLLOUT) != 0) m_Read(link, leads ? events : EPOLLOUT, batch);
    if (!leads) m_Arm(link);
  });
  m_ActUpon(link, batch);
  if (leads) m_EndLead(link, MessageWaitItems::kNoKey);
}

// Begins an attempt at a connection if one is wanted and none is under way.
void CNiraIpcProxyWebsocket::m_Attempt(Link& link) {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_bAttemptWanted || m_bConnected || link.wsi != nullptr) return;
    m_bAttemptWanted = false;
  }
  lws_client_connect_info info = {};
  info.context = link.loop->Context();
  info.address = kAddress;
  info.port = m_nPort;
  info.path = "/";
  info.host = kHost;
  info.origin = kHost;
  info.local_protocol_name = m_Protocols[0].name;
  info.ietf_version_or_minus_one = -1;
  info.retry_and_idle_policy = &kNoIdleHangUp;
  info.pwsi = &link.wsi;  // set before the first event, and to null if there is none
  NIRA_IPC_LOG_ERROR(TAG, "lws_client_connect_via_info start");
  if (lws_client_connect_via_info(&info) == nullptr) NIRA_IPC_LOG_ERROR(TAG, "wsi create error.");
}

int CNiraIpcProxyWebsocket::t_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                                                  size_t len) {
  if (wsi == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "wsi is NULL");
    return 0;
  }
  lws_context* context = lws_get_context(wsi);
  auto* link = context != nullptr ? static_cast<Link*>(lws_context_user(context)) : nullptr;
  if (link == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "this_ptr is null");
    return 0;
  }
  (void)user;
  constexpr int kClose = -1;  // what cannot be handled, for want of memory, costs the connection
  return NiraIpcGuarded(TAG, "websocket event", kClose,
                        [=] { return link->transport.m_WebSocketCbFunction(*link, wsi, reason, in, len); });
}

int CNiraIpcProxyWebsocket::m_WebSocketCbFunction(Link& link, lws* wsi, lws_callback_reasons reason, void* in,
                                                  size_t len) {
  switch (reason) {
    case LWS_CALLBACK_CLIENT_CONNECTION_ERROR:
      NIRA_IPC_LOG_ERROR(TAG, "[LWS_CALLBACK_CLIENT_CONNECTION_ERROR] connection error (%s)",
                         in != nullptr ? static_cast<const char*>(in) : "");
      break;
    case LWS_CALLBACK_CLIENT_ESTABLISHED:
      NIRA_IPC_LOG_ERROR(TAG, "[LWS_CALLBACK_CLIENT_ESTABLISHED] Connect with server success.");
      return m_OnEstablished(link);
    case LWS_CALLBACK_CLIENT_CLOSED:
    case LWS_CALLBACK_CLOSED:  // what older versions call it
      NIRA_IPC_LOG_ERROR(TAG, "[LWS_CALLBACK_CLOSED] Client disconnected");
      m_OnLinkClosed(link);
      break;
    case LWS_CALLBACK_WSI_DESTROY:  // however an attempt or a connection ends, this comes last, and once
      if (wsi != link.wsi) break;
      if (link.descriptor >= 0) m_OnLinkClosed(link);  // cut so early that libwebsockets reports nothing else
      link.wsi = nullptr;
      break;
    case LWS_CALLBACK_CLIENT_RECEIVE:
      return m_OnReceive(link, static_cast<const char*>(in), len);
    case LWS_CALLBACK_CLIENT_WRITEABLE:
      break;  // libwebsockets is let to write after every read, so this comes often and means nothing
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      m_Attempt(link);
      break;
    case LWS_CALLBACK_PROTOCOL_DESTROY:
      NIRA_IPC_LOG_ERROR(TAG, "[LWS_CALLBACK_PROTOCOL_DESTROY] Destroying web sockets");
      break;
    default:
      break;
  }
  return 0;
}

int CNiraIpcProxyWebsocket::m_OnEstablished(Link& link) {
  const int descriptor = lws_get_socket_fd(link.wsi);
  link.socket.Reset(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  if (!link.socket.IsOpen() || !link.loop->Poller().Add(descriptor, kConnection, 0)) {
    NIRA_IPC_LOG_ERROR(TAG, "no descriptor to watch the connection");
    return -1;
  }
  link.descriptor = descriptor;
  m_Arm(link);
  SetIsConnected(true);
  OnOpen();
  return 0;
}

// Of a connection its reader tells, who may have to act upon messages that came before.
void CNiraIpcProxyWebsocket::m_OnLinkClosed(Link& link) {
  if (link.descriptor < 0) {  // it was refused in the handshake
    OnClose();
    return;
  }
  link.loop->Poller().Remove(link.descriptor);
  shutdown(link.descriptor, SHUT_RDWR);  // there is a second descriptor, and a thread may wait on that
  link.descriptor = -1;
  link.isClosed = link.mustTellOfEnd = true;
}

int CNiraIpcProxyWebsocket::m_OnReceive(Link& link, const char* in, size_t len) {
  NIRA_IPC_LOG_INFO(TAG, "[LWS_CALLBACK_CLIENT_RECEIVE] Received data from the server, length: %d",
                    static_cast<int>(len));
  const size_t remaining = lws_remaining_packet_payload(link.wsi);
  NIRA_IPC_LOG_INFO(TAG, "[LWS_CALLBACK_CLIENT_RECEIVE] remaining size = %d", static_cast<int>(remaining));
  if (remaining > kNiraIpcMaxIncomingMessage || link.received.size() + len + remaining > kNiraIpcMaxIncomingMessage) {
    NIRA_IPC_LOG_ERROR(TAG, "the server sends a message of more than %zu bytes. disconnect",
                       kNiraIpcMaxIncomingMessage);
    return -1;
  }
  if (link.received.empty()) link.received.reserve(len + remaining);  // else it would grow, and be copied, many times
  link.received.append(in, strnlen(in, len));                         // JSON holds no NUL: a piece with one ends there
  if (remaining != 0 || lws_is_final_fragment(link.wsi) == 0) return 0;
  link.messages.push_back(std::exchange(link.received, {}));
  return 0;
}

// With the turn: what the service thread is to be told of. It reads while no caller does, unless too much of what it
// has read waits to be processed; it always sees that a socket which took no more is written again.
void CNiraIpcProxyWebsocket::m_Arm(Link& link) {
  if (link.descriptor < 0) return;
  if (link.backlog > kNiraIpcMaxBacklog) link.isPaused = true;
  // Looked at again: workers that made room before it was set do not come back.
  if (link.isPaused && link.backlog <= kNiraIpcMaxBacklog / 2) link.isPaused = false;
  uint32_t events = link.isLed || link.isPaused ? 0 : EPOLLIN | EPOLLRDHUP;
  if (lws_partial_buffered(link.wsi) != 0) events |= EPOLLOUT;
  if (events == link.armed) return;
  link.armed = events;
  link.loop->Poller().Change(link.descriptor, kConnection, events | EPOLLONESHOT);
}

// With the turn: takes what has come.
void CNiraIpcProxyWebsocket::m_Read(Link& link, uint32_t events, Batch& batch) {
  if (link.descriptor >= 0) link.loop->ServiceDescriptor(link.descriptor, events);
  if ((events & EPOLLOUT) != 0) m_OnWritable(link);
  batch.messages.swap(link.messages);
  batch.isClosed = std::exchange(link.mustTellOfEnd, false);
}

// Without it, for the thread that has read.
void CNiraIpcProxyWebsocket::m_ActUpon(Link& link, Batch& batch) {
  size_t handled = 0;
  for (std::string& message : batch.messages) {
    NiraIpcGuarded(TAG, "message", [&] { OnMessage(link, std::move(message)); });
    if (++handled % kMessagesBetweenWrites == 0) link.loop->Settle();
  }
  if (batch.isClosed) NiraIpcGuarded(TAG, "close", [this] { OnClose(); });
}

// The caller reads the connection until its own request is over, and answers those of others.
void CNiraIpcProxyWebsocket::m_Lead(Link& link, int key) {
  const auto deadline = m_WaitItems.GetDeadline(key);
  while (!m_WaitItems.IsOver(key)) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - MessageWaitItems::Clock::now()).count();
    pollfd polled = {link.socket.Get(), POLLIN | POLLRDHUP, 0};
    if (poll(&polled, 1, static_cast<int>(std::clamp<decltype(left)>(left, 0, INT_MAX))) <= 0) continue;
    Batch batch;
    link.loop->WithTurn([&] { m_Read(link, static_cast<uint32_t>(polled.revents), batch); });
    m_ActUpon(link, batch);
  }
  m_EndLead(link, key);
}

void CNiraIpcProxyWebsocket::m_EndLead(Link& link, int key) {
  bool isDone = false;
  link.loop->WithTurn([&] {
    link.isLed = m_WaitItems.EndLead(key);
    m_Arm(link);
    isDone = true;
  });
  if (!isDone) m_WaitItems.EndLead(key);  // the connection is gone, and its turns
}

void CNiraIpcProxyWebsocket::m_OnWritable(Link& link) {
  NIRA_IPC_LOG_INFO(TAG, "[LWS_CALLBACK_CLIENT_WRITEABLE] Available to send message to server ");
  NIRA_IPC_LOG_INFO(TAG, "m_OnWritable");
  m_WriteMessageToLWS(link);
}

// With the turn: writes one message after the other until none is left or the socket takes no more.
void CNiraIpcProxyWebsocket::m_WriteMessageToLWS(Link& link) {
  const CNiraIpcCork cork(link.descriptor, link.descriptor >= 0 && m_CountQueued() > 1);
  while (link.descriptor >= 0 && lws_partial_buffered(link.wsi) == 0) {
    std::string text = m_GetMessageQueue();
    if (text.empty()) break;
    const char* message = text.c_str() + CNiraIpcOutgoingQueue::kHeadRoom;
    NIRA_IPC_LOG_DEBUG(TAG, "[websocket] send msg = %s", message);
    const int written = NiraIpcWriteText(link.wsi, text);
    NIRA_IPC_LOG_INFO(TAG, "lws_write end, msg: %s, ret %d", message, written);
    if (written < 0) m_bOverflowed = true;
    NIRA_IPC_LOG_DEBUG(TAG, "[websocket] lws_callback_on_writable end!!");
  }
  if (link.descriptor < 0) return;
  if (m_bOverflowed) shutdown(link.descriptor, SHUT_RDWR);  // its reader finds it cut and closes it
  m_Arm(link);
}

void CNiraIpcProxyWebsocket::OnOpen() {
  NIRA_IPC_LOG_ERROR(TAG, "[websocket] open succeed.");
  if (IsRun()) m_PostEvent(NIRA_IPC_PROXY_INTERNAL_CALLBACK_OPEN, "open");
}

void CNiraIpcProxyWebsocket::OnClose() {
  NIRA_IPC_LOG_ERROR(TAG, "[websocket] onClose");
  if (IsRun()) m_PostEvent(NIRA_IPC_PROXY_INTERNAL_CALLBACK_CLOSE, "close");
  m_CloseConnection();
}

// Refuses requests from now on and answers those that wait.
void CNiraIpcProxyWebsocket::m_CloseConnection() {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_bClosedByServer) return;
    m_bClosedByServer = true;
    m_MessageQueue.Clear();
  }
  m_WaitItems.ArrangeAllWaitItem();
}

void CNiraIpcProxyWebsocket::OnError() {
  NIRA_IPC_LOG_ERROR(TAG, "[websocket] onError");
  if (IsRun()) m_PostEvent(NIRA_IPC_PROXY_INTERNAL_CALLBACK_ERROR, "error");
}

void CNiraIpcProxyWebsocket::OnMessage(Link& link, std::string&& text) {
  NIRA_IPC_LOG_INFO(TAG, "[websocket] onMessage IN");
  if (IsRun()) m_OnMessage(link, std::move(text));
}

// A reply is matched here, by the thread that read it, so that a call made inside a callback is answered while every
// worker is busy with one.
void CNiraIpcProxyWebsocket::m_OnMessage(Link& link, std::string&& text) {
  NIRA_IPC_LOG_INFO(TAG, "message received: %s\n", text.c_str());
  CNiraIpcMessage message(std::move(text));
  if (!message.IsJson()) {
    NIRA_IPC_LOG_ERROR(TAG, "parsingSuccessful returns false!! parse error!!");
    return;
  }
  if (!message.IsObject()) {
    NIRA_IPC_LOG_ERROR(TAG, "a message that is no JSON object is dropped");
    return;
  }
  const std::optional<int> key = message.Key();
  NIRA_IPC_LOG_INFO(TAG, "Finding uniqueKey in response from server %d", key.value_or(0));
  if (key && NiraIpcLogWanted(NIRA_PLATFORM_LOG_INFO) && m_WaitItems.IsKeyCreated(*key)) {
    NIRA_IPC_LOG_INFO(TAG, "response of %d, Time elapsed : %u ms", *key,
                      CNiraIpcUtil::GetTimeInMs() - m_WaitItems.GetStartTick(*key));
  }
  if (key && m_WaitItems.SetJsonResponse(*key, std::move(message))) return;
  NIRA_IPC_LOG_INFO(TAG, "Unknown message");
  m_PostMessage(link, std::move(message));  // NOLINT(bugprone-use-after-move): only a reply was moved
}

void CNiraIpcProxyWebsocket::m_PostMessage(Link& link, CNiraIpcMessage&& message) {
  const size_t bytes = message.Text().size() + kNiraIpcMessageOverhead;
  if ((link.backlog += bytes) > kNiraIpcMaxBacklogOfCaller) {
    NIRA_IPC_LOG_ERROR(TAG, "messages of %zu bytes wait to be processed. disconnect", link.backlog.load());
    shutdown(link.socket.Get(), SHUT_RDWR);  // its reader finds it cut and closes it
  }
  m_ThreadPool.Post(
      [this, gate = Gate(), link = link.shared_from_this(), bytes, message = std::move(message)]() mutable {
        CNiraIpcCallbackGate::Pass pass(gate);
        if (!pass) return;
        NiraIpcGuarded(TAG, "callback", [&] {
          CallInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_MESSAGE, message.Text(), message.Value());
        });
        m_TakeFromBacklog(*link, bytes);
      });
}

void CNiraIpcProxyWebsocket::m_TakeFromBacklog(Link& link, size_t bytes) {
  link.backlog -= bytes;
  if (!link.isPaused || link.backlog > kNiraIpcMaxBacklog / 2) return;
  link.loop->WithTurn([&] { m_Arm(link); });
}

void CNiraIpcProxyWebsocket::m_PostEvent(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, const char* text) {
  m_ThreadPool.Post([this, gate = Gate(), type, text] {
    CNiraIpcCallbackGate::Pass pass(gate);
    Json::Value none;
    if (pass) NiraIpcGuarded(TAG, "callback", [&] { CallInternalCallback(type, text, none); });
  });
}

// Appends a message, and sees that it is written. False when the connection cannot take it.
bool CNiraIpcProxyWebsocket::m_SetMessageQueue(Link& link, std::string&& message, bool mayWait) {
  {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (!m_bConnected || m_bClosedByServer || m_bOverflowed) return false;
    NIRA_IPC_LOG_INFO(TAG, "m_SetMessageQueue (%s)", message.c_str() + CNiraIpcOutgoingQueue::kHeadRoom);
    if (!m_MessageQueue.Push(std::move(message))) {
      NIRA_IPC_LOG_ERROR(TAG, "the server has left %zu bytes unread. disconnect", m_MessageQueue.Bytes());
      m_bOverflowed = true;
      m_MessageQueue.Clear();
    }
  }
  NIRA_IPC_LOG_INFO(TAG, "Send lws_callback_on_writable");
  if (mayWait) {
    link.loop->DemandSoon();
  } else {
    link.loop->Demand();
  }
  return true;
}

size_t CNiraIpcProxyWebsocket::m_CountQueued() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  return m_MessageQueue.Count();
}

std::string CNiraIpcProxyWebsocket::m_GetMessageQueue() {
  std::lock_guard<std::mutex> lock(m_Mutex);
  std::string text = m_MessageQueue.Pop();
  if (text.empty()) {
    NIRA_IPC_LOG_INFO(TAG, "messageQueue empty");
  } else {
    NIRA_IPC_LOG_INFO(TAG, "m_GetMessageQueue return %s", text.c_str() + CNiraIpcOutgoingQueue::kHeadRoom);
  }
  return text;
}

std::string CNiraIpcProxyWebsocket::m_ConvertJsonValueToString(const Json::Value& value) {
  return NiraIpcWriteJson(value);
}

bool CNiraIpcProxyWebsocket::SendMessage(const char* requestType, const std::string& request, std::string& reply) {
  CNiraIpcMessage message;
  if (!SendRequest(requestType, request, message)) return false;
  reply = message.TakeCompactText();
  return true;
}

bool CNiraIpcProxyWebsocket::SendRequest(const char* requestType, const std::string& request, CNiraIpcMessage& reply) {
  int key = 0;
  LinkPtr link;
  if (!m_QueueRequest(requestType, request, nullptr, key, link)) return false;
  NiraIpcGuarded(TAG, "waiting", [&] { m_AwaitReply(*link, key); });  // whatever comes, it leaves the table
  if (m_WaitItems.TakeResponse(key, reply)) {
    NIRA_IPC_LOG_INFO(TAG, "GET CONDITION");
    NIRA_IPC_LOG_INFO(TAG, "response = %s", NiraIpcStyledJson(reply.Value()).c_str());
  } else {
    NIRA_IPC_LOG_ERROR(TAG, "TIMEOUT");
    reply = MessageWaitItems::MakeFailReply("Timeout", key);
  }
  NIRA_IPC_LOG_INFO(TAG, "Got reply : %s", m_ConvertJsonValueToString(reply.Value()).c_str());
  return true;
}

void CNiraIpcProxyWebsocket::m_AwaitReply(Link& link, int key) {
  for (;;) {
    bool mustLead = false;
    m_WaitItems.WaitForResponse(key, &mustLead);
    if (!mustLead) return;
    m_SetLed(link);
    m_Lead(link, key);
  }
}

void CNiraIpcProxyWebsocket::m_SetLed(Link& link) {
  link.loop->WithTurn([&] {
    link.isLed = true;
    m_Arm(link);
  });
}

// Draws keys until one is free, and enters it into the table. Not 0, which stands for none.
int CNiraIpcProxyWebsocket::m_CreateKey(uint32_t now, const MessageWaitItems::Completion& completion) {
  const auto deadline = MessageWaitItems::Clock::now() + kNiraIpcRequestTimeout;
  for (;;) {
    int key = 0;
    {
      std::lock_guard<std::mutex> lock(m_Mutex);
      key = rand_r(&m_nSeed);
    }
    if (key == MessageWaitItems::kNoKey || !m_WaitItems.CreateKey(key, deadline, completion)) continue;
    if (NiraIpcLogWanted(NIRA_PLATFORM_LOG_INFO)) m_WaitItems.SetStartTick(key, now);
    NIRA_IPC_LOG_INFO(TAG, "Add uniqueKey %d to wait items", key);
    return key;
  }
}

// The connection, if requests may be sent; then also the caller's id.
CNiraIpcProxyWebsocket::LinkPtr CNiraIpcProxyWebsocket::m_MaySend(std::string& caller) {
  std::lock_guard<std::mutex> lock(m_Mutex);
  if (!m_bConnected) {
    NIRA_IPC_LOG_ERROR(TAG, "Websocket connection is not established.");
    return nullptr;
  }
  if (m_bClosedByServer) {
    NIRA_IPC_LOG_ERROR(TAG, "Websocket connection is closed by server. can not send message");
    return nullptr;
  }
  caller = m_strAppId;
  return m_Link;
}

// The message, with its members in the order of their names, as a JSON writer would put them.
std::string CNiraIpcProxyWebsocket::m_MakeEnvelope(const char* requestType, const std::string& request, int key,
                                                   uint32_t now, const std::string& caller) {
  constexpr size_t kMembersBytes = 128;
  std::string text = CNiraIpcOutgoingQueue::Begin(request.size() + caller.size() + kMembersBytes);
  text += "{\"caller\":";
  NiraIpcAppendJson(text, std::string_view(caller));
  text.append(",\"request\":").append(request);
  text += ",\"request_type\":";
  NiraIpcAppendJson(text, std::string_view(requestType));
  text += ",\"timestamp\":";
  NiraIpcAppendJson(text, int64_t{now});
  text += ",\"uniqueKey\":";
  NiraIpcAppendJson(text, int64_t{key});
  return text += "}\n";
}

// Builds the envelope, enters the request into the table and queues it. False when it was refused: then nothing waits,
// and the completion does not run.
bool CNiraIpcProxyWebsocket::m_QueueRequest(const char* requestType, const std::string& request,
                                            const MessageWaitItems::Completion& completion, int& key, LinkPtr& link) {
  NIRA_IPC_LOG_INFO(TAG, "m_SendMessage\n");
  std::string caller;
  link = m_MaySend(caller);
  if (link == nullptr) return false;
  const uint32_t now = CNiraIpcUtil::GetTimeInMs();
  key = m_CreateKey(now, completion);
  bool leads = false;
  const bool isQueued = NiraIpcGuarded(TAG, "request", false, [&] {
    std::string text = m_MakeEnvelope(requestType, request, key, now, caller);
    NIRA_IPC_LOG_INFO(TAG, "Json = %s\n", text.c_str() + CNiraIpcOutgoingQueue::kHeadRoom);
    // Before it is sent, or the reply may come before its caller is there and wake the service thread.
    leads = !completion && m_WaitItems.TryLead(key);
    if (leads) m_SetLed(*link);
    if (completion && !m_bTimerSet.exchange(true)) link->loop->Wake();
    return m_SetMessageQueue(*link, std::move(text), completion != nullptr);
  });
  if (isQueued) return true;
  if (leads) m_EndLead(*link, key);
  // Memory is short, or the connection ended meanwhile. If that has answered the request already, it was not refused.
  return !m_WaitItems.RemoveKey(key);
}

void CNiraIpcProxyWebsocket::SendMessageAsync(CRequestAsyncData* data) {
  m_SendMessageAsync(data, this);
}

// Sends on the calling thread: asynchronous calls leave in the order in which they were made, and none holds a worker
// while it is sent. The callback runs on a worker in any case.
void CNiraIpcProxyWebsocket::m_SendMessageAsync(CRequestAsyncData* data, CNiraIpcProxyWebsocket* transport) {
  NIRA_IPC_LOG_INFO(TAG, "m_SendMessageAsync");
  const std::shared_ptr<CRequestAsyncData> record(data);
  int key = 0;
  LinkPtr link;
  const auto completion = [transport, record](CNiraIpcMessage&& reply) { transport->m_OnAsyncReply(record, reply); };
  if (!transport->m_QueueRequest(record->requestType, record->request, completion, key, link)) {
    transport->m_Complete(record, "");
  }
}

void CNiraIpcProxyWebsocket::m_OnAsyncReply(const std::shared_ptr<CRequestAsyncData>& record, CNiraIpcMessage& reply) {
  std::string text = NiraIpcGuarded(TAG, "reply", std::string(), [&] { return reply.TakeCompactText(); });
  NIRA_IPC_LOG_INFO(TAG, "Got reply : %s", text.c_str());
  m_Complete(record, std::move(text));
}

// Has a worker run the callback. From here on its place is held: the proxy does not go before it has run.
void CNiraIpcProxyWebsocket::m_Complete(const std::shared_ptr<CRequestAsyncData>& record, std::string reply) {
  {
    std::lock_guard<std::mutex> lock(m_Completions->lock);
    m_Completions->entries.push_back({record, std::move(reply)});
  }
  Gate()->Hold();
  try {
    m_ThreadPool.Post([gate = Gate(), completions = m_Completions] { t_RunCompletion(gate, *completions); });
  } catch (const std::exception& exception) {  // the process exits, or has no memory: the callback cannot run
    NIRA_IPC_LOG_ERROR(TAG, "callback of an asynchronous call lost: %s", exception.what());
    std::lock_guard<std::mutex> lock(m_Completions->lock);
    m_Completions->entries.pop_back();
    CNiraIpcCallbackGate::Pass release(Gate(), CNiraIpcCallbackGate::Pass::Held());
  }
}

// Runs the oldest callback that waits; false when there is none.
bool CNiraIpcProxyWebsocket::t_RunCompletion(const std::shared_ptr<CNiraIpcCallbackGate>& gate,
                                             Completions& completions) {
  Completions::Entry entry;
  {
    std::lock_guard<std::mutex> lock(completions.lock);
    if (completions.entries.empty()) return false;
    entry = std::move(completions.entries.front());
    completions.entries.pop_front();
  }
  CNiraIpcCallbackGate::Pass pass(gate, CNiraIpcCallbackGate::Pass::Held());
  if (gate->IsAbandoned() || entry.record->callback == nullptr) return true;
  NiraIpcGuarded(TAG, "callback", [&entry] { entry.record->callback(entry.reply.c_str(), entry.record->userData); });
  return true;
}

// When a worker frees the proxy, from inside a callback, it runs the callbacks that wait itself: every worker may be
// doing the same, and then nobody else would.
void CNiraIpcProxyWebsocket::m_RunCompletionsHere() {
  if (!m_ThreadPool.IsWorker()) return;
  while (t_RunCompletion(Gate(), *m_Completions)) {
  }
}
