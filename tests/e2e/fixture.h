// A service and its apps in one process, on a free port, with a secret of their own.
#ifndef NIRA_IPC_TESTS_FIXTURE_H
#define NIRA_IPC_TESTS_FIXTURE_H

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "nira_ipc.h"

using namespace std::chrono_literals;

// Something that one thread waits for and others bring about.
class Progress {
 public:
  void Add() {
    std::lock_guard<std::mutex> lock(m_Lock);
    ++m_Count;
    m_Changed.notify_all();
  }
  int Count() const {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_Count;
  }
  bool Await(int count, std::chrono::milliseconds limit = 10s) const {
    std::unique_lock<std::mutex> lock(m_Lock);
    return m_Changed.wait_for(lock, limit, [&] { return m_Count >= count; });
  }

 private:
  mutable std::mutex m_Lock;
  mutable std::condition_variable m_Changed;
  int m_Count = 0;
};

inline bool AwaitTrue(const std::function<bool()>& condition, std::chrono::milliseconds limit = 10s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

inline void ExpectExit(pid_t child, int code, const char* what = "") {
  int status = 0;
  EXPECT_TRUE(AwaitTrue([&] { return waitpid(child, &status, WNOHANG) == child; }, 30s)) << what;
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == code) << what << ": " << status;
}

inline int FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  const bool ok = bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
  close(fd);
  return ok ? ntohs(address.sin_port) : 0;
}

// The library's threads: a field of each one's status file, by id and name.
inline std::vector<std::pair<std::string, std::string>> LibraryThreads(const std::string& field = "Tgid") {
  std::vector<std::pair<std::string, std::string>> threads;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "status");
    std::string name, line;
    std::getline(file, name);
    while (std::getline(file, line) && line.rfind(field + ":", 0) != 0) {
    }
    if (name.find("nira-stub") == 6 || name.find("nira-prox") == 6) threads.emplace_back(name.substr(6), line);
  }
  return threads;
}

inline long CountThreads(const std::string& name) {
  const auto threads = LibraryThreads();
  return std::count_if(threads.begin(), threads.end(), [&](const auto& thread) { return thread.first == name; });
}

class EndToEnd : public testing::Test {
 protected:
  using Hearer = std::function<void(const char*)>;

  EndToEnd() {
    char path[] = "/tmp/nira-ipc-test-XXXXXX";
    m_Storage = mkdtemp(path);
    std::ofstream(m_Storage + "/nira_ipc_key") << "a secret of this test";
    std::filesystem::permissions(m_Storage + "/nira_ipc_key", std::filesystem::perms::owner_read);
    setenv("NIRA_IPC_SECURE_STORAGE", m_Storage.c_str(), 1);
  }
  ~EndToEnd() override {
    release.Add();
    for (void* proxy : m_Proxies) nira_ipc_proxy_free(proxy);
    nira_ipc_stub_stop(stub);
    std::filesystem::remove_all(m_Storage);
  }

  void StartStub() {
    stub = nira_ipc_stub_start(port);
    ASSERT_NE(stub, nullptr);
    nira_ipc_stub_register_method_handler(stub, Answer, this);
  }
  void StopStub() { nira_ipc_stub_stop(std::exchange(stub, nullptr)); }

  // Proxies are freed at the end, unless the test frees them.
  void* NewProxy() { return m_Proxies.emplace_back(nira_ipc_proxy_new()); }
  void* Connected(const char* id) {
    void* proxy = NewProxy();
    EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, id), 1);
    return proxy;
  }
  void Disown(void* proxy) { m_Proxies.erase(std::find(m_Proxies.begin(), m_Proxies.end(), proxy)); }

  void Hear(void* proxy, NIRA_IPC_PROXY_CALLBACK_TYPE type, Hearer hearer) {
    nira_ipc_proxy_register_callback(proxy, type, Call, &m_Hearers.emplace_back(std::move(hearer)));
  }
  void CallAsync(void* proxy, const char* method, Hearer hearer) {
    void* func = nira_ipc_func_new(method);
    nira_ipc_proxy_call_function_async(proxy, func, Call, &m_Hearers.emplace_back(std::move(hearer)));
    nira_ipc_func_free(func);
  }

  // Calls "twice" with a number, or another method, and gives the answer; -1 when there is none.
  static int CallTwice(void* proxy, int number, const char* method = "twice") {
    void* func = nira_ipc_func_new(method);
    nira_ipc_func_add_param_int(func, "number", number);
    void* result = nira_ipc_proxy_call_function(proxy, func);
    int twice = -1;
    if (nira_ipc_func_result_get_result(result)) nira_ipc_func_result_get_param_int(result, "twice", &twice);
    nira_ipc_func_result_free(result);
    nira_ipc_func_free(func);
    return twice;
  }

  // The service: "hang" holds its worker until the test lets it go; anything else answers at once.
  static void Answer(void* func, const char*, void* result, void* self) {
    auto* test = static_cast<EndToEnd*>(self);
    char* name = nullptr;
    nira_ipc_func_get_func_name(func, &name);
    if (name == std::string("hang")) {
      test->hanging.Add();
      test->release.Await(1);
    }
    int number = 0;
    nira_ipc_func_get_param_int(func, "number", &number);
    nira_ipc_func_result_add_param_int(result, "twice", 2 * number);
    nira_ipc_func_result_set_result(result, 1);
    test->handled.Add();
  }

  const int port = FreePort();
  void* stub = nullptr;
  Progress hanging, release, handled;

 private:
  static void Call(const char* text, void* hearer) { (*static_cast<Hearer*>(hearer))(text); }

  std::string m_Storage;
  std::vector<void*> m_Proxies;
  std::deque<Hearer> m_Hearers;  // they stay where they are
};

#endif  // NIRA_IPC_TESTS_FIXTURE_H
