// The library is a guest in the application's process: what it leaves as it was, and what it costs.
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>

#include "fixture.h"

namespace {

class Guest : public EndToEnd {};

TEST_F(Guest, SignalsAreLeftToTheApplication) {
  sigset_t before, after;
  const auto handler = [](int) {};
  signal(SIGPIPE, handler);
  pthread_sigmask(SIG_SETMASK, nullptr, &before);
  StartStub();
  EXPECT_EQ(CallTwice(Connected("app"), 1), 2);
  EXPECT_EQ(signal(SIGPIPE, SIG_DFL), static_cast<sighandler_t>(handler));
  pthread_sigmask(SIG_SETMASK, nullptr, &after);
  for (int each = 1; each < SIGRTMAX; ++each) EXPECT_EQ(sigismember(&after, each), sigismember(&before, each)) << each;
  EXPECT_TRUE(AwaitTrue([] { return LibraryThreads().size() == 22; })) << "ten workers and a service thread each side";
  for (const auto& [name, line] : LibraryThreads("SigBlk")) {
    const unsigned long long mask = std::stoull(line.substr(8), nullptr, 16);
    for (int each : {SIGINT, SIGTERM, SIGUSR1, SIGALRM, SIGCHLD}) EXPECT_TRUE(mask >> (each - 1) & 1) << name;
    EXPECT_FALSE(mask >> (SIGSEGV - 1) & 1) << name;
  }
}

// Sockets and the like that are open; all close on exec.
int CountDescriptors() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry, gone).string();
    if (target.rfind("socket", 0) != 0 && target.rfind("anon_inode", 0) != 0) continue;
    EXPECT_NE(fcntl(std::stoi(entry.path().filename()), F_GETFD) & FD_CLOEXEC, 0) << target;
    ++count;
  }
  return count;
}

TEST_F(Guest, DescriptorsCloseOnExecAndGoWithTheirOwners) {
  int before = 0;
  for (int i = 0; i < 3; ++i) {
    StartStub();
    void* proxy = Connected("app");
    EXPECT_GT(CountDescriptors(), before);
    nira_ipc_proxy_disconnect(proxy);
    StopStub();
    if (i == 0) before = CountDescriptors();  // the workers' own stay
    EXPECT_EQ(CountDescriptors(), before);
  }
}

TEST_F(Guest, AHighDescriptorLimitCostsNothing) {
  const auto residentAfterUse = [this](rlim_t descriptors) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(descriptors, limit.rlim_max);
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    StartStub();
    EXPECT_EQ(CallTwice(Connected("app"), 1), 2);
    long total = 0, pages = 0;
    std::ifstream("/proc/self/statm") >> total >> pages;
    StopStub();
    return pages * sysconf(_SC_PAGESIZE);
  };
  const long few = residentAfterUse(256);
  EXPECT_LT(residentAfterUse(RLIM_INFINITY) - few, 8 << 20);
}

// A service becomes a daemon after the library was loaded. Until its first use the library has no thread, which might
// be starting and hold a lock of the run-time's, for ever in the child.
TEST_F(Guest, AChildOfForkCanServe) {
  EXPECT_TRUE(LibraryThreads().empty());
  const pid_t child = fork();
  if (child == 0) {
    StartStub();
    exit(CallTwice(Connected("app"), 4) == 8 ? 7 : 1);
  }
  ExpectExit(child, 7);
}

}  // namespace
