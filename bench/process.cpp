#include "process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/random.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace {

constexpr int kLimitMs = 300'000;  // for the next output of a child

volatile sig_atomic_t g_Ended = 0;

void Demand(bool fine, const char* what) {
  if (!fine) throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Child::Child(const std::vector<std::string>& command, bool pinned) {
  int in[2], out[2];
  Demand(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0, "pipe2");
  const pid_t runner = getpid();
  m_Pid = fork();
  if (m_Pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != runner) _exit(1);
    m_BecomeChild(command, pinned, in, out);
  }
  m_In = in[1];
  m_Out = out[0];
  close(in[0]);
  close(out[1]);
  Demand(m_Pid > 0, "fork");
}

void Child::m_BecomeChild(const std::vector<std::string>& command, bool pinned, const int* in, const int* out) {
  cpu_set_t first;
  CPU_ZERO(&first);
  CPU_SET(0, &first);
  if (pinned && sched_setaffinity(0, sizeof first, &first) != 0) _exit(1);
  dup2(in[0], STDIN_FILENO);
  dup2(out[1], STDOUT_FILENO);
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& word : command) arguments.push_back(const_cast<char*>(word.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  _exit(127);
}

Child::~Child() {
  EndInput();
  close(m_Out);
  if (m_Pid <= 0) return;
  kill(m_Pid, SIGKILL);
  waitpid(m_Pid, nullptr, 0);
}

bool Child::m_ReadMore() {
  pollfd wanted = {m_Out, POLLIN, 0};
  const int ready = poll(&wanted, 1, kLimitMs);
  if (g_Ended != 0) throw std::runtime_error("interrupted");
  Demand(ready >= 0, "poll");
  if (ready == 0) throw std::runtime_error("a process hangs");
  char block[4096];
  const ssize_t size = read(m_Out, block, sizeof block);
  if (size > 0) m_Read.append(block, static_cast<size_t>(size));
  return size > 0;
}

std::string Child::ReadLine() {
  size_t end = 0;
  while ((end = m_Read.find('\n')) == std::string::npos) {
    if (!m_ReadMore()) return {};
  }
  std::string line = m_Read.substr(0, end);
  m_Read.erase(0, end + 1);
  return line;
}

void Child::EndInput() {
  close(std::exchange(m_In, -1));
}

bool Child::Ended() {
  int status = 0;
  Demand(waitpid(m_Pid, &status, 0) == m_Pid, "waitpid");
  m_Pid = -1;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

PrivateSecret::PrivateSecret() {
  char directory[] = "/tmp/nira-ipc-bench-XXXXXX";
  Demand(mkdtemp(directory) != nullptr, "mkdtemp");
  m_Directory = directory;
  unsigned char bytes[16];
  Demand(getrandom(bytes, sizeof bytes, 0) == sizeof bytes, "getrandom");
  const std::string file = m_Directory + "/nira_ipc_key";
  std::ofstream secret(file);  // nobody else can enter the directory
  for (unsigned char byte : bytes) secret << int{byte};
  secret.close();
  std::filesystem::permissions(file, std::filesystem::perms::owner_read);
  Demand(!secret.fail() && setenv("NIRA_IPC_SECURE_STORAGE", directory, 1) == 0, "secret");
}

PrivateSecret::~PrivateSecret() {
  std::error_code ignored;
  std::filesystem::remove_all(m_Directory, ignored);
}

void EndOnSignals() {
  struct sigaction action = {};
  action.sa_handler = [](int) { g_Ended = 1; };
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);  // without SA_RESTART
}

bool HasBeenEnded() {
  return g_Ended != 0;
}
