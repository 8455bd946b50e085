// Server transport. How a message comes and goes:
//
//   idle worker, woken by the connection: read with the turn -> dispatcher -> handler -> reply
//   -> the connection's queue -> written with the turn, by this worker or by whoever has it
//
// Several messages that came together are left to the pool, but for the first. A socket that takes no more reports to a
// worker when it does again.
//
// A connection lives in m_Connections from its established to its closed event and is shared with the tasks that
// process its messages, so what they hold stays valid; its handle is a number that no other connection of the stub ever
// gets, so what they send after it closed goes nowhere.
#include "nira_ipc_stub_websocket.h"

#include <errno.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iterator>

#include "nira_ipc_guard.h"
#include "nira_ipc_json.h"
#include "nira_ipc_limits.h"
#include "nira_ipc_log.h"
#include "nira_ipc_tv_mode_checker.h"
#include "nira_ipc_util.h"

#define TAG NIRA_IPC_TAG_STUB

namespace {

constexpr const char* kProtocol = "nira-protocol";
constexpr unsigned kWorkers = 10;
constexpr int kBacklog = 128;
constexpr uint32_t kReadable = EPOLLIN | EPOLLRDHUP;

// What the service thread's poller reports. Connections that are in the handshake share one id: libwebsockets looks
// after them all.
constexpr uint64_t kListener = 1;
constexpr uint64_t kInterrupt = 2;
constexpr uint64_t kHandshake = 3;

constexpr size_t kUsualTextBytes = 256;  // what is made room for; a longer text makes its own

// How often libwebsockets may look at its clock while it has something to time: a handshake, the end of a connection.
constexpr std::chrono::seconds kLookInterval{1};

// Descriptors left to the rest of the process: an accept that fails because there are none would be tried again for
// ever.
constexpr int kSpareDescriptors = 8;

// Becomes readable for good when a SIGINT comes; every stub's service thread watches it. A signal handler may write to
// a descriptor, and may do little else.
std::atomic<int> g_InterruptDescriptor{-1};

// A child of fork() gets an event of its own, not its parent's.
int InterruptDescriptor() {
  static std::mutex making;
  static pid_t process = 0;
  std::lock_guard<std::mutex> lock(making);
  if (process != getpid()) {
    g_InterruptDescriptor = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    process = getpid();
  }
  return g_InterruptDescriptor;
}

int DescriptorLimit() {
  rlimit limit = {};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > 1 << 30) return 1 << 30;
  return static_cast<int>(limit.rlim_cur);
}

