// A fixed set of worker threads for what must not run on a service thread: requests, callbacks, events. They also read
// the descriptors that are given to the pool: a message is then processed by the thread that received it, without a
// hand-over.
//
// Any thread may enqueue and watch. One lock guards the tasks, the watched descriptors and the stop flag; it is never
// held while a task or a watcher runs. Workers sleep in a poller until there is something to do: an idle pool wakes for
// nothing.
//
// Most tasks are shorter than it takes to wake a thread for them. So one worker runs a few that are queued, one after
// the other; a longer queue wakes as many workers as there are processors, more would only take turns. If then no task
// is begun for a millisecond, because those that run are long or wait for something, one more is woken, and so on:
// tasks that block spread over all workers.
//
// A descriptor that becomes ready in several steps wakes several of those that sleep in the poller, in the kernel, and
// so changes their order. Therefore only a few sleep there, the others in reserve: those few keep their caches warm,
// and the allocator, which keeps freed memory for each thread, need not do so for all.
//
// The workers start with the pool's first use, not with the pool. The library's pools are made while it is loaded, and
// a service that becomes a daemon forks soon after: a thread that is just starting then may hold a lock of the
// run-time's (the dynamic linker's, say), which nobody would ever release in the child.
#ifndef NIRA_IPC_THREAD_POOL_H
#define NIRA_IPC_THREAD_POOL_H

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <unordered_map>
#include <utility>
#include <vector>

#include "nira_ipc_log.h"
#include "nira_ipc_poller.h"
#include "nira_ipc_thread.h"
#include "nira_ipc_util.h"

