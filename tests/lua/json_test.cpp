#include "lua/json.h"

#include <memory>
#include <sstream>
#include <string>
#include <utility>

#include <json/reader.h>
#include <json/value.h>

#include "lua/libs/libs.h"
#include "lua/script_test_util.h"
#include "utils/json_writer.h"

namespace {

using lua::RunTime;
using lua_test::StartsWith;
using lua_test::ThrownText;

Json::Value Parse(const std::string& text) {
  Json::Value value;
  std::istringstream in(text);
  EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), in, &value, nullptr)) << text;
  return value;
}

class JsonConversion : public ::testing::Test {
 protected:
  void SetUp() override {
    lua::RegisterJsonLib();
    rt_ = RunTime::Create();
  }

  static std::string Text(const Json::Value& value) { return utils::WriteJson(value, false); }

  // The script's first result as JSON text through AsJsonValue, or the error.
  std::string ScriptToJson(const std::string& code) {
    RunTime::StackCleaner cleaner(rt_);
    std::string text;
    const std::string error = ThrownText([&] { text = Text(rt_->RunString(code, false).front()->AsJsonValue()); });
    return text.empty() ? error : text;
  }

  boost::shared_ptr<RunTime> rt_;
};

TEST_F(JsonConversion, DocumentsSurviveTheRoundTripThroughAScriptTable) {
  const std::pair<const char*, const char*> cases[] = {
      // null: the same as the input
      {"[[],{},[[]],{\"a\":{}}]", nullptr},
      {"[1,null,3]", nullptr},
      {"[null,null]", "[]"},  // nothing was stored, but the table still knows it is an array
      {"{\"a\":null,\"b\":1}", "{\"b\":1}"},
      {"[9223372036854775807,-9223372036854775808]", nullptr},
      {"[2.0,0.5,-0.0,1e+300]", nullptr},
      {"\"caf\\u00e9 \\ud83d\\ude00\"", "\"caf\xC3\xA9 \xF0\x9F\x98\x80\""},
      {"{\"1\":\"one\",\"2\":\"two\"}", nullptr},  // string keys that look like indices stay an object
      {"null", nullptr},
      {"2.0", nullptr},
  };
  for (const auto& [in, out] : cases) {
    RunTime::StackCleaner cleaner(rt_);
    const int top = rt_->StackTopIndex();
    const boost::shared_ptr<lua::ObjectRef> value = rt_->CreateAtStack(Parse(in));
    EXPECT_EQ(Text(value->AsJsonValue()), out ? out : in);
    EXPECT_EQ(rt_->StackTopIndex(), top + 1) << in;
  }
}

TEST_F(JsonConversion, AnnotationOrElseTheKeysDecideTheKind) {
  const std::pair<const char*, const char*> cases[] = {
      {"return {}", "[]"},
      {"return {1, 2, nil, 4}", "[1,2,null,4]"},
      {"return {[1] = 'a', x = 1}", "{\"1\":\"a\",\"x\":1}"},
      {"return {[3] = 'c', [1] = 'a'}", "[\"a\",null,\"c\"]"},
      {"return {[0] = 'zero'}", "{\"0\":\"zero\"}"},
      {"return {[1.5] = true}", "{\"1.5\":true}"},
      {"return {2.0, 3, 2^63, 1e300}", "[2.0,3,9223372036854775808.0,1e+300]"},
      {"return {json.null, n = json.null}", "{\"1\":null,\"n\":null}"},
      {"return json.object({})", "{}"},
      {"return json.array({[2] = 'b'})", "[null,\"b\"]"},
      {"return json.array({x = 1})", "Invalid reference"},
      {"return json.array({[0] = 1})", "AsJsonArray(): invalid array index: '0'"},
      {"local t = {} json['_$meta'][t] = {type = 7} return t", "AsJsonValue(): bad annotated type: '7'"},
      // A few keys must not ask for gigabytes of nulls (the bound is 1000000).
      {"return {[1] = 1, [4000000000] = 2}", "AsJsonValue(): array too sparse (index 4000000000 with 2 elements)"},
      {"return json.array({[1000001] = 1})", "AsJsonValue(): array too sparse (index 1000001 with 1 elements)"},
  };
  for (const auto& [code, json] : cases) EXPECT_EQ(ScriptToJson(code), json) << code;
  EXPECT_EQ(ScriptToJson("return {[1000000] = 1}").size(), 4999998u);
  EXPECT_TRUE(StartsWith(ScriptToJson("return {print}"), "[\"function: "));
  // The explicit forms ignore the annotation.
  const auto table = rt_->RunString("return json.array({})", false).front()->AsTableRef();
  EXPECT_EQ(Text(table->AsJsonObject()), "{}");
  EXPECT_EQ(Text(table->AsJsonArrayOrObject()), "[]");
}

