#include "ThreadPool.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include "log_capture.h"

extern "C" void __tsan_init() __attribute__((weak));

// False when the condition has not come true within ten seconds.
template <class Condition>
static bool Await(Condition condition) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition() && std::chrono::steady_clock::now() < end) std::this_thread::yield();
  return condition();
}

TEST(AThreadPool, SpreadsTasksThatBlockOverAllWorkersAndRunsAllBeforeItEnds) {
  const LogCapture log;
  std::mutex gate;
  std::atomic<int> started{0};
  int ran = 0;
  {
    ThreadPool pool(10);
    const std::lock_guard<std::mutex> closed(gate);
    for (int i = 0; i < 30; ++i) {
      pool.enqueue([&] {
        ++started;
        const std::lock_guard<std::mutex> opened(gate);
        ++ran;
      });
      EXPECT_TRUE(i != 9 || Await([&] { return started == 10; })) << started;
    }
  }
  EXPECT_EQ(ran, 30);
  EXPECT_EQ(log.Count("Creating Threadpool with 10 threads.", 4), 1);
  EXPECT_EQ(log.Count("0 threads are idle (of 10 threads), 20 remaining task(s)", 4), 1);
}

TEST(AThreadPool, RunsTasksInOrderUntilOneStopsAndOutlivesIt) {
  const LogCapture log;
  std::string order;
  std::promise<void> stopped, destroyed;
  auto pool = std::make_unique<ThreadPool>(1);
  pool->enqueue([&order](const std::string& text) { order += text; }, "first ");
  auto failed = pool->enqueue([&order] { order.at(99) = 'x'; });
  auto last = pool->enqueue([&order](std::thread) { return order + "last"; }, std::thread());
  EXPECT_THROW(failed.get(), std::out_of_range);
  EXPECT_EQ(last.get(), "first last");
  pool->Post([&] { pool->Stop(), stopped.set_value(), destroyed.get_future().wait(); });  // as one that calls exit()
  stopped.get_future().wait();
  EXPECT_THROW(pool->enqueue([] {}), std::runtime_error);
  pool.reset();
  destroyed.set_value();
  EXPECT_TRUE(Await([&log] { return log.Count("[0] Task done. (*") == 4; }));  // the worker's own book-keeping
}

TEST(AThreadPool, GivesAForkedChildWorkersOfItsOwn) {
  if (__tsan_init != nullptr) GTEST_SKIP() << "the thread sanitizer refuses threads in a forked child";
  const LogCapture log;
  std::promise<void> first, second;
  auto pool = std::make_unique<ThreadPool>(2), abandoned = std::make_unique<ThreadPool>(1);
  pool->Post([&] { first.set_value(), second.get_future().wait(); });
  pool->Post([&] { second.set_value(), first.get_future().wait(); });
  abandoned->enqueue([] {}).get();
  // Both workers of the one have met. The last that each does before it sleeps is to log.
  ASSERT_TRUE(Await([&] { return log.Count("[0] Task done. (*") + log.Count("[1] Task done. (*") == 3; }));
  const auto child = [&] {
    alarm(20);
    abandoned.reset();
    pool->StartWorkers();
    auto result = pool->enqueue([] { return 7; });
    pool->Stop();
    _exit(result.get());
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(7), "");
}

// Reads one byte each time that its end of a connection is reported, and counts.
struct Reader : ThreadPool::Watcher {
  explicit Reader(ThreadPool& aPool) : pool(aPool) { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0); }
  ~Reader() override { close(ends[0]), close(ends[1]); }
  void OnReady(uint32_t events) override {
    char byte = 0;
    if (pool.IsWorker() && events == EPOLLIN && recv(ends[0], &byte, 1, MSG_DONTWAIT) == 1) ++count;
  }
  void Send() const { EXPECT_EQ(write(ends[1], "x", 1), 1); }

  ThreadPool& pool;
  int ends[2] = {-1, -1};
  std::atomic<int> count{0};
};

TEST(AThreadPool, ReportsADescriptorOncePerArming) {
  ThreadPool pool(1);
  pool.StartWorkers();
  const auto reader = std::make_shared<Reader>(pool), last = std::make_shared<Reader>(pool);
  const uint64_t id = pool.Watch(reader->ends[0], reader, EPOLLIN), lastId = pool.Watch(last->ends[0], last, EPOLLIN);
  // What is ready is reported in turn: once this one has been, nothing is left that was ready before it.
  const auto settle = [&] {
    const int before = last->count;
    last->Send();
    EXPECT_TRUE(Await([&] { return last->count > before; }));
    pool.Arm(last->ends[0], lastId, EPOLLIN);
  };
  settle();
  EXPECT_EQ(reader->count, 0);
  reader->Send();
  for (int reported = 1; reported <= 3; ++reported) {
    EXPECT_TRUE(Await([&] { return reader->count == reported; }));
    if (reported < 3) reader->Send();
    settle();
    EXPECT_EQ(reader->count, reported);
    pool.Arm(reader->ends[0], id, EPOLLIN);  // what came meanwhile is reported at once
  }
  pool.Unwatch(reader->ends[0], id);
  reader->Send();
  settle();
  EXPECT_TRUE(reader->count == 3 && reader.use_count() == 1) << "the pool has let go of it";
  EXPECT_TRUE(pool.Watch(-1, reader, EPOLLIN) == 0 && reader.use_count() == 1);
  pool.Unwatch(last->ends[0], lastId);
}
