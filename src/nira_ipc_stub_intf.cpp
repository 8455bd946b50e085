#include "nira_ipc_stub_intf.h"

#include "nira_ipc_log.h"
#include "nira_ipc_stub_websocket.h"

#define TAG NIRA_IPC_TAG_STUB

INiraIpcStub* NiraIpcStub::GetNiraIpcStubImpl() {
  return new CNiraIpcStubWebsocket;
}

INiraIpcStub::INiraIpcStub() = default;

INiraIpcStub::~INiraIpcStub() = default;

void INiraIpcStub::RegisterInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_TYPE type, InternalCallback callback,
                                            void* userData) {
  NIRA_IPC_LOG_INFO(TAG, "Internal callback register : type(%d), cb(%p) ", type, reinterpret_cast<void*>(callback));
  m_InternalCallbacks[type] = {callback, userData};
  NIRA_IPC_LOG_INFO(TAG, "Internal callback registered done: type(%d), cb(%p) ", type,
                    reinterpret_cast<void*>(callback));
}

bool INiraIpcStub::CallInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_TYPE type, std::string&& text, void* handle) {
  const InternalSlot& slot = m_InternalCallbacks[type];
  NIRA_IPC_LOG_INFO(TAG, "internal callback call: type(%d) response(%s), cb(%p)", type, text.c_str(),
                    reinterpret_cast<void*>(slot.callback));
  if (slot.callback == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", type);
    return false;
  }
  slot.callback(std::move(text), handle, slot.userData);
  return true;
}

bool INiraIpcStub::StoreClientInfo(const std::string& appId, void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  NIRA_IPC_LOG_INFO(TAG, "Store key(%s) = handle(%p)", appId.c_str(), handle);
  if (m_WaitRegisterStates.count(handle) == 0) {
    NIRA_IPC_LOG_ERROR(TAG, "There is no any connection request for (%p)", handle);
    return false;
  }
  if (m_Clients.count(appId) != 0) {
    NIRA_IPC_LOG_ERROR(TAG, "this key(%s) already registered. so update it as latest one", appId.c_str());
  }
  m_Clients[appId] = handle;
  NIRA_IPC_LOG_INFO(TAG, "Store Success");
  PrintClientInfo();
  return true;
}

void* INiraIpcStub::GetClientHandle(const std::string& appId) {
  std::lock_guard<std::mutex> lock(m_Lock);
  NIRA_IPC_LOG_INFO(TAG, "GetClientHandle by key(%s)", appId.c_str());
  const auto found = m_Clients.find(appId);
  if (found == m_Clients.end()) {
    NIRA_IPC_LOG_ERROR(TAG, "not found");
    PrintClientInfo();
    return nullptr;
  }
  NIRA_IPC_LOG_INFO(TAG, "found key(%s) = handle(%p)", appId.c_str(), found->second);
  return found->second;
}

std::string INiraIpcStub::GetClientKey(void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  return m_FindKey(handle);
}

void INiraIpcStub::RemoveClientHandle(const std::string& appId) {
  std::lock_guard<std::mutex> lock(m_Lock);
  m_Erase(appId, nullptr);
}

std::string INiraIpcStub::RemoveClient(void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  m_WaitRegisterStates.erase(handle);
  std::string first = m_FindKey(handle);
  m_Erase(first, handle);
  // A connection may have registered under more than one id.
  for (auto client = m_Clients.begin(); client != m_Clients.end();) {
    client = client->second == handle ? m_Clients.erase(client) : std::next(client);
  }
  return first;
}

std::string INiraIpcStub::m_FindKey(void* handle) {
  NIRA_IPC_LOG_INFO(TAG, "GetClientKey by handle(%p)", handle);
  for (const auto& client : m_Clients) {
    if (client.second != handle) continue;
    NIRA_IPC_LOG_INFO(TAG, "success to find handle(%p) = %s", handle, client.first.c_str());
    return client.first;
  }
  return {};
}

// With a handle, only if the id is bound to that connection: the id of one that never registered reads as empty, and
// another may have registered under the empty id.
void INiraIpcStub::m_Erase(const std::string& appId, const void* boundTo) {
  NIRA_IPC_LOG_INFO(TAG, "RemoveClientHandle by key(%s)", appId.c_str());
  const auto found = m_Clients.find(appId);
  if (found != m_Clients.end() && (boundTo == nullptr || boundTo == found->second)) {
    NIRA_IPC_LOG_INFO(TAG, "erase key(%s)", appId.c_str());
    m_Clients.erase(found);
  }
  PrintClientInfo();
}

bool INiraIpcStub::IsClientRegistered(void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  const auto found = m_WaitRegisterStates.find(handle);
  if (found == m_WaitRegisterStates.end()) {
    NIRA_IPC_LOG_ERROR(TAG, "There is no any connection request for (%p)", handle);
    return false;
  }
  if (found->second != NIRA_IPC_STUB_REGISTER_STATE_FINISH) {
    NIRA_IPC_LOG_ERROR(TAG, "this handle(%p) has not been registered", handle);
    return false;
  }
  NIRA_IPC_LOG_INFO(TAG, "this handle(%p) has been registered", handle);
  return true;
}

void INiraIpcStub::SetClientWaitRegister(void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  if (m_WaitRegisterStates.count(handle) != 0) {
    NIRA_IPC_LOG_ERROR(TAG, "this handle(%p) already registered in wait list. so update it as latest one", handle);
  }
  m_WaitRegisterStates[handle] = NIRA_IPC_STUB_REGISTER_STATE_WAIT;
  NIRA_IPC_LOG_INFO(TAG, "SetWaitRegisterApp Success");
  PrintClientWaitRegister();
}

void INiraIpcStub::SetClientWaitRegisterFinish(void* handle) {
  std::lock_guard<std::mutex> lock(m_Lock);
  const auto found = m_WaitRegisterStates.find(handle);
  if (found == m_WaitRegisterStates.end()) return;  // it closed while its registration was being recorded
  NIRA_IPC_LOG_ERROR(TAG, "this handle(%p) already registered in wait list. so update it as latest one", handle);
  found->second = NIRA_IPC_STUB_REGISTER_STATE_FINISH;
  NIRA_IPC_LOG_INFO(TAG, "SetAppWaitRegisterFinish Success");
  PrintClientWaitRegister();
}

int INiraIpcStub::GetConnectedClientNumer() {
  std::lock_guard<std::mutex> lock(m_Lock);
  return static_cast<int>(m_Clients.size());
}

void INiraIpcStub::PrintClientInfo() {
  NIRA_IPC_LOG_ERROR(TAG, "----------------------[%d] Client(s) connected----------------------",
                     static_cast<int>(m_Clients.size()));
  int position = 0;
  for (const auto& client : m_Clients) {
    NIRA_IPC_LOG_ERROR(TAG, "Registered App ID[%d] key(%s), value(%p)", position++, client.first.c_str(),
                       client.second);
  }
  NIRA_IPC_LOG_ERROR(TAG, "-------------------------------------------------------------");
}

void INiraIpcStub::PrintClientWaitRegister() {
  if (!NiraIpcLogWanted(NIRA_PLATFORM_LOG_INFO)) return;
  NIRA_IPC_LOG_INFO(TAG, "---------------------- lws(s) wait register state----------------------");
  int position = 0;
  for (const auto& entry : m_WaitRegisterStates) {
    NIRA_IPC_LOG_INFO(TAG, "Wait Registered App ID[%d] handle(%p), state(%d)", position++, entry.first, entry.second);
  }
  NIRA_IPC_LOG_INFO(TAG, "-------------------------------------------------------------");
}
