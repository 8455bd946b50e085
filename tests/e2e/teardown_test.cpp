// The end of things: stop, disconnect, free, close and exit, from everywhere and in the middle of everything.
#include <signal.h>

#include "fixture.h"

namespace {

// What became of asynchronous calls.
struct Outcomes {
  Progress answered, cutOff, refused;
  void operator()(const char* reply) {
    const std::string text = reply;
    const bool isCutOff = text.find("Unexpected disconnection") != std::string::npos;
    (text.empty() ? refused : isCutOff ? cutOff : answered).Add();
  }
  int All() const { return answered.Count() + cutOff.Count() + refused.Count(); }
};

class TearDown : public EndToEnd {};

TEST_F(TearDown, StopWaitsForHandlersAndNoneRunsAfterwards) {
  StartStub();
  void* proxy = Connected("app");
  Outcomes outcomes;
  for (int i = 0; i < 200; ++i) CallAsync(proxy, i < 3 ? "hang" : "twice", std::ref(outcomes));
  ASSERT_TRUE(hanging.Await(3));
  std::thread releaser([this] {
    std::this_thread::sleep_for(50ms);
    release.Add();
  });
  StopStub();
  const int handledAtStop = handled.Count();
  EXPECT_EQ(release.Count(), 1) << "stop returned while handlers ran";
  releaser.join();
  EXPECT_TRUE(AwaitTrue([&] { return outcomes.All() == 200; }));
  EXPECT_EQ(handled.Count(), handledAtStop);
}

TEST_F(TearDown, FreeAnswersEveryCallOnceAndNoCallbackRunsAfterwards) {
  StartStub();
  void* proxy = Connected("app");
  Outcomes outcomes;
  Progress messages;
  Hear(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, [&](const char*) {
    std::this_thread::sleep_for(1ms);
    messages.Add();
  });
  std::atomic<int> failed{0};
  std::vector<std::thread> callers(3);
  for (auto& caller : callers) caller = std::thread([&] { failed += CallTwice(proxy, 1, "hang") == -1 ? 1 : 0; });
  ASSERT_TRUE(hanging.Await(3));
  for (int i = 0; i < 500; ++i) CallAsync(proxy, "hang", std::ref(outcomes));
  for (int i = 0; i < 500; ++i) nira_ipc_stub_send_message(stub, "app", "push");
  ASSERT_TRUE(messages.Await(1));
  Disown(proxy);
  nira_ipc_proxy_free(proxy);
  const int messagesAtFree = messages.Count();
  EXPECT_EQ(outcomes.cutOff.Count(), 500);
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(failed, 3);
  release.Add();
  EXPECT_EQ(CallTwice(Connected("other"), 4), 8);  // the pool has been through what was queued
  EXPECT_EQ(messages.Count(), messagesAtFree);
  EXPECT_EQ(outcomes.All(), 500);
}

// Which of one's own callbacks, and what is called there.
using Inside = std::pair<const char*, void (*)(void*)>;
class InsideOwnCallback : public EndToEnd, public testing::WithParamInterface<Inside> {};

TEST_P(InsideOwnCallback, AProxyCanBeEnded) {
  const std::string where = GetParam().first;
  const auto end = GetParam().second;
  StartStub();
  void* proxy = Connected("app");
  Outcomes outcomes;
  Progress done;
  const auto callback = [&](const char*) {
    end(proxy);
    done.Add();
  };
  if (end == nira_ipc_proxy_free) Disown(proxy);
  for (int i = 0; i < 50; ++i) CallAsync(proxy, "hang", std::ref(outcomes));
  ASSERT_TRUE(hanging.Await(10));
  Hear(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, callback);
  Hear(proxy, NIRA_IPC_PROXY_CALLBACK_CLOSE, callback);
  if (where == "message") nira_ipc_stub_send_message(stub, "app", "end it");
  if (where == "reply") CallAsync(proxy, "twice", callback);
  if (where != "message") release.Add();
  if (where == "close") StopStub();
  EXPECT_TRUE(done.Await(1));
  EXPECT_TRUE(AwaitTrue([&] { return outcomes.All() == 50; }));
  EXPECT_TRUE(AwaitTrue([] { return CountThreads("nira-prox-svc") == 0; }));
}

std::string NameOf(const testing::TestParamInfo<Inside>& way) {
  return way.param.first + std::string(way.param.second == nira_ipc_proxy_free ? "Free" : "Disconnect");
}

const Inside kWays[] = {{"message", nira_ipc_proxy_disconnect}, {"message", nira_ipc_proxy_free},
                        {"reply", nira_ipc_proxy_disconnect},   {"reply", nira_ipc_proxy_free},
                        {"close", nira_ipc_proxy_disconnect},   {"close", nira_ipc_proxy_free}};
INSTANTIATE_TEST_SUITE_P(Ways, InsideOwnCallback, testing::ValuesIn(kWays), NameOf);

TEST_F(TearDown, AStubCanBeStoppedInsideItsHandlerAndInsideItsOpenCallback) {
  static Progress stopped, closed;
  StartStub();
  void* proxy = Connected("app");
  const auto handler = [](void*, const char*, void*, void* self) {
    nira_ipc_stub_stop(self);
    stopped.Add();
  };
  nira_ipc_stub_register_method_handler(stub, handler, stub);
  EXPECT_EQ(CallTwice(proxy, 1), -1);
  EXPECT_TRUE(stopped.Await(1));
  nira_ipc_proxy_disconnect(proxy);

  StartStub();  // on the same port
  const auto onOpen = [](const char*, const char*, void* self) {
    nira_ipc_stub_stop(self);
    stopped.Add();
  };
  const auto onClose = [](const char*, const char*, void*) { closed.Add(); };
  nira_ipc_stub_register_callback(stub, NIRA_IPC_STUB_CALLBACK_CLOSE, onClose, nullptr);
  nira_ipc_stub_register_callback(stub, NIRA_IPC_STUB_CALLBACK_OPEN, onOpen, stub);
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 0);
  EXPECT_TRUE(stopped.Await(2));
  EXPECT_TRUE(AwaitTrue([] { return CountThreads("nira-stub-svc") == 0; }));
  EXPECT_EQ(closed.Count(), 0);
  stub = nullptr;
}

