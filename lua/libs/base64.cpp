// The script library "base64": RFC 4648 Base64 of strings and of byte arrays
// (tables of integers), on the utilities' strict codec. Empty results and
// rejected input come back as nil; bad arguments are script errors.
#include <algorithm>
#include <climits>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/global_lib.h"
#include "lua/libs/libs.h"
#include "lua/libs/register.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "lua/wrap_func.h"
#include "utils/base64.h"

namespace lua {

namespace {

using Args = std::vector<boost::shared_ptr<ObjectRef>>;
using Rt = boost::shared_ptr<RunTime>;

// The bytes of a string argument, read in place: handles would copy them, and
// inputs of many megabytes are normal here. Valid while the argument is.
const char* StringBytes(const Rt& rt, const boost::shared_ptr<ObjectRef>& arg, size_t* size) {
  return lua_tolstring(rt->State(), arg->StackIndex(), size);
}

// Each element gives its lowest eight bits, so 256 is byte 0 and -1 byte 255:
// scripts doing byte arithmetic need not mask.
std::string ByteArrayBytes(const Rt& rt, const boost::shared_ptr<TableRef>& array) {
  std::string bytes;
  // A "__len" metamethod may claim any length; the walk stops at the first
  // hole all the same, so only the raw border is worth reserving for.
  const long long length = std::min<long long>(
      array->Len(), static_cast<long long>(lua_rawlen(rt->State(), array->StackIndex())));
  if (length > 0) bytes.reserve(static_cast<size_t>(length));
  TableRef::ConstArrayIterator element = array->ArrayIterator();
  while (element.Next()) {
    if (!element.Val()->IsInteger()) rt->Error("Invalid array value");
    bytes.push_back(static_cast<char>(element.Val()->AsInteger() & 0xff));
    // The iterator leaves every element on the stack; a long array would
    // otherwise overflow it.
    rt->PopFromStack(1);
  }
  return bytes;
}

// Pushes the encoding of the bytes, written straight into the interpreter's
// buffer rather than through a temporary string.
void PushEncoded(const Rt& rt, const char* data, size_t size) {
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  luaL_Buffer buffer;
  char* text = luaL_buffinitsize(rt->State(), &buffer, utils::Base64EncodedSize(size));
  luaL_pushresultsize(&buffer, utils::Base64EncodeTo(data, size, text));
}

int Encode(Rt& rt, const Args& args) {
  rt->CheckArgsCount(args, 1);
  std::string arrayBytes;
  const char* data = nullptr;
  size_t size = 0;
  switch (args[0]->Type()) {
    case LUA_TSTRING:
      data = StringBytes(rt, args[0], &size);
      break;
    case LUA_TTABLE:
      arrayBytes = ByteArrayBytes(rt, args[0]->AsTableRef());
      data = arrayBytes.data();
      size = arrayBytes.size();
      break;
    default:
      rt->Error("Invalid argument: expected type 'array' or 'string'");
  }
  if (size == 0) return rt->NilResult();
  PushEncoded(rt, data, size);
  return 1;
}

// Pushes a table holding the bytes as integers 0..255 at 1..n.
void PushByteArray(const Rt& rt, const char* bytes, size_t size) {
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_State* L = rt->State();
  // Sized once and filled with raw stores: this loop is what limits decoding
  // to a byte array, and a table grown by appends would rehash log2(n) times.
  lua_createtable(L, static_cast<int>(std::min<size_t>(size, INT_MAX)), 0);
  for (size_t i = 0; i < size; ++i) {
    lua_pushinteger(L, static_cast<unsigned char>(bytes[i]));
    lua_rawseti(L, -2, static_cast<lua_Integer>(i + 1));
  }
}

int Decode(Rt& rt, const Args& args) {
  if (args.empty() || args.size() > 2) {
    rt->Error("Bad arguments, expected: (base64[, byte_array = false])");
  }
  rt->CheckType(args[0], LUA_TSTRING, "Invalid argument");
  bool byteArray = false;
  if (args.size() == 2) {
    rt->CheckType(args[1], LUA_TBOOLEAN, "Invalid argument");
    byteArray = args[1]->AsBool();
  }
  size_t length = 0;
  const char* text = StringBytes(rt, args[0], &length);
  if (length == 0) return rt->NilResult();
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  luaL_Buffer buffer;
  char* bytes = luaL_buffinitsize(rt->State(), &buffer, utils::Base64DecodedMaxSize(length));
  size_t size = 0;
  // A rejected text is an answer, not an error: nil. The unfinished buffer
  // below the result is dropped with the rest of the call's stack.
  if (!utils::Base64DecodeTo(text, length, bytes, &size, utils::Base64Mode::kStrict) || size == 0) {
    return rt->NilResult();
  }
  if (byteArray) {
    PushByteArray(rt, bytes, size);
  } else {
    luaL_pushresultsize(&buffer, size);
  }
  return 1;
}

const luaL_Reg kBase64Lib[] = {
    {"encode", WrapFunc<&Encode>},
    {"decode", WrapFunc<&Decode>},
};

}  // namespace

void RegisterBase64Lib() {
  static std::once_flag once;
  detail::RegisterLibOnce(once, "base64", kBase64Lib);
}

}  // namespace lua
