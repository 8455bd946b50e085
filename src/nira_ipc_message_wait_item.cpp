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

MessageWaitItems::ItemPtr MessageWaitItems::m_Find(int key) const {
  const auto found = m_Items.find(key);
  return found != m_Items.end() ? found->second : nullptr;
}

bool MessageWaitItems::IsKeyCreated(int key) const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  return m_Items.count(key) != 0;
}

bool MessageWaitItems::CreateKey(int key, Clock::time_point deadline, Completion completion) {
  auto item = std::make_shared<WaitItem>();
  item->m_Deadline = deadline;
  item->m_Completion = std::move(completion);
  std::list<int> place;  // made first: an item without its place could not be taken out again
  if (item->m_Completion) item->m_Place = place.insert(place.end(), key);
  std::lock_guard<std::mutex> lock(m_TableLock);
  if (!m_Items.emplace(key, item).second) return false;
  m_Completions.splice(m_Completions.end(), place);
  return true;
}

void MessageWaitItems::SetStartTick(int key, uint32_t tick) {
  std::lock_guard<std::mutex> lock(m_TableLock);
  if (const ItemPtr item = m_Find(key)) item->m_StartTick = tick;
}

uint32_t MessageWaitItems::GetStartTick(int key) const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  return item != nullptr ? item->m_StartTick : 0;
}

// One that has a completion is taken out of the table: whoever takes it runs it.
bool MessageWaitItems::SetJsonResponse(int key, CNiraIpcMessage&& response) {
  ItemPtr item;
  {
    std::lock_guard<std::mutex> lock(m_TableLock);
    item = m_Find(key);
    if (item == nullptr || item->m_Answered) return false;
    item->m_Answered = true;
    item->m_Response = std::move(response);
    if (item->m_Completion) m_Remove(key, *item);
  }
  if (item->m_Completion) {
    item->m_Completion(std::move(item->m_Response));
  } else {
    item->m_Condition.notify_one();
  }
  return true;
}

bool MessageWaitItems::TryLead(int key) {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  if (m_HasLeader || (item == nullptr && key != kNoKey)) return false;
  if (item != nullptr) item->m_Leads = true;
  m_HasLeader = true;
  return true;
}

bool MessageWaitItems::WaitForResponse(int key, bool* mustLead) {
  std::unique_lock<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  if (item == nullptr) return false;
  const auto isOver = [&item] { return item->m_Answered || item->m_Leads; };
  if (mustLead != nullptr && !m_HasLeader && !isOver() && item->m_Deadline > Clock::now()) {
    m_HasLeader = item->m_Leads = true;
  }
  if (!isOver()) {
    if (mustLead != nullptr) item->m_Place = m_Sleepers.insert(m_Sleepers.begin(), key);
    item->m_Sleeps = mustLead != nullptr;
    item->m_Condition.wait_until(lock, item->m_Deadline, isOver);
    if (item->m_Sleeps) m_Sleepers.erase(item->m_Place);
    item->m_Sleeps = false;
  }
  if (mustLead != nullptr) *mustLead = item->m_Leads;
  return item->m_Answered;
}

bool MessageWaitItems::IsOver(int key) const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  return item == nullptr || item->m_Answered || item->m_Deadline <= Clock::now();
}

bool MessageWaitItems::EndLead(int key) {
  ItemPtr next;
  {
    std::lock_guard<std::mutex> lock(m_TableLock);
    if (const ItemPtr item = m_Find(key)) item->m_Leads = false;
    next = m_NextLeader();
    m_HasLeader = next != nullptr;
  }
  if (next != nullptr) next->m_Condition.notify_one();
  return next != nullptr;
}

MessageWaitItems::ItemPtr MessageWaitItems::m_NextLeader() {
  while (!m_Sleepers.empty()) {
    ItemPtr item = m_Items.at(m_Sleepers.front());
    m_Sleepers.pop_front();
    item->m_Sleeps = false;
    if (item->m_Answered) continue;
    item->m_Leads = true;
    return item;
  }
  return nullptr;
}

MessageWaitItems::Clock::time_point MessageWaitItems::GetDeadline(int key) const {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  return item != nullptr ? item->m_Deadline : Clock::now();
}

Json::Value MessageWaitItems::GetJsonResponse(int key) {
  std::lock_guard<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  return item != nullptr ? std::move(item->m_Response.Value()) : Json::Value();
}

bool MessageWaitItems::RemoveKey(int key) {
  std::unique_lock<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  if (item != nullptr) m_Remove(key, *item);
  lock.unlock();  // before the item goes
  return item != nullptr;
}

bool MessageWaitItems::TakeResponse(int key, CNiraIpcMessage& response) {
  std::unique_lock<std::mutex> lock(m_TableLock);
  const ItemPtr item = m_Find(key);
  if (item == nullptr) return false;
  m_Remove(key, *item);
  lock.unlock();  // nobody else has it now but one who answered it
  if (item->m_Answered) response = std::move(item->m_Response);
  return item->m_Answered;
}

void MessageWaitItems::m_Remove(int key, WaitItem& item) {
  if (item.m_Completion) m_Completions.erase(item.m_Place);
  m_Items.erase(key);
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
  if (m_Completions.empty()) return std::nullopt;
  return m_Items.at(m_Completions.front())->m_Deadline;
}

void MessageWaitItems::AnswerTimedOut(Clock::time_point now) {
  for (;;) {
    int key = 0;
    {
      std::lock_guard<std::mutex> lock(m_TableLock);
      if (m_Completions.empty()) return;
      key = m_Completions.front();
      if (m_Items.at(key)->m_Deadline > now) return;
    }
    NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG, "TIMEOUT");
    SetJsonResponse(key, MakeFailReply("Timeout", key));
  }
}
