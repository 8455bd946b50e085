// The proxy's facade: the application's callbacks, connecting and registering, calls, what arrives unasked.
#ifndef NIRA_IPC_PROXY_INTERNAL_H
#define NIRA_IPC_PROXY_INTERNAL_H

#include <json/json.h>

#include <atomic>
#include <string>

#include "nira_ipc_callback_slot.h"
#include "nira_ipc_proxy.h"
#include "nira_ipc_proxy_intf.h"

class CNiraIpcBundle;
class CNiraIpcFunc;

// Any thread of the application may call; workers deliver. Slots may change at any time. No lock is held while a
// callback runs. Whatever blocks or calls back does so with a pass of the transport's gate, so that DisconnectAndDelete
// can wait.
class CNiraIpcProxy {
 public:
  CNiraIpcProxy();
  ~CNiraIpcProxy();
  CNiraIpcProxy(const CNiraIpcProxy&) = delete;
  CNiraIpcProxy& operator=(const CNiraIpcProxy&) = delete;

  bool SetConnect(int port, const char* app_id);
  void SetDisconnect();
  bool IsConnected();

  // Disconnects, waits until no callback runs, then deletes this: at once, or, inside one of its callbacks, as soon as
  // that returns.
  void DisconnectAndDelete();

  void RegisterUserCallback(NIRA_IPC_PROXY_CALLBACK_TYPE type, nira_ipc_proxy_callback callback, void* userData);
  void RegisterBundleHandler(nira_ipc_proxy_bundle_handler handler, void* userData);
  void UnregisterBundleHandler(nira_ipc_proxy_bundle_handler handler);

  bool CallFunction(const CNiraIpcFunc* func, CNiraIpcMessage& reply);
  void CallFunctionAsync(const CNiraIpcFunc* func, nira_ipc_proxy_callback callback, void* userData);
  void SendMessage(const char* text);
  void SendBundle(const CNiraIpcBundle* bundle);

  bool CallUserCallback(NIRA_IPC_PROXY_CALLBACK_TYPE type, const std::string& text);
  bool CallBundleCallback(Json::Value bundle);

 private:
  static constexpr unsigned kCallbackTypes = 4;

  static void t_NiraIpcProxyCallbackOnOpen(const char* text, Json::Value& message, void* proxy);
  static void t_NiraIpcProxyCallbackOnClose(const char* text, Json::Value& message, void* proxy);
  static void t_NiraIpcProxyCallbackOnMessage(const char* text, Json::Value& message, void* proxy);

  bool m_RegisterAppID(const std::string& app_id);
  void m_CallEventCallback(NIRA_IPC_PROXY_CALLBACK_TYPE type, const char* text);
  bool m_Send(const char* requestType, const std::string& request, std::string& reply);

  INiraIpcProxy* const m_pImpl;  // owned
  CNiraIpcCallbackSlot<nira_ipc_proxy_callback> m_UserCallbacks[kCallbackTypes];
  CNiraIpcCallbackSlot<nira_ipc_proxy_bundle_handler> m_BundleHandler;
  std::atomic<bool> m_bFreed{false};
};

#endif  // NIRA_IPC_PROXY_INTERNAL_H
