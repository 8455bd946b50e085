// What the library wrote itself, piece by piece. Names and sizes in a benchmark's name: /16 is sixteen keys, bytes or
// clients.
#include <benchmark/benchmark.h>

#include <future>
#include <string>
#include <vector>

#include "ThreadPool.h"
#include "nira_ipc_base64.h"
#include "nira_ipc_func_internal.h"
#include "nira_ipc_func_result_internal.h"
#include "nira_ipc_json.h"
#include "nira_ipc_message_wait_item.h"
#include "nira_ipc_stub_intf.h"
#include "nira_ipc_util.h"
#include "process.h"
#include "service.h"

namespace {

using benchmark::State;

template <class Container>
void Fill(Container& container, int keys) {
  for (int i = 0; i < keys; ++i) container.SetParamInt(KeyName(i).c_str(), i);
}

int Keys(const State& state) {
  return static_cast<int>(state.range(0));
}

void FillBundle(State& state) {
  while (state.KeepRunning()) {
    CNiraIpcBundle bundle;
    Fill(bundle, Keys(state));
  }
}
BENCHMARK(FillBundle)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

void ReadBundle(State& state) {
  CNiraIpcBundle bundle;
  Fill(bundle, Keys(state));
  while (state.KeepRunning()) {
    for (int i = 0; i < Keys(state); ++i) benchmark::DoNotOptimize(bundle.GetParamInt(KeyName(i).c_str(), -1));
  }
}
BENCHMARK(ReadBundle)->Arg(1)->Arg(10)->Arg(100)->Arg(1000);

// Texts and blocks: set, and read once, which makes the block that the application gets.
void CarryString(State& state) {
  const std::string text(static_cast<size_t>(state.range(0)), 't');
  while (state.KeepRunning()) {
    CNiraIpcBundle bundle;
    bundle.SetParamString("text", text.c_str());
    benchmark::DoNotOptimize(bundle.GetParamString("text", 0));
  }
}
BENCHMARK(CarryString)->Arg(16)->Arg(1 << 10)->Arg(1 << 20);

void CarryBinary(State& state) {
  const std::string data(static_cast<size_t>(state.range(0)), '\x99');
  unsigned size = 0;
  while (state.KeepRunning()) {
    CNiraIpcBundle bundle;
    bundle.SetParamBinary("data", data.data(), static_cast<unsigned>(data.size()));
    benchmark::DoNotOptimize(bundle.GetParamBinary("data", &size));
  }
}
BENCHMARK(CarryBinary)->Arg(16)->Arg(1 << 10)->Arg(1 << 20);

template <class Container>
void ToText(State& state) {
  Container container;
  Fill(container, Keys(state));
  while (state.KeepRunning()) benchmark::DoNotOptimize(NiraIpcWriteJson(container.GetJson()));
}
BENCHMARK_TEMPLATE(ToText, CNiraIpcBundle)->Arg(2)->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(ToText, CNiraIpcFunc)->Arg(2)->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(ToText, CNiraIpcFuncResult)->Arg(2)->Arg(100)->Arg(1000);

// Where a container's own JSON form has its content; null when that is all of it.
template <class Container>
constexpr const char* kMember = nullptr;
template <>
constexpr const char* kMember<CNiraIpcBundle> = "bundle";
template <>
constexpr const char* kMember<CNiraIpcFunc> = "params";

template <class Container>
void FromText(State& state) {
  Container original;
  Fill(original, Keys(state));
  const std::string text = NiraIpcWriteJson(original.GetJson());
  while (state.KeepRunning()) {
    Json::Value json;
    if (!NiraIpcParseJson(text.data(), text.size(), json)) state.SkipWithError("no JSON");
    Container container;
    if constexpr (kMember<Container> == nullptr) {
      container.SetJsonParam(std::move(json));
    } else {
      container.SetJsonParam(std::move(json[kMember<Container>]));
    }
    if (container.GetParamInt(KeyName(1).c_str(), -1) != 1) state.SkipWithError("a value is missing");
  }
}
BENCHMARK_TEMPLATE(FromText, CNiraIpcBundle)->Arg(2)->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(FromText, CNiraIpcFunc)->Arg(2)->Arg(100)->Arg(1000);
BENCHMARK_TEMPLATE(FromText, CNiraIpcFuncResult)->Arg(2)->Arg(100)->Arg(1000);

void Base64Encode(State& state) {
  const std::vector<unsigned char> input(static_cast<size_t>(state.range(0)), 0x99);
  std::vector<unsigned char> output(input.size() / 3 * 4 + 4);
  unsigned length = 0;
  while (state.KeepRunning()) {
    b64_encode(input.data(), static_cast<unsigned>(input.size()), output.data(), &length);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Base64Encode)->Arg(48)->Arg(48 << 10);

void Base64Decode(State& state) {
  const std::vector<unsigned char> text(static_cast<size_t>(state.range(0)), 'x');
  std::vector<unsigned char> output(text.size());
  unsigned length = 0;
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(b64_decode(text.data(), static_cast<unsigned>(text.size()), output.data(), &length));
  }
  state.SetBytesProcessed(state.iterations() * state.range(0));
}
BENCHMARK(Base64Decode)->Arg(64)->Arg(64 << 10);

// A request's way through the wait table while so many others wait.
void WaitTable(State& state) {
  MessageWaitItems items;
  const auto deadline = MessageWaitItems::Clock::now() + std::chrono::hours(1);
  for (int i = 0; i < Keys(state); ++i) items.CreateKey(i, deadline);
  int key = Keys(state);
  while (state.KeepRunning()) {
    items.CreateKey(key, deadline);
    if (!items.SetJsonResponse(key, Json::Value(1)) || !items.WaitForResponse(key)) state.SkipWithError("no answer");
    benchmark::DoNotOptimize(items.GetJsonResponse(key));
    items.RemoveKey(key++);
  }
}
BENCHMARK(WaitTable)->Arg(0)->Arg(64)->Arg(10000);

// The same for a request that does not block.
void WaitTableCompletion(State& state) {
  MessageWaitItems items;
  const auto deadline = MessageWaitItems::Clock::now() + std::chrono::hours(1);
  int key = 0, answered = 0;
  while (state.KeepRunning()) {
    items.CreateKey(key, deadline, [&answered](CNiraIpcMessage&&) { ++answered; });
    items.SetJsonResponse(key++, Json::Value(1));
  }
  if (answered != key) state.SkipWithError("no answer");
}
BENCHMARK(WaitTableCompletion);

class ClientBook : public INiraIpcStub {
 public:
  explicit ClientBook(int clients) : m_Handles(static_cast<size_t>(clients)) {
    for (char& handle : m_Handles) {
      SetClientWaitRegister(&handle);
      StoreClientInfo("app." + std::to_string(&handle - m_Handles.data()), &handle);
    }
  }
  bool Start(int) override { return false; }
  void Stop() override {}
  void SendJson(void*, const Json::Value&) override {}
  void SendJsonWithHeader(void*, const char*, const Json::Value&) override {}
  void SendText(void*, std::string&&) override {}