int OpenListener(sa_family_t family, const void* address, socklen_t size) {
  CNiraIpcDescriptor listener(socket(family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int yes = 1, no = 0;
  if (!listener.IsOpen()) return -1;
  setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (family == AF_INET6) setsockopt(listener.Get(), IPPROTO_IPV6, IPV6_V6ONLY, &no, sizeof no);
  if (bind(listener.Get(), static_cast<const sockaddr*>(address), size) != 0) return -1;
  return listen(listener.Get(), kBacklog) == 0 ? listener.Release() : -1;
}

// Closes the connection with a reset, so that the client learns at once.
void Reset(int descriptor) {
  const linger noLinger = {1, 0};
  setsockopt(descriptor, SOL_SOCKET, SO_LINGER, &noLinger, sizeof noLinger);
  close(descriptor);
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

CNiraIpcStubWebsocket::CNiraIpcStubWebsocket() : m_Loop(std::make_shared<CNiraIpcLoop>([this] { m_WriteQueued(); })) {
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
  m_Loop->UsePoller();
  if (!m_Loop->Poller().Add(InterruptDescriptor(), kInterrupt, EPOLLIN)) {
    NIRA_IPC_LOG_ERROR(TAG, "no descriptor to watch for SIGINT");
  }
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
  m_Protocols[0].tx_packet_size = kNiraIpcWriteBytes;
  m_Protocols[0].user = this;
}

void CNiraIpcStubWebsocket::m_SetWebSocketInfo() {
  m_ContextInfo.port = CONTEXT_PORT_NO_LISTEN_SERVER;
  m_ContextInfo.protocols = m_Protocols;
  m_ContextInfo.user = this;
  // Otherwise libwebsockets makes tables for every descriptor that the process could ever have. Its wake-up takes a
  // slot; the clients' bound keeps it from ever being full.
  m_ContextInfo.fd_limit_per_thread = kNiraIpcMaxClients + 16;
}

int CNiraIpcStubWebsocket::m_Listen(bool onAllInterfaces) {
  const auto port = htons(static_cast<uint16_t>(m_nPort));
  if (onAllInterfaces) {
    sockaddr_in6 address = {};
    address.sin6_family = AF_INET6;
    address.sin6_port = port;
    const int listener = OpenListener(AF_INET6, &address, sizeof address);
    if (listener >= 0 || errno != EAFNOSUPPORT) return listener;  // else the kernel has no IPv6
  }
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = port;
  address.sin_addr.s_addr = htonl(onAllInterfaces ? INADDR_ANY : INADDR_LOOPBACK);
  return OpenListener(AF_INET, &address, sizeof address);
}

bool CNiraIpcStubWebsocket::m_SetWebSocketContext() {
  CNiraTVModeChecker modeChecker;
  const bool onAllInterfaces = modeChecker.IsDebugMode();
  if (onAllInterfaces) {
    NIRA_IPC_LOG_ERROR(TAG, "Open websocket port for internal and external ip");
  } else {
    NIRA_IPC_LOG_INFO(TAG, "Open websocket port only for internal ip");
  }
  if (m_nPort >= 0 && m_nPort <= 65535) m_Listener.Reset(m_Listen(onAllInterfaces));
  if (!m_Listener.IsOpen() || !m_Loop->Poller().Add(m_Listener.Get(), kListener, EPOLLIN) ||
      !m_Loop->CreateContext(m_ContextInfo)) {
    NIRA_IPC_LOG_ERROR(TAG, "[m_SetWebSocketContext] Websocket context create error.");
    m_Listener.Reset();
    return false;
  }
  m_nOwnSockets = m_nSockets;
  return true;
}

void CNiraIpcStubWebsocket::m_ServiceThread() {
  NIRA_IPC_LOG_INFO(TAG, "main thread start.\n");
  std::optional<CNiraIpcPoller::Clock::time_point> nextLook;
  while (!m_Loop->IsStopping() && destroy_flag == 0) {
    const CNiraIpcPoller::Ready ready = m_Loop->Poller().Wait(nextLook);
    Events events;
    m_Loop->WithTurn([&] {
      m_HandleReady(ready.id);
      events.swap(m_Events);
      if (!m_MustLook()) {
        nextLook.reset();
      } else if (!nextLook || ready.id == CNiraIpcPoller::kTimedOut) {
        nextLook = CNiraIpcPoller::Clock::now() + kLookInterval;
      }
    });
    for (Event& event : events) NiraIpcGuarded(TAG, "websocket event", [&] { m_DeliverHere(event); });
  }
  m_Listener.Reset();
  m_Loop->DestroyContext();  // from now on nobody gets a turn
  for (Event& event : m_Events) NiraIpcGuarded(TAG, "websocket event", [&] { m_DeliverHere(event); });
  NIRA_IPC_LOG_INFO(TAG, "main thread  end.\n");
}

// Whether libwebsockets times something, or there is something to try again.
bool CNiraIpcStubWebsocket::m_MustLook() const {
  return m_bListenerPaused || m_nSockets - m_nOwnSockets > m_nEstablished;
}

void CNiraIpcStubWebsocket::m_HandleReady(uint64_t id) {
  const bool isTime = id == CNiraIpcPoller::kTimedOut;
  if (isTime && m_bListenerPaused) m_bListenerPaused = !m_Loop->Poller().Add(m_Listener.Get(), kListener, EPOLLIN);
  if (id == kListener) m_Accept();
  if (id == kHandshake || isTime) m_Loop->ServiceAll();
}

void CNiraIpcStubWebsocket::m_Accept() {
  lws_vhost* vhost = lws_get_vhost_by_name(m_Loop->Context(), "default");
  for (;;) {
    const int descriptor = accept4(m_Listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (descriptor < 0) break;
    if (m_IsFull(descriptor)) {
      Reset(descriptor);
      continue;
    }
    const int yes = 1;
    setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    if (lws_adopt_socket_vhost(vhost, descriptor) == nullptr) continue;  // which has closed it
    m_Loop->Poller().Add(descriptor, kHandshake, kReadable);
  }
  if (errno != EMFILE && errno != ENFILE && errno != ENOBUFS && errno != ENOMEM) return;
  // The listener stays readable. Its client waits until there are descriptors again.
  NIRA_IPC_LOG_ERROR(TAG, "connection not accepted: errno %d", errno);
  m_Loop->Poller().Remove(m_Listener.Get());
  m_bListenerPaused = true;
}

bool CNiraIpcStubWebsocket::m_IsFull(int descriptor) const {
  const unsigned clients = m_nSockets - m_nOwnSockets;
  const bool isFull = clients >= kNiraIpcMaxClients || descriptor >= DescriptorLimit() - kSpareDescriptors;
  if (isFull) NIRA_IPC_LOG_ERROR(TAG, "connection refused: %u are open already", clients);
  return isFull;
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
    case LWS_CALLBACK_WS_PEER_INITIATED_CLOSE:
      if (*slot != nullptr) m_Ending(***slot);
      return 0;
    case LWS_CALLBACK_WSI_CREATE:
      ++m_nSockets;
      return 0;
    case LWS_CALLBACK_WSI_DESTROY:
      --m_nSockets;
      return 0;
    default:
      return lws_callback_http_dummy(wsi, reason, user, in, len);  // plain HTTP gets its answer
  }
}

void CNiraIpcStubWebsocket::m_OnEstablished(lws* wsi, ConnectionPtr** slot) {
  NIRA_IPC_LOG_ERROR(TAG, "[CNiraIpcStubWebsocket] Connection established");
  void* handle = reinterpret_cast<void*>(++m_nLastHandle);  // NOLINT(performance-no-int-to-ptr): never dereferenced
  auto connection = std::make_shared<Connection>(*this, handle, wsi);
  auto entry = std::make_unique<ConnectionPtr>(connection);
  m_Events.push_back({Event::kOpen, connection, {}});
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Connections.emplace(handle, std::move(connection));
  }
  m_Loop->Poller().Remove((*entry)->descriptor);  // the handshake is over; the workers get it when it has been told
  *slot = entry.release();
  ++m_nEstablished;
  SetClientWaitRegister(handle);
}

void CNiraIpcStubWebsocket::m_OnClosed(ConnectionPtr** slot) {
  if (slot == nullptr || *slot == nullptr) return;  // it never got as far as established
  NIRA_IPC_LOG_ERROR(TAG, "[CNiraIpcStubWebsocket] Client close.");
  const std::unique_ptr<ConnectionPtr> entry(*slot);
  *slot = nullptr;
  const ConnectionPtr connection = *entry;
  m_Ending(*connection);
  if (connection->watch != 0) m_ThreadPool.Unwatch(connection->descriptor, connection->watch);
  connection->wsi = nullptr;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    connection->outgoing.Clear();
    m_Connections.erase(connection->handle);
  }
  m_Events.push_back({Event::kClose, connection, {}});
}

// From here on libwebsockets may need its clock for the connection, which the service thread looks at for it. Gives
// what makes it end the connection.
int CNiraIpcStubWebsocket::m_Ending(Connection& connection) {
  if (!std::exchange(connection.isEnding, true)) {
    --m_nEstablished;
    m_Loop->Wake();
  }
  return -1;
}

int CNiraIpcStubWebsocket::m_OnReceive(const ConnectionPtr& connection, const char* data, size_t length) {
  const size_t remaining = lws_remaining_packet_payload(connection->wsi);
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG_PROXY, "[CNiraIpcStubWebsocket] remaining size = %d", static_cast<int>(remaining));
  std::string& received = connection->received;
  if (remaining > kNiraIpcMaxIncomingMessage || received.size() + length + remaining > kNiraIpcMaxIncomingMessage) {
    NIRA_IPC_LOG_ERROR(TAG, "client(%p) sends a message of more than %zu bytes. disconnect", connection->handle,
                       kNiraIpcMaxIncomingMessage);
    return m_Ending(*connection);
  }
  if (received.empty()) received.reserve(length + remaining);  // else it would grow, and be copied, many times
  received.append(data, length);
  if (remaining != 0 || lws_is_final_fragment(connection->wsi) == 0) return 0;
  // Requests wait in memory for a worker. A client that sends faster than they are processed is not read from until
  // half of them are done; TCP then holds it back.
  connection->backlog += received.size() + kNiraIpcMessageOverhead;
  if (connection->backlog > kNiraIpcMaxBacklog) connection->readingPaused = true;
  m_Events.push_back({Event::kMessage, connection, std::exchange(received, {})});
  return 0;
}

