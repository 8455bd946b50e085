#include "nira_ipc_json.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>

// The old names are the wire's reference: Reader's leniency, and FastWriter's form.
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

// A text that is worth making room for.
constexpr size_t kLong = 1024;

// What usually follows the last text of a message.
constexpr size_t kTail = 256;

// Whether a character does not stand for itself in a JSON text.
constexpr unsigned IsSpecial(unsigned char c) {
  return (c < 0x20) | (c > 0x7f) | (c == '"') | (c == '\\');
}

constexpr auto kIsSpecial = [] {
  std::array<bool, 256> isSpecial = {};
  for (unsigned c = 0; c < isSpecial.size(); ++c) isSpecial[c] = IsSpecial(static_cast<unsigned char>(c)) != 0;
  return isSpecial;
}();

bool IsPlain(std::string_view text) {
  constexpr size_t kBlock = 64;
  while (text.size() >= kBlock) {
    unsigned special = 0;  // without a branch, so that the compiler looks at many characters at once
    for (size_t i = 0; i < kBlock; ++i) special |= IsSpecial(static_cast<unsigned char>(text[i]));
    if (special != 0) return false;
    text.remove_prefix(kBlock);
  }
  for (const char c : text) {
    if (kIsSpecial[static_cast<unsigned char>(c)]) return false;
  }
  return true;
}

// The protocol's own words. jsoncpp keeps a copy of a member's name and makes another on the way, but not of a text
// that is static.
constexpr std::string_view kWords[] = {"type",   "value",   "int",          "string",    "caller",    "request",
                                       "method", "params",  "request_type", "timestamp", "uniqueKey", "result",
                                       "bundle", "message", "string_array", "int_array", "binary",    "stat"};

// The word that is the same as this text; null when there is none.
const char* FindWord(std::string_view text) {
  for (const std::string_view word : kWords) {
    if (word.size() == text.size() && word.front() == text.front() && word == text) return word.data();
  }
  return nullptr;
}

// Whether jsoncpp keeps a member behind another. Most names differ in their first letters.
bool IsBehind(std::string_view name, std::string_view other) {
  if (!name.empty() && !other.empty() && name.front() != other.front()) return name.front() > other.front();
  return name > other;
}

Json::Value& AddMember(Json::Value& object, std::string_view name) {
  if (const char* word = FindWord(name)) return object[Json::StaticString(word)];
  return *object.demand(name.data(), name.data() + name.size());
}

bool ParseByJsoncpp(const char* begin, const char* end, Json::Value& root) {
  constexpr bool kCollectComments = false;
  // Making a reader takes longer than parsing a short text with it.
  static thread_local Json::Reader reader;
  return reader.parse(begin, end, root, kCollectComments);
}

// Reads what messages usually are: objects, arrays, texts, integers of 32 bits and the three names. jsoncpp takes twice
// as long for them, and ten times for a long text, since it looks at each character several times. At anything else (a
// comment, a fraction, an error) this gives up, and jsoncpp decides about the whole.
//
// A Target is told what stands in its place.
template <class Target>
class PlainReader {
 public:
  explicit PlainReader(std::string_view text) : m_At(text.data()), m_End(text.data() + text.size()) {}

  bool ReadAll(Target root) {
    if (!m_Read(root, 0)) return false;
    if (m_End - m_At == 1 && *m_At == '\n') ++m_At;
    return !m_SkipTo();
  }

  // Whether the text that was read is what NiraIpcWriteJson makes of its value; its line feed may be missing.
  bool IsCompact() const { return m_IsCompact; }

 private:
  static constexpr int kDepth = 100;
  static constexpr ptrdiff_t kShort = 32;  // looking for the end of a longer text at many characters at once pays

  // To the next character that is no space; false when there is none.
  bool m_SkipTo() {
    if (m_At != m_End && static_cast<unsigned char>(*m_At) > ' ') return true;  // usually
    const char* const from = m_At;
    while (m_At != m_End && (*m_At == ' ' || *m_At == '\t' || *m_At == '\r' || *m_At == '\n')) ++m_At;
    if (m_At != from) m_IsCompact = false;
    return m_At != m_End;
  }