// The annotation is kept in json's weak table of metadata, outside the table;
// without the json library nothing is annotated.
TEST_F(JsonConversion, AnnotationsAreRecordedPerTableOutsideIt) {
  const auto decoded = rt_->CreateAtStack(Parse("[[],[]]"))->AsTableRef();
  const auto first = decoded->Get(1);
  const auto second = decoded->Get(2);
  const int top = rt_->StackTopIndex();
  lua::SetJsonAnnotatedType(first, lua::JsonAnnotatedObject);
  // Tables share metadata; changing one must not change the other.
  EXPECT_EQ(lua::GetJsonAnnotatedType(second), lua::JsonAnnotatedArray);
  EXPECT_EQ(Text(decoded->AsJsonValue()), "[{},[]]");
  lua::SetJsonAnnotatedType(first, lua::JsonNotAnnotated);
  EXPECT_EQ(lua::GetJsonAnnotatedType(first), lua::JsonNotAnnotated);
  EXPECT_EQ(rt_->StackTopIndex(), top);

  EXPECT_EQ(rt_->RunString("return getmetatable(json['_$meta']).__mode", false).front()->AsString(), "k");
  EXPECT_EQ(ThrownText([&] { lua::SetJsonAnnotatedType(rt_->CreateAtStack(5), lua::JsonAnnotatedArray); }),
            "SetJsonAnnotatedType(): an attempt to annotate lua 'number' type as '1'");

  rt_->RunString("package.loaded.json = nil", false);
  const auto table = rt_->CreateAtStack(Parse("{}"));
  lua::SetJsonAnnotatedType(table, lua::JsonAnnotatedObject);
  EXPECT_EQ(lua::GetJsonAnnotatedType(table), lua::JsonNotAnnotated);
  EXPECT_EQ(Text(table->AsJsonValue()), "[]");
}

TEST_F(JsonConversion, FailuresLeaveTheStackAndTheRuntimeUsable) {
  const int top = rt_->StackTopIndex();
  const Json::Value tooLarge = Parse("[18446744073709551615]");
  Json::Value deep(Json::arrayValue);
  for (int i = 0; i < lua::kMaxJsonDepth; ++i) {
    Json::Value outer(Json::arrayValue);
    outer.append(deep);
    deep.swap(outer);
  }
  const std::pair<const Json::Value*, const char*> cases[] = {
      {&tooLarge, ""}, {&deep, "ConvertToLuaObject(): JSON nested deeper than 1000 levels"}};
  for (const auto& [value, reason] : cases) {
    const std::string error = ThrownText([&] { rt_->CreateAtStack(*value); });
    EXPECT_TRUE(StartsWith(error, std::string("CreateAtStack(): convert from Json to Lua error: ") + reason)) << error;
    EXPECT_EQ(rt_->StackTopIndex(), top);
  }
  const std::string cycle = ScriptToJson("local t = {} t[1] = t return t");
  EXPECT_TRUE(StartsWith(cycle, "AsJsonValue(): tables nested deeper than 1000 levels")) << cycle;
  const auto number = rt_->CreateAtStack(1);
  rt_->PopFromStack(1);
  rt_->CreateAtStack(true);
  EXPECT_EQ(ThrownText([&] { number->AsJsonValue(); }), "Invalid reference");
}

}  // namespace