class ThreadPool {
 public:
  // `name` and the worker's index make the threads' names.
  explicit ThreadPool(unsigned threads, std::string name = "nira-pool-w")
      : m_Name(std::move(name)), m_Count(static_cast<int>(threads)) {
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "Creating Threadpool with %d threads.", static_cast<int>(threads));
  }

  ~ThreadPool() {
    Stop();
    if (m_Process != getpid()) AbandonWorkers();
  }

  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // How many workers tasks wake at once, for how many of them each, and after which time without progress one more.
  static int Processors() {
    static const int processors = static_cast<int>(std::max(std::thread::hardware_concurrency(), 1U));
    return processors;
  }
  static constexpr int kTasksPerWorker = 8;
  static constexpr std::chrono::milliseconds kStall{1};

  // Queues a call and returns the future of its result. Throws std::runtime_error once the pool was stopped.
  template <class F, class... Args>
  auto enqueue(F&& f, Args&&... args) -> std::future<std::invoke_result_t<std::decay_t<F>, std::decay_t<Args>...>> {
    using Result = std::invoke_result_t<std::decay_t<F>, std::decay_t<Args>...>;
    std::packaged_task<Result()> task(
        [f = std::forward<F>(f), args = std::make_tuple(std::forward<Args>(args)...)]() mutable -> Result {
          // What the task holds goes when it ends, on its worker: the future may keep the emptied task for longer.
          auto call = std::move(f);
          auto arguments = std::move(args);
          return std::apply(std::move(call), std::move(arguments));
        });
    std::future<Result> result = task.get_future();
    Post(std::move(task));
    return result;
  }

  // The same for a call whose result nobody waits for: one that must not throw.
  template <class F>
  void Post(F&& call) {
    if (m_Process == 0) StartWorkers();
    Task task = std::make_unique<Call<std::decay_t<F>>>(std::forward<F>(call));
    State::Help help;
    {
      std::lock_guard<std::mutex> lock(m_State->lock);
      if (m_State->stop) throw std::runtime_error("enqueue on stopped ThreadPool");
      m_State->tasks.push_back(std::move(task));
      m_State->LogQueue(m_State->tasks.size());
      help = m_State->FindHelp();
    }
    m_State->CallHelp(help);
  }

  // For a worker, inside a watcher: runs a call as if it had been enqueued and had come up at once.
  template <class F>
  void RunHere(F&& call) {
    m_State->LogQueue(1);
    Run(*m_State, call);
  }

  // Something that a worker calls when a descriptor of its is ready.
  class Watcher {
   public:
    virtual ~Watcher() = default;
    virtual void OnReady(uint32_t events) = 0;
  };

  // Has the workers watch a descriptor; gives the id for Arm and Unwatch, 0 if there is no memory for it. It is
  // reported to one worker, and not again before it is armed anew. Unwatch before the descriptor is closed; a call that
  // has begun may still be running then.
  uint64_t Watch(int descriptor, std::shared_ptr<Watcher> watcher, uint32_t events) {
    uint64_t id = 0;
    {
      std::lock_guard<std::mutex> lock(m_State->lock);
      id = ++m_State->lastId;
      m_State->watchers.emplace(id, std::move(watcher));
    }
    if (m_State->poller.Add(descriptor, id, events | EPOLLONESHOT)) return id;
    std::lock_guard<std::mutex> lock(m_State->lock);
    m_State->watchers.erase(id);
    return 0;
  }

  void Arm(int descriptor, uint64_t id, uint32_t events) {
    m_State->poller.Change(descriptor, id, events | EPOLLONESHOT);
  }

  void Unwatch(int descriptor, uint64_t id) {
    std::shared_ptr<Watcher> watcher;  // goes after the lock is released
    m_State->poller.Remove(descriptor);
    std::lock_guard<std::mutex> lock(m_State->lock);
    const auto found = m_State->watchers.find(id);
    if (found == m_State->watchers.end()) return;
    watcher = std::move(found->second);
    m_State->watchers.erase(found);
  }

  // Runs what is queued to its end and joins the workers. A worker that stops its own pool, because a task called
  // exit(), is left to itself. Done by the destructor if nobody did before.
  void Stop() {
    m_Stopped = true;
    // In a child of fork() the workers do not exist: joining them would wait for ever.
    if (m_Process != getpid()) return;
    StopWorkers(*m_State, m_Workers);
  }

  // Stops a pool that is itself never destroyed.
  struct StopAtExit {
    explicit StopAtExit(ThreadPool& aPool) : pool(aPool) {}
    ~StopAtExit() { pool.Stop(); }
    StopAtExit(const StopAtExit&) = delete;
    StopAtExit& operator=(const StopAtExit&) = delete;

    ThreadPool& pool;
  };

  // Whether the calling thread is one of the workers.
  bool IsWorker() const { return t_State != nullptr && t_State == m_State.get(); }

  // Starts the workers unless this process has them: all, or if one cannot be started, none. A child of fork() gets its
  // own: the parent's thread objects and locks are abandoned, because nobody in the child can ever release them.
  void StartWorkers() {
    if (m_Process == getpid()) return;
    std::lock_guard<std::mutex> lock(m_Starting);
    if (m_Process == getpid()) return;
    if (m_Stopped) throw std::runtime_error("enqueue on stopped ThreadPool");
    const auto state = std::make_shared<State>(m_Count);
    std::vector<std::thread> workers;
    workers.reserve(static_cast<size_t>(m_Count));
    try {
      for (int i = 0; i < m_Count; ++i) {
        workers.push_back(NiraIpcStartThread(m_Name + std::to_string(i), [state, i] { Work(*state, i); }));
      }
    } catch (...) {
      StopWorkers(*state, workers);
      throw;
    }
    AbandonWorkers();
    m_State = state;
    m_Workers = std::move(workers);
    m_Process = getpid();  // last: whoever finds it finds the rest
  }

 private:
  struct AnyCall {
    virtual ~AnyCall() = default;
    virtual void operator()() = 0;
  };
  template <class F>
  struct Call final : AnyCall {
    explicit Call(F aFunction) : function(std::move(aFunction)) {}
    void operator()() override { function(); }
    F function;
  };
  using Task = std::unique_ptr<AnyCall>;

  // What the workers use. Each of them holds it: one that was left to itself may outlive the pool, and in a child of
  // fork() those that do not exist keep it from being destroyed while they seem to wait in it.
  struct State {
    const int count;
    CNiraIpcPoller poller;
    std::mutex lock;
    std::deque<Task> tasks;                                           // guarded by lock, as all but busy
    std::unordered_map<uint64_t, std::shared_ptr<Watcher>> watchers;  // by id
    uint64_t lastId = 0;
    struct Reservist {
      std::condition_variable called;
      bool isCalled = false;
    };
    std::vector<Reservist*> reserve;  // who waits to be called to the poller; the latest is the first
    int sleeping = 0;                 // in the poller
    bool waking = false;              // a worker has been woken for tasks and has not looked yet
    bool timing = false;              // the timer runs
    unsigned begun = 0;               // tasks, ever
    unsigned begunAtTimer = 0;        // when it was set
    bool stop = false;
    std::atomic<int> busy{0};  // only for the log

    explicit State(int threads) : count(threads) {
      reserve.reserve(static_cast<size_t>(count));  // a worker must not want for memory
    }

    // With the lock, as all that follows.
    int Awake() const { return count - sleeping - static_cast<int>(reserve.size()); }

    // What the tasks need that nobody has begun. To be called when it is released.
    enum class Help { kNone, kWorker, kTimer };
    Help FindHelp() {
      if (tasks.empty() || sleeping == 0) return Help::kNone;
      const int wanted = std::min(Processors(), 1 + static_cast<int>(tasks.size()) / kTasksPerWorker);
      if (Awake() < wanted) return std::exchange(waking, true) ? Help::kNone : Help::kWorker;
      if (std::exchange(timing, true)) return Help::kNone;
      begunAtTimer = begun;
      return Help::kTimer;
    }

    // When the timer has run: whether no task was begun meanwhile.
    bool IsStalled() {
      timing = false;
      return !tasks.empty() && begun == begunAtTimer;
    }

    // When a worker has left the poller: somebody has to be there as long as anybody is idle.
    void CallReserve() {
      if (sleeping > 0 || reserve.empty()) return;
      reserve.back()->isCalled = true;
      reserve.back()->called.notify_one();
      reserve.pop_back();
    }

    // Until the worker is needed in the poller. False when the pool has stopped.
    bool WaitInReserve(std::unique_lock<std::mutex>& held) {
      Reservist self;
      reserve.push_back(&self);
      self.called.wait(held, [&] { return self.isCalled || stop; });
      if (!self.isCalled) reserve.erase(std::find(reserve.begin(), reserve.end(), &self));
      return self.isCalled;
    }

    void Stop() {
      stop = true;
      for (Reservist* each : reserve) each->called.notify_one();
    }

    // Without it.
    void CallHelp(Help help) {
      if (help == Help::kWorker) poller.Wake();
      if (help == Help::kTimer) poller.WakeAfter(kStall);
    }

    void LogQueue(size_t size) const {
      NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "%d threads are idle (of %d threads), %d remaining task(s)", count - busy.load(),
                        count, static_cast<int>(size));
    }
  };

  static void StopWorkers(State& state, std::vector<std::thread>& workers) {
    {
      std::lock_guard<std::mutex> lock(state.lock);
      state.Stop();
    }
    state.poller.Wake();  // one worker, which wakes the next
    for (std::thread& worker : workers) {
      if (worker.get_id() == std::this_thread::get_id()) {
        worker.detach();
      } else if (worker.joinable()) {
        worker.join();
      }
    }
  }

  // In a child of fork(): the parent's thread objects can be neither joined nor detached, and destroying one that is
  // joinable ends the process. So each is overwritten.
  void AbandonWorkers() {
    for (std::thread& worker : m_Workers) new (&worker) std::thread;
    m_Workers.clear();
  }

  static void Work(State& state, int index) {
    t_State = &state;
    t_Index = index;
    while (WorkOnce(state)) {
    }
    state.poller.Wake();  // the next worker ends, too
  }

  // Runs a task, or sleeps until something comes and handles it if it is a descriptor. False when the pool has stopped
  // and nothing is left.
  static bool WorkOnce(State& state) {
    Task task;
    State::Help help = State::Help::kNone;
    {
      std::unique_lock<std::mutex> lock(state.lock);
      if (!state.tasks.empty()) {
        task = std::move(state.tasks.front());
        state.tasks.pop_front();
        ++state.begun;
        help = state.FindHelp();
      } else if (state.stop) {
        return false;
      } else if (state.sleeping > Processors() && !state.WaitInReserve(lock)) {
        return true;
      } else {
        ++state.sleeping;
        help = state.FindHelp();  // one that was in reserve may leave tasks behind
      }
    }
    state.CallHelp(help);
    if (task != nullptr) {
      Run(state, *task);
    } else if (const auto [watcher, events] = Sleep(state); watcher != nullptr) {
      watcher->OnReady(events);
    }
    return true;
  }

  static std::pair<std::shared_ptr<Watcher>, uint32_t> Sleep(State& state) {
    for (;;) {
      const CNiraIpcPoller::Ready ready = state.poller.Wait();
      std::unique_lock<std::mutex> lock(state.lock);
      if (ready.id == CNiraIpcPoller::kTimer && !state.IsStalled()) {
        const State::Help help = state.FindHelp();
        lock.unlock();
        state.CallHelp(help);
        continue;
      }
      --state.sleeping;
      state.CallReserve();
      if (ready.id == CNiraIpcPoller::kWoken) state.waking = false;
      const auto found = state.watchers.find(ready.id);
      return {found != state.watchers.end() ? found->second : nullptr, ready.events};
    }
  }

  template <class F>
  static void Run(State& state, F& call) {
    const bool logged = NiraIpcLogWanted(NIRA_PLATFORM_LOG_INFO);
    ++state.busy;
    const uint32_t start = logged ? CNiraIpcUtil::GetTimeInMs() : 0;
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "[%d] Task started. (%d/%d threads)", t_Index, state.busy.load(), state.count);
    call();
    --state.busy;
    if (!logged) return;
    size_t remaining = 0;
    {
      std::lock_guard<std::mutex> lock(state.lock);
      remaining = state.tasks.size();
    }
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "[%d] Task done. ( %d ms)  (%d/%d threads), %d remaining task(s)", t_Index,
                      static_cast<int>(CNiraIpcUtil::GetTimeInMs() - start), state.busy.load(), state.count,
                      static_cast<int>(remaining));
  }

  static inline thread_local const State* t_State = nullptr;
  static inline thread_local int t_Index = -1;  // of the worker, for the log

  const std::string m_Name;
  const int m_Count;
  std::atomic<bool> m_Stopped{false};
  std::mutex m_Starting;            // one thread starts them
  std::atomic<pid_t> m_Process{0};  // whose workers these are; 0: nobody's yet
  std::shared_ptr<State> m_State;   // null until then
  std::vector<std::thread> m_Workers;
};

#endif  // NIRA_IPC_THREAD_POOL_H
