// What a host can do about a script that will not stop on its own; runs
// under ThreadSanitizer too.
#include <netdb.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include <gmock/gmock.h>

#include "http/support/http_peers.h"
#include "support/shared.h"
#include "lua/libs/libs.h"
#include "lua/module_context.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "lua/script_test_util.h"
#include "utils/net/internal/resolver.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using testsupport::ElapsedMs;

// Room for a loaded machine above each limit; the waits it ends are minutes long.
constexpr long kMarginMs = 1500;
constexpr long kLimitMs = 300;

std::string RunCode(const boost::shared_ptr<lua::RunTime>& rt, const std::string& code) {
  try {
    lua::RunTime::StackCleaner cleaner(rt);
    auto results = rt->RunString(code, false);
    return results.empty() ? "<none>" : results.front()->AsString();
  } catch (const lua::RunTimeError& e) {
    return (dynamic_cast<const lua::RunTimeInterrupted*>(&e) ? "error: " : "error (not an interruption): ") +
           std::string(e.what());
  }
}

// A resolver that never answers in time; its thread is left behind.
int SlowResolve(const char*, const char*, const addrinfo*, addrinfo** result) {
  std::this_thread::sleep_for(std::chrono::seconds(5));
  *result = nullptr;
  return EAI_AGAIN;
}

class Containment : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    lua::RegisterAllLibs();
    servers_ = new httptest::Servers();
  }
  static void TearDownTestSuite() {
    delete servers_;
    servers_ = nullptr;
  }
  void TearDown() override { utils::impl::SetResolveFunctionForTesting(nullptr); }

  // Every way a script can keep its thread.
  static std::vector<std::string> Stubborn() {
    return {
        "while true do end",
        "while true do pcall(error, 'caught') end",
        "while true do pcall(cv.sleep, 100000) end",
        "while true do pcall(coroutine.wrap(function() while true do end end)) end",
        "local ok = http.get{url = '" + servers_->peer.Url("/slow-head") + "', timeout = 60000} return 'unblocked'",
        "http.get{url = 'http://never.answers.test/', timeout = 60000} return 'unblocked'",
        "http.requestAll{{url = '" + servers_->peer.Url("/slow-head") + "', timeout = 60000}, {url = '" +
            servers_->peer.Url("/slow-head") + "', timeout = 60000}} return 'unblocked'",
    };
  }

  static httptest::Servers* servers_;
};

httptest::Servers* Containment::servers_ = nullptr;

// Either way the runtime stays usable and holds no stale call, even under
// a host's allocator: the runtime must find itself without its own.
TEST_F(Containment, LimitsAndCancelStopEveryStubbornScript) {
  utils::impl::SetResolveFunctionForTesting(&SlowResolve);
  auto rt = lua::RunTime::Create();
  static void* ownData;
  static lua_Alloc own;
  own = lua_getallocf(rt->State(), &ownData);
  lua_setallocf(
      rt->State(), [](void*, void* p, size_t o, size_t n) { return own(ownData, p, o, n); }, nullptr);
  // Nothing running: nothing to cancel, and nothing kept for later.
  EXPECT_FALSE(rt->Cancel());
  EXPECT_EQ(RunCode(rt, "cv.sleep(50) return 'slept'"), "slept");
  for (const std::string& code : Stubborn()) {
    rt->SetCallLimits(milliseconds(kLimitMs), 0);
    auto start = Clock::now();
    EXPECT_EQ(RunCode(rt, code), "error: interrupted: deadline of 300 ms") << code;
    EXPECT_LT(ElapsedMs(start), kLimitMs + kMarginMs) << code;
    rt->SetCallLimits(milliseconds(0), 0);
    start = Clock::now();
    auto script = std::async(std::launch::async, [&] { return RunCode(rt, code); });
    // Retried until the call is seen running: its start races with ours.
    bool delivered = false;
    while (!delivered && script.wait_for(milliseconds(50)) != std::future_status::ready) delivered = rt->Cancel();
    EXPECT_TRUE(delivered) << code;
    EXPECT_EQ(script.get(), "error: interrupted: canceled by the host") << code;
    EXPECT_LT(ElapsedMs(start), kMarginMs) << code;
    EXPECT_FALSE(rt->Cancel());
    EXPECT_EQ(RunCode(rt, "cv.sleep(1) return 'usable'"), "usable") << code;
  }
  // Each call has its own budget, counted from its start; lifted limits stop nothing.
  rt->SetCallLimits(milliseconds(0), 100000);
  EXPECT_EQ(RunCode(rt, "while true do pcall(error) end"), "error: interrupted: budget of 100000 instructions");
  EXPECT_EQ(RunCode(rt, "local n = 0 for i = 1, 1000 do n = n + i end return n"), "500500");
  rt->SetCallLimits(milliseconds(0), 0);
  EXPECT_EQ(RunCode(rt, "local n = 0 for i = 1, 3000000 do n = n + 1 end return n"), "3000000");
}

