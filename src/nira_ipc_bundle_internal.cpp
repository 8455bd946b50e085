#include "nira_ipc_bundle_internal.h"

#include <cstring>
#include <new>
#include <string_view>
#include <utility>
#include <vector>

#include "nira_ipc_base64.h"
#include "nira_ipc_json.h"

#define TAG NIRA_IPC_TAG

namespace {

// jsoncpp throws an error of its own for a longer one.
constexpr size_t kLongestText = Json::Value::maxInt - sizeof(unsigned) - 1;

void CheckTextLength(size_t length) {
  if (length > kLongestText) throw std::bad_alloc();
}

Json::Value MakeText(const char* text) {
  const size_t length = std::strlen(text);
  CheckTextLength(length);
  return Json::Value(text, text + length);
}

// The record's value up to its first NUL, where every C string made of it ends. Refers to the record, or to `converted`
// when the value is no text.
std::string_view ValueAsText(const Json::Value& record, std::string& converted) {
  const Json::Value* value = NiraIpcFindMember(record, "value");
  const char* begin = nullptr;
  const char* end = nullptr;
  std::string_view text;
  if (value != nullptr && value->getString(&begin, &end)) {
    text = {begin, static_cast<size_t>(end - begin)};
  } else {
    converted = NiraIpcMemberAsString(record, "value", "not found");
    text = converted;
  }
  return text.substr(0, text.find('\0'));
}

// The record's array; an empty value when there is none.
const Json::Value& ValueAsArray(const Json::Value* record) {
  const Json::Value* value = record != nullptr ? NiraIpcFindMember(*record, "value") : nullptr;
  return value != nullptr && value->isArray() ? *value : Json::Value::nullSingleton();
}

}  // namespace

CNiraIpcBundle::~CNiraIpcBundle() = default;

void CNiraIpcBundle::SetParamInt(const char* key, int value) {
  if (NIRA_IPC_REFUSED(key == nullptr)) return;
  m_SetRecord(key, "int", value);
}

void CNiraIpcBundle::SetParamString(const char* key, const char* value) {
  if (NIRA_IPC_REFUSED(key == nullptr || value == nullptr)) return;
  m_SetRecord(key, "string", MakeText(value));
}

void CNiraIpcBundle::SetParamIntArray(const char* key, const int* values, unsigned int count) {
  if (NIRA_IPC_REFUSED(key == nullptr || values == nullptr)) return;
  Json::Value array;
  for (unsigned int i = 0; i < count; ++i) array.append(values[i]);
  m_SetRecord(key, "int_array", std::move(array));
}

void CNiraIpcBundle::SetParamStringArray(const char* key, const char* const* values, unsigned int count) {
  if (NIRA_IPC_REFUSED(key == nullptr || values == nullptr)) return;
  Json::Value array;
  for (unsigned int i = 0; i < count; ++i) {
    if (NIRA_IPC_REFUSED(values[i] == nullptr)) return;
    array.append(MakeText(values[i]));
  }
  m_SetRecord(key, "string_array", std::move(array));
}

void CNiraIpcBundle::SetParamBinary(const char* key, const void* data, unsigned int size) {
  if (NIRA_IPC_REFUSED(key == nullptr || data == nullptr)) return;
  const size_t capacity = 4 * ((size_t{size} + 2) / 3);
  CheckTextLength(capacity);
  const std::unique_ptr<unsigned char[]> buffer(new unsigned char[capacity + 1]);
  const char* text = reinterpret_cast<const char*>(buffer.get());
  NIRA_IPC_LOG_INFO(TAG, "Input binary size = %d (SAFE: %d)\n", static_cast<int>(size),
                    static_cast<int>((size * 3) >> 2));
  NIRA_IPC_LOG_INFO(TAG, "Input binary data = %p\n", data);
  unsigned int length = 0;
  b64_encode(static_cast<const unsigned char*>(data), size, buffer.get(), &length);
  buffer[length] = '\0';
  m_SetRecord(key, "binary", Json::Value(text, text + length));
  NIRA_IPC_LOG_INFO(TAG, "B64Encoded binary size = %d\n", static_cast<int>(length));
  NIRA_IPC_LOG_INFO(TAG, "B64Encoded binary data = %s\n", text);
}

int CNiraIpcBundle::GetParamInt(const char* key, int) {
  if (NIRA_IPC_REFUSED(key == nullptr)) return -1;
  const Json::Value* record = m_FindRecord(key, "int");
  return record != nullptr ? NiraIpcMemberAsInt(*record, "value", -1) : -1;
}

char* CNiraIpcBundle::GetParamString(const char* key, int) {
  if (NIRA_IPC_REFUSED(key == nullptr)) return nullptr;
  const Json::Value* record = m_FindRecord(key, "string");
  if (record == nullptr) return nullptr;
  std::string converted;
  const std::string_view text = ValueAsText(*record, converted);
  Kept& kept = m_Kept[key];
  if (!kept.blocks.empty()) {
    char* first = static_cast<char*>(kept.blocks.front().get());
    if (std::strncmp(first, text.data(), text.size()) == 0) return first;
  }
  Block block = m_NewBlock(text.data(), text.size());
  if (kept.beginsWithText) {
    kept.blocks.front() = std::move(block);
  } else {
    kept.blocks.push_front(std::move(block));
    kept.beginsWithText = true;
  }
  return static_cast<char*>(kept.blocks.front().get());
}

