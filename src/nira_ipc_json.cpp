#include "nira_ipc_json.h"

#include <charconv>

// The old names are the wire's reference: Reader's leniency, and FastWriter's form.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

bool IsPlain(std::string_view text) {
  unsigned special = 0;  // without a branch, so that the compiler looks at many characters at once
  for (const unsigned char c : text) special |= (c < 0x20) | (c > 0x7f) | (c == '"') | (c == '\\');
  return special == 0;
}

template <class Append>
void AppendMembers(std::string& to, const Json::Value& value, Append append) {
  bool isFirst = true;
  for (auto member = value.begin(); member != value.end(); ++member) {
    if (!isFirst) to += ',';
    isFirst = false;
    append(member);
  }
}

}  // namespace

bool NiraIpcParseJson(const char* text, size_t length, Json::Value& root) {
  constexpr bool kCollectComments = false;
  // Making a reader takes longer than parsing a short text with it.
  static thread_local Json::Reader reader;
  try {
    return reader.parse(text, text + length, root, kCollectComments);
  } catch (const Json::Exception&) {  // the reader's way to refuse deep nesting
    return false;
  }
}

void NiraIpcAppendJson(std::string& to, int64_t number) {
  char digits[24];
  to.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

// FastWriter copies a text four times on its way; most need no escaping.
void NiraIpcAppendJson(std::string& to, std::string_view text) {
  if (IsPlain(text)) {
    to.reserve(to.size() + text.size() + 2);
    to.append(1, '"').append(text).append(1, '"');
  } else {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    to += writer.write(Json::Value(text.data(), text.data() + text.size()));
  }
}

void NiraIpcAppendJson(std::string& to, const Json::Value& value) {
  const char* begin = nullptr;
  const char* end = nullptr;
  if (value.isObject()) {
    to += '{';
    AppendMembers(to, value, [&](auto& member) {
      const char* name = member.memberName(&end);
      NiraIpcAppendJson(to, std::string_view(name, static_cast<size_t>(end - name)));
      to += ':';
      NiraIpcAppendJson(to, *member);
    });
    to += '}';
  } else if (value.isArray()) {
    to += '[';
    AppendMembers(to, value, [&](auto& element) { NiraIpcAppendJson(to, *element); });
    to += ']';
  } else if (value.getString(&begin, &end)) {
    NiraIpcAppendJson(to, std::string_view(begin, static_cast<size_t>(end - begin)));
  } else if (value.type() == Json::intValue) {
    NiraIpcAppendJson(to, value.asInt64());
  } else {
    Json::FastWriter writer;
    writer.omitEndingLineFeed();
    to += writer.write(value);
  }
}

std::string NiraIpcWriteJson(const Json::Value& value) {
  std::string text;
  NiraIpcAppendJson(text, value);
  return text += '\n';
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
