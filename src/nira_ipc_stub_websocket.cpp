// Server transport. How a message comes and goes:
//
//   service thread: assemble -> pool task -> dispatcher -> handler -> reply -> the connection's queue -> wake
//   service thread, woken: ask for a writeable event for each connection in m_ToService -> write one text an event
//
// A connection lives in m_Connections from its established to its closed event and is shared with the tasks that
// process its messages, so what they hold stays valid; its handle is a number that no other connection ever gets, so
// what they send after it closed goes nowhere.
#include "nira_ipc_stub_websocket.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "nira_ipc_guard.h"
#include "nira_ipc_json.h"
#include "nira_ipc_limits.h"
#include "nira_ipc_log.h"
#include "nira_ipc_tv_mode_checker.h"
#include "nira_ipc_util.h"

#define TAG NIRA_IPC_TAG_STUB

namespace {

constexpr const char* kProtocol = "nira-protocol";
constexpr const char* kLoopbackInterface = "lo";
constexpr unsigned kWorkers = 10;

// Descriptors left to the rest of the process: an accept that fails because there are none would be tried again for
// ever.
constexpr int kSpareDescriptors = 8;

// Becomes readable for good when a SIGINT comes; each stub's context watches a duplicate. A signal handler may write to
// a descriptor, and may not call libwebsockets.
std::atomic<int> g_InterruptDescriptor{-1};

// A duplicate for one context, or -1. A child of fork() gets an event of its own, not its parent's.
int DuplicateInterrupt() {
  static std::mutex making;
  static pid_t process = 0;
  std::lock_guard<std::mutex> lock(making);
  if (process != getpid()) {
    g_InterruptDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    process = getpid();
  }
  return g_InterruptDescriptor < 0 ? -1 : fcntl(g_InterruptDescriptor, F_DUPFD_CLOEXEC, 0);
}

int DescriptorLimit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > 1 << 30) return 1 << 30;
  return static_cast<int>(limit.rlim_cur);
}

}  // namespace

// Made when the library is loaded and never destroyed: threads of the application may still send while the process
// exits. Its workers are joined then, after the loops have ended and before the application's static objects go.
ThreadPool& CNiraIpcStubWebsocket::m_ThreadPool = *new ThreadPool(kWorkers, "nira-stub-w");
std::atomic<int> CNiraIpcStubWebsocket::destroy_flag{0};

void CNiraIpcStubWebsocket::INT_HANDLER(int) {
  const int before = errno;
  destroy_flag = 1;
  const uint64_t one = 1;
  if (write(g_InterruptDescriptor, &one, sizeof one) < 0) errno = before;  // full: it is readable already
  errno = before;
}

const ThreadPool::StopAtExit CNiraIpcStubWebsocket::m_StopThreadPool(m_ThreadPool);

CNiraIpcStubWebsocket::CNiraIpcStubWebsocket() {
  static const ThreadPool::StopAtExit stopBeforeStatics(m_ThreadPool);
  (void)stopBeforeStatics;
}

CNiraIpcStubWebsocket::~CNiraIpcStubWebsocket() {
  CNiraIpcStubWebsocket::Stop();
  Gate()->CloseAndWait();
}

bool CNiraIpcStubWebsocket::Start(int port) {
  m_ThreadPool.StartWorkers();
  struct sigaction action = {};
  action.sa_handler = INT_HANDLER;
  sigemptyset(&action.sa_mask);
  m_nPort = port;
  m_SetWebSocketProtocol(kProtocol);
  m_SetWebSocketInfo();
  m_SetWebSocketContext();
  sigaction(SIGINT, &action, nullptr);
  m_Loop->StartThread("nira-stub-svc", Gate(), [this, gate = Gate()] {
    CNiraIpcCallbackGate::Pass pass(gate);  // a stub that is stopped inside one of its events goes when this ends
    m_ServiceThread();
  });
  return true;
}

void CNiraIpcStubWebsocket::Stop() {
  m_Loop->Stop();
}

void CNiraIpcStubWebsocket::m_SetWebSocketProtocol(const char* name) {
  m_Protocols[0].name = name;
  m_Protocols[0].callback = t_WebSocketCbFunction;
  m_Protocols[0].per_session_data_size = sizeof(ConnectionPtr*);
  m_Protocols[0].user = this;
}

