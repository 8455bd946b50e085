// The stub's facade: the service's handlers, the dispatcher of incoming requests, registration, sends by application
// id.
#ifndef NIRA_IPC_STUB_INTERNAL_H
#define NIRA_IPC_STUB_INTERNAL_H

#include <json/json.h>

#include <atomic>
#include <string>

#include "nira_ipc_callback_slot.h"
#include "nira_ipc_stub.h"
#include "nira_ipc_stub_intf.h"

class CNiraIpcBundle;

// The service's threads register handlers and send; workers dispatch; the service thread reports open and close. Slots
// may change at any time. No lock is held while a handler or callback runs.
class CNiraIpcStub {
 public:
  CNiraIpcStub();
  ~CNiraIpcStub();
  CNiraIpcStub(const CNiraIpcStub&) = delete;
  CNiraIpcStub& operator=(const CNiraIpcStub&) = delete;

  bool Start(int port);
  void Stop();

  // Stop, then wait until no handler or callback runs, then delete this: at once, or, inside one of them, as soon as it
  // returns.
  void StopAndDelete();

  void RegisterUserCallback(NIRA_IPC_STUB_CALLBACK_TYPE type, nira_ipc_stub_callback callback, void* userData);
  void RegisterBundleHandler(nira_ipc_stub_bundle_handler handler, void* userData);
  void UnregisterBundleHandler(nira_ipc_stub_bundle_handler handler);
  void RegisterMethodHandler(nira_ipc_stub_method_handler handler, void* userData);
  void UnregisterMethodHandler(nira_ipc_stub_method_handler handler);

  void SendMessage(const char* appId, const char* text);
  void SendBundle(const char* appId, const CNiraIpcBundle* bundle);
  void SendReplyJson(const char* appId, const Json::Value& json);

  bool CallUserCallback(NIRA_IPC_STUB_CALLBACK_TYPE type, const char* first, const char* second);
  bool CallBundleCallback(Json::Value bundle, const std::string& caller);
  bool CallMethodCallback(const std::string& method, Json::Value params, void* result, const std::string& caller);

  // Checks a registration and, if it passes, binds the application id to the connection. Throws for a caller "unknown",
  // whose request ends without a reply.
  Json::Value ProcessRequestRegister(const std::string& caller, void* connection, const std::string& requestType,
                                     const Json::Value& request, int uniqueKey);

 private:
  static constexpr unsigned kCallbackTypes = 3;

  static void t_NiraIpcStubCallbackOnOpen(std::string&& text, void* handle, void* facade);
  static void t_NiraIpcStubCallbackOnClose(std::string&& text, void* handle, void* facade);
  static void t_NiraIpcStubCallbackOnMessage(std::string&& text, void* handle, void* facade);

  void m_Register(const std::string& caller, void* connection, const std::string& requestType,
                  const Json::Value& request, int uniqueKey);
  void m_RefuseText();
  void m_RefuseWithoutKey(const std::string& caller, const std::string& requestType);
  Json::Value m_ProcessRequest(const std::string& requestType, Json::Value& request, const std::string& caller,
                               int uniqueKey);
  Json::Value m_ProcessMessage(const Json::Value& request, const std::string& caller, int uniqueKey);
  Json::Value m_ProcessBundle(Json::Value& request, const std::string& caller, int uniqueKey);
  void m_AnswerMethod(const std::string& requestType, Json::Value& request, const std::string& caller, int uniqueKey);

  Json::Value m_MakeMethodFailReturnJson(const char* code, const char* message, int uniqueKey,
                                         const std::string& requestType);
  Json::Value m_MakeMethodSuccessReturnString(const std::string& result, int uniqueKey, const std::string& requestType);
  Json::Value m_MakeMethodSuccessReturnJson(Json::Value base, int uniqueKey, const std::string& requestType);
  Json::Value m_MakeMessageReturnJson(const char* status, int uniqueKey);

  const char* m_Validate(const Json::Value& request);
  bool m_CheckTimestampValid(int now, long long client);
  bool m_CheckKeyValid(const std::string& regenerated, const std::string& received, int timestamp);
  bool m_CheckVersionValid(int stubMajor, int major, int minor, int build);

  void* m_FindClient(const char* appId);

  INiraIpcStub* const m_pImpl;  // owned
  CNiraIpcCallbackSlot<nira_ipc_stub_callback> m_UserCallbacks[kCallbackTypes];
  CNiraIpcCallbackSlot<nira_ipc_stub_bundle_handler> m_BundleHandler;
  CNiraIpcCallbackSlot<nira_ipc_stub_method_handler> m_MethodHandler;
  std::atomic<bool> m_bStopped{false};
};

#endif  // NIRA_IPC_STUB_INTERNAL_H
