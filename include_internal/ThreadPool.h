// A fixed set of worker threads for what must not run on a service thread: requests, callbacks, events.
//
// Any thread may enqueue. One lock guards the tasks and the stop flag; it is never held while a task runs. Workers
// sleep until there is a task: an idle pool wakes for nothing.
//
// The workers start with the pool's first use, not with the pool. The library's pools are made while it is loaded, and
// a service that becomes a daemon forks soon after: a thread that is just starting then may hold a lock of the
// run-time's (the dynamic linker's, say), which nobody would ever release in the child.
#ifndef NIRA_IPC_THREAD_POOL_H
#define NIRA_IPC_THREAD_POOL_H

#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include "nira_ipc_log.h"
#include "nira_ipc_thread.h"
#include "nira_ipc_util.h"

class ThreadPool {
 public:
  // `name` and the worker's index make the threads' names.
  explicit ThreadPool(unsigned threads, std::string name = "nira-pool-w")
      : m_Name(std::move(name)), m_State(std::make_shared<State>(static_cast<int>(threads))) {
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "Creating Threadpool with %d threads.", static_cast<int>(threads));
  }

  ~ThreadPool() {
    Stop();
    if (m_Process != getpid()) AbandonWorkers();
  }

  ThreadPool(const ThreadPool&) = delete;
  ThreadPool& operator=(const ThreadPool&) = delete;

  // Queues a call and returns the future of its result, which may be dropped: nobody waits. Throws std::runtime_error
  // once the pool was stopped.
  template <class F, class... Args>
  auto enqueue(F&& f, Args&&... args) -> std::future<std::invoke_result_t<std::decay_t<F>, std::decay_t<Args>...>> {
    using Result = std::invoke_result_t<std::decay_t<F>, std::decay_t<Args>...>;
    if (m_Process == 0) StartWorkers();
    auto task = std::make_shared<std::packaged_task<Result()>>(
        [f = std::forward<F>(f), args = std::make_tuple(std::forward<Args>(args)...)]() mutable -> Result {
          // What the task holds goes when it ends, on its worker: the future may keep the emptied task for longer.
          auto call = std::move(f);
          auto arguments = std::move(args);
          return std::apply(std::move(call), std::move(arguments));
        });
    std::future<Result> result = task->get_future();
    {
      std::lock_guard<std::mutex> lock(m_State->lock);
      if (m_State->stop) throw std::runtime_error("enqueue on stopped ThreadPool");
      m_State->tasks.emplace_back([task = std::move(task)] { (*task)(); });
      NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "%d threads are idle (of %d threads), %d remaining task(s)",
                        m_State->count - m_State->busy.load(), m_State->count, static_cast<int>(m_State->tasks.size()));
    }
    m_State->condition.notify_one();
    return result;
  }

  // Runs what is queued to its end and joins the workers. A worker that stops its own pool, because a task called
  // exit(), is left to itself. Done by the destructor if nobody did before.
  void Stop() {
    // In a child of fork() the workers do not exist: joining them would wait for ever.
    if (m_Process != 0 && m_Process != getpid()) return;
    {
      std::lock_guard<std::mutex> lock(m_State->lock);
      m_State->stop = true;
    }
    m_State->condition.notify_all();
    for (std::thread& worker : m_Workers) {
      if (worker.get_id() == std::this_thread::get_id()) {
        worker.detach();
      } else if (worker.joinable()) {
        worker.join();
      }
    }
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
  bool IsWorker() const { return t_State == m_State.get(); }

  // Starts the workers unless this process has them. A child of fork() gets its own: the parent's thread objects and
  // locks are abandoned, because nobody in the child can ever release them.
  void StartWorkers() {
    if (m_Process == getpid()) return;
    std::lock_guard<std::mutex> lock(m_Starting);
    if (m_Process == getpid()) return;
    AbandonWorkers();
    if (m_Process != 0) m_State = std::make_shared<State>(m_State->count);
    for (int i = 0; i < m_State->count; ++i) {
      m_Workers.push_back(NiraIpcStartThread(m_Name + std::to_string(i), [state = m_State, i] { Work(*state, i); }));
    }
    m_Process = getpid();  // last: whoever finds it finds the rest
  }

 private:
  // What the workers use. Each of them holds it: one that was left to itself may outlive the pool, and in a child of
  // fork() those that do not exist keep it from being destroyed while they seem to wait in it.
  struct State {
    const int count;
    std::mutex lock;
    std::condition_variable condition;
    std::deque<std::function<void()>> tasks;  // guarded by lock
    bool stop = false;                        // guarded by lock
    std::atomic<int> busy{0};                 // only for the log

    explicit State(int threads) : count(threads) {}
  };

  // In a child of fork(): the parent's thread objects can be neither joined nor detached, and destroying one that is
  // joinable ends the process. So each is overwritten.
  void AbandonWorkers() {
    for (std::thread& worker : m_Workers) new (&worker) std::thread;
    m_Workers.clear();
  }

  static void Work(State& state, int index) {
    t_State = &state;
    for (;;) {
      std::function<void()> task;
      {
        std::unique_lock<std::mutex> lock(state.lock);
        state.condition.wait(lock, [&state] { return state.stop || !state.tasks.empty(); });
        if (state.tasks.empty()) return;
        task = std::move(state.tasks.front());
        state.tasks.pop_front();
      }
      Run(state, index, task);
    }
  }

  static void Run(State& state, int index, std::function<void()>& task) {
    const bool logged = NiraIpcLogWanted(NIRA_PLATFORM_LOG_INFO);
    ++state.busy;
    const uint32_t start = logged ? CNiraIpcUtil::GetTimeInMs() : 0;
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "[%d] Task started. (%d/%d threads)", index, state.busy.load(), state.count);
    task();
    task = nullptr;
    --state.busy;
    if (!logged) return;
    size_t remaining = 0;
    {
      std::lock_guard<std::mutex> lock(state.lock);
      remaining = state.tasks.size();
    }
    NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "[%d] Task done. ( %d ms)  (%d/%d threads), %d remaining task(s)", index,
                      static_cast<int>(CNiraIpcUtil::GetTimeInMs() - start), state.busy.load(), state.count,
                      static_cast<int>(remaining));
  }

  static inline thread_local const State* t_State = nullptr;

  const std::string m_Name;
  std::mutex m_Starting;            // one thread starts them
  std::atomic<pid_t> m_Process{0};  // whose workers these are; 0: nobody's yet
  std::shared_ptr<State> m_State;
  std::vector<std::thread> m_Workers;
};

#endif  // NIRA_IPC_THREAD_POOL_H
