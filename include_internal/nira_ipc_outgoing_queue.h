// Texts that wait to be written to one connection, oldest first. No lock: its owner's guards it.
#ifndef NIRA_IPC_OUTGOING_QUEUE_H
#define NIRA_IPC_OUTGOING_QUEUE_H

#include <cstddef>
#include <deque>
#include <string>

struct lws;

class CNiraIpcOutgoingQueue {
 public:
  // Room that libwebsockets wants in front of what it writes: every text begins with so many bytes that are not its
  // own.
  static const size_t kHeadRoom;

  // A text to append to, with room for so many more bytes.
  static std::string Begin(size_t length);

  // Appends a text. False, and nothing appended, when the queue would hold more than its bound.
  bool Push(std::string&& text);

  // The oldest text, with kHeadRoom bytes before it; empty when there is none.
  std::string Pop();

  size_t Count() const { return m_Texts.size(); }
  size_t Bytes() const { return m_Bytes; }
  void Clear();

 private:
  std::deque<std::string> m_Texts;
  size_t m_Bytes = 0;
};

// While one lives, what is written to a TCP socket is held back until a packet is full: several texts then cost one
// packet, and wake the peer once.
class CNiraIpcCork {
 public:
  // Does so only if `isNeeded`.
  CNiraIpcCork(int descriptor, bool isNeeded);
  ~CNiraIpcCork();
  CNiraIpcCork(const CNiraIpcCork&) = delete;
  CNiraIpcCork& operator=(const CNiraIpcCork&) = delete;

 private:
  const int m_Descriptor;  // -1: not needed
};

// Writes a text of CNiraIpcOutgoingQueue::Pop as one message. Service thread only; returns lws_write's result.
int NiraIpcWriteText(lws* wsi, std::string& text);

#endif  // NIRA_IPC_OUTGOING_QUEUE_H
