// The runtime core beside the raw Lua C API in the same binary:
//  - add(a, b) called from a script loop: lua::WrapFunc versus a plain lua_CFunction;
//  - the same add(a, b) returning its result through CreateAtStack, as library
//    functions do, versus the plain lua_CFunction;
//  - the host calling a two-argument script function: RunFunc versus lua_pcall,
//    with argument handles reused, and as hosts write it: fresh argument handles
//    each call inside a StackCleaner, versus lua_getglobal, two pushes,
//    lua_pcall and lua_settop; beside them that peer plus the reference-count
//    updates that the handle interface implies, the floor of the handle path;
//  - reading a 1-million-element array: ConstArrayIterator versus lua_rawgeti.
// Figures are CPU time per call (per element for the array walk); the ratios
// follow the table.
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <lua.hpp>

#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "lua/wrap_func.h"

namespace {

using lua::ObjectRef;
using lua::RunTime;
using Args = std::vector<boost::shared_ptr<ObjectRef>>;

constexpr long long kScriptCalls = 10000000;
constexpr long long kArrayElements = 1000000;

const char kAddLoop[] =
    "local add, s = add, 0 for i = 1, 10000000 do s = add(s, 1) end return s";
const char kAdd2[] = "function add2(a, b) return a + b end";
const char kAdd[] = "function add(a, b) return a + b end";

// Raw states for the peers; closed with the benchmark.
class RawState {
 public:
  RawState() : L_(luaL_newstate()) { luaL_openlibs(L_); }
  ~RawState() { lua_close(L_); }
  RawState(const RawState&) = delete;
  RawState& operator=(const RawState&) = delete;
  lua_State* get() const { return L_; }

