// The json script library: JSON text and files to script values and back,
// json.null, array and object annotation, and a handle to a file-backed store.
// Decoding parses with simdjson and builds Lua values from its tree; encoding writes
// through utils::JsonWriter. Both follow the host conversion's rules: arrays
// and objects are annotated, null members and elements are left out, and the
// annotation decides how a table is written back where its keys allow both
// forms (an empty table, or one with index keys only).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <locale.h>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <json/reader.h>
#include <json/value.h>
#include <lua.hpp>
#include <simdjson.h>

#include "lua/global_lib.h"
#include "lua/internal/json_meta.h"
#include "lua/json.h"
#include "lua/libs/libs.h"
#include "lua/libs/register.h"
#include "lua/object_ref.h"
#include "lua/runtime.h"
#include "lua/wrap_func.h"
#include "utils/files.h"
#include "utils/internal/native_stack.h"
#include "utils/json_check.h"
#include "utils/json_storage.h"
#include "utils/json_writer.h"

namespace lua {

namespace {

using Args = std::vector<boost::shared_ptr<ObjectRef>>;
using Storage = std::shared_ptr<utils::JsonPersistentStorage>;
namespace ondemand = simdjson::ondemand;

const char kStorageMetatable[] = "corvane.json.storage";

// ---- decoding ----

// Text that a parser has grown to handle is kept for the thread's next call
// up to this size; a larger one is freed with its call.
constexpr size_t kMaxKeptInputBytes = size_t{1} << 20;

// The parsers and a padded copy of the input: simdjson reads up to
// SIMDJSON_PADDING bytes past the text, more than a Lua string guarantees.
// The tree parser serves every decode; the on-demand one only the texts the
// tree refuses, so it stays unallocated while texts are valid.
struct DecodeScratch {
  simdjson::dom::parser tree;
  ondemand::parser parser;
  std::unique_ptr<char[]> input;
  size_t inputCapacity = 0;
  bool busy = false;
};

thread_local std::unique_ptr<DecodeScratch> tDecodeScratch;

// The thread's scratch for one decode. A finalizer that runs during a decode
// (the collector steps while tables are made) may decode too; it gets a
// scratch of its own.
class ScratchLease {
 public:
  ScratchLease() {
    if (!tDecodeScratch) tDecodeScratch = std::make_unique<DecodeScratch>();
    if (tDecodeScratch->busy) {
      own_ = std::make_unique<DecodeScratch>();
      scratch_ = own_.get();
    } else {
      scratch_ = tDecodeScratch.get();
    }
    scratch_->busy = true;
  }
  ~ScratchLease() {
    scratch_->busy = false;
    if (scratch_ == tDecodeScratch.get() &&
        (scratch_->inputCapacity > kMaxKeptInputBytes || scratch_->parser.capacity() > kMaxKeptInputBytes ||
         scratch_->tree.capacity() > kMaxKeptInputBytes)) {
      tDecodeScratch.reset();
    }
  }
  ScratchLease(const ScratchLease&) = delete;
  ScratchLease& operator=(const ScratchLease&) = delete;

  // Whether this decode runs inside another one on this thread.
  bool Nested() const { return own_ != nullptr; }
  DecodeScratch& operator*() const { return *scratch_; }
  DecodeScratch* operator->() const { return scratch_; }

 private:
  std::unique_ptr<DecodeScratch> own_;
  DecodeScratch* scratch_;
};

// strtod in the "C" locale: the host may have set a locale with a decimal comma.
double ParseDouble(const std::string& text) {
  static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
  if (cLocale == static_cast<locale_t>(nullptr)) return std::strtod(text.c_str(), nullptr);
  return strtod_l(text.c_str(), nullptr, cLocale);
}

std::string_view TrimTrailingSpace(std::string_view text) {
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\n' || text.back() == '\r')) {
    text.remove_suffix(1);
  }
  return text;
}

// Registry key of the string cache.
const char kStringCacheKey = 0;

// Elements of one container gathered on the stack before they are moved into
// its table, and the room kept free above them (a value and the moves).
constexpr int kMaxPending = 4096;
constexpr int kStackMargin = 16;

// Builds script values from a simdjson document. Every container it makes is
// annotated, through the deferred annotations.
class Decoder {
 public:
  // Pushes the helpers it works with (see the members).
  Decoder(lua_State* L, bool nested) : L_(L), annotations_(L, nested) {
    luaL_checkstack(L_, RunTime::kPushHeadroom, "json.decode");
    // The runtime's string cache is taken out of the registry for the decode:
    // a decode that a finalizer runs meanwhile must not replace the strings
    // that this one points at.
    if (lua_rawgetp(L_, LUA_REGISTRYINDEX, &kStringCacheKey) == LUA_TTABLE) {
      lua_pushnil(L_);
      lua_rawsetp(L_, LUA_REGISTRYINDEX, &kStringCacheKey);
    } else {
      lua_pop(L_, 1);
      lua_createtable(L_, kStringCacheSize, 0);
    }
    stringCache_ = lua_gettop(L_);
  }

