// json.encode's engine: script values to JSON text through utils::JsonWriter,
// following the annotations where a table's keys allow both forms.
#include "lua/libs/json_internal.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "lua/internal/json_meta.h"
#include "lua/json.h"
#include "utils/internal/native_stack.h"
#include "utils/json_writer.h"

namespace lua {
namespace jsonlib {

namespace {

// Arrays with holes are written with nulls in them, but a table that is not
// annotated as an array becomes an object when most positions would be holes
// ({[1e9] = true} would take a gigabyte). A table annotated as an array is
// one; it fails only beyond a generous number of holes, since decoding drops
// the nulls of the text it came from.
constexpr lua_Integer kDenseIndexLimit = 32;
constexpr lua_Integer kMaxExtraHoles = lua_Integer{1} << 20;

bool TooSparse(lua_Integer maxIndex, lua_Integer count, bool annotated) {
  if (annotated) return maxIndex - 2 * count > kMaxExtraHoles;
  return maxIndex > kDenseIndexLimit && maxIndex / 2 > count;
}

// Thrown out of the recursion; the library function turns it into a script
// error once the writer is gone.
struct EncodeError {
  std::string message;
};

class Encoder {
 public:
  Encoder(lua_State* L, bool pretty, bool finiteOnly) : L_(L), writer_(pretty), finiteOnly_(finiteOnly) {
    luaL_checkstack(L_, RunTime::kPushHeadroom, "json.encode");
    metas_ = detatils::PushAllMetadatas(L_);
  }

  void Value(int index, int depth) {
    switch (lua_type(L_, index)) {
      case LUA_TNIL: writer_.Null(); return;
      case LUA_TBOOLEAN: writer_.Bool(lua_toboolean(L_, index) != 0); return;
      case LUA_TNUMBER:
        if (lua_isinteger(L_, index)) {
          writer_.Integer(lua_tointeger(L_, index));
        } else if (!writer_.Double(lua_tonumber(L_, index))) {
          // Decoding turns a number beyond the doubles into an infinity;
          // 1e999 is such a number, so the infinities survive a round trip.
          const lua_Number number = lua_tonumber(L_, index);
          if (std::isnan(number) || finiteOnly_) Fail("cannot encode NaN or infinity");
          writer_.Infinity(number < 0);
        }
        return;
      case LUA_TSTRING: String(index, "string"); return;
      case LUA_TTABLE: Table(index, depth); return;
      case LUA_TLIGHTUSERDATA:
        if (lua_touserdata(L_, index) == JsonNullValue()) {
          writer_.Null();
          return;
        }
        break;
      default: break;
    }
    Fail("cannot encode a ", luaL_typename(L_, index));
  }

  std::string Take() { return writer_.Take(); }

 private:
  // The error texts are put together out of line: strings in the frames of
  // the recursion would cost stack at every level (see Table).
  [[noreturn]] __attribute__((noinline, cold)) static void Fail(const char* a, const char* b = "", const char* c = "") {
    throw EncodeError{std::string(a) + b + c};
  }

  [[noreturn]] __attribute__((noinline, cold)) static void FailUtf8(const char* what, size_t bad) {
    Fail(what, " is not valid UTF-8 (byte ", (std::to_string(bad) + ")").c_str());
  }

  [[noreturn]] __attribute__((noinline, cold)) static void FailSparse(lua_Integer maxIndex, lua_Integer count) {
    Fail(("array too sparse (index " + std::to_string(maxIndex) + " with " + std::to_string(count) + " elements)")
             .c_str());
  }

  void String(int index, const char* what) {
    size_t size = 0;
    const char* text = lua_tolstring(L_, index, &size);
    size_t bad = 0;
    if (!writer_.String(text, size, &bad)) {
      FailUtf8(what, bad);
    }
  }

  void Table(int index, int depth) {
    static_assert(kMaxJsonDepth == 1000, "the text below names the limit");
    if (depth >= kMaxJsonDepth) Fail("tables nested deeper than 1000 levels");
    // The nesting limit needs more stack than a small thread has; the limit
    // follows the thread's stack there.
    if (utils::NativeStackLeft() < utils::kNativeStackReserve) Fail("tables nested too deep for the thread's stack");
    const void* identity = lua_topointer(L_, index);
    for (const void* open : path_) {
      if (open == identity) Fail("a table contains itself");
    }
    luaL_checkstack(L_, RunTime::kPushHeadroom, "json.encode");
    path_.push_back(identity);
    const lua_Integer annotation = detatils::AnnotationOf(L_, metas_, index);
    switch (annotation) {
      case JsonAnnotatedObject: Object(index, depth); break;
      case JsonAnnotatedArray: Array(index, depth, true); break;
      case JsonNotAnnotated: Array(index, depth, false); break;
      default: FailAnnotation(annotation);
    }
    path_.pop_back();
  }

  bool IsIndex(int index) const { return lua_isinteger(L_, index) && lua_tointeger(L_, index) >= 1; }

  // A table with index keys only (an empty one included) is an array unless
  // it is annotated as an object; one that is not annotated as an array
  // becomes an object all the same when most positions would be holes (see
  // TooSparse), or when it has any other key. Every key is looked at before
  // anything is written: a border (#t) says nothing about the keys in the
  // hash part, and an array written from it would drop them.
  void Array(int index, int depth, bool annotated) {
    if (Sequence(index, depth)) return;
    lua_Integer maxIndex = 0;
    lua_Integer count = 0;
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      lua_pop(L_, 1);
      if (!IsIndex(-1)) {
        if (annotated) FailKey(-1);
        lua_pop(L_, 1);
        Object(index, depth);
        return;
      }
      const lua_Integer key = lua_tointeger(L_, -1);
      ++count;
      if (key > maxIndex) maxIndex = key;
    }
    if (TooSparse(maxIndex, count, annotated)) {
      if (annotated) {
        FailSparse(maxIndex, count);
      }
      Object(index, depth);
      return;
    }
    Elements(index, maxIndex, depth);
  }

