#include "nira_ipc_json.h"

// The old names are the wire's reference: FastWriter's form (one line, a closing line feed) is what both ends send.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

bool NiraIpcParseJson(const char* text, size_t length, Json::Value& root) {
  constexpr bool kCollectComments = false;
  try {
    Json::Reader reader;
    return reader.parse(text, text + length, root, kCollectComments);
  } catch (const Json::Exception&) {  // the reader's way to refuse deep nesting
    return false;
  }
}

std::string NiraIpcWriteJson(const Json::Value& value) {
  Json::FastWriter writer;
  return writer.write(value);
}

std::string NiraIpcStyledJson(const Json::Value& value) {
  return value.toStyledString();
}

const Json::Value* NiraIpcFindMember(const Json::Value& value, const char* key) {
  return value.isObject() ? value.find(key, key + std::strlen(key)) : nullptr;
}

std::string NiraIpcMemberAsString(const Json::Value& value, const char* key, const char* fallback) {
  const Json::Value* member = NiraIpcFindMember(value, key);
  return member != nullptr && member->isConvertibleTo(Json::stringValue) ? member->asString() : fallback;
}

int NiraIpcMemberAsInt(const Json::Value& value, const char* key, int fallback) {
  const Json::Value* member = NiraIpcFindMember(value, key);
  return member != nullptr && member->isConvertibleTo(Json::intValue) ? member->asInt() : fallback;
}