  // Pushes the value of a parsed tree, whose strings are already unescaped
  // into one buffer and whose containers know their sizes, so each table is
  // made at its final size and filled straight away. With `wrapped`, as for
  // Document. An error leaves the stack to the caller, who falls back to
  // Document for the cases the tree does not take (integers beyond 64 bits,
  // numbers beyond the range of a double) and for the error text.
  simdjson::error_code Tree(simdjson::dom::element root, bool wrapped) {
    simdjson::error_code error = simdjson::SUCCESS;
    if (wrapped) {
      simdjson::dom::array brackets;
      error = root.get_array().get(brackets);
      if (!error && brackets.size() != 1) error = simdjson::TAPE_ERROR;
      if (error) return error;
      const simdjson::dom::element scalar = *brackets.begin();
      if (scalar.is_null()) {
        lua_pushlightuserdata(L_, JsonNullValue());
      } else {
        error = TreeValue(scalar, 0);
      }
    } else {
      error = TreeValue(root, 0);
    }
    if (!error) Finish();
    return error;
  }

  // Pushes the document's value. With `wrapped`, the text was one scalar put
  // in brackets (see DecodeText), and the scalar is the value; a null there
  // becomes json.null.
  simdjson::error_code Document(ondemand::document& document, bool wrapped) {
    ondemand::value root;
    ondemand::json_type type;
    simdjson::error_code error = document.get_value().get(root);
    if (!error) error = root.type().get(type);
    if (!error && wrapped) {
      error = type == ondemand::json_type::array ? Scalar(root) : simdjson::TAPE_ERROR;
    } else if (!error) {
      error = Value(root, type, 0);
    }
    // "[1][2]" ends with ']' as a single array would.
    const char* location = nullptr;
    if (!error && document.current_location().get(location) != simdjson::OUT_OF_BOUNDS) {
      error = simdjson::TRAILING_CONTENT;
    }
    if (!error) Finish();
    return error;
  }

 private:
  void Finish() {
    annotations_.Finish();
    lua_pushvalue(L_, stringCache_);
    lua_rawsetp(L_, LUA_REGISTRYINDEX, &kStringCacheKey);
  }

  simdjson::error_code TreeValue(simdjson::dom::element value, int depth) {
    using simdjson::dom::element_type;
    switch (value.type()) {
      case element_type::ARRAY: {
        if (depth >= kMaxJsonDepth || utils::NativeStackLeft() < utils::kNativeStackReserve) {
          return simdjson::DEPTH_ERROR;
        }
        // The count saturates for huge arrays; it is a size hint only.
        const simdjson::dom::array array = value.get_array().value_unsafe();
        if (!lua_checkstack(L_, kStackMargin)) return simdjson::DEPTH_ERROR;
        lua_createtable(L_, static_cast<int>(std::min<size_t>(array.size(), INT32_MAX)), 0);
        lua_Integer index = 0;
        for (const simdjson::dom::element element : array) {
          ++index;
          if (element.is_null()) continue;  // a hole keeps the positions of the elements after it
          const simdjson::error_code error = TreeValue(element, depth + 1);
          if (error) return error;
          lua_rawseti(L_, -2, index);
        }
        annotations_.Add(lua_gettop(L_), JsonAnnotatedArray);
        return simdjson::SUCCESS;
      }
      case element_type::OBJECT: {
        if (depth >= kMaxJsonDepth || utils::NativeStackLeft() < utils::kNativeStackReserve) {
          return simdjson::DEPTH_ERROR;
        }
        const simdjson::dom::object object = value.get_object().value_unsafe();
        if (!lua_checkstack(L_, kStackMargin)) return simdjson::DEPTH_ERROR;
        lua_createtable(L_, 0, static_cast<int>(std::min<size_t>(object.size(), INT32_MAX)));
        // In their order, so that the last of two equal names wins.
        for (const simdjson::dom::key_value_pair member : object) {
          if (member.value.is_null()) continue;
          PushString(member.key);
          const simdjson::error_code error = TreeValue(member.value, depth + 1);
          if (error) return error;
          lua_rawset(L_, -3);
        }
        annotations_.Add(lua_gettop(L_), JsonAnnotatedObject);
        return simdjson::SUCCESS;
      }
      case element_type::STRING: PushString(value.get_string().value_unsafe()); return simdjson::SUCCESS;
      case element_type::INT64: lua_pushinteger(L_, value.get_int64().value_unsafe()); return simdjson::SUCCESS;
      case element_type::UINT64:
        lua_pushnumber(L_, static_cast<lua_Number>(value.get_uint64().value_unsafe()));
        return simdjson::SUCCESS;
      case element_type::DOUBLE: lua_pushnumber(L_, value.get_double().value_unsafe()); return simdjson::SUCCESS;
      case element_type::BOOL: lua_pushboolean(L_, value.get_bool().value_unsafe() ? 1 : 0); return simdjson::SUCCESS;
      default: return simdjson::TAPE_ERROR;  // null is handled by the container
    }
  }

