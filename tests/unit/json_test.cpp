// Our writer and reader against jsoncpp's, whose form and leniency are the wire's.
#include "nira_ipc_json.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

// Documents of what might be taken for something else: long texts, quotes, escapes, comments, and what is no JSON.
class Documents {
 public:
  std::string Next() {
    std::string text = Value(0);
    if (Chance(8)) text.insert(m_Random() % (text.size() + 1), Chance(2) ? "/* \"x\" */" : "// \"x\n");
    if (Chance(6)) text.resize(m_Random() % (text.size() + 1));
    if (Chance(10) && !text.empty()) text[m_Random() % text.size()] = "\"\\{}/:,\x01"[m_Random() % 8];
    return text;
  }

 private:
  bool Chance(unsigned in) { return m_Random() % in == 0; }

  std::string Text() {
    static const std::string pieces[] = {"\\\\", "\\\"", "\\u0041",      "\\ud83d\\ude00",
                                         "/",    "\x80", "\xe2\x82\xac", "\n"};
    const size_t length = Chance(4) ? 1020 + m_Random() % 12 : m_Random() % 20;
    std::string text = "\"";
    while (text.size() <= length) text += Chance(400) ? pieces[m_Random() % std::size(pieces)] : "x";
    return text + '"';
  }

  std::string Several(int depth, bool named) {
    std::string text;
    for (auto count = m_Random() % 4; count > 0; --count) {
      if (named) text += (Chance(3) ? "\"k\"" : Text()) + (Chance(2) ? " \t:" : ":");
      text += Value(depth + 1) + (count > 1 ? " ,\n" : "");
    }
    return text;
  }

  std::string Value(int depth) {
    const auto kind = m_Random() % (depth > 3 ? 3 : 5);
    static const std::string words[] = {"true",        "false", "null", "0", "-0",  "007", "2147483648",
                                        "-2147483649", "1.5",   "1e5",  "-", "tru", "+1",  "99999999999999999999"};
    if (kind == 0)
      return Chance(2) ? words[m_Random() % std::size(words)] : std::to_string(static_cast<int>(m_Random()));
    if (kind < 3) return Text();
    return kind == 3 ? "[" + Several(depth, false) + "]" : "{" + Several(depth, true) + "}";
  }

  std::mt19937 m_Random{1};
};

}  // namespace

TEST(Json, IsReadAndWrittenAsJsoncppDoes) {
  Documents documents;
  Json::FastWriter writer;
  int valid = 0;
  for (int i = 0; i < 5000; ++i) {
    const std::string text = documents.Next();
    Json::Value expected, value;
    const bool isValid = Json::Reader().parse(text.data(), text.data() + text.size(), expected, false);
    ASSERT_EQ(NiraIpcParseJson(text.data(), text.size(), value), isValid) << text;
    if (!isValid) continue;
    ++valid;
    ASSERT_EQ(value, expected) << text;
    ASSERT_EQ(NiraIpcWriteJson(value), writer.write(expected)) << text;
  }
  EXPECT_GT(valid, 1500);
  EXPECT_LT(valid, 4500);
}

TEST(Json, IsReadAsDeepAsJsoncppDoes) {
  for (const size_t depth : {100, 101, 102, 999, 1000, 1001, 100000}) {
    const std::string text = std::string(depth, '[') + std::string(depth, ']');
    Json::Value expected, value;
    bool isValid = false;
    try {
      isValid = Json::Reader().parse(text, expected, false);
    } catch (const Json::Exception&) {  // its way to refuse it
    }
    EXPECT_EQ(NiraIpcParseJson(text.data(), text.size(), value), isValid) << depth;
    EXPECT_TRUE(!isValid || value == expected) << depth;
  }
}

TEST(Json, IsWrittenAsJsoncppDoesWhateverTheValue) {
  Json::Value value;
  for (unsigned char c = 255; c > 0; --c) value["texts"].append(std::string("a") + static_cast<char>(c) + "b");
  for (const double number : {0.0, -0.0, 1.0, 0.1, 1e300, -2.5e-9, HUGE_VAL, -HUGE_VAL, std::nan("")}) {
    value["numbers"].append(number);
  }
  for (const Json::Int64 number : {INT64_MIN, INT64_C(-1), INT64_C(0), INT64_MAX}) value["numbers"].append(number);
  value["numbers"].append(Json::Value::UInt64(UINT64_MAX));
  value["flags"].append(true);
  value["none"];
  value["empty"].append(Json::Value(Json::objectValue));
  value["empty"].append(Json::Value(Json::arrayValue));
  value["empty"].append("");
  value[std::string("nul") + '\0' + ", \"quote\" and \xf0\x9f\x98\x80"] = std::string("a\0b", 3);
  value["long"] = std::string(5000, 'x') + "\xc3\xa4\"" + std::string(100, '\\');
  for (int depth = 0; depth < 500; ++depth) value = Json::Value(Json::arrayValue).append(value);
  EXPECT_EQ(NiraIpcWriteJson(value), Json::FastWriter().write(value));
}
