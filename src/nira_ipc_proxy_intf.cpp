#include "nira_ipc_proxy_intf.h"

#include "nira_ipc_log.h"
#include "nira_ipc_proxy_websocket.h"

#define TAG NIRA_IPC_TAG_PROXY

INiraIpcProxy* NiraIpcProxy::GetNiraIpcProxyImpl() {
  return new CNiraIpcProxyWebsocket;
}

INiraIpcProxy::INiraIpcProxy() {
  NIRA_IPC_LOG_INFO(TAG, "Initialization");
}

INiraIpcProxy::~INiraIpcProxy() = default;

void INiraIpcProxy::RegisterInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, InternalCallback callback,
                                             void* userData) {
  NIRA_IPC_LOG_INFO(TAG, "Internal callback register : type(%d), cb(%p) ", type, reinterpret_cast<void*>(callback));
  m_InternalCallbacks[type] = {callback, userData};
  NIRA_IPC_LOG_INFO(TAG, "Internal callback registered done: type(%d), cb(%p) ", type,
                    reinterpret_cast<void*>(callback));
}

bool INiraIpcProxy::CallInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, const std::string& text,
                                         Json::Value& message) {
  const InternalSlot& slot = m_InternalCallbacks[type];
  NIRA_IPC_LOG_INFO(TAG, "internal callback call: type(%d) response(%s), cb(%p)", type, text.c_str(),
                    reinterpret_cast<void*>(slot.callback));
  if (slot.callback == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", type);
    return false;
  }
  slot.callback(text.c_str(), message, slot.userData);
  return true;
}
