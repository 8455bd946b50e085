#include "nira_ipc_bundle_internal.h"
#include "nira_ipc_guard.h"
#include "nira_ipc_stub.h"
#include "nira_ipc_stub_internal.h"

namespace {

// The stub behind a handle; null, and told, for a null handle.
CNiraIpcStub* StubOf(void* handle) {
  if (handle == nullptr) NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG_STUB, "handle is NULL");
  return static_cast<CNiraIpcStub*>(handle);
}

}  // namespace

void* nira_ipc_stub_start(int port) {
  try {
    auto stub = std::make_unique<CNiraIpcStub>();
    if (stub->Start(port)) return stub.release();
  } catch (...) {
  }
  NIRA_IPC_LOG_ERROR(NIRA_IPC_TAG_STUB, "Error while initialize");
  return nullptr;
}

void nira_ipc_stub_send_message(void* stub, const char* app_id, const char* text) {
  if (CNiraIpcStub* self = StubOf(stub)) self->SendMessage(app_id, text);
}

void nira_ipc_stub_send_bundle(void* stub, const char* app_id, void* bundle) {
  if (CNiraIpcStub* self = StubOf(stub)) self->SendBundle(app_id, static_cast<CNiraIpcBundle*>(bundle));
}

void nira_ipc_stub_register_callback(void* stub, NIRA_IPC_STUB_CALLBACK_TYPE type, nira_ipc_stub_callback callback,
                                     void* user_data) {
  if (CNiraIpcStub* self = StubOf(stub)) self->RegisterUserCallback(type, callback, user_data);
}

void nira_ipc_stub_register_bundle_handler(void* stub, nira_ipc_stub_bundle_handler handler, void* user_data) {
  if (CNiraIpcStub* self = StubOf(stub)) self->RegisterBundleHandler(handler, user_data);
}

void nira_ipc_stub_unregister_bundle_handler(void* stub, nira_ipc_stub_bundle_handler handler) {
  if (CNiraIpcStub* self = StubOf(stub)) self->UnregisterBundleHandler(handler);
}

void nira_ipc_stub_register_method_handler(void* stub, nira_ipc_stub_method_handler handler, void* user_data) {
  if (CNiraIpcStub* self = StubOf(stub)) self->RegisterMethodHandler(handler, user_data);
}

void nira_ipc_stub_unregister_method_handler(void* stub, nira_ipc_stub_method_handler handler) {
  if (CNiraIpcStub* self = StubOf(stub)) self->UnregisterMethodHandler(handler);
}

void nira_ipc_stub_stop(void* stub) {
  if (CNiraIpcStub* self = StubOf(stub)) self->StopAndDelete();
}
