// A television's volume service: keeps a level and an icon for each channel, and tells an app when a level changes.
//
//   volume_service PORT        until SIGTERM or SIGINT
//
// setVolume (channel, user, level) and getVolume (channel, user) answer with the level. The text "hello" is answered
// with a pushed text. A bundle (channel, icon) stores the icon to show with the channel, which comes back in the bundle
// that is pushed when the channel's level was set.
#include <nira_ipc.h>
#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "view.h"

namespace {

// The handlers run on the library's workers, several at once: one lock guards what they share.
class Mixer {
 public:
  int Level(const std::string& channel, int user) {
    std::lock_guard<std::mutex> lock(m_Lock);
    const auto found = m_Levels.find({channel, user});
    return found != m_Levels.end() ? found->second : 0;
  }

  int SetLevel(const std::string& channel, int user, int level) {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_Levels[{channel, user}] = std::clamp(level, 0, 100);
  }

  std::string Icon(const std::string& channel) {
    std::lock_guard<std::mutex> lock(m_Lock);
    const auto found = m_Icons.find(channel);
    return found != m_Icons.end() ? found->second : "";
  }

  void SetIcon(const std::string& channel, std::string icon) {
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Icons[channel] = std::move(icon);
  }

 private:
  std::mutex m_Lock;
  std::map<std::pair<std::string, int>, int> m_Levels;  // guarded by m_Lock
  std::map<std::string, std::string> m_Icons;           // guarded by m_Lock: the icons' bytes
};

// What every handler gets as its user data.
struct Service {
  View view{"service", "36"};
  Mixer mixer;
  void* stub = nullptr;
};

void PushLevel(Service& service, const char* app, const std::string& channel, int level) {
  const std::string icon = service.mixer.Icon(channel);
  void* bundle = nira_ipc_bundle_new();
  nira_ipc_bundle_add_param_string(bundle, "channel", channel.c_str());
  nira_ipc_bundle_add_param_int(bundle, "level", level);
  nira_ipc_bundle_add_param_binary(bundle, "icon", icon.data(), static_cast<unsigned>(icon.size()));
  nira_ipc_stub_send_bundle(service.stub, app, bundle);
  nira_ipc_bundle_free(bundle);
  service.view.Sent("bundle", std::string(app) + ": " + channel + " at " + std::to_string(level) + ", with the icon");
}

// Answers a call; false refuses it.
bool Answer(Service& service, void* func, const char* caller, void* result) {
  char* method = nullptr;
  char* channel = nullptr;
  int user = 0;
  int level = 0;
  nira_ipc_func_get_func_name(func, &method);
  if (!nira_ipc_func_get_param_string(func, "channel", &channel)) return false;
  if (!nira_ipc_func_get_param_int(func, "user", &user)) return false;
  if (std::strcmp(method, "setVolume") == 0) {
    if (!nira_ipc_func_get_param_int(func, "level", &level)) return false;
    level = service.mixer.SetLevel(channel, user, level);
    PushLevel(service, caller, channel, level);
  } else if (std::strcmp(method, "getVolume") == 0) {
    level = service.mixer.Level(channel, user);
  } else {
    return false;
  }
  nira_ipc_func_result_add_param_int(result, "level", level);
  service.view.Sent(method, std::string(caller) + ": level " + std::to_string(level));
  return true;
}

void OnMethod(void* func, const char* caller, void* result, void* user_data) {
  Service& service = *static_cast<Service*>(user_data);
  char* method = nullptr;
  nira_ipc_func_get_func_name(func, &method);
  service.view.Got(method, caller);
  const bool answered = Answer(service, func, caller, result);
  nira_ipc_func_result_set_result(result, answered ? 1 : 0);
  if (!answered) service.view.Sent(method, std::string(caller) + ": refused");
}

void OnBundle(void* bundle, const char* caller, void* user_data) {
  Service& service = *static_cast<Service*>(user_data);
  char* channel = nullptr;
  void* icon = nullptr;
  unsigned size = 0;
  if (!nira_ipc_bundle_get_param_string(bundle, "channel", &channel)) return;
  if (!nira_ipc_bundle_get_param_binary(bundle, "icon", &icon, &size)) return;
  service.mixer.SetIcon(channel, std::string(static_cast<const char*>(icon), size));
  service.view.Got("bundle", std::string(caller) + ": icon of " + channel + ", " + std::to_string(size) + " bytes");
}

void OnText(const char* text, const char* app, void* user_data) {
  Service& service = *static_cast<Service*>(user_data);
  service.view.Got("text", std::string(app) + ": " + text);
  const std::string welcome = std::string("welcome, ") + app;
  nira_ipc_stub_send_message(service.stub, app, welcome.c_str());
  service.view.Sent("text", std::string(app) + ": " + welcome);
}

void OnOpen(const char* /*event*/, const char* app, void* user_data) {
  if (app == nullptr) return;  // connected, not registered yet
  static_cast<Service*>(user_data)->view.Say("registered", app);
}

void OnClose(const char* /*event*/, const char* app, void* user_data) {
  static_cast<Service*>(user_data)->view.Say("closed", app);
}

}  // namespace

int main(int argc, char** argv) {
  const int port = argc == 2 ? std::atoi(argv[1]) : 0;
  if (port <= 0) {
    std::fprintf(stderr, "usage: volume_service PORT\n");
    return 2;
  }

  // Blocked before the library is used, so that they wait for our sigwait and interrupt no thread: nothing of the
  // library may be called in a signal handler.
  sigset_t ending;
  sigemptyset(&ending);
  sigaddset(&ending, SIGTERM);
  sigaddset(&ending, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ending, nullptr);

  Service service;
  service.stub = nira_ipc_stub_start(port);
  if (service.stub == nullptr) return 1;
  nira_ipc_stub_register_callback(service.stub, NIRA_IPC_STUB_CALLBACK_OPEN, OnOpen, &service);
  nira_ipc_stub_register_callback(service.stub, NIRA_IPC_STUB_CALLBACK_CLOSE, OnClose, &service);
  nira_ipc_stub_register_callback(service.stub, NIRA_IPC_STUB_CALLBACK_MESSAGE, OnText, &service);
  nira_ipc_stub_register_bundle_handler(service.stub, OnBundle, &service);
  nira_ipc_stub_register_method_handler(service.stub, OnMethod, &service);
  service.view.Say("ready", "on port " + std::to_string(port));

  int signal = 0;
  sigwait(&ending, &signal);
  nira_ipc_stub_stop(service.stub);  // from here on no handler runs: `service` may go
  service.view.Say("stopped", "on signal " + std::to_string(signal));
  return 0;
}
