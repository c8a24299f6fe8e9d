// xml.dom.parseStr on any bytes: it may reject them only with a script error
// (a string), never crash or hang; a document it accepts must be written and
// read back as the same tree, unless a prefixed attribute left a local name
// that the writer refuses; and the work done must stay linear in the size of
// the input. One runtime serves every input, as a long-lived host's would.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

// True when the input was handled as it must be.
const char kCheck[] = R"(
local parse, write = xml.dom.parseStr, xml.write

-- What a tree holds, with sibling names in a fixed order.
local function plain(node)
  local children = {}
  for name, entry in pairs(node.childElems) do
    local list = {}
    for i, child in ipairs(#entry > 0 and entry or {entry}) do list[i] = plain(child) end
    children[#children + 1] = {name, list}
  end
  table.sort(children, function(a, b) return a[1] < b[1] end)
  local attributes = {}
  for name, value in pairs(node["#attr"]) do attributes[#attributes + 1] = name .. "=" .. value end
  table.sort(attributes)
  return {node["#name"], node["#text"], attributes, children}
end

-- A prefixed attribute keeps only what follows its first colon. That need
-- not be a name the writer takes ("p:-x" gives "-x"), and one that holds a
-- colon itself ("p:a:b" gives "a:b") is read back as prefix "a" and name
-- "b", or fails when "a" is no declared prefix. Declarations keep their
-- full names and read back as they were.
local XML_NAME = "^[A-Za-z_:\128-\255][A-Za-z0-9_:%.%-\128-\255]*$"
local function attributeNames(node, check)
  for name in pairs(node["#attr"]) do
    if not check(name) then return false end
  end
  for _, entry in pairs(node.childElems) do
    for _, child in ipairs(#entry > 0 and entry or {entry}) do
      if not attributeNames(child, check) then return false end
    end
  end
  return true
end
local function writable(name) return name:find(XML_NAME) ~= nil end
local function kept(name) return not name:find(":", 1, true) or name:find("^xmlns:") ~= nil end

local function same(a, b)
  if type(a) ~= "table" or type(b) ~= "table" then return a == b end
  if #a ~= #b then return false end
  for i = 1, #a do if not same(a[i], b[i]) then return false end end
  return true
end

return function(text)
  local ok, doc = pcall(parse, text)
  if not ok then
    return type(doc) == "string"
  end
  if doc["#type"] ~= "document" then return false end
  local written
  ok, written = pcall(write, doc)
  if not attributeNames(doc, writable) then
    return not ok and tostring(written):find("Invalid attribute name", 1, true) ~= nil
  end
  if not ok then return false end
  local again
  ok, again = pcall(parse, written)
  if attributeNames(doc, kept) then return ok and same(plain(doc), plain(again)) end
  return ok or tostring(again):find("Cannot find namespace for prefix", 1, true) ~= nil
end
)";

// libFuzzer sees no coverage inside the interpreter, which is not built for
// it, so the library text's line-to-line steps are handed over as extra
// counters; without them mutations of the seeds go unguided. Their number
// measures the work an input costs.
__attribute__((used, section("__libfuzzer_extra_counters"))) uint8_t gLineSteps[1 << 14];
int gPreviousLine = 0;
size_t gStepCount = 0;

// Parsing, writing and parsing again take a few dozen lines per byte at most
// (a reference in a text or a tag of its own); one more loop over the open
// elements for each of them goes far beyond it on a deep document.
constexpr size_t kBaseSteps = 4000;
constexpr size_t kStepsPerByte = 60;

void CountLineStep(lua_State*, lua_Debug* event) {
  const unsigned step =
      static_cast<unsigned>(gPreviousLine) * 7919u + static_cast<unsigned>(event->currentline);
  ++gLineSteps[step % sizeof(gLineSteps)];
  gPreviousLine = event->currentline;
  ++gStepCount;
}

struct Harness {
  boost::shared_ptr<lua::RunTime> rt;
  boost::shared_ptr<lua::ObjectRef> check;  // at the bottom of the stack for good
};

const Harness& GetHarness() {
  static const Harness harness = [] {
    lua::RegisterXmlLib();
    Harness made{lua::RunTime::Create(), nullptr};
    made.check = made.rt->RunString(kCheck, false).at(0);
    lua_sethook(made.rt->State(), CountLineStep, LUA_MASKLINE, 0);
    return made;
  }();
  return harness;
}

}  // namespace

// A RunTimeError escaping here means the check itself failed to run:
// uncaught, it ends the run like a crash.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const Harness& harness = GetHarness();
  const boost::shared_ptr<lua::RunTime>& rt = harness.rt;
  lua::RunTime::StackCleaner cleaner(rt);
  gPreviousLine = 0;
  gStepCount = 0;
  rt->EnsureFreeStackSlots(lua::RunTime::kPushHeadroom);
  lua_pushlstring(rt->State(), reinterpret_cast<const char*>(data), size);
  const auto results = rt->RunFunc(harness.check, {rt->ObjectAtStackTop()});
  if (results.size() != 1 || !results.front()->AsBool()) __builtin_trap();
  if (gStepCount > kBaseSteps + kStepsPerByte * size) {
    std::fprintf(stderr, "%zu bytes took %zu steps\n", size, gStepCount);
    __builtin_trap();
  }
  return 0;
}
