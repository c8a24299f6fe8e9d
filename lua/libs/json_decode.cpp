// json.decode's engine: JSON text to script values. It parses with simdjson
// and builds the values from its tree, annotating every container.
#include "lua/libs/json_internal.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <locale.h>
#include <memory>
#include <new>
#include <string>
#include <string_view>
#include <utility>

#include <simdjson.h>

#include "lua/internal/json_meta.h"
#include "lua/json.h"
#include "utils/internal/native_stack.h"
#include "utils/json_check.h"

namespace lua {
namespace jsonlib {

namespace {

namespace ondemand = simdjson::ondemand;

// The thread's buffers stay for its next decode while they fit the texts it
// decodes: up to kAlwaysKeptBytes of text always, up to kMaxKeptBytes while
// the last text took at least a quarter of them. Allocating them afresh for
// a large text costs a page fault per page, about a fifth of the decode, and
// what a thread keeps follows its last text rather than its largest.
constexpr size_t kAlwaysKeptBytes = size_t{1} << 20;
constexpr size_t kMaxKeptBytes = size_t{64} << 20;

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
  // `textBytes`: the size of the text this decode parses.
  explicit ScratchLease(size_t textBytes) : textBytes_(textBytes) {
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
    if (scratch_ != tDecodeScratch.get()) return;
    const size_t capacity =
        std::max({scratch_->inputCapacity, scratch_->parser.capacity(), scratch_->tree.capacity()});
    if (capacity > kMaxKeptBytes || (capacity > kAlwaysKeptBytes && textBytes_ < capacity / 4)) {
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
  size_t textBytes_;
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

}  // namespace

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
    ScratchLease scratch(length);
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

}  // namespace jsonlib
}  // namespace lua
