// JSON text to values and back, and reads of values that arrived over the wire. Nothing here throws for what the text
// holds; std::bad_alloc may pass.
#ifndef NIRA_IPC_JSON_H
#define NIRA_IPC_JSON_H

#include <json/json.h>

#include <cstring>
#include <optional>
#include <string>
#include <string_view>

// Parses one JSON text, comments allowed. False for anything that is no JSON or is nested too deep.
bool NiraIpcParseJson(const char* text, size_t length, Json::Value& root);
inline bool NiraIpcParseJson(const char* text, Json::Value& root) {
  return NiraIpcParseJson(text, std::strlen(text), root);
}

// What can be told of a text without making its value.
struct NiraIpcJsonOutline {
  std::string_view name;       // given: the member of the root that is looked for
  std::optional<int> integer;  // its value
  bool isObject = false;       // the root
  bool isCompact = false;  // the text is what NiraIpcWriteJson would make of the value; its line feed may be missing
};

// False for a text that has to be parsed to tell. One that has an outline can be parsed.
bool NiraIpcOutlineJson(std::string_view text, NiraIpcJsonOutline& outline);

// Parses one member of the root, an object, of a text that has an outline. Leaves `value` alone when it is missing.
void NiraIpcParseJsonMember(std::string_view text, std::string_view name, Json::Value& value);

// Appends the compact form, which is what both ends send; a text is quoted.
void NiraIpcAppendJson(std::string& to, const Json::Value& value);
void NiraIpcAppendJson(std::string& to, std::string_view text);
void NiraIpcAppendJson(std::string& to, int64_t number);

// The compact form as one line: it ends with a line feed.
std::string NiraIpcWriteJson(const Json::Value& value);

// The styled form, for log lines.
std::string NiraIpcStyledJson(const Json::Value& value);

// The member `key` of an object; null when `value` is no object or lacks it.
const Json::Value* NiraIpcFindMember(const Json::Value& value, const char* key);

// The member `key` as a text or signed 32-bit integer; `fallback` when it is missing or cannot be converted.
std::string NiraIpcMemberAsString(const Json::Value& value, const char* key, const char* fallback);
int NiraIpcMemberAsInt(const Json::Value& value, const char* key, int fallback);

#endif  // NIRA_IPC_JSON_H