 private:
  lua_State* L_;
};

int AddPlain(lua_State* L) {
  lua_pushinteger(L, luaL_checkinteger(L, 1) + luaL_checkinteger(L, 2));
  return 1;
}

// The same function the way a library writes it: checked count and typed
// reads through the argument handles.
int AddBody(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CheckArgsCount(args, 2);
  lua_pushinteger(rt->State(), args[0]->AsInteger() + args[1]->AsInteger());
  return 1;
}

// As AddBody, with the result made through CreateAtStack, which returns a handle.
int AddBodyHandleResult(boost::shared_ptr<RunTime>& rt, const Args& args) {
  rt->CheckArgsCount(args, 2);
  rt->CreateAtStack(args[0]->AsInteger() + args[1]->AsInteger());
  return 1;
}

void RunAddLoop(benchmark::State& state, lua_State* L) {
  for (auto _ : state) {
    if (luaL_loadstring(L, kAddLoop) != LUA_OK || lua_pcall(L, 0, 1, 0) != LUA_OK) {
      state.SkipWithError(lua_tostring(L, -1));
      break;
    }
    benchmark::DoNotOptimize(lua_tointeger(L, -1));
    lua_pop(L, 1);
  }
}

void BM_AddLuaCFunction(benchmark::State& state) {
  RawState raw;
  lua_register(raw.get(), "add", AddPlain);
  RunAddLoop(state, raw.get());
}

void BM_AddWrapFunc(benchmark::State& state) {
  auto rt = RunTime::Create();
  lua_register(rt->State(), "add", lua::WrapFunc<&AddBody>);
  RunAddLoop(state, rt->State());
}

void BM_AddWrapFuncHandleResult(benchmark::State& state) {
  auto rt = RunTime::Create();
  lua_register(rt->State(), "add", lua::WrapFunc<&AddBodyHandleResult>);
  RunAddLoop(state, rt->State());
}

void BM_CallLuaPcall(benchmark::State& state) {
  RawState raw;
  lua_State* L = raw.get();
  luaL_dostring(L, kAdd2);
  long long sum = 0;
  for (auto _ : state) {
    lua_getglobal(L, "add2");
    lua_pushinteger(L, 1);
    lua_pushinteger(L, 2);
    if (lua_pcall(L, 2, 1, 0) != LUA_OK) {
      state.SkipWithError(lua_tostring(L, -1));
      break;
    }
    sum += lua_tointeger(L, -1);
    lua_pop(L, 1);
  }
  benchmark::DoNotOptimize(sum);
}

void BM_CallRunFunc(benchmark::State& state) {
  auto rt = RunTime::Create();
  rt->RunString(kAdd2, true);
  const Args args = {rt->CreateAtStack(1), rt->CreateAtStack(2)};
  const std::string name = "add2";
  long long sum = 0;
  for (auto _ : state) {
    RunTime::StackCleaner cleaner(rt);
    sum += rt->RunFunc(name, args).front()->AsInteger();
  }
  benchmark::DoNotOptimize(sum);
}

// As BM_CallRunFunc, with the result popped instead of a StackCleaner per call:
// the cleaner's own share is the two count updates of its runtime reference.
void BM_CallRunFuncPop(benchmark::State& state) {
  auto rt = RunTime::Create();
  rt->RunString(kAdd2, true);
  const Args args = {rt->CreateAtStack(1), rt->CreateAtStack(2)};
  const std::string name = "add2";
  long long sum = 0;
  for (auto _ : state) {
    sum += rt->RunFunc(name, args).front()->AsInteger();
    rt->PopFromStack(1);
  }
  benchmark::DoNotOptimize(sum);
}

// lua_getglobal, two pushes, lua_pcall and lua_settop. With `counts`, also
// only the reference-count updates that the handle interface implies for the
// same call: the cleaner's runtime reference and the two argument handles and
// the result handle, each taken and dropped. That variant is not a peer but
// the floor that the handle path cannot go under on this machine.
void RawCallSettop(benchmark::State& state, bool counts) {
  RawState raw;
  lua_State* L = raw.get();
  luaL_dostring(L, kAdd);
  const int base = lua_gettop(L);
  const boost::shared_ptr<int> held[4] = {boost::shared_ptr<int>(new int(0)), boost::shared_ptr<int>(new int(0)),
                                          boost::shared_ptr<int>(new int(0)), boost::shared_ptr<int>(new int(0))};
  long long sum = 0;
  long long i = 0;
  for (auto _ : state) {
    if (counts) {
      boost::shared_ptr<int> taken[4] = {held[0], held[1], held[2], held[3]};
      benchmark::DoNotOptimize(taken);
    }
    lua_getglobal(L, "add");
    lua_pushinteger(L, ++i);
    lua_pushinteger(L, 2);
    if (lua_pcall(L, 2, 1, 0) != LUA_OK) {
      state.SkipWithError(lua_tostring(L, -1));
      break;
    }
    sum += lua_tointeger(L, -1);
    lua_settop(L, base);
  }
  benchmark::DoNotOptimize(sum);
}

void BM_CallLuaPcallSettop(benchmark::State& state) { RawCallSettop(state, false); }
void BM_CallLuaPcallSettopPlusCounts(benchmark::State& state) { RawCallSettop(state, true); }

// The way hosts write the call: a cleaner per call, argument handles made
// for it and dropped with it.
void BM_CallRunFuncFreshArgs(benchmark::State& state) {
  auto rt = RunTime::Create();
  rt->RunString(kAdd, true);
  long long sum = 0;
  long long i = 0;
  for (auto _ : state) {
    RunTime::StackCleaner cleaner(rt);
    sum += rt->RunFunc("add", {rt->CreateAtStack(++i), rt->CreateAtStack(2)}).front()->AsInteger();
  }
  benchmark::DoNotOptimize(sum);
}

const char kMakeArray[] = "local t = {} for i = 1, 1000000 do t[i] = i end return t";

void BM_ArrayLuaRawgeti(benchmark::State& state) {
  RawState raw;
  lua_State* L = raw.get();
  luaL_dostring(L, kMakeArray);
  const int table = lua_gettop(L);
  long long sum = 0;
  for (auto _ : state) {
    for (lua_Integer i = 1; i <= kArrayElements; ++i) {
      lua_rawgeti(L, table, i);
      sum += lua_tointeger(L, -1);
      lua_pop(L, 1);
    }
  }
  benchmark::DoNotOptimize(sum);
}

void BM_ArrayConstArrayIterator(benchmark::State& state) {
  auto rt = RunTime::Create();
  auto table = rt->RunString(kMakeArray, true).front()->AsTableRef();
  long long sum = 0;
  for (auto _ : state) {
    auto it = table->ArrayIterator();
    while (it.Next()) {
      sum += it.Val()->AsInteger();
      rt->PopFromStack(1);  // a million values would not fit on the stack
    }
  }
  benchmark::DoNotOptimize(sum);
}

BENCHMARK(BM_AddLuaCFunction)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AddWrapFunc)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AddWrapFuncHandleResult)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CallLuaPcall);
BENCHMARK(BM_CallRunFunc);
BENCHMARK(BM_CallRunFuncPop);
BENCHMARK(BM_CallLuaPcallSettop);
BENCHMARK(BM_CallLuaPcallSettopPlusCounts);
BENCHMARK(BM_CallRunFuncFreshArgs);
BENCHMARK(BM_ArrayLuaRawgeti)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ArrayConstArrayIterator)->Unit(benchmark::kMillisecond);

