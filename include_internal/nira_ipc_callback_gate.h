// Who is inside one proxy or stub, so that it can be torn down exactly.
//
// Whatever runs on behalf of an endpoint, its callbacks on workers and the exported calls on the application's threads,
// does so with a pass of the endpoint's gate. Tear-down closes the gate, which refuses new passes, and waits until
// every other thread has given its passes back. Passes that the tearing-down thread itself holds cannot be waited for:
// it is inside one of the endpoint's callbacks, and the endpoint goes when the last of those passes is given back.
//
// Any thread may use any operation. The state is one atomic; the lock serves only a closer that waits.
#ifndef NIRA_IPC_CALLBACK_GATE_H
#define NIRA_IPC_CALLBACK_GATE_H

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>

class CNiraIpcCallbackGate {
 public:
  class Pass {
   public:
    // Enters if the gate is open; false if not.
    explicit Pass(const std::shared_ptr<CNiraIpcCallbackGate>& gate);

    // Takes over a place that Hold() kept, open or closed.
    struct Held {};
    Pass(const std::shared_ptr<CNiraIpcCallbackGate>& gate, Held);

    ~Pass();
    explicit operator bool() const { return m_Gate != nullptr; }
    Pass(const Pass&) = delete;
    Pass& operator=(const Pass&) = delete;

   private:
    friend class CNiraIpcCallbackGate;
    void m_Remember();

    std::shared_ptr<CNiraIpcCallbackGate> m_Gate;
    Pass* m_Outer = nullptr;  // the pass that this thread took before, of whichever gate
  };

  // Keeps a place for something that has to run even if the gate closes meanwhile: the callback of an asynchronous
  // call.
  void Hold() { m_State.fetch_add(kPlace); }

  // Refuses new passes from now on.
  void Close() { m_State.fetch_or(kClosed); }

  // Close, then wait until nobody but the calling thread is inside.
  void CloseAndWait();

  // Whether the calling thread is inside.
  bool IsInside() const { return m_OwnPlaces() > 0; }

  // For a closed gate that only the calling thread is inside: runs `last` when it leaves.
  void WhenLeft(std::function<void()> last) { m_WhenLeft = std::move(last); }

  // The process exits: nothing that is still held runs any more.
  void Abandon();
  bool IsAbandoned() const { return m_Abandoned.load(); }

 private:
  static constexpr unsigned kClosed = 1;
  static constexpr unsigned kPlace = 2;

  bool m_TryEnter();
  void m_Leave();
  unsigned m_OwnPlaces() const;

  static thread_local Pass* t_Innermost;

  std::atomic<unsigned> m_State{0};  // kClosed, and kPlace for each place taken
  std::atomic<bool> m_Abandoned{false};
  std::mutex m_Lock;
  std::condition_variable m_Left;
  std::function<void()> m_WhenLeft;  // only the thread that is alone inside sets and reads it
};

#endif  // NIRA_IPC_CALLBACK_GATE_H
