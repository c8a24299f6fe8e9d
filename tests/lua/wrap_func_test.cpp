#include "lua/wrap_func.h"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/pointer_cast.hpp>

#include "lua/script_test_util.h"

namespace {

using lua::ObjectRef;
using lua::RunTime;
using lua::TableRef;
using lua::WrapFunc;
using lua_test::Eval;
using lua_test::Expose;
using lua_test::StartsWith;
using lua_test::ThrownText;
using Args = std::vector<boost::shared_ptr<ObjectRef>>;

int Describe(boost::shared_ptr<RunTime>& rt, const Args& args) {
  std::string text;
  for (const auto& arg : args) {
    if (boost::dynamic_pointer_cast<TableRef>(arg)) text += "T:";
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

int Throw(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const std::string what = args.empty() ? rt->ObjectAtStack(0)->AsString() : args[0]->AsString();
  throw std::runtime_error("bad " + what);
}

int RaiseUnderCleaner(boost::shared_ptr<RunTime>& rt, const Args&) {
  RunTime::StackCleaner cleaner(rt);
  rt->CreateAtStack("junk");
  rt->CreateTableAtStack();
  rt->Error("own message");
}

struct Tracked {
  static int live;
  Tracked() { ++live; }
  Tracked(const Tracked&) { ++live; }
  ~Tracked() { --live; }
};
int Tracked::live = 0;

// Holds handles, a vector, a closure and a string when it leaves by an error.
int RaiseHoldingResources(boost::shared_ptr<RunTime>& rt, const Args& args) {
  std::vector<Tracked> held(3);
  auto text = rt->CreateAtStack(std::string(64, 'x'));
  auto table = rt->CreateTableAtStack();
  Tracked captured;
  lua::NativeFunction closure = [captured](boost::shared_ptr<RunTime>&, const Args&) { return 0; };
  if (args[0]->AsInteger() % 2 == 0) throw std::runtime_error("host failure");
  rt->Error("script failure");
}

int Sum(boost::shared_ptr<RunTime>& rt, const Args& args) {
  long long sum = 0;
  for (const auto& arg : args) sum += arg->AsInteger();
  rt->CreateAtStack(sum);
  return 1;
}

// Calls back into the script while its own argument handles are in use.
int CallBack(boost::shared_ptr<RunTime>& rt, const Args& args) {
  auto results = rt->RunFunc("middle", {args[1]});
  if (!args[0]->IsValid() || !args[1]->IsValid()) rt->Error("arguments clobbered");
  rt->CreateAtStack(args[0]->AsInteger() * 1000 + results.front()->AsInteger());
  return 1;
}

boost::shared_ptr<ObjectRef> gKeptArgument;

int KeepFirstArgument(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (!gKeptArgument) gKeptArgument = args[0];
  rt->CreateAtStack(gKeptArgument->Type());
  return 1;
}

// Mode 0: no result; 1 to 5: one result through the overload the mode names.
int Result(boost::shared_ptr<RunTime>& rt, const Args& args) {
  switch (args[0]->AsInteger()) {
    case 0: return rt->VoidResult();
    case 1: rt->CreateResultAtStack(""); break;
    case 2: rt->CreateResultAtStack(rt->CreateAtStack(std::string())); break;
    case 3: rt->CreateResultAtStack(rt->CreateTableAtStack()); break;
    case 4: rt->CreateResultAtStack(std::string("a\0b", 3)); break;
    default: rt->CreateResultAtStack(rt->RunString("return {1}", false).front()->AsTableRef());
  }
  return 1;
}

int ThrowNonException(boost::shared_ptr<RunTime>&, const Args&) { throw 42; }

int Checked(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CheckArgsCount(args, 2);
  rt->CheckArgsCount(2);
  rt->CheckType(args[0], LUA_TSTRING, "name");
  rt->CheckType(0, LUA_TNONE, "none");
  rt->CheckType(2, LUA_TNIL, "second");
  return rt->VoidResult();
}

int ReadUpvalue(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CreateAtStack(rt->GetUpValue(static_cast<int>(args[0]->AsInteger())));
  return 1;
}

TEST(Adapter, ArgumentsArriveAsHandlesInOrder) {
  auto rt = RunTime::Create();
  Expose(rt, "describe", WrapFunc<&Describe>);
  EXPECT_EQ(Eval(rt, "return describe(1, 'a', {}, nil)"), "number@1 string@2 T:table@3 nil@4 ");
  EXPECT_EQ(Eval(rt, "return describe()"), "");
  EXPECT_EQ(Eval(rt, "return describe({}, 2)"), "T:table@1 number@2 ");  // reused handles change kind
}

TEST(Adapter, ResultCountGuards) {
  auto rt = RunTime::Create();
  Expose(rt, "claim", WrapFunc<&ClaimResults>);
  EXPECT_EQ(Eval(rt, "return select(2, pcall(claim, -1))"), "Negative results count: -1");
  EXPECT_EQ(Eval(rt, "return select(2, pcall(claim, 3))"),
            "Stack underflow: the results count is greater than the stack size: 3 > 2");
  EXPECT_EQ(Eval(rt, "return select('#', claim(2))"), "2");
}

TEST(Adapter, HostExceptionsBecomeScriptErrors) {
  auto rt = RunTime::Create();
  Expose(rt, "throw", WrapFunc<&Throw>);
  EXPECT_EQ(Eval(rt, "return select(2, pcall(throw, 'input'))"), "Cpp: bad input");
  // A handle error inside a body is a host exception too.
  EXPECT_EQ(Eval(rt, "return select(2, pcall(throw))"), "Cpp: ObjectAtStack(): invalid stack index: 0");
  EXPECT_TRUE(rt->IsValid());
  EXPECT_EQ(Eval(rt, "return 1 + 1"), "2");
}

// Bodies may throw what is not a std::exception, from a function or a closure:
// the call fails like any script error and the runtime stays usable.
TEST(Adapter, OtherThrownValuesFailTheCallWithoutHarm) {
  auto rt = RunTime::Create();
  Expose(rt, "throw", WrapFunc<&ThrowNonException>);
  {
    RunTime::StackCleaner cleaner(rt);
    lua::NativeFunction closure = [](boost::shared_ptr<RunTime>&, const Args&) -> int { throw 42; };
    rt->SetGlobalObject("closure", rt->CreateAtStack(closure));
  }
  for (const std::string name : {"throw", "closure"}) {
    EXPECT_EQ(Eval(rt, "return tostring(pcall(" + name + ", 1))"), "false") << name;
    RunTime::StackCleaner cleaner(rt);
    EXPECT_TRUE(StartsWith(ThrownText([&] { rt->RunString(name + "()", true); }), "Lua: ")) << name;
  }
  EXPECT_TRUE(rt->IsValid());
  EXPECT_EQ(Eval(rt, "return 1 + 1"), "2");
}

TEST(Adapter, CleanerInARaisingBodyKeepsTheErrorMessage) {
  auto rt = RunTime::Create();
  Expose(rt, "raise", WrapFunc<&RaiseUnderCleaner>);
  EXPECT_EQ(Eval(rt, "return select(2, pcall(raise, 1, 2, 3))"), "own message");
}

TEST(Adapter, RaisingBodyReleasesEverythingItHeld) {
  auto rt = RunTime::Create();
  Expose(rt, "raise", WrapFunc<&RaiseHoldingResources>);
  EXPECT_EQ(Eval(rt, "local failures = 0 "
                     "for i = 1, 100000 do if not pcall(raise, i) then failures = failures + 1 end end "
                     "return failures"),
            "100000");
  EXPECT_EQ(Tracked::live, 0);
}

TEST(Adapter, NestedCallsKeepTheirOwnArguments) {
  auto rt = RunTime::Create();
  Expose(rt, "callback", WrapFunc<&CallBack>);
  Expose(rt, "sum", WrapFunc<&Sum>);
  rt->RunString("function middle(x) return sum(x, x, x) end", true);
  EXPECT_EQ(Eval(rt, "return callback(5, 7)"), "5021");

  Expose(rt, "keep", WrapFunc<&KeepFirstArgument>);
  EXPECT_EQ(Eval(rt, "keep(1) return keep('text')"), std::to_string(LUA_TNUMBER));
  gKeptArgument.reset();
}

TEST(Closures, CallTheirFunctionAndReleaseItWhenCollected) {
  auto rt = RunTime::Create();
  auto counter = std::make_shared<long long>(0);
  {
    RunTime::StackCleaner cleaner(rt);
    lua::NativeFunction bump = [counter](boost::shared_ptr<RunTime>& rt, const Args& args) -> int {
      if (args.empty()) throw std::logic_error("nothing to add");
      for (const auto& arg : args) *counter += arg->AsInteger();
      rt->CreateAtStack(*counter);
      return 1;
    };
    rt->SetGlobalObject("bump", rt->CreateAtStack(bump));
  }
  EXPECT_EQ(Eval(rt, "bump(1, 2) return bump(3)"), "6");
  EXPECT_EQ(Eval(rt, "return select(2, pcall(bump))"), "Cpp: nothing to add");
  EXPECT_EQ(Eval(rt, "local ud = select(2, debug.getupvalue(bump, 1)) "
                     "return select(2, pcall(getmetatable(ud).__gc))"),
            "Expected 1 argument");
  EXPECT_EQ(counter.use_count(), 2);
  rt->RunString("bump = nil", true);
  rt->CollectGarbage();
  EXPECT_EQ(counter.use_count(), 1);
}

// Scripts reach a closure's userdata (debug.getupvalue) and its "__gc"; none of
// what they can do with them may destroy the function twice or call it dead.
TEST(Closures, SurviveScriptsThatReleaseOrSwapTheirFunction) {
  auto rt = RunTime::Create();
  auto counter = std::make_shared<long long>(0);
  auto make = [&](const std::string& name) {
    RunTime::StackCleaner cleaner(rt);
    lua::NativeFunction count = [counter](boost::shared_ptr<RunTime>& rt, const Args&) -> int {
      rt->CreateAtStack(++*counter);
      return 1;
    };
    rt->SetGlobalObject(name, rt->CreateAtStack(count));
  };
  make("released");
  make("swapped");
  rt->RunString("function release(f) local ud = select(2, debug.getupvalue(f, 1)) "
                "debug.getmetatable(ud).__gc(ud) return ud end",
                true);
  EXPECT_EQ(counter.use_count(), 3);
  EXPECT_EQ(Eval(rt, "local ud = release(released) "
                     "return tostring(debug.getmetatable(ud))"),
            "nil");
  EXPECT_EQ(counter.use_count(), 2);
  EXPECT_EQ(Eval(rt, "return select(2, pcall(released))"), "Cpp: native closure without its function");
  // A released userdata, one of another kind and a non-userdata are left alone.
  EXPECT_EQ(Eval(rt, "local gc = debug.getmetatable(select(2, debug.getupvalue(swapped, 1))).__gc "
                     "gc(select(2, debug.getupvalue(released, 1))) gc(io.stdout) gc({}) return swapped()"),
            "1");
  EXPECT_EQ(Eval(rt, "debug.setupvalue(swapped, 1, io.stdout) return select(2, pcall(swapped))"),
            "Cpp: native closure without its function");
  rt->RunString("released, swapped = nil", true);
  rt->CollectGarbage();
  EXPECT_EQ(counter.use_count(), 1);
  EXPECT_EQ(Eval(rt, "return 'usable'"), "usable");
}

// A closure that calls back into the script must not be destroyed under it.
TEST(Closures, CannotBeReleasedWhileRunning) {
  auto rt = RunTime::Create();
  auto alive = std::make_shared<int>(7);
  {
    RunTime::StackCleaner cleaner(rt);
    lua::NativeFunction callBack = [alive](boost::shared_ptr<RunTime>& rt, const Args& args) -> int {
      rt->RunFunc(args[0], {});
      rt->CreateAtStack(static_cast<long long>(*alive));
      return 1;
    };
    rt->SetGlobalObject("callback", rt->CreateAtStack(callBack));
  }
  EXPECT_EQ(Eval(rt, "local ud = select(2, debug.getupvalue(callback, 1)) "
                     "local ok, err = pcall(callback, function() debug.getmetatable(ud).__gc(ud) end) "
                     "return tostring(ok) .. ' ' .. err:match('Cannot release[^\\n]*') .. ' ' .. callback(print)"),
            "false Cannot release an object while it runs 7");
  EXPECT_EQ(alive.use_count(), 2);
}

TEST(ResultHelpers, EmptyStringsAndTablesBecomeNil) {
  auto rt = RunTime::Create();
  Expose(rt, "result", WrapFunc<&Result>);
  EXPECT_EQ(Eval(rt, "local out = {} for mode = 0, 5 do local n, v = select('#', result(mode)), result(mode) "
                     "out[#out + 1] = n .. (v == nil and '' or type(v) .. #v) end return table.concat(out, ' ')"),
            "0 1 1 1 1string3 1table1");
}

TEST(ArgumentChecks, RaiseScriptErrorsWithTheExpectedTexts) {
  auto rt = RunTime::Create();
  Expose(rt, "checked", WrapFunc<&Checked>);
  EXPECT_EQ(Eval(rt, "return select(2, pcall(checked, 1))"), "expected 2 args");
  EXPECT_EQ(Eval(rt, "return select(2, pcall(checked, 1, 2))"), "name: expected type 'string', got 'number'");
  EXPECT_EQ(Eval(rt, "return select(2, pcall(checked, 'a', 2))"), "second: expected type 'nil', got 'number'");
  EXPECT_EQ(Eval(rt, "return pcall(checked, 'a', nil)"), "true");
}

TEST(Helpers, LibraryTablesWeakTablesAndUpvalues) {
  auto rt = RunTime::Create();
  RunTime::StackCleaner cleaner(rt);
  rt->SetGlobalObject("lib", rt->CreateLibTable({{"f", WrapFunc<&Describe>}, {"data", nullptr}, {nullptr, nullptr}}));
  EXPECT_EQ(Eval(rt, "return type(lib.f) .. ' ' .. tostring(lib.data)"), "function false");
  EXPECT_TRUE(rt->CreateLibTable({})->Empty());

  rt->SetGlobalObject("weak", rt->CreateWeakTableAtStack(RunTime::WeakValues));
  rt->RunString("weak[1] = {} weak[2] = 'kept'", false);
  rt->CollectGarbage();
  EXPECT_EQ(Eval(rt, "return tostring(weak[1]) .. ' ' .. weak[2] .. ' ' .. getmetatable(weak).__mode"), "nil kept v");
  EXPECT_EQ(ThrownText([&] { rt->CreateWeakTableAtStack(static_cast<RunTime::WeakTableType>(3)); }),
            "CreateWeakTableAtStack(): invalid weak table type: 3");

  rt->SetGlobalObject("up", rt->CreateAtStack(WrapFunc<&ReadUpvalue>, {rt->CreateAtStack("first")}));
  EXPECT_EQ(Eval(rt, "return up(1)"), "first");
  EXPECT_TRUE(StartsWith(Eval(rt, "return select(2, pcall(up, 2))"), "Cpp: ObjectAtStack(): invalid stack index: -"));
  EXPECT_EQ(ThrownText([&] { rt->GetUpValue(1); }), "ObjectAtStack(): invalid stack index: -1001001");
}

}  // namespace
