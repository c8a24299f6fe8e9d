#include "lua/runtime.h"

#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>
#include <boost/pointer_cast.hpp>

#include "lua/script_test_util.h"
#include "utils/files.h"

namespace {

using lua::RunTime;
using lua::TableRef;
using lua_test::Eval;
using lua_test::StartsWith;
using lua_test::ThrownText;
using Handles = std::vector<boost::shared_ptr<lua::ObjectRef>>;

// Results are handles on the top slots, right above what was there, the
// arguments of RunFunc included.
TEST(RunTime, ResultsStayOnTheStackAsHandlesAtTheTopSlots) {
  auto rt = RunTime::Create();
  rt->CreateAtStack(7);
  Handles results = rt->RunString("function sub(a, b) return a - b, 'done' end return 1, 'two', {3}", false);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(rt->StackTopIndex(), 4);
  EXPECT_EQ(results[0]->StackIndex(), 2);
  EXPECT_EQ(results[1]->AsString(), "two");
  EXPECT_TRUE(boost::dynamic_pointer_cast<TableRef>(results[2]));

  Handles args = {rt->CreateAtStack(10), rt->CreateAtStack(3)};
  results = rt->RunFunc("sub", args);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0]->StackIndex(), 7);
  EXPECT_EQ(results[0]->AsInteger(), 7);
  EXPECT_EQ(results[1]->AsString(), "done");
  EXPECT_EQ(rt->RunFunc(rt->GetGlobalObject("sub"), {args[1], args[0]}).front()->AsInteger(), -7);
  EXPECT_EQ(ThrownText([&] { rt->RunFunc(args[0], {}); }), "RunFunc(): expected type: function, got type: number");

  EXPECT_TRUE(rt->RunString("local x = 1", true).empty());
  EXPECT_TRUE(rt->IsStackEmpty());  // clearStack dropped the earlier values
}

TEST(RunTime, EveryArgumentFormArrivesInInitData) {
  auto rt = RunTime::Create();
  RunTime::StackCleaner cleaner(rt);
  const std::string join = "local t = {} for i, v in ipairs(init_data) do t[i] = tostring(v) end "
                           "return table.concat(t, ',')";
  testsupport::ScratchDir scratch;
  const std::string path = scratch.File("join.lua");
  std::ofstream(path) << join;
  Handles values = {rt->CreateAtStack(1), rt->CreateAtStack("b"), rt->CreateAtStack(true)};
  const char* argv[] = {"p", "q", "r"};
  Json::Value json(Json::arrayValue);
  json.append("j1");
  json.append(2);
  auto table = rt->RunString("return {'t1', 't2'}", false).back()->AsTableRef();
  std::string seen;
  for (const Handles& results :
       {rt->RunString(join, values, false), rt->RunFile(path, values, false),
        rt->RunFile(path, std::vector<std::string>{"x", "y"}, false), rt->RunFile(path, 3, argv, false),
        rt->RunFile(path, false), rt->RunFile(path, json, false), rt->RunFile(path, table, false)}) {
    seen += results.back()->AsString() + " ";
  }
  EXPECT_EQ(seen, "1,b,true 1,b,true x,y p,q,r  j1,2 t1,t2 ");
  EXPECT_EQ(ThrownText([&] { rt->RunFile(path, Json::Value(5), false); }), "RunImpl(): invalid args type are passed");
  // A table handle whose slot no longer holds a table cannot become init_data.
  rt->PopFromStack(rt->StackTopIndex() - table->StackIndex() + 1);
  rt->CreateAtStack(5);
  EXPECT_EQ(ThrownText([&] { rt->RunFile(path, table, false); }), "RunImpl(): invalid args type are passed");
}

// Handles are handed out again once dropped; one still held never moves, and
// the state closes with the last reference, host handles included.
TEST(RunTime, ReusedHandlesStayPutWhileHeldAndReleaseTheState) {
  auto rt = RunTime::Create();
  auto alive = std::make_shared<int>(0);
  rt->SetGlobalObject(
      "f", rt->CreateAtStack(lua::NativeFunction([alive](boost::shared_ptr<RunTime>&, const Handles&) { return 0; })));
  rt->RunString("function pair(a) return a, a + 1 end", true);
  std::vector<std::pair<boost::shared_ptr<lua::ObjectRef>, long long>> held;
  for (int i = 0; i < 40; ++i) {
    rt->CreateAtStack(-i);  // dropped at once
    if (i % 2 == 0) held.emplace_back(rt->CreateAtStack(i), i);
    if (i % 3 == 0)
      held.emplace_back(rt->RunFunc("pair", {rt->CreateAtStack(i), rt->CreateAtStack("x")}).back(), i + 1);
  }
  for (const auto& entry : held) {
    EXPECT_TRUE(entry.first->IsValid());
    EXPECT_EQ(entry.first->AsInteger(), entry.second);
  }
  auto survivor = held.back().first;
  held.clear();
  rt.reset();
  EXPECT_EQ(alive.use_count(), 2);  // the host's handle keeps the state open
  EXPECT_EQ(survivor->AsInteger(), 40);
  survivor.reset();
  EXPECT_EQ(alive.use_count(), 1);
}

