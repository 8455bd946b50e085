#include "nira_ipc_loop.h"

#include <poll.h>
#include <signal.h>

#include <algorithm>
#include <string>
#include <vector>

#include "nira_ipc_guard.h"
#include "nira_ipc_log.h"
#include "nira_ipc_thread.h"

namespace {

constexpr unsigned kServiceBufferBytes = 64 << 10;

// libwebsockets would ping an idle connection and hang up on it; ours stay up for ever. Kept by pointer.
const lws_retry_bo_t kNoIdleHangUp = {nullptr, 0, 0, 0, 0, 0};

void LogOfLibwebsockets(int level, const char* line) {
  const int priority = (level & LLL_ERR) != 0 ? NIRA_PLATFORM_LOG_ERROR : NIRA_PLATFORM_LOG_INFO;
  if (!NiraIpcLogWanted(priority)) return;
  const std::string text(line, std::string(line).find_last_not_of('\n') + 1);
  NIRA_IPC_LOG(priority, NIRA_IPC_TAG, "libwebsockets: %s", text.c_str());
}

// lws_create_context sets SIGPIPE to ignored for the whole process and leaves it so. It needs none of that: it sends
// with MSG_NOSIGNAL.
class SigpipeKept {
 public:
  SigpipeKept() { sigaction(SIGPIPE, nullptr, &m_Before); }
  ~SigpipeKept() { sigaction(SIGPIPE, &m_Before, nullptr); }
  SigpipeKept(const SigpipeKept&) = delete;
  SigpipeKept& operator=(const SigpipeKept&) = delete;

 private:
  struct sigaction m_Before = {};
};

}  // namespace

// The loops whose threads run. It is made when the first one starts and so destroyed, at exit, before the application's
// static objects: until then no callback may run into something that is gone.
class CNiraIpcLoop::Running {
 public:
  static Running& Instance() {
    static Running instance;
    return instance;
  }

  void Add(const std::shared_ptr<CNiraIpcLoop>& loop) {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Loops.erase(std::remove_if(m_Loops.begin(), m_Loops.end(), [](const auto& weak) { return weak.expired(); }),
                  m_Loops.end());
    m_Loops.push_back(loop);
  }

  ~Running() {
    if (m_Process != getpid()) return;  // in a child of fork() there is no thread to stop
    std::vector<std::weak_ptr<CNiraIpcLoop>> loops;
    {
      std::lock_guard<std::mutex> lock(m_Lock);
      loops.swap(m_Loops);
    }
    for (const auto& weak : loops) {
      if (const auto loop = weak.lock()) {
        loop->m_Gate->Abandon();
        loop->Stop();
      }
    }
  }

 private:
  const pid_t m_Process = getpid();
  std::mutex m_Lock;
  std::vector<std::weak_ptr<CNiraIpcLoop>> m_Loops;
};

CNiraIpcLoop::CNiraIpcLoop(std::function<void()> onDemand) : m_OnDemand(std::move(onDemand)) {}

CNiraIpcLoop::~CNiraIpcLoop() {
  // An endpoint that was stopped inside a callback on its own service thread goes with that thread.
  if (m_Thread.joinable()) m_Thread.detach();
  if (m_Context != nullptr) DestroyContext();  // its thread could not be started
}

bool CNiraIpcLoop::CreateContext(lws_context_creation_info& info) {
  info.gid = -1;
  info.uid = -1;
  info.pt_serv_buf_size = kServiceBufferBytes;
  info.retry_and_idle_policy = &kNoIdleHangUp;
  info.http_proxy_address = "127.0.0.1:0";  // no proxy, whatever the environment's http_proxy says
  static std::mutex creating;  // the signal's disposition and libwebsockets' own start-up belong to the whole process
  std::lock_guard<std::mutex> lock(creating);
  static const bool logIsOurs = (lws_set_log_level(LLL_ERR | LLL_WARN, LogOfLibwebsockets), true);
  (void)logIsOurs;
  SigpipeKept sigpipe;
  // The vhost is made apart: a context that fails because its port is taken would not free all that it had made.
  info.options |= LWS_SERVER_OPTION_EXPLICIT_VHOSTS;
  m_Context = lws_create_context(&info);
  if (m_Context != nullptr && lws_create_vhost(m_Context, &info) == nullptr) DestroyContext();
  m_SleepsInside = m_Context;
  return m_Context != nullptr;
}