  simdjson::error_code Value(ondemand::value& value, ondemand::json_type type, int depth) {
    switch (type) {
      case ondemand::json_type::array: {
        ondemand::array array;
        const simdjson::error_code error = value.get_array().get(array);
        return error ? error : Array(array, depth);
      }
      case ondemand::json_type::object: {
        ondemand::object object;
        const simdjson::error_code error = value.get_object().get(object);
        return error ? error : Object(object, depth);
      }
      default: return Scalar(value, type);
    }
  }

  simdjson::error_code Scalar(ondemand::value& value, ondemand::json_type type) {
    switch (type) {
      case ondemand::json_type::number: return Number(value);
      case ondemand::json_type::string: {
        std::string_view text;
        const simdjson::error_code error = value.get_string().get(text);
        if (!error) PushString(text);
        return error;
      }
      case ondemand::json_type::boolean: {
        bool flag = false;
        const simdjson::error_code error = value.get_bool().get(flag);
        if (!error) lua_pushboolean(L_, flag ? 1 : 0);
        return error;
      }
      default: return simdjson::TAPE_ERROR;
    }
  }

  // The one element of the brackets around a scalar.
  simdjson::error_code Scalar(ondemand::value& brackets) {
    ondemand::array array;
    simdjson::error_code error = brackets.get_array().get(array);
    if (error) return error;
    int count = 0;
    for (auto element : array) {
      if (++count > 1) return simdjson::TAPE_ERROR;
      ondemand::value value;
      ondemand::json_type type;
      error = std::move(element).get(value);
      if (!error) error = value.type().get(type);
      if (!error && type == ondemand::json_type::null) {
        error = SkipNull(value);
        if (!error) lua_pushlightuserdata(L_, JsonNullValue());
      } else if (!error) {
        error = Scalar(value, type);
      }
      if (error) return error;
    }
    return count == 1 ? simdjson::SUCCESS : simdjson::TAPE_ERROR;
  }

  // Integers become Lua integers while they fit; larger ones, and numbers
  // beyond the range of a double (1e400 reads as infinity), become floats
  // as the Lua lexer would make them. The number's kind is asked first:
  // simdjson's all-in-one get_number() reads floats of 19 or more digits as 0.
  simdjson::error_code Number(ondemand::value& source) {
    ondemand::number_type type;
    simdjson::error_code error = source.get_number_type().get(type);
    if (!error) {
      switch (type) {
        case ondemand::number_type::signed_integer: {
          int64_t value = 0;
          error = source.get_int64().get(value);
          if (!error) lua_pushinteger(L_, value);
          break;
        }
        case ondemand::number_type::unsigned_integer: {
          uint64_t value = 0;
          error = source.get_uint64().get(value);
          if (!error) lua_pushnumber(L_, static_cast<lua_Number>(value));
          break;
        }
        default: {
          double value = 0;
          error = source.get_double().get(value);
          if (!error) lua_pushnumber(L_, value);
          break;
        }
      }
      if (!error) return simdjson::SUCCESS;
    }
    const std::string_view token = TrimTrailingSpace(source.raw_json_token());
    if (!utils::IsJsonNumber(token.data(), token.data() + token.size())) return error;
    lua_pushnumber(L_, ParseDouble(std::string(token)));
    return simdjson::SUCCESS;
  }

  static simdjson::error_code SkipNull(ondemand::value& value) {
    bool isNull = false;
    const simdjson::error_code error = value.is_null().get(isNull);
    if (error) return error;
    return isNull ? simdjson::SUCCESS : simdjson::N_ATOM_ERROR;
  }

