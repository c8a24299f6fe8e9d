// The "xml" library as a runtime opens it: the script-level suites and the
// comparison with lua-expat, run through the real runtime, and what only the
// host sees (the library value, parse errors as exceptions, the stack).
#include <string>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

const std::string kScripts = CORVANE_SOURCE_DIR "/tests/libs/xml/";

class XmlLib : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // Registering twice must leave one working library.
    lua::RegisterXmlLib();
    lua::RegisterXmlLib();
  }

  void SetUp() override { rt_ = lua::RunTime::Create(); }
  void TearDown() override { EXPECT_TRUE(rt_->IsStackEmpty()); }

  // Runs a script file; its failure message becomes the test's.
  void RunScript(const std::string& name) {
    lua::RunTime::StackCleaner cleaner(rt_);
    try {
      rt_->RunFile(kScripts + name, false);
    } catch (const lua::RunTimeError& e) {
      ADD_FAILURE() << e.what();
    }
  }

  // The chunk's results joined by " | ".
  std::string Eval(const std::string& code) {
    lua::RunTime::StackCleaner cleaner(rt_);
    std::string text;
    for (const auto& result : rt_->RunString(code, false)) {
      text += (text.empty() ? "" : " | ") + result->AsString();
    }
    return text;
  }

  boost::shared_ptr<lua::RunTime> rt_;
};

TEST_F(XmlLib, ScriptSuitesPass) { RunScript("run.lua"); }

TEST_F(XmlLib, EventsAgreeWithLuaExpat) { RunScript("expat_compare.lua"); }

TEST_F(XmlLib, GlobalAndLoadedModuleAreTheTableTheTextReturns) {
  // The text's own table, not a library table built around it: exactly its
  // three fields.
  EXPECT_EQ(Eval("local n = 0 for _ in pairs(xml) do n = n + 1 end "
                 "return rawequal(xml, package.loaded.xml), rawequal(xml, require('xml')), n, "
                 "type(xml.sax.parseStr), type(xml.dom.parseStr), type(xml.write)"),
            "true | true | 3 | function | function | function");
  EXPECT_EQ(Eval("return xml.write(xml.dom.parseStr('<a x=\"1\">t&amp;</a>'))"),
            "<?xml version=\"1.0\" standalone=\"yes\"?>\n<a x=\"1\">t&amp;</a>");
}

TEST_F(XmlLib, EachRuntimeHasItsOwnLibraryTable) {
  Eval("xml.dom = nil");
  const boost::shared_ptr<lua::RunTime> other = lua::RunTime::Create();
  lua::RunTime::StackCleaner cleaner(other);
  EXPECT_EQ(other->RunString("return type(xml.dom)", false).at(0)->AsString(), "table");
}

TEST_F(XmlLib, ParseErrorsReachTheHostWithTheLibraryTextAndLeaveTheRuntimeUsable) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"<p:a/>", "Cannot find namespace for prefix p"},
      {"just text", "Parsing did not discover any elements"},
      {"<a><b></b>", "Parsing ended with unclosed elements"},
      {"<a b></a>", "Was in an element and couldn't find attributes or the close."},
      {"<a/><b/>", "Encountered element 'b' when the document already has a root 'a' element"},
  };
  for (const auto& c : cases) {
    lua::RunTime::StackCleaner cleaner(rt_);
    lua_pushlstring(rt_->State(), c.first.data(), c.first.size());
    const auto input = rt_->ObjectAtStackTop();
    const auto parse =
        rt_->GetGlobalObject("xml")->AsTableRef()->Get("dom")->AsTableRef()->Get("parseStr");
    const int before = rt_->StackTopIndex();
    try {
      rt_->RunFunc(parse, {input});
      ADD_FAILURE() << c.first << ": no error";
    } catch (const lua::RunTimeError& e) {
      // The position is a line of the library text, then the message.
      EXPECT_THAT(e.what(), ::testing::StartsWith("Lua: ")) << c.first;
      EXPECT_THAT(e.what(), ::testing::ContainsRegex("\\]:[0-9]+: " + c.second.substr(0, 20)))
          << c.first;
      EXPECT_THAT(e.what(), ::testing::HasSubstr(c.second)) << c.first;
    }
    // Only the error value stays, for the caller's StackCleaner to drop.
    EXPECT_EQ(rt_->StackTopIndex(), before + 1) << c.first;
  }
  EXPECT_EQ(Eval("return xml.dom.parseStr('<a>ok</a>').a['#text']"), "ok");
}

}  // namespace