TEST(RunTime, GlobalsAndPackagePathLeaveTheStackBalanced) {
  auto rt = RunTime::Create();
  const std::string path = Eval(rt, "return package.path");
  const std::string exePattern = utils::GetProgramExeDir() + "?.lua";
  ASSERT_GE(path.size(), exePattern.size());
  EXPECT_EQ(path.substr(path.size() - exePattern.size()), exePattern);  // lowest priority
  rt->AddPackagePath("");
  rt->AddPackagePath("/a/?.lua");
  rt->AddPackagePaths({"/b/?.lua", "/c/?.lua"});
  EXPECT_EQ(Eval(rt, "return package.path"), path + ";/a/?.lua;/b/?.lua;/c/?.lua");
  EXPECT_TRUE(rt->IsStackEmpty());

  rt->SetGlobalObject("answer", rt->CreateAtStack(42));
  EXPECT_EQ(rt->GetGlobalObject("answer")->StackIndex(), 2);
  rt->RunString("package = 1", false);
  EXPECT_EQ(ThrownText([&] { rt->AddPackagePath("/d/?.lua"); }), "Invalid reference");
}

// Script errors carry a traceback, load errors do not; an error outside any
// protected call is a panic that leaves the runtime invalid.
TEST(ErrorTexts, ScriptLoadStackAndPanicErrors) {
  auto rt = RunTime::Create();
  const std::pair<const char*, const char*> cases[] = {
      {"error('boom')", "Lua: [string \"error('boom')\"]:1: boom\nstack traceback:\n"},
      {"error({})", "Lua: Error object is table value\nstack traceback:\n"},
      {"error(42)", "Lua: Error object is number value\nstack traceback:\n"},
  };
  for (const auto& [code, start] : cases) {
    const std::string thrown = ThrownText([&] { rt->RunString(code, true); });
    EXPECT_TRUE(StartsWith(thrown, start)) << thrown;
  }
  EXPECT_EQ(ThrownText([&] { rt->RunString("x = = 1", true); }),
            "Lua: [string \"x = = 1\"]:1: unexpected symbol near '='");
  EXPECT_EQ(ThrownText([&] { rt->RunFile("/nonexistent/script.lua", true); }),
            "Lua: cannot open /nonexistent/script.lua: No such file or directory");
  EXPECT_EQ(ThrownText([&] { rt->EnsureFreeStackSlots(2000000); }), "EnsureFreeStackSlots(): stack overflow");
  EXPECT_FALSE(rt->ReserveFreeStackSlots(2000000));
  EXPECT_TRUE(rt->IsValid());
  EXPECT_EQ(ThrownText<lua::RunTimePanic>([&] { rt->Error("fatal thing"); }), "Lua panic: fatal thing");
  EXPECT_FALSE(rt->IsValid());
  // Dropping the runtime now closes the state; the sanitizer build checks that.
}

TEST(RunTime, WrappedStateIsNeitherInitialisedNorClosed) {
  lua_State* L = luaL_newstate();
  {
    auto wrapped = RunTime::Wrap(L);
    wrapped->CreateAtStack(5);
    EXPECT_EQ(lua_getglobal(L, "print"), LUA_TNIL);  // no libraries were opened
    lua_pop(L, 1);
  }
  EXPECT_EQ(lua_tointeger(L, -1), 5);
  lua_close(L);
}

TEST(StackDiscipline, CleanerRestoresTheTopAfterResultsAndExceptions) {
  auto rt = RunTime::Create();
  rt->CreateAtStack(1);
  try {
    RunTime::StackCleaner cleaner(rt);
    rt->CreateAtStack(2);
    rt->RunString("return 1, 2, 3", false);
    rt->RunString("error('x')", false);
  } catch (const lua::RunTimeError&) {
  }
  EXPECT_LE(rt->StackTopIndex(), 2);  // unwinding keeps at most the top value above the saved top
  { RunTime::StackCleaner cleaner(rt, 1); }
  EXPECT_EQ(rt->StackTopIndex(), 1);
  {
    RunTime::StackCleaner cleaner(rt, 0);
    rt->CreateAtStack(2);
  }
  EXPECT_TRUE(rt->IsStackEmpty());
  {
    RunTime::StackCleaner cleaner(rt, 0);
    rt->CreateAtStack(3);
    cleaner.Disable();
  }
  { RunTime::StackCleaner cleaner(rt, 5); }  // never pushes to reach a higher saved top
  EXPECT_EQ(rt->StackTopIndex(), 1);
}

TEST(StackDiscipline, RemoveShiftsSlotsDownAndIgnoresStaleHandles) {
  auto rt = RunTime::Create();
  rt->CreateTableAtStack();
  rt->CreateAtStack(2);
  auto c = rt->CreateTableAtStack();
  rt->Remove(1);
  EXPECT_EQ(rt->ObjType(1), LUA_TNUMBER);
  EXPECT_FALSE(c->IsValid());  // its table moved down to slot 2
  rt->Remove(c);
  EXPECT_EQ(rt->StackTopIndex(), 2);
  rt->Remove(rt->ObjectAtStack(2));
  EXPECT_EQ(rt->StackTopIndex(), 1);
}

}  // namespace