  // A container's elements (an object's names and values) are gathered on
  // the stack and moved into a table made for their number once it is
  // known: growing a table step by step rehashes it at every doubling. A
  // very long container is moved in parts, to keep within the stack limit.
  simdjson::error_code Array(ondemand::array& array, int depth) {
    if (depth >= kMaxJsonDepth || utils::NativeStackLeft() < utils::kNativeStackReserve) return simdjson::DEPTH_ERROR;
    const int base = lua_gettop(L_);
    bool made = false;
    lua_Integer count = 0;   // elements read, nulls included
    lua_Integer stored = 0;  // elements moved into the table
    for (auto element : array) {
      ondemand::value value;
      simdjson::error_code error = std::move(element).get(value);
      ondemand::json_type type;
      if (!error) error = value.type().get(type);
      if (error) return error;
      if (count - stored >= kMaxPending || !lua_checkstack(L_, kStackMargin)) {
        MoveElements(base, &made, stored, count);
        stored = count;
      }
      ++count;
      if (type == ondemand::json_type::null) {
        error = SkipNull(value);
        if (error) return error;
        lua_pushnil(L_);  // keeps the positions of the elements after it
        continue;
      }
      error = Value(value, type, depth + 1);
      if (error) return error;
    }
    MoveElements(base, &made, stored, count);
    annotations_.Add(base + 1, JsonAnnotatedArray);
    return simdjson::SUCCESS;
  }

  simdjson::error_code Object(ondemand::object& object, int depth) {
    if (depth >= kMaxJsonDepth || utils::NativeStackLeft() < utils::kNativeStackReserve) return simdjson::DEPTH_ERROR;
    const int base = lua_gettop(L_);
    bool made = false;
    int pending = 0;  // members on the stack
    for (auto member : object) {
      ondemand::field field;
      simdjson::error_code error = std::move(member).get(field);
      std::string_view name;
      if (!error) error = field.unescaped_key().get(name);
      if (error) return error;
      ondemand::value value = field.value();
      ondemand::json_type type;
      error = value.type().get(type);
      if (error) return error;
      if (type == ondemand::json_type::null) {
        error = SkipNull(value);
        if (error) return error;
        continue;
      }
      if (pending >= kMaxPending || !lua_checkstack(L_, kStackMargin)) {
        MoveMembers(base, &made, pending);
        pending = 0;
      }
      PushString(name);
      error = Value(value, type, depth + 1);
      if (error) return error;
      ++pending;
    }
    MoveMembers(base, &made, pending);
    annotations_.Add(base + 1, JsonAnnotatedObject);
    return simdjson::SUCCESS;
  }

  // Stores the elements above the table (or above `base` before there is
  // one) at stored + 1 .. count, skipping the nils of null elements; the
  // table is then alone at base + 1:
  //   [base | v1 .. vn]         -> [base | v1 .. vn, new] -> [base | new]
  //   [base | table, v1 .. vn]  -> [base | table, v1 .. vn, table] -> [base | table]
  void MoveElements(int base, bool* made, lua_Integer stored, lua_Integer count) {
    const int first = base + (*made ? 2 : 1);
    const int top = lua_gettop(L_);
    if (*made) {
      lua_pushvalue(L_, base + 1);
    } else {
      lua_createtable(L_, static_cast<int>(count - stored), 0);
    }
    const int table = top + 1;
    lua_Integer index = stored;
    for (int slot = first; slot <= top; ++slot) {
      ++index;
      if (lua_type(L_, slot) == LUA_TNIL) continue;
      lua_pushvalue(L_, slot);
      lua_rawseti(L_, table, index);
    }
    if (table != base + 1) lua_replace(L_, base + 1);
    lua_settop(L_, base + 1);
    *made = true;
  }

  // As MoveElements for name/value pairs, in their order, so that the last
  // of two equal names wins:
  //   [base | (table,) k1, v1 .. kn, vn] -> [base | table]
  void MoveMembers(int base, bool* made, int pending) {
    const int first = base + (*made ? 2 : 1);
    const int top = lua_gettop(L_);
    if (*made) {
      lua_pushvalue(L_, base + 1);
    } else {
      lua_createtable(L_, 0, pending);
    }
    const int table = top + 1;
    for (int slot = first; slot < top; slot += 2) {
      lua_pushvalue(L_, slot);
      lua_pushvalue(L_, slot + 1);
      lua_rawset(L_, table);
    }
    if (table != base + 1) lua_replace(L_, base + 1);
    lua_settop(L_, base + 1);
    *made = true;
  }

