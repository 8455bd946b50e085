#include "nira_ipc_func_result_internal.h"

#include "nira_ipc_json.h"

CNiraIpcFuncResult::CNiraIpcFuncResult() : CNiraIpcBundle("params") {
  SetResult(false);
}

CNiraIpcFuncResult::CNiraIpcFuncResult(Json::Value&& content) : CNiraIpcBundle("params") {
  SetJsonParam(std::move(content));
}

CNiraIpcFuncResult::~CNiraIpcFuncResult() = default;

void CNiraIpcFuncResult::SetResult(bool result) {
  m_ContentAsObject()[Json::StaticString("result")] = result;
}

bool CNiraIpcFuncResult::GetResult() const {
  const Json::Value* result = NiraIpcFindMember(m_Content, "result");
  return result != nullptr && result->isConvertibleTo(Json::booleanValue) && result->asBool();
}

void CNiraIpcFuncResult::AppendJson(std::string& to) const {
  NiraIpcAppendJson(to, m_Content);
}

Json::Value CNiraIpcFuncResult::GetJson() const {
  return m_Content;
}
