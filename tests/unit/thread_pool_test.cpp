#include "ThreadPool.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <set>

#include "log_capture.h"

extern "C" void __tsan_init() __attribute__((weak));

// The calling thread's name, and what it does with three signals.
static std::string WhoAmI() {
  char name[16] = "";
  pthread_getname_np(pthread_self(), name, sizeof name);
  sigset_t mask;
  pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  std::string who = name;
  for (int signal : {SIGINT, SIGUSR1, SIGSEGV}) who += sigismember(&mask, signal) == 1 ? " blocked" : " taken";
  return who;
}

TEST(AThreadPool, RunsTasksInOrderAndSurvivesTheirExceptions) {
  std::string order;
  ThreadPool pool(1);
  pool.enqueue([&order](const std::string& text) { order += text; }, "first ");
  auto failed = pool.enqueue([&order] { order.at(99) = 'x'; });
  auto last = pool.enqueue([&order](std::thread) { return order + "last"; }, std::thread());
  EXPECT_THROW(failed.get(), std::out_of_range);
  EXPECT_EQ(last.get(), "first last");
}

TEST(AThreadPool, KeepsMoreTasksThanWorkersAndRunsThemAllBeforeItEnds) {
  const LogCapture log;
  std::promise<void> gate;
  const std::shared_future<void> opened = gate.get_future().share();
  std::promise<std::string> started[10];
  std::set<std::string> workers;
  std::atomic<int> ran{0};
  {
    ThreadPool pool(10, "nira-test-w");
    for (auto& worker : started) {
      pool.enqueue([&ran, &worker, opened] {
        worker.set_value(WhoAmI());
        opened.wait();
        ++ran;
      });
    }
    for (auto& worker : started) workers.insert(worker.get_future().get());
    for (int i = 0; i < 20; ++i) pool.enqueue([&ran] { ++ran; });
    EXPECT_EQ(ran, 0);
    gate.set_value();
  }
  EXPECT_EQ(ran, 30);
  EXPECT_NE(WhoAmI().find(" taken taken taken"), std::string::npos);  // the application's threads do take them
  EXPECT_EQ(std::to_string(workers.size()) + *workers.begin() + *workers.rbegin(),
            "10nira-test-w0 blocked blocked takennira-test-w9 blocked blocked taken");
  EXPECT_EQ(log.Count(4, "Creating Threadpool with 10 threads."), 1);
  EXPECT_EQ(log.Count(4, "0 threads are idle (of 10 threads), 1 remaining task(s)"), 1);
  EXPECT_EQ(log.Count(4, "0 threads are idle (of 10 threads), 20 remaining task(s)"), 1);
}

TEST(AThreadPool, TellsOneWorkerOnceWhenAWatchedDescriptorIsReady) {
  struct Reader : ThreadPool::Watcher {
    std::atomic<int> calls{0};
    std::atomic<bool> isWorker{false};
    ThreadPool* pool = nullptr;
    void OnReady(uint32_t) override { isWorker = pool->IsWorker(), ++calls; }
  };
  const auto reader = std::make_shared<Reader>();
  ThreadPool pool(10);
  reader->pool = &pool;
  pool.enqueue([] {}).wait();
  int sockets[2] = {};
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
  const uint64_t id = pool.Watch(sockets[0], reader, EPOLLIN);
  const auto await = [&](int calls) {
    for (int i = 0; i < 10000 && reader->calls < calls; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    for (int i = 0; i < 100; ++i) pool.enqueue([] {}).wait();  // whoever else was told has looked by now
    return reader->calls.load();
  };
  ASSERT_EQ(write(sockets[1], "x", 1), 1);
  EXPECT_EQ(await(1), 1);
  ASSERT_EQ(write(sockets[1], "x", 1), 1);
  EXPECT_EQ(await(1), 1) << "nobody has armed it again";
  pool.Arm(sockets[0], id, EPOLLIN);
  EXPECT_EQ(await(2), 2) << "it was ready before it was armed";
  pool.Arm(sockets[0], id, 0);
  EXPECT_EQ(await(2), 2);
  pool.Arm(sockets[0], id, EPOLLIN);
  EXPECT_EQ(await(3), 3);
  EXPECT_TRUE(reader->isWorker);
  pool.Unwatch(sockets[0], id);
  close(sockets[1]);
  EXPECT_EQ(await(3), 3);
  close(sockets[0]);
}

// A task that stops its pool, as one that calls exit() does, and goes on after the pool is gone.
TEST(AThreadPool, MayBeStoppedAndOutlivedByATask) {
  const LogCapture log;
  std::promise<void> stopped, destroyed;
  {
    ThreadPool pool(2);
    // The captures are the last that goes of the task, on its worker; what follows is the worker's own book-keeping.
    std::shared_ptr<void> end(nullptr, [&](void*) { stopped.set_value(), destroyed.get_future().wait(); });
    pool.enqueue([&pool, end = std::move(end)] { pool.Stop(); });
    ASSERT_EQ(stopped.get_future().wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_THROW(pool.enqueue([] {}), std::runtime_error);
  }
  destroyed.set_value();
  const auto isDone = [&log] { return log.Has("[0] Task done. (*") || log.Has("[1] Task done. (*"); };
  for (int i = 0; i < 10000 && !isDone(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  EXPECT_TRUE(isDone());
}

TEST(AThreadPool, GivesAForkedChildWorkersOfItsOwn) {
  if (__tsan_init != nullptr) GTEST_SKIP() << "the thread sanitizer refuses threads in a forked child";
  ThreadPool pool(2);
  auto abandoned = std::make_unique<ThreadPool>(2);
  for (ThreadPool* each : {&pool, abandoned.get()}) {  // of each of which both workers run
    std::promise<void> first, second;
    each->enqueue([&] { first.set_value(), second.get_future().wait(); });
    auto both = each->enqueue([&] { first.get_future().wait(), second.set_value(); });
    ASSERT_EQ(both.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  }
  const auto child = [&] {
    alarm(20);
    abandoned.reset();
    pool.StartWorkers();
    auto result = pool.enqueue([] { return 7; });
    pool.Stop();
    _exit(result.get());
  };
  EXPECT_EXIT(child(), testing::ExitedWithCode(7), "");
}