  // Member names, and many short values, repeat from record to record.
  // Interning such a string again costs Lua a hash over its bytes and a walk
  // through its string table, which is as large as all strings of the
  // runtime; this cache hands out the string made last time for the same
  // bytes. The strings live in a table of the registry, so the pointers here
  // stay valid. Longer strings are not interned by Lua and gain nothing.
  void PushString(std::string_view text) {
    if (text.empty() || text.size() > kMaxCachedString) {
      lua_pushlstring(L_, text.data(), text.size());
      return;
    }
    const size_t slot = (text.size() * 31 + static_cast<unsigned char>(text[0]) * 7 +
                         static_cast<unsigned char>(text[text.size() / 2]) * 3 +
                         static_cast<unsigned char>(text.back())) %
                        kStringCacheSize;
    CachedString& cached = strings_[slot];
    if (cached.size == text.size() && std::memcmp(cached.data, text.data(), text.size()) == 0) {
      lua_rawgeti(L_, stringCache_, static_cast<lua_Integer>(slot) + 1);
      return;
    }
    cached.data = lua_pushlstring(L_, text.data(), text.size());
    cached.size = text.size();
    lua_pushvalue(L_, -1);
    lua_rawseti(L_, stringCache_, static_cast<lua_Integer>(slot) + 1);
  }

  struct CachedString {
    const char* data = nullptr;
    size_t size = 0;
  };
  static constexpr size_t kStringCacheSize = 256;
  // LUAI_MAXSHORTLEN: the longest string that Lua interns.
  static constexpr size_t kMaxCachedString = 40;

