// Bundles, calls and results through their exported functions, and whatever content a peer may send them.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <string>

#include "log_capture.h"
#include "nira_ipc.h"
#include "nira_ipc_base64.h"
#include "nira_ipc_func_internal.h"
#include "nira_ipc_func_result_internal.h"
#include "nira_ipc_json.h"

namespace {

// The three families as one table: they share every rule but the few that the tests tell apart.
// clang-format off
#define NIRA_EACH(X) X(free) X(add_param_int) X(add_param_string) X(add_param_int_array) X(add_param_string_array) \
  X(get_param_int) X(get_param_string) X(get_param_int_array) X(get_param_string_array)
#define NIRA_MEMBER(name) decltype(&nira_ipc_bundle_##name) name;  // NOLINT(bugprone-macro-parentheses): declares it
#define NIRA_BUNDLE(name) nira_ipc_bundle_##name,
#define NIRA_FUNC(name) nira_ipc_func_##name,
#define NIRA_RESULT(name) nira_ipc_func_result_##name,
struct Family { void* (*make)(); Json::Value (*json)(void*); NIRA_EACH(NIRA_MEMBER) };
const Family kFamilies[] = {
  {nira_ipc_bundle_new, [](void* b) { return static_cast<CNiraIpcBundle*>(b)->GetJson(); }, NIRA_EACH(NIRA_BUNDLE)},
  {[] { return nira_ipc_func_new("m"); }, [](void* f) { return static_cast<CNiraIpcFunc*>(f)->GetJson(); },
   NIRA_EACH(NIRA_FUNC)},
  {nira_ipc_func_result_new, nira_ipc_func_result_get_json, NIRA_EACH(NIRA_RESULT)}};
// clang-format on
enum { kBundle, kFunc, kResult };

class AContainer : public testing::TestWithParam<int> {
 protected:
  ~AContainer() override { f.free(h); }

  // What all getters together find; nothing for what reads as absent.
  std::string Read(const char* key) {
    std::string found;
    if (const int number = base.GetParamInt(key, 5); number != -1) found += std::to_string(number);
    if (f.get_param_string(h, key, &text)) found += "'" + std::string(text) + "'";
    if (void* b = base.GetParamBinary(key, &count)) found += "<" + std::string(static_cast<char*>(b), count + 1);
    char** array = f.get_param_string_array(h, key, &count);
    for (unsigned int i = 0; i < count; ++i) found += std::string(array[i]) + ";";
    const int* numbers = f.get_param_int_array(h, key, &count);
    for (unsigned int i = 0; i < count; ++i) found += std::to_string(numbers[i]) + ",";
    return found;
  }

