// The bounds that keep one peer from costing the process more than its share.
#ifndef NIRA_IPC_LIMITS_H
#define NIRA_IPC_LIMITS_H

#include <chrono>
#include <cstddef>

// One incoming message; a larger one ends its connection.
constexpr size_t kNiraIpcMaxIncomingMessage = size_t{16} << 20;

// What waits to be written to one connection; more ends it.
constexpr size_t kNiraIpcMaxOutgoingQueue = size_t{64} << 20;

// What one connection's requests may hold while they wait for a worker, and what each adds besides its text. Above it
// the stub stops reading from that connection until half of it is done: a client that floods slows only itself.
constexpr size_t kNiraIpcMaxRequestBacklog = size_t{16} << 20;
constexpr size_t kNiraIpcRequestOverhead = 512;

// Connections of one stub. Those over it are reset at once.
constexpr unsigned kNiraIpcMaxClients = 1024;

// The time-out of a request, blocking or not.
constexpr std::chrono::seconds kNiraIpcRequestTimeout{20};

// Connecting: so many attempts, each begun so long after the one before.
constexpr int kNiraIpcConnectAttempts = 10;
constexpr std::chrono::milliseconds kNiraIpcConnectStep{500};

#endif  // NIRA_IPC_LIMITS_H
