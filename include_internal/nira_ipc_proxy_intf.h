// What the proxy's facade sees of its transport, and the four events that the transport reports to it.
#ifndef NIRA_IPC_PROXY_INTF_H
#define NIRA_IPC_PROXY_INTF_H

#include <json/json.h>

#include <memory>
#include <string>

#include "nira_ipc_callback_gate.h"
#include "nira_ipc_message.h"
#include "nira_ipc_proxy.h"

enum NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE {
  NIRA_IPC_PROXY_INTERNAL_CALLBACK_OPEN = 0,
  NIRA_IPC_PROXY_INTERNAL_CALLBACK_CLOSE = 1,
  NIRA_IPC_PROXY_INTERNAL_CALLBACK_ERROR = 2,
  NIRA_IPC_PROXY_INTERNAL_CALLBACK_MESSAGE = 3,
};

// One asynchronous call, from its making to the end of its callback.
struct CRequestAsyncData {
  const char* requestType;           // a literal
  std::string request;               // its JSON text
  nira_ipc_proxy_callback callback;  // may be null
  void* userData;
};

// Application threads, workers and the transport's service thread come here. The internal callbacks are set before the
// first connect and constant from then on.
class INiraIpcProxy {
 public:
  // `message` is what the text says, if it is one; the callback may take it.
  using InternalCallback = void (*)(const char* text, Json::Value& message, void* userData);

  INiraIpcProxy();
  virtual ~INiraIpcProxy();
  virtual bool SetConnect(int port, const char* app_id) = 0;
  virtual void SetDisconnect() = 0;
  virtual bool IsConnected() = 0;

  // Sends a request, given as JSON text, and blocks for its reply, at most 20 seconds. False when it was refused, which
  // leaves `reply` as it was.
  virtual bool SendMessage(const char* requestType, const std::string& request, std::string& reply) = 0;

  // Takes the record over. Does not block.
  virtual void SendMessageAsync(CRequestAsyncData* data) = 0;

  // SendMessage for a caller that wants the reply's members, not its text.
  virtual bool SendRequest(const char* requestType, const std::string& request, CNiraIpcMessage& reply) = 0;

  // Disconnects, whatever state it is in, and waits until nothing runs on behalf of this proxy in other threads.
  virtual void TearDown() = 0;

  INiraIpcProxy(const INiraIpcProxy&) = delete;
  INiraIpcProxy& operator=(const INiraIpcProxy&) = delete;

  void RegisterInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, InternalCallback callback, void* userData);
  bool CallInternalCallback(NIRA_IPC_PROXY_INTERNAL_CALLBACK_TYPE type, const std::string& text, Json::Value& message);

  // What runs on behalf of this proxy does so with a pass of its gate.
  const std::shared_ptr<CNiraIpcCallbackGate>& Gate() const { return m_Gate; }

 private:
  struct InternalSlot {
    InternalCallback callback = nullptr;
    void* userData = nullptr;
  };

  const std::shared_ptr<CNiraIpcCallbackGate> m_Gate = std::make_shared<CNiraIpcCallbackGate>();
  InternalSlot m_InternalCallbacks[NIRA_IPC_PROXY_INTERNAL_CALLBACK_MESSAGE + 1];
};

class NiraIpcProxy {
 public:
  // A new transport, owned by the caller.
  static INiraIpcProxy* GetNiraIpcProxyImpl();
};

#endif  // NIRA_IPC_PROXY_INTF_H
