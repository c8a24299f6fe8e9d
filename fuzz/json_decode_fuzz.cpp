// json.decode on arbitrary bytes, through a runtime as scripts call it. It
// must never crash, must agree with utils::CheckJsonText on what is JSON, and
// whatever it decodes must encode (unless it holds an infinity) and decode
// again to the same value.
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

// Returns whether the text decoded; raises a script error when a decoded
// value does not survive encoding.
const char kRoundTrip[] = R"(
local text = ...
local value = json.decode(text)
if value == nil then return false end
local function same(a, b)
  if type(a) ~= 'table' or type(b) ~= 'table' then
    return a == b and math.type(a) == math.type(b)
  end
  for k, v in pairs(a) do if not same(v, b[k]) then return false end end
  for k in pairs(b) do if a[k] == nil then return false end end
  return true
end
local ok, encoded = pcall(json.encode, value)
if not ok then
  if not encoded:find('NaN or infinity', 1, true) then error('encode failed: ' .. encoded) end
  return true
end
local again, err = json.decode(encoded)
if again == nil then error('re-decode failed: ' .. err .. ' in ' .. encoded) end
if not same(value, again) then error('changed on the way: ' .. encoded) end
return true
)";

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
  return 0;
}
