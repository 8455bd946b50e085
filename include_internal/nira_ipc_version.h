// The version that both ends tell each other, and the name under which the client half registers.
#ifndef NIRA_IPC_VERSION_H
#define NIRA_IPC_VERSION_H

constexpr int kNiraIpcVersionMajor = 1;
constexpr int kNiraIpcVersionMinor = 0;
constexpr int kNiraIpcVersionBuild = 2;
constexpr const char* kNiraIpcClientName = "libnira-ipc";

#endif  // NIRA_IPC_VERSION_H
