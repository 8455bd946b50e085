#include "nira_ipc_secure_storage.h"

#include <cstddef>
#include <memory>

#include "nira_ipc_log.h"

#define TAG NIRA_IPC_TAG

namespace {

constexpr const char* kSecretObject = "nira_ipc_key";

// Placeholders: a device's provisioning supplies the real ones.
constexpr struct {
  unsigned char identifier[NIRA_SS_IDENTIFIER_SIZE];
  int version;
  int domain;
  int flags;
} kCredentialParameters = {{'n', 'i', 'r', 'a', '-', 'i', 'p', 'c'}, 1, 0, 0};

struct FreeBuffer {
  void operator()(unsigned char* buffer) const { ss_free_buffer(buffer); }
};

}  // namespace

bool CNiraIpcSecureStorage::Initialize() {
  m_bInitialized = ss_init_credential(&m_Credential, kCredentialParameters.identifier, kCredentialParameters.version,
                                      kCredentialParameters.domain, kCredentialParameters.flags) == NIRA_SS_STATUS_OK;
  if (m_bInitialized) {
    NIRA_IPC_LOG_INFO(TAG, "Initialization done.\n");
  } else {
    NIRA_IPC_LOG_ERROR(TAG, "Initialization for credential has failed.\n");
  }
  return m_bInitialized;
}

bool CNiraIpcSecureStorage::GetData(const char* objectName, std::string& data) const {
  if (!m_bInitialized) {
    NIRA_IPC_LOG_ERROR(TAG, "Not initialized.\n");
    return false;
  }
  size_t size = 0;
  int status = NIRA_SS_STATUS_OK;
  const std::unique_ptr<unsigned char, FreeBuffer> buffer(ss_read(&m_Credential, objectName, &size, &status));
  if (status == NIRA_SS_STATUS_NOT_INSTALLED) {
    NIRA_IPC_LOG_ERROR(TAG, "ObjectName %s is not installed. Need to (re)install\n", objectName);
    return false;
  }
  if (buffer != nullptr) data.assign(reinterpret_cast<const char*>(buffer.get()), size);
  return true;
}

std::string CNiraIpcSecureStorage::TrimComment(const std::string& text) {
  std::string trimmed;
  bool inComment = false;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\n') {
      inComment = false;
    } else if (text.compare(i, 2, "--") == 0) {
      inComment = true;
    }
    if (!inComment && text[i] != '\n' && text[i] != '\r') trimmed += text[i];
  }
  return trimmed;
}

std::string CNiraIpcSecureStorage::GetSecretKey() const {
  std::string text;
  return GetData(kSecretObject, text) ? TrimComment(text) : std::string();
}
