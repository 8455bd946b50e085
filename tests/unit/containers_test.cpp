// Bundles, calls and results through their exported functions, and whatever content a peer may send them.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <fstream>

#include "log_capture.h"
#include "nira_ipc.h"
#include "nira_ipc_base64.h"
#include "nira_ipc_bundle_internal.h"

namespace {

enum { kBundle, kFunc, kResult };

// The family's function of this name: the three families share every rule but the few that the tests tell apart.
#define CALL(name, ...)                                        \
  (GetParam() == kBundle ? nira_ipc_bundle_##name(__VA_ARGS__) \
   : GetParam() == kFunc ? nira_ipc_func_##name(__VA_ARGS__)   \
                         : nira_ipc_func_result_##name(__VA_ARGS__))

class AContainer : public testing::TestWithParam<int> {
 protected:
  AContainer() { std::ifstream(NIRA_IPC_RECORDS) >> cases; }
  ~AContainer() override { CALL(free, h); }

  // What all getters together find; nothing for what reads as absent.
  std::string Read(const char* key) {
    std::string found;
    if (const int number = base.GetParamInt(key, 5); number != -1) found += std::to_string(number);
    if (CALL(get_param_string, h, key, &text)) found += "'" + std::string(text) + "'";
    if (void* b = base.GetParamBinary(key, &count)) found += "<" + std::string(static_cast<char*>(b), count + 1);
    char** array = CALL(get_param_string_array, h, key, &count);
    for (unsigned int i = 0; i < count; ++i) found += std::string(array[i]) + ";";
    const int* numbers = CALL(get_param_int_array, h, key, &count);
    for (unsigned int i = 0; i < count; ++i) found += std::to_string(numbers[i]) + ",";
    return found;
  }

  Json::Value cases;
  void* const h = GetParam() == kBundle ? nira_ipc_bundle_new()
                  : GetParam() == kFunc ? nira_ipc_func_new("m")
                                        : nira_ipc_func_result_new();
  CNiraIpcBundle& base = *static_cast<CNiraIpcBundle*>(h);
  const LogCapture log;
  int ints[2] = {-2147483647 - 1, 2147483647}, value = 1;
  const char* texts[4] = {"a", "", "b", nullptr};
  char* text = nullptr;
  unsigned int count = 9;
};
INSTANTIATE_TEST_SUITE_P(OfEachFamily, AContainer, testing::Values(kBundle, kFunc, kResult));

TEST_P(AContainer, TravelsAsTypedRecordsAndKeepsWhatItHandsOut) {
  EXPECT_EQ(Read("no"), "");
  CALL(add_param_int, h, "int", -1);
  CALL(add_param_string, h, "text", "x");
  CALL(add_param_int_array, h, "ints", ints, 2);
  CALL(add_param_string_array, h, "texts", texts, 3);
  CALL(add_param_string_array, h, "none", texts, 0);
  EXPECT_EQ(GetParam() == kResult ? nira_ipc_func_result_get_json(h)["params"] : base.GetJson()["bundle"],
            cases["set"]);
  EXPECT_EQ(Read("text") + Read("none") + Read("no") + Read("texts") + Read("ints"), "'x'a;;b;-2147483648,2147483647,");
  EXPECT_EQ(log.Count("no is not exists\n", 6), GetParam() == kResult ? 1 : 2);  // a fresh result has nothing to search
  for (const char* key : {"int", "no"})
    EXPECT_TRUE(CALL(get_param_int, h, key, &value) == (GetParam() != kFunc) && value == -1) << key;

  char** const array = CALL(get_param_string_array, h, "texts", &count);
  const char* const rows[][2] = {{"long", "long"}, {"lo", "long"}, {"", "long"}, {"longer", "longer"}, {"x", "x"}};
  for (const auto& [set, read] : rows) {
    CALL(add_param_string, h, "texts", set);
    ASSERT_TRUE(CALL(get_param_string, h, "texts", &text) && text == base.GetParamString("texts", 0)) << set;
    EXPECT_STREQ(text, read);
  }
  EXPECT_EQ(std::string(array[0]) + array[2], "ab");  // the texts that came and went took nothing of it along
}

TEST_P(AContainer, TakesAnythingFromAPeer) {
  const Json::Value& records = cases["arriving, with what the getters find"];
  Json::Value content;
  (GetParam() == kResult ? content["params"] : content) = records;
  base.SetJsonParam(content);
  for (const std::string& name : records.getMemberNames())
    EXPECT_EQ(Read(name.c_str()), records[name].isObject() ? records[name]["found"].asString() : "") << name;

  for (const Json::Value& row : cases["arriving contents without a record \"k\" or a true flag"]) {
    base.SetJsonParam(row);
    EXPECT_EQ(Read("k"), "") << row;
    EXPECT_FALSE(GetParam() == kResult && nira_ipc_func_result_get_result(h)) << row;
    CALL(add_param_int, h, "k", 6);
    EXPECT_EQ(Read("k"), "6") << row;
  }
}

TEST_P(AContainer, RefusesNullArgumentsAndIgnoresANullHandle) {
  void* block = nullptr;
  for (void* c : {block, h}) {
    for (const char* key : {static_cast<const char*>(nullptr), "k"}) {  // with this one the next argument is null
      const bool isKeyNull = key == nullptr;
      CALL(add_param_string, c, key, isKeyNull ? "x" : nullptr);
      CALL(add_param_int_array, c, key, isKeyNull ? ints : nullptr, 1);
      CALL(add_param_string_array, c, key, isKeyNull ? texts : nullptr, 1);
      nira_ipc_bundle_add_param_binary(c, key, isKeyNull ? "x" : nullptr, 1);
      EXPECT_FALSE(CALL(get_param_string, c, key, isKeyNull ? &text : nullptr) ||
                   CALL(get_param_int_array, c, key, isKeyNull ? &count : nullptr) ||
                   CALL(get_param_string_array, c, key, isKeyNull ? &count : nullptr) ||
                   nira_ipc_bundle_get_param_binary(c, key, isKeyNull ? &block : nullptr, &count));
    }
    CALL(add_param_int, c, nullptr, 2);
    CALL(add_param_string_array, c, "k", texts, 4);
    EXPECT_EQ(log.Count("parameta is NULL", 6), c != nullptr ? 18 : 0);
  }
  const bool lenient = GetParam() == kResult;
  EXPECT_TRUE(CALL(get_param_int, nullptr, "k", &value) == lenient && value == (lenient ? -1 : 1) && count == 9);
  EXPECT_TRUE(CALL(get_param_int, h, "k", nullptr) == lenient && log.Count("parameta is NULL", 6) == 19);
  EXPECT_EQ(Read("k"), "");
  nira_ipc_func_result_set_result(nullptr, 1);
  EXPECT_FALSE(nira_ipc_func_result_get_result(nullptr) || !nira_ipc_func_result_get_json(nullptr).isNull() ||
               nira_ipc_func_get_func_name(nullptr, &text));
  void* const func = nira_ipc_func_new(nullptr);
  EXPECT_TRUE(nira_ipc_func_get_func_name(func, &text) && *text == '\0' && !nira_ipc_func_get_func_name(func, nullptr));
  EXPECT_EQ(log.Count("parameta is NULL", 6), 21);
  nira_ipc_func_free(func);
}

TEST(ABundle, CarriesBlocksAsBase64AndDecodesAKeyOnce) {
  CNiraIpcBundle bundle;
  void *block = nullptr, *again = nullptr;
  unsigned int size = 0;
  unsigned char expected[345];
  for (std::string data; data.size() <= 256; data.insert(0, 1, static_cast<char>(data.size()))) {
    const std::string key = std::to_string(data.size());
    EVP_EncodeBlock(expected, reinterpret_cast<const unsigned char*>(data.data()), static_cast<int>(data.size()));
    nira_ipc_bundle_add_param_binary(&bundle, key.c_str(), data.data(), static_cast<unsigned int>(data.size()));
    EXPECT_EQ(bundle.GetJson()["bundle"][key]["value"].asString(), reinterpret_cast<char*>(expected));
    ASSERT_TRUE(nira_ipc_bundle_get_param_binary(&bundle, key.c_str(), &block, &size));
    EXPECT_EQ(std::string(static_cast<char*>(block), size), data);
  }
  EXPECT_TRUE(b64_decode(expected + 344, 0, expected, &size) == 1 && size == 0);  // no look at the "==" before it
  nira_ipc_bundle_add_param_binary(&bundle, "256", "other", 5);
  EXPECT_TRUE(nira_ipc_bundle_get_param_binary(&bundle, "256", &again, &size) && again == block && size == 0);
  EXPECT_FALSE(nira_ipc_bundle_get_param_binary(&bundle, "none", &again, &size) || again != nullptr || size != 0);
}

}  // namespace
