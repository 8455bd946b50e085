// The requests of one proxy that wait for their replies, by "uniqueKey".
//
// Application threads and workers create and remove items and wait on them; the connection's service thread answers
// them. The table's lock guards the map and every field but a blocking item's answer, which the item's own lock guards;
// the table's lock is never held while somebody waits, nor while a completion runs. Items are shared, so a late reply
// and the end of a wait cannot pull one away from under each other.
#ifndef NIRA_IPC_MESSAGE_WAIT_ITEM_H
#define NIRA_IPC_MESSAGE_WAIT_ITEM_H

#include <json/json.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

class WaitItem {
 public:
  WaitItem();
  ~WaitItem();
  WaitItem(const WaitItem&) = delete;
  WaitItem& operator=(const WaitItem&) = delete;

 private:
  friend class MessageWaitItems;

  std::condition_variable m_Condition;
  std::mutex m_Lock;
  bool m_Answered = false;
  Json::Value m_Response;
  uint32_t m_StartTick = 0;
  std::function<void(Json::Value&&)> m_Completion;  // instead of a waiting thread
  std::chrono::steady_clock::time_point m_Deadline;
  std::list<int>::iterator m_Pending;  // its place in m_PendingCompletions, if it has a completion
};

class MessageWaitItems {
 public:
  using Clock = std::chrono::steady_clock;
  using Completion = std::function<void(Json::Value&&)>;

  bool IsKeyCreated(int key) const;

  // Adds a request. With a completion, the table runs it once with the reply, whichever comes, and drops the item;
  // without, the caller waits with WaitForResponse and then removes the key. False when the key is in flight already:
  // two requests never share one, or each would get the other's reply.
  bool CreateKey(int key, Clock::time_point deadline, Completion completion = nullptr);

  void SetStartTick(int key, uint32_t tick);
  uint32_t GetStartTick(int key) const;

  // Answers a request. False when none waits under the key (any more).
  bool SetJsonResponse(int key, Json::Value&& response);

  // Blocks until the request is answered or its deadline has passed on the monotonic clock, whatever else wakes the
  // thread; whether it was answered.
  bool WaitForResponse(int key);

  // Takes the answer out of the item.
  Json::Value GetJsonResponse(int key);

  // False when the key is not in the table (any more).
  bool RemoveKey(int key);

  // Answers every request that still waits, in ascending order of keys, because the connection is gone.
  void ArrangeAllWaitItem();

  // When the first request that has a completion times out; nothing if there is none.
  std::optional<Clock::time_point> NextTimeout() const;

  // Answers those whose time has come.
  void AnswerTimedOut(Clock::time_point now);

  // The replies that are made on this side.
  static Json::Value MakeFailReply(const char* message, int key);

 private:
  std::shared_ptr<WaitItem> m_Find(int key) const;
  std::shared_ptr<WaitItem> m_TakeForAnswer(int key);
  static bool m_Answer(WaitItem& item, Json::Value&& response);

  mutable std::mutex m_TableLock;
  std::unordered_map<int, std::shared_ptr<WaitItem>> m_Items;
  std::list<int> m_PendingCompletions;  // keys, oldest first: all wait equally long, so the first times out first
};

#endif  // NIRA_IPC_MESSAGE_WAIT_ITEM_H
