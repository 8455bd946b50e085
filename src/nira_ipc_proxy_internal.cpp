#include "nira_ipc_proxy_internal.h"

#include "nira_ipc_bundle_internal.h"
#include "nira_ipc_func_internal.h"
#include "nira_ipc_guard.h"
#include "nira_ipc_json.h"
#include "nira_ipc_log.h"
#include "nira_ipc_util.h"
#include "nira_ipc_version.h"

#define TAG NIRA_IPC_TAG_PROXY

CNiraIpcProxy::CNiraIpcProxy() : m_pImpl(NiraIpcProxy::GetNiraIpcProxyImpl()) {
  m_pImpl->RegisterInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_OPEN, t_NiraIpcProxyCallbackOnOpen, this);
  m_pImpl->RegisterInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_CLOSE, t_NiraIpcProxyCallbackOnClose, this);
  m_pImpl->RegisterInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_MESSAGE, t_NiraIpcProxyCallbackOnMessage, this);
}

CNiraIpcProxy::~CNiraIpcProxy() {
  NIRA_IPC_LOG_INFO(TAG, "del CNiraIpcProxyImpl");
  delete m_pImpl;
}

bool CNiraIpcProxy::SetConnect(int port, const char* app_id) {
  CNiraIpcCallbackGate::Pass pass(m_pImpl->Gate());
  if (!pass) return false;
  if (app_id == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "parameta is NULL");
    return false;
  }
  if (!m_pImpl->SetConnect(port, app_id)) return false;
  if (!NiraIpcGuarded(TAG, "registration", false, [&] { return m_RegisterAppID(app_id); })) {
    NIRA_IPC_LOG_ERROR(TAG, "Failure Registerappid by nira_ipc_proxy");
    m_pImpl->SetDisconnect();  // a failed connect leaves nothing behind, so that it can be tried again
    return false;
  }
  NIRA_IPC_LOG_ERROR(TAG, "Success Connect (%d) by (%s)", port, app_id);
  return true;
}

void CNiraIpcProxy::SetDisconnect() {
  NIRA_IPC_LOG_ERROR(TAG, "Success Disconnect");
  m_pImpl->SetDisconnect();
}

bool CNiraIpcProxy::IsConnected() {
  return m_pImpl->IsConnected();
}

void CNiraIpcProxy::DisconnectAndDelete() {
  if (m_bFreed.exchange(true)) return;  // two callbacks free the same proxy: the first one does it
  const std::shared_ptr<CNiraIpcCallbackGate> gate = m_pImpl->Gate();
  m_pImpl->TearDown();
  if (gate->IsInside()) {
    gate->WhenLeft([this] { delete this; });
  } else {
    delete this;
  }
}

void CNiraIpcProxy::RegisterUserCallback(NIRA_IPC_PROXY_CALLBACK_TYPE type, nira_ipc_proxy_callback callback,
                                         void* userData) {
  NIRA_IPC_LOG_INFO(TAG, "user callback register : type(%d), cb(%p) ", type, reinterpret_cast<void*>(callback));
  if (static_cast<unsigned>(type) >= kCallbackTypes) {  // it may have come from C as any number
    NIRA_IPC_LOG_ERROR(TAG, "there is no callback type(%d)", type);
    return;
  }
  m_UserCallbacks[type].Set(callback, userData);
  NIRA_IPC_LOG_INFO(TAG, "callback registered done: type(%d), cb(%p) ", type, reinterpret_cast<void*>(callback));
}

void CNiraIpcProxy::RegisterBundleHandler(nira_ipc_proxy_bundle_handler handler, void* userData) {
  NIRA_IPC_LOG_INFO(TAG, "bundle handler register : cb(%p) ", reinterpret_cast<void*>(handler));
  m_BundleHandler.Set(handler, userData);
  NIRA_IPC_LOG_INFO(TAG, "callback registered done:, cb(%p) ", reinterpret_cast<void*>(handler));
}

void CNiraIpcProxy::UnregisterBundleHandler(nira_ipc_proxy_bundle_handler handler) {
  NIRA_IPC_LOG_INFO(TAG, "bundle handler unregister : cb(%p) ", reinterpret_cast<void*>(handler));
  m_BundleHandler.Set(nullptr, nullptr);
  NIRA_IPC_LOG_INFO(TAG, "callback unregister done:, cb(%p) ", reinterpret_cast<void*>(handler));
}

bool CNiraIpcProxy::CallFunction(const CNiraIpcFunc* func, CNiraIpcMessage& reply) {
  CNiraIpcCallbackGate::Pass pass(m_pImpl->Gate());
  if (!pass) return false;
  return m_pImpl->SendRequest("method", func->GetJsonText(), reply);
}

void CNiraIpcProxy::CallFunctionAsync(const CNiraIpcFunc* func, nira_ipc_proxy_callback callback, void* userData) {
  CNiraIpcCallbackGate::Pass pass(m_pImpl->Gate());
  if (!pass) return;
  m_pImpl->SendMessageAsync(new CRequestAsyncData{"method", func->GetJsonText(), callback, userData});
}

bool CNiraIpcProxy::m_Send(const char* requestType, const std::string& request, std::string& reply) {
  CNiraIpcCallbackGate::Pass pass(m_pImpl->Gate());
  return pass && m_pImpl->SendMessage(requestType, request, reply);
}

