// A settings app: talks to the volume service in every way that there is, and ends with 0 if all of it went well.
//
//   settings_app PORT
#include <nira_ipc.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <string>

#include "view.h"

namespace {

constexpr char kAppId[] = "app.settings";
constexpr char kChannel[] = "speakers";
constexpr int kUser = 7;
constexpr int kLevel = 30;

// What comes on the library's workers, for main to wait for.
class Inbox {
 public:
  struct Content {
    std::string text;   // pushed
    int level = -1;     // pushed in a bundle
    std::string icon;   // pushed in the same bundle
    std::string reply;  // of the asynchronous call
  };

  template <class Change>
  void Put(Change change) {
    {
      std::lock_guard<std::mutex> lock(m_Lock);
      change(m_Content);
    }
    m_Changed.notify_all();
  }

  // Waits until `arrived` holds, for ten seconds at most, and returns what there is then.
  template <class Arrived>
  Content Wait(Arrived arrived) {
    std::unique_lock<std::mutex> lock(m_Lock);
    m_Changed.wait_for(lock, std::chrono::seconds(10), [&] { return arrived(m_Content); });
    return m_Content;
  }

 private:
  std::mutex m_Lock;
  std::condition_variable m_Changed;
  Content m_Content;  // guarded by m_Lock
};

// The callbacks: what they are given lives until they return, so they copy.

void OnText(const char* text, void* user_data) {
  static_cast<Inbox*>(user_data)->Put([text](Inbox::Content& content) { content.text = text; });
}

void OnReply(const char* reply, void* user_data) {
  static_cast<Inbox*>(user_data)->Put([reply](Inbox::Content& content) { content.reply = reply; });
}

void OnBundle(void* bundle, void* user_data) {
  int level = -1;
  void* icon = nullptr;
  unsigned size = 0;
  nira_ipc_bundle_get_param_int(bundle, "level", &level);
  if (!nira_ipc_bundle_get_param_binary(bundle, "icon", &icon, &size)) return;
  static_cast<Inbox*>(user_data)->Put([&](Inbox::Content& content) {
    content.level = level;
    content.icon.assign(static_cast<const char*>(icon), size);
  });
}

// A speaker of 16 x 16 pixels, one byte each: zeros around it, and bytes that are no text.
std::string SpeakerIcon() {
  constexpr size_t kSide = 16;
  std::string icon(kSide * kSide, '\0');
  for (size_t y = 0; y < kSide; ++y) {
    for (size_t x = 2; x < 10; ++x) {
      const bool inside = x < 5 ? y > 4 && y < 11 : y + x > 9 && y < 6 + x;
      if (inside) icon[y * kSide + x] = static_cast<char>(255 - y * x);
    }
  }
  return icon;
}

void* NewCall(const char* method) {
  void* func = nira_ipc_func_new(method);
  nira_ipc_func_add_param_string(func, "channel", kChannel);
  nira_ipc_func_add_param_int(func, "user", kUser);
  return func;
}

void ExchangeTexts(void* proxy, Inbox& inbox, View& view) {
  view.Sent("text", "hello");
  nira_ipc_proxy_send_message(proxy, "hello");
  const std::string expected = std::string("welcome, ") + kAppId;
  const Inbox::Content got = inbox.Wait([](const Inbox::Content& content) { return !content.text.empty(); });
  view.Checked("text", got.text, got.text == expected);
}

void SendIcon(void* proxy, View& view, const std::string& icon) {
  void* bundle = nira_ipc_bundle_new();
  nira_ipc_bundle_add_param_string(bundle, "channel", kChannel);
  nira_ipc_bundle_add_param_binary(bundle, "icon", icon.data(), static_cast<unsigned>(icon.size()));
  view.Sent("bundle", std::string("icon of ") + kChannel + ", " + std::to_string(icon.size()) + " bytes");
  nira_ipc_proxy_send_bundle(proxy, bundle);
  nira_ipc_bundle_free(bundle);
}

// Calls and waits for the answer. The result is ours to free.
void CallForLevel(void* proxy, View& view, void* func, const std::string& call) {
  char* method = nullptr;
  nira_ipc_func_get_func_name(func, &method);
  view.Sent(method, call);
  void* result = nira_ipc_proxy_call_function(proxy, func);
  int level = -1;
  nira_ipc_func_result_get_param_int(result, "level", &level);
  const bool good = nira_ipc_func_result_get_result(result) && level == kLevel;
  view.Checked(method, "level " + std::to_string(level), good);
  nira_ipc_func_result_free(result);
}

void SetVolume(void* proxy, Inbox& inbox, View& view, const std::string& icon) {
  void* func = NewCall("setVolume");
  nira_ipc_func_add_param_int(func, "level", kLevel);
  CallForLevel(proxy, view, func, "speakers, user 7, level 30");
  nira_ipc_func_free(func);

  const Inbox::Content got = inbox.Wait([](const Inbox::Content& content) { return content.level != -1; });
  const std::string what = "speakers at " + std::to_string(got.level) + ", icon of " + std::to_string(got.icon.size()) +
                           " bytes" + (got.icon == icon ? ", each as sent" : "");
  view.Checked("bundle", what, got.level == kLevel && got.icon == icon);
}

void GetVolume(void* proxy, Inbox& inbox, View& view) {
  void* func = NewCall("getVolume");
  CallForLevel(proxy, view, func, "speakers, user 7");

  view.Sent("getVolume", "speakers, user 7, asynchronously");
  nira_ipc_proxy_call_function_async(proxy, func, OnReply, &inbox);
  nira_ipc_func_free(func);  // the library has its own copy
  const Inbox::Content got = inbox.Wait([](const Inbox::Content& content) { return !content.reply.empty(); });
  const std::string expected = R"({"level":{"type":"int","value":)" + std::to_string(kLevel) + R"(}},"result":true)";
  const bool good = got.reply.find(expected) != std::string::npos;
  view.Checked("getVolume", good ? expected : got.reply, good);
}

void CallUnknownMethod(void* proxy, View& view) {
  void* func = NewCall("makeCoffee");
  view.Sent("makeCoffee", "a method that the service does not have");
  void* result = nira_ipc_proxy_call_function(proxy, func);
  const bool flag = nira_ipc_func_result_get_result(result);
  view.Checked("makeCoffee", flag ? "done" : "refused", !flag);
  nira_ipc_func_result_free(result);
  nira_ipc_func_free(func);
}

}  // namespace

