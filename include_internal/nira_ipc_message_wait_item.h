// The requests of one proxy that wait for their replies, by "uniqueKey".
//
// Application threads and workers create and remove items and wait on them; whoever reads the connection answers them.
// At most one thread leads: it alone reads the connection and answers the others. Mostly that is one of those that
// wait: it waits on the connection itself, so that its reply need not be handed over to it, and when it has that, it
// passes the lead on. While none waits, the service thread takes the lead whenever there is something to read.
//
// One lock guards the map and the items; it is not held while somebody waits, nor while a completion runs. Items are
// shared, so a late reply and the end of a wait cannot pull one away from under each other.
#ifndef NIRA_IPC_MESSAGE_WAIT_ITEM_H
#define NIRA_IPC_MESSAGE_WAIT_ITEM_H

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

#include "nira_ipc_message.h"

class WaitItem {
 public:
  WaitItem();
  ~WaitItem();
  WaitItem(const WaitItem&) = delete;
  WaitItem& operator=(const WaitItem&) = delete;

 private:
  friend class MessageWaitItems;

  // Guarded by the table's lock.
  std::condition_variable m_Condition;
  bool m_Answered = false;
  bool m_Sleeps = false;  // its thread waits on the condition and could lead
  bool m_Leads = false;   // its thread is to lead
  CNiraIpcMessage m_Response;
  uint32_t m_StartTick = 0;
  std::function<void(CNiraIpcMessage&&)> m_Completion;  // instead of a waiting thread
  std::chrono::steady_clock::time_point m_Deadline;
  std::list<int>::iterator m_Place;  // in m_Completions, or in m_Sleepers if m_Sleeps
};

class MessageWaitItems {
 public:
  using Clock = std::chrono::steady_clock;
  using Completion = std::function<void(CNiraIpcMessage&&)>;

  bool IsKeyCreated(int key) const;

  // Adds a request. With a completion, the table runs it once with the reply, whichever comes, and drops the item;
  // without, the caller waits with WaitForResponse and then removes the key. False when the key is in flight already:
  // two requests never share one, or each would get the other's reply.
  bool CreateKey(int key, Clock::time_point deadline, Completion completion = nullptr);

  void SetStartTick(int key, uint32_t tick);
  uint32_t GetStartTick(int key) const;

  // Answers a request. False when none waits under the key (any more); the response is not moved then.
  bool SetJsonResponse(int key, CNiraIpcMessage&& response);

  // Makes the request's thread the leader if there is none; without a key the calling one, which waits for nothing.
  static constexpr int kNoKey = 0;
  bool TryLead(int key = kNoKey);

  // Blocks until the request is answered or its deadline has passed on the monotonic clock, whatever else wakes the
  // thread; whether it was answered. A caller that can lead gives `mustLead`: if that is set, it has to read the
  // connection until IsOver, call EndLead, and wait again.
  bool WaitForResponse(int key, bool* mustLead = nullptr);

  // Whether the request was answered or its deadline has passed.
  bool IsOver(int key) const;

  // The leader leads no more. False when nobody waits who could.
  bool EndLead(int key);

  Clock::time_point GetDeadline(int key) const;

  // Takes the answer out of the item.
  Json::Value GetJsonResponse(int key);

  // False when the key is not in the table (any more).
  bool RemoveKey(int key);

  // Both at once: false when it was not answered.
  bool TakeResponse(int key, CNiraIpcMessage& response);

  // Answers every request that still waits, in ascending order of keys, because the connection is gone.
  void ArrangeAllWaitItem();

  // When the first request that has a completion times out; nothing if there is none.
  std::optional<Clock::time_point> NextTimeout() const;

  // Answers those whose time has come.
  void AnswerTimedOut(Clock::time_point now);

  // The replies that are made on this side.
  static Json::Value MakeFailReply(const char* message, int key);

 private:
  using ItemPtr = std::shared_ptr<WaitItem>;

  // All with the lock.
  ItemPtr m_Find(int key) const;
  void m_Remove(int key, WaitItem& item);
  ItemPtr m_NextLeader();

  mutable std::mutex m_TableLock;
  std::unordered_map<int, ItemPtr> m_Items;
  std::list<int> m_Completions;  // keys, oldest first: all wait equally long, so the first times out first
  std::list<int> m_Sleepers;     // keys of those whose threads sleep, the latest first
  bool m_HasLeader = false;
};

#endif  // NIRA_IPC_MESSAGE_WAIT_ITEM_H