// libwebsockets is let to write after every read, so this comes often and seldom means anything: only what the watch
// has found may cost the connection, and its registration may just be being recorded.
int CNiraIpcStubWebsocket::m_OnWriteable(const ConnectionPtr& connection) {
  return connection->foundUnregistered.exchange(false) ? m_CheckUnregistered(connection) : 0;
}

int CNiraIpcStubWebsocket::m_CheckUnregistered(const ConnectionPtr& connection) {
  if (IsClientRegistered(connection->handle)) {
    NIRA_IPC_LOG_INFO(TAG, "client(%p) registered\n", connection->handle);
    return 0;
  }
  NIRA_IPC_LOG_ERROR(TAG, "Client(%p) handshake has not been done properly", connection->handle);
  NIRA_IPC_LOG_ERROR(TAG, "disconnect the client(%p)", connection->handle);
  return m_Ending(*connection);
}

void CNiraIpcStubWebsocket::Connection::OnReady(uint32_t events) {
  CNiraIpcCallbackGate::Pass pass(gate);
  const ConnectionPtr connection = self.lock();
  if (!pass || connection == nullptr) return;
  NiraIpcGuarded(TAG, "websocket event", [&] { stub.m_ReadConnection(connection, events); });
}

// A worker that has read a part of a message reads on while there is more of it.
void CNiraIpcStubWebsocket::m_ReadConnection(const ConnectionPtr& connection, uint32_t events) {
  Events messages;
  while (events != 0) {
    m_Loop->WithTurn([&, ready = std::exchange(events, 0)] {  // which does nothing once the service has ended
      connection->isServed = true;
      connection->armed = 0;
      if (connection->wsi != nullptr) m_ServiceConnection(*connection, ready);
      if (connection->wsi != nullptr && m_IsMoreThere(*connection)) {
        events = EPOLLIN;
        return;
      }
      connection->isServed = false;
      if (connection->wsi != nullptr) m_Arm(*connection);
      m_TakeMessages(messages);
    });
  }
  m_Deliver(messages);
}

