// What the library asks of the device (the build mode, the time, the secret and the token made from it), and how the
// host answers, with real processes and files. NIRA_IPC_LOG_PROBE is a program that uses the host's log.
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include "log_capture.h"
#include "nira_ipc_secure_storage.h"
#include "nira_ipc_tv_mode_checker.h"
#include "nira_ipc_util.h"
#include "nira_platform_log.h"

static int64_t g_NowInMs = 1999999999999;
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
  const std::string names[] = {"undefined", "debug", "perf", "release"};
  for (int mode = 0; mode < 4; ++mode) {
    g_Markers += "/etc/" + names[mode] + " ";
    const LogCapture log;
    const CNiraTVModeChecker checker;
    EXPECT_EQ(checker.GetTVMode(), mode);
    EXPECT_EQ(checker.IsDebugMode() + 2 * checker.IsPerfMode() + 3 * checker.IsReleaseMode(), mode);
    EXPECT_EQ(log.Count(names[mode] + " mode.\n", mode == 0 ? 6 : 4), 4);
  }
}

TEST(TheMillisecondClock, StartsAgainAfterAMillionSeconds) {
  EXPECT_EQ(CNiraIpcUtil::GetTimeInMs(), 999999999u);
  EXPECT_EQ(CNiraIpcUtil::GetTimestamp(), 1999999999);
  ++g_NowInMs;
  EXPECT_EQ(CNiraIpcUtil::GetTimeInMs(), 0u);
}

// What a shell's command writes; of a log line only the priority and the text, unless that is the probe's first.
static std::string Output(const std::string& command) {
  FILE* pipe = popen(("{ " + command + R"(; } 2>&1 | sed 's,/TAG([0-9]*):\( a\\n\\nb\)*,,g')").c_str(), "r");
  std::string output;
  for (int c = getc(pipe); c != EOF; c = getc(pipe)) output += static_cast<char>(c);
  pclose(pipe);
  return output;
}

TEST(TheHostLog, WritesWhatTheVariableAsksForOneWholeLineACall) {
  const std::string probe = " '" NIRA_IPC_LOG_PROBE "' ";
  const char* const rows[][2] = {{"NIRA_IPC_LOG=debug", "D I E 111"}, {"NIRA_IPC_LOG=info", "I E 011"},
                                 {"NIRA_IPC_LOG=error", "E 001"},     {"NIRA_IPC_LOG=off", "000"},
                                 {"NIRA_IPC_LOG=loud", "<11> E 001"}, {"-u NIRA_IPC_LOG", "<11> E 001"}};
  for (const auto& [variable, output] : rows)
    EXPECT_EQ(Output("env " + (variable + probe) + "'a\n\nb\n\n' 0 1 2>&1 | tr '\n' ' '"), output) << variable;
  // This process has a log of its own, the recorder: that one wants every line.
  for (int priority : {0, 3, 4, 6}) EXPECT_EQ(nira_platform_log_wanted(priority), 1);

  // Short lines of two processes at once, and then such as no pipe takes at once, of the threads of one.
  const std::string twice = probe + "x 4000 24 & " + probe + "x 4000 24; wait; ";
  std::string lines;
  for (int i = 0; i < 64; ++i) lines += "E " + std::string(i < 48 ? 3999 : 1999999, ' ') + "x\n";
  EXPECT_TRUE(Output("export NIRA_IPC_LOG=error; exec >/dev/null; " + twice + probe + "x 2000000 16") == lines);
}

// What is found in the store, and how many error lines tell why an object was refused.
static std::string Read(const std::string& name) {
  const LogCapture log;
  CNiraIpcSecureStorage store;
  std::string data = "unread";
  if (!store.Initialize() || !store.GetData(name.c_str(), data)) data = "not installed";
  return data + ", lines: " + std::to_string(log.Count("object '" + name + "' refused: *", 6));
}

TEST(TheStore, HoldsTheSecretInAFileThatNobodyElseMayHaveWritten) {
  const std::string path = Output("printf %s \"$(mktemp -d)\""), enter = "umask 022; cd '" + path + "' && ";
  const std::string fine = "x, lines: 0", refused = "not installed, lines: 1";
  setenv("CREDENTIALS_DIRECTORY", path.c_str(), 1);
  setenv("NIRA_IPC_SECURE_STORAGE", "", 1);  // as good as unset
  Output(enter +
         "mkdir dir; printf x | tee good group other >dir/x; chmod g+w group; chmod o+w other; mkfifo fifo;"
         "ln -s good link; head -c 65536 /dev/zero | tee largest >larger; printf x >>larger; true >empty");
  EXPECT_EQ(Read("good") + Read("empty") + Read("absent"), fine + ", lines: 0" + "not installed, lines: 0");
  EXPECT_EQ(Read("largest"), std::string(65536, '\0') + ", lines: 0");
  EXPECT_EQ(Read(std::string(300, 'x')), "unread, lines: 1");  // longer than a name may be: another failure
  for (const char* name : {"group", "other", "larger", "fifo", "link", "dir", "dir/x", "../good", "", ".", "..", "/"})
    EXPECT_EQ(Read(name), refused) << name;
  const std::string given = geteuid() == 0 ? refused : fine;  // only root can give a file away
  const std::string rows[][2] = {{"chmod 777 .", refused}, {"chmod 1777 .", fine}, {"chown 12345 good", given}};
  for (const auto& [change, result] : rows) EXPECT_EQ((Output(enter + change), Read("good")), result) << change;

  // The secret is one of them but for its comments, and the token is made of it.
  const char* const texts[][2] = {{"abc -- comment\n", "abc "}, {"abc\r\n", "abc"},   {"-- only", ""},       {"", ""},
                                  {"--a\nabc\n--b\n", "abc"},   {"a---b\n-c", "a-c"}, {"-\n-\tx ", "--\tx "}};
  for (const auto& [text, secret] : texts) EXPECT_EQ(CNiraIpcSecureStorage::TrimComment(text), secret) << text;
  const LogCapture log;
  std::string data;
  EXPECT_TRUE(!CNiraIpcSecureStorage().GetData("good", data) && log.Has("Not initialized.\n"));
  const std::string tokens[][3] = {
      {"true", "MissingKeyValue", "7220f27e392415aee7af22914a43daeef7362e57e643060f906c1e9eda9836fe"},
      {"mkdir s", "", "d223f85e564005cb1d99f71e9aa3c5d92f2722132fc82924c7ab4ece480d9966"},
      {"echo 'abc --x' >s/nira_ipc_key", "abc ", "2e4493ac0989c93b5b42e3f738a4a82fd94b8282a001dffa46bbabc3edc1a394"}};
  setenv("NIRA_IPC_SECURE_STORAGE", (path + "/s").c_str(), 1);  // it comes first
  for (const auto& [change, secret, token] : tokens) {
    Output(enter + change);
    EXPECT_EQ(CNiraIpcUtil::GenerateToken("ipc", 17), token);
    EXPECT_TRUE(log.Has("Source str: ipc|" + secret + "|17") && log.Has("Hashed str: " + token)) << secret;
  }
  EXPECT_EQ(log.Count("Initialization for credential has failed.\n", 6), 1);
  EXPECT_EQ(log.Count("ObjectName nira_ipc_key is not installed. Need to (re)install\n", 6), 1);
  Output("rm -r '" + path + "'");
}