  bool m_Take(char expected) {
    if (!m_SkipTo() || *m_At != expected) return false;
    ++m_At;
    return true;
  }

  bool m_Read(Target target, int depth) {
    if (!m_SkipTo() || depth > kDepth) return false;
    switch (*m_At) {
      case '{':
        return m_ReadObject(target, depth);
      case '[':
        return m_ReadArray(target, depth);
      case '"':
        return m_ReadText(target);
      case 't':
        return m_ReadName("true", true, target);
      case 'f':
        return m_ReadName("false", false, target);
      case 'n':
        return m_ReadName("null", {}, target);
      default:
        return m_ReadInteger(target);
    }
  }

  bool m_ReadObject(Target target, int depth) {
    ++m_At;
    target.SetObject();
    if (m_Take('}')) return true;
    std::string_view last;
    do {
      std::string_view name;
      bool hasEscapes = false;
      if (!m_SkipTo() || !m_PassText(name, hasEscapes) || hasEscapes) return false;
      if (Target::kLooksAtForm && last.data() != nullptr && !IsBehind(name, last)) m_IsCompact = false;
      if (!m_Take(':') || !m_Read(target.Member(name), depth + 1)) return false;
      last = name;
    } while (m_Take(','));
    return m_Take('}');
  }

  bool m_ReadArray(Target target, int depth) {
    ++m_At;
    target.SetArray();
    if (m_Take(']')) return true;
    do {
      if (!m_Read(target.Element(), depth + 1)) return false;
    } while (m_Take(','));
    return m_Take(']');
  }

  bool m_ReadText(Target target) {
    std::string_view text;
    bool hasEscapes = false;
    if (!m_PassText(text, hasEscapes)) return false;
    if (hasEscapes) return target.SetEscaped(text);
    target.SetText(text);
    return true;
  }

  // From the quote that begins a text to behind the one that ends it; gives what is between them.
  bool m_PassText(std::string_view& text, bool& hasEscapes) {
    if (*m_At != '"') return false;
    const char* const begin = ++m_At;
    if (m_PassShortText()) {
      text = {begin, static_cast<size_t>(m_At - 1 - begin)};
      return true;
    }
    for (m_At = begin;;) {
      const auto* quote = static_cast<const char*>(std::memchr(m_At, '"', static_cast<size_t>(m_End - m_At)));
      if (quote == nullptr) return false;
      const auto* escape = static_cast<const char*>(std::memchr(m_At, '\\', static_cast<size_t>(quote - m_At)));
      if (escape == nullptr) {
        m_At = quote + 1;
        text = {begin, static_cast<size_t>(quote - begin)};
        if (Target::kLooksAtForm && !IsPlain(text)) m_IsCompact = false;
        return true;
      }
      hasEscapes = true;
      if (m_End - escape < 2) return false;
      m_At = escape + 2;
    }
  }

  // The same for most texts.
  bool m_PassShortText() {
    const char* const end = m_At + std::min<ptrdiff_t>(m_End - m_At, kShort);
    while (m_At != end && !kIsSpecial[static_cast<unsigned char>(*m_At)]) ++m_At;
    return m_At != end && *m_At++ == '"';
  }

  bool m_ReadName(std::string_view name, std::optional<bool> meaning, Target target) {
    if (std::string_view(m_At, static_cast<size_t>(m_End - m_At)).substr(0, name.size()) != name) return false;
    m_At += name.size();
    target.SetName(meaning);
    return true;
  }

  // What would go on as a fraction is found by whoever expects a comma then.
  bool m_ReadInteger(Target target) {
    int number = 0;
    const auto [end, error] = std::from_chars(m_At, m_End, number);
    if (error != std::errc()) return false;
    const char* const digits = m_At + (*m_At == '-' ? 1 : 0);
    if (*digits == '0' && end - m_At > 1) m_IsCompact = false;  // 007 or -0
    m_At = end;
    target.SetInteger(number);
    return true;
  }

  const char* m_At;
  const char* const m_End;
  bool m_IsCompact = true;
};

// Makes the value, or one member of the root alone.
struct ValueTarget {
  static constexpr bool kLooksAtForm = false;
  struct Only {
    std::string_view name;
    Json::Value* value;
  };

