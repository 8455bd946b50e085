#include "nira_ipc_json.h"

#include <charconv>
#include <cstring>

// The old names are the wire's reference: Reader's leniency, and FastWriter's form.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

// A text that is worth making room for.
constexpr size_t kLong = 1024;

// What usually follows the last text of a message.
constexpr size_t kTail = 256;

// Whether a character stands for itself in a JSON text.
unsigned IsSpecial(unsigned char c) {
  return (c < 0x20) | (c > 0x7f) | (c == '"') | (c == '\\');
}

bool IsPlain(std::string_view text) {
  constexpr size_t kBlock = 64;
  while (text.size() >= kBlock) {
    unsigned special = 0;  // without a branch, so that the compiler looks at many characters at once
    for (size_t i = 0; i < kBlock; ++i) special |= IsSpecial(static_cast<unsigned char>(text[i]));
    if (special != 0) return false;
    text.remove_prefix(kBlock);
  }
  for (const char c : text) {
    if (IsSpecial(static_cast<unsigned char>(c)) != 0) return false;
  }
  return true;
}

bool ParseByJsoncpp(const char* begin, const char* end, Json::Value& root) {
  constexpr bool kCollectComments = false;
  // Making a reader takes longer than parsing a short text with it.
  static thread_local Json::Reader reader;
  return reader.parse(begin, end, root, kCollectComments);
}

// Reads what messages usually are: objects, arrays, texts, integers of 32 bits and the three names. jsoncpp takes twice
// as long for them, and ten times for a long text, since it looks at each character several times. A text with an
// escape is left to it; at anything else (a comment, a fraction, an error) this gives up, and jsoncpp decides about the
// whole.
class PlainReader {
 public:
  PlainReader(const char* begin, const char* end) : m_At(begin), m_End(end) {}

  bool ReadAll(Json::Value& root) { return m_Read(root, 0) && !m_SkipTo(); }

 private:
  static constexpr int kDepth = 100;

  // To the next character that is no space; false when there is none.
  bool m_SkipTo() {
    while (m_At != m_End && (*m_At == ' ' || *m_At == '\t' || *m_At == '\r' || *m_At == '\n')) ++m_At;
    return m_At != m_End;
  }

  bool m_Take(char expected) {
    if (!m_SkipTo() || *m_At != expected) return false;
    ++m_At;
    return true;
  }

  bool m_Read(Json::Value& value, int depth) {
    if (!m_SkipTo() || depth > kDepth) return false;
    switch (*m_At) {
      case '{':
        return m_ReadObject(value, depth);
      case '[':
        return m_ReadArray(value, depth);
      case '"':
        return m_ReadText(value);
      case 't':
        return m_ReadName("true", true, value);
      case 'f':
        return m_ReadName("false", false, value);
      case 'n':
        return m_ReadName("null", Json::Value(), value);
      default:
        return m_ReadInteger(value);
    }
  }

  bool m_ReadObject(Json::Value& value, int depth) {
    ++m_At;
    value = Json::Value(Json::objectValue);
    if (m_Take('}')) return true;
    do {
      const char* begin = m_SkipTo() ? m_At + 1 : m_At;
      bool hasEscapes = false;
      if (!m_PassText(hasEscapes) || hasEscapes) return false;
      const char* end = m_At - 1;
      if (!m_Take(':') || !m_Read(*value.demand(begin, end), depth + 1)) return false;
    } while (m_Take(','));
    return m_Take('}');
  }

  bool m_ReadArray(Json::Value& value, int depth) {
    ++m_At;
    value = Json::Value(Json::arrayValue);
    if (m_Take(']')) return true;
    do {
      if (!m_Read(value.append(Json::Value()), depth + 1)) return false;
    } while (m_Take(','));
    return m_Take(']');
  }

  bool m_ReadText(Json::Value& value) {
    const char* begin = m_At;
    bool hasEscapes = false;
    if (!m_PassText(hasEscapes)) return false;
    if (hasEscapes) return ParseByJsoncpp(begin, m_At, value);
    value = Json::Value(begin + 1, m_At - 1);
    return true;
  }

  // From the quote that begins a text to behind the one that ends it.
  bool m_PassText(bool& hasEscapes) {
    if (m_At == m_End || *m_At != '"') return false;
    for (const char* from = m_At + 1;;) {
      const auto* quote = static_cast<const char*>(std::memchr(from, '"', static_cast<size_t>(m_End - from)));
      if (quote == nullptr) return false;
      const auto* escape = static_cast<const char*>(std::memchr(from, '\\', static_cast<size_t>(quote - from)));
      if (escape == nullptr) {
        m_At = quote + 1;
        return true;
      }
      hasEscapes = true;
      if (m_End - escape < 2) return false;
      from = escape + 2;
    }
  }

  bool m_ReadName(std::string_view name, Json::Value&& meaning, Json::Value& value) {
    if (std::string_view(m_At, static_cast<size_t>(m_End - m_At)).substr(0, name.size()) != name) return false;
    m_At += name.size();
    value = std::move(meaning);
    return true;
  }

  // What would go on as a fraction is found by whoever expects a comma then.
  bool m_ReadInteger(Json::Value& value) {
    int number = 0;
    const auto [end, error] = std::from_chars(m_At, m_End, number);
    if (error != std::errc()) return false;
    m_At = end;
    value = number;
    return true;
  }

  const char* m_At;
  const char* const m_End;
};

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
  try {
    return PlainReader(text, text + length).ReadAll(root) || ParseByJsoncpp(text, text + length, root);
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
    if (text.size() >= kLong) to.reserve(to.size() + text.size() + kTail);  // or what follows would double the space
    to += '"';
    to += text;
    to += '"';
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
