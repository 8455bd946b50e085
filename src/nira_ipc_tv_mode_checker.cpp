#include "nira_ipc_tv_mode_checker.h"

#include <unistd.h>

#include "nira_ipc_log.h"

#define TAG NIRA_IPC_TAG

namespace {

bool Exists(const char* marker) {
  return access(marker, F_OK) == 0;
}

}  // namespace

int CNiraTVModeChecker::GetTVMode() const {
  return m_GetTVMode();
}

bool CNiraTVModeChecker::IsDebugMode() const {
  return m_GetTVMode() == NIRA_TV_MODE_DEBUG;
}

bool CNiraTVModeChecker::IsPerfMode() const {
  return m_GetTVMode() == NIRA_TV_MODE_PERF;
}

bool CNiraTVModeChecker::IsReleaseMode() const {
  return m_GetTVMode() == NIRA_TV_MODE_RELEASE;
}

// The strictest marker wins: a device that carries release and debug is a release device.
int CNiraTVModeChecker::m_GetTVMode() {
  if (Exists("/etc/release")) {
    NIRA_IPC_LOG_INFO(TAG, "release mode.\n");
    return NIRA_TV_MODE_RELEASE;
  }
  if (Exists("/etc/perf")) {
    NIRA_IPC_LOG_INFO(TAG, "perf mode.\n");
    return NIRA_TV_MODE_PERF;
  }
  if (Exists("/etc/debug")) {
    NIRA_IPC_LOG_INFO(TAG, "debug mode.\n");
    return NIRA_TV_MODE_DEBUG;
  }
  NIRA_IPC_LOG_ERROR(TAG, "undefined mode.\n");
  return NIRA_TV_MODE_UNDEFINED;
}