// Console output as usual, and the per-call figures kept for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      // With --benchmark_repetitions the median stands for the benchmark.
      const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (run.error_occurred || (run.run_type != Run::RT_Iteration && !median)) continue;
      // CPU time: the machine may be shared, and wall time would count others' work.
      const double seconds = run.cpu_accumulated_time / static_cast<double>(run.iterations);
      nsPerUnit_[run.run_name.str()] = seconds * 1e9 / UnitsPerIteration(run.benchmark_name());
    }
    ConsoleReporter::ReportRuns(runs);
  }

  void PrintRatio(const char* what, const std::string& ours, const std::string& peer, const char* target) const {
    const auto o = nsPerUnit_.find(ours);
    const auto p = nsPerUnit_.find(peer);
    if (o == nsPerUnit_.end() || p == nsPerUnit_.end()) return;
    std::printf("%-44s %s %.1f ns, %s %.1f ns, ratio %.2f%s\n", what, ours.c_str() + 3, o->second,
                peer.c_str() + 3, p->second, o->second / p->second, target);
  }

 private:
  static double UnitsPerIteration(const std::string& name) {
    if (name.rfind("BM_Add", 0) == 0) return static_cast<double>(kScriptCalls);
    if (name.rfind("BM_Array", 0) == 0) return static_cast<double>(kArrayElements);
    return 1;
  }

  std::map<std::string, double> nsPerUnit_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  std::printf("\nPer call (per element for the array walk):\n");
  reporter.PrintRatio("add(a, b) from a script loop:", "BM_AddWrapFunc", "BM_AddLuaCFunction", " (target <= 2.5)");
  reporter.PrintRatio("add(a, b), result through CreateAtStack:", "BM_AddWrapFuncHandleResult",
                      "BM_AddLuaCFunction", " (target <= 2)");
  reporter.PrintRatio("host calls a 2-argument script function:", "BM_CallRunFunc", "BM_CallLuaPcall", "");
  reporter.PrintRatio("same, popping instead of a StackCleaner:", "BM_CallRunFuncPop", "BM_CallLuaPcall", "");
  reporter.PrintRatio("same, fresh argument handles each call:", "BM_CallRunFuncFreshArgs",
                      "BM_CallLuaPcallSettop", " (target <= 3)");
  reporter.PrintRatio("  floor: raw peer + the 8 count updates:", "BM_CallLuaPcallSettopPlusCounts",
                      "BM_CallLuaPcallSettop", "");
  reporter.PrintRatio("1M-element array read:", "BM_ArrayConstArrayIterator", "BM_ArrayLuaRawgeti", "");
  benchmark::Shutdown();
  return 0;
}