  // Most arrays are sequences held in the table's array part, which lua_next
  // walks in order: those are written in one pass, each value as it comes.
  // Any other key, or a gap, rewinds to the start and leaves the table to
  // the general path.
  bool Sequence(int index, int depth) {
    const utils::JsonWriter::Mark mark = writer_.GetMark();
    writer_.Open('[');
    lua_Integer expected = 1;
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      if (!lua_isinteger(L_, -2) || lua_tointeger(L_, -2) != expected) {
        lua_pop(L_, 2);
        writer_.Rewind(mark);
        return false;
      }
      writer_.Item(expected == 1);
      Value(lua_gettop(L_), depth + 1);
      lua_pop(L_, 1);
      ++expected;
    }
    writer_.Close(']', expected == 1);
    return true;
  }

  [[noreturn]] __attribute__((noinline, cold)) static void FailAnnotation(lua_Integer annotation) {
    Fail("bad annotated type ", std::to_string(annotation).c_str());
  }

  // Names the key (its first bytes, for a string or a number) or its type.
  [[noreturn]] __attribute__((noinline, cold)) void FailKey(int index) {
    const char what[] = "a table annotated as an array has the key ";
    const int type = lua_type(L_, index);
    if (type != LUA_TSTRING && type != LUA_TNUMBER) Fail(what, "of type ", luaL_typename(L_, index));
    lua_pushvalue(L_, index);
    size_t size = 0;
    const char* text = lua_tolstring(L_, -1, &size);
    Fail(what, ("'" + std::string(text, std::min<size_t>(size, 64)) + "'").c_str());
  }

  [[noreturn]] __attribute__((noinline, cold)) void FailNamedTwice(int name) {
    size_t size = 0;
    const char* text = lua_tolstring(L_, name, &size);
    Fail("two keys of a table are written as the member name '", std::string(text, std::min<size_t>(size, 64)).c_str(),
         "'");
  }

  // Writes t[1..n] as an array, holes as null.
  void Elements(int index, lua_Integer n, int depth) {
    writer_.Open('[');
    for (lua_Integer i = 1; i <= n; ++i) {
      writer_.Item(i == 1);
      if (lua_rawgeti(L_, index, i) == LUA_TNIL) {
        writer_.Null();
      } else {
        Value(lua_gettop(L_), depth + 1);
      }
      lua_pop(L_, 1);
    }
    writer_.Close(']', n == 0);
  }

  void Object(int index, int depth) {
    writer_.Open('{');
    bool first = true;
    std::unique_ptr<std::unordered_set<std::string>> floatNames;  // made at the first float key
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      writer_.Item(first);
      first = false;
      Key(index, lua_gettop(L_) - 1, floatNames);
      writer_.Colon();
      Value(lua_gettop(L_), depth + 1);
      lua_pop(L_, 1);
    }
    writer_.Close('}', first);
  }

  // Numbers name members by their tostring() text, as in the host conversion.
  // That text may also be a string key of the table, or the text of another
  // float key (floats that differ past 14 digits): a member named twice would
  // lose one of the values to whoever reads the text, so it is an error.
  void Key(int table, int index, std::unique_ptr<std::unordered_set<std::string>>& floatNames) {
    switch (lua_type(L_, index)) {
      case LUA_TSTRING: String(index, "key"); return;
      case LUA_TNUMBER: {
        // A copy: lua_tolstring on the key itself would upset lua_next.
        lua_pushvalue(L_, index);
        const int name = lua_gettop(L_);
        const bool isFloat = !lua_isinteger(L_, name);
        String(name, "key");
        lua_pushvalue(L_, name);
        bool twice = lua_rawget(L_, table) != LUA_TNIL;
        lua_pop(L_, 1);
        if (!twice && isFloat) {
          if (!floatNames) floatNames = std::make_unique<std::unordered_set<std::string>>();
          size_t size = 0;
          const char* text = lua_tolstring(L_, name, &size);
          twice = !floatNames->emplace(text, size).second;
        }
        if (twice) FailNamedTwice(name);
        lua_pop(L_, 1);
        return;
      }
      default: break;
    }
    Fail("cannot use a ", luaL_typename(L_, index), " as an object key");
  }

  lua_State* L_;
  utils::JsonWriter writer_;
  const bool finiteOnly_;
  int metas_ = 0;
  std::vector<const void*> path_;  // tables being written, outermost first
};

}  // namespace

// The value at `index` as JSON text, or false with the reason in *error.
// `finiteOnly` refuses the infinities too, for a store whose file is written
// by the host writer, which has no form for them.
bool EncodeValue(lua_State* L, int index, bool pretty, std::string* text, std::string* error,
                 bool finiteOnly) {
  const int top = lua_gettop(L);
  bool encoded = true;
  try {
    Encoder encoder(L, pretty, finiteOnly);
    encoder.Value(index, 0);
    *text = encoder.Take();
  } catch (const EncodeError& e) {
    *error = e.message;
    encoded = false;
  }
  lua_settop(L, top);
  return encoded;
}

}  // namespace jsonlib
}  // namespace lua