  const Family& f = kFamilies[GetParam()];
  void* const h = f.make();
  CNiraIpcBundle& base = *static_cast<CNiraIpcBundle*>(h);
  const LogCapture log;
  int value = 1;
  char* text = nullptr;
  unsigned int count = 9;
  const char* texts[4] = {"a", "", "b", nullptr};
};
INSTANTIATE_TEST_SUITE_P(OfEachFamily, AContainer, testing::Values(kBundle, kFunc, kResult));

TEST_P(AContainer, TravelsAsItsRecordsAndReadsThemBack) {
  const char* const empty[] = {"{\"bundle\":null}\n", "{\"method\":\"m\",\"params\":null}\n", "{\"result\":false}\n"};
  const char* const before[] = {R"({"bundle":)", R"({"method":"m","params":)", R"({"params":)"};
  const char* const after[] = {"}\n", "}\n", ",\"result\":false}\n"};
  const std::string records =
      R"({"int":{"type":"int","value":-1},"ints":{"type":"int_array","value":[-2147483648,2147483647]},)"
      R"("none":{"type":"string_array","value":null},"text":{"type":"string","value":"x"},)"
      R"("texts":{"type":"string_array","value":["a","","b"]}})";
  int ints[] = {-2147483647 - 1, 2147483647};
  EXPECT_EQ(NiraIpcWriteJson(f.json(h)) + Read("no"), empty[GetParam()]);
  f.add_param_int(h, "int", -1);
  f.add_param_string(h, "text", "x");
  f.add_param_int_array(h, "ints", ints, 2);
  f.add_param_string_array(h, "texts", texts, 3);
  f.add_param_string_array(h, "none", texts, 0);
  EXPECT_EQ(NiraIpcWriteJson(f.json(h)), before[GetParam()] + records + after[GetParam()]);
  EXPECT_EQ(Read("text") + Read("none") + Read("no") + Read("texts") + Read("ints"), "'x'a;;b;-2147483648,2147483647,");
  EXPECT_EQ(log.Count(6, "no is not exists\n"), GetParam() == kResult ? 1 : 2);  // a fresh result has nothing to search
  for (const char* key : {"int", "no"})
    EXPECT_TRUE(f.get_param_int(h, key, &value) == (GetParam() != kFunc) && value == -1) << key;
}

// "records": each with what the getters find in it. "contents": none has a record under "k", nor a true flag.
constexpr char kArriving[] = R"({"records":[
  [{"type":"int","value":5}, "5"], [{"type":"int","value":3000000000}, ""], [{"type":"int","value":"5"}, ""],
  [{"type":"int"}, ""], [{"type":7,"value":7}, ""], [{"type":["int"],"value":7}, ""], [{"value":7}, ""], [null, ""],
  [[{}], ""], [{"type":"string","value":{}}, "'not found'"], [{"type":"string","value":"a\u0000b"}, "'a'"], [7, ""],
  [{"type":"string","value":12}, "'12'"], [{"type":"int_array","value":[1,"2",3000000000,null,-4]}, "1,-4,"],
  [{"type":"int_array","value":{"a":1}}, ""], [{"type":"string_array","value":["a",1,"b\u0000c",null,""]}, "a;b;;"],
  [{"type":"string_array","value":"abc"}, ""], [{"type":"binary","value":"YR==YWI="}, "<a\u0000\u0000ab\u0000"],
  [{"type":"binary","value":"YWI\u0000"}, "<\u0000"], [{"type":"binary","value":[]}, "<\u0000"]],
 "contents":[null, 3, true, "k", [], [{"k":1}], {}, {"params":[1],"result":["x"]}]})";

TEST_P(AContainer, TakesAnythingFromAPeer) {
  Json::Value arriving, content;
  ASSERT_TRUE(NiraIpcParseJson(kArriving, arriving));
  const Json::Value& rows = arriving["records"];
  Json::Value& records = GetParam() == kResult ? content["params"] : content;
  for (unsigned int i = 0; i < rows.size(); ++i) records[std::to_string(i)] = rows[i][0];
  base.SetJsonParam(content);
  for (unsigned int i = 0; i < rows.size(); ++i) EXPECT_EQ(Read(std::to_string(i).c_str()), rows[i][1].asString()) << i;

  for (const Json::Value& row : arriving["contents"]) {
    base.SetJsonParam(row);
    EXPECT_EQ(Read("k"), "") << row;
    EXPECT_FALSE(GetParam() == kResult && nira_ipc_func_result_get_result(h)) << row;
    f.add_param_int(h, "k", 6);
    EXPECT_EQ(Read("k"), "6") << row;
  }
}

TEST_P(AContainer, KeepsWhatItHandedOut) {
  const char* const rows[][2] = {{"long", "long"}, {"lo", "long"}, {"", "long"}, {"longer", "longer"}, {"x", "x"}};
  f.add_param_string_array(h, "k", texts, 3);
  char** array = f.get_param_string_array(h, "k", &count);
  for (const auto& [set, read] : rows) {
    f.add_param_string(h, "k", set);
    ASSERT_TRUE(f.get_param_string(h, "k", &text) && text == base.GetParamString("k", 0)) << set;
    EXPECT_STREQ(text, read);
  }
  EXPECT_EQ(std::string(array[0]) + array[2], "ab");  // the texts that came and went took nothing of it along
}

