#include "lua/wrap_func.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "lua/script_test_util.h"

namespace {

using lua::ObjectRef;
using lua::RunTime;
using lua::WrapFunc;
using lua_test::Eval;
using lua_test::StartsWith;
using lua_test::ThrownText;
using Args = std::vector<boost::shared_ptr<ObjectRef>>;

int Describe(boost::shared_ptr<RunTime>& rt, const Args& args) {
  std::string text;
  for (const auto& arg : args) {
    if (boost::dynamic_pointer_cast<lua::TableRef>(arg)) text += "T:";
    text += arg->TypeName() + "@" + std::to_string(arg->StackIndex()) + " ";
  }
  rt->CreateAtStack(text);
  return 1;
}

// Pushes one value and claims as many results as its argument says.
int ClaimResults(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CreateAtStack(1);
  return static_cast<int>(args[0]->AsInteger());
}

struct Tracked {
  static int live;
  Tracked() { ++live; }
  Tracked(const Tracked&) { ++live; }
  ~Tracked() { --live; }
};
int Tracked::live = 0;

// Leaves holding handles, a vector, a closure and a string, in the way its
// argument names: none, a handle error; 1, a host exception; 2, a script
// error; otherwise a value that is not a std::exception.
int Fail(boost::shared_ptr<RunTime>& rt, const Args& args) {
  RunTime::StackCleaner cleaner(rt);
  std::vector<Tracked> held(3);
  auto text = rt->CreateAtStack(std::string(64, 'x'));
  auto table = rt->CreateTableAtStack();
  Tracked captured;
  lua::NativeFunction closure = [captured](boost::shared_ptr<RunTime>&, const Args&) { return 0; };
  const long long mode = args.empty() ? 0 : args[0]->AsInteger();
  if (mode == 0) rt->ObjectAtStack(0);
  if (mode == 1) throw std::runtime_error("bad input");
  if (mode == 2) rt->Error("own message");
  throw 42;
}

// Calls back into the script while its own argument handles are in use.
int CallBack(boost::shared_ptr<RunTime>& rt, const Args& args) {
  auto results = rt->RunFunc("middle", {args[1]});
  if (!args[0]->IsValid() || !args[1]->IsValid()) rt->Error("arguments clobbered");
  rt->CreateAtStack(args[0]->AsString() + ": " + results.front()->AsString());
  return 1;
}

// Mode 0: no result; 1 to 5: one result through the overload the mode names.
int Result(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const long long mode = args[0]->AsInteger();
  if (mode == 0) return rt->VoidResult();
  if (mode == 1) rt->CreateResultAtStack("");
  if (mode == 2) rt->CreateResultAtStack(rt->CreateAtStack(std::string()));
  if (mode == 3) rt->CreateResultAtStack(rt->CreateTableAtStack());
  if (mode == 4) rt->CreateResultAtStack(std::string("a\0b", 3));
  if (mode == 5) rt->CreateResultAtStack(rt->RunString("return {1}", false).front()->AsTableRef());
  if (mode == 6) rt->CreateResultAtStack(std::string());
  return 1;
}

// The checks that read the stack itself rather than the argument handles.
int Checked(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CheckArgsCount(2);
  rt->CheckType(0, LUA_TNONE, "none");
  rt->CheckType(args[1], LUA_TSTRING, "second");
  return rt->VoidResult();
}

int ReadUpvalue(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CreateAtStack(rt->GetUpValue(static_cast<int>(args[0]->AsInteger())));
  return 1;
}

// Each case is a script calling wrapped functions and the text of its first
// result; the last ones check that nothing before broke the runtime.
TEST(Adapter, ArgumentsResultsAndErrorsReachTheScript) {
  auto rt = RunTime::Create();
  const std::pair<const char*, lua_CFunction> functions[] = {
      {"describe", WrapFunc<&Describe>}, {"claim", WrapFunc<&ClaimResults>}, {"fail", WrapFunc<&Fail>},
      {"callback", WrapFunc<&CallBack>}, {"result", WrapFunc<&Result>},      {"checked", WrapFunc<&Checked>},
  };
  {
    RunTime::StackCleaner cleaner(rt);
    for (const auto& [name, function] : functions) rt->SetGlobalObject(name, rt->CreateAtStack(function));
    rt->SetGlobalObject("up", rt->CreateAtStack(WrapFunc<&ReadUpvalue>, {rt->CreateAtStack("first")}));
  }
  rt->RunString("function middle(x) return describe(x, x, x) end", true);
  const std::pair<const char*, const char*> cases[] = {
      {"return describe(1, 'a', {}, nil)", "number@1 string@2 T:table@3 nil@4 "},
      {"return describe({}, 2)", "T:table@1 number@2 "},  // reused handles change kind
      {"return select(2, pcall(claim, -1))", "Negative results count: -1"},
      {"return select(2, pcall(claim, 3))", "Stack underflow: the results count is greater than the stack size: 3 > 2"},
      {"return select('#', claim(2))", "2"},
      {"return select(2, pcall(checked, 1, 's', 3))", "expected 2 args"},
      {"return select(2, pcall(checked, 1, 2))", "second: expected type 'string', got 'number'"},
      {"return select('#', checked(1, 's'))", "0"},
      {"return select(2, pcall(fail, 1))", "Cpp: bad input"},
      {"return select(2, pcall(fail, 2, 3))", "own message"},
      {"return tostring(pcall(fail, 3))", "false"},
      {"local failures = 0 for i = 1, 100000 do if not pcall(fail, i % 4) then failures = failures + 1 end end "
       "return failures",
       "100000"},
      {"return callback(5, 7)", "5: number@1 number@2 number@3 "},  // nested calls keep their own arguments
      {"local out = {} for mode = 0, 6 do local n, v = select('#', result(mode)), result(mode) "
       "out[#out + 1] = n .. (v == nil and '' or type(v) .. #v) end return table.concat(out, ' ')",
       "0 1 1 1 1string3 1table1 1"},  // empty strings and tables become nil
      {"return up(1)", "first"},
      {"return select(2, pcall(up, 2))", "Cpp: ObjectAtStack(): invalid stack index: -1001002"},
  };
  for (const auto& [code, expected] : cases) EXPECT_EQ(Eval(rt, code), expected) << code;
  EXPECT_EQ(Tracked::live, 0);  // raising bodies released what they held
  EXPECT_NE(ThrownText([&] { rt->RunString("fail(3)", true); }).find(": Cpp: unknown exception\n"), std::string::npos);
  {
    RunTime::StackCleaner cleaner(rt);
    const Args upvalues(256, rt->CreateAtStack(1));
    EXPECT_EQ(ThrownText([&] { rt->CreateAtStack(WrapFunc<&ReadUpvalue>, upvalues); }),
              "CreateAtStack(): too many upvalues: 256");
    rt->CreateAtStack(WrapFunc<&ReadUpvalue>, Args(255, upvalues[0]));  // the most a closure can have
  }
  EXPECT_TRUE(rt->IsValid());
}

// Scripts reach a closure's userdata (debug.getupvalue) and its "__gc"; none of
// what they can do with them may destroy the function twice, call it dead or
// destroy it while it runs. Each closure adds its argument, or calls it.
TEST(Closures, CallTheirFunctionUntilCollectedWhateverScriptsDoToTheirUserdata) {
  auto rt = RunTime::Create();
  auto counter = std::make_shared<long long>(0);
  for (const char* name : {"bump", "released", "swapped"}) {
    RunTime::StackCleaner cleaner(rt);
    lua::NativeFunction bump = [counter](boost::shared_ptr<RunTime>& rt, const Args& args) -> int {
      if (args[0]->Type() == LUA_TFUNCTION) rt->RunFunc(args[0], {});
      if (args[0]->Type() == LUA_TNUMBER) *counter += args[0]->AsInteger();
      rt->CreateAtStack(*counter);
      return 1;
    };
    rt->SetGlobalObject(name, rt->CreateAtStack(bump));
  }
  rt->RunString(
      "function gc(f) return debug.getmetatable(select(2, debug.getupvalue(f, 1))).__gc end "
      "function release(f) local ud = select(2, debug.getupvalue(f, 1)) gc(f)(ud) return ud end",
      true);
  const std::pair<const char*, const char*> cases[] = {
      {"bump(1) bump(2) return bump(3)", "6"},
      {"return select(2, pcall(gc(bump)))", "Expected 1 argument"},
      {"return tostring(debug.getmetatable(release(released)))", "nil"},
      {"return select(2, pcall(released, 1))", "Cpp: native closure without its function"},
      // A released userdata, one of another kind and a non-userdata are left alone.
      {"local f = gc(swapped) f(select(2, debug.getupvalue(released, 1))) f(io.stdout) f({}) return swapped(1)", "7"},
      {"local ud = select(2, debug.getupvalue(bump, 1)) "
       "local ok, err = pcall(bump, function() debug.getmetatable(ud).__gc(ud) end) "
       "return tostring(ok) .. ' ' .. err:match('Cannot release[^\\n]*') .. ' ' .. bump(1)",
       "false Cannot release an object while it runs 8"},
  };
  for (const auto& [code, expected] : cases) EXPECT_EQ(Eval(rt, code), expected) << code;
  EXPECT_EQ(counter.use_count(), 3);
  // Neither a userdata of another size nor one of the same size that some
  // other finalizer owns passes for the function.
  lua_State* L = rt->State();
  lua_newuserdata(L, sizeof(lua::NativeFunction));
  lua_createtable(L, 0, 1);
  lua_pushcfunction(L, [](lua_State*) { return 0; });
  lua_setfield(L, -2, "__gc");
  lua_setmetatable(L, -2);
  lua_setglobal(L, "impostor");
  for (const char* other : {"io.stdout", "impostor"}) {
    EXPECT_EQ(Eval(rt, std::string("debug.setupvalue(swapped, 1, ") + other + ") return select(2, pcall(swapped, 1))"),
              "Cpp: native closure without its function");
  }
  rt->RunString("bump, released, swapped = nil", true);
  rt->CollectGarbage();
  EXPECT_EQ(counter.use_count(), 1);
  EXPECT_EQ(Eval(rt, "return 'usable'"), "usable");
}

}  // namespace
