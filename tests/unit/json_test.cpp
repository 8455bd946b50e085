// JSON texts as the library writes and reads them: as jsoncpp's FastWriter and Reader do, by which the wire goes.
#include "nira_ipc_json.h"
#include "nira_ipc_message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <sstream>
#include <vector>

#pragma GCC diagnostic ignored "-Wdeprecated-declarations"

namespace {

// A message that holds the text tells of it what jsoncpp has found.
void ExpectMessage(const std::string& text, bool isJson, const Json::Value& known) {
  const auto arrived = [&text] { return CNiraIpcMessage(std::string(text)); };
  ASSERT_EQ(arrived().IsJson(), isJson) << text;
  if (!isJson) return;
  const bool isObject = known.isObject();
  const Json::Value key = isObject ? known["uniqueKey"] : Json::Value();
  EXPECT_EQ(arrived().IsObject(), isObject) << text;
  EXPECT_EQ(arrived().Key().value_or(-7), key.isInt() ? key.asInt() : -7) << text;
  EXPECT_TRUE(arrived().Value() == known && arrived().TakeMember("uniqueKey") == key) << text;
  const std::string compact = Json::FastWriter().write(known);
  EXPECT_EQ(arrived().TakeCompactText(), compact) << text;
  NiraIpcJsonOutline outline;
  EXPECT_TRUE(!NiraIpcOutlineJson(compact, outline) || outline.isCompact) << text;
}

// Whether the text is JSON. L stands for a long text, such as jsoncpp is spared, S for as much space, Z for a NUL. The
// library and jsoncpp agree about it and about the value, also when that is written again.
bool IsJson(const std::string& text) {
  std::vector<char> exact;  // nothing follows it in memory
  for (const char c : text)
    exact.insert(exact.end(), c == 'L' || c == 'S' ? 1024 : 1, c == 'S' ? ' ' : c == 'Z' ? '\0' : c);
  Json::Value read, known;
  bool accepted = false;
  try {
    accepted = Json::Reader().parse(exact.data(), exact.data() + exact.size(), known, false);
  } catch (const Json::Exception&) {  // nested too deep
  }
  EXPECT_EQ(NiraIpcParseJson(exact.data(), exact.size(), read), accepted) << text;
  EXPECT_TRUE(!accepted || (read == known && NiraIpcWriteJson(read) == Json::FastWriter().write(known))) << text;
  ExpectMessage({exact.begin(), exact.end()}, accepted, known);
  return accepted;
}

std::mt19937 g_Random;  // the same in every run

// One of the texts that bars separate.
std::string OneOf(const std::string& texts) {
  std::istringstream input(texts);
  std::string text;
  const auto bars = static_cast<size_t>(std::count(texts.begin(), texts.end(), '|'));
  for (size_t n = g_Random() % (bars + 1) + 1; n > 0; --n) std::getline(input, text, '|');
  return text;
}

// What belongs between two tokens, or seldom something that may not.
std::string Gap() {
  return OneOf("||S|\t\r\n") + (g_Random() % 50 == 0 ? OneOf("\"|\\|\\x|\\ud83d|/*\"*/|//\"\n|/|:|]|Z") : "");
}

std::string Text() {
  if (g_Random() % 4 == 0) return OneOf("| |\n") + '"' + OneOf("uniqueKey|type|value|string") + '"' + OneOf("|| ");
  const char* const pieces =
      "|L|L|/|//|/*|*/|,|{|]|Z|\\\"|\\\\|\\/\\n|\\u0000|\\u20AC\\ud83d\\ude00|\\ud83d|\x01-1:0|\\u0001-1:0|"
      "\t\n\x1f\x7f|\xc3\xa9|\xe2\x82\xac|\xf0\x9f\x98\x80|\xff|\x80|\xc3|\xe2\x82|\xf0\x9f\x98|\xc0\xaf|\xed\xa0\x80";
  return Gap() + '"' + OneOf(pieces) + Gap() + OneOf(pieces) + '"' + Gap();
}

std::string Document(int depth) {
  const auto kind = g_Random() % (depth > 0 ? 6 : 2);
  if (kind == 0)
    return Gap() + OneOf(
                       "null|true|false|0|-1|-0|007|2147483647|2147483648|-2147483648|-2147483649|"
                       "9223372036854775808|18446744073709551615|1e400|-0.5e-3|1.|-|tru|1-2");
  if (kind == 1) return Text();
  const bool isArray = kind % 2 == 0;
  std::string text = isArray ? "[" : "{";
  for (auto count = g_Random() % 4, i = count; i > 0; --i)
    text += (i < count ? "," : "") + (isArray ? "" : Text() + ":") + Document(depth - 1);
  return text + (isArray ? "]" : "}") + Gap();
}

}  // namespace

TEST(AJsonText, IsWrittenAsByFastWriter) {
  for (const Json::Value& scalar : {Json::Value(5u), Json::Value(INT64_MIN), Json::Value(-0.0), Json::Value(1e300),
                                    Json::Value(NAN), Json::Value(HUGE_VAL), Json::Value(-HUGE_VAL)})
    EXPECT_EQ(NiraIpcWriteJson(scalar), Json::FastWriter().write(scalar));
  // Every byte in every place: texts are looked through in blocks.
  for (int i = 0; i < 256 * 130; ++i) {
    Json::Value value;
    std::string text(130, 'x');
    text[static_cast<size_t>(i / 256)] = static_cast<char>(i);
    value[text] = text;
    ASSERT_EQ(NiraIpcWriteJson(value), Json::FastWriter().write(value));
  }
}

TEST(AJsonText, IsReadAsByReader) {
  std::istringstream texts(
      R"("L"|{"a":"L","b":["L",1,"L"]}|{"L":"L","L" : 1}|["L\"","\\L\\","\"L\\\""]|["\\","a",S"\""]|["//L","/*L"])"
      R"(|/*"*/["L"]|["L",/*"L*/"L"]|{"L"/**/:"L"}|["\u0001-1:0L","\u0001-1:0"]|{"a":"L","a":"L"} "L|["L"]/|"L|["L])"
      R"(|["L\"]|{"L" "L"}|{"L"}|["L"/]|["L",//"L]|{"uniqueKey":1,"uniqueKey":2}|{"uniqueKey":1,"uniqueKey":{}})"
      R"(|{"a":{"uniqueKey":1}}|{"uniqueKey":[1]}|[{"uniqueKey":1}]|{"b":1,"a":2}|{"ab":1,"a":2}|{"":1,"":1})");
  for (std::string text; std::getline(texts, text, '|');) IsJson(text);
  for (const size_t depth : std::initializer_list<size_t>{100, 101, 102, 999, 1000, 1001, 100000})
    IsJson(std::string(depth, '[') + "\"L\"" + std::string(depth, ']'));
  int accepted = 0;
  for (int i = 0; i < 4000; ++i) accepted += IsJson(Document(4)) ? 1 : 0;
  EXPECT_TRUE(accepted > 1000 && accepted < 3000) << accepted;
}
