// The xml script suites, the comparison with lua-expat, and what only the host sees.
#include <string>

#include <gmock/gmock.h>

#include "lua/libs/libs.h"
#include "lua/script_test_util.h"

namespace {

class XmlLib : public lua_test::ScriptTest {
 protected:
  static void SetUpTestSuite() {
    // Registering twice must leave one working library.
    lua::RegisterXmlLib();
    lua::RegisterXmlLib();
  }
};

TEST_F(XmlLib, ScriptSuitesPass) {
  Eval("dofile('" CORVANE_SOURCE_DIR "/tests/libs/xml/run.lua')");
}

TEST_F(XmlLib, EventsAgreeWithLuaExpat) {
  Eval("dofile('" CORVANE_SOURCE_DIR "/tests/libs/xml/expat_compare.lua')");
}

TEST_F(XmlLib, EachRuntimeHasItsOwnTableTheTextReturns) {
  EXPECT_EQ(Eval("return rawequal(xml, require('xml'))"), "true");
  Eval("xml.dom = nil");
  EXPECT_EQ(lua_test::Eval(lua::RunTime::Create(), "return type(xml.dom)"), "table");
}

TEST_F(XmlLib, ParseErrorsReachTheHostWithTheLibraryTextAndLeaveTheRuntimeUsable) {
  lua::RunTime::StackCleaner cleaner(rt_);
  lua_pushstring(rt_->State(), "<a><b></b>");
  const auto input = rt_->ObjectAtStackTop();
  const auto parse = rt_->GetGlobalObject("xml")->AsTableRef()->Get("dom")->AsTableRef()->Get("parseStr");
  const int before = rt_->StackTopIndex();
  EXPECT_THAT(lua_test::ThrownText([&] { rt_->RunFunc(parse, {input}); }),
              ::testing::ContainsRegex("^Lua: .*\\]:[0-9]+: Parsing ended with unclosed elements"));
  // Only the error value stays, for the caller's StackCleaner to drop.
  EXPECT_EQ(rt_->StackTopIndex(), before + 1);
  EXPECT_EQ(Eval("return xml.dom.parseStr('<a>ok</a>').a['#text']"), "ok");
}

}  // namespace
