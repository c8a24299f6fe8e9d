#include "lua/module_context.h"

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>

#include "lua/libs/libs.h"
#include "lua/script_test_util.h"
#include "utils/files.h"
#include "utils/time.h"

namespace {

using lua::LuaModuleContext;
using lua::RunTime;
using lua_test::StartsWith;

class ModuleContext : public ::testing::Test {
 protected:
  void SetUp() override { lua::RegisterJsonLib(); }

  // Each version differs in length from the last, so that a rewrite within
  // one tick of the file system clock is still seen.
  void Write(const std::string& code) {
    static int generation = 0;
    ASSERT_TRUE(utils::WriteFileAtomically(path_, code + "\n--" + std::string(++generation % 7, ' ') + "\n"));
  }

  static long long Call(const std::shared_ptr<LuaModuleContext>& context, const std::string& function) {
    LuaModuleContext::Lock lock(context);
    return lock.GetRuntime()->RunFunc(function, {}).front()->AsInteger();
  }

  testsupport::ScratchDir scratch_;
  const std::string path_ = scratch_.File("module.lua");
};

TEST_F(ModuleContext, WithoutScriptLoadsABareRuntimeWithTheLibraries) {
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create();
  EXPECT_FALSE(context->IsLoaded());
  std::string error;
  ASSERT_TRUE(context->Load(&error)) << error;
  EXPECT_TRUE(context->IsLoaded());
  EXPECT_EQ(lua_test::Eval(LuaModuleContext::Lock(context).GetRuntime(), "return type(json.decode)"), "function");
}

TEST_F(ModuleContext, ReloadsOnlyWhenAskedAndTheFileChanged) {
  Write("function version() return 1 end");
  const std::shared_ptr<LuaModuleContext> watching = LuaModuleContext::Create(path_, true);
  const std::shared_ptr<LuaModuleContext> fixed = LuaModuleContext::Create(path_, false);
  EXPECT_EQ(Call(watching, "version"), 1);
  EXPECT_EQ(Call(fixed, "version"), 1);
  lua_test::Eval(LuaModuleContext::Lock(watching).GetRuntime(), "state = 'kept'");
  EXPECT_EQ(lua_test::Eval(LuaModuleContext::Lock(watching).GetRuntime(), "return state"), "kept");

  Write("function version() return 2 end");
  EXPECT_EQ(Call(watching, "version"), 2);
  EXPECT_EQ(lua_test::Eval(LuaModuleContext::Lock(watching).GetRuntime(), "return tostring(state)"), "nil");
  EXPECT_EQ(Call(fixed, "version"), 1);
  // A file that disappears leaves the loaded script in place.
  std::remove(path_.c_str());
  EXPECT_EQ(Call(watching, "version"), 2);
}

TEST_F(ModuleContext, ReloadsAfterSyntaxErrorIsFixed) {
  Write("function version() return 1 end end");
  for (bool reloadOnChange : {true, false}) {
    const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, reloadOnChange);
    std::string error;
    EXPECT_FALSE(context->Load(&error));
    EXPECT_TRUE(StartsWith(error, "LuaModuleContext: runtime init error: Lua: ")) << error;
    EXPECT_FALSE(context->IsLoaded());
    EXPECT_THROW(LuaModuleContext::Lock lock(context), std::runtime_error);
    EXPECT_FALSE(context->Load(nullptr));

    Write("function version() return 3 end");
    EXPECT_TRUE(context->Load(&error)) << error;
    EXPECT_EQ(Call(context, "version"), 3);
    Write("function version() return 1 end end");
  }
}