TEST_F(TearDown, AFailedConnectLeavesNothingBehindAndCanBeRepeated) {
  void* proxy = NewProxy();
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, nullptr), 0);
  EXPECT_EQ(nira_ipc_proxy_connect(nullptr, port, "app"), 0);
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, 70000, "app"), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 0);
  EXPECT_EQ(CountThreads("nira-prox-svc"), 0);
  StartStub();
  void* invalid = nira_ipc_stub_start(-1);  // it sleeps until it is stopped
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 1);
  EXPECT_EQ(CallTwice(proxy, 21), 42);
  nira_ipc_stub_stop(invalid);
}

TEST_F(TearDown, ConnectingAndFreeingUnderLoadFromManyThreads) {
  StartStub();
  std::vector<std::thread> apps(6);
  for (size_t t = 0; t < apps.size(); ++t) {
    apps[t] = std::thread([this, id = "app" + std::to_string(t % 3)] {  // two threads share each id
      for (int i = 0; i < 15; ++i) {
        std::atomic<int> outcomes{0};
        void* proxy = nira_ipc_proxy_new();
        void* func = nira_ipc_func_new("twice");
        nira_ipc_proxy_connect(proxy, port, id.c_str());
        for (int c = 0; c < 20; ++c) {
          nira_ipc_proxy_call_function_async(
              proxy, func, [](const char*, void* count) { ++*static_cast<std::atomic<int>*>(count); }, &outcomes);
        }
        nira_ipc_stub_send_message(stub, id.c_str(), "push");
        if (i % 2 == 0) nira_ipc_proxy_disconnect(proxy);
        nira_ipc_func_free(func);
        nira_ipc_proxy_free(proxy);
        EXPECT_EQ(outcomes, 20);
      }
    });
  }
  for (std::thread& app : apps) app.join();
}

TEST_F(TearDown, SigintEndsEveryStubAtOnce) {
  StartStub();
  void* other = nira_ipc_stub_start(FreePort());
  Progress closed;
  Hear(Connected("app"), NIRA_IPC_PROXY_CALLBACK_CLOSE, [&](const char*) { closed.Add(); });
  raise(SIGINT);
  EXPECT_TRUE(closed.Await(1, 1s));
  EXPECT_TRUE(AwaitTrue([] { return CountThreads("nira-stub-svc") == 0; }, 1s));
  nira_ipc_stub_stop(other);
}

TEST_F(TearDown, AProcessThatExitsWithoutStopOrFreeExitsCleanly) {
  for (const char* where : {"main", "handler", "callback", "open"}) {
    const pid_t child = fork();
    if (child == 0) {
      execl(NIRA_IPC_EXIT_CHILD, NIRA_IPC_EXIT_CHILD, std::to_string(port).c_str(), where, nullptr);
      _exit(99);
    }
    ExpectExit(child, 7, where);
  }
}

}  // namespace
