#include "nira_ipc_json.h"

#include <charconv>
#include <random>
#include <vector>

// The old names are the wire's reference: Reader's leniency, and FastWriter's form.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

// A text that jsoncpp need not see.
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

// jsoncpp looks at every character of a text several times: a megabyte costs it three milliseconds. So long texts are
// put aside while it parses the rest. In their places it sees marks, which nobody can foresee and write into a message.
class LongTexts {
 public:
  // What is left to parse; empty when there is nothing to put aside.
  std::string PutAside(std::string_view text) {
    std::string rest;
    size_t copied = 0;
    for (size_t at = 0; (at = FindQuote(text, at)) != std::string_view::npos;) {
      const size_t begin = at + 1;
      const size_t end = FindEnd(text, begin);
      if (end == std::string_view::npos) return {};
      if (end - begin >= kLong && IsValue(text, end) &&
          text.substr(begin, end - begin).find('\\') == std::string::npos) {
        rest.append(text, copied, begin - copied).append(Mark()).append(std::to_string(m_Texts.size()));
        m_Texts.push_back(text.substr(begin, end - begin));
        copied = end;
      }
      at = end + 1;
    }
    if (m_Texts.empty()) return {};
    return rest.append(text, copied);
  }

  void PutBack(Json::Value& value) const {
    const char* begin = nullptr;
    const char* end = nullptr;
    if (value.isObject() || value.isArray()) {
      for (Json::Value& member : value) PutBack(member);
    } else if (value.getString(&begin, &end) &&
               std::string_view(begin, static_cast<size_t>(end - begin)).rfind(Mark(), 0) == 0) {
      const std::string_view text = m_Texts.at(std::stoul(begin + Mark().size()));
      value = Json::Value(text.data(), text.data() + text.size());
    }
  }

 private:
  // The next quote that begins a text; none after a comment, which may hold quotes.
  static size_t FindQuote(std::string_view text, size_t from) {
    const size_t quote = text.find('"', from);
    const bool hasComment = text.substr(from, quote - from).find('/') != std::string_view::npos;
    return hasComment ? std::string_view::npos : quote;
  }

  // The quote that ends the text.
  static size_t FindEnd(std::string_view text, size_t from) {
    for (size_t at = from;; ++at) {
      at = text.find('"', at);
      if (at == std::string_view::npos) return at;
      size_t escapes = 0;
      while (text[at - 1 - escapes] == '\\') ++escapes;
      if (escapes % 2 == 0) return at;
    }
  }

  // Whether what ends at that quote is no member's name.
  static bool IsValue(std::string_view text, size_t end) {
    const size_t next = text.find_first_not_of(" \t\r\n", end + 1);
    return next == std::string_view::npos || text[next] != ':';
  }

  static const std::string& Mark() {
    static const std::string mark = [] {
      std::random_device random;
      return "\x01" + std::to_string(random()) + "-" + std::to_string(random()) + ":";
    }();
    return mark;
  }

  std::vector<std::string_view> m_Texts;
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
  constexpr bool kCollectComments = false;
  // Making a reader takes longer than parsing a short text with it.
  static thread_local Json::Reader reader;
  try {
    if (length < kLong) return reader.parse(text, text + length, root, kCollectComments);
    LongTexts longTexts;
    const std::string rest = longTexts.PutAside({text, length});
    if (rest.empty()) return reader.parse(text, text + length, root, kCollectComments);
    if (!reader.parse(rest.data(), rest.data() + rest.size(), root, kCollectComments)) return false;
    longTexts.PutBack(root);
    return true;
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
