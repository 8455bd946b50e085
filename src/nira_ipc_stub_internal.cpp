#include "nira_ipc_stub_internal.h"

#include <openssl/crypto.h>

#include <climits>
#include <cstdlib>
#include <stdexcept>

#include "nira_ipc_bundle.h"
#include "nira_ipc_bundle_internal.h"
#include "nira_ipc_func.h"
#include "nira_ipc_func_internal.h"
#include "nira_ipc_func_result_internal.h"
#include "nira_ipc_json.h"
#include "nira_ipc_log.h"
#include "nira_ipc_outgoing_queue.h"
#include "nira_ipc_util.h"
#include "nira_ipc_version.h"

#define TAG NIRA_IPC_TAG_STUB

namespace {

constexpr int kMaxClockDifference = 120;  // seconds
constexpr const char* kUnknownCaller = "unknown";
constexpr const char* kNoRegisterKey = "not found";

const Json::Value& Member(const Json::Value& value, const char* key) {
  const Json::Value* member = NiraIpcFindMember(value, key);
  return member != nullptr ? *member : Json::Value::nullSingleton();
}

// Moves it out of the value: what is handed on need not be copied.
Json::Value TakeMember(Json::Value& value, const char* key) {
  Json::Value taken;
  if (NiraIpcFindMember(value, key) != nullptr) taken.swap(value[key]);
  return taken;
}

// A version number: what is there but no integer counts as one that is too high.
int VersionNumber(const Json::Value& request, const char* key, int missing) {
  return NiraIpcFindMember(request, key) == nullptr ? missing : NiraIpcMemberAsInt(request, key, INT_MAX);
}

// The time stamp in 64 bits: the wire may carry any number, and 32 would wrap it into the present.
long long TimestampOf(const Json::Value& request) {
  const Json::Value& value = Member(request, "timestamp");
  if (value.isInt64()) return value.asInt64();
  return NiraIpcMemberAsInt(request, "timestamp", INT_MIN);
}

}  // namespace

CNiraIpcStub::CNiraIpcStub() : m_pImpl(NiraIpcStub::GetNiraIpcStubImpl()) {
  m_pImpl->RegisterInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_OPEN, t_NiraIpcStubCallbackOnOpen, this);
  m_pImpl->RegisterInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_CLOSE, t_NiraIpcStubCallbackOnClose, this);
  m_pImpl->RegisterInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_MESSAGE, t_NiraIpcStubCallbackOnMessage, this);
}

CNiraIpcStub::~CNiraIpcStub() {
  delete m_pImpl;
}

bool CNiraIpcStub::Start(int port) {
  NIRA_IPC_LOG_INFO(TAG, "Start");
  return m_pImpl->Start(port);
}

void CNiraIpcStub::Stop() {
  m_pImpl->Stop();
}

void CNiraIpcStub::StopAndDelete() {
  if (m_bStopped.exchange(true)) return;  // two callbacks stop the same stub: the first one does it
  Stop();
  const std::shared_ptr<CNiraIpcCallbackGate> gate = m_pImpl->Gate();
  gate->CloseAndWait();
  if (gate->IsInside()) {
    gate->WhenLeft([this] { delete this; });
  } else {
    delete this;
  }
}

void CNiraIpcStub::RegisterUserCallback(NIRA_IPC_STUB_CALLBACK_TYPE type, nira_ipc_stub_callback callback,
                                        void* userData) {
  if (static_cast<unsigned>(type) >= kCallbackTypes) {  // it may have come from C as any number
    NIRA_IPC_LOG_ERROR(TAG, "there is no callback type(%d)", type);
    return;
  }
  m_UserCallbacks[type].Set(callback, userData);
}

void CNiraIpcStub::RegisterBundleHandler(nira_ipc_stub_bundle_handler handler, void* userData) {
  NIRA_IPC_LOG_INFO(TAG, "bundle handler register : cb(%p) ", reinterpret_cast<void*>(handler));
  m_BundleHandler.Set(handler, userData);
  NIRA_IPC_LOG_INFO(TAG, "callback registered done:, cb(%p) ", reinterpret_cast<void*>(handler));
}

void CNiraIpcStub::UnregisterBundleHandler(nira_ipc_stub_bundle_handler handler) {
  NIRA_IPC_LOG_INFO(TAG, "bundle handler unregister : cb(%p) ", reinterpret_cast<void*>(handler));
  m_BundleHandler.Set(nullptr, nullptr);
  NIRA_IPC_LOG_INFO(TAG, "callback unregister done:, cb(%p) ", reinterpret_cast<void*>(handler));
}