// With the turn.
void CNiraIpcStubWebsocket::m_ServiceConnection(Connection& connection, uint32_t events) {
  m_Loop->ServiceDescriptor(connection.descriptor, connection.overflowed ? EPOLLHUP : events);
  if ((events & EPOLLOUT) != 0 && connection.wsi != nullptr) m_WriteConnection(connection);
}

// With the turn: whether the next part of a message can be read already, and no whole message waits meanwhile.
bool CNiraIpcStubWebsocket::m_IsMoreThere(const Connection& connection) const {
  pollfd polled = {connection.descriptor, POLLIN, 0};
  return !connection.received.empty() && m_Events.empty() && poll(&polled, 1, 0) > 0;
}

// With the turn: what the workers are to be told of next.
void CNiraIpcStubWebsocket::m_Arm(Connection& connection) {
  if (connection.watch == 0 || connection.isServed) return;
  if (connection.readingPaused && connection.backlog <= kNiraIpcMaxBacklog / 2) connection.readingPaused = false;
  uint32_t events = connection.readingPaused ? 0 : kReadable;
  if (lws_partial_buffered(connection.wsi) != 0 || connection.foundUnregistered) events |= EPOLLOUT;
  if (std::exchange(connection.armed, events) == events) return;
  m_ThreadPool.Arm(connection.descriptor, connection.watch, events);
}

