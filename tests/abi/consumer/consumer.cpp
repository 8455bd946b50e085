// A service and an app in one process, in C++: the app asks for a text.
#include <nira_ipc.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <string>

int main(int argc, char** argv) {
  const int port = argc == 2 ? std::atoi(argv[1]) : 0;
  const std::unique_ptr<void, void (*)(void*)> stub(nira_ipc_stub_start(port), nira_ipc_stub_stop);
  const std::unique_ptr<void, void (*)(void*)> proxy(nira_ipc_proxy_new(), nira_ipc_proxy_free);
  const std::unique_ptr<void, void (*)(void*)> func(nira_ipc_func_new("greet"), nira_ipc_func_free);
  nira_ipc_stub_register_method_handler(
      stub.get(),
      [](void*, const char* caller, void* result, void*) {
        nira_ipc_func_result_add_param_string(result, "text", ("hello, " + std::string(caller)).c_str());
      },
      nullptr);
  if (nira_ipc_proxy_connect(proxy.get(), port, "consumer") != 1) return 1;
  const std::unique_ptr<void, void (*)(void*)> result(nira_ipc_proxy_call_function(proxy.get(), func.get()),
                                                      nira_ipc_func_result_free);
  char* text = nullptr;
  if (!nira_ipc_func_result_get_param_string(result.get(), "text", &text)) return 1;
  std::cout << "C++: " << text << std::endl;
  return text == std::string("hello, consumer") ? 0 : 1;
}
