// The answer to a call: a success flag and output values.
#ifndef NIRA_IPC_FUNC_RESULT_INTERNAL_H
#define NIRA_IPC_FUNC_RESULT_INTERNAL_H

#include "nira_ipc_bundle_internal.h"

// The content is {"result": flag, "params": records}; "params" comes with the first value that is set.
//
// No lock: one thread at a time.
class CNiraIpcFuncResult : public CNiraIpcBundle {
 public:
  CNiraIpcFuncResult();

  // One that has arrived.
  explicit CNiraIpcFuncResult(Json::Value&& content);
  ~CNiraIpcFuncResult() override;

  void SetResult(bool result);

  // False also when the content, as it arrived, has no flag.
  bool GetResult() const;

  // A copy of the content.
  Json::Value GetJson() const;

  // Appends the content's text.
  void AppendJson(std::string& to) const;
};

#endif  // NIRA_IPC_FUNC_RESULT_INTERNAL_H
