#include "nira_ipc_message_wait_item.h"

#include <algorithm>

#include "nira_ipc_log.h"

WaitItem::WaitItem() {
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "Constructor");
}

WaitItem::~WaitItem() {
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "Destructor");
}

Json::Value MessageWaitItems::MakeFailReply(const char* message, int key) {
  Json::Value reply(Json::objectValue);
  reply["stat"] = "fail";
  reply["message"] = message;
  reply["uniqueKey"] = key;
  return reply;
}

std::shared_ptr<WaitItem> MessageWaitItems::m_Find(int key) const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const auto found = m_Items.find(key);
  return found != m_Items.end() ? found->second : nullptr;
}

bool MessageWaitItems::IsKeyCreated(int key) const {
  return m_Find(key) != nullptr;
}

bool MessageWaitItems::CreateKey(int key, Clock::time_point deadline, Completion completion) {
  auto item = std::make_shared<WaitItem>();
  item->m_Deadline = deadline;
  item->m_Completion = std::move(completion);
  std::lock_guard<std::mutex> lock(m_TableLock);
  if (!m_Items.emplace(key, item).second) return false;
  if (item->m_Completion) item->m_Pending = m_PendingCompletions.insert(m_PendingCompletions.end(), key);
  return true;
}

void MessageWaitItems::SetStartTick(int key, uint32_t tick) {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const auto found = m_Items.find(key);
  if (found != m_Items.end()) found->second->m_StartTick = tick;
}

uint32_t MessageWaitItems::GetStartTick(int key) const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const auto found = m_Items.find(key);
  return found != m_Items.end() ? found->second->m_StartTick : 0;
}

// The item that waits under the key. One that has a completion is taken out of the table: whoever takes it runs it.
std::shared_ptr<WaitItem> MessageWaitItems::m_TakeForAnswer(int key) {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const auto found = m_Items.find(key);
  if (found == m_Items.end() || !found->second->m_Completion) return found != m_Items.end() ? found->second : nullptr;
  std::shared_ptr<WaitItem> item = std::move(found->second);
  m_PendingCompletions.erase(item->m_Pending);
  m_Items.erase(found);
  return item;
}

bool MessageWaitItems::m_Answer(WaitItem& item, Json::Value&& response) {
  {
    std::lock_guard<std::mutex> lock(item.m_Lock);
    if (item.m_Answered) return false;
    item.m_Answered = true;
    item.m_Response = std::move(response);
  }
  item.m_Condition.notify_one();
  return true;
}

bool MessageWaitItems::SetJsonResponse(int key, Json::Value&& response) {
  const auto item = m_TakeForAnswer(key);
  if (item == nullptr) return false;
  if (!item->m_Completion) return m_Answer(*item, std::move(response));
  item->m_Completion(std::move(response));
  return true;
}

bool MessageWaitItems::WaitForResponse(int key) {
  const auto item = m_Find(key);
  if (item == nullptr) return false;
  std::unique_lock<std::mutex> lock(item->m_Lock);
  return item->m_Condition.wait_until(lock, item->m_Deadline, [&item] { return item->m_Answered; });
}

Json::Value MessageWaitItems::GetJsonResponse(int key) {
  const auto item = m_Find(key);
  if (item == nullptr) return {};
  std::lock_guard<std::mutex> lock(item->m_Lock);
  return std::move(item->m_Response);
}

bool MessageWaitItems::RemoveKey(int key) {
  std::shared_ptr<WaitItem> item;  // destroyed after the lock is released
  std::lock_guard<std::mutex> lock(m_TableLock);
  const auto found = m_Items.find(key);
  if (found == m_Items.end()) return false;
  item = std::move(found->second);
  if (item->m_Completion) m_PendingCompletions.erase(item->m_Pending);
  m_Items.erase(found);
  return true;
}

void MessageWaitItems::ArrangeAllWaitItem() {
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "ArrangeAllWaitItem start");
  std::vector<int> keys;
  {
    std::lock_guard<std::mutex> lock(m_TableLock);
    keys.reserve(m_Items.size());
    for (const auto& item : m_Items) keys.push_back(item.first);
  }
  std::sort(keys.begin(), keys.end());
  for (const int key : keys) {
    if (SetJsonResponse(key, MakeFailReply("Unexpected disconnection", key))) {
      NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG, "ARRANGE Remained WAIT ITEM, key(%d)", key);
    }
  }
  NIRA_IPC_LOG_INFO(NIRA_IPC_TAG, "ArrangeAllWaitItem end");
}

std::optional<MessageWaitItems::Clock::time_point> MessageWaitItems::NextTimeout() const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  if (m_PendingCompletions.empty()) return std::nullopt;
  return m_Items.at(m_PendingCompletions.front())->m_Deadline;
}

void MessageWaitItems::AnswerTimedOut(Clock::time_point now) {
  for (;;) {
    int key = 0;
    {
      std::lock_guard<std::mutex> lock(m_TableLock);
      if (m_PendingCompletions.empty()) return;
      key = m_PendingCompletions.front();
      if (m_Items.at(key)->m_Deadline > now) return;
    }
    NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG, "TIMEOUT");
    SetJsonResponse(key, MakeFailReply("Timeout", key));
  }
}
