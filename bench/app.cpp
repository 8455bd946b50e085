#include "app.h"

#include <nira_ipc.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>

#include "measure.h"
#include "service.h"

namespace {

constexpr char kAppId[] = "app.settings";

// A call that fails ends the process at once, on whichever thread: no figure of the run is of any use.
[[noreturn]] void Fail(const char* why) {
  printf("error: %s\n", why);
  fflush(stdout);
  _exit(1);
}

// One proxy, and the calls as an application would make them: each builds its record and reads the answer's.
class App {
 public:
  explicit App(const Setting& setting, const std::string& id = kAppId) : m_Id(id), m_Proxy(nira_ipc_proxy_new()) {
    const double start = NowUs();
    if (nira_ipc_proxy_connect(m_Proxy, setting.port, m_Id.c_str()) != 1) Fail("connect");
    m_ConnectUs = NowUs() - start;
  }
  ~App() { nira_ipc_proxy_free(m_Proxy); }
  App(const App&) = delete;
  App& operator=(const App&) = delete;

  void* Proxy() const { return m_Proxy; }
  double ConnectUs() const { return m_ConnectUs; }

  static void* NewGetVolume() {
    void* func = nira_ipc_func_new("getVolume");
    nira_ipc_func_add_param_int(func, "channel", 3);
    nira_ipc_func_add_param_string(func, "user", kAppId);
    return func;
  }

  void GetVolume() const {
    void* result = m_Call(NewGetVolume());
    int volume = 0;
    char* mode = nullptr;
    nira_ipc_func_result_get_param_int(result, "volume", &volume);
    if (volume != 17 || !nira_ipc_func_result_get_param_string(result, "mode", &mode) || strcmp(mode, "stereo") != 0) {
      Fail("getVolume");
    }
    nira_ipc_func_result_free(result);
  }

  void Echo(const std::string& text) const {
    void* func = nira_ipc_func_new("echo");
    nira_ipc_func_add_param_string(func, "text", text.c_str());
    void* result = m_Call(func);
    char* echo = nullptr;
    if (!nira_ipc_func_result_get_param_string(result, "text", &echo) || echo != text) Fail("echo");
    nira_ipc_func_result_free(result);
  }

  void SendFunction(int keys) const {
    void* func = nira_ipc_func_new("sum");
    for (int i = 0; i < keys; ++i) nira_ipc_func_add_param_int(func, KeyName(i).c_str(), i);
    void* result = m_Call(func);
    if (m_IntOf(result, "sum") != m_SumOf(keys)) Fail("sum");
    nira_ipc_func_result_free(result);
  }

  void SendBundle(int keys) const {
    void* bundle = nira_ipc_bundle_new();
    for (int i = 0; i < keys; ++i) nira_ipc_bundle_add_param_int(bundle, KeyName(i).c_str(), i);
    nira_ipc_proxy_send_bundle(m_Proxy, bundle);
    nira_ipc_bundle_free(bundle);
  }

  // Sending tells nothing about what arrived: the service is asked how many bundles it has had, until it has had all.
  void ExpectBundles(int count, int keys) const {
    for (const double start = NowUs(); NowUs() < start + 10e6;) {
      void* result = m_Call(nira_ipc_func_new("bundles"));
      const bool all = m_IntOf(result, "bundles") == count && m_IntOf(result, "sum") == m_SumOf(keys);
      nira_ipc_func_result_free(result);
      if (all) return;
    }
    Fail("bundles");
  }

 private:
  static int m_SumOf(int keys) { return keys * (keys - 1) / 2; }
  static int m_IntOf(void* result, const char* key) {
    int value = -1;
    nira_ipc_func_result_get_param_int(result, key, &value);
    return value;
  }
  void* m_Call(void* func) const {
    void* result = nira_ipc_proxy_call_function(m_Proxy, func);
    nira_ipc_func_free(func);
    if (!nira_ipc_func_result_get_result(result)) Fail("call");
    return result;
  }