void CNiraIpcLoop::StartThread(const char* name, std::shared_ptr<CNiraIpcCallbackGate> gate,
                               std::function<void()> body) {
  m_Gate = std::move(gate);
  Running::Instance().Add(shared_from_this());
  std::lock_guard<std::mutex> lock(m_JoinLock);
  m_Thread = NiraIpcStartThread(name, [self = shared_from_this(), body = std::move(body)]() mutable {
    self->m_ServiceThreadId = std::this_thread::get_id();
    body();
    body = nullptr;
  });
}

// The turn may be wanted again while this gives it up: whoever said so found it taken and has gone.
void CNiraIpcLoop::m_Settle() {
  while (m_Demanded.load() && m_Turn.try_lock()) {
    std::lock_guard<std::mutex> turn(m_Turn, std::adopt_lock);
    m_Demanded = false;
    if (m_Context != nullptr) NiraIpcGuarded(NIRA_IPC_TAG, "write", m_OnDemand);
  }
}

CNiraIpcPoller::Ready CNiraIpcLoop::Wait(std::optional<CNiraIpcPoller::Clock::time_point> deadline) {
  m_Awake = false;
  m_Settle();
  const CNiraIpcPoller::Ready ready = m_Poller.Wait(deadline);
  m_Awake = true;
  return ready;
}

void CNiraIpcLoop::ServiceDescriptor(int descriptor, uint32_t events) {
  static_assert(EPOLLIN == POLLIN && EPOLLOUT == POLLOUT && EPOLLHUP == POLLHUP, "one set of flags for both");
  if ((events & EPOLLERR) != 0) events |= EPOLLIN;  // reading tells which error
  pollfd polled = {descriptor, POLLIN | POLLOUT, static_cast<short>(events & (EPOLLIN | EPOLLHUP))};
  if (polled.revents != 0) lws_service_fd(m_Context, &polled);
  // libwebsockets does not tell that it wants to write, an answer to a ping or to a close: so it always may. (If the
  // connection has just been closed, it does not know the descriptor any more.)
  polled.revents = POLLOUT;
  lws_service_fd(m_Context, &polled);
}

void CNiraIpcLoop::ServiceAll() {
  constexpr int kDoNotSleep = -1;
  lws_service(m_Context, kDoNotSleep);  // what has come
  lws_service(m_Context, kDoNotSleep);  // what libwebsockets wants to write because of it
}

void CNiraIpcLoop::ServiceInside() {
  WithTurn([this] { lws_service(m_Context, 0); });
}

void CNiraIpcLoop::UsePoller() {
  std::lock_guard<std::mutex> lock(m_WakeLock);
  m_SleepsInside = nullptr;
}

void CNiraIpcLoop::DestroyContext() {
  UsePoller();
  std::lock_guard<std::mutex> turn(m_Turn);
  if (m_Context != nullptr) lws_context_destroy(m_Context);
  m_Context = nullptr;
}

void CNiraIpcLoop::Wake() {
  m_Poller.Wake();
  std::lock_guard<std::mutex> lock(m_WakeLock);
  if (m_SleepsInside != nullptr) lws_cancel_service(m_SleepsInside);
}

void CNiraIpcLoop::Stop() {
  m_Stopping = true;
  Wake();
  if (IsServiceThread()) return;
  std::lock_guard<std::mutex> lock(m_JoinLock);
  if (m_Thread.joinable()) m_Thread.join();
}
