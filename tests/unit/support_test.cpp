// What the library asks of the device (the build mode, the time, the secret and the token made from it), and how the
// host answers, with real processes and files. NIRA_IPC_HOST_LOG_PROBE is a program that uses the host's log.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include "ThreadPool.h"
#include "log_capture.h"
#include "nira_ipc_secure_storage.h"
#include "nira_ipc_tv_mode_checker.h"
#include "nira_ipc_util.h"

static std::atomic<int64_t> g_NowInMs{0};
static std::string g_Markers;  // the files that "exist"

// In place of the C library's: the clock's wrap is days away, and /etc belongs to the machine.
extern "C" int gettimeofday(timeval* now, void*) noexcept {
  *now = {g_NowInMs / 1000, g_NowInMs % 1000 * 1000};
  return 0;
}

extern "C" int access(const char* path, int mode) noexcept {
  return mode == F_OK && g_Markers.find(path) != std::string::npos ? 0 : -1;
}

TEST(TheDeviceMode, IsThatOfTheStrictestMarker) {
  const std::string lines[] = {"undefined mode.\n", "debug mode.\n", "perf mode.\n", "release mode.\n"};
  for (int bits = 0; bits < 8; ++bits) {
    const std::string debug = bits & 1 ? "/etc/debug " : "", perf = bits & 2 ? "/etc/perf " : "";
    g_Markers = debug + perf + (bits & 4 ? "/etc/release" : "");
    const int mode = bits >= 4 ? 3 : bits >= 2 ? 2 : bits;
    const LogCapture log;
    const CNiraTVModeChecker checker;
    EXPECT_EQ(checker.GetTVMode(), mode) << g_Markers;
    EXPECT_EQ(checker.IsDebugMode() + 2 * checker.IsPerfMode() + 3 * checker.IsReleaseMode(), mode) << g_Markers;
    EXPECT_EQ(log.Count(mode == 0 ? 6 : 4, lines[mode]), 4) << g_Markers;
  }
}

TEST(TheMillisecondClock, StartsAgainAfterAMillionSeconds) {
  const LogCapture log;
  g_NowInMs = 1999999999999;
  EXPECT_EQ(CNiraIpcUtil::GetTimeInMs(), 999999999u);
  EXPECT_EQ(CNiraIpcUtil::GetTimestamp(), 1999999999);
  ThreadPool(1).enqueue([] { ++g_NowInMs; });
  EXPECT_EQ(CNiraIpcUtil::GetTimeInMs(), 0u);
  EXPECT_EQ(log.Count(4, "[0] Task done. ( -999999999 ms)  (0/1 threads), 0 remaining task(s)"), 1);
}

// What a shell's command writes, without the process ids of log lines.
static std::string Output(const std::string& command) {
  FILE* pipe = popen(("{ " + command + "; } 2>&1 | sed 's,/TAG([0-9]*),/TAG,'").c_str(), "r");
  std::string output;
  for (int c = getc(pipe); c != EOF; c = getc(pipe)) output += static_cast<char>(c);
  pclose(pipe);
  return output;
}

TEST(TheHostLog, WritesWhatTheVariableAsksForOneLineACall) {
  const std::string debug = "D/TAG: a\\n\\nb\n", info = "I/TAG: a\\n\\nb\n", error = "E/TAG: a\\n\\nb\n";
  const std::string rows[][2] = {{"export NIRA_IPC_LOG=debug", debug + info + error + "out: wanted 1 1 1"},
                                 {"export NIRA_IPC_LOG=info", info + error + "out: wanted 0 1 1"},
                                 {"export NIRA_IPC_LOG=error", error + "out: wanted 0 0 1"},
                                 {"export NIRA_IPC_LOG=off", "out: wanted 0 0 0"},
                                 {"export NIRA_IPC_LOG=loud", "out: <11> " + error + "out: wanted 0 0 1"},
                                 {"unset NIRA_IPC_LOG", "out: <11> " + error + "out: wanted 0 0 1"}};
  for (const auto& [variable, output] : rows) {
    EXPECT_EQ(Output(variable + "; '" NIRA_IPC_HOST_LOG_PROBE "' 'a\n\nb\n\n' 0 1 1"), output) << variable;
  }
  // This process has a log of its own, the recorder: that one wants every line.
  for (int priority : {0, 3, 4, 6}) EXPECT_EQ(nira_platform_log_wanted(priority), 1);
}

// Short lines of two processes, and of one such as no pipe takes at once; each by four threads.
TEST(TheHostLog, KeepsLinesWhole) {
  for (const size_t length : {4000u, 2000000u}) {
    std::string command = "'" NIRA_IPC_HOST_LOG_PROBE "' x " + std::to_string(length) + " 8 4 >/dev/null", lines;
    for (int i = length <= 4096 ? 64 : 32; i > 0; --i) lines += "E/TAG: " + std::string(length - 1, ' ') + "x\n";
    if (length <= 4096) command += " & " + command + "; wait";
    EXPECT_TRUE(Output("export NIRA_IPC_LOG=error; " + command) == lines) << length;
  }
}

