// An app for the tests that speak to it over the wire.
//
//   wire_app
//
// Prints "ready" and then one line for each callback, and sends every bundle back. The callback of the text "hold"
// lasts until "release". Reads commands from standard input, one a line, and prints a line when each is done; frees the
// proxy at their end:
//   connect PORT ID   call METHOD   async METHOD   fill METHOD   send TEXT   disconnect   release
// "fill" is "async" with 15 MiB to carry.
// A command after "&" runs on a thread of its own.
#include <future>
#include <iostream>
#include <memory>
#include <sstream>
#include <string_view>
#include <thread>
#include <vector>

#include "wire_common.h"

namespace {

void* g_Proxy;
std::promise<void> g_Releasing;
const std::shared_future<void> g_Released = g_Releasing.get_future();
std::string g_Kinds[] = {"open", "closed", "error", "message"};  // by NIRA_IPC_PROXY_CALLBACK_TYPE

void OnEvent(const char* text, void* kind) {
  Print({"event", *static_cast<std::string*>(kind), text});
  if (std::string_view(text) == "hold") g_Released.wait();
}

void OnBundle(void* bundle, void*) {
  nira_ipc_proxy_send_bundle(g_Proxy, bundle);
  Print({"event bundle"});
}

void OnAnswer(const char* reply, void* user) {
  const std::unique_ptr<std::string> method(static_cast<std::string*>(user));
  Print({"answer", *method, reply});
}

void Obey(const std::string& line) {
  std::istringstream words(line);
  std::string command, first, id, outcome;
  words >> command >> first >> id;
  void* func = nira_ipc_func_new(first.c_str());
  nira_ipc_func_add_param_int(func, "i", 5);
  if (command == "fill") nira_ipc_func_add_param_string(func, "s", std::string(15 << 20, 'x').c_str());
  if (command == "connect") outcome = std::to_string(nira_ipc_proxy_connect(g_Proxy, std::stoi(first), id.c_str()));
  if (command == "call") {
    void* result = nira_ipc_proxy_call_function(g_Proxy, func);
    outcome = first + (nira_ipc_func_result_get_result(result) ? " true" : " false");
    nira_ipc_func_result_free(result);
  }
  if (command == "async" || command == "fill")
    nira_ipc_proxy_call_function_async(g_Proxy, func, OnAnswer, new std::string(first));
  if (command == "send") nira_ipc_proxy_send_message(g_Proxy, first.c_str());
  if (command == "disconnect") nira_ipc_proxy_disconnect(g_Proxy);
  if (command == "release") g_Releasing.set_value();
  nira_ipc_func_free(func);
  Print({command, outcome});
}

}  // namespace

int main() {
  std::vector<std::thread> threads;
  g_Proxy = nira_ipc_proxy_new();
  for (int i = 0; i < 4; ++i) {
    nira_ipc_proxy_register_callback(g_Proxy, static_cast<NIRA_IPC_PROXY_CALLBACK_TYPE>(i), OnEvent, &g_Kinds[i]);
  }
  nira_ipc_proxy_register_bundle_handler(g_Proxy, OnBundle, nullptr);
  Print({"ready"});
  for (std::string line; std::getline(std::cin, line);) {
    if (line[0] == '&') {
      threads.emplace_back(Obey, line.substr(1));
    } else {
      Obey(line);
    }
  }
  nira_ipc_proxy_disconnect(g_Proxy);  // ends what the threads wait for
  for (std::thread& thread : threads) thread.join();
  nira_ipc_proxy_free(g_Proxy);
}
