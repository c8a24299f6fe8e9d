// json.decode on arbitrary bytes, through a runtime as scripts call it. It
// must never crash, must agree with utils::CheckJsonText on what is JSON, and
// whatever it decodes must encode and decode again to the same value. The
// same bytes also serve as a recipe for a script table of mixed keys (some
// numbers and strings with the same text), which json.encode must write
// without losing a key or refuse with an error that says why. Each input must finish within a time linear in its size.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include <lua.hpp>

#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/runtime.h"
#include "utils/json_check.h"

namespace {

// Returns whether the text decoded; raises a script error when a value does
// not survive encoding.
const char kRoundTrip[] = R"(
local text = ...
local function same(a, b)
  if type(a) ~= 'table' or type(b) ~= 'table' then
    return a == b and math.type(a) == math.type(b)
  end
  for k, v in pairs(a) do if not same(v, b[k]) then return false end end
  for k in pairs(b) do if a[k] == nil then return false end end
  return true
end

-- Keys by their text and the nulls left out, as a decode gives them back.
local function plain(v)
  if type(v) ~= 'table' then return v end
  local keyed = {}
  for k, x in pairs(v) do if x ~= json.null then keyed[tostring(k)] = plain(x) end end
  return keyed
end

local KEYS = {1, 2, 3, 4, 5, 8, 33, 40, 1000000000, 0, -1, 1.5, 'x', 'y', '', 'k1', '1', '1.5'}
local VALUES = {0, -7, 2.5, 'v', true, false, json.null, math.huge, -math.huge, 1e300, 2^53}
local pos = 0
local function nextByte() pos = pos + 1 return text:byte(pos) or 0 end
local function recipe(depth)
  local t = {}
  local kind = nextByte()
  for i = 1, kind % 8 do
    local b = nextByte()
    local key = KEYS[b % #KEYS + 1]
    if b >= 0xC0 and depth < 4 then t[key] = recipe(depth + 1) else t[key] = VALUES[(b >> 4) % #VALUES + 1] end
  end
  local annotation = (kind >> 3) % 3
  if annotation == 1 then json.array(t) elseif annotation == 2 then json.object(t) end
  return t
end
local mixed = recipe(0)
local ok, encoded = pcall(json.encode, mixed)
if ok then
  if not same(plain(mixed), plain(json.decode(encoded))) then error('lost a key: ' .. encoded) end
elseif not (encoded:find('has the key', 1, true) or encoded:find('too sparse', 1, true) or
            encoded:find('written as the member name', 1, true)) then
  error('mixed table refused: ' .. encoded)
end

local value = json.decode(text)
if value == nil then return false end
encoded = json.encode(value)
local again, err = json.decode(encoded)
if again == nil then error('re-decode failed: ' .. err .. ' in ' .. encoded) end
if not same(value, again) then error('changed on the way: ' .. encoded) end
return true
)";

// Generous for a sanitizer build; a quadratic step on a few kilobytes, or
// one that never ends, still goes far beyond it.
constexpr double kBaseSeconds = 0.5;
constexpr double kSecondsPerByte = 20e-6;

struct Harness {
  Harness() {
    lua::RegisterJsonLib();
    rt = lua::RunTime::Create();
    if (luaL_loadstring(rt->State(), kRoundTrip) != LUA_OK) std::abort();
    function = luaL_ref(rt->State(), LUA_REGISTRYINDEX);
  }
  boost::shared_ptr<lua::RunTime> rt;
  int function;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Harness harness;
  const auto start = std::chrono::steady_clock::now();
  lua_State* L = harness.rt->State();
  const char* text = size == 0 ? "" : reinterpret_cast<const char*>(data);
  lua_rawgeti(L, LUA_REGISTRYINDEX, harness.function);
  lua_pushlstring(L, text, size);
  if (lua_pcall(L, 1, 1, 0) != LUA_OK) {
    std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
    std::abort();
  }
  const bool decoded = lua_toboolean(L, -1) != 0;
  lua_settop(L, 0);
  if (decoded != utils::CheckJsonText(text, text + size, lua::kMaxJsonDepth, nullptr, nullptr)) {
    std::fprintf(stderr, "json.decode and CheckJsonText disagree: decoded = %d\n", decoded ? 1 : 0);
    std::abort();
  }
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
  if (elapsed.count() > kBaseSeconds + kSecondsPerByte * static_cast<double>(size)) {
    std::fprintf(stderr, "%zu bytes took %.3f s\n", size, elapsed.count());
    std::abort();
  }
  return 0;
}