// With the turn: writes what any thread has queued.
void CNiraIpcStubWebsocket::m_WriteQueued() {
  std::vector<ConnectionPtr> toService;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    toService.swap(m_ToService);
    for (const ConnectionPtr& connection : toService) connection->needsService = false;
  }
  for (const ConnectionPtr& connection : toService) {
    if (connection->wsi != nullptr) m_WriteConnection(*connection);  // else it closed meanwhile
  }
}

// With the turn: writes one message after the other until none is left or the socket takes no more.
void CNiraIpcStubWebsocket::m_WriteConnection(Connection& connection) {
  while (!connection.overflowed && lws_partial_buffered(connection.wsi) == 0) {
    std::string text;
    {
      std::lock_guard<std::mutex> lock(m_Lock);
      text = connection.outgoing.Pop();
    }
    if (text.empty()) break;
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG_PROXY, "[CNiraIpcStubWebsocket] LWS_CALLBACK_SERVER_WRITEABLE");
    NIRA_IPC_LOG_INFO(TAG, "[m_WebSocketWriteBack] %s\n", text.c_str() + CNiraIpcOutgoingQueue::kHeadRoom);
    if (NiraIpcWriteText(connection.wsi, text) < 0) connection.overflowed = true;
  }
  if (connection.overflowed) shutdown(connection.descriptor, SHUT_RDWR);  // its reader finds it cut and closes it
  if (lws_partial_buffered(connection.wsi) != 0 || connection.foundUnregistered) m_Arm(connection);
}

// With the turn: takes the messages out of what happened. The rest is the service thread's, which alone tells of
// connections.
void CNiraIpcStubWebsocket::m_TakeMessages(Events& messages) {
  const auto isMessage = [](const Event& event) { return event.kind == Event::kMessage; };
  if (std::all_of(m_Events.begin(), m_Events.end(), isMessage)) {
    messages.swap(m_Events);
    return;
  }
  const auto rest = std::stable_partition(m_Events.begin(), m_Events.end(), isMessage);
  messages.assign(std::make_move_iterator(m_Events.begin()), std::make_move_iterator(rest));
  m_Events.erase(m_Events.begin(), rest);
  m_Loop->Wake();
}

// A worker processes the first message that it read, and leaves the others to the pool.
void CNiraIpcStubWebsocket::m_Deliver(Events& messages) {
  if (messages.empty()) return;
  for (size_t i = 1; i < messages.size(); ++i) OnMessage(std::move(messages[i].text), messages[i].connection);
  Event& first = messages.front();
  NIRA_IPC_LOG_INFO(TAG, "on_message called with message: %s, %p", first.text.c_str(), first.connection->handle);
  const auto process = [this, &first] { m_ProcessMessage(std::move(first.text), first.connection); };
  m_ThreadPool.RunHere(process);
}

void CNiraIpcStubWebsocket::m_DeliverHere(Event& event) {
  Connection& connection = *event.connection;
  if (event.kind == Event::kMessage) OnMessage(std::move(event.text), event.connection);
  if (event.kind == Event::kClose) OnClose(connection.handle);
  if (event.kind != Event::kOpen) return;
  OnOpen(connection.handle);
  m_Loop->WithTurn([&] {
    if (connection.wsi == nullptr) return;
    connection.self = event.connection;
    connection.armed = kReadable;
    connection.watch = m_ThreadPool.Watch(connection.descriptor, event.connection, kReadable);
    if (connection.watch == 0) NIRA_IPC_LOG_ERROR(TAG, "client(%p) cannot be watched", connection.handle);
    m_WriteConnection(connection);  // what could not be written before
  });
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
  m_ThreadPool.Post([this, gate = Gate(), connection, text = std::move(text)]() mutable {
    CNiraIpcCallbackGate::Pass pass(gate);
    if (pass) m_ProcessMessage(std::move(text), connection);
  });
}

void CNiraIpcStubWebsocket::m_ProcessMessage(std::string&& text, const ConnectionPtr& connection) {
  const size_t size = text.size() + kNiraIpcMessageOverhead;
  NiraIpcGuarded(TAG, "request", [&] { t_ThreadMessage(std::move(text), connection->handle); });
  m_TakeFromBacklog(connection, size);
}