void CNiraIpcStub::RegisterMethodHandler(nira_ipc_stub_method_handler handler, void* userData) {
  NIRA_IPC_LOG_INFO(TAG, "method handler register : cb(%p) ", reinterpret_cast<void*>(handler));
  m_MethodHandler.Set(handler, userData);
  NIRA_IPC_LOG_INFO(TAG, "callback registered done:, cb(%p) ", reinterpret_cast<void*>(handler));
}

void CNiraIpcStub::UnregisterMethodHandler(nira_ipc_stub_method_handler handler) {
  NIRA_IPC_LOG_INFO(TAG, "method handler unregister : cb(%p) ", reinterpret_cast<void*>(handler));
  m_MethodHandler.Set(nullptr, nullptr);
  NIRA_IPC_LOG_INFO(TAG, "callback unregister done:, cb(%p) ", reinterpret_cast<void*>(handler));
}

// The connection of an application id; null, and told, when it has none.
void* CNiraIpcStub::m_FindClient(const char* appId) {
  void* handle = m_pImpl->GetClientHandle(appId);
  if (handle == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "fail to send message... Reason : there is no such registered app id(%s)", appId);
  }
  return handle;
}

void CNiraIpcStub::SendMessage(const char* appId, const char* text) {
  if (appId == nullptr || text == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "parameta is NULL");
    return;
  }
  NIRA_IPC_LOG_INFO(TAG, "Try to send message(%s) to (%s)", text, appId);
  void* handle = m_FindClient(appId);
  if (handle == nullptr) return;
  Json::Value message(Json::objectValue);
  message["message"] = text;
  m_pImpl->SendJsonWithHeader(handle, "message", message);
}

void CNiraIpcStub::SendBundle(const char* appId, const CNiraIpcBundle* bundle) {
  if (appId == nullptr || bundle == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "parameta is NULL");
    return;
  }
  NIRA_IPC_LOG_INFO(TAG, "Try to send bundle(%p) to (%s)", static_cast<const void*>(bundle), appId);
  void* handle = m_FindClient(appId);
  if (handle != nullptr) m_pImpl->SendJsonWithHeader(handle, "bundle", bundle->GetJson());
}

void CNiraIpcStub::SendReplyJson(const char* appId, const Json::Value& json) {
  NIRA_IPC_LOG_INFO(TAG, "Try to send json to (%s)", appId);
  void* handle = m_FindClient(appId);
  if (handle != nullptr) m_pImpl->SendJson(handle, json);
}

bool CNiraIpcStub::CallUserCallback(NIRA_IPC_STUB_CALLBACK_TYPE type, const char* first, const char* second) {
  const auto& slot = m_UserCallbacks[type];
  NIRA_IPC_LOG_INFO(TAG, "user callback call: type(%d) response(%s), cb(%p)", type, first, slot.Address());
  if (slot.Call(first, second)) return true;
  NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", type);
  return false;
}

bool CNiraIpcStub::CallBundleCallback(Json::Value bundle, const std::string& caller) {
  if (m_BundleHandler.IsEmpty()) {
    NIRA_IPC_LOG_ERROR(TAG, "Callback not registered");
    return false;
  }
  CNiraIpcBundle received;
  received.SetJsonParam(std::move(bundle));
  return m_BundleHandler.Call(static_cast<void*>(&received), caller.c_str());
}

bool CNiraIpcStub::CallMethodCallback(const std::string& method, Json::Value params, void* result,
                                      const std::string& caller) {
  if (m_MethodHandler.IsEmpty()) {
    NIRA_IPC_LOG_ERROR(TAG, "Callback not registered");
    return false;
  }
  CNiraIpcFunc func;
  func.SetMethodName(method.c_str());
  func.SetJsonParam(std::move(params));
  return m_MethodHandler.Call(static_cast<void*>(&func), caller.c_str(), result);
}

void CNiraIpcStub::t_NiraIpcStubCallbackOnOpen(std::string&& text, void*, void* facade) {
  NIRA_IPC_LOG_INFO(TAG, "t_NiraIpcStubCallbackOnOpen");
  constexpr auto kType = NIRA_IPC_STUB_CALLBACK_OPEN;
  if (static_cast<CNiraIpcStub*>(facade)->m_UserCallbacks[kType].Call(text.c_str(), nullptr)) return;
  NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", kType);
}

