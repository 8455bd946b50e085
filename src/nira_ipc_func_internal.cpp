#include "nira_ipc_func_internal.h"

#include "nira_ipc_json.h"

CNiraIpcFunc::~CNiraIpcFunc() = default;

void CNiraIpcFunc::SetMethodName(const char* name) {
  if (NIRA_IPC_REFUSED(name == nullptr)) return;
  m_MethodName = name;
}

std::string CNiraIpcFunc::GetJsonText() const {
  std::string text = "{\"method\":";
  NiraIpcAppendJson(text, std::string_view(m_MethodName));
  text += ",\"params\":";
  NiraIpcAppendJson(text, m_Content);
  text += '}';
  NIRA_IPC_LOG_DEBUG(NIRA_IPC_TAG, "return = %s\n", text.c_str());
  return text;
}

Json::Value CNiraIpcFunc::GetJson() const {
  Json::Value json(Json::objectValue);
  json["method"] = m_MethodName;
  json["params"] = m_Content;
  NIRA_IPC_LOG_DEBUG(NIRA_IPC_TAG, "return = %s\n", NiraIpcWriteJson(json).c_str());
  return json;
}