  lua_State* L_;
  detatils::DeferredAnnotations annotations_;
  int stringCache_ = 0;  // recent short strings
  CachedString strings_[kStringCacheSize];
};

// Pushes the value of the JSON text and returns true, or returns false with
// the reason and its byte offset in *error and the stack as it was.
bool DecodeText(lua_State* L, const char* text, size_t size, std::string* error) {
  if (size > simdjson::SIMDJSON_MAXSIZE_BYTES) {
    *error = "text too large (" + std::to_string(size) + " bytes)";
    return false;
  }
  const int base = lua_gettop(L);

  // A scalar at the top goes in brackets, as the one element of an array:
  // simdjson's own handling of such texts misreads some (a literal that
  // whitespace follows, a string that something else follows).
  size_t first = 0;
  while (first < size && (text[first] == ' ' || text[first] == '\t' || text[first] == '\n' || text[first] == '\r')) {
    ++first;
  }
  simdjson::error_code failure = first == size ? simdjson::EMPTY : simdjson::SUCCESS;
  if (!failure) {
    const bool wrapped = text[first] != '[' && text[first] != '{';
    const size_t length = size + (wrapped ? 2 : 0);
    ScratchLease scratch;
    const size_t needed = length + simdjson::SIMDJSON_PADDING;
    if (scratch->inputCapacity < needed) {
      scratch->input.reset(new char[needed]);
      scratch->inputCapacity = needed;
    }
    char* input = scratch->input.get();
    if (wrapped) {
      input[0] = '[';
      input[size + 1] = ']';
    }
    std::memcpy(input + (wrapped ? 1 : 0), text, size);
    std::memset(input + length, 0, simdjson::SIMDJSON_PADDING);
    Decoder decoder(L, scratch.Nested());
    const int helpers = lua_gettop(L);
    simdjson::dom::element root;
    failure = scratch->tree.parse(input, length, false).get(root);
    if (!failure) failure = decoder.Tree(root, wrapped);
    if (failure) {
      lua_settop(L, helpers);
      ondemand::document document;
      failure = scratch->parser.iterate(input, length, scratch->inputCapacity).get(document);
      if (!failure) failure = decoder.Document(document, wrapped);
    }
  }

  if (!failure) {
    if (lua_gettop(L) > base + 1) {
      lua_replace(L, base + 1);
      lua_settop(L, base + 1);
    }
    return true;
  }
  lua_settop(L, base);
  size_t offset = 0;
  std::string reason;
  if (!utils::CheckJsonText(text, text + size, kMaxJsonDepth, &offset, &reason)) {
    *error = reason + " at byte offset " + std::to_string(offset);
  } else if (failure == simdjson::DEPTH_ERROR) {  // within the limit: the stack ran short
    *error = "nesting too deep for the thread's stack";
  } else {
    *error = simdjson::error_message(failure);
  }
  return false;
}

// ---- encoding ----

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
    lua_pushnil(L_);
    while (lua_next(L_, index) != 0) {  // [key, value]
      writer_.Item(first);
      first = false;
      Key(lua_gettop(L_) - 1);
      writer_.Colon();
      Value(lua_gettop(L_), depth + 1);
      lua_pop(L_, 1);
    }
    writer_.Close('}', first);
  }

  // Numbers name members by their tostring() text, as in the host conversion.
  void Key(int index) {
    switch (lua_type(L_, index)) {
      case LUA_TSTRING: String(index, "key"); return;
      case LUA_TNUMBER: {
        // A copy: lua_tolstring on the key itself would upset lua_next.
        lua_pushvalue(L_, index);
        String(lua_gettop(L_), "key");
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

// The value at `index` as JSON text, or false with the reason in *error.
// `finiteOnly` refuses the infinities too, for a store whose file is written
// by the host writer, which has no form for them.
bool EncodeValue(lua_State* L, int index, bool pretty, std::string* text, std::string* error,
                 bool finiteOnly = false) {
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

// Reads {pretty = bool} at `index` (absent or nil: defaults).
bool ReadPretty(boost::shared_ptr<RunTime>& rt, int index) {
  lua_State* L = rt->State();
  const int type = lua_type(L, index);
  if (type == LUA_TNONE || type == LUA_TNIL) return false;
  if (type != LUA_TTABLE) rt->Error("Bad argument: options must be a table");
  bool pretty = false;
  lua_pushnil(L);
  while (lua_next(L, index) != 0) {  // [key, value]
    if (lua_type(L, -2) != LUA_TSTRING || std::strcmp(lua_tostring(L, -2), "pretty") != 0) {
      rt->Error(std::string("Bad argument: unknown option '") + luaL_tolstring(L, -2, nullptr) + "'");
    }
    if (lua_type(L, -1) != LUA_TBOOLEAN) rt->Error("Bad argument: pretty must be a boolean");
    pretty = lua_toboolean(L, -1) != 0;
    lua_pop(L, 1);
  }
  return pretty;
}

std::string StringArg(boost::shared_ptr<RunTime>& rt, int index, const char* name) {
  lua_State* L = rt->State();
  if (lua_type(L, index) != LUA_TSTRING) rt->Error(std::string("Bad argument: ") + name + " must be a string");
  size_t size = 0;
  const char* text = lua_tolstring(L, index, &size);
  return std::string(text, size);
}

// The system would end the path at a NUL and use another file.
std::string PathArg(boost::shared_ptr<RunTime>& rt, int index) {
  std::string path = StringArg(rt, index, "path");
  if (path.find('\0') != std::string::npos) rt->Error("Bad argument: path contains a NUL byte");
  return path;
}

int PushFailure(lua_State* L, const std::string& message) {
  lua_pushnil(L);
  lua_pushlstring(L, message.data(), message.size());
  return 2;
}

// ---- library functions ----

int Decode(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() != 1) rt->Error("Bad arguments, expected: (text)");
  lua_State* L = rt->State();
  if (lua_type(L, 1) != LUA_TSTRING) rt->Error("Bad argument: text must be a string");
  size_t size = 0;
  const char* text = lua_tolstring(L, 1, &size);
  std::string error;
  if (DecodeText(L, text, size, &error)) return 1;
  return PushFailure(L, error);
}

int Encode(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.empty() || args.size() > 2) rt->Error("Bad arguments, expected: (value[, {pretty = bool}])");
  const bool pretty = ReadPretty(rt, 2);
  std::string text;
  std::string error;
  if (!EncodeValue(rt->State(), 1, pretty, &text, &error)) rt->Error("json.encode: " + error);
  lua_pushlstring(rt->State(), text.data(), text.size());
  return 1;
}

// json.array([t]) and json.object([t]): annotate t (or a new table), return it.
int Annotate(boost::shared_ptr<RunTime>& rt, const Args& args, JsonAnnotatedType type, const char* usage) {
  lua_State* L = rt->State();
  if (args.size() > 1) rt->Error(std::string("Bad arguments, expected: ") + usage);
  const int argType = lua_type(L, 1);
  if (argType == LUA_TNONE || argType == LUA_TNIL) {
    lua_settop(L, 0);
    lua_newtable(L);
  } else if (argType != LUA_TTABLE) {
    rt->Error("Bad argument: expected a table");
  }
  luaL_checkstack(L, RunTime::kPushHeadroom, "json");
  const int metas = detatils::PushAllMetadatas(L);
  if (metas != 0) {
    detatils::Annotate(L, metas, 1, type);
    lua_pop(L, 1);
  }
  lua_settop(L, 1);
  return 1;
}

int MakeArray(boost::shared_ptr<RunTime>& rt, const Args& args) {
  return Annotate(rt, args, JsonAnnotatedArray, "([table])");
}

int MakeObject(boost::shared_ptr<RunTime>& rt, const Args& args) {
  return Annotate(rt, args, JsonAnnotatedObject, "([table])");
}

int Load(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() != 1) rt->Error("Bad arguments, expected: (path)");
  const std::string path = PathArg(rt, 1);
  lua_State* L = rt->State();
  std::string text;
  std::string error;
  if (!utils::ReadRegularFile(path, utils::kMaxJsonFileBytes, &text, &error)) return PushFailure(L, error);
  if (DecodeText(L, text.data(), text.size(), &error)) return 1;
  return PushFailure(L, path + ": " + error);
}

int Save(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() < 2 || args.size() > 3) rt->Error("Bad arguments, expected: (path, value[, {pretty = bool}])");
  const std::string path = PathArg(rt, 1);
  const bool pretty = ReadPretty(rt, 3);
  lua_State* L = rt->State();
  std::string text;
  std::string error;
  if (!EncodeValue(L, 2, pretty, &text, &error)) rt->Error("json.save: " + error);
  if (pretty) text += '\n';
  if (!utils::WriteFileAtomically(path, text, &error)) return PushFailure(L, error);
  lua_pushboolean(L, 1);
  return 1;
}