void CNiraIpcStub::t_NiraIpcStubCallbackOnClose(std::string&& text, void* handle, void* facade) {
  NIRA_IPC_LOG_INFO(TAG, "t_NiraIpcStubCallbackOnClose");
  auto* self = static_cast<CNiraIpcStub*>(facade);
  const std::string appId = self->m_pImpl->RemoveClient(handle);
  constexpr auto kType = NIRA_IPC_STUB_CALLBACK_CLOSE;
  if (self->m_UserCallbacks[kType].Call(text.c_str(), appId.c_str())) return;
  NIRA_IPC_LOG_ERROR(TAG, "type(%d) callback not registered", kType);
}

void CNiraIpcStub::t_NiraIpcStubCallbackOnMessage(std::string&& text, void* handle, void* facade) {
  NIRA_IPC_LOG_INFO(TAG, "t_NiraIpcStubCallbackOnMessage");
  NIRA_IPC_LOG_INFO(TAG, "%s", text.c_str());
  auto* self = static_cast<CNiraIpcStub*>(facade);
  Json::Value root;
  if (!NiraIpcParseJson(text.c_str(), root)) {
    self->m_RefuseText();
    return;
  }
  std::string().swap(text);  // it may be long, and what it said is in `root`
  const std::string requestType = NiraIpcMemberAsString(root, "request_type", "message");
  const std::string caller = NiraIpcMemberAsString(root, "caller", kUnknownCaller);
  const Json::Value& key = Member(root, "uniqueKey");
  if (!key.isInt()) {
    self->m_RefuseWithoutKey(caller, requestType);
    return;
  }
  const int uniqueKey = key.asInt();
  Json::Value request = TakeMember(root, "request");
  if (requestType == "register") {
    self->m_Register(caller, handle, requestType, request, uniqueKey);
  } else if (requestType == "message" || requestType == "bundle" || NiraIpcFindMember(request, "method") == nullptr) {
    self->SendReplyJson(caller.c_str(), self->m_ProcessRequest(requestType, request, caller, uniqueKey));
  } else {
    self->m_AnswerMethod(requestType, request, caller, uniqueKey);
  }
}

void CNiraIpcStub::m_Register(const std::string& caller, void* connection, const std::string& requestType,
                              const Json::Value& request, int uniqueKey) {
  const Json::Value reply = ProcessRequestRegister(caller, connection, requestType, request, uniqueKey);
  if (reply.isNull()) return;
  const bool boundCaller = reply.isMember("result") && NiraIpcMemberAsString(request, "register", "") == caller;
  if (boundCaller) {
    // Not by the id: another connection may have taken it since, and this one would wait for its answer in vain.
    NIRA_IPC_LOG_INFO(TAG, "Try to send json to (%s)", caller.c_str());
    m_pImpl->SendJson(connection, reply);
  } else {
    SendReplyJson(caller.c_str(), reply);
  }
}

// Nobody can be told: a text that is no JSON names no caller. The reply goes to the empty id, which logs it.
void CNiraIpcStub::m_RefuseText() {
  const std::string reply = NiraIpcWriteJson(m_MakeMethodFailReturnJson("-00000", "Json parse failed\n", -1, ""));
  NIRA_IPC_LOG_ERROR(TAG, "json parse failed : return = %s\n", reply.c_str());
  SendMessage("", reply.c_str());
}

void CNiraIpcStub::m_RefuseWithoutKey(const std::string& caller, const std::string& requestType) {
  const std::string reply =
      NiraIpcWriteJson(m_MakeMethodFailReturnJson("-32016", "There's no \"uniqueKey\" key in json", -1, requestType));
  NIRA_IPC_LOG_ERROR(TAG, "uniqueKey is failed : caller = %s, return = %s\n", caller.c_str(), reply.c_str());
  SendMessage(caller.c_str(), reply.c_str());
}

Json::Value CNiraIpcStub::m_ProcessRequest(const std::string& requestType, Json::Value& request,
                                           const std::string& caller, int uniqueKey) {
  if (requestType == "message") return m_ProcessMessage(request, caller, uniqueKey);
  if (requestType == "bundle") return m_ProcessBundle(request, caller, uniqueKey);
  NIRA_IPC_LOG_ERROR(TAG, "There is no method key in json");
  return m_MakeMethodFailReturnJson("-32601", "There's no \"method\" key in json\n", uniqueKey, requestType);
}

Json::Value CNiraIpcStub::m_ProcessMessage(const Json::Value& request, const std::string& caller, int uniqueKey) {
  const bool present = NiraIpcFindMember(request, "message") != nullptr;
  if (!present) NIRA_IPC_LOG_ERROR(TAG, "There is no message key in json");
  const std::string text = NiraIpcMemberAsString(request, "message", "message not found");
  CallUserCallback(NIRA_IPC_STUB_CALLBACK_MESSAGE, text.c_str(), caller.c_str());
  return m_MakeMessageReturnJson(present ? "success" : "fail", uniqueKey);
}

