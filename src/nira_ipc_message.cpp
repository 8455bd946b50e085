#include "nira_ipc_message.h"

#include "nira_ipc_json.h"

namespace {

constexpr const char* kKey = "uniqueKey";

}  // namespace

CNiraIpcMessage::CNiraIpcMessage(std::string&& text) : m_Text(std::move(text)) {
  NiraIpcJsonOutline outline;
  outline.name = kKey;
  if (NiraIpcOutlineJson(m_Text, outline)) {
    m_IsJson = true;
    m_IsObject = outline.isObject;
    m_IsCompact = outline.isCompact;
    m_Key = outline.integer;
    return;
  }
  Json::Value value;
  m_IsJson = NiraIpcParseJson(m_Text.data(), m_Text.size(), value);
  if (!m_IsJson) return;
  m_IsObject = value.isObject();
  const Json::Value* key = NiraIpcFindMember(value, kKey);
  if (key != nullptr && key->isInt()) m_Key = key->asInt();
  m_Value = std::move(value);
}

Json::Value& CNiraIpcMessage::Value() {
  if (!m_Value) {
    m_Value.emplace();
    if (m_IsJson) NiraIpcParseJson(m_Text.data(), m_Text.size(), *m_Value);  // which succeeds: there was an outline
  }
  return *m_Value;
}

Json::Value CNiraIpcMessage::TakeMember(std::string_view name) {
  Json::Value taken;
  if (!m_IsObject) return taken;
  if (!m_Value) {
    NiraIpcParseJsonMember(m_Text, name, taken);
  } else if (Json::Value* member = m_Value->demand(name.data(), name.data() + name.size())) {
    taken.swap(*member);
  }
  return taken;
}

std::string CNiraIpcMessage::TakeCompactText() {
  if (!m_IsCompact) return NiraIpcWriteJson(Value());
  if (m_Text.back() != '\n') m_Text += '\n';
  return std::move(m_Text);
}
