#include "service.h"

#include <arpa/inet.h>
#include <nira_ipc.h>
#include <stdio.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <vector>

namespace {

// The handlers run on the library's workers, several at once.
struct Service {
  void* stub = nullptr;
  std::atomic<int> bundles{0};
  std::atomic<int> bundleSum{0};  // of the latest
};

void GetVolume(void* func, void* result) {
  int channel = 0;
  char* user = nullptr;
  nira_ipc_func_get_param_int(func, "channel", &channel);
  if (channel != 3 || !nira_ipc_func_get_param_string(func, "user", &user) || user != std::string("app.settings")) {
    return;
  }
  nira_ipc_func_result_add_param_int(result, "volume", 17);
  nira_ipc_func_result_add_param_string(result, "mode", "stereo");
  nira_ipc_func_result_set_result(result, 1);
}

void Echo(void* func, void* result) {
  char* text = nullptr;
  if (!nira_ipc_func_get_param_string(func, "text", &text)) return;
  nira_ipc_func_result_add_param_string(result, "text", text);
  nira_ipc_func_result_set_result(result, 1);
}

// The sum of as many values as there are, read one by one.
void Sum(void* func, void* result) {
  int sum = 0, value = 0;
  for (int i = 0; nira_ipc_func_get_param_int(func, KeyName(i).c_str(), &value); ++i) sum += value;
  nira_ipc_func_result_add_param_int(result, "sum", sum);
  nira_ipc_func_result_set_result(result, 1);
}

void BundlesSoFar(const Service& service, void* result) {
  nira_ipc_func_result_add_param_int(result, "bundles", service.bundles);
  nira_ipc_func_result_add_param_int(result, "sum", service.bundleSum);
  nira_ipc_func_result_set_result(result, 1);
}

void OnMethod(void* func, const char*, void* result, void* user_data) {
  char* name = nullptr;
  nira_ipc_func_get_func_name(func, &name);
  const std::string method = name;
  if (method == "getVolume") GetVolume(func, result);
  if (method == "echo") Echo(func, result);
  if (method == "sum") Sum(func, result);
  if (method == "bundles") BundlesSoFar(*static_cast<Service*>(user_data), result);
}

void OnBundle(void* bundle, const char*, void* user_data) {
  int sum = 0, value = 0;
  for (int i = 0; nira_ipc_bundle_get_param_int(bundle, KeyName(i).c_str(), &value), value != -1; ++i) sum += value;
  auto* service = static_cast<Service*>(user_data);
  service->bundleSum = sum;
  ++service->bundles;
}

// A text is the number of pushes that the app wants; each begins with its own number.
void OnText(const char* text, const char* caller, void* user_data) {
  const long count = std::atol(text);
  std::string push;
  for (long i = 1; i <= count; ++i) {
    push = std::to_string(i) + " ";
    push.resize(kPushBytes, 'p');
    nira_ipc_stub_send_message(static_cast<Service*>(user_data)->stub, caller, push.c_str());
  }
}

int FreePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool found = bind(socket, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                     getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(socket);
  return found ? ntohs(address.sin_port) : 0;
}

}  // namespace

const std::string& KeyName(int number) {
  static const std::vector<std::string> names = [] {
    std::vector<std::string> made;
    for (int i = 0; i <= kMaxKeys; ++i) made.push_back("key" + std::to_string(i));
    return made;
  }();
  return names.at(static_cast<size_t>(number));
}

int RunService() {
  Service service;
  const int port = FreePort();
  service.stub = nira_ipc_stub_start(port);
  if (port == 0 || service.stub == nullptr) return 1;
  nira_ipc_stub_register_method_handler(service.stub, OnMethod, &service);
  nira_ipc_stub_register_bundle_handler(service.stub, OnBundle, &service);
  nira_ipc_stub_register_callback(service.stub, NIRA_IPC_STUB_CALLBACK_MESSAGE, OnText, &service);
  printf("%d\n", port);
  fflush(stdout);
  char nothing = 0;
  while (read(STDIN_FILENO, &nothing, 1) > 0) {
  }
  nira_ipc_stub_stop(service.stub);
  return 0;
}
