// The device's secret, from the platform's secure storage. One thread at a time; whoever wants the secret makes a
// store.
#ifndef NIRA_IPC_SECURE_STORAGE_H
#define NIRA_IPC_SECURE_STORAGE_H

#include <string>

#include "nira_platform_secure_storage.h"

class CNiraIpcSecureStorage {
 public:
  // Obtains the credential. Without one nothing can be read.
  bool Initialize();

  // Replaces `data` by the object's bytes. Only an object that is not installed is a failure; one that cannot be read
  // leaves `data` as it is.
  bool GetData(const char* objectName, std::string& data) const;

  // The text without "--" comments, which end with their line, and without line breaks.
  static std::string TrimComment(const std::string& text);

  // The secret, or an empty text.
  std::string GetSecretKey() const;

 private:
  bool m_bInitialized = false;
  ss_credential m_Credential = {};
};

#endif  // NIRA_IPC_SECURE_STORAGE_H