void CNiraIpcStubWebsocket::m_SetWebSocketInfo() {
  m_ContextInfo.port = m_nPort;
  m_ContextInfo.protocols = m_Protocols;
  m_ContextInfo.user = this;
  // An interface that is missing must fail here and now; libwebsockets would try again later, silently.
  m_ContextInfo.options = LWS_SERVER_OPTION_FAIL_UPON_UNABLE_TO_BIND;
  // Otherwise libwebsockets makes tables for every descriptor that the process could ever have. The listener, the
  // wake-up and the interrupt take a slot each; the clients' bound keeps it from ever being full, where it would stop
  // accepting.
  m_ContextInfo.fd_limit_per_thread = kNiraIpcMaxClients + 16;
  CNiraTVModeChecker modeChecker;
  if (modeChecker.IsDebugMode()) {
    NIRA_IPC_LOG_ERROR(TAG, "Open websocket port for internal and external ip");
  } else {
    m_ContextInfo.iface = kLoopbackInterface;
    m_ContextInfo.options |= LWS_SERVER_OPTION_DISABLE_IPV6;  // or it would listen on [::ffff:127.0.0.1]
    NIRA_IPC_LOG_INFO(TAG, "Open websocket port only for internal ip");
  }
}

bool CNiraIpcStubWebsocket::m_SetWebSocketContext() {
  const bool validPort = m_nPort >= 0 && m_nPort <= 65535;  // libwebsockets would cut it to 16 bits
  bool created = validPort && m_Loop->CreateContext(m_ContextInfo);
  if (validPort && !created && m_ContextInfo.iface == nullptr) {  // all interfaces, on a kernel without IPv6
    m_ContextInfo.options |= LWS_SERVER_OPTION_DISABLE_IPV6;
    created = m_Loop->CreateContext(m_ContextInfo);
  }
  if (!created) {
    NIRA_IPC_LOG_ERROR(TAG, "[m_SetWebSocketContext] Websocket context create error.");
    return false;
  }
  lws_sock_file_fd_type descriptor;
  descriptor.filefd = DuplicateInterrupt();
  lws_vhost* vhost = lws_get_vhost_by_name(m_Loop->Context(), "default");
  if (descriptor.filefd < 0 ||
      lws_adopt_descriptor_vhost(vhost, LWS_ADOPT_RAW_FILE_DESC, descriptor, kProtocol, nullptr) == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "no descriptor to watch for SIGINT");
  }
  m_nOwnSockets = m_nSockets;
  return true;
}

void CNiraIpcStubWebsocket::m_ServiceThread() {
  NIRA_IPC_LOG_INFO(TAG, "main thread start.\n");
  while (!m_Loop->IsStopping() && destroy_flag == 0 && m_Loop->Service()) {
  }
  m_Loop->DestroyContext();
  NIRA_IPC_LOG_INFO(TAG, "main thread  end.\n");
}

int CNiraIpcStubWebsocket::t_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                                                 size_t len) {
  if (wsi == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "[CNiraIpcStubWebsocket] wsi is NULL");
    return -1;
  }
  auto* self = static_cast<CNiraIpcStubWebsocket*>(lws_context_user(lws_get_context(wsi)));
  if (self == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "[CNiraIpcStubWebsocket] this_ptr is null");
    return -1;
  }
  constexpr int kClose = -1;
  return NiraIpcGuarded(TAG, "websocket event", kClose,
                        [=] { return self->m_WebSocketCbFunction(wsi, reason, user, in, len); });
}

