// A service for the tests that speak to it over the wire.
//
//   wire_service PORT
//
// Prints "ready" and then one line for each callback; sends a bundle's values back in a bundle. Reads commands from
// standard input, one a line:
//   push ID TEXT            pushes a text
//   fill ID COUNT BYTES     pushes so many texts of so many bytes
//   unregister              removes both handlers
//   stop                    stops the stub and ends, as the end of the input does
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "wire_common.h"

namespace {

std::string g_Kinds[] = {"open", "closed", "text"};  // by NIRA_IPC_STUB_CALLBACK_TYPE

void OnEvent(const char* first, const char* second, void* kind) {
  Print(*static_cast<std::string*>(kind), first, second != nullptr ? second : "-");
}

void OnBundle(void* bundle, const char* caller, void* stub) {
  Print("bundle", caller);
  void* copy = CopyOf(bundle);
  nira_ipc_stub_send_bundle(stub, caller, copy);
  nira_ipc_bundle_free(copy);
}

// Gives the caller its parameters back, as far as they are there: "i", "s", "ia" and "sa", by their types.
void Echo(void* func, void* result) {
  int number = 0;
  char* text = nullptr;
  unsigned count = 0;
  if (nira_ipc_func_get_param_int(func, "i", &number)) nira_ipc_func_result_add_param_int(result, "i", number);
  if (nira_ipc_func_get_param_string(func, "s", &text)) nira_ipc_func_result_add_param_string(result, "s", text);
  int* numbers = nira_ipc_func_get_param_int_array(func, "ia", &count);
  if (count > 0) nira_ipc_func_result_add_param_int_array(result, "ia", numbers, count);
  auto** texts = const_cast<const char**>(nira_ipc_func_get_param_string_array(func, "sa", &count));
  if (count > 0) nira_ipc_func_result_add_param_string_array(result, "sa", texts, count);
}

// "throw" throws; all others answer with their parameters.
void OnMethod(void* func, const char* caller, void* result, void*) {
  char* name = nullptr;
  nira_ipc_func_get_func_name(func, &name);
  Print("method", name, caller);
  if (name == std::string("throw")) throw std::runtime_error("a fault of the service");
  Echo(func, result);
  nira_ipc_func_result_set_result(result, 1);
}

void Obey(void* stub, const std::string& line) {
  std::istringstream words(line);
  std::string command, id, text;
  words >> command >> id >> std::ws;
  if (command == "push" && std::getline(words, text)) nira_ipc_stub_send_message(stub, id.c_str(), text.c_str());
  size_t count = 0, bytes = 0;
  if (command == "fill" && words >> count >> bytes) text.assign(bytes, 'f');
  for (; count > 0; --count) nira_ipc_stub_send_message(stub, id.c_str(), text.c_str());
  if (command == "unregister") {
    nira_ipc_stub_unregister_method_handler(stub, OnMethod);
    nira_ipc_stub_unregister_bundle_handler(stub, OnBundle);
  }
  Print("done", command);
}

}  // namespace

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);  // std::cin then reads on when a signal comes
  void* stub = nira_ipc_stub_start(std::stoi(argv[argc - 1]));
  for (int i = 0; i < 3; ++i) {
    nira_ipc_stub_register_callback(stub, static_cast<NIRA_IPC_STUB_CALLBACK_TYPE>(i), OnEvent, &g_Kinds[i]);
  }
  nira_ipc_stub_register_bundle_handler(stub, OnBundle, stub);
  nira_ipc_stub_register_method_handler(stub, OnMethod, nullptr);
  Print(stub != nullptr ? "ready" : "failed");
  for (std::string line; std::getline(std::cin, line) && line != "stop";) Obey(stub, line);
  nira_ipc_stub_stop(stub);
}
