#include "lua/module_context.h"

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

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

  static std::string Eval(const std::shared_ptr<LuaModuleContext>& context, const std::string& code) {
    return lua_test::Eval(LuaModuleContext::Lock(context).GetRuntime(), code);
  }

  testsupport::ScratchDir scratch_;
  const std::string path_ = scratch_.File("module.lua");
};

// A bare runtime with the libraries; the stack is emptied when a Lock ends, a
// panic is followed by a fresh runtime.
TEST_F(ModuleContext, WithoutScriptALockHoldsOneRuntimeUntilItPanics) {
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create();
  EXPECT_FALSE(context->IsLoaded());
  boost::shared_ptr<RunTime> rt;
  {
    LuaModuleContext::Lock lock(context);
    rt = lock.GetRuntime();
    EXPECT_EQ(rt->RunString("return type(json.decode), 2, 3", false).front()->AsString(), "function");
  }
  EXPECT_TRUE(context->IsLoaded());
  EXPECT_TRUE(rt->IsStackEmpty());
  {
    LuaModuleContext::Lock lock(context);
    EXPECT_EQ(lock.GetRuntime(), rt);
    EXPECT_THROW(rt->Error("outside"), lua::RunTimePanic);
  }
  EXPECT_FALSE(context->IsLoaded());
  LuaModuleContext::Lock lock(context);
  EXPECT_NE(lock.GetRuntime(), rt);
}

// A failed load is tried again at the next Lock, whether or not the file is
// watched; a loaded one only when it is watched and the file changed.
TEST_F(ModuleContext, ReloadsAfterAFailedLoadOrWhenAskedAndTheFileChanged) {
  Write("function version() return 1 end end");
  const std::shared_ptr<LuaModuleContext> watching = LuaModuleContext::Create(path_, true);
  const std::shared_ptr<LuaModuleContext> fixed = LuaModuleContext::Create(path_, false);
  for (const auto& context : {watching, fixed}) {
    std::string error;
    EXPECT_FALSE(context->Load(&error));
    EXPECT_TRUE(StartsWith(error, "LuaModuleContext: runtime init error: Lua: ")) << error;
  }
  Write("function version() return 1 end");
  EXPECT_EQ(Eval(watching, "state = 'kept' return version()"), "1");
  EXPECT_EQ(Eval(fixed, "return version()"), "1");
  EXPECT_EQ(Eval(watching, "return state"), "kept");

  Write("function version() return 2 end");
  EXPECT_EQ(Eval(watching, "return version() .. tostring(state)"), "2nil");
  EXPECT_EQ(Eval(fixed, "return version()"), "1");
  // A file that disappears leaves the loaded script in place.
  std::remove(path_.c_str());
  EXPECT_EQ(Eval(watching, "return version()"), "2");
}

// A callback that throws fails the load like the script would.
TEST_F(ModuleContext, AThrowingPreLoadCallbackFailsTheLoad) {
  Write("return 1");
  const std::shared_ptr<LuaModuleContext> context = LuaModuleContext::Create(path_, true);
  context->SetPreLoadCallback([](boost::shared_ptr<RunTime>&, boost::shared_ptr<lua::TableRef>&) {
    throw std::runtime_error("no arguments today");
  });
  std::string error;
  EXPECT_FALSE(context->Load(&error));
  EXPECT_EQ(error, "LuaModuleContext: runtime init error: no arguments today");
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
        const long long version = std::stoll(Eval(context, "return twice() == 2 * version() and version() or -1"));
        if (version < last) ++failures;
        last = version;
        ++calls;
      }
      // After the writer is done, the next lock sees the last version.
      if (Eval(context, "return version()") != std::to_string(kVersions)) ++failures;
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
