// The library is a guest in the application's process: what it leaves as it was, and what it costs.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <map>

#include "fixture.h"

namespace {

class Guest : public EndToEnd {};

// A number from each library thread's status file.
std::map<std::string, std::string> StatusOfThreads(const std::string& field) {
  std::map<std::string, std::string> values;
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream file(task.path() / "status");
    std::string line;
    std::string name;
    while (std::getline(file, line)) {
      if (line.rfind("Name:", 0) == 0) name = line.substr(6);
      if (line.rfind(field + ":", 0) == 0 && (name.rfind("nira-stub", 0) == 0 || name.rfind("nira-prox", 0) == 0)) {
        values[task.path().filename().string() + " " + name] += line;
      }
    }
  }
  return values;
}

TEST_F(Guest, SignalsAreLeftToTheApplication) {
  struct sigaction before = {};
  sigset_t maskBefore;
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGPIPE, &action, nullptr);
  sigaction(SIGPIPE, nullptr, &before);
  pthread_sigmask(SIG_SETMASK, nullptr, &maskBefore);
  StartStub();
  EXPECT_EQ(CallTwice(Connected("app"), 1), 2);
  struct sigaction after = {};
  sigset_t maskAfter;
  sigaction(SIGPIPE, nullptr, &after);
  pthread_sigmask(SIG_SETMASK, nullptr, &maskAfter);
  EXPECT_EQ(after.sa_handler, before.sa_handler);
  for (int signal = 1; signal < SIGRTMAX; ++signal) {
    EXPECT_EQ(sigismember(&maskAfter, signal), sigismember(&maskBefore, signal)) << signal;
  }
  const auto blocked = StatusOfThreads("SigBlk");
  EXPECT_EQ(blocked.size(), 22u) << "ten workers and a service thread each side";
  for (const auto& [thread, line] : blocked) {
    const unsigned long long mask = std::stoull(line.substr(8), nullptr, 16);
    for (int signal : {SIGINT, SIGTERM, SIGUSR1, SIGALRM, SIGCHLD}) EXPECT_TRUE(mask >> (signal - 1) & 1) << thread;
    EXPECT_FALSE(mask >> (SIGSEGV - 1) & 1) << thread;
  }
}

TEST_F(Guest, DescriptorsCloseOnExecAndGoWithTheirOwners) {
  const auto descriptors = [] {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      const int fd = std::stoi(entry.path().filename().string());
      const int flags = fcntl(fd, F_GETFD);
      if (flags < 0 || fd < 3) continue;  // the directory's own
      char target[256] = {};
      if (readlink(entry.path().c_str(), target, sizeof target - 1) < 0) continue;
      const std::string name = target;
      if (name.rfind("socket", 0) != 0 && name.rfind("anon_inode", 0) != 0) continue;
      EXPECT_NE(flags & FD_CLOEXEC, 0) << name;
      ++count;
    }
    return count;
  };
  StartStub();
  nira_ipc_stub_stop(std::exchange(stub, nullptr));
  const int before = descriptors();
  for (int i = 0; i < 3; ++i) {
    StartStub();
    void* proxy = NewProxy();
    EXPECT_EQ(nira_ipc_proxy_connect(proxy, port, "app"), 1);
    EXPECT_GT(descriptors(), before);
    nira_ipc_proxy_disconnect(proxy);
    nira_ipc_stub_stop(std::exchange(stub, nullptr));
  }
  EXPECT_EQ(descriptors(), before);
}

TEST_F(Guest, AnIdlePairWakesForNothing) {
  StartStub();
  void* proxy = Connected("app");
  Progress answered;
  for (int i = 0; i < 10; ++i) {
    CallAsync(
        proxy, "twice", [](const char*, void* seen) { static_cast<Progress*>(seen)->Add(); }, &answered);
  }
  ASSERT_TRUE(answered.Await(10));
  std::map<std::string, std::string> before;
  ASSERT_TRUE(AwaitTrue([&] {  // until the last call has settled
    before = StatusOfThreads("voluntary_ctxt_switches");
    std::this_thread::sleep_for(100ms);
    return before == StatusOfThreads("voluntary_ctxt_switches");
  }));
  std::this_thread::sleep_for(3s);
  EXPECT_EQ(StatusOfThreads("voluntary_ctxt_switches"), before);
}

TEST_F(Guest, AHighDescriptorLimitCostsNothing) {
  rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
  const auto resident = [] {
    std::ifstream file("/proc/self/statm");
    long total = 0;
    long pages = 0;
    file >> total >> pages;
    return pages * sysconf(_SC_PAGESIZE);
  };
  StartStub();
  const long before = resident();
  void* other = nira_ipc_stub_start(FreePort());
  EXPECT_EQ(CallTwice(Connected("app"), 1), 2);
  EXPECT_LT(resident() - before, 8 << 20);
  nira_ipc_stub_stop(other);
}

TEST_F(Guest, TheEnvironmentsProxyIsNotOurs) {
  setenv("http_proxy", ("127.0.0.1:" + std::to_string(FreePort())).c_str(), 1);
  StartStub();
  EXPECT_EQ(CallTwice(Connected("app"), 1), 2);
}

// A service that becomes a daemon after the library was loaded: its workers were its parent's.
#if !defined(__SANITIZE_THREAD__)  // which cannot start threads after a fork of a process that has some
TEST_F(Guest, AChildOfForkCanServe) {
  const pid_t child = fork();
  if (child == 0) {
    int code = 1;
    StartStub();
    if (CallTwice(Connected("app"), 4) == 8) code = 7;
    exit(code);
  }
  int status = 0;
  EXPECT_TRUE(AwaitTrue([&] { return waitpid(child, &status, WNOHANG) == child; }, 30s));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7) << status;
}
#endif

}  // namespace