int OpenStorage(boost::shared_ptr<RunTime>& rt, const Args& args) {
  if (args.size() != 1) rt->Error("Bad arguments, expected: (path)");
  const std::string path = PathArg(rt, 1);
  lua_State* L = rt->State();
  Storage storage = std::make_shared<utils::JsonPersistentStorage>(path);
  std::string error;
  if (!storage->IsLoaded(&error)) return PushFailure(L, error);
  luaL_checkstack(L, RunTime::kPushHeadroom, "json.storage");
  void* block = lua_newuserdata(L, sizeof(Storage));
  // Constructed before the metatable brings the finalizer along.
  new (block) Storage(std::move(storage));
  luaL_setmetatable(L, kStorageMetatable);
  return 1;
}

// A copy of the handle's pointer: a script finalizer that the collector runs
// during the method may release the handle, and the store must outlive the call.
Storage StorageArg(boost::shared_ptr<RunTime>& rt, const Args& args, size_t count, const char* usage) {
  lua_State* L = rt->State();
  void* block = luaL_testudata(L, 1, kStorageMetatable);
  if (block == nullptr || lua_rawlen(L, 1) != sizeof(Storage)) {
    // Its finalizer detaches the metatable (debug.getmetatable lets a script call it).
    if (lua_type(L, 1) == LUA_TUSERDATA && lua_getmetatable(L, 1) == 0) {
      rt->Error("Bad argument: the json storage handle was already released");
    }
    rt->Error("Bad argument: expected a json storage handle (call the method with ':')");
  }
  if (args.size() != count) rt->Error(std::string("Bad arguments, expected: ") + usage);
  Storage storage = *static_cast<Storage*>(block);
  if (!storage) rt->Error("Bad argument: the json storage handle was already released");
  return storage;
}

int StorageGet(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 2, "(key)");
  const std::string key = StringArg(rt, 2, "key");
  Json::Value value;
  if (!storage->Get(key, &value)) return rt->NilResult();
  rt->CreateAtStack(value);
  return 1;
}

int StorageSet(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 3, "(key, value)");
  const std::string key = StringArg(rt, 2, "key");
  lua_State* L = rt->State();
  if (lua_isnil(L, 3)) {
    storage->Remove(key);
    return rt->VoidResult();
  }
  // Through the text, so that a stored value follows json.encode's rules.
  std::string text;
  std::string error;
  if (!EncodeValue(L, 3, false, &text, &error, true)) rt->Error("json.storage: " + error);
  Json::Value value;
  std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &error)) rt->Error("json.storage: " + error);
  storage->Set(key, value);
  return rt->VoidResult();
}

int StorageRemove(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 2, "(key)");
  const bool removed = storage->Remove(StringArg(rt, 2, "key"));
  lua_pushboolean(rt->State(), removed ? 1 : 0);
  return 1;
}

