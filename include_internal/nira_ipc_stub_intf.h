// The stub's book of clients, and the three events that its transport reports to the facade.
#ifndef NIRA_IPC_STUB_INTF_H
#define NIRA_IPC_STUB_INTF_H

#include <json/json.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "nira_ipc_callback_gate.h"

enum NIRA_IPC_STUB_REGISTER_STATE {
  NIRA_IPC_STUB_REGISTER_STATE_WAIT = 0,    // connected, not registered yet
  NIRA_IPC_STUB_REGISTER_STATE_FINISH = 1,  // registered
};

enum NIRA_IPC_STUB_INTERNAL_CALLBACK_TYPE {
  NIRA_IPC_STUB_INTERNAL_CALLBACK_OPEN = 1,
  NIRA_IPC_STUB_INTERNAL_CALLBACK_CLOSE = 2,
  NIRA_IPC_STUB_INTERNAL_CALLBACK_MESSAGE = 3,
};

// A handle stands for one connection and is never given to another, so that whoever still holds one after its
// connection went reaches nobody. The client registry keys by it and looks no further.
//
// The service thread (open, close), workers (registration, replies) and the service's own threads (pushes) come here.
// One lock guards both maps, for the whole of each operation. The internal callbacks are set before the transport
// starts and constant from then on.
class INiraIpcStub {
 public:
  using InternalCallback = void (*)(std::string&& text, void* handle, void* userData);

  INiraIpcStub();
  virtual ~INiraIpcStub();
  virtual bool Start(int port) = 0;
  virtual void Stop() = 0;
  virtual void SendJson(void* handle, const Json::Value& json) = 0;
  virtual void SendJsonWithHeader(void* handle, const char* header, const Json::Value& json) = 0;

  // Sends a JSON text that was begun with CNiraIpcOutgoingQueue::Begin.
  virtual void SendText(void* handle, std::string&& text) = 0;

  INiraIpcStub(const INiraIpcStub&) = delete;
  INiraIpcStub& operator=(const INiraIpcStub&) = delete;

  void RegisterInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_TYPE type, InternalCallback callback, void* userData);
  bool CallInternalCallback(NIRA_IPC_STUB_INTERNAL_CALLBACK_TYPE type, std::string&& text, void* handle);

  // Binds an application id to a connection that is open; the latest connection of an id wins. False when the
  // connection has closed meanwhile, which leaves the book as it was.
  bool StoreClientInfo(const std::string& appId, void* handle);
  void* GetClientHandle(const std::string& appId);
  std::string GetClientKey(void* handle);
  void RemoveClientHandle(const std::string& appId);

  // Forgets a connection and whatever is bound to it, in one step: between looking up its id and removing that, the id
  // could have been bound to another connection. Returns the id, or an empty text.
  std::string RemoveClient(void* handle);

  bool IsClientRegistered(void* handle);
  void SetClientWaitRegister(void* handle);
  void SetClientWaitRegisterFinish(void* handle);
  int GetConnectedClientNumer();
  void PrintClientInfo();          // the caller holds the lock
  void PrintClientWaitRegister();  // the caller holds the lock

  // What runs on behalf of this stub does so with a pass of its gate.
  const std::shared_ptr<CNiraIpcCallbackGate>& Gate() const { return m_Gate; }

 private:
  struct InternalSlot {
    InternalCallback callback = nullptr;
    void* userData = nullptr;
  };

  std::string m_FindKey(void* handle);
  void m_Erase(const std::string& appId, const void* boundTo);

  const std::shared_ptr<CNiraIpcCallbackGate> m_Gate = std::make_shared<CNiraIpcCallbackGate>();
  InternalSlot m_InternalCallbacks[NIRA_IPC_STUB_INTERNAL_CALLBACK_MESSAGE + 1];

  std::mutex m_Lock;
  std::map<std::string, void*> m_Clients;                              // guarded by m_Lock
  std::map<void*, NIRA_IPC_STUB_REGISTER_STATE> m_WaitRegisterStates;  // guarded by m_Lock: the open connections
};

class NiraIpcStub {
 public:
  // A new transport, owned by the caller.
  static INiraIpcStub* GetNiraIpcStubImpl();
};

#endif  // NIRA_IPC_STUB_INTF_H
