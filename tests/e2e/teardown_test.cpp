// The end of things: stop, disconnect, free, close and exit, from everywhere and in the middle of everything.
#include <signal.h>
#include <sys/wait.h>

#include <atomic>

#include "fixture.h"

namespace {

constexpr const char* kDisconnection = "Unexpected disconnection";

// The outcomes of asynchronous calls.
struct Outcomes {
  Progress answered, cutOff, refused;
  static void Note(const char* reply, void* self) {
    auto* outcomes = static_cast<Outcomes*>(self);
    const std::string text = reply;
    (text.empty()                                     ? outcomes->refused
     : text.find(kDisconnection) != std::string::npos ? outcomes->cutOff
                                                      : outcomes->answered)
        .Add();
  }
  int All() const { return answered.Count() + cutOff.Count() + refused.Count(); }
};

class TearDown : public EndToEnd {};

TEST_F(TearDown, StopWaitsForHandlersAndNoneRunsAfterwards) {
  StartStub();
  void* proxy = Connected("app");
  Outcomes outcomes;
  for (int i = 0; i < 200; ++i) CallAsync(proxy, i < 3 ? "hang" : "twice", Outcomes::Note, &outcomes);
  ASSERT_TRUE(hanging.Await(3));
  std::thread releaser([this] {
    std::this_thread::sleep_for(50ms);
    release.Add();
  });
  nira_ipc_stub_stop(std::exchange(stub, nullptr));
  const int handledAtStop = handled.Count();
  EXPECT_GE(release.Count(), 1) << "stop returned while handlers ran";
  releaser.join();
  EXPECT_TRUE(AwaitTrue([&] { return outcomes.All() == 200; }));
  EXPECT_EQ(handled.Count(), handledAtStop);
}

TEST_F(TearDown, FreeAnswersEveryCallOnceAndNoCallbackRunsAfterwards) {
  StartStub();
  void* proxy = Connected("app");
  Outcomes outcomes;
  Progress messages;
  nira_ipc_proxy_register_callback(
      proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE,
      [](const char*, void* seen) {
        std::this_thread::sleep_for(1ms);
        static_cast<Progress*>(seen)->Add();
      },
      &messages);
  std::vector<std::thread> callers;
  std::atomic<int> failed{0};
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([&] {
      void* func = nira_ipc_func_new("hang");
      void* result = nira_ipc_proxy_call_function(proxy, func);
      failed += nira_ipc_func_result_get_result(result) ? 0 : 1;
      nira_ipc_func_result_free(result);
      nira_ipc_func_free(func);
    });
  }
  ASSERT_TRUE(hanging.Await(3));
  for (int i = 0; i < 500; ++i) CallAsync(proxy, "hang", Outcomes::Note, &outcomes);
  for (int i = 0; i < 500; ++i) nira_ipc_stub_send_message(stub, "app", "push");
  ASSERT_TRUE(messages.Await(1));
  nira_ipc_proxy_free(Take(proxy));
  const int messagesAtFree = messages.Count();
  EXPECT_EQ(outcomes.All(), 500);
  EXPECT_EQ(outcomes.cutOff.Count(), 500);
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(failed, 3);
  release.Add(1000);
  EXPECT_EQ(CallTwice(Connected("other"), 4), 8);  // the pool has been through what was queued
  EXPECT_EQ(messages.Count(), messagesAtFree);
  EXPECT_EQ(outcomes.All(), 500);
}

// Inside one's own callback: of which kind, and what is called there.
enum class Where { kMessage, kAsync, kClose };
struct Inside {
  Where where;
  void (*end)(void*);
};

class InsideOwnCallback : public EndToEnd, public testing::WithParamInterface<Inside> {};

TEST_P(InsideOwnCallback, AProxyCanBeEnded) {
  StartStub();
  struct Context {
    void* proxy;
    void (*end)(void*);
    Outcomes outcomes;
    Progress done;
  } context = {Connected("app"), GetParam().end, {}, {}};
  const auto callback = [](const char* text, void* data) {
    auto* here = static_cast<Context*>(data);
    here->end(here->proxy);
    EXPECT_NE(text, nullptr);
    here->done.Add();
  };
  if (GetParam().end == nira_ipc_proxy_free) Take(context.proxy);
  for (int i = 0; i < 50; ++i) CallAsync(context.proxy, "hang", Outcomes::Note, &context.outcomes);
  ASSERT_TRUE(hanging.Await(10));
  if (GetParam().where == Where::kMessage) {
    nira_ipc_proxy_register_callback(context.proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, callback, &context);
    nira_ipc_stub_send_message(stub, "app", "end it");
  } else if (GetParam().where == Where::kClose) {
    nira_ipc_proxy_register_callback(context.proxy, NIRA_IPC_PROXY_CALLBACK_CLOSE, callback, &context);
    release.Add();
    nira_ipc_stub_stop(std::exchange(stub, nullptr));
  } else {
    release.Add();
    CallAsync(context.proxy, "twice", callback, &context);
  }
  EXPECT_TRUE(context.done.Await(1));
  EXPECT_TRUE(AwaitTrue([&] { return context.outcomes.All() == 50; }));
  EXPECT_TRUE(AwaitTrue([] { return CountThreads("nira-prox-svc") == 0; }));
  release.Add();
}

