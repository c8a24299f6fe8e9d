// xml.dom.parseStr on any bytes: it may reject them only with a script error
// (a string), never crash or hang, and a document it accepts must be writable
// again. One runtime serves every input, as a long-lived host's would.
#include <cstddef>
#include <cstdint>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace {

// True when the input was handled as it must be.
const char kCheck[] = R"(
local parse, write = xml.dom.parseStr, xml.write
return function(text)
  local ok, doc = pcall(parse, text)
  if not ok then
    return type(doc) == "string"
  end
  return doc["#type"] == "document" and (pcall(write, doc))
end
)";

// libFuzzer sees no coverage inside the interpreter, which is not built for
// it, so the library text's line-to-line steps are handed over as extra
// counters; without them mutations of the seeds go unguided.
__attribute__((used, section("__libfuzzer_extra_counters"))) uint8_t gLineSteps[1 << 14];
int gPreviousLine = 0;

void CountLineStep(lua_State*, lua_Debug* event) {
  const unsigned step =
      static_cast<unsigned>(gPreviousLine) * 7919u + static_cast<unsigned>(event->currentline);
  ++gLineSteps[step % sizeof(gLineSteps)];
  gPreviousLine = event->currentline;
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
  rt->EnsureFreeStackSlots(10);
  lua_pushlstring(rt->State(), reinterpret_cast<const char*>(data), size);
  const auto results = rt->RunFunc(harness.check, {rt->ObjectAtStackTop()});
  if (results.size() != 1 || !results.front()->AsBool()) __builtin_trap();
  return 0;
}
