// A registered function and its user data, which may change while calls are made.
//
// Any thread may set, any thread may call. A call reads the pair as one, and once Set returned, no new call of the old
// pair begins. Neither waits for a call that runs, so a callback may replace itself, and callers take no lock: a call
// announces itself for the few instructions between reading the pair and entering the function, and Set waits those
// out.
#ifndef NIRA_IPC_CALLBACK_SLOT_H
#define NIRA_IPC_CALLBACK_SLOT_H

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

template <class Function>
class CNiraIpcCallbackSlot {
 public:
  CNiraIpcCallbackSlot() = default;
  ~CNiraIpcCallbackSlot() { delete m_Pair.load(); }
  CNiraIpcCallbackSlot(const CNiraIpcCallbackSlot&) = delete;
  CNiraIpcCallbackSlot& operator=(const CNiraIpcCallbackSlot&) = delete;

  // A null function empties the slot.
  void Set(Function function, void* userData) {
    std::unique_ptr<const Pair> pair(function != nullptr ? new Pair{function, userData} : nullptr);
    std::lock_guard<std::mutex> lock(m_Setters);
    const std::unique_ptr<const Pair> old(m_Pair.exchange(pair.release()));
    while (m_Beginning.load() != 0) std::this_thread::yield();
  }

  // Calls the function with `args` and its user data. False when the slot is empty.
  template <class... Args>
  bool Call(Args... args) const {
    m_Beginning.fetch_add(1);
    const Pair* pair = m_Pair.load();
    const Pair copy = pair != nullptr ? *pair : Pair{nullptr, nullptr};
    m_Beginning.fetch_sub(1);
    if (copy.function == nullptr) return false;
    copy.function(args..., copy.userData);
    return true;
  }

  bool IsEmpty() const { return m_Pair.load() == nullptr; }

  // The function's address, for log lines.
  void* Address() const {
    m_Beginning.fetch_add(1);
    const Pair* pair = m_Pair.load();
    void* address = pair != nullptr ? reinterpret_cast<void*>(pair->function) : nullptr;
    m_Beginning.fetch_sub(1);
    return address;
  }

 private:
  struct Pair {
    Function function;
    void* userData;
  };

  std::atomic<const Pair*> m_Pair{nullptr};
  mutable std::atomic<int> m_Beginning{0};  // calls between reading the pair and entering its function
  std::mutex m_Setters;
};

#endif  // NIRA_IPC_CALLBACK_SLOT_H