INSTANTIATE_TEST_SUITE_P(
    Ways, InsideOwnCallback,
    testing::Values(Inside{Where::kMessage, nira_ipc_proxy_disconnect}, Inside{Where::kMessage, nira_ipc_proxy_free},
                    Inside{Where::kAsync, nira_ipc_proxy_disconnect}, Inside{Where::kAsync, nira_ipc_proxy_free},
                    Inside{Where::kClose, nira_ipc_proxy_disconnect}, Inside{Where::kClose, nira_ipc_proxy_free}));

TEST_F(TearDown, AStubCanBeStoppedInsideItsHandlerAndInsideItsOpenCallback) {
  StartStub();
  void* proxy = Connected("app");
  static Progress stopped;
  nira_ipc_stub_register_method_handler(
      stub,
      [](void*, const char*, void*, void* self) {
        nira_ipc_stub_stop(self);
        stopped.Add();
      },
      stub);
  EXPECT_EQ(CallTwice(proxy, 1), -1);
  EXPECT_TRUE(stopped.Await(1));
  nira_ipc_proxy_disconnect(proxy);

  StartStub();  // on the same port
  Progress closed;
  nira_ipc_stub_register_callback(
      stub, NIRA_IPC_STUB_CALLBACK_CLOSE,
      [](const char*, const char*, void* seen) { static_cast<Progress*>(seen)->Add(); }, &closed);
  nira_ipc_stub_register_callback(
      stub, NIRA_IPC_STUB_CALLBACK_OPEN,
      [](const char*, const char*, void* self) {
        nira_ipc_stub_stop(self);
        stopped.Add();
      },
      stub);
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
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 1);
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 0) << "it is connected";
  EXPECT_EQ(CallTwice(proxy, 21), 42);
  nira_ipc_stub_stop(std::exchange(stub, nullptr));
  EXPECT_TRUE(AwaitTrue([&] { return CallTwice(proxy, 1) == -1; }));
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 0) << "it was not disconnected";
  nira_ipc_proxy_disconnect(proxy);
  StartStub();
  EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 1);
}

TEST_F(TearDown, ConnectingAndFreeingUnderLoadFromManyThreads) {
  StartStub();
  std::vector<std::thread> apps;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 6; ++t) {
    apps.emplace_back([this, t, &wrong] {
      const std::string id = "app" + std::to_string(t % 3);  // two threads share each id
      for (int i = 0; i < 15; ++i) {
        Outcomes outcomes;
        void* proxy = nira_ipc_proxy_new();
        if (nira_ipc_proxy_connect(proxy, port, id.c_str()) == 1) {
          for (int c = 0; c < 20; ++c) CallAsync(proxy, "twice", Outcomes::Note, &outcomes);
          nira_ipc_stub_send_message(stub, id.c_str(), "push");
          if (i % 2 == 0) nira_ipc_proxy_disconnect(proxy);
          nira_ipc_proxy_free(proxy);
          wrong += outcomes.All() == 20 ? 0 : 1;
        } else {
          nira_ipc_proxy_free(proxy);
        }
      }
    });
  }
  for (std::thread& app : apps) app.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(TearDown, ASecondServiceOnThePortSleepsUntilStopped) {
  StartStub();
  void* second = nira_ipc_stub_start(port);
  ASSERT_NE(second, nullptr);
  void* invalid = nira_ipc_stub_start(-1);
  ASSERT_NE(invalid, nullptr);
  EXPECT_EQ(CallTwice(Connected("app"), 3), 6);
  const auto start = std::chrono::steady_clock::now();
  nira_ipc_stub_stop(second);
  nira_ipc_stub_stop(invalid);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
}

TEST_F(TearDown, SigintEndsEveryStubAtOnce) {
  StartStub();
  void* other = nira_ipc_stub_start(FreePort());
  void* proxy = Connected("app");
  Progress closed;
  nira_ipc_proxy_register_callback(
      proxy, NIRA_IPC_PROXY_CALLBACK_CLOSE, [](const char*, void* seen) { static_cast<Progress*>(seen)->Add(); },
      &closed);
  raise(SIGINT);
  EXPECT_TRUE(closed.Await(1, 1s));
  EXPECT_TRUE(AwaitTrue([] { return CountThreads("nira-stub-svc") == 0; }, 1s));
  nira_ipc_stub_stop(other);
}

// A process of its own that exits in the middle of things.
TEST_F(TearDown, AProcessThatExitsWithoutStopOrFreeExitsCleanly) {
  for (const char* where : {"main", "handler", "callback", "open"}) {
    const pid_t child = fork();
    if (child == 0) {
      execl(NIRA_IPC_EXIT_CHILD, NIRA_IPC_EXIT_CHILD, std::to_string(port).c_str(), where, nullptr);
      _exit(99);
    }
    int status = 0;
    EXPECT_TRUE(AwaitTrue([&] { return waitpid(child, &status, WNOHANG) == child; }, 20s)) << where;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << where << ": " << status;
  }
}

}  // namespace