int CNiraIpcStubWebsocket::m_WebSocketCbFunction(lws* wsi, lws_callback_reasons reason, void* user, void* in,
                                                 size_t len) {
  auto** slot = static_cast<ConnectionPtr**>(user);
  switch (reason) {
    case LWS_CALLBACK_ESTABLISHED:
      m_OnEstablished(wsi, slot);
      return 0;
    case LWS_CALLBACK_CLOSED:
      m_OnClosed(slot);
      return 0;
    case LWS_CALLBACK_RECEIVE:
      return *slot != nullptr ? m_OnReceive(**slot, static_cast<const char*>(in), len) : -1;
    case LWS_CALLBACK_SERVER_WRITEABLE:
      return *slot != nullptr ? m_OnWriteable(**slot) : -1;
    case LWS_CALLBACK_EVENT_WAIT_CANCELLED:
      m_OnWoken();
      return 0;
    case LWS_CALLBACK_FILTER_NETWORK_CONNECTION:
      return m_MayAccept(static_cast<int>(reinterpret_cast<intptr_t>(in))) ? 0 : 1;
    case LWS_CALLBACK_WSI_CREATE:
      ++m_nSockets;
      return 0;
    case LWS_CALLBACK_WSI_DESTROY:
      --m_nSockets;
      return 0;
    case LWS_CALLBACK_RAW_RX_FILE:
      return destroy_flag != 0 ? 0 : -1;  // the interrupt; the loop looks at the flag
    default:
      return lws_callback_http_dummy(wsi, reason, user, in, len);  // plain HTTP gets its answer
  }
}

bool CNiraIpcStubWebsocket::m_MayAccept(int descriptor) const {
  const unsigned clients = m_nSockets - m_nOwnSockets;
  const bool mayAccept = clients < kNiraIpcMaxClients && descriptor < DescriptorLimit() - kSpareDescriptors;
  if (!mayAccept) NIRA_IPC_LOG_ERROR(TAG, "connection refused: %u are open already", clients);
  return mayAccept;
}

void CNiraIpcStubWebsocket::m_OnEstablished(lws* wsi, ConnectionPtr** slot) {
  NIRA_IPC_LOG_ERROR(TAG, "[CNiraIpcStubWebsocket] Connection established");
  void* handle = reinterpret_cast<void*>(++m_nLastHandle);  // NOLINT(performance-no-int-to-ptr): never dereferenced
  auto connection = std::make_shared<Connection>(handle, wsi);
  auto entry = std::make_unique<ConnectionPtr>(connection);
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Connections.emplace(handle, std::move(connection));
  }
  *slot = entry.release();
  SetClientWaitRegister(handle);
  OnOpen(handle);
}

void CNiraIpcStubWebsocket::m_OnClosed(ConnectionPtr** slot) {
  if (slot == nullptr || *slot == nullptr) return;  // it never got as far as established
  NIRA_IPC_LOG_ERROR(TAG, "[CNiraIpcStubWebsocket] Client close.");
  const std::unique_ptr<ConnectionPtr> entry(*slot);
  *slot = nullptr;
  const ConnectionPtr connection = *entry;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    connection->wsi = nullptr;
    connection->outgoing.Clear();
    m_Connections.erase(connection->handle);
  }
  OnClose(connection->handle);
}

int CNiraIpcStubWebsocket::m_OnReceive(const ConnectionPtr& connection, const char* data, size_t length) {
  const size_t remaining = lws_remaining_packet_payload(connection->wsi);
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG_PROXY, "[CNiraIpcStubWebsocket] remaining size = %d", static_cast<int>(remaining));
  std::string& received = connection->received;
  if (remaining > kNiraIpcMaxIncomingMessage || received.size() + length + remaining > kNiraIpcMaxIncomingMessage) {
    NIRA_IPC_LOG_ERROR(TAG, "client(%p) sends a message of more than %zu bytes. disconnect", connection->handle,
                       kNiraIpcMaxIncomingMessage);
    return -1;
  }
  received.append(data, length);
  if (remaining != 0 || lws_is_final_fragment(connection->wsi) == 0) return 0;
  OnMessage(std::move(received), connection);
  received.clear();
  return 0;
}

int CNiraIpcStubWebsocket::m_OnWriteable(const ConnectionPtr& connection) {
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG_PROXY, "[CNiraIpcStubWebsocket] LWS_CALLBACK_SERVER_WRITEABLE");
  std::string text;
  bool more = false;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    text = connection->outgoing.Pop();
    more = !connection->outgoing.IsEmpty() || connection->foundUnregistered;
  }
  if (text.empty()) return m_CheckUnregistered(connection);
  NIRA_IPC_LOG_INFO(TAG, "[m_WebSocketWriteBack] %s\n", text.c_str() + CNiraIpcOutgoingQueue::kHeadRoom);
  if (NiraIpcWriteText(connection->wsi, text) < 0) return -1;
  if (more) lws_callback_on_writable(connection->wsi);
  return 0;
}