  const std::string m_Id;
  void* const m_Proxy;
  double m_ConnectUs = 0;
};

// What the library's workers bring, and one thread awaits.
class Arrivals {
 public:
  explicit Arrivals(long expected) : m_Missing(expected) {}

  void Add() {
    if (--m_Missing != 0) return;
    std::lock_guard<std::mutex> lock(m_Lock);
    m_Complete = true;
    m_Changed.notify_all();
  }
  void Await() {
    std::unique_lock<std::mutex> lock(m_Lock);
    if (!m_Changed.wait_for(lock, std::chrono::seconds(120), [this] { return m_Complete; })) Fail("not all arrived");
  }

 private:
  std::atomic<long> m_Missing;
  std::mutex m_Lock;
  std::condition_variable m_Changed;
  bool m_Complete = false;  // guarded by m_Lock
};

// Asynchronous calls of which so many are always outstanding: each callback makes the next call.
class AsyncCalls {
 public:
  AsyncCalls(const App& app, long calls) : m_Proxy(app.Proxy()), m_Unmade(calls), m_Answers(calls) {}

  void Run(long outstanding) {
    for (long i = 0; i < outstanding; ++i) m_MakeOne();
    m_Answers.Await();
  }

 private:
  void m_MakeOne() {
    if (m_Unmade-- <= 0) return;
    void* func = App::NewGetVolume();
    nira_ipc_proxy_call_function_async(m_Proxy, func, t_OnReply, this);
    nira_ipc_func_free(func);
  }
  static void t_OnReply(const char* reply, void* self) {
    for (const char* part : {R"("result":true)", R"("volume":{"type":"int","value":17})",
                             R"("mode":{"type":"string","value":"stereo"})"}) {
      if (strstr(reply, part) == nullptr) Fail("asynchronous getVolume");
    }
    auto* calls = static_cast<AsyncCalls*>(self);
    calls->m_MakeOne();
    calls->m_Answers.Add();  // last: the object may go
  }

  void* const m_Proxy;
  std::atomic<long> m_Unmade;
  Arrivals m_Answers;
};

// Asks for texts and awaits them; each is counted once, whatever the order in which the workers bring them.
class Pushes {
 public:
  explicit Pushes(long count) : m_Texts(count) {}

  void Run(const App& app, long count) {
    nira_ipc_proxy_register_callback(app.Proxy(), NIRA_IPC_PROXY_CALLBACK_MESSAGE, t_OnText, this);
    nira_ipc_proxy_send_message(app.Proxy(), std::to_string(count).c_str());
    m_Texts.Await();
    if (m_Sum != count * (count + 1) / 2) Fail("pushes");
  }

 private:
  static void t_OnText(const char* text, void* self) {
    if (strlen(text) != kPushBytes) Fail("a push");
    auto* pushes = static_cast<Pushes*>(self);
    pushes->m_Sum += std::atol(text);
    pushes->m_Texts.Add();
  }

