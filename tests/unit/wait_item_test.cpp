#include "nira_ipc_message_wait_item.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

// A leader answers another thread's request, and a third then leads in its place. In some rounds the others are asleep
// when that happens, in some they come later: it makes no difference.
TEST(TheLead, HasOneThreadAndGoesToOneThatStillWaits) {
  enum { kFirst, kNext, kAnswered };
  for (int round = 0; round < 500 && !HasFailure(); ++round) {
    MessageWaitItems items;
    std::atomic<int> coming{0};
    std::atomic<bool> leads{true};
    bool nextLeads = false, answeredLeads = true;
    for (int key : {kFirst, kNext, kAnswered})
      EXPECT_TRUE(items.CreateKey(key, MessageWaitItems::Clock::now() + std::chrono::seconds(10)));
    EXPECT_TRUE(items.TryLead(kFirst) && !items.TryLead(kNext));
    std::thread next([&] {
      ++coming;
      EXPECT_FALSE(items.WaitForResponse(kNext, &nextLeads));
      EXPECT_TRUE(nextLeads && !leads) << "round " << round;
      EXPECT_FALSE(items.EndLead(kNext)) << "nobody else waits";
    });
    std::thread answered([&] {
      ++coming;
      EXPECT_TRUE(items.WaitForResponse(kAnswered, &answeredLeads) && !answeredLeads) << "round " << round;
    });
    for (int i = 0; coming < 2 || i < round % 50; ++i) std::this_thread::yield();
    EXPECT_TRUE(items.SetJsonResponse(kAnswered, {}));
    leads = false;
    items.EndLead(kFirst);
    next.join();
    answered.join();
    EXPECT_TRUE(!items.WaitForResponse(kFirst, &nextLeads) && nextLeads) << "nobody leads";
  }
}