Json::Value CNiraIpcStub::m_ProcessBundle(Json::Value& request, const std::string& caller, int uniqueKey) {
  const bool present = NiraIpcFindMember(request, "bundle") != nullptr;
  if (!present) NIRA_IPC_LOG_ERROR(TAG, "There is no bundle key in json");
  CallBundleCallback(TakeMember(request, "bundle"), caller);
  return m_MakeMessageReturnJson(present ? "success" : "fail", uniqueKey);
}

// The reply is written as it goes out: its result need not become part of another value first.
void CNiraIpcStub::m_AnswerMethod(const std::string& requestType, Json::Value& request, const std::string& caller,
                                  int uniqueKey) {
  const std::string method = NiraIpcMemberAsString(request, "method", "undefined");
  NIRA_IPC_LOG_INFO(TAG, "method %s detected", method.c_str());
  CNiraIpcFuncResult result;
  CallMethodCallback(method, TakeMember(request, "params"), &result, caller);
  constexpr size_t kUsualBytes = 256;
  std::string text = CNiraIpcOutgoingQueue::Begin(kUsualBytes);
  text += "{\"request_type\":";
  NiraIpcAppendJson(text, std::string_view(requestType));
  text += ",\"result\":";
  result.AppendJson(text);
  text += ",\"timestamp\":";
  NiraIpcAppendJson(text, int64_t{CNiraIpcUtil::GetTimeInMs()});
  text += ",\"uniqueKey\":";
  NiraIpcAppendJson(text, int64_t{uniqueKey});
  text += "}\n";
  NIRA_IPC_LOG_INFO(TAG, "Try to send json to (%s)", caller.c_str());
  void* handle = m_FindClient(caller.c_str());
  if (handle != nullptr) m_pImpl->SendText(handle, std::move(text));
}

Json::Value CNiraIpcStub::m_MakeMethodFailReturnJson(const char* code, const char* message, int uniqueKey,
                                                     const std::string& requestType) {
  Json::Value error(Json::objectValue);
  error["code"] = code;
  error["message"] = message;
  Json::Value reply(Json::objectValue);
  reply["error"] = std::move(error);
  return m_MakeMethodSuccessReturnJson(std::move(reply), uniqueKey, requestType);
}

Json::Value CNiraIpcStub::m_MakeMethodSuccessReturnString(const std::string& result, int uniqueKey,
                                                          const std::string& requestType) {
  Json::Value reply(Json::objectValue);
  reply["result"] = result;
  return m_MakeMethodSuccessReturnJson(std::move(reply), uniqueKey, requestType);
}

Json::Value CNiraIpcStub::m_MakeMethodSuccessReturnJson(Json::Value base, int uniqueKey,
                                                        const std::string& requestType) {
  base["uniqueKey"] = uniqueKey;
  base["timestamp"] = CNiraIpcUtil::GetTimeInMs();
  base["request_type"] = requestType;
  return base;
}

Json::Value CNiraIpcStub::m_MakeMessageReturnJson(const char* status, int uniqueKey) {
  Json::Value reply(Json::objectValue);
  reply["uniqueKey"] = uniqueKey;
  reply["stat"] = status;
  return reply;
}

Json::Value CNiraIpcStub::ProcessRequestRegister(const std::string& caller, void* connection,
                                                 const std::string& requestType, const Json::Value& request,
                                                 int uniqueKey) {
  NIRA_IPC_LOG_INFO(TAG, "RequestType is register");
  if (caller == kUnknownCaller) {
    NIRA_IPC_LOG_ERROR(TAG, "Caller is unknown");
    throw std::logic_error("registration by an unknown caller");  // there is nobody to answer, nor an id to tell of
  }
  const std::string appId = NiraIpcMemberAsString(request, "register", kNoRegisterKey);
  Json::Value reply;
  if (appId == kNoRegisterKey) {
    NIRA_IPC_LOG_ERROR(TAG, "There is no resister key in json");
    reply = m_MakeMethodFailReturnJson("-00000", "There's no \"register\" key in json\n", uniqueKey, requestType);
  } else {
    const char* refusal = m_Validate(request);
    if (refusal != nullptr) return m_MakeMethodFailReturnJson("-00000", refusal, uniqueKey, requestType);
    reply = m_MakeMethodSuccessReturnString("success to register " + appId, uniqueKey, requestType);
    if (!m_pImpl->StoreClientInfo(appId, connection)) return {};  // the connection is gone: nobody waits for the reply
    m_pImpl->SetClientWaitRegisterFinish(connection);
  }
  CallUserCallback(NIRA_IPC_STUB_CALLBACK_OPEN, appId.c_str(), caller.c_str());
  return reply;
}

