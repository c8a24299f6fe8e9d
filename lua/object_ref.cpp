#include "lua/object_ref.h"

#include <utility>

#include "lua/internal/handles.h"

namespace lua {

namespace {

const char kInvalidReference[] = "Invalid reference";

[[noreturn]] __attribute__((noinline, cold)) void ThrowInvalidReference() {
  throw RunTimeError(kInvalidReference);
}

// The scalar readers are on every native call's path: CheckRef reduced to
// what it means for types without identity, in one lua_type call. Returns
// the handle's state.
inline lua_State* StateHoldingScalar(const ObjectRef& ref, int type) {
  lua_State* L = ref.GetRunTime()->State();
  if (ref.Type() != type || ref.StackIndex() == 0 || lua_type(L, ref.StackIndex()) != type) {
    ThrowInvalidReference();
  }
  return L;
}

}  // namespace

ObjectRef::ObjectRef(const boost::shared_ptr<RunTime>& rt, int index)
    : ObjectRef(boost::shared_ptr<RunTime>(rt), index) {}

ObjectRef::ObjectRef(boost::shared_ptr<RunTime>&& rt, int index)
    : type_(LUA_TNONE), index_(0), rt_(std::move(rt)), pointer_(nullptr) {
  lua_State* L = rt_->State();
  if (index != 0 && detatils::IsAcceptableIndex(L, index)) {
    index_ = index > 0 ? index : lua_absindex(L, index);
    type_ = lua_type(L, index_);
    if (detatils::HasIdentity(type_)) pointer_ = lua_topointer(L, index_);
  }
}

ObjectRef::~ObjectRef() = default;

std::string ObjectRef::TypeName() const {
  lua_State* L = this->L();
  return lua_typename(L, index_ == 0 ? LUA_TNONE : lua_type(L, index_));
}

bool ObjectRef::IsInteger() const {
  return index_ != 0 && lua_isinteger(L(), index_) != 0;
}

long long ObjectRef::Len() const {
  if (type_ != LUA_TSTRING && type_ != LUA_TTABLE) return 0;
  lua_State* L = this->L();
  // A slot refilled by another type would make luaL_len raise outside any
  // protected call.
  const int current = lua_type(L, index_);
  if (current != LUA_TSTRING && current != LUA_TTABLE) return 0;
  rt_->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  return luaL_len(L, index_);
}

bool ObjectRef::IsAtStackTop() const {
  const int top = lua_gettop(L());
  return top != 0 && index_ == top;
}

bool ObjectRef::IsValid() const {
  if (type_ == LUA_TNONE || index_ == 0) return false;
  lua_State* L = this->L();
  return lua_type(L, index_) == type_ && (!detatils::HasIdentity(type_) || lua_topointer(L, index_) == pointer_);
}

void ObjectRef::Check(int expectedType, const std::string& message) const {
  if (type_ != expectedType || !IsValid()) throw RunTimeError(message);
}

void ObjectRef::CheckRef(int expectedType) const {
  if (type_ != expectedType || !IsValid()) ThrowInvalidReference();
}

bool ObjectRef::AsBool() const {
  return lua_toboolean(StateHoldingScalar(*this, LUA_TBOOLEAN), index_) != 0;
}

long long ObjectRef::AsInteger() const {
  return lua_tointegerx(StateHoldingScalar(*this, LUA_TNUMBER), index_, nullptr);
}

double ObjectRef::AsReal() const {
  return lua_tonumberx(StateHoldingScalar(*this, LUA_TNUMBER), index_, nullptr);
}

std::string ObjectRef::AsString() const {
  CheckRef(type_);
  lua_State* L = this->L();
  rt_->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  size_t length = 0;
  const char* text = luaL_tolstring(L, index_, &length);
  std::string result(text, length);
  lua_pop(L, 1);
  return result;
}

boost::shared_ptr<TableRef> ObjectRef::AsTableRef() const {
  CheckRef(LUA_TTABLE);
  return boost::static_pointer_cast<TableRef>(rt_->ObjectAtStack(index_));
}

TableRef::TableRef(const boost::shared_ptr<RunTime>& rt, int index)
    : TableRef(boost::shared_ptr<RunTime>(rt), index) {}

TableRef::TableRef(boost::shared_ptr<RunTime>&& rt, int index) : ObjectRef(std::move(rt), index) {
  if (Type() != LUA_TTABLE) throw RunTimeError("TableRef(): create TableRef from non-table value");
}

int TableRef::TableIndex() const {
  if (lua_type(L(), StackIndex()) != LUA_TTABLE) throw RunTimeError(kInvalidReference);
  return StackIndex();
}

boost::shared_ptr<ObjectRef> TableRef::operator[](const boost::shared_ptr<ObjectRef>& key) const {
  const int table = TableIndex();
  lua_State* L = this->L();
  if (!key || key->StackIndex() == 0 || !detatils::IsAcceptableIndex(L, key->StackIndex())) {
    throw RunTimeError(kInvalidReference);
  }
  if (key->StackIndex() != lua_gettop(L)) {
    GetRunTime()->EnsureFreeStackSlots(RunTime::kPushHeadroom);
    lua_pushvalue(L, key->StackIndex());
  }
  lua_rawget(L, table);  // [..., value]
  return detatils::MakeHandle(GetRunTime(), lua_gettop(L));
}

void TableRef::Erase(const boost::shared_ptr<ObjectRef>& key) const {
  const int table = TableIndex();
  lua_State* L = this->L();
  if (!key || key->StackIndex() == 0 || !detatils::IsAcceptableIndex(L, key->StackIndex())) {
    throw RunTimeError(kInvalidReference);
  }
  GetRunTime()->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushvalue(L, key->StackIndex());
  lua_pushnil(L);
  lua_settable(L, table);
}

bool TableRef::Empty() const {
  const int table = TableIndex();
  lua_State* L = this->L();
  GetRunTime()->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  const int top = lua_gettop(L);
  lua_pushnil(L);
  const bool empty = lua_next(L, table) == 0;
  lua_settop(L, top);
  return empty;
}

TableRef::ConstIterator TableRef::Iterator() const {
  return ConstIterator(GetRunTime(), StackIndex());
}

TableRef::ConstArrayIterator TableRef::ArrayIterator() const {
  lua_State* L = this->L();
  long long length = 0;
  const int type = lua_type(L, StackIndex());
  if (type == LUA_TTABLE || type == LUA_TSTRING) {
    GetRunTime()->EnsureFreeStackSlots(RunTime::kPushHeadroom);
    length = luaL_len(L, StackIndex());
  }
  return ConstArrayIterator(GetRunTime(), StackIndex(), length);
}

bool TableRef::ConstIterator::Next() {
  if (state_ == kPastEnd) throw RunTimeError("Next(): invalid iterator position");
  lua_State* L = rt_->State();
  if (lua_type(L, tableIndex_) != LUA_TTABLE) throw RunTimeError(kInvalidReference);
  if (state_ == kBeforeFirst) {
    rt_->EnsureFreeStackSlots(RunTime::kPushHeadroom);
    lua_pushnil(L);
  } else {
    const int top = lua_gettop(L);
    const int keyIndex = key_->StackIndex();
    if (keyIndex == top - 1) {
      lua_pop(L, 1);  // [..., key]
    } else if (keyIndex != top) {
      rt_->EnsureFreeStackSlots(RunTime::kPushHeadroom);
      lua_pushvalue(L, keyIndex);
    }
  }
  if (lua_next(L, tableIndex_) != 0) {  // [..., key, value]
    state_ = kOnElement;
    const int top = lua_gettop(L);
    detatils::HandleAccess::Retarget(key_, rt_, top - 1);
    detatils::HandleAccess::Retarget(val_, rt_, top);
    return true;
  }
  state_ = kPastEnd;
  key_.reset();
  val_.reset();
  return false;
}

const boost::shared_ptr<ObjectRef>& TableRef::ConstIterator::Key() const {
  if (state_ != kOnElement) throw RunTimeError("Key(): invalid iterator position");
  return key_;
}

const boost::shared_ptr<ObjectRef>& TableRef::ConstIterator::Val() const {
  if (state_ != kOnElement) throw RunTimeError("Val(): invalid iterator position");
  return val_;
}

bool TableRef::ConstArrayIterator::Next() {
  const long long previous = index_++;
  if (index_ == end_) return false;
  if (previous >= end_) throw RunTimeError("Next(): invalid iterator position");
  lua_State* L = rt_->State();
  // A raw read of anything but a table would not be checked by the interpreter.
  if (lua_type(L, tableIndex_) != LUA_TTABLE) throw RunTimeError(kInvalidReference);
  rt_->EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_rawgeti(L, tableIndex_, index_);
  detatils::HandleAccess::Retarget(val_, rt_, lua_gettop(L));
  return true;
}

long long TableRef::ConstArrayIterator::Index() const {
  if (index_ < begin_ || index_ >= end_) throw RunTimeError("Index(): invalid iterator position");
  return index_;
}

const boost::shared_ptr<ObjectRef>& TableRef::ConstArrayIterator::Val() const {
  if (index_ < begin_ || index_ >= end_) throw RunTimeError("Val(): invalid iterator position");
  return val_;
}

}  // namespace lua
