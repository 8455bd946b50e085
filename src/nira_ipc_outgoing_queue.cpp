#include "nira_ipc_outgoing_queue.h"

#include <libwebsockets.h>

#include "nira_ipc_limits.h"

const size_t CNiraIpcOutgoingQueue::kHeadRoom = LWS_PRE;

bool CNiraIpcOutgoingQueue::Push(const char* text, size_t length) {
  if (length > kNiraIpcMaxOutgoingQueue - m_Bytes) return false;
  std::string padded;
  padded.reserve(kHeadRoom + length);
  padded.append(kHeadRoom, '\0').append(text, length);
  m_Texts.push_back(std::move(padded));
  m_Bytes += length;
  return true;
}

std::string CNiraIpcOutgoingQueue::Pop() {
  if (m_Texts.empty()) return {};
  std::string text = std::move(m_Texts.front());
  m_Texts.pop_front();
  m_Bytes -= text.size() - kHeadRoom;
  return text;
}

void CNiraIpcOutgoingQueue::Clear() {
  m_Texts.clear();
  m_Bytes = 0;
}

int NiraIpcWriteText(lws* wsi, std::string& text) {
  auto* payload = reinterpret_cast<unsigned char*>(text.data()) + CNiraIpcOutgoingQueue::kHeadRoom;
  return lws_write(wsi, payload, text.size() - CNiraIpcOutgoingQueue::kHeadRoom, LWS_WRITE_TEXT);
}