  std::atomic<long> m_Sum{0};
  Arrivals m_Texts;
};

template <class Call>
std::vector<double> Timed(long calls, const Call& call) {
  std::vector<double> latencies;
  latencies.reserve(static_cast<size_t>(calls));
  for (long i = 0; i < calls; ++i) {
    const double start = NowUs();
    call();
    latencies.push_back(NowUs() - start);
  }
  return latencies;
}

// The latencies of all threads; each runs `body` with its number.
template <class Body>
std::vector<double> OnThreads(int count, const Body& body) {
  std::vector<std::vector<double>> latencies(static_cast<size_t>(count));
  std::vector<std::thread> threads;
  threads.reserve(latencies.size());
  for (int i = 0; i < count; ++i) {
    threads.emplace_back([&body, &mine = latencies[static_cast<size_t>(i)], i] { mine = body(i); });
  }
  for (std::thread& thread : threads) thread.join();
  std::vector<double> all;
  for (const auto& some : latencies) all.insert(all.end(), some.begin(), some.end());
  return all;
}

// Peaks, because what a mode needs at its most is what a device must have.
Line& AddPeaks(Line& line, const Setting& setting) {
  line.Count("rss_srv_kib", ProcField(setting.service, "status", "VmHWM"));
  return line.Count("rss_cli_kib", ProcField(getpid(), "status", "VmHWM")).Count("rss_other_kib", 0);
}

void Print(const Line& line) {
  printf("%s\n", line.Json().c_str());
  fflush(stdout);
}

void PrintLine(Line line, const Section& section, const Setting& setting, long calls,
               const std::vector<double>& latencies, const char* note = "") {
  section.Finish(line, calls, latencies);
  if (setting.pinned) line.Raw("pinned", "true");
  Print(AddPeaks(line, setting).Text("note", note));
}

void SyncOne(const Mode& mode, const Setting& setting) {
  const App app(setting);
  const auto call = [&app] { app.GetVolume(); };
  Timed(setting.quick ? 500 : 2000, call);
  const long calls = setting.calls > 0 ? setting.calls : setting.quick ? 4000 : 20000;
  const Section section(setting.service);
  PrintLine(Line(mode.name), section, setting, calls, Timed(calls, call));
}

void SyncEight(const Mode& mode, const Setting& setting) {
  const App app(setting);
  const auto run = [&app](long calls) {
    return OnThreads(8, [&app, calls](int) { return Timed(calls, [&app] { app.GetVolume(); }); });
  };
  run(250);
  const long each = setting.quick ? 500 : 5000;
  const Section section(setting.service);
  PrintLine(Line(mode.name), section, setting, 8 * each, run(each), "one connection");
}

template <long kOutstanding>
void Async(const Mode& mode, const Setting& setting) {
  const App app(setting);
  AsyncCalls(app, 2000).Run(64);
  const long calls = setting.quick ? 2 * std::max(kOutstanding, 5000L) : 100000;
  AsyncCalls measured(app, calls);
  const Section section(setting.service);
  measured.Run(kOutstanding);
  PrintLine(Line(mode.name), section, setting, calls, {});
}

// Echoes of one size. The line is the mode's, begun by the caller.
void EchoText(const App& app, const Setting& setting, const Line& line, size_t bytes, long calls) {
  std::string text(bytes, ' ');
  for (size_t i = 0; i < bytes; ++i) text[i] = static_cast<char>('a' + i % 26);  // nothing to be escaped
  const auto call = [&] { app.Echo(text); };
  if (setting.quick) calls /= 6;
  Timed(calls / 10 + 3, call);
  const Section section(setting.service);
  PrintLine(line, section, setting, calls, Timed(calls, call));
}

template <size_t kBytes, long kCalls>
void Big(const Mode& mode, const Setting& setting) {
  EchoText(App(setting), setting, Line(mode.name), kBytes, kCalls);
}

void Push(const Mode& mode, const Setting& setting) {
  const App app(setting);
  Pushes(1000).Run(app, 1000);
  const long count = setting.quick ? 10000 : 100000;
  Pushes pushes(count);
  const Section section(setting.service);
  pushes.Run(app, count);
  PrintLine(Line(mode.name), section, setting, count, {});
}

// The runner watches both processes from outside, until it ends this one's input.
void Idle(const Mode&, const Setting& setting) {
  const App app(setting);
  app.GetVolume();
  printf("%s\n", kIdle);
  fflush(stdout);
  char nothing = 0;
  while (read(STDIN_FILENO, &nothing, 1) > 0) {
  }
}

void Connect(const Mode& mode, const Setting& setting) {
  for (int i = 0; i < 5; ++i) App{setting};
  const long connects = setting.quick ? 50 : 200;
  std::vector<double> latencies;
  const Section section(setting.service);
  for (long i = 0; i < connects; ++i) latencies.push_back(App(setting).ConnectUs());
  PrintLine(Line(mode.name), section, setting, connects, latencies, "rate and cpu with the proxy's making and freeing");
}

void Clients(const Mode& mode, const Setting& setting) {
  std::vector<std::unique_ptr<App>> apps;
  const long calls = setting.quick ? 4000 : 20000;
  for (const size_t count : {1U, 8U, 64U, 512U}) {
    while (apps.size() < count) apps.push_back(std::make_unique<App>(setting, "app." + std::to_string(apps.size())));
    const int threads = static_cast<int>(std::min<size_t>(count, 8));
    // Thread i calls through the apps i, i + threads, ... in turn.
    const auto all = [&](long each) {
      return OnThreads(threads, [&, each](int i) {
        size_t next = static_cast<size_t>(i);
        return Timed(each, [&] { apps[next]->GetVolume(), next = (next + static_cast<size_t>(threads)) % count; });
      });
    };
    const auto one = [&](long each) { return Timed(each, [&] { apps[0]->GetVolume(); }); };
    const auto line = [&](const char* calling) {
      return Line(mode.name).Count("clients", static_cast<long>(count)).Text("calling", calling);
    };
    all(static_cast<long>(count) / threads + 50);
    const Section among(setting.service);
    PrintLine(line("one"), among, setting, calls / 4, one(calls / 4));
    const Section together(setting.service);
    PrintLine(line("all"), together, setting, calls, all(calls / threads));
  }
}

void Keys(const Mode& mode, const Setting& setting) {
  const App app(setting);
  int bundles = 0;
  for (int keys : {1, 10, 100, kMaxKeys}) {
    const auto function = [&] { app.SendFunction(keys); };
    const auto bundle = [&] { app.SendBundle(keys), ++bundles; };
    const auto line = [&](const char* what) { return Line(mode.name).Count("keys", keys).Text("carrier", what); };
    const long calls = (keys < 100 ? 5000 : keys < 1000 ? 2000 : 300) / (setting.quick ? 6 : 1);
    Timed(calls / 10, function);
    const Section calling(setting.service);
    PrintLine(line("function"), calling, setting, calls, Timed(calls, function));
    Timed(calls / 10, bundle);
    const Section sending(setting.service);
    PrintLine(line("bundle"), sending, setting, calls, Timed(calls, bundle));
    app.ExpectBundles(bundles, keys);
  }
}

void Sizes(const Mode& mode, const Setting& setting) {
  const App app(setting);
  const std::pair<size_t, long> steps[] = {{64, 5000},      {1 << 10, 5000},  {16 << 10, 1000},
                                           {64 << 10, 400}, {256 << 10, 150}, {1 << 20, 60}};
  for (const auto& [bytes, calls] : steps) {
    EchoText(app, setting, Line(mode.name).Count("bytes", static_cast<long>(bytes)), bytes, calls);
  }
}

void Latency(const Mode& mode, const Setting& setting) {
  const App app(setting);
  const auto call = [&app] { app.GetVolume(); };
  Timed(setting.quick ? 500 : 2000, call);
  const long calls = setting.quick ? 4000 : 50000;
  const Section section(setting.service);
  const std::vector<double> latencies = Timed(calls, call);
  Line line(mode.name);
  section.Finish(line, calls, latencies).Raw("pinned", setting.pinned ? "true" : "false");
  Print(AddPeaks(line, setting).Raw("percentiles_us", Distribution(latencies)));
}

}  // namespace

const std::vector<Mode>& Modes() {
  static const std::vector<Mode> modes = {{"sync1", true, SyncOne},
                                          {"sync1pin", true, SyncOne},
                                          {"sync8", true, SyncEight},
                                          {"async64", true, Async<64>},
                                          {"big64k", true, Big<64 << 10, 400>},
                                          {"big1m", true, Big<1 << 20, 60>},
                                          {"push", true, Push},
                                          {"idle", true, Idle},
                                          {"latency", false, Latency},
                                          {"connect", false, Connect},
                                          {"clients", false, Clients},
                                          {"keys", false, Keys},
                                          {"sizes", false, Sizes},
                                          {"async10k", false, Async<10000>},
                                          {"memory", false, Big<1 << 20, 100>}};
  return modes;
}
