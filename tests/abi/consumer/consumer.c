/* A service and an app in one process: the app registers. It is C, and C++ as well. */
#include <nira_ipc.h>
#include <stdlib.h>

int main(int argc, char** argv) {
  const int port = atoi(argv[argc - 1]);
  void* stub = nira_ipc_stub_start(port);
  void* proxy = nira_ipc_proxy_new();
  const int connected = nira_ipc_proxy_connect(proxy, port, "consumer");
  nira_ipc_proxy_free(proxy);
  nira_ipc_stub_stop(stub);
  return connected == 1 ? 0 : 1;
}