  void* Handle() { return &m_Handles[m_Handles.size() / 2]; }

 private:
  std::vector<char> m_Handles;
};

void ClientById(State& state) {
  ClientBook book(Keys(state));
  const std::string id = book.GetClientKey(book.Handle());
  while (state.KeepRunning()) benchmark::DoNotOptimize(book.GetClientHandle(id));
}
BENCHMARK(ClientById)->Arg(1)->Arg(64)->Arg(512);

void ClientByHandle(State& state) {
  ClientBook book(Keys(state));
  while (state.KeepRunning()) benchmark::DoNotOptimize(book.GetClientKey(book.Handle()));
}
BENCHMARK(ClientByHandle)->Arg(1)->Arg(64)->Arg(512);

// From one thread to a sleeping worker and back.
void PoolRoundTrip(State& state) {
  ThreadPool pool(10);
  while (state.KeepRunning()) pool.enqueue([] { return 1; }).get();
}
BENCHMARK(PoolRoundTrip)->UseRealTime();

// A task's share when the workers have more than they can do.
void PoolFlood(State& state) {
  constexpr int kTasks = 10000;
  ThreadPool pool(10);
  while (state.KeepRunning()) {
    std::promise<void> done;
    std::atomic<int> left{kTasks};
    for (int i = 0; i < kTasks; ++i) {
      pool.enqueue([&] {
        if (--left == 0) done.set_value();
      });
    }
    done.get_future().wait();
  }
  state.SetItemsProcessed(state.iterations() * kTasks);
}
BENCHMARK(PoolFlood)->UseRealTime()->Unit(benchmark::kMillisecond);

void Token(State& state) {
  const PrivateSecret secret;
  int timestamp = 0;
  while (state.KeepRunning()) benchmark::DoNotOptimize(CNiraIpcUtil::GenerateToken("app.settings", ++timestamp));
}
BENCHMARK(Token);

}  // namespace
