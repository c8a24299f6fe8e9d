#include "lua/global_lib.h"

#include <atomic>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "lua/script_test_util.h"

namespace {

using lua::GlobalLib;
using lua::RunTime;
using lua::TableRef;
using lua_test::Eval;

int Answer(lua_State* L) {
  lua_pushinteger(L, 42);
  return 1;
}

GlobalLib::InitFunc SetField(const std::string& key, const std::string& value) {
  return [key, value](boost::shared_ptr<RunTime>&, boost::shared_ptr<TableRef>& table) { table->Set(key, value); };
}

std::atomic<bool> gFailInit{false};

TEST(Registry, EachLibraryIsWhatItsFunctionsAndInitFunctionMakeIt) {
  auto before = RunTime::Create();
  GlobalLib("reg_basic", nullptr).AddFunc("answer", Answer);
  // The first init function is kept and handles of one name share a table.
  GlobalLib first("reg_shared", SetField("init", "first"));
  GlobalLib second("reg_shared", SetField("init", "second"));
  first.AddFunc("answer", Answer);
  second.AddFunc("again", Answer);
  GlobalLib("reg_failing", [](boost::shared_ptr<RunTime>&, boost::shared_ptr<TableRef>&) {
    if (gFailInit) throw std::runtime_error("init failed");
  }).AddFunc("answer", Answer);
  gFailInit = true;
  EXPECT_EQ(lua_test::ThrownText<lua::RunTimePanic>([] { RunTime::Create(); }), "Lua panic: Cpp: init failed");
  gFailInit = false;
  auto rt = RunTime::Create();
  const std::pair<const char*, const char*> cases[] = {
      {"return reg_basic.answer() .. ' ' .. tostring(package.loaded.reg_basic == reg_basic)"
       " .. ' ' .. tostring(require('reg_basic') == reg_basic)",
       "42 true true"},
      {"return reg_shared.init .. reg_shared.answer() .. reg_shared.again()", "first4242"},
      {"return reg_failing.answer()", "42"},
  };
  for (const auto& [code, expected] : cases) EXPECT_EQ(Eval(rt, code), expected) << code;
  EXPECT_TRUE(rt->IsStackEmpty());
  EXPECT_EQ(Eval(before, "return type(reg_basic)"), "nil");  // registered after it was made
}

TEST(Registry, RegistrationIsSafeWhileOtherThreadsCreateRuntimes) {
  constexpr int kLibs = 60;
  constexpr int kRuntimesPerThread = 30;
  // Every library a runtime sees is complete: its function answers.
  const std::string count =
      "local n = 0 for i = 0, 59 do local lib = _G['reg_thread_' .. i] "
      "if lib then assert(lib.answer() == 42) n = n + 1 end end return n";
  std::atomic<bool> failed{false};
  auto create = [&] {
    for (int i = 0; i < kRuntimesPerThread; ++i) {
      try {
        Eval(RunTime::Create(), count);
      } catch (const std::exception&) {
        failed = true;
      }
    }
  };
  std::thread creator1(create);
  std::thread creator2(create);
  for (int i = 0; i < kLibs; ++i) GlobalLib("reg_thread_" + std::to_string(i), nullptr).AddFunc("answer", Answer);
  creator1.join();
  creator2.join();
  EXPECT_FALSE(failed);
  EXPECT_EQ(Eval(RunTime::Create(), count), std::to_string(kLibs));
}

}  // namespace