  void SetObject() const { Set(Json::Value(Json::objectValue)); }
  void SetArray() const { Set(Json::Value(Json::arrayValue)); }
  ValueTarget Member(std::string_view name) const {
    if (only != nullptr) return {name == only->name ? only->value : nullptr};
    return {value != nullptr ? &AddMember(*value, name) : nullptr};
  }
  ValueTarget Element() const { return {value != nullptr ? &value->append(Json::Value()) : nullptr}; }
  void SetInteger(int number) const { Set(Json::Value(number)); }
  void SetName(std::optional<bool> meaning) const { Set(meaning ? Json::Value(*meaning) : Json::Value()); }
  void SetText(std::string_view text) const {
    if (value == nullptr) return;
    const char* word = FindWord(text);
    Set(word != nullptr ? Json::Value(Json::StaticString(word)) : Json::Value(text.begin(), text.end()));
  }
  bool SetEscaped(std::string_view text) const {
    return value != nullptr && ParseByJsoncpp(text.begin() - 1, text.end() + 1, *value);
  }
  void Set(Json::Value&& what) const {
    if (value != nullptr) *value = std::move(what);
  }

  Json::Value* value;  // null where nothing is wanted
  const Only* only = nullptr;
};

// Finds the integer that is one member of the root.
struct OutlineTarget {
  static constexpr bool kLooksAtForm = true;
  enum Place { kRoot, kInteger, kElsewhere };

  void SetObject() const {
    if (place == kRoot) outline->isObject = true;
    SetOther();
  }
  void SetArray() const { SetOther(); }
  OutlineTarget Member(std::string_view name) const {
    return {outline, place == kRoot && name == outline->name ? kInteger : kElsewhere};
  }
  OutlineTarget Element() const { return {outline, kElsewhere}; }
  void SetInteger(int number) const {
    if (place == kInteger) outline->integer = number;
  }
  void SetName(std::optional<bool>) const { SetOther(); }
  void SetText(std::string_view) const { SetOther(); }
  static bool SetEscaped(std::string_view) { return false; }  // only jsoncpp knows whether it is valid
  void SetOther() const {
    if (place == kInteger) outline->integer.reset();  // the last of several members of a name counts
  }

  NiraIpcJsonOutline* outline;
  Place place;
};

template <class Append>
void AppendMembers(std::string& to, const Json::Value& value, Append append) {
  const auto end = value.end();
  for (auto member = value.begin(); member != end;) {
    append(member);
    if (++member != end) to += ',';
  }
}

}  // namespace

bool NiraIpcParseJson(const char* text, size_t length, Json::Value& root) {
  try {
    return PlainReader<ValueTarget>({text, length}).ReadAll({&root}) || ParseByJsoncpp(text, text + length, root);
  } catch (const Json::Exception&) {  // the reader's way to refuse deep nesting
    return false;
  }
}

bool NiraIpcOutlineJson(std::string_view text, NiraIpcJsonOutline& outline) {
  PlainReader<OutlineTarget> reader(text);
  if (!reader.ReadAll({&outline, OutlineTarget::kRoot})) return false;
  outline.isCompact = reader.IsCompact();
  return true;
}

void NiraIpcParseJsonMember(std::string_view text, std::string_view name, Json::Value& value) {
  const ValueTarget::Only only = {name, &value};
  PlainReader<ValueTarget>(text).ReadAll({nullptr, &only});
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
  switch (value.type()) {
    case Json::objectValue:
      to += '{';
      AppendMembers(to, value, [&](auto& member) {
        const char* name = member.memberName(&end);
        NiraIpcAppendJson(to, std::string_view(name, static_cast<size_t>(end - name)));
        to += ':';
        NiraIpcAppendJson(to, *member);
      });
      to += '}';
      break;
    case Json::arrayValue:
      to += '[';
      AppendMembers(to, value, [&](auto& element) { NiraIpcAppendJson(to, *element); });
      to += ']';
      break;
    case Json::stringValue:
      value.getString(&begin, &end);
      NiraIpcAppendJson(to, std::string_view(begin, static_cast<size_t>(end - begin)));
      break;
    case Json::intValue:
      NiraIpcAppendJson(to, value.asInt64());
      break;
    default:
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