int* CNiraIpcBundle::GetParamIntArray(const char* key, unsigned int* count) {
  if (NIRA_IPC_REFUSED(key == nullptr || count == nullptr)) return nullptr;
  const Json::Value& array = ValueAsArray(m_FindRecord(key, "int_array"));
  std::vector<int> values;
  values.reserve(array.size());
  for (const Json::Value& element : array) {
    if (element.isInt()) values.push_back(element.asInt());
  }
  std::list<Block>& blocks = m_Kept[key].blocks;
  blocks.push_back(m_NewBlock(values.data(), values.size() * sizeof(int)));
  *count = static_cast<unsigned int>(values.size());
  return static_cast<int*>(blocks.back().get());
}

char** CNiraIpcBundle::GetParamStringArray(const char* key, unsigned int* count) {
  if (NIRA_IPC_REFUSED(key == nullptr || count == nullptr)) return nullptr;
  const Json::Value* records = m_FindRecords();
  if (records != nullptr && NiraIpcFindMember(*records, key) == nullptr) {
    NIRA_IPC_LOG_ERROR(TAG, "%s is not exists\n", key);
  }
  std::list<Block> made;
  std::vector<char*> texts;
  for (const Json::Value& element : ValueAsArray(m_FindRecord(key, "string_array"))) {
    if (!element.isString()) continue;
    made.push_back(m_NewBlock(element.asCString(), std::strlen(element.asCString())));
    texts.push_back(static_cast<char*>(made.back().get()));
  }
  *count = static_cast<unsigned int>(texts.size());
  if (texts.empty()) return nullptr;
  made.push_back(m_NewBlock(texts.data(), texts.size() * sizeof(char*)));
  char** array = static_cast<char**>(made.back().get());
  std::list<Block>& blocks = m_Kept[key].blocks;
  blocks.splice(blocks.end(), made);
  return array;
}

void* CNiraIpcBundle::GetParamBinary(const char* key, unsigned int* size) {
  if (NIRA_IPC_REFUSED(key == nullptr || size == nullptr)) return nullptr;
  const Json::Value* record = m_FindRecord(key, "binary");
  if (record == nullptr) return nullptr;
  std::list<Block>& blocks = m_Kept[key].blocks;
  if (!blocks.empty()) return blocks.front().get();
  std::string converted;
  const std::string_view text = ValueAsText(*record, converted);
  blocks.push_front(m_NewBlock(nullptr, text.size() / 4 * 3));
  auto* bytes = static_cast<unsigned char*>(blocks.front().get());
  unsigned int length = 0;
  b64_decode(reinterpret_cast<const unsigned char*>(text.data()), static_cast<unsigned int>(text.size()), bytes,
             &length);
  bytes[length] = '\0';
  *size = length;
  NIRA_IPC_LOG_INFO(TAG, "b64DecodedText = %s\n", reinterpret_cast<const char*>(bytes));
  return bytes;
}

void CNiraIpcBundle::SetJsonParam(Json::Value content) {
  m_Content = std::move(content);
}

Json::Value CNiraIpcBundle::GetJson() const {
  Json::Value json(Json::objectValue);
  json["bundle"] = m_Content;
  NIRA_IPC_LOG_DEBUG(TAG, "return = %s\n", NiraIpcWriteJson(json).c_str());
  return json;
}

std::string CNiraIpcBundle::GetJsonText() const {
  std::string text = "{\"bundle\":";
  NiraIpcAppendJson(text, m_Content);
  text += '}';
  NIRA_IPC_LOG_DEBUG(TAG, "return = %s\n", text.c_str());
  return text;
}

Json::Value& CNiraIpcBundle::m_ContentAsObject() {
  if (!m_Content.isObject()) m_Content = Json::Value(Json::objectValue);
  return m_Content;
}

// A copy of `bytes`, or zeros when there are none to copy yet. Every block, whatever it holds, ends in a NUL of its
// own: as the first of its key it may be compared with a text, or returned as one.
CNiraIpcBundle::Block CNiraIpcBundle::m_NewBlock(const void* bytes, size_t size) {
  Block block(std::calloc(size + 1, 1));
  if (block == nullptr) throw std::bad_alloc();
  if (bytes != nullptr) std::memcpy(block.get(), bytes, size);
  return block;
}

// `type` is a literal. Copying a record that has both members takes jsoncpp a third less than adding them to a new one.
void CNiraIpcBundle::m_SetRecord(const char* key, const char* type, Json::Value&& value) {
  static const Json::StaticString typeName("type"), valueName("value");
  static const Json::Value empty = [] {
    Json::Value members(Json::objectValue);
    members[typeName] = members[valueName] = Json::Value();
    return members;
  }();
  Json::Value record(empty);
  record[typeName] = Json::StaticString(type);
  record[valueName] = std::move(value);
  Json::Value* records = &m_ContentAsObject();
  if (m_Member != nullptr) {
    records = &(*records)[Json::StaticString(m_Member)];
    if (!records->isObject()) *records = Json::Value(Json::objectValue);
  }
  (*records)[key] = std::move(record);
}

// Null when the content lacks the member that holds the records.
const Json::Value* CNiraIpcBundle::m_FindRecords() const {
  return m_Member != nullptr ? NiraIpcFindMember(m_Content, m_Member) : &m_Content;
}

// The record of the key if it is of this type, else null.
const Json::Value* CNiraIpcBundle::m_FindRecord(const char* key, const char* type) const {
  const Json::Value* records = m_FindRecords();
  const Json::Value* record = records != nullptr ? NiraIpcFindMember(*records, key) : nullptr;
  return record != nullptr && NiraIpcMemberAsString(*record, "type", "error") == type ? record : nullptr;
}