TEST_F(Containment, ModuleContextCancelsFreesTheLockAndTimesOutWaiters) {
  nettest::TempDir dir;
  const std::string path = dir.File("module.lua");
  nettest::WriteFile(path, "function spin() collectgarbage('stop') while true do pcall(cv.sleep, 1000) end end\n");
  auto context = lua::LuaModuleContext::Create(path, false);
  EXPECT_FALSE(context->Cancel());
  ASSERT_TRUE(context->Load(nullptr));
  std::atomic<bool> locked{false};
  auto holder = std::async(std::launch::async, [&] {
    lua::LuaModuleContext::Lock lock(context);
    locked = true;
    return lua_test::ThrownText<lua::RunTimeInterrupted>([&] { lock.GetRuntime()->RunFunc("spin", {}); });
  });
  while (!locked) std::this_thread::sleep_for(milliseconds(5));
  // A waiter gives up in time and holds nothing.
  const auto start = Clock::now();
  EXPECT_THAT(lua_test::ThrownText<lua::LockTimeout>([&] { lua::LuaModuleContext::Lock(context, milliseconds(100)); }),
              ::testing::AllOf(::testing::HasSubstr(path), ::testing::HasSubstr("100 ms")));
  EXPECT_LT(ElapsedMs(start), kMarginMs);
  while (!context->Cancel()) std::this_thread::sleep_for(milliseconds(5));
  EXPECT_EQ(holder.get(), "interrupted: canceled by the host");
  // The collector the canceled call stopped is running again for the next user.
  lua::LuaModuleContext::Lock lock(context, milliseconds(1000));
  lua::RunTime::StackCleaner cleaner(lock.GetRuntime());
  EXPECT_TRUE(lock.GetRuntime()->RunString("return collectgarbage('isrunning')", false)[0]->AsBool());
}

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

long ResidentKb() {
  std::ifstream status("/proc/self/statm");
  long pages = 0, resident = 0;
  status >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(Containment, MemoryLimitStopsABombNearTheLimit) {
  lua::RunTimeOptions options;
  options.memoryLimitBytes = 32 << 20;
  auto rt = lua::RunTime::Create(options);
  const long before = ResidentKb();
  for (const char* bomb : {"local t = {} for i = 1, 1e9 do t[i] = ('x'):rep(64) .. i end", "return ('x'):rep(1 << 30)",
                           "local s = 'x' while true do s = s .. s end"}) {
    const std::string error = RunCode(rt, bomb);
    EXPECT_NE(error.find("not enough memory"), std::string::npos) << bomb << ": " << error;
    // Sanitizer shadow memory grows with every byte the state touches.
    EXPECT_TRUE(kSanitized || ResidentKb() - before < 96 * 1024) << bomb << ": " << ResidentKb() - before << " KiB";
    EXPECT_EQ(RunCode(rt, "collectgarbage() return 'usable'"), "usable");
  }
}

// Each capability must be absent by every road, not only by its usual name.
TEST_F(Containment, SandboxLeavesNoWayToFilesTheProcessOrBytecode) {
  const char kProbes[] = R"lua(
    local reached = {}
    assert(load("return string.rep", "probe", "t", _ENV)() == string.rep, "the probes cannot run")
    for _, probe in ipairs({
      "io", "debug", "os.exit", "os.getenv", "os.execute", "os.remove", "dofile", "loadfile", "string.dump",
      "('').dump", "getmetatable('').__index.dump", "package.loadlib", "package.searchpath",
      "package.loaded.io", "package.loaded.debug", "package.loaded.os.exit", "package.loaded._G.io",
      "require('io')", "require('debug')", "require('socket')", "package.searchers[1]",
      "cv.setenv", "package.loaded.cv.setenv", "cv.expand_path", "cv.get_dir_contents",
      "cv.get_devfile_numbers", "cv.get_disk_space_info", "json.load", "json.save", "json.storage",
      "package.loaded.json.save", "xml.sax.parseFile", "xml.dom.parseFile",
      "load(bytecode)", "load(bytecode, 'x', 'b')", "load(bytecode, 'x', 'b', _ENV)",
      "load(function() local b = bytecode bytecode = nil return b end)",
      "collectgarbage('stop')", "collectgarbage('setpause', 1000)",
      "setmetatable({}, {__gc = function() while true do end end})",
      "http.get{url = 'http://127.0.0.1:9/', outputFile = '/tmp/x'}",
      "http.requestAll{{url = 'http://127.0.0.1:9/', inputFile = '/etc/hostname'}}",
    }) do
      local ok, v = pcall(load("return " .. probe, probe, "t", _ENV))
      if ok and v ~= nil then reached[#reached + 1] = probe end
    end
    return table.concat(reached, ", ")
  )lua";
  lua::RunTimeOptions options;
  options.sandbox = true;
  auto sandboxed = lua::RunTime::Create(options);
  auto open = lua::RunTime::Create();
  // Bytecode made where it is allowed must not load where it is not.
  {
    lua::RunTime::StackCleaner cleaner(open);
    const auto dumped = open->RunString("return string.dump(function() return 'ran' end)", false);
    size_t size = 0;
    const char* bytes = lua_tolstring(open->State(), dumped[0]->StackIndex(), &size);
    lua_pushlstring(sandboxed->State(), bytes, size);
    lua_setglobal(sandboxed->State(), "bytecode");
  }
  EXPECT_EQ(RunCode(sandboxed, kProbes), "");
  EXPECT_EQ(RunCode(open, "return tostring(io ~= nil and cv.setenv ~= nil and string.dump ~= nil)"), "true");
  // What untrusted scripts legitimately need is still there.
  EXPECT_EQ(RunCode(sandboxed,
                    "return type(os.time()) .. type(os.clock()) .. tostring(collectgarbage('count') > 0) "
                    ".. load('return 1')() .. require('json').encode({1}) .. type(load('return string')())"),
            "numbernumbertrue1[1]table");
}

}  // namespace
