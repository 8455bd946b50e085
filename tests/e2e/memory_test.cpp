// Threads that run short of memory, at each of their allocations in turn: what they were doing is lost, nothing else.
#include <new>

#include "failing_new.h"
#include "fixture.h"

namespace {

class WantOfMemory : public EndToEnd {
 protected:
  // Makes the attempt until it needs no more allocations than are granted, one more each time. `look` is told whether
  // std::bad_alloc left it.
  static void FailEach(const std::function<void()>& attempt, const std::function<void(bool threw)>& look) {
    bool isFed = false;
    for (int granted = 0; !isFed && !HasFailure(); ++granted) {
      SCOPED_TRACE(granted);
      const auto before = std::chrono::steady_clock::now();
      bool threw = false;
      FailAllocation(granted + 1);
      try {
        attempt();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      isFed = FailAllocation(0) > 0;
      EXPECT_FALSE(isFed && threw);
      EXPECT_FALSE(isFed && granted == 0) << "nothing can have failed";
      look(threw);
      EXPECT_LT(std::chrono::steady_clock::now() - before, 5s) << "it hung";
    }
  }

  // The connection may be what was lost.
  void ExpectUsable(void* proxy) {
    if (CallTwice(proxy, 4) == 8) return;
    nira_ipc_proxy_disconnect(proxy);
    EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 1);
    EXPECT_EQ(CallTwice(proxy, 4), 8);
  }
};

TEST_F(WantOfMemory, CostsACallOrAMessageAtMostItself) {
  StartStub();
  void* proxy = Connected("app");
  Progress completed, heard;
  Hear(proxy, NIRA_IPC_PROXY_CALLBACK_MESSAGE, [&](const char*) { heard.Add(); });
  const nira_ipc_proxy_callback complete = [](const char*, void* count) { static_cast<Progress*>(count)->Add(); };
  void* func = nira_ipc_func_new("twice");
  void* result = nullptr;
  FailEach([&] { result = nira_ipc_proxy_call_function(proxy, func); },
           [&](bool) {
             nira_ipc_func_result_free(std::exchange(result, nullptr));
             ExpectUsable(proxy);
           });
  int expected = 0;
  FailEach([&] { nira_ipc_proxy_call_function_async(proxy, func, complete, &completed); },
           [&](bool threw) {
             expected += threw ? 0 : 1;
             EXPECT_TRUE(completed.Await(expected));
             ExpectUsable(proxy);
           });
  FailEach([&] { nira_ipc_stub_send_message(stub, "app", "text"); }, [&](bool) { ExpectUsable(proxy); });
  nira_ipc_stub_send_message(stub, "app", "last");
  EXPECT_TRUE(heard.Await(2)) << "the one that could be sent, and the last";
  nira_ipc_proxy_disconnect(proxy);  // which answers whatever was forgotten
  EXPECT_EQ(completed.Count(), expected);
  nira_ipc_func_free(func);
}

TEST_F(WantOfMemory, LeavesNothingOfAFailedStartOrConnectBehind) {
  FailEach([&] { stub = nira_ipc_stub_start(port); },
           [&](bool threw) {
             EXPECT_FALSE(threw);
             StopStub();
             EXPECT_TRUE(AwaitTrue([] { return LibraryThreads().size() % 10 == 0; })) << "all ten workers or none";
           });
  StartStub();
  void* proxy = NewProxy();
  int connected = 0;
  FailEach([&] { connected = nira_ipc_proxy_connect(proxy, port, "app"); },
           [&](bool threw) {
             EXPECT_FALSE(threw);
             EXPECT_TRUE(AwaitTrue([&] { return CountThreads("nira-prox-svc") == connected; }));
             if (connected == 0) connected = nira_ipc_proxy_connect(proxy, port, "app");
             EXPECT_EQ(connected, 1);
             EXPECT_EQ(CallTwice(proxy, 4), 8);
             nira_ipc_proxy_disconnect(proxy);
           });
}

}  // namespace
