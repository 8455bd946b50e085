// The bounds that keep one peer from costing the process more than its share.
#ifndef NIRA_IPC_LIMITS_H
#define NIRA_IPC_LIMITS_H

#include <chrono>
#include <cstddef>

// One incoming message; a larger one ends its connection.
constexpr size_t kNiraIpcMaxIncomingMessage = size_t{16} << 20;

// What waits to be written to one connection; more ends it.
constexpr size_t kNiraIpcMaxOutgoingQueue = size_t{64} << 20;

// What one connection's messages may hold while they wait for a worker, and what each adds besides its text. Above it
// the connection is not read until half of it is done: a peer that floods slows only itself.
constexpr size_t kNiraIpcMaxBacklog = size_t{16} << 20;
constexpr size_t kNiraIpcMessageOverhead = 512;

// A call that waits for its reply reads on even so. Then this much ends the connection.
constexpr size_t kNiraIpcMaxBacklogOfCaller = size_t{64} << 20;

// Connections of one stub. Those over it are reset at once.
constexpr unsigned kNiraIpcMaxClients = 1024;

// The time-out of a request, blocking or not.
constexpr std::chrono::seconds kNiraIpcRequestTimeout{20};

// Connecting: so many attempts, each begun so long after the one before.
constexpr int kNiraIpcConnectAttempts = 10;
constexpr std::chrono::milliseconds kNiraIpcConnectStep{500};

// What is offered to a socket at once. It takes what it has room for; offered less, it would have to be asked again.
constexpr size_t kNiraIpcWriteBytes = 1 << 20;

#endif  // NIRA_IPC_LIMITS_H
