#include "nira_ipc_callback_gate.h"

thread_local CNiraIpcCallbackGate::Pass* CNiraIpcCallbackGate::t_Innermost = nullptr;

CNiraIpcCallbackGate::Pass::Pass(const std::shared_ptr<CNiraIpcCallbackGate>& gate) {
  if (!gate->m_TryEnter()) return;
  m_Gate = gate;
  m_Remember();
}

CNiraIpcCallbackGate::Pass::Pass(const std::shared_ptr<CNiraIpcCallbackGate>& gate, Held) : m_Gate(gate) {
  m_Remember();
}

CNiraIpcCallbackGate::Pass::~Pass() {
  if (m_Gate == nullptr) return;
  t_Innermost = m_Outer;
  m_Gate->m_Leave();
}

void CNiraIpcCallbackGate::Pass::m_Remember() {
  m_Outer = t_Innermost;
  t_Innermost = this;
}

bool CNiraIpcCallbackGate::m_TryEnter() {
  unsigned state = m_State.load();
  do {
    if ((state & kClosed) != 0) return false;
  } while (!m_State.compare_exchange_weak(state, state + kPlace));
  return true;
}

void CNiraIpcCallbackGate::m_Leave() {
  const unsigned before = m_State.fetch_sub(kPlace);
  if ((before & kClosed) == 0) return;
  if (before == (kPlace | kClosed) && m_WhenLeft) {
    const std::function<void()> last = std::move(m_WhenLeft);
    last();
    return;
  }
  // Under the lock, or a closer between its look at the state and its sleep would miss this.
  std::lock_guard<std::mutex> lock(m_Lock);
  m_Left.notify_all();
}

void CNiraIpcCallbackGate::CloseAndWait() {
  Close();
  const unsigned alone = kClosed | (kPlace * m_OwnPlaces());
  std::unique_lock<std::mutex> lock(m_Lock);
  m_Left.wait(lock, [this, alone] { return m_State.load() == alone; });
}

void CNiraIpcCallbackGate::Abandon() {
  m_Abandoned = true;
  Close();
}

unsigned CNiraIpcCallbackGate::m_OwnPlaces() const {
  unsigned places = 0;
  for (const Pass* pass = t_Innermost; pass != nullptr; pass = pass->m_Outer) places += pass->m_Gate.get() == this;
  return places;
}
