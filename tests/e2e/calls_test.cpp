// Calls, pushes and callbacks between a service and its apps, and how the machinery behaves underneath.
#include <algorithm>
#include <atomic>
#include <set>

#include "fixture.h"
#include "log_capture.h"
#include "nira_ipc_message_wait_item.h"
#include "nira_ipc_proxy_intf.h"
#include "nira_ipc_stub_websocket.h"

namespace {

class Calls : public EndToEnd {};

void CountCallback(const char*, void* seen) {
  static_cast<Progress*>(seen)->Add();
}

TEST_F(Calls, ABlockingCallTakesNoPollingStep) {
  StartStub();
  const auto start = std::chrono::steady_clock::now();
  void* proxy = Connected("app");
  EXPECT_LT(std::chrono::steady_clock::now() - start, 250ms);
  std::vector<std::chrono::steady_clock::duration> times;
  for (int i = 0; i < 100; ++i) {
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(CallTwice(proxy, i), 2 * i);
    times.push_back(std::chrono::steady_clock::now() - before);
  }
  std::nth_element(times.begin(), times.begin() + 50, times.end());
  EXPECT_LT(times[50], 20ms) << "the median; a poll would cost 50 ms";
}

TEST_F(Calls, TenThousandAsynchronousCallsAreAllAnsweredOnce) {
  StartStub();
  void* proxy = Connected("app");
  Progress answered;
  for (int i = 0; i < 10000; ++i) CallAsync(proxy, "twice", CountCallback, &answered);
  EXPECT_TRUE(answered.Await(10000, 60s));
  EXPECT_EQ(CallTwice(proxy, 1), 2);
  EXPECT_EQ(answered.Count(), 10000);
  CallAsync(NewProxy(), "refused", CountCallback, &answered);  // not connected: answered all the same
  EXPECT_TRUE(answered.Await(10001));
  CallAsync(proxy, "twice", nullptr, nullptr);
  EXPECT_EQ(CallTwice(proxy, 1), 2);
}

TEST_F(Calls, CallsMadeInsideCallbacksCompleteWhileEveryWorkerIsInOne) {
  StartStub();
  struct Context {
    void* proxy;
    Progress inside, done;
    std::atomic<int> wrong{0};
  } context = {Connected("app"), {}, {}, {}};
  nira_ipc_proxy_register_callback(
      context.proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE,
      [](const char*, void* data) {
        auto* here = static_cast<Context*>(data);
        here->inside.Add();
        here->wrong += here->inside.Await(10) ? 0 : 1;  // all ten workers are here
        here->wrong += CallTwice(here->proxy, 5) == 10 ? 0 : 1;
        here->done.Add();
      },
      &context);
  for (int i = 0; i < 10; ++i) nira_ipc_stub_send_message(stub, "app", "call back");
  EXPECT_TRUE(context.done.Await(10));
  EXPECT_EQ(context.wrong, 0);
}

TEST_F(Calls, TwoThreadsCallOnOneProxyAndGetTheirOwnAnswers) {
  StartStub();
  void* proxies[] = {Connected("one"), Connected("two")};
  std::vector<std::thread> callers;
  std::atomic<int> wrong{0};
  for (int t = 0; t < 8; ++t) {
    callers.emplace_back([&, t] {
      for (int i = 0; i < 200; ++i) wrong += CallTwice(proxies[t % 2], t * 1000 + i) == 2 * (t * 1000 + i) ? 0 : 1;
    });
  }
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(wrong, 0);
}

TEST_F(Calls, AHandlerThatThrowsLosesItsRequestAlone) {
  StartStub();
  void* proxy = Connected("app");
  LogCapture log;
  Progress answered;
  CallAsync(proxy, "throw", CountCallback, &answered);
  EXPECT_EQ(CallTwice(proxy, 1), 2);
  EXPECT_TRUE(AwaitTrue([&] { return log.Count(6, "request ended with an exception") == 1; }));
  nira_ipc_proxy_disconnect(proxy);
  EXPECT_TRUE(answered.Await(1));
}

TEST_F(Calls, TextsOfOneSenderArriveInTheOrderSent) {
  StartStub();
  void* proxy = Connected("app");
  LogCapture log;  // the service thread's view: callbacks may overtake each other
  for (int i = 0; i < 300; ++i) nira_ipc_stub_send_message(stub, "app", std::to_string(i).c_str());
  EXPECT_EQ(CallTwice(proxy, 1), 2);
  std::vector<int> order;
  for (const LogLine& line : log.Lines()) {
    const size_t at = line.text.find("{\"message\":\"");
    if (line.message.rfind("message received: ", 0) == 0 && at != std::string::npos) {
      order.push_back(std::atoi(line.text.c_str() + at + 12));
    }
  }
  EXPECT_EQ(order.size(), 300u);
  EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(Calls, SlotsChangeWhileMessagesArrive) {
  StartStub();
  void* proxy = Connected("app");
  static std::atomic<int> torn{0}, late{0};
  static std::atomic<bool> gone{false};
  static int a = 0;
  static int b = 0;
  const auto one = [](const char*, void* data) {
    torn += data != &a;
    late += gone.load();
  };
  const nira_ipc_proxy_callback two = [](const char*, void* data) { torn += data != &b; };
  std::atomic<bool> end{false};
  std::thread sender([&] {
    while (!end) {
      for (int i = 0; i < 20; ++i) nira_ipc_stub_send_message(stub, "app", "x");
      CallTwice(proxy, 1);
    }
  });
  for (int i = 0; i < 3000; ++i) {
    gone = false;
    nira_ipc_proxy_register_callback(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, one, &a);
    if (i % 8 == 0) std::this_thread::yield();
    nira_ipc_proxy_register_callback(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, i % 2 == 0 ? two : nullptr, &b);
    gone = true;
  }
  end = true;
  sender.join();
  EXPECT_EQ(torn, 0);
  EXPECT_EQ(late, 0) << "calls began after their callback was replaced";
}

TEST_F(Calls, AReplyToAVanishedClientReachesNobodyElse) {
  StartStub();
  void* gone = NewProxy();
  ASSERT_EQ(nira_ipc_proxy_connect(gone, port, "gone"), 1);
  Progress cutOff, stray;
  CallAsync(gone, "hang", CountCallback, &cutOff);
  ASSERT_TRUE(hanging.Await(1));
  nira_ipc_proxy_disconnect(gone);
  ASSERT_TRUE(cutOff.Await(1));
  void* next = NewProxy();
  nira_ipc_proxy_register_callback(next, NIRA_IPC_PROXY_CALLBACK_MESSAGE, CountCallback, &stray);
  ASSERT_EQ(nira_ipc_proxy_connect(next, port, "next"), 1);
  LogCapture log;
  release.Add();
  ASSERT_TRUE(
      AwaitTrue([&] { return log.Has("fail to send message... Reason : there is no such registered app id(gone)"); }));
  EXPECT_EQ(CallTwice(next, 2), 4);
  EXPECT_EQ(log.Count("Unknown message"), 0);
  EXPECT_EQ(stray.Count(), 0);
}

TEST_F(Calls, TheWatchDisconnectsWhoHasNotRegisteredAndNobodyElse) {
  struct Seen {
    Progress opened, closed;
    std::atomic<void*> handle{nullptr};
  } seen;
  const std::unique_ptr<INiraIpcStub> server(NiraIpcStub::GetNiraIpcStubImpl());
  server->RegisterInternalCallback(
      NIRA_IPC_STUB_INTERNAL_CALLBACK_OPEN,
      [](const char*, void* handle, void* data) {
        static_cast<Seen*>(data)->handle = handle;
        static_cast<Seen*>(data)->opened.Add();
      },
      &seen);
  server->RegisterInternalCallback(
      NIRA_IPC_STUB_INTERNAL_CALLBACK_CLOSE,
      [](const char*, void*, void* data) { static_cast<Seen*>(data)->closed.Add(); }, &seen);
  server->Start(port);
  const std::unique_ptr<INiraIpcProxy> client(NiraIpcProxy::GetNiraIpcProxyImpl());
  Progress messages;
  client->RegisterInternalCallback(
      NIRA_IPC_PROXY_INTERNAL_CALLBACK_MESSAGE, [](const char*, void* data) { static_cast<Progress*>(data)->Add(); },
      &messages);
  ASSERT_TRUE(client->SetConnect(port, "app"));
  ASSERT_TRUE(seen.opened.Await(1));
  auto* watch = dynamic_cast<CNiraIpcStubWebsocket*>(server.get());
  ASSERT_NE(watch, nullptr);
  server->SendJson(seen.handle, Json::Value("queued for one that has not registered"));
  EXPECT_TRUE(messages.Await(1));
  server->SetClientWaitRegisterFinish(seen.handle);
  watch->m_CheckClientRegister(seen.handle, 0);
  server->SendJson(seen.handle, Json::Value("still there"));
  EXPECT_TRUE(messages.Await(2));
  EXPECT_EQ(seen.closed.Count(), 0);
  server->SetClientWaitRegister(seen.handle);
  LogCapture log;
  watch->m_RunIntervalThread(seen.handle, 1);
  EXPECT_TRUE(seen.closed.Await(1));
  EXPECT_EQ(log.Count("Client(*"), 1);
  EXPECT_EQ(log.Count("disconnect the client(*"), 1);
  server->Stop();
}

TEST(AWaitTable, AnswersEachRequestOnceAndInTime) {
  MessageWaitItems items;
  const auto soon = MessageWaitItems::Clock::now() + 60ms;
  const auto late = soon + 1h;
  EXPECT_TRUE(items.CreateKey(5, late));
  EXPECT_FALSE(items.CreateKey(5, late)) << "a key in flight is never shared";
  EXPECT_FALSE(items.SetJsonResponse(6, Json::Value(1)));
  std::vector<int> completed;
  const auto note = [&completed](Json::Value&& reply) { completed.push_back(reply["uniqueKey"].asInt()); };
  EXPECT_TRUE(items.CreateKey(9, soon, note));
  EXPECT_TRUE(items.CreateKey(3, late, note));
  EXPECT_EQ(items.NextTimeout(), soon);
  items.AnswerTimedOut(soon - 1ms);
  EXPECT_TRUE(completed.empty());
  items.AnswerTimedOut(soon);
  EXPECT_EQ(completed, std::vector<int>{9});
  EXPECT_TRUE(items.CreateKey(8, late, note));
  LogCapture log;
  std::thread waiter([&] {
    EXPECT_TRUE(items.WaitForResponse(5));
    EXPECT_EQ(items.GetJsonResponse(5)["message"], "Unexpected disconnection");
    items.RemoveKey(5);
  });
  items.ArrangeAllWaitItem();
  waiter.join();
  EXPECT_EQ(completed, (std::vector<int>{9, 3, 8}));
  EXPECT_EQ(log.Count(6, "ARRANGE Remained WAIT ITEM, key(*"), 3);
  EXPECT_FALSE(items.SetJsonResponse(3, Json::Value(1))) << "answered twice";
  EXPECT_FALSE(items.IsKeyCreated(5));
  EXPECT_FALSE(items.NextTimeout().has_value());
  EXPECT_TRUE(items.CreateKey(7, MessageWaitItems::Clock::now() + 30ms));
  EXPECT_FALSE(items.WaitForResponse(7));
  EXPECT_GE(MessageWaitItems::Clock::now(), soon - 30ms);
}

}  // namespace