// The three checks of a registration: null, or the text that refuses it.
const char* CNiraIpcStub::m_Validate(const Json::Value& request) {
  const int major = VersionNumber(request, "niraIpcVersionMajor", 1);
  const int minor = VersionNumber(request, "niraIpcVersionMinor", 0);
  const int build = VersionNumber(request, "niraIpcVersionBuild", 0);
  const std::string client = NiraIpcMemberAsString(request, "niraIpcClient", "undefined");
  const std::string received = NiraIpcMemberAsString(request, "authKey", "undefined");
  const long long clientTime = TimestampOf(request);
  const int timestamp = static_cast<int>(clientTime);
  const std::string regenerated = CNiraIpcUtil::GenerateToken(client.c_str(), timestamp);
  NIRA_IPC_LOG_INFO(TAG, "== STUB INFO ==");
  NIRA_IPC_LOG_INFO(TAG, "NIRA IPC STUB  VERSION : %d.%d.%d\n", kNiraIpcVersionMajor, kNiraIpcVersionMinor,
                    kNiraIpcVersionBuild);
  NIRA_IPC_LOG_INFO(TAG, "== PROXY INFO ==");
  NIRA_IPC_LOG_INFO(TAG, "- NIRA IPC PROXY VERSION : %d.%d.%d\n", major, minor, build);
  NIRA_IPC_LOG_INFO(TAG, "- NIRA IPC CLIENT = %s\n", client.c_str());
  NIRA_IPC_LOG_INFO(TAG, "- Timestamp = %d\n", timestamp);
  NIRA_IPC_LOG_INFO(TAG, "- Authkey = %s\n", received.c_str());
  NIRA_IPC_LOG_INFO(TAG, "- Regenerated Authkey = %s\n", regenerated.c_str());
  if (!m_CheckTimestampValid(CNiraIpcUtil::GetTimestamp(), clientTime)) {
    NIRA_IPC_LOG_ERROR(TAG, "[1] client timestamp validation fail");
    return "Client validation fail\n";
  }
  NIRA_IPC_LOG_ERROR(TAG, "[1] client timestamp validation success");
  if (!m_CheckKeyValid(regenerated, received, timestamp)) {
    NIRA_IPC_LOG_ERROR(TAG, "[2] client key validation fail");
    return "Client validation fail\n";
  }
  NIRA_IPC_LOG_ERROR(TAG, "[2] client key validation success");
  if (!m_CheckVersionValid(kNiraIpcVersionMajor, major, minor, build)) {
    NIRA_IPC_LOG_ERROR(TAG, "[3] client version validation fail. Unsupported Major Version from client : (%d)", major);
    return "Unsupported version\n";
  }
  NIRA_IPC_LOG_ERROR(TAG, "[3] client version validation success");
  return nullptr;
}

// In 64 bits: in 32 the difference of a stamp 2^31 s away has no absolute value.
bool CNiraIpcStub::m_CheckTimestampValid(int now, long long client) {
  const bool valid = client >= now - kMaxClockDifference && client <= static_cast<long long>(now) + kMaxClockDifference;
  const int difference = static_cast<int>(std::llabs(static_cast<long long>(now) - client));
  if (valid) {
    NIRA_IPC_LOG_INFO(TAG, "Timestamp is valid (Diff : %d)", difference);
  } else {
    NIRA_IPC_LOG_ERROR(TAG, "Timestamp is NOT valid. (Diff : %d)", difference);
  }
  return valid;
}

bool CNiraIpcStub::m_CheckKeyValid(const std::string& regenerated, const std::string& received, int) {
  NIRA_IPC_LOG_INFO(TAG, "Generated Hash = %s", regenerated.c_str());
  // In constant time, so that nobody finds a token byte by byte.
  const bool same =
      regenerated.size() == received.size() && CRYPTO_memcmp(regenerated.data(), received.data(), received.size()) == 0;
  if (same) {
    NIRA_IPC_LOG_INFO(TAG, "Generated Hash is same with request");
  } else {
    NIRA_IPC_LOG_ERROR(TAG, "Generated Hash is NOT same with request");
  }
  return same;
}

bool CNiraIpcStub::m_CheckVersionValid(int stubMajor, int major, int, int) {
  if (major <= stubMajor) return true;
  NIRA_IPC_LOG_ERROR(TAG, "Major version for client is higher than stub.\n");
  return false;
}
