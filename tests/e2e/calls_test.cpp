// Calls, pushes and callbacks between a service and its apps, and how the machinery behaves underneath.
#include "fixture.h"
#include "log_capture.h"
#include "nira_ipc_message_wait_item.h"
#include "nira_ipc_proxy_intf.h"
#include "nira_ipc_stub_websocket.h"

namespace {

class Calls : public EndToEnd {};

TEST_F(Calls, ABlockingCallTakesNoPollingStep) {
  StartStub();
  void* proxy = Connected("app");
  std::vector<std::chrono::steady_clock::duration> times;
  for (int i = 0; i < 100; ++i) {
    const auto before = std::chrono::steady_clock::now();
    ASSERT_EQ(CallTwice(proxy, i), 2 * i);
    times.push_back(std::chrono::steady_clock::now() - before);
  }
  std::nth_element(times.begin(), times.begin() + 50, times.end());
  EXPECT_LT(times[50], 20ms) << "the median; a poll would cost 50 ms";
}

// Each round falls silent after a few calls and pushes at once, so that nothing that comes later wakes a caller whose
// reply another thread took.
TEST_F(Calls, NoneStallsWhenTheLineFallsSilent) {
  StartStub();
  void* proxy = Connected("app");
  Hear(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, [](const char*) {});
  const auto call = [&](int number) {
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(CallTwice(proxy, number), 2 * number);
    EXPECT_LT(std::chrono::steady_clock::now() - before, 5s);
  };
  for (int round = 0; round < 6000 && !HasFailure(); ++round) {
    std::vector<std::thread> others;
    for (int i = 0; i < round % 3; ++i) others.emplace_back(call, i);
    if (round % 2 == 0) nira_ipc_stub_send_message(stub, "app", "x");
    call(round);
    for (std::thread& other : others) other.join();
  }
}

TEST_F(Calls, TenThousandAsynchronousCallsAreAllAnsweredOnce) {
  StartStub();
  void* proxy = Connected("app");
  Progress answered;
  const auto note = [&](const char*) { answered.Add(); };
  for (int i = 0; i < 10000; ++i) CallAsync(proxy, "twice", note);
  EXPECT_TRUE(answered.Await(10000, 60s));
  CallAsync(NewProxy(), "refused", note);  // not connected: answered all the same
  EXPECT_TRUE(answered.Await(10001));
  EXPECT_EQ(CallTwice(proxy, 1), 2);
  EXPECT_EQ(answered.Count(), 10001);
}

TEST_F(Calls, CallsMadeInsideCallbacksCompleteWhileEveryWorkerIsInOne) {
  StartStub();
  void* proxy = Connected("app");
  Progress inside, done;
  Hear(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, [&](const char*) {
    inside.Add();
    EXPECT_TRUE(inside.Await(10)) << "all ten workers are here";
    EXPECT_EQ(CallTwice(proxy, 5), 10);
    done.Add();
  });
  for (int i = 0; i < 10; ++i) nira_ipc_stub_send_message(stub, "app", "call back");
  EXPECT_TRUE(done.Await(10));
}

TEST_F(Calls, SlotsChangeWhileMessagesArrive) {
  static std::atomic<int> torn{0}, late{0};
  static std::atomic<bool> gone{false};
  static int a = 0, b = 0;
  const nira_ipc_proxy_callback one = [](const char*, void* data) {
    torn += data != &a;
    late += gone.load();
  };
  const nira_ipc_proxy_callback two = [](const char*, void* data) { torn += data != &b; };
  StartStub();
  void* proxy = Connected("app");
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
  void* gone = Connected("gone");
  Progress cutOff, stray;
  CallAsync(gone, "hang", [&](const char*) { cutOff.Add(); });
  ASSERT_TRUE(hanging.Await(1));
  nira_ipc_proxy_disconnect(gone);
  ASSERT_TRUE(cutOff.Await(1));
  void* next = Connected("next");
  Hear(next, NIRA_IPC_PROXY_CALLBACK_MESSAGE, [&](const char*) { stray.Add(); });
  LogCapture log;
  release.Add();
  const char* refusal = "fail to send message... Reason : there is no such registered app id(gone)";
  ASSERT_TRUE(AwaitTrue([&] { return log.Has(refusal); }));
  EXPECT_EQ(CallTwice(next, 2), 4);
  EXPECT_FALSE(log.Has("Unknown message"));
  EXPECT_EQ(stray.Count(), 0);
}

TEST_F(Calls, TheWatchDisconnectsWhoHasNotRegisteredAndNobodyElse) {
  static Progress opened, closed, messages;
  static std::atomic<void*> handle;
  CNiraIpcStubWebsocket server;
  server.RegisterInternalCallback(
      NIRA_IPC_STUB_INTERNAL_CALLBACK_OPEN,
      [](std::string&&, void* connection, void*) {
        handle = connection;
        opened.Add();
      },
      nullptr);
  server.RegisterInternalCallback(
      NIRA_IPC_STUB_INTERNAL_CALLBACK_CLOSE, [](std::string&&, void*, void*) { closed.Add(); }, nullptr);
  server.Start(port);
  const std::unique_ptr<INiraIpcProxy> client(NiraIpcProxy::GetNiraIpcProxyImpl());
  client->RegisterInternalCallback(
      NIRA_IPC_PROXY_INTERNAL_CALLBACK_MESSAGE, [](const char*, Json::Value&, void*) { messages.Add(); }, nullptr);
  ASSERT_TRUE(client->SetConnect(port, "app"));
  ASSERT_TRUE(opened.Await(1));
  server.SendJson(handle, Json::Value(Json::objectValue));  // queued for one that has not registered
  EXPECT_TRUE(messages.Await(1));
  server.SetClientWaitRegisterFinish(handle);
  server.m_CheckClientRegister(handle, 0);
  server.SendJson(handle, Json::Value(Json::objectValue));
  EXPECT_TRUE(messages.Await(2));
  EXPECT_EQ(closed.Count(), 0);
  server.SetClientWaitRegister(handle);
  LogCapture log;
  server.m_RunIntervalThread(handle, 1);
  EXPECT_TRUE(closed.Await(1));
  EXPECT_EQ(log.Count("Client(*") + log.Count("disconnect the client(*"), 2);
  server.Stop();
}

TEST(AWaitTable, AnswersEachRequestOnceAndInTime) {
  MessageWaitItems items;
  const auto soon = MessageWaitItems::Clock::now() + 30ms;
  const auto late = soon + 1h;
  std::vector<int> completed;
  const auto note = [&completed](CNiraIpcMessage&& reply) { completed.push_back(reply.Value()["uniqueKey"].asInt()); };
  EXPECT_TRUE(items.CreateKey(5, late));
  EXPECT_FALSE(items.CreateKey(5, late)) << "a key in flight is never shared";
  EXPECT_FALSE(items.SetJsonResponse(6, Json::Value()));
  EXPECT_TRUE(items.CreateKey(9, soon, note) && items.CreateKey(8, late, note) && items.CreateKey(3, late, note));
  items.AnswerTimedOut(soon - 1ms);
  EXPECT_TRUE(completed.empty());
  items.AnswerTimedOut(*items.NextTimeout());
  EXPECT_EQ(completed, std::vector<int>{9});
  std::thread waiter([&] { EXPECT_TRUE(items.WaitForResponse(5)); });
  items.ArrangeAllWaitItem();
  waiter.join();
  EXPECT_EQ(items.GetJsonResponse(5)["message"], "Unexpected disconnection");
  EXPECT_EQ(completed, (std::vector<int>{9, 3, 8}));
  EXPECT_FALSE(items.SetJsonResponse(3, Json::Value()) || items.SetJsonResponse(5, Json::Value())) << "answered twice";
  EXPECT_FALSE(items.NextTimeout().has_value());
  EXPECT_TRUE(items.CreateKey(7, soon));
  EXPECT_FALSE(items.WaitForResponse(7));
  EXPECT_GE(MessageWaitItems::Clock::now(), soon);
}

}  // namespace