int StorageKeys(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  const std::vector<std::string> keys = storage->Keys();
  lua_State* L = rt->State();
  luaL_checkstack(L, RunTime::kPushHeadroom, "json.storage");
  lua_createtable(L, static_cast<int>(keys.size()), 0);
  const int table = lua_gettop(L);
  lua_Integer i = 0;
  for (const std::string& key : keys) {
    lua_pushlstring(L, key.data(), key.size());
    lua_rawseti(L, table, ++i);
  }
  const int metas = detatils::PushAllMetadatas(L);
  if (metas != 0) {
    detatils::Annotate(L, metas, table, JsonAnnotatedArray);
    lua_pop(L, 1);
  }
  return 1;
}

int StorageSave(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  std::string error;
  if (!storage->Save(&error)) return PushFailure(rt->State(), error);
  lua_pushboolean(rt->State(), 1);
  return 1;
}

int StorageReload(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  std::string error;
  if (!storage->Reload(&error)) return PushFailure(rt->State(), error);
  lua_pushboolean(rt->State(), 1);
  return 1;
}

int StorageToString(boost::shared_ptr<RunTime>& rt, const Args& args) {
  const Storage storage = StorageArg(rt, args, 1, "()");
  const std::string text = "json.storage (" + storage->Path() + ")";
  lua_pushlstring(rt->State(), text.data(), text.size());
  return 1;
}

// The storage handles' metatable, once per runtime. "__metatable" keeps
// getmetatable away from "__gc"; debug.getmetatable still reaches it, which
// the finalizer and StorageArg allow for.
void CreateStorageMetatable(lua_State* L) {
  static const luaL_Reg kMethods[] = {
      {"get", WrapFunc<&StorageGet>},       {"set", WrapFunc<&StorageSet>},   {"remove", WrapFunc<&StorageRemove>},
      {"keys", WrapFunc<&StorageKeys>},     {"save", WrapFunc<&StorageSave>}, {"reload", WrapFunc<&StorageReload>},
      {nullptr, nullptr}};
  luaL_newmetatable(L, kStorageMetatable);
  luaL_newlib(L, kMethods);
  lua_setfield(L, -2, "__index");
  const lua_CFunction finalizer = WrapFunc<&detatils::UserDataDefaultFinalizer<Storage, true>::Exec>;
  lua_pushcfunction(L, finalizer);
  lua_setfield(L, -2, "__gc");
  lua_pushcfunction(L, WrapFunc<&StorageToString>);
  lua_setfield(L, -2, "__tostring");
  lua_pushliteral(L, "json.storage");
  lua_setfield(L, -2, "__metatable");
  lua_pop(L, 1);
}

// The table of metadata's __index and __newindex: a script that reads or
// writes it directly sees the annotations that decoding deferred.
int MetadatasIndex(lua_State* L) {
  detatils::FlushDeferredAnnotations(L, 1);
  lua_settop(L, 2);
  lua_rawget(L, 1);
  return 1;
}

int MetadatasNewIndex(lua_State* L) {
  detatils::FlushDeferredAnnotations(L, 1);
  lua_settop(L, 3);
  lua_rawset(L, 1);
  return 0;
}

void InitJsonLib(boost::shared_ptr<RunTime>& rt, boost::shared_ptr<TableRef>& table) {
  RunTime::StackCleaner cleaner(rt);
  const boost::shared_ptr<TableRef> metas = rt->CreateWeakTableAtStack(RunTime::WeakKeys);
  lua_State* L = rt->State();
  lua_getmetatable(L, metas->StackIndex());
  lua_pushcfunction(L, MetadatasIndex);
  lua_setfield(L, -2, "__index");
  lua_pushcfunction(L, MetadatasNewIndex);
  lua_setfield(L, -2, "__newindex");
  lua_pop(L, 1);
  table->Set(GetAllMetadatasTableName(), metas);
  table->Set("null", JsonNullValue());
  rt->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  CreateStorageMetatable(rt->State());
}

}  // namespace

void RegisterJsonLib() {
  // "null" and the table of metadata are placeholders that InitJsonLib fills.
  const luaL_Reg kJsonLib[] = {
      {"decode", WrapFunc<&Decode>},
      {"encode", WrapFunc<&Encode>},
      {"array", WrapFunc<&MakeArray>},
      {"object", WrapFunc<&MakeObject>},
      {"load", WrapFunc<&Load>},
      {"save", WrapFunc<&Save>},
      {"storage", WrapFunc<&OpenStorage>},
      {"null", nullptr},
      {GetAllMetadatasTableName().c_str(), nullptr},
  };
  static std::once_flag once;
  detail::RegisterLibOnce(once, "json", kJsonLib, InitJsonLib);
}

}  // namespace lua