void CNiraIpcStubWebsocket::t_ThreadMessage(std::string&& text, void* handle) {
  NIRA_IPC_LOG_INFO(TAG, "t_ThreadMessage: %s, %p", text.c_str(), handle);
  CallInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_MESSAGE, std::move(text), handle);
}

void CNiraIpcStubWebsocket::m_TakeFromBacklog(const ConnectionPtr& connection, size_t bytes) {
  connection->backlog -= bytes;
  if (!connection->readingPaused || connection->backlog > kNiraIpcMaxBacklog / 2) return;
  m_Loop->WithTurn([&] {
    if (connection->wsi != nullptr) m_Arm(*connection);
  });
}

void CNiraIpcStubWebsocket::SendJson(void* handle, const Json::Value& json) {
  std::string text = CNiraIpcOutgoingQueue::Begin(kUsualTextBytes);
  NiraIpcAppendJson(text, json);
  text += '\n';
  SendText(handle, std::move(text));
}

void CNiraIpcStubWebsocket::SendText(void* handle, std::string&& text) {
  NIRA_IPC_LOG_INFO(TAG, "Json = %s\n", text.c_str() + CNiraIpcOutgoingQueue::kHeadRoom);
  m_SendMessage(handle, std::move(text));
}

void CNiraIpcStubWebsocket::SendJsonWithHeader(void* handle, const char* header, const Json::Value& json) {
  std::string text = CNiraIpcOutgoingQueue::Begin(kUsualTextBytes);
  text += "{\"request\":";
  NiraIpcAppendJson(text, json);
  text += ",\"request_type\":";
  NiraIpcAppendJson(text, std::string_view(header));
  text += ",\"timestamp\":";
  NiraIpcAppendJson(text, int64_t{CNiraIpcUtil::GetTimeInMs()});
  text += "}\n";
  m_SendMessage(handle, std::move(text));
}

int CNiraIpcStubWebsocket::m_SendMessage(void* handle, std::string&& text) {
  return m_WebSocketWriteBack(handle, std::move(text));
}

// Queues the text and sees that it is written. Gives the length, or -1.
int CNiraIpcStubWebsocket::m_WebSocketWriteBack(void* handle, std::string&& text) {
  if (handle == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "handler is null");
    return -1;
  }
  const size_t size = text.size() - CNiraIpcOutgoingQueue::kHeadRoom;
  {
    std::lock_guard<std::mutex> lock(m_Lock);
    const auto found = m_Connections.find(handle);
    if (found == m_Connections.end() || found->second->overflowed) return -1;
    const ConnectionPtr& connection = found->second;
    m_NeedsService(connection);  // first: a text that is queued must not be forgotten for want of memory
    if (!connection->outgoing.Push(std::move(text))) {
      NIRA_IPC_LOG_ERROR(TAG, "client(%p) has left %zu bytes unread. disconnect", handle, connection->outgoing.Bytes());
      connection->overflowed = true;
      connection->outgoing.Clear();
    }
  }
  m_Loop->Demand();
  return static_cast<int>(size);
}

// With m_Lock: puts the connection before whoever takes the turn next.
void CNiraIpcStubWebsocket::m_NeedsService(const ConnectionPtr& connection) {
  if (connection->needsService) return;
  m_ToService.push_back(connection);
  connection->needsService = true;
}

void CNiraIpcStubWebsocket::m_CheckClientRegister(void* handle, int) {
  NIRA_IPC_LOG_INFO(TAG, "t_CheckClientRegister start. (%p)\n", handle);
  if (!IsClientRegistered(handle)) {
    NIRA_IPC_LOG_INFO(TAG, "client(%p) has not been registered yet. call writable callback\n", handle);
    {
      std::lock_guard<std::mutex> lock(m_Lock);
      const auto found = m_Connections.find(handle);
      if (found != m_Connections.end()) {
        found->second->foundUnregistered = true;
        m_NeedsService(found->second);
      }
    }
    m_Loop->Demand();
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