// A writeable event with nothing to write comes from the watch, or from libwebsockets after it drained a large text.
// Only what the watch has found may cost the connection: its registration may just be being recorded.
int CNiraIpcStubWebsocket::m_CheckUnregistered(const ConnectionPtr& connection) {
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    if (!connection->foundUnregistered) return 0;
    connection->foundUnregistered = false;
  }
  if (IsClientRegistered(connection->handle)) {
    NIRA_IPC_LOG_INFO(TAG, "client(%p) registered\n", connection->handle);
    return 0;
  }
  NIRA_IPC_LOG_ERROR(TAG, "Client(%p) handshake has not been done properly", connection->handle);
  NIRA_IPC_LOG_ERROR(TAG, "disconnect the client(%p)", connection->handle);
  return -1;
}

void CNiraIpcStubWebsocket::m_OnWoken() {
  std::vector<ConnectionPtr> toService;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    toService.swap(m_ToService);
    for (const ConnectionPtr& connection : toService) connection->needsService = false;
  }
  for (const ConnectionPtr& connection : toService) {
    if (connection->wsi != nullptr) m_ServiceConnection(*connection);  // else it closed meanwhile
  }
}

void CNiraIpcStubWebsocket::m_ServiceConnection(Connection& connection) {
  bool overflowed = false;
  bool resume = false;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    overflowed = connection.overflowed;
    resume = connection.readingPaused && connection.backlog <= kNiraIpcMaxRequestBacklog / 2;
    if (resume) connection.readingPaused = false;
  }
  if (overflowed) {
    lws_set_timeout(connection.wsi, PENDING_TIMEOUT_USER_REASON_BASE, LWS_TO_KILL_ASYNC);
    return;
  }
  if (resume) lws_rx_flow_control(connection.wsi, 1);
  lws_callback_on_writable(connection.wsi);
}

void CNiraIpcStubWebsocket::OnOpen(void* handle) {
  NIRA_IPC_LOG_INFO(TAG, "Opened.");
  CNiraIpcCallbackGate::Pass pass(Gate());
  if (!pass) return;
  NiraIpcGuarded(TAG, "open callback",
                 [this, handle] { CallInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_OPEN, "open", handle); });
}

void CNiraIpcStubWebsocket::OnClose(void* handle) {
  NIRA_IPC_LOG_INFO(TAG, "Closed. handle(%p)", handle);
  CNiraIpcCallbackGate::Pass pass(Gate());
  if (!pass) return;
  NiraIpcGuarded(TAG, "close callback",
                 [this, handle] { CallInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_CLOSE, "close", handle); });
}

void CNiraIpcStubWebsocket::OnMessage(std::string&& text, const ConnectionPtr& connection) {
  NIRA_IPC_LOG_INFO(TAG, "on_message called with message: %s, %p", text.c_str(), connection->handle);
  const size_t bytes = text.size() + kNiraIpcRequestOverhead;
  m_AddToBacklog(connection, bytes);
  m_ThreadPool.enqueue([this, gate = Gate(), connection, bytes, text = std::move(text)]() mutable {
    CNiraIpcCallbackGate::Pass pass(gate);
    if (!pass) return;
    NiraIpcGuarded(TAG, "request", [&] { t_ThreadMessage(text, connection->handle); });
    m_TakeFromBacklog(connection, bytes);
  });
}

void CNiraIpcStubWebsocket::t_ThreadMessage(const std::string& text, void* handle) {
  NIRA_IPC_LOG_INFO(TAG, "t_ThreadMessage: %s, %p", text.c_str(), handle);
  CallInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_MESSAGE, text, handle);
}

// Requests wait in memory for a worker. A client that sends faster than they are processed is not read from until half
// of them are done; TCP then holds it back. (Service thread.)
void CNiraIpcStubWebsocket::m_AddToBacklog(const ConnectionPtr& connection, size_t bytes) {
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    connection->backlog += bytes;
    if (connection->readingPaused || connection->backlog <= kNiraIpcMaxRequestBacklog) return;
    connection->readingPaused = true;
  }
  lws_rx_flow_control(connection->wsi, 0);
}

