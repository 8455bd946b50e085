#include "nira_ipc_outgoing_queue.h"

#include <libwebsockets.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "nira_ipc_limits.h"

const size_t CNiraIpcOutgoingQueue::kHeadRoom = LWS_PRE;

std::string CNiraIpcOutgoingQueue::Begin(size_t length) {
  std::string text;
  text.reserve(kHeadRoom + length);
  return text.append(kHeadRoom, '\0');
}

bool CNiraIpcOutgoingQueue::Push(std::string&& text) {
  const size_t length = text.size() - kHeadRoom;
  if (length > kNiraIpcMaxOutgoingQueue - m_Bytes) return false;
  m_Texts.push_back(std::move(text));
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

CNiraIpcCork::CNiraIpcCork(int descriptor, bool isNeeded) : m_Descriptor(isNeeded ? descriptor : -1) {
  const int on = 1;
  if (isNeeded) setsockopt(m_Descriptor, IPPROTO_TCP, TCP_CORK, &on, sizeof on);
}

CNiraIpcCork::~CNiraIpcCork() {
  const int off = 0;
  if (m_Descriptor >= 0) setsockopt(m_Descriptor, IPPROTO_TCP, TCP_CORK, &off, sizeof off);
}

int NiraIpcWriteText(lws* wsi, std::string& text) {
  auto* payload = reinterpret_cast<unsigned char*>(text.data()) + CNiraIpcOutgoingQueue::kHeadRoom;
  return lws_write(wsi, payload, text.size() - CNiraIpcOutgoingQueue::kHeadRoom, LWS_WRITE_TEXT);
}
