#include "lua/runtime.h"

#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <json/value.h>
#include <boost/pointer_cast.hpp>

#include "lua/script_test_util.h"
#include "utils/files.h"

namespace {

using lua::ObjectRef;
using lua::RunTime;
using lua::TableRef;
using lua_test::Eval;
using lua_test::StartsWith;
using lua_test::ThrownText;
using Handles = std::vector<boost::shared_ptr<ObjectRef>>;

boost::shared_ptr<TableRef> Table(const boost::shared_ptr<RunTime>& rt, const std::string& expression) {
  auto value = rt->RunString("return " + expression, false).front();
  return boost::dynamic_pointer_cast<TableRef>(value);
}

// Results are handles on the top slots, right above what was there, the
// arguments of RunFunc included.
TEST(RunTime, ResultsStayOnTheStackAsHandlesAtTheTopSlots) {
  auto rt = RunTime::Create();
  rt->CreateAtStack(7);
  Handles results = rt->RunString("function sub(a, b) return a - b, 'done' end return 1, 'two', {3}", false);
  ASSERT_EQ(results.size(), 3u);
  EXPECT_EQ(rt->StackTopIndex(), 4);
  EXPECT_EQ(results[0]->StackIndex(), 2);

  Handles args = {rt->CreateAtStack(10), rt->CreateAtStack(3)};
  results = rt->RunFunc("sub", args);
  ASSERT_EQ(results.size(), 2u);
  EXPECT_EQ(results[0]->StackIndex(), 7);
  EXPECT_EQ(results[0]->AsInteger(), 7);
  EXPECT_EQ(results[1]->AsString(), "done");
  EXPECT_EQ(ThrownText([&] { rt->RunFunc(args[0], {}); }), "RunFunc(): expected type: function, got type: number");

  EXPECT_TRUE(rt->RunString("local x = 1", true).empty());
  EXPECT_TRUE(rt->IsStackEmpty());  // clearStack dropped the earlier values
}

// Every argument form reaches init_data; added package paths come after the
// program's own folder, the lowest priority.
TEST(RunTime, InitDataFormsAndPackagePaths) {
  auto rt = RunTime::Create();
  testsupport::ScratchDir scratch;
  const std::string path = scratch.File("join.lua");
  std::ofstream(path) << "local t = {} for i, v in ipairs(init_data) do t[i] = tostring(v) end "
                         "return table.concat(t, ',')";
  Handles values = {rt->CreateAtStack(1), rt->CreateAtStack(true)};
  const char* argv[] = {"p", "q"};
  auto table = Table(rt, "{'t1', 't2'}");
  std::string seen;
  for (const Handles& results :
       {rt->RunFile(path, values, false), rt->RunFile(path, std::vector<std::string>{"x"}, false),
        rt->RunFile(path, 2, argv, false), rt->RunFile(path, Json::Value(Json::arrayValue), false),
        rt->RunFile(path, table, false)}) {
    seen += results.back()->AsString() + " ";
  }
  EXPECT_EQ(seen, "1,true x p,q  t1,t2 ");
  EXPECT_EQ(ThrownText([&] { rt->RunFile(path, Json::Value(5), false); }), "RunImpl(): invalid args type are passed");
  EXPECT_EQ(ThrownText([&] { rt->RunFile(path + std::string("\0x", 2), false); }),
            "RunFile(): path contains a NUL byte");

  const std::string packagePath = Eval(rt, "return package.path");
  const std::string exePattern = utils::GetProgramExeDir() + "?.lua";
  ASSERT_GE(packagePath.size(), exePattern.size());
  EXPECT_EQ(packagePath.substr(packagePath.size() - exePattern.size()), exePattern);
  rt->AddPackagePath("");
  rt->AddPackagePaths({"/a/?.lua", "/b/?.lua"});
  EXPECT_EQ(Eval(rt, "return package.path"), packagePath + ";/a/?.lua;/b/?.lua");
  rt->RunString("package = 1", false);
  EXPECT_EQ(ThrownText([&] { rt->AddPackagePath("/d/?.lua"); }), "Invalid reference");
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

// Script errors carry a traceback, load errors do not; an error outside any
// protected call is a panic that leaves the runtime invalid.
TEST(ErrorTexts, ScriptLoadStackAndPanicErrors) {
  auto rt = RunTime::Create();
  const std::pair<const char*, const char*> cases[] = {
      {"error('boom')", "Lua: [string \"error('boom')\"]:1: boom\nstack traceback:\n"},
      {"error({})", "Lua: Error object is table value\nstack traceback:\n"},
  };
  for (const auto& [code, start] : cases) {
    const std::string thrown = ThrownText([&] { rt->RunString(code, true); });
    EXPECT_TRUE(StartsWith(thrown, start)) << thrown;
  }
  EXPECT_EQ(ThrownText([&] { rt->RunString("x = = 1", true); }),
            "Lua: [string \"x = = 1\"]:1: unexpected symbol near '='");
  EXPECT_EQ(ThrownText([&] { rt->EnsureFreeStackSlots(2000000); }), "EnsureFreeStackSlots(): stack overflow");
  EXPECT_FALSE(rt->ReserveFreeStackSlots(2000000));
  EXPECT_TRUE(rt->IsValid());
  EXPECT_EQ(ThrownText<lua::RunTimePanic>([&] { rt->Error("fatal thing"); }), "Lua panic: fatal thing");
  EXPECT_FALSE(rt->IsValid());
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
  { RunTime::StackCleaner cleaner(rt, 5); }  // never pushes to reach a higher saved top
  EXPECT_EQ(rt->StackTopIndex(), 1);
}

TEST(HandleValidity, OnlySlotsHoldingTheSameValueAreValid) {
  auto rt = RunTime::Create();
  rt->CreateAtStack(1);
  for (int index : {0, 2, -2}) {
    EXPECT_EQ(ThrownText([&] { rt->ObjectAtStack(index); }),
              "ObjectAtStack(): invalid stack index: " + std::to_string(index));
  }
  EXPECT_EQ(rt->ObjectAtStack(-1)->StackIndex(), 1);  // made absolute
  EXPECT_EQ(ThrownText([&] { TableRef(rt, 1); }), "TableRef(): create TableRef from non-table value");

  // A popped and refilled slot is detected.
  rt->PopFromStack(1);
  auto table = rt->CreateTableAtStack();
  auto asObject = rt->ObjectAtStack(1);
  ASSERT_TRUE(boost::dynamic_pointer_cast<TableRef>(asObject));
  EXPECT_EQ(asObject->AsTableRef()->AsPointer(), table->AsPointer());
  rt->PopFromStack(1);
  EXPECT_FALSE(table->IsValid());
  rt->CreateTableAtStack();
  EXPECT_FALSE(table->IsValid());  // same type, another identity
  EXPECT_EQ(ThrownText([&] { asObject->AsTableRef(); }), "Invalid reference");

  // Remove shifts slots down and ignores stale handles.
  auto c = rt->CreateTableAtStack();
  rt->Remove(1);
  EXPECT_FALSE(c->IsValid());  // its table moved down to slot 1
  rt->Remove(c);
  rt->Remove(rt->ObjectAtStack(1));
  EXPECT_TRUE(rt->IsStackEmpty());
}

TEST(Conversions, FollowTheStoredTypeWithoutCoercion) {
  auto rt = RunTime::Create();
  rt->RunString("meta = {__len = function() return 9 end, __tostring = function() return 'T' end}", true);
  const std::pair<const char*, const char*> cases[] = {
      {"5", "5 0"},     {"2.5", "2.5 0"},   {"true", "true 0"},
      {"nil", "nil 0"}, {"'abc'", "abc 3"}, {"setmetatable({}, meta)", "T 9"},
  };
  for (const auto& [expression, expected] : cases) {
    auto value = rt->RunString(std::string("return ") + expression, false).front();
    EXPECT_EQ(value->AsString() + " " + std::to_string(value->Len()), expected) << expression;
  }
  auto text = rt->CreateAtStack("12");
  EXPECT_EQ(ThrownText([&] { text->AsInteger(); }), "Invalid reference");
}

TEST(TableAccess, RawReadsAddOneSlotAndWritesHonourMetamethods) {
  auto rt = RunTime::Create();
  rt->RunString("log = {}", false);
  auto table = Table(rt,
                     "setmetatable({a = 1}, {__index = function() return 'meta' end,"
                     " __newindex = function(t, k, v) log[#log + 1] = k rawset(t, k, v) end})");
  ASSERT_TRUE(table);

  const int top = rt->StackTopIndex();
  auto key = rt->CreateAtStack("a");
  auto value = (*table)[key];  // key on top: its slot turns into the value
  EXPECT_EQ(rt->StackTopIndex(), top + 1);
  EXPECT_EQ(value->StackIndex(), key->StackIndex());
  EXPECT_EQ(value->AsInteger(), 1);
  auto other = rt->CreateAtStack(1);
  rt->CreateAtStack(99);
  EXPECT_EQ((*table)[other]->StackIndex(), top + 4);  // key not on top: copied first
  EXPECT_TRUE(table->Get("missing")->IsNil());        // raw: __index not consulted

  const int before = rt->StackTopIndex();
  table->Set("b", 2);
  table->Append(std::string("x"));
  table->Erase(rt->CreateAtStack("a"));
  table->Erase(rt->CreateAtStack("c"));        // absent: a field write runs __newindex
  EXPECT_EQ(rt->StackTopIndex(), before + 2);  // only Erase's own keys remain
  EXPECT_TRUE(table->Get("a")->IsNil());
  EXPECT_EQ(rt->RunString("return table.concat(log, ',')", false).front()->AsString(), "b,1,c");
  rt->PopFromStack(rt->StackTopIndex() - table->StackIndex() + 1);
  rt->CreateAtStack(1);
  EXPECT_EQ(ThrownText([&] { table->Get("a"); }), "Invalid reference");  // never a raw read of a number
}

// Writes, lengths and texts run metamethods, unprotected when the host calls
// them directly: a raising one is then a panic that the host gets as an
// exception, never an abort. Inside a native function it is a script error.
TEST(TableAccess, RaisingMetamethodsPanicInTheHostAndFailTheCallInAFunction) {
  const std::string meta = "setmetatable({}, {__newindex = fail, __len = fail, __tostring = fail})";
  using Handle = boost::shared_ptr<TableRef>;
  const std::vector<std::function<void(const Handle&)>> operations = {[](const Handle& t) { t->Set("k", 1); },
                                                                      [](const Handle& t) { t->Len(); },
                                                                      [](const Handle& t) { t->AsString(); }};
  for (const auto& operation : operations) {
    for (bool inFunction : {false, true}) {
      auto rt = RunTime::Create();
      lua::NativeFunction call = [&](boost::shared_ptr<RunTime>& inner, const Handles& args) {
        operation(args[0]->AsTableRef());
        return inner->VoidResult();
      };
      rt->SetGlobalObject("call", rt->CreateAtStack(call));
      rt->RunString("function fail() error('meta failed', 0) end", true);
      if (inFunction) {
        EXPECT_EQ(rt->RunString("return select(2, pcall(call, " + meta + "))", false).front()->AsString(),
                  "meta failed");
        EXPECT_EQ(rt->RunString("return 6 * 7", false).front()->AsInteger(), 42);
      } else {
        EXPECT_THROW(operation(rt->RunString("return " + meta, false).front()->AsTableRef()), lua::RunTimePanic);
      }
      EXPECT_EQ(rt->IsValid(), inFunction);
    }
  }
}

TEST(Iterators, FullWalkVisitsEveryPairAndLeavesTheStackAsItStarted) {
  auto rt = RunTime::Create();
  auto table = Table(rt, "{x = 1, y = 2, 10, 20, nested = {}}");
  const int top = rt->StackTopIndex();
  std::map<std::string, std::string> seen;
  auto it = table->Iterator();
  while (it.Next()) {
    EXPECT_EQ(it.Key()->StackIndex(), rt->StackTopIndex() - 1);
    EXPECT_TRUE(it.Val()->IsAtStackTop());
    seen[it.Key()->AsString()] = boost::dynamic_pointer_cast<TableRef>(it.Val()) ? "table" : it.Val()->AsString();
  }
  EXPECT_EQ(rt->StackTopIndex(), top);
  EXPECT_EQ(seen, (std::map<std::string, std::string>{
                      {"1", "10"}, {"2", "20"}, {"x", "1"}, {"y", "2"}, {"nested", "table"}}));
  EXPECT_EQ(ThrownText([&] { it.Next(); }), "Next(): invalid iterator position");

  int count = 0;
  for (auto pushing = table->Iterator(); pushing.Next(); ++count) rt->CreateAtStack(count);  // key, value not on top
  EXPECT_EQ(count, 5);
}

TEST(Iterators, ArrayWalkLeavesOneValuePerElement) {
  auto rt = RunTime::Create();
  auto table = Table(rt, "{10, 20, 30, x = 'ignored'}");
  const int top = rt->StackTopIndex();
  auto it = table->ArrayIterator();
  EXPECT_EQ(ThrownText([&] { it.Index(); }), "Index(): invalid iterator position");
  std::string walk;  // index=value@slot above the start
  boost::shared_ptr<ObjectRef> first;
  while (it.Next()) {
    walk += std::to_string(it.Index()) + "=" + it.Val()->AsString() + "@" +
            std::to_string(it.Val()->StackIndex() - top) + " ";
    if (!first) first = it.Val();
  }
  EXPECT_EQ(walk, "1=10@1 2=20@2 3=30@3 ");
  EXPECT_EQ(rt->StackTopIndex(), top + 3);
  EXPECT_EQ(first->AsInteger(), 10);  // a kept handle is not rewritten for later values
  EXPECT_EQ(ThrownText([&] { it.Val(); }), "Val(): invalid iterator position");

  // The largest length a script can claim must not overflow the walk's end,
  // nor the slot that Append writes.
  auto hugeTable = Table(rt, "setmetatable({5}, {__len = function() return math.maxinteger end})");
  auto huge = hugeTable->ArrayIterator();
  ASSERT_TRUE(huge.Next());
  EXPECT_EQ(huge.Val()->AsInteger(), 5);
  EXPECT_EQ(ThrownText([&] { hugeTable->Append(1); }), "Append(): table length leaves no room");
}

}  // namespace
