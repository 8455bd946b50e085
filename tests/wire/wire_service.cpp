// A service for the tests that speak to it over the wire.
//
//   wire_service PORT
//
// Prints "ready" and then one line for each callback, and sends every bundle back. Reads lines of an id and a text from
// standard input and pushes each; stops the stub at their end.
#include <iostream>
#include <stdexcept>

#include "wire_common.h"

namespace {

std::string g_Kinds[] = {"open", "closed", "text"};  // by NIRA_IPC_STUB_CALLBACK_TYPE

void OnEvent(const char* first, const char* second, void* kind) {
  Print({*static_cast<std::string*>(kind), first, second != nullptr ? second : "-"});
}

void OnBundle(void* bundle, const char* caller, void* stub) {
  Print({"bundle", caller});
  nira_ipc_stub_send_bundle(stub, caller, bundle);
}

// "throw" throws, "unregister" removes both handlers; all others only answer: with the parameter "s", if there is one.
void OnMethod(void* func, const char* caller, void* result, void* stub) {
  char* name = nullptr;
  char* text = nullptr;
  nira_ipc_func_get_func_name(func, &name);
  Print({"method", name, caller});
  if (name == std::string("throw")) throw std::runtime_error("a fault of the service");
  if (name == std::string("unregister")) {
    nira_ipc_stub_unregister_method_handler(stub, OnMethod);
    nira_ipc_stub_unregister_bundle_handler(stub, OnBundle);
  }
  if (nira_ipc_func_get_param_string(func, "s", &text)) nira_ipc_func_result_add_param_string(result, "s", text);
  nira_ipc_func_result_set_result(result, 1);
}

}  // namespace

int main(int argc, char** argv) {
  void* stub = nira_ipc_stub_start(std::stoi(argv[argc - 1]));
  for (int i = 0; i < 3; ++i) {
    nira_ipc_stub_register_callback(stub, static_cast<NIRA_IPC_STUB_CALLBACK_TYPE>(i), OnEvent, &g_Kinds[i]);
  }
  nira_ipc_stub_register_bundle_handler(stub, OnBundle, stub);
  nira_ipc_stub_register_method_handler(stub, OnMethod, stub);
  Print({"ready"});
  for (std::string id, text; std::cin >> id && std::getline(std::cin >> std::ws, text);) {
    nira_ipc_stub_send_message(stub, id.c_str(), text.c_str());
  }
  nira_ipc_stub_stop(stub);
}