void CNiraIpcProxy::SendMessage(const char* text) {
  if (text == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "parameta is NULL");
    return;
  }
  std::string request = "{\"message\":";
  NiraIpcAppendJson(request, std::string_view(text));
  request += '}';
  std::string reply;
  if (!m_Send("message", request, reply)) NIRA_IPC_LOG_ERROR(TAG, "SendMessage fail : %s", reply.c_str());
}

void CNiraIpcProxy::SendBundle(const CNiraIpcBundle* bundle) {
  if (bundle == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "parameta is NULL");
    return;
  }
  std::string reply;
  if (!m_Send("bundle", bundle->GetJsonText(), reply)) NIRA_IPC_LOG_ERROR(TAG, "SendBundle fail : %s", reply.c_str());
}

bool CNiraIpcProxy::CallUserCallback(NIRA_IPC_PROXY_CALLBACK_TYPE type, const std::string& text) {
  const auto& slot = m_UserCallbacks[type];
  NIRA_IPC_LOG_INFO(TAG, "user callback call: type(%d) response(%s), cb(%p)", type, text.c_str(), slot.Address());
  if (slot.Call(text.c_str())) return true;
  NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", type);
  return false;
}

bool CNiraIpcProxy::CallBundleCallback(Json::Value bundle) {
  NIRA_IPC_LOG_INFO(TAG, "bundle call: cb(%p) data(%p)", m_BundleHandler.Address(), static_cast<const void*>(&bundle));
  if (m_BundleHandler.IsEmpty()) {
    NIRA_IPC_LOG_ERROR(TAG, "Callback not registered");
    return false;
  }
  CNiraIpcBundle received;
  received.SetJsonParam(std::move(bundle));
  return m_BundleHandler.Call(static_cast<void*>(&received));
}

void CNiraIpcProxy::m_CallEventCallback(NIRA_IPC_PROXY_CALLBACK_TYPE type, const char* text) {
  if (!m_UserCallbacks[type].Call(text)) NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", type);
}

void CNiraIpcProxy::t_NiraIpcProxyCallbackOnOpen(const char* text, Json::Value&, void* proxy) {
  NIRA_IPC_LOG_INFO(TAG, "t_NiraIpcProxyCallbackOnOpen");
  static_cast<CNiraIpcProxy*>(proxy)->m_CallEventCallback(NIRA_IPC_PROXY_CALLBACK_OPEN, text);
}

void CNiraIpcProxy::t_NiraIpcProxyCallbackOnClose(const char* text, Json::Value&, void* proxy) {
  NIRA_IPC_LOG_INFO(TAG, "t_NiraIpcProxyCallbackOnClose");
  static_cast<CNiraIpcProxy*>(proxy)->m_CallEventCallback(NIRA_IPC_PROXY_CALLBACK_CLOSE, text);
}

void CNiraIpcProxy::t_NiraIpcProxyCallbackOnMessage(const char* text, Json::Value& message, void* proxy) {
  NIRA_IPC_LOG_INFO(TAG, "t_NiraIpcProxyCallbackOnMessage");
  NIRA_IPC_LOG_INFO(TAG, "%s", text);
  auto* self = static_cast<CNiraIpcProxy*>(proxy);
  if (NiraIpcFindMember(message, "request") == nullptr) return;
  Json::Value* request = &message["request"];
  if (NiraIpcMemberAsString(message, "request_type", "message") == "bundle") {
    if (NiraIpcFindMember(*request, "bundle") != nullptr) self->CallBundleCallback(std::move((*request)["bundle"]));
  } else if (NiraIpcFindMember(*request, "message") != nullptr) {
    self->CallUserCallback(NIRA_IPC_PROXY_CALLBACK_MESSAGE,
                           NiraIpcMemberAsString(*request, "message", "message not found"));
  }
}

bool CNiraIpcProxy::m_RegisterAppID(const std::string& app_id) {
  const int timestamp = CNiraIpcUtil::GetTimestamp();
  Json::Value request(Json::objectValue);
  request["register"] = app_id;
  request["niraIpcVersionMajor"] = kNiraIpcVersionMajor;
  request["niraIpcVersionMinor"] = kNiraIpcVersionMinor;
  request["niraIpcVersionBuild"] = kNiraIpcVersionBuild;
  request["niraIpcClient"] = kNiraIpcClientName;
  request["authKey"] = CNiraIpcUtil::GenerateToken(kNiraIpcClientName, timestamp);
  request["timestamp"] = timestamp;
  std::string text;
  NiraIpcAppendJson(text, request);
  CNiraIpcMessage message;
  const bool answered = m_pImpl->SendRequest("register", text, message);
  const Json::Value& reply = message.Value();
  // An answer of any kind is not enough: a refusal, a time-out and a disconnection are answers, too.
  const bool accepted =
      answered && NiraIpcFindMember(reply, "result") != nullptr && NiraIpcFindMember(reply, "error") == nullptr;
  if (!accepted) {
    NIRA_IPC_LOG_ERROR(TAG, "register app id fail(%s)", app_id.c_str());
    return false;
  }
  NIRA_IPC_LOG_ERROR(TAG, "register app id success(%s)", app_id.c_str());
  NIRA_IPC_LOG_INFO(TAG, "result : %s", NiraIpcWriteJson(reply).c_str());
  return true;
}
