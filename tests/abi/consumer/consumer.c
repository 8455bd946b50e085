/* A service and an app in one process, in C: the app has a number doubled. */
#include <nira_ipc.h>
#include <stdio.h>
#include <stdlib.h>

static void OnMethod(void* func, const char* caller, void* result, void* user_data) {
  int number = 0;
  (void)caller;
  (void)user_data;
  nira_ipc_func_result_set_result(result, nira_ipc_func_get_param_int(func, "number", &number));
  nira_ipc_func_result_add_param_int(result, "doubled", 2 * number);
}

int main(int argc, char** argv) {
  const int port = argc == 2 ? atoi(argv[1]) : 0;
  int doubled = 0;
  void* stub = nira_ipc_stub_start(port);
  void* proxy = nira_ipc_proxy_new();
  void* func = nira_ipc_func_new("double");
  nira_ipc_stub_register_method_handler(stub, OnMethod, NULL);
  nira_ipc_func_add_param_int(func, "number", 21);
  if (nira_ipc_proxy_connect(proxy, port, "consumer") == 1) {
    void* result = nira_ipc_proxy_call_function(proxy, func);
    nira_ipc_func_result_get_param_int(result, "doubled", &doubled);
    nira_ipc_func_result_free(result);
  }
  nira_ipc_func_free(func);
  nira_ipc_proxy_free(proxy);
  nira_ipc_stub_stop(stub);
  printf("C: %d\n", doubled);
  return doubled == 42 ? 0 : 1;
}