int main(int argc, char** argv) {
  const int port = argc == 2 ? std::atoi(argv[1]) : 0;
  if (port <= 0) {
    std::fprintf(stderr, "usage: settings_app PORT\n");
    return 2;
  }

  View view("app", "32");
  Inbox inbox;
  void* proxy = nira_ipc_proxy_new();
  nira_ipc_proxy_register_callback(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, OnText, &inbox);
  nira_ipc_proxy_register_bundle_handler(proxy, OnBundle, &inbox);

  view.Sent("connect", "port " + std::to_string(port) + " as " + kAppId);
  const bool connected = nira_ipc_proxy_connect(proxy, port, kAppId) == 1;
  view.Checked("connect", connected ? "registered" : "no service, or another secret", connected);
  if (connected) {
    const std::string icon = SpeakerIcon();
    ExchangeTexts(proxy, inbox, view);
    SendIcon(proxy, view, icon);
    SetVolume(proxy, inbox, view, icon);
    GetVolume(proxy, inbox, view);
    CallUnknownMethod(proxy, view);
  }
  nira_ipc_proxy_free(proxy);  // disconnects; from here on no callback runs: `inbox` may go
  view.Say("done", view.AllGood() ? "every exchange gave what it should" : "something went wrong");
  return view.AllGood() ? 0 : 1;
}
