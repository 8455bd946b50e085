// A message that has arrived: its text, and the value that the text stands for. The value is made when it is asked for,
// by the thread that wants it: whoever reads a connection only has to know whose the message is, and an asynchronous
// caller is given the text alone.
//
// Not synchronised: it belongs to one thread at a time.
#ifndef NIRA_IPC_MESSAGE_H
#define NIRA_IPC_MESSAGE_H

#include <json/json.h>

#include <optional>
#include <string>
#include <string_view>

class CNiraIpcMessage {
 public:
  CNiraIpcMessage() = default;

  // One that has not arrived but is made on this side. Implicit: a value will do wherever a message is due.
  CNiraIpcMessage(Json::Value&& value) : m_IsJson(true), m_IsObject(value.isObject()), m_Value(std::move(value)) {}

  explicit CNiraIpcMessage(std::string&& text);

  bool IsJson() const { return m_IsJson; }
  bool IsObject() const { return m_IsObject; }

  // Its "uniqueKey", if that is an integer.
  std::optional<int> Key() const { return m_Key; }

  // As it arrived.
  const std::string& Text() const { return m_Text; }

  // Null for one that is no JSON.
  Json::Value& Value();

  // The member `name`, without making the rest; null when it is no object or lacks it. Only the text may be asked for
  // afterwards.
  Json::Value TakeMember(std::string_view name);

  // The compact form as one line. Nothing else may be asked for afterwards.
  std::string TakeCompactText();

 private:
  bool m_IsJson = false;
  bool m_IsObject = false;
  bool m_IsCompact = false;
  std::optional<int> m_Key;
  std::string m_Text;
  std::optional<Json::Value> m_Value;  // once it was needed
};

#endif  // NIRA_IPC_MESSAGE_H
