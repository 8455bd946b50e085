#include "nira_ipc_bundle_internal.h"
#include "nira_ipc_func_internal.h"
#include "nira_ipc_func_result_internal.h"
#include "nira_ipc_json.h"
#include "nira_ipc_log.h"
#include "nira_ipc_message.h"
#include "nira_ipc_proxy.h"
#include "nira_ipc_proxy_internal.h"

#define TAG NIRA_IPC_TAG_PROXY

namespace {

// The proxy behind a handle; null, and told, for a null handle.
CNiraIpcProxy* ProxyOf(void* handle) {
  if (handle == nullptr) NIRA_IPC_LOG_ERROR(TAG, "handle is NULL");
  return static_cast<CNiraIpcProxy*>(handle);
}

}  // namespace

void* nira_ipc_proxy_new(void) {
  try {
    return new CNiraIpcProxy;
  } catch (...) {
    NIRA_IPC_LOG_ERROR(TAG, "Error while initialize");
    return nullptr;
  }
}

int nira_ipc_proxy_connect(void* proxy, int port, const char* app_id) {
  try {
    CNiraIpcProxy* self = ProxyOf(proxy);
    if (self != nullptr && self->SetConnect(port, app_id)) return 1;
  } catch (...) {
  }
  NIRA_IPC_LOG_ERROR(TAG, "Error while initialize");
  return 0;
}

void nira_ipc_proxy_disconnect(void* proxy) {
  auto* self = static_cast<CNiraIpcProxy*>(proxy);
  if (self != nullptr && self->IsConnected()) self->SetDisconnect();
}

void nira_ipc_proxy_free(void* proxy) {
  if (proxy == nullptr) return;
  NIRA_IPC_LOG_INFO(TAG, "del CNiraIpcProxy");
  static_cast<CNiraIpcProxy*>(proxy)->DisconnectAndDelete();
}

void nira_ipc_proxy_send_message(void* proxy, const char* text) {
  if (CNiraIpcProxy* self = ProxyOf(proxy)) self->SendMessage(text);
}

void nira_ipc_proxy_send_bundle(void* proxy, void* bundle) {
  if (CNiraIpcProxy* self = ProxyOf(proxy)) self->SendBundle(static_cast<CNiraIpcBundle*>(bundle));
}

void* nira_ipc_proxy_call_function(void* proxy, void* func) {
  CNiraIpcProxy* self = ProxyOf(proxy);
  if (self == nullptr || func == nullptr) return nullptr;
  CNiraIpcMessage reply;
  const bool sent = self->CallFunction(static_cast<CNiraIpcFunc*>(func), reply);
  NIRA_IPC_LOG_INFO(TAG, "bRet = %s, result = %s\n", sent ? "true" : "false",
                    sent ? NiraIpcWriteJson(reply.Value()).c_str() : "");
  return sent ? new CNiraIpcFuncResult(reply.TakeMember("result")) : new CNiraIpcFuncResult;
}

void nira_ipc_proxy_call_function_async(void* proxy, void* func, nira_ipc_proxy_callback callback, void* user_data) {
  CNiraIpcProxy* self = ProxyOf(proxy);
  if (self == nullptr || func == nullptr) return;
  self->CallFunctionAsync(static_cast<CNiraIpcFunc*>(func), callback, user_data);
}

void nira_ipc_proxy_register_callback(void* proxy, NIRA_IPC_PROXY_CALLBACK_TYPE type, nira_ipc_proxy_callback callback,
                                      void* user_data) {
  if (CNiraIpcProxy* self = ProxyOf(proxy)) self->RegisterUserCallback(type, callback, user_data);
}

void nira_ipc_proxy_register_bundle_handler(void* proxy, nira_ipc_proxy_bundle_handler handler, void* user_data) {
  if (CNiraIpcProxy* self = ProxyOf(proxy)) self->RegisterBundleHandler(handler, user_data);
}

void nira_ipc_proxy_unregister_bundle_handler(void* proxy, nira_ipc_proxy_bundle_handler handler) {
  if (CNiraIpcProxy* self = ProxyOf(proxy)) self->UnregisterBundleHandler(handler);
}
