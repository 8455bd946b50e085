// An app for the tests that speak to it over the wire.
//
//   wire_app
//
// Reads commands from standard input, one a line, and prints one line for each when it is done, with the milliseconds
// that it took, and one for each callback; sends a bundle's values back in a bundle:
//   connect PORT ID   call METHOD   async METHOD   send TEXT   disconnect
//   free              frees the proxy and makes a new one
//   quit              ends, as the end of the input does
// A command after "&" runs on a thread of its own.
#include <chrono>
#include <iostream>
#include <memory>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "wire_common.h"

namespace {

using Clock = std::chrono::steady_clock;

void* g_Proxy;
std::string g_Kinds[] = {"open", "closed", "error", "message"};  // by NIRA_IPC_PROXY_CALLBACK_TYPE

using AsyncCall = std::pair<std::string, Clock::time_point>;  // the method, and when it was called

std::string Since(Clock::time_point start) {
  return std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

void OnEvent(const char* text, void* kind) {
  Print("event", *static_cast<std::string*>(kind), text);
}

void OnBundle(void* bundle, void*) {
  void* copy = CopyOf(bundle);
  nira_ipc_proxy_send_bundle(g_Proxy, copy);
  nira_ipc_bundle_free(copy);
  Print("event bundle");
}

void OnAnswer(const char* reply, void* user) {
  const std::unique_ptr<AsyncCall> call(static_cast<AsyncCall*>(user));
  Print("answer", call->first, std::string(reply).substr(0, std::string(reply).find('\n')), Since(call->second));
}

void RenewProxy() {
  nira_ipc_proxy_free(g_Proxy);
  g_Proxy = nira_ipc_proxy_new();
  for (int i = 0; i < 4; ++i) {
    nira_ipc_proxy_register_callback(g_Proxy, static_cast<NIRA_IPC_PROXY_CALLBACK_TYPE>(i), OnEvent, &g_Kinds[i]);
  }
  nira_ipc_proxy_register_bundle_handler(g_Proxy, OnBundle, nullptr);
}

// The result's flag, and what it holds under "i".
std::string Call(void* func) {
  const std::unique_ptr<void, void (*)(void*)> result(nira_ipc_proxy_call_function(g_Proxy, func),
                                                      nira_ipc_func_result_free);
  int number = 0;
  nira_ipc_func_result_get_param_int(result.get(), "i", &number);
  return (nira_ipc_func_result_get_result(result.get()) ? " true " : " false ") + std::to_string(number);
}

void Obey(const std::string& line) {
  std::istringstream words(line);
  std::string command, first, id, outcome;
  words >> command >> first >> id;
  const auto start = Clock::now();
  void* func = nira_ipc_func_new(first.c_str());
  nira_ipc_func_add_param_int(func, "i", 5);
  if (command == "connect") outcome = std::to_string(nira_ipc_proxy_connect(g_Proxy, std::stoi(first), id.c_str()));
  if (command == "call") outcome = first + Call(func);
  if (command == "async") nira_ipc_proxy_call_function_async(g_Proxy, func, OnAnswer, new AsyncCall(first, start));
  if (command == "send") nira_ipc_proxy_send_message(g_Proxy, first.c_str());
  if (command == "disconnect") nira_ipc_proxy_disconnect(g_Proxy);
  if (command == "free") RenewProxy();
  nira_ipc_func_free(func);
  Print(command, outcome, Since(start));
}

}  // namespace

int main() {
  std::vector<std::thread> threads;
  RenewProxy();
  Print("ready");
  for (std::string line; std::getline(std::cin, line) && line != "quit";) {
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