// What is found in the store, and how many error lines tell why an object was refused.
static std::string Read(const std::string& name) {
  const LogCapture log;
  CNiraIpcSecureStorage store;
  std::string data = "unread";
  if (!store.Initialize() || !store.GetData(name.c_str(), data)) data = "not installed";
  return data + ", lines: " + std::to_string(log.Count(6, "object '" + name + "' refused: *"));
}

class TheStore : public testing::Test {
 protected:
  ~TheStore() override { Output("rm -r '" + path + "'"); }
  const std::string path = Output("printf %s \"$(mktemp -d)\""), enter = "umask 022; cd '" + path + "'; ";
};

TEST_F(TheStore, HoldsTheFilesThatNobodyElseMayHaveWritten) {
  setenv("NIRA_IPC_SECURE_STORAGE", path.c_str(), 1);
  const std::string refused = "not installed, lines: 1";
  Output(enter +
         "mkdir dir; printf x | tee good group other >dir/x; chmod g+w group; chmod o+w other; mkfifo fifo;"
         "ln -s good link; head -c 65536 /dev/zero | tee largest >larger; printf x >>larger; true >empty");
  EXPECT_EQ(Read("good") + Read("empty"), "x, lines: 0, lines: 0");
  EXPECT_EQ(Read("largest"), std::string(65536, '\0') + ", lines: 0");
  EXPECT_EQ(Read("absent"), "not installed, lines: 0");
  EXPECT_EQ(Read(std::string(300, 'x')), "unread, lines: 1");  // longer than a name may be: another failure
  for (const char* name : {"group", "other", "larger", "fifo", "link", "dir", "dir/x", "../good", "", ".", "..", "/"}) {
    EXPECT_EQ(Read(name), refused) << name;
  }
  const std::string given = geteuid() == 0 ? refused : "x, lines: 0";  // only root can give a file away
  const std::string rows[][2] = {
      {"chmod 777 .", refused}, {"chmod 1777 .", "x, lines: 0"}, {"chown 12345 good", given}};
  for (const auto& [change, result] : rows) EXPECT_EQ((Output(enter + change), Read("good")), result) << change;
}

TEST_F(TheStore, HoldsTheSecretOfWhichTheTokenIsMade) {
  const char* const texts[][2] = {{"abc -- comment\n", "abc "}, {"abc\r\n", "abc"},   {"-- only", ""},       {"", ""},
                                  {"--a\nabc\n--b\n", "abc"},   {"a---b\n-c", "a-c"}, {"-\n-\tx ", "--\tx "}};
  for (const auto& [text, secret] : texts) EXPECT_EQ(CNiraIpcSecureStorage::TrimComment(text), secret) << text;
  const std::string rows[][3] = {
      {"true", "ipc|MissingKeyValue|17", "7220f27e392415aee7af22914a43daeef7362e57e643060f906c1e9eda9836fe"},
      {"true", "ipc||0", "78a0e818beab7a46e3736b800ba8bedf250c9158b4815462540a94c44a458d0c"},
      {"echo 'abc --x' >nira_ipc_key", "ipc|abc |17",
       "2e4493ac0989c93b5b42e3f738a4a82fd94b8282a001dffa46bbabc3edc1a394"},
      {"echo abc >nira_ipc_key", "|abc|-5", "60d10cdcaa0998414e41936cd28717be46b1f7134896e166df828372d4819493"}};
  const LogCapture log;
  std::string data;
  EXPECT_TRUE(!CNiraIpcSecureStorage().GetData("nira_ipc_key", data) && log.Count(6, "Not initialized.\n") == 1);
  setenv("CREDENTIALS_DIRECTORY", path.c_str(), 1);
  setenv("NIRA_IPC_SECURE_STORAGE", (path + "/none").c_str(), 1);  // it comes first
  for (const auto& [change, source, token] : rows) {
    Output(enter + change);
    const std::string client = source.substr(0, source.find('|'));
    EXPECT_EQ(CNiraIpcUtil::GenerateToken(client.c_str(), std::stoi(source.substr(source.rfind('|') + 1))), token);
    EXPECT_TRUE(log.Count(4, "Source str: " + source) == 1 && log.Count(4, "Hashed str: " + token) == 1) << source;
    setenv("NIRA_IPC_SECURE_STORAGE", "", 1);
  }
  EXPECT_EQ(log.Count(6, "Initialization for credential has failed.\n"), 1);
  EXPECT_EQ(log.Count(6, "ObjectName nira_ipc_key is not installed. Need to (re)install\n"), 1);
}
