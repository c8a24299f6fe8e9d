// lua::ObjectRef and lua::TableRef: handles to stack slots of a RunTime, and the
// two table iterators. A handle remembers the type and identity of the value its
// slot held when it was made, so it can tell later whether the slot still holds
// it. Handles never push or pop on destruction; a StackCleaner restores the stack.
// They belong to the thread that uses their runtime.
#pragma once

#include <limits>
#include <string>

#include <boost/shared_ptr.hpp>
#include <json/value.h>
#include <lua.hpp>

#include "runtime.h"
#include "../utils/noncopyable.h"

namespace lua {

namespace detatils {
class HandleAccess;
}

class ObjectRef : private utils::Noncopyable {
 public:
  ObjectRef(const boost::shared_ptr<RunTime>& rt, int index);
  ObjectRef(boost::shared_ptr<RunTime>&& rt, int index);
  virtual ~ObjectRef();
  // The value as JSON (lua/json.h). Numbers and booleans must still be in
  // their slot ("Invalid reference"); nil is null; any other scalar becomes
  // the text tostring() gives it, except json.null, which is null.
  virtual Json::Value AsJsonValue() const;

  // The type at creation; -1 when made with index 0.
  int Type() const { return type_; }
  bool IsNil() const { return type_ == LUA_TNIL; }
  // The name of the slot's current type.
  std::string TypeName() const;
  int StackIndex() const { return index_; }
  const boost::shared_ptr<RunTime>& GetRunTime() const { return rt_; }
  const void* AsPointer() const { return pointer_; }
  bool IsInteger() const;
  // luaL_len for strings and tables (honours __len), 0 for anything else.
  long long Len() const;
  bool IsAtStackTop() const;
  // The slot still holds a value of the same type and identity. Two values
  // without identity (numbers, strings) of one type are not told apart.
  bool IsValid() const;
  // Throws RunTimeError(message) unless valid and of the expected type.
  void Check(int expectedType, const std::string& message) const;

  // Conversions; a stale handle or a type mismatch throws "Invalid reference".
  bool AsBool() const;
  // A float without an exact integer value gives 0.
  long long AsInteger() const;
  double AsReal() const;
  // Any type, rendered as tostring() would (metamethods included).
  std::string AsString() const;
  boost::shared_ptr<TableRef> AsTableRef() const;

 protected:
  lua_State* L() const { return rt_->State(); }
  // Check() with the common message, without building a string on success.
  void CheckRef(int expectedType) const;

 private:
  friend class detatils::HandleAccess;

  int type_;
  int index_;
  boost::shared_ptr<RunTime> rt_;
  const void* pointer_;
};

class TableRef : public ObjectRef {
 public:
  class ConstIterator;
  class ConstArrayIterator;

  // Throws RunTimeError unless the slot holds a table.
  TableRef(const boost::shared_ptr<RunTime>& rt, int index);
  TableRef(boost::shared_ptr<RunTime>&& rt, int index);

  // JSON by the table's annotation (lua/json.h): an object, an array, or,
  // when not annotated, an array if every key is an integer >= 1 (an empty
  // table included) and an object otherwise. Nested values convert the same
  // way; nesting deeper than kMaxJsonDepth (a table that contains itself)
  // throws RunTimeError.
  Json::Value AsJsonValue() const override;
  // Every key must be an integer >= 1; missing positions become null.
  Json::Value AsJsonArray() const;
  // Member names are the keys as tostring() renders them.
  Json::Value AsJsonObject() const;
  Json::Value AsJsonArrayOrObject() const;

  // Raw read. A key on the stack top is replaced by the value; any other key is
  // copied first, so the read adds one slot.
  boost::shared_ptr<ObjectRef> operator[](const boost::shared_ptr<ObjectRef>& key) const;
  boost::shared_ptr<ObjectRef> Value(const boost::shared_ptr<ObjectRef>& key) const {
    return (*this)[key];
  }

  // table[key] = value, honouring __newindex; leaves the stack as it was.
  template <class Key, class Val>
  void Set(const Key& key, const Val& value) const;
  // table[#table + 1] = value, not raw; leaves the stack as it was.
  template <class Val>
  void Append(const Val& value) const;
  // Raw read with a host key; adds one slot, the value.
  template <class Key>
  boost::shared_ptr<ObjectRef> Get(const Key& key) const;

  // table[key] = nil, honouring __newindex.
  void Erase(const boost::shared_ptr<ObjectRef>& key) const;
  bool Empty() const;

  ConstIterator Iterator() const;
  ConstArrayIterator ArrayIterator() const;

 private:
  // The table's slot, checked to still hold a table so that raw access on a
  // stale handle raises RunTimeError instead of reading a non-table.
  int TableIndex() const;
};

// Walks key/value pairs in lua_next order. Key and value stay on the stack; a
// full walk that pushes nothing between steps leaves the stack as it started.
class TableRef::ConstIterator {
 public:
  bool Next();
  const boost::shared_ptr<ObjectRef>& Key() const;
  const boost::shared_ptr<ObjectRef>& Val() const;

 private:
  friend class TableRef;
  enum State { kPastEnd = 0, kBeforeFirst = 1, kOnElement = 2 };

  ConstIterator(const boost::shared_ptr<RunTime>& rt, int tableIndex)
      : state_(kBeforeFirst), tableIndex_(tableIndex), rt_(rt) {}

  int state_;
  int tableIndex_;
  boost::shared_ptr<ObjectRef> key_;
  boost::shared_ptr<ObjectRef> val_;
  boost::shared_ptr<RunTime> rt_;
};

// Walks indices 1..#table with raw reads. Every step pushes its value and leaves
// it there; the caller pops it or lets a StackCleaner do so.
class TableRef::ConstArrayIterator {
 public:
  bool Next();
  long long Index() const;
  const boost::shared_ptr<ObjectRef>& Val() const;

 private:
  friend class TableRef;

  // A "__len" metamethod may answer math.maxinteger; the walk stops one short
  // of it rather than overflow.
  ConstArrayIterator(const boost::shared_ptr<RunTime>& rt, int tableIndex, long long length)
      : rt_(rt), tableIndex_(tableIndex), index_(0), begin_(1),
        end_(length < std::numeric_limits<long long>::max() ? length + 1 : length) {}

  boost::shared_ptr<RunTime> rt_;
  int tableIndex_;
  long long index_;
  boost::shared_ptr<ObjectRef> val_;
  long long begin_;
  long long end_;
};

// ---- templates ----

template <class Key, class Val>
void TableRef::Set(const Key& key, const Val& value) const {
  const int table = TableIndex();
  const boost::shared_ptr<RunTime>& rt = GetRunTime();
  rt->CreateAtStack(key);
  rt->CreateAtStack(value);
  lua_settable(rt->State(), table);  // [] (key and value consumed)
}

template <class Val>
void TableRef::Append(const Val& value) const {
  const int table = TableIndex();
  const boost::shared_ptr<RunTime>& rt = GetRunTime();
  // A script's __len may claim any length; past the last integer there is no slot.
  const long long length = Len();
  if (length == std::numeric_limits<long long>::max()) {
    throw RunTimeError("Append(): table length leaves no room");
  }
  rt->CreateAtStack(value);
  lua_seti(rt->State(), table, length + 1);
}

template <class Key>
boost::shared_ptr<ObjectRef> TableRef::Get(const Key& key) const {
  return (*this)[GetRunTime()->CreateAtStack(key)];
}

}  // namespace lua
