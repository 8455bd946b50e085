// A process that calls exit(7) with a stub, a proxy and calls outstanding: from main, a method handler, a callback of
// the proxy, or the stub's open callback. Usage: nira-ipc-exit-child PORT WHERE
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <string>

#include "nira_ipc.h"

namespace {

// Never stopped nor freed, and not lost either.
void* volatile stub;
void* volatile proxy;
void* volatile second;

void ExitNow() {
  static std::atomic<bool> begun{false};  // several threads may come here; exit wants one
  if (!begun.exchange(true)) exit(7);
}

void CallAsync(nira_ipc_proxy_callback callback) {
  void* func = nira_ipc_func_new("any");
  nira_ipc_proxy_call_function_async(proxy, func, callback, nullptr);
  nira_ipc_func_free(func);
}

}  // namespace

int main(int, char** argv) {
  const int port = atoi(argv[1]);
  const std::string where = argv[2];
  stub = nira_ipc_stub_start(port);
  proxy = nira_ipc_proxy_new();
  if (where == "handler") {
    nira_ipc_stub_register_method_handler(
        stub, [](void*, const char*, void*, void*) { ExitNow(); }, nullptr);
  }
  if (nira_ipc_proxy_connect(proxy, port, "app") != 1) return 1;
  if (where == "open") {
    nira_ipc_stub_register_callback(
        stub, NIRA_IPC_STUB_CALLBACK_OPEN, [](const char*, const char*, void*) { ExitNow(); }, nullptr);
    second = nira_ipc_proxy_new();
    nira_ipc_proxy_connect(second, port, "second");
  }
  for (int i = 0; i < 100; ++i) CallAsync([](const char*, void*) {});
  if (where == "callback") CallAsync([](const char*, void*) { ExitNow(); });
  if (where == "main") exit(7);
  for (;;) pause();
}
