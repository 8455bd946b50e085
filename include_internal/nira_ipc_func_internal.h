// A call of a remote method: its name and its parameters.
#ifndef NIRA_IPC_FUNC_INTERNAL_H
#define NIRA_IPC_FUNC_INTERNAL_H

#include <string>

#include "nira_ipc_bundle_internal.h"

// No lock: one thread at a time.
class CNiraIpcFunc : public CNiraIpcBundle {
 public:
  CNiraIpcFunc() = default;
  ~CNiraIpcFunc() override;

  // A null name is logged and changes nothing.
  void SetMethodName(const char* name);

  // Valid until the name is set again.
  const char* GetMethodName() const { return m_MethodName.c_str(); }

  // {"method": name, "params": content}
  Json::Value GetJson() const;

  // The text of that, for a request.
  std::string GetJsonText() const;

 private:
  std::string m_MethodName;
};

#endif  // NIRA_IPC_FUNC_INTERNAL_H
