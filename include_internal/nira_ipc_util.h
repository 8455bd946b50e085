// Clocks and the registration token. No state: any thread may call.
#ifndef NIRA_IPC_UTIL_H
#define NIRA_IPC_UTIL_H

#include <cstdint>
#include <string>

class CNiraIpcUtil {
 public:
  // Whole seconds since the Unix epoch.
  static int GetTimestamp();

  // Milliseconds, starting again at 0 every 1,000,000 seconds.
  static uint32_t GetTimeInMs();

  // The proof that the caller knows the device's secret: the lower-case hexadecimal SHA-256, 64 characters, of
  // "<client name>|<secret>|<time stamp>". Reads the secret store anew each time; without one, a fixed placeholder
  // stands for the secret.
  static std::string GenerateToken(const char* clientName, int timestamp);
};

#endif  // NIRA_IPC_UTIL_H
