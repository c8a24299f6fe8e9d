// Cross-thread cancellation: a host thread cancels the cv.sleep or HTTP
// request that a script blocks in on another thread. Runs under
// ThreadSanitizer too.
#include <chrono>
#include <future>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "http/support/http_peers.h"
#include "lua/libs/libs.h"
#include "lua/module_context.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

using Clock = std::chrono::steady_clock;

// Separates "at once" from "waited it out" without racing a loaded machine.
constexpr long kPromptMs = 2500;

long ElapsedMs(Clock::time_point start) {
  return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// The script's first result as text, or the error that ended it.
std::string RunScript(const boost::shared_ptr<lua::RunTime>& rt, const std::string& code) {
  try {
    lua::RunTime::StackCleaner cleaner(rt);
    auto results = rt->RunString(code, false);
    return results.empty() ? "<none>" : results.front()->AsString();
  } catch (const lua::RunTimeError& e) {
    return e.what();
  }
}

// Runs code on a thread of its own and cancels it from this one. Whether the
// script has begun to wait by then does not matter: a cancellation that
// finds no wait cancels the next one.
std::string RunAndCancel(const boost::shared_ptr<lua::RunTime>& rt, const std::string& code, long* elapsedMs) {
  const auto start = Clock::now();
  auto script = std::async(std::launch::async, [&] { return RunScript(rt, code); });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  rt->Cancel();
  const std::string result = script.get();
  *elapsedMs = ElapsedMs(start);
  return result;
}

class Cancel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    lua::RegisterCommonLib();
    lua::RegisterHttpLib();
  }
};

TEST_F(Cancel, HostThreadWakesASleepingScript) {
  auto rt = lua::RunTime::Create();
  long elapsed = 0;
  EXPECT_EQ(RunAndCancel(rt, "local ok, e = pcall(cv.sleep, 60000) return tostring(ok) .. ': ' .. e", &elapsed),
            "false: cv.sleep: canceled by the host");
  EXPECT_LT(elapsed, kPromptMs);
  // Consumed by that one wait: the runtime sleeps normally afterwards.
  EXPECT_EQ(RunScript(rt, "return tostring(cv.sleep(20))"), "true");
}

TEST_F(Cancel, PendingCancelFailsTheNextWaitOnly) {
  auto rt = lua::RunTime::Create();
  rt->Cancel();
  const auto start = Clock::now();
  const std::string error = RunScript(rt, "cv.sleep(60000)");
  EXPECT_NE(error.find("cv.sleep: canceled by the host"), std::string::npos) << error;
  EXPECT_LT(ElapsedMs(start), kPromptMs);
  EXPECT_EQ(RunScript(rt, "cv.sleep(1) return 'slept'"), "slept");
}

TEST_F(Cancel, HostThreadEndsABlockedHttpRequest) {
  nettest::TempDir dir;
  httptest::PythonPeer peer(dir.Path());
  auto rt = lua::RunTime::Create();
  long elapsed = 0;
  // The peer answers after three seconds; the request itself would wait forever.
  EXPECT_EQ(RunAndCancel(rt,
                         "local ok, e = pcall(http.get, {url = '" + peer.Url("/slow-head") +
                             "'}) return tostring(ok) .. ': ' .. e",
                         &elapsed),
            "false: http.get: canceled by the host");
  EXPECT_LT(elapsed, kPromptMs);
  EXPECT_EQ(RunScript(rt, "local ok, r = http.get{url = '" + peer.Url("/chunked") + "'} return r.output"),
            "Hello, world");
}

TEST_F(Cancel, ModuleContextForwardsToItsRuntime) {
  nettest::TempDir dir;
  const std::string path = dir.File("wait.lua");
  nettest::WriteFile(path, "function wait() cv.sleep(60000) return 'woke' end\n");
  auto context = lua::LuaModuleContext::Create(path, false);
  context->Cancel();  // nothing loaded yet: nothing to cancel, nothing kept
  ASSERT_TRUE(context->Load(nullptr));
  const auto start = Clock::now();
  auto script = std::async(std::launch::async, [&] {
    lua::LuaModuleContext::Lock lock(context);
    try {
      lock.GetRuntime()->RunFunc("wait", {});
      return std::string("not canceled");
    } catch (const lua::RunTimeError& e) {
      return std::string(e.what());
    }
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  context->Cancel();
  const std::string result = script.get();
  EXPECT_NE(result.find("cv.sleep: canceled by the host"), std::string::npos) << result;
  EXPECT_LT(ElapsedMs(start), kPromptMs);
}

}  // namespace