TEST_P(AContainer, RefusesNullArgumentsAndIgnoresANullHandle) {
  const bool lenient = GetParam() == kResult;
  for (void* c : {static_cast<void*>(nullptr), h}) {
    f.add_param_int(c, nullptr, 2);
    f.add_param_string(c, nullptr, "x");
    f.add_param_string(c, "k", nullptr);
    f.add_param_int_array(c, nullptr, &value, 1);
    f.add_param_int_array(c, "k", nullptr, 0);
    f.add_param_string_array(c, nullptr, texts, 1);
    f.add_param_string_array(c, "k", nullptr, 0);
    f.add_param_string_array(c, "k", texts, 4);
    EXPECT_FALSE(f.get_param_string(c, nullptr, &text) || f.get_param_string(c, "k", nullptr) ||
                 f.get_param_int_array(c, nullptr, &count) || f.get_param_int_array(c, "k", nullptr) ||
                 f.get_param_string_array(c, nullptr, &count) || f.get_param_string_array(c, "k", nullptr));
    EXPECT_EQ(log.Count(6, "parameta is NULL"), c != nullptr ? 14 : 0);
  }
  EXPECT_TRUE(f.get_param_int(nullptr, "k", &value) == lenient && value == (lenient ? -1 : 1) && count == 9);
  EXPECT_TRUE(f.get_param_int(h, "k", nullptr) == lenient && log.Count(6, "parameta is NULL") == 15);
  EXPECT_EQ(Read("k"), "");
}

TEST(ACallAndItsResult, HaveAnEmptyNameAndAFlag) {
  const LogCapture log;
  char* name = nullptr;
  void* const func = nira_ipc_func_new(nullptr);
  EXPECT_TRUE(nira_ipc_func_get_func_name(func, &name) && *name == '\0');
  EXPECT_FALSE(nira_ipc_func_get_func_name(func, nullptr) || nira_ipc_func_get_func_name(nullptr, &name));
  EXPECT_EQ(log.Count(6, "parameta is NULL"), 2);
  nira_ipc_func_free(func);
  CNiraIpcFuncResult result;
  nira_ipc_func_result_set_result(&result, 2);
  nira_ipc_func_result_set_result(nullptr, 2);
  EXPECT_TRUE(nira_ipc_func_result_get_result(&result));
  EXPECT_FALSE(nira_ipc_func_result_get_result(nullptr) || !nira_ipc_func_result_get_json(nullptr).isNull());
}

TEST(ABundle, CarriesBlocksAsBase64AndDecodesAKeyOnce) {
  unsigned char bytes[256], expected[345];
  void *first = nullptr, *block = nullptr;
  unsigned int size = 9;
  for (unsigned int i = 0; i < 256; ++i) bytes[i] = static_cast<unsigned char>(i);
  for (unsigned int length = 0; length <= 256; ++length) {
    CNiraIpcBundle bundle;
    EVP_EncodeBlock(expected, bytes + 256 - length, static_cast<int>(length));
    bundle.SetParamBinary("k", bytes + 256 - length, length);
    EXPECT_EQ(bundle.GetJson()["bundle"]["k"]["value"].asString(), reinterpret_cast<char*>(expected));
    block = bundle.GetParamBinary("k", &size);
    EXPECT_TRUE(size == length && std::memcmp(block, bytes + 256 - length, length) == 0) << length;
  }
  EXPECT_TRUE(b64_decode(expected + 344, 0, bytes, &size) == 1 && size == 0);  // no look at the "==" before it
  const LogCapture log;
  CNiraIpcBundle b;
  nira_ipc_bundle_add_param_binary(&b, "k", "f", 1);
  EXPECT_TRUE(nira_ipc_bundle_get_param_binary(&b, "k", &first, &size) && size == 1);
  nira_ipc_bundle_add_param_binary(&b, "k", "other", 5);
  EXPECT_TRUE(nira_ipc_bundle_get_param_binary(&b, "k", &block, &size) && size == 1 && block == first);
  EXPECT_FALSE(nira_ipc_bundle_get_param_binary(&b, "none", &block, &size) || size != 1 || block != nullptr);
  for (const char* line : {"Input binary size = 1 (SAFE: 0)\n", "B64Encoded binary data = Zg==\n",
                           "B64Encoded binary size = 4\n", "b64DecodedText = f\n"})
    EXPECT_EQ(log.Count(4, line), 1) << line;
  b.SetParamBinary("k", nullptr, 0);
  b.SetParamBinary(nullptr, "f", 1);
  nira_ipc_bundle_add_param_binary(nullptr, "k", "f", 1);
  EXPECT_FALSE(nira_ipc_bundle_get_param_binary(&b, "k", nullptr, &size) || b.GetParamBinary("k", nullptr) != nullptr ||
               nira_ipc_bundle_get_param_binary(nullptr, "k", &block, &size) || log.Count(6, "parameta is NULL") != 4);
}

}  // namespace
