// base64.decode from a script on any bytes, in both result modes: it must never
// raise, must answer exactly what the strict codec answers (nil for rejected or
// empty input), and base64.encode of the bytes must decode back to them. One
// runtime serves every input, as a long-lived host's would.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/libs/libs.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "utils/base64.h"

namespace {

using Handle = boost::shared_ptr<lua::ObjectRef>;

const boost::shared_ptr<lua::RunTime>& Runtime() {
  static const boost::shared_ptr<lua::RunTime> rt = [] {
    lua::RegisterBase64Lib();
    return lua::RunTime::Create();
  }();
  return rt;
}

Handle Bytes(const boost::shared_ptr<lua::RunTime>& rt, const std::string& bytes) {
  rt->EnsureFreeStackSlots(lua::RunTime::kPushHeadroom);
  lua_pushlstring(rt->State(), bytes.data(), bytes.size());
  return rt->ObjectAtStackTop();
}

// A RunTimeError escaping here is a script error the library should not raise:
// uncaught, it ends the run like a crash.
Handle Call(const boost::shared_ptr<lua::RunTime>& rt, const char* name,
            const std::vector<Handle>& args) {
  const Handle function = rt->GetGlobalObject("base64")->AsTableRef()->Get(name);
  std::vector<Handle> results = rt->RunFunc(function, args);
  if (results.size() != 1) __builtin_trap();
  return results.front();
}

std::string StringOf(const Handle& value) {
  if (value->Type() != LUA_TSTRING) __builtin_trap();
  return value->AsString();
}

std::string BytesOfArray(const Handle& value) {
  if (value->Type() != LUA_TTABLE) __builtin_trap();
  std::string bytes;
  lua::TableRef::ConstArrayIterator element = value->AsTableRef()->ArrayIterator();
  while (element.Next()) {
    const long long byte = element.Val()->AsInteger();
    if (byte < 0 || byte > 255) __builtin_trap();
    bytes.push_back(static_cast<char>(byte));
    value->GetRunTime()->PopFromStack(1);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const boost::shared_ptr<lua::RunTime>& rt = Runtime();
  lua::RunTime::StackCleaner cleaner(rt);
  const std::string input(reinterpret_cast<const char*>(data), size);

  std::string expected;
  const bool accepted = utils::Base64Decode(input, &expected) && !expected.empty();

  const Handle text = Bytes(rt, input);
  const Handle asString = Call(rt, "decode", {text});
  const Handle asArray = Call(rt, "decode", {text, rt->CreateAtStack(true)});
  if (!accepted) {
    if (!asString->IsNil() || !asArray->IsNil()) __builtin_trap();
  } else if (StringOf(asString) != expected || BytesOfArray(asArray) != expected) {
    __builtin_trap();
  }

  if (!input.empty()) {
    const Handle encoded = Call(rt, "encode", {text});
    if (StringOf(Call(rt, "decode", {encoded})) != input) __builtin_trap();
  }
  return 0;
}