void CNiraIpcStubWebsocket::m_TakeFromBacklog(const ConnectionPtr& connection, size_t bytes) {
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    connection->backlog -= bytes;
    if (connection->readingPaused && connection->backlog <= kNiraIpcMaxRequestBacklog / 2) {
      wake = m_NeedsService(connection);
    }
  }
  if (wake) m_Loop->Wake();
}

void CNiraIpcStubWebsocket::SendJson(void* handle, const Json::Value& json) {
  const std::string text = NiraIpcWriteJson(json);
  NIRA_IPC_LOG_INFO(TAG, "Json = %s\n", text.c_str());
  m_SendMessage(handle, text);
}

void CNiraIpcStubWebsocket::SendJsonWithHeader(void* handle, const char* header, const Json::Value& json) {
  Json::Value push(Json::objectValue);
  push["request_type"] = header;
  push["request"] = json;
  push["timestamp"] = CNiraIpcUtil::GetTimeInMs();
  m_SendMessage(handle, NiraIpcWriteJson(push));
}

int CNiraIpcStubWebsocket::m_SendMessage(void* handle, const std::string& text) {
  return m_WebSocketWriteBack(handle, text.c_str(), static_cast<int>(text.size()));
}

// Queues the text; the service thread, which owns the socket, writes it. Gives the length, or -1.
int CNiraIpcStubWebsocket::m_WebSocketWriteBack(void* handle, const char* text, int length) {
  if (handle == nullptr || text == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "handler is null");
    return -1;
  }
  const size_t size = length < 1 ? std::strlen(text) : static_cast<size_t>(length);
  bool wake = false;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    const auto found = m_Connections.find(handle);
    if (found == m_Connections.end() || found->second->overflowed) return -1;
    const ConnectionPtr& connection = found->second;
    if (!connection->outgoing.Push(text, size)) {
      NIRA_IPC_LOG_ERROR(TAG, "client(%p) has left %zu bytes unread. disconnect", handle, connection->outgoing.Bytes());
      connection->overflowed = true;
      connection->outgoing.Clear();
    }
    wake = m_NeedsService(connection);
  }
  if (wake) m_Loop->Wake();
  return static_cast<int>(size);
}

// With m_Lock: puts the connection before the service thread. True when nobody has woken that yet.
bool CNiraIpcStubWebsocket::m_NeedsService(const ConnectionPtr& connection) {
  if (connection->needsService) return false;
  connection->needsService = true;
  m_ToService.push_back(connection);
  return m_ToService.size() == 1;
}

CNiraIpcStubWebsocket::ConnectionPtr CNiraIpcStubWebsocket::m_FindConnection(void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  const auto found = m_Connections.find(handle);
  return found != m_Connections.end() ? found->second : nullptr;
}

void CNiraIpcStubWebsocket::m_CheckClientRegister(void* handle, int) {
  NIRA_IPC_LOG_INFO(TAG, "t_CheckClientRegister start. (%p)\n", handle);
  if (!IsClientRegistered(handle)) {
    NIRA_IPC_LOG_INFO(TAG, "client(%p) has not been registered yet. call writable callback\n", handle);
    bool wake = false;
    if (const ConnectionPtr connection = m_FindConnection(handle)) {
      std::lock_guard<std::mutex> lock(m_Lock);
      connection->foundUnregistered = true;
      wake = m_NeedsService(connection);
    }
    if (wake) m_Loop->Wake();
  } else {
    NIRA_IPC_LOG_INFO(TAG, "client(%p) had been registered\n", handle);
  }
  NIRA_IPC_LOG_INFO(TAG, "t_CheckClientRegister end.\n");
}

void CNiraIpcStubWebsocket::m_RunIntervalThread(void* handle, int ms) {
  NIRA_IPC_LOG_INFO(TAG, "m_RunIntervalThread sleep 1000ms start. (%p)\n", handle);
  std::this_thread::sleep_for(std::chrono::milliseconds(ms));
  NIRA_IPC_LOG_INFO(TAG, "m_RunIntervalThread sleep 1000ms end. (%p)\n", handle);
  m_CheckClientRegister(handle, ms);
}
