// What containment costs and how fast it gives control back:
//  - a CPU-bound script (fib(27) and a string-building loop) with no limits,
//    with a time limit, with an instruction budget, beside the same code on a
//    raw lua_State through lua_pcall;
//  - the delay from Cancel() or a deadline to the host holding the
//    RunTimeInterrupted, median and worst over 1,000 runs each.
// Best of several interleaved rounds; threads are not pinned (the canceller
// must run beside the script), so the placement is the scheduler's.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

using Clock = std::chrono::steady_clock;

const char kWork[] =
    "function work()\n"
    "  local function fib(n) if n < 2 then return n end return fib(n - 1) + fib(n - 2) end\n"
    "  local s = {} for i = 1, 200000 do s[#s + 1] = tostring(i) .. 'x' end\n"
    "  return fib(27) + #table.concat(s)\n"
    "end\n";

double Ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double TimeRaw() {
  lua_State* L = luaL_newstate();
  luaL_openlibs(L);
  luaL_dostring(L, kWork);
  const auto start = Clock::now();
  lua_getglobal(L, "work");
  lua_pcall(L, 0, 1, 0);
  const double ms = Ms(Clock::now() - start);
  lua_close(L);
  return ms;
}

double TimeOurs(std::chrono::milliseconds timeout, std::uint64_t budget) {
  auto rt = lua::RunTime::Create();
  lua::RunTime::StackCleaner cleaner(rt);
  rt->RunString(kWork, false);
  rt->SetCallLimits(timeout, budget);
  const auto start = Clock::now();
  rt->RunFunc("work", {});
  return Ms(Clock::now() - start);
}

struct Latency {
  double median;
  double worst;
};

// `stop` ends the call the script thread runs; returns when (relative to
// what `stop` reports as the moment it acted) the host had the exception.
Latency MeasureStops(int runs, const std::string& code, std::chrono::milliseconds timeout, bool cancel) {
  auto rt = lua::RunTime::Create();
  rt->SetCallLimits(timeout, 0);
  std::vector<double> delays;
  for (int i = 0; i < runs; ++i) {
    std::atomic<bool> caught{false};
    Clock::time_point started, done;
    std::thread script([&] {
      lua::RunTime::StackCleaner cleaner(rt);
      started = Clock::now();
      try {
        rt->RunString(code, false);
      } catch (const lua::RunTimeInterrupted&) {
        done = Clock::now();
        caught = true;
      }
    });
    Clock::time_point acted;
    if (cancel) {
      for (;;) {
        acted = Clock::now();
        if (rt->Cancel()) break;
        std::this_thread::yield();
      }
    }
    script.join();
    if (!cancel) acted = started + timeout;
    if (caught) delays.push_back(Ms(done - acted));
  }
  std::sort(delays.begin(), delays.end());
  if (delays.empty()) return {-1, -1};
  return {delays[delays.size() / 2], delays.back()};
}

}  // namespace

int main() {
  lua::RegisterAllLibs();
  constexpr int kRounds = 7;
  const std::chrono::milliseconds noTime(0), longTime(60000);
  const std::uint64_t noBudget = 0, bigBudget = 1ULL << 50;
  double raw = 1e9, none = 1e9, timed = 1e9, budgeted = 1e9;
  for (int round = 0; round < kRounds; ++round) {
    raw = std::min(raw, TimeRaw());
    none = std::min(none, TimeOurs(noTime, noBudget));
    timed = std::min(timed, TimeOurs(longTime, noBudget));
    budgeted = std::min(budgeted, TimeOurs(noTime, bigBudget));
  }
  std::printf("CPU-bound script (fib(27) + 200k string appends), best of %d, ms:\n", kRounds);
  std::printf("  raw lua_State + lua_pcall (peer)   %8.1f\n", raw);
  std::printf("  RunFunc, no limits                 %8.1f   %+5.1f%% vs peer\n", none, 100 * (none / raw - 1));
  std::printf("  RunFunc, time limit 60 s           %8.1f   %+5.1f%% vs no limits (target <= 3%%)\n", timed,
              100 * (timed / none - 1));
  std::printf("  RunFunc, instruction budget 2^50   %8.1f   %+5.1f%% vs no limits (target <= 3%%)\n", budgeted,
              100 * (budgeted / none - 1));

  constexpr int kRuns = 1000;
  std::printf("\nDelay until the host holds RunTimeInterrupted, %d runs each, ms (goal < 5; threads unpinned):\n",
              kRuns);
  const struct {
    const char* what;
    const char* code;
    std::chrono::milliseconds timeout;
    bool cancel;
  } kStops[] = {
      {"Cancel(), running loop        ", "while true do end", noTime, true},
      {"Cancel(), pcall(cv.sleep) loop", "while true do pcall(cv.sleep, 100000) end", noTime, true},
      {"deadline 5 ms, running loop   ", "while true do end", std::chrono::milliseconds(5), false},
      {"deadline 5 ms, cv.sleep       ", "while true do pcall(cv.sleep, 100000) end", std::chrono::milliseconds(5),
       false},
  };
  for (const auto& stop : kStops) {
    const Latency latency = MeasureStops(kRuns, stop.code, stop.timeout, stop.cancel);
    std::printf("  %s  median %6.3f  worst %7.3f\n", stop.what, latency.median, latency.worst);
  }
  return 0;
}