TEST_F(ModuleContext, CallbacksPrepareArgumentsAndSeeResults) {
  Write("return init_data.greeting .. ', world', #init_data");
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, false);
  context->SetPreLoadCallback([](boost::shared_ptr<RunTime>& rt, boost::shared_ptr<lua::TableRef>& args) {
    args->Set("greeting", "hello");
    args->Append(1);
    EXPECT_TRUE(rt->IsValid());
  });
  std::vector<std::string> seen;
  context->SetPostLoadCallback(
      [&seen](boost::shared_ptr<RunTime>&, const std::vector<boost::shared_ptr<lua::ObjectRef>>& results) {
        for (const auto& result : results) seen.push_back(result->AsString());
      });
  std::string error;
  ASSERT_TRUE(context->Load(&error)) << error;
  EXPECT_EQ(seen, (std::vector<std::string>{"hello, world", "1"}));

  // A callback that throws fails the load like the script would.
  Write("return 1");
  const std::shared_ptr<LuaModuleContext> failing = LuaModuleContext::Create(path_, false);
  failing->SetPreLoadCallback([](boost::shared_ptr<RunTime>&, boost::shared_ptr<lua::TableRef>&) {
    throw std::runtime_error("no arguments today");
  });
  EXPECT_FALSE(failing->Load(&error));
  EXPECT_EQ(error, "LuaModuleContext: runtime init error: no arguments today");
}

TEST_F(ModuleContext, ReleasingALockEmptiesTheStack) {
  Write("function three() return 1, 2, 3 end");
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, false);
  boost::shared_ptr<RunTime> rt;
  {
    LuaModuleContext::Lock lock(context);
    rt = lock.GetRuntime();
    EXPECT_EQ(rt->RunFunc("three", {}).size(), 3u);
  }
  EXPECT_TRUE(rt->IsStackEmpty());
  context->SetGcParams();
  context->CollectGarbage();
  EXPECT_EQ(LuaModuleContext::Lock(context).GetRuntime(), rt);
}

TEST_F(ModuleContext, APanicIsFollowedByAFreshRuntime) {
  Write("function version() return 1 end");
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, false);
  boost::shared_ptr<RunTime> broken;
  {
    LuaModuleContext::Lock lock(context);
    broken = lock.GetRuntime();
    // An error outside any protected call reaches the panic handler.
    EXPECT_THROW(broken->Error("outside"), lua::RunTimePanic);
  }
  EXPECT_FALSE(context->IsLoaded());
  LuaModuleContext::Lock lock(context);
  EXPECT_NE(lock.GetRuntime(), broken);
  EXPECT_TRUE(lock.GetRuntime()->IsValid());
}

TEST_F(ModuleContext, EachLoadIsLogged) {
  Write("return 1");
  const auto sink = std::make_shared<lua_test::CaptureSink>();
  zullog::SetSink(sink);
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, false);
  EXPECT_TRUE(context->Load(nullptr));
  zullog::SetSink(nullptr);
  EXPECT_THAT(sink->Lines(), ::testing::Contains("4 <lua_module_ctx> Init: " + path_ + " has been loaded"));
}

// Eight threads lock and call while the file is rewritten: every call must
// see one whole version (both functions of one file), and no thread may see
// an older version after a newer one.
TEST_F(ModuleContext, ConcurrentCallsSeeWholeVersionsWhileTheFileChanges) {
  auto script = [](int version) {
    return "local v = " + std::to_string(version) +
           " function version() return v end function twice() return 2 * v end";
  };
  Write(script(0));
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, true);
  ASSERT_TRUE(context->Load(nullptr));

  constexpr int kThreads = 8;
  constexpr int kVersions = 20;
  std::atomic<bool> writing{true};
  std::atomic<int> failures{0};
  std::atomic<long long> calls{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      long long last = 0;
      for (bool more = true; more;) {
        more = writing.load();
        LuaModuleContext::Lock lock(context);
        const boost::shared_ptr<RunTime> rt = lock.GetRuntime();
        const long long version = rt->RunFunc("version", {}).front()->AsInteger();
        const long long twice = rt->RunFunc("twice", {}).front()->AsInteger();
        if (twice != 2 * version || version < last) ++failures;
        last = version;
        ++calls;
      }
      // After the writer is done, the next lock sees the last version.
      if (Call(context, "version") != kVersions) ++failures;
    });
  }
  for (int version = 1; version <= kVersions; ++version) {
    utils::Sleep(5);
    Write(script(version));
  }
  writing = false;
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(failures.load(), 0);
  EXPECT_GT(calls.load(), kThreads);
}

}  // namespace
