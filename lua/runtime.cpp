#include "lua/runtime.h"

#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>
#include <utility>

#include <boost/make_shared.hpp>

#include "lua/internal/containment.h"
#include "lua/internal/handles.h"
#include "lua/object_ref.h"
#include "lua/wrap_func.h"
#include "utils/files.h"

namespace lua {

namespace {

// Composes "Lua: <top value>" (or "Lua panic: ...") and throws it. The error
// value stays on the stack; only the rendered copy is popped.
[[noreturn]] void RaiseError(lua_State* L, bool panic) {
  size_t length = 0;
  const char* text = luaL_tolstring(L, -1, &length);
  std::string message(panic ? "Lua panic: " : "Lua: ");
  message.append(text, length);
  lua_pop(L, 1);
  if (panic) throw RunTimePanic(message);
  throw RunTimeError(message);
}

// Runs inside the failed call, before the stack unwinds, so the traceback still
// shows where the error was raised.
int MessageHandler(lua_State* L) {
  boost::shared_ptr<RunTime> rt = RunTime::Wrap(L);
  boost::shared_ptr<ObjectRef> error = rt->ObjectAtStackTop();
  const std::string message = error->Type() == LUA_TSTRING
                                  ? error->AsString()
                                  : "Error object is " + std::string(lua_typename(L, error->Type())) + " value";
  lua_pop(L, 1);
  luaL_traceback(L, L, message.c_str(), 1);
  return 1;
}

const char* TypeNameOf(lua_State* L, int type) {
  return type >= LUA_TNONE && type < LUA_NUMTAGS ? lua_typename(L, type) : "unknown";
}

// Pushes a copy of the handle's slot; a missing handle or slot cannot be copied.
void PushCopy(lua_State* L, const ObjectRef* object) {
  if (object == nullptr || object->StackIndex() == 0 ||
      !detatils::IsAcceptableIndex(L, object->StackIndex())) {
    throw RunTimeError("Invalid reference");
  }
  lua_pushvalue(L, object->StackIndex());
}

// Runtimes that own a state. The extra space of a state made elsewhere holds
// anything, so Owner believes it only for a runtime that is alive.
std::mutex gOwnersMutex;
std::unordered_set<const RunTime*>& Owners() {
  static auto* owners = new std::unordered_set<const RunTime*>();
  return *owners;
}

// The host gets its own reference count over the runtime's: when the last
// host reference goes, the handle cache lets go of the runtime, which then
// lives on only as long as the host's handles. (On a failed allocation boost
// runs the deleter itself.)
boost::shared_ptr<RunTime> HostReference(boost::shared_ptr<RunTime> rt) {
  struct DropCacheThenRelease {
    boost::shared_ptr<RunTime> rt;
    void operator()(RunTime* runtime) {
      detatils::HandleAccess::DropCache(*runtime);
      rt.reset();
    }
  };
  RunTime* runtime = rt.get();
  boost::shared_ptr<RunTime> hosted(runtime, DropCacheThenRelease{std::move(rt)});
  detatils::HandleAccess::EnableCache(*runtime);
  return hosted;
}

}  // namespace

RunTime::RunTime(lua_State* state, bool wrapped)
    : wrapped_(wrapped), valid_(true), state_(state), control_(new detatils::CallControl(state)) {}

RunTime::~RunTime() {
  if (!wrapped_) {
    std::lock_guard<std::mutex> lock(gOwnersMutex);
    Owners().erase(this);
  }
  if (!wrapped_ && state_ != nullptr) lua_close(state_);
}

boost::shared_ptr<RunTime> RunTime::Create() {
  lua_State* state = luaL_newstate();
  if (state == nullptr) throw RunTimeError("Create(): cannot create a Lua state");
  boost::shared_ptr<RunTime> rt;
  try {
    rt.reset(new RunTime(state, false));
  } catch (...) {
    lua_close(state);
    throw;
  }
  rt->Init();
  return HostReference(std::move(rt));
}

boost::shared_ptr<RunTime> RunTime::Create(const RunTimeOptions& options) {
  // The allocator's user data is the runtime from the first allocation on,
  // as Init would make it anyway.
  boost::shared_ptr<RunTime> rt(new RunTime(nullptr, false));
  rt->memory_.reset(new detatils::MemoryAccount());
  rt->memory_->limit = options.memoryLimitBytes;
  rt->state_ = lua_newstate(&detatils::LimitedAlloc, rt.get());
  if (rt->state_ == nullptr) throw RunTimeError("Create(): cannot create a Lua state");
  rt->control_.reset(new detatils::CallControl(rt->state_));
  rt->Init();
  if (options.sandbox) {
    detatils::ApplySandbox(rt->state_);
    rt->sandboxed_ = true;
  }
  return HostReference(std::move(rt));
}

bool RunTime::IsSandboxed() const {
  if (!wrapped_) return sandboxed_;
  const RunTime* owner = Owner(state_);
  return owner != nullptr && owner->sandboxed_;
}

detatils::MemoryAccount& RunTime::MemoryOf(void* allocatorUserData) {
  return *static_cast<RunTime*>(allocatorUserData)->memory_;
}

void RunTime::RegisterOwner() {
  RunTime* self = this;
  std::memcpy(lua_getextraspace(state_), &self, sizeof(self));
  std::lock_guard<std::mutex> lock(gOwnersMutex);
  Owners().insert(this);
}

boost::shared_ptr<RunTime> RunTime::Wrap(lua_State* state) {
  return boost::make_shared<RunTime>(state, true);
}

void RunTime::Init() {
  // The panic handler has only the state; the allocator's user data leads it
  // back to this object.
  void* userData = nullptr;
  lua_Alloc allocator = lua_getallocf(state_, &userData);
  lua_setallocf(state_, allocator, this);
  lua_atpanic(state_, [](lua_State* L) -> int { PanicHandler(L); });
  if (!wrapped_) RegisterOwner();
  EnsureFreeStackSlots(200);
  LoadLibs();
  if (!wrapped_) detatils::TrackCoroutines(state_);
  AddPackagePaths({utils::GetProgramExeDir() + "?.lua"});
}

RunTime* RunTime::Owner(lua_State* state) {
  RunTime* candidate = nullptr;
  std::memcpy(&candidate, lua_getextraspace(state), sizeof(candidate));
  std::lock_guard<std::mutex> lock(gOwnersMutex);
  return Owners().count(candidate) != 0 ? candidate : nullptr;
}

void RunTime::SetCallLimits(std::chrono::milliseconds timeout, std::uint64_t instructions) {
  callTimeout_ = timeout.count() > 0 ? timeout : std::chrono::milliseconds(0);
  callInstructions_ = instructions;
}

bool RunTime::Cancel() {
  return control_->Interrupt(detatils::InterruptCause::Cancel);
}

// Opens the limits for a top-level call and closes them however it ends.
class RunTime::CallScope : private utils::Noncopyable {
 public:
  explicit CallScope(RunTime& rt) : rt_(rt), top_(rt.callDepth_++ == 0) {
    if (!top_) return;
    rt_.control_->Open(rt_.callTimeout_, rt_.callInstructions_);
    if (rt_.memory_) rt_.memory_->enforcing = true;
  }
  ~CallScope() {
    --rt_.callDepth_;
    if (!top_) return;
    if (rt_.memory_) rt_.memory_->enforcing = false;
    rt_.control_->Close();
  }
  bool Top() const { return top_; }

 private:
  RunTime& rt_;
  bool top_;
};

template <class Body>
std::vector<boost::shared_ptr<ObjectRef>> RunTime::Contained(Body&& body) {
  CallScope scope(*this);
  if (!scope.Top()) return body();
  try {
    return body();
  } catch (const RunTimeError&) {
    // Whatever the script made of the interruption, the host hears its cause.
    if (control_->Cause() != detatils::InterruptCause::None) throw RunTimeInterrupted(control_->Describe());
    throw;
  }
}

RunTime::CancellableWait::CancellableWait(lua_State* state, std::function<void()> canceller)
    : owner_(Owner(state)) {
  if (owner_ != nullptr) owner_->control_->InstallCanceller(std::move(canceller));
}

RunTime::CancellableWait::~CancellableWait() {
  if (owner_ != nullptr) owner_->control_->RemoveCanceller();
}

bool RunTime::CancellableWait::Cancelled() const {
  return owner_ != nullptr && owner_->control_->Cause() != detatils::InterruptCause::None;
}

std::string RunTime::CancellableWait::Reason() const {
  return owner_ != nullptr ? owner_->control_->Describe() : std::string("interrupted");
}

void RunTime::PanicHandler(lua_State* state) {
  if (RunTime* owner = Owner(state)) owner->valid_ = false;
  // Throwing here is what keeps the interpreter from calling abort().
  RaiseError(state, true);
}

void RunTime::Remove(int index) {
  lua_rotate(state_, index, -1);
  lua_pop(state_, 1);
}

void RunTime::Remove(const boost::shared_ptr<ObjectRef>& object) {
  if (object && object->StackIndex() != 0 && object->IsValid()) Remove(object->StackIndex());
}

void RunTime::ThrowStackOverflow() {
  throw RunTimeError("EnsureFreeStackSlots(): stack overflow");
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunImpl(ChunkKind kind, const std::string& source,
                                                           bool clearStack) {
  if (lua_type(state_, -1) != LUA_TTABLE) {
    throw RunTimeError("RunImpl(): invalid args type are passed");
  }
  // The system would open the shorter path before the NUL.
  if (kind == ChunkKind::File && source.find('\0') != std::string::npos) {
    lua_pop(state_, 1);
    throw RunTimeError("RunFile(): path contains a NUL byte");
  }
  lua_setglobal(state_, "init_data");
  if (clearStack) lua_settop(state_, 0);
  const int base = lua_gettop(state_);
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  const int status = kind == ChunkKind::File ? luaL_loadfilex(state_, source.c_str(), nullptr)
                                             : luaL_loadstring(state_, source.c_str());
  if (status != LUA_OK) RaiseError(state_, false);
  return Contained([&] {
    Pcall(0, LUA_MULTRET);
    return ExtractRetVals(base);
  });
}

void RunTime::PushArgsTable(const std::vector<boost::shared_ptr<ObjectRef>>& args) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(state_, static_cast<int>(args.size()), 0);
  const int table = lua_gettop(state_);
  lua_Integer i = 0;
  for (const boost::shared_ptr<ObjectRef>& arg : args) {
    PushCopy(state_, arg.get());
    lua_rawseti(state_, table, ++i);
  }
}

void RunTime::PushArgsTable(const std::vector<std::string>& args) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(state_, static_cast<int>(args.size()), 0);
  const int table = lua_gettop(state_);
  lua_Integer i = 0;
  for (const std::string& arg : args) {
    lua_pushstring(state_, arg.c_str());
    lua_rawseti(state_, table, ++i);
  }
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFile(const std::string& path, bool clearStack) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_newtable(state_);
  return RunImpl(ChunkKind::File, path, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFile(
    const std::string& path, const std::vector<boost::shared_ptr<ObjectRef>>& args, bool clearStack) {
  PushArgsTable(args);
  return RunImpl(ChunkKind::File, path, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFile(const std::string& path,
                                                           const std::vector<std::string>& args,
                                                           bool clearStack) {
  PushArgsTable(args);
  return RunImpl(ChunkKind::File, path, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFile(const std::string& path, int argc,
                                                           const char** argv, bool clearStack) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(state_, argc > 0 ? argc : 0, 0);
  const int table = lua_gettop(state_);
  for (int i = 0; i < argc; ++i) {
    lua_pushstring(state_, argv[i]);
    lua_rawseti(state_, table, i + 1);
  }
  return RunImpl(ChunkKind::File, path, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFile(const std::string& path,
                                                           const boost::shared_ptr<TableRef>& args,
                                                           bool clearStack) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  PushCopy(state_, args.get());
  return RunImpl(ChunkKind::File, path, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunString(const std::string& code, bool clearStack) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_newtable(state_);
  return RunImpl(ChunkKind::String, code, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunString(
    const std::string& code, const std::vector<boost::shared_ptr<ObjectRef>>& args, bool clearStack) {
  PushArgsTable(args);
  return RunImpl(ChunkKind::String, code, clearStack);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFunc(
    const std::string& globalName, const std::vector<boost::shared_ptr<ObjectRef>>& args) {
  return CallGlobal(globalName, args.data(), args.size());
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFunc(
    const std::string& globalName, std::initializer_list<boost::shared_ptr<ObjectRef>> args) {
  return CallGlobal(globalName, args.begin(), args.size());
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFunc(
    const boost::shared_ptr<ObjectRef>& func, const std::vector<boost::shared_ptr<ObjectRef>>& args) {
  return CallHandle(func, args.data(), args.size());
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::RunFunc(
    const boost::shared_ptr<ObjectRef>& func, std::initializer_list<boost::shared_ptr<ObjectRef>> args) {
  return CallHandle(func, args.begin(), args.size());
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::CallGlobal(const std::string& globalName,
                                                              const boost::shared_ptr<ObjectRef>* args,
                                                              size_t nargs) {
  const int base = lua_gettop(state_);
  PrepareCall(nargs);
  const int type = lua_getglobal(state_, globalName.c_str());
  return Contained([&] { return CallPushedFunction(base, type, args, nargs); });
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::CallHandle(const boost::shared_ptr<ObjectRef>& func,
                                                              const boost::shared_ptr<ObjectRef>* args,
                                                              size_t nargs) {
  const int base = lua_gettop(state_);
  PrepareCall(nargs);
  PushCopy(state_, func.get());
  const int type = lua_type(state_, -1);
  return Contained([&] { return CallPushedFunction(base, type, args, nargs); });
}

void RunTime::PrepareCall(size_t nargs) {
  // Room for the handler, the function and the arguments at once; the message
  // handler goes in first, so that no rotation has to put it below the function.
  EnsureFreeStackSlots(static_cast<int>(nargs) + kPushHeadroom);
  lua_pushcfunction(state_, MessageHandler);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::CallPushedFunction(int base, int type,
                                                                      const boost::shared_ptr<ObjectRef>* args,
                                                                      size_t nargs) {
  if (type != LUA_TFUNCTION) {
    throw RunTimeError(std::string("RunFunc(): expected type: function, got type: ") +
                       lua_typename(state_, type));
  }
  for (size_t i = 0; i < nargs; ++i) PushCopy(state_, args[i].get());
  PcallWithHandlerAt(base + 1, static_cast<int>(nargs), LUA_MULTRET);
  return ExtractRetVals(base);
}

void RunTime::Pcall(int nargs, int nresults) {
  const int base = lua_gettop(state_) - nargs;
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushcfunction(state_, MessageHandler);
  lua_rotate(state_, base, 1);  // [handler, function, args...]
  PcallWithHandlerAt(base, nargs, nresults);
}

void RunTime::PcallWithHandlerAt(int handler, int nargs, int nresults) {
  const int status = lua_pcallk(state_, nargs, nresults, handler, 0, nullptr);
  lua_rotate(state_, handler, -1);
  lua_pop(state_, 1);
  if (status != LUA_OK) RaiseError(state_, false);
}

std::vector<boost::shared_ptr<ObjectRef>> RunTime::ExtractRetVals(int base) {
  std::vector<boost::shared_ptr<ObjectRef>> values;
  const int top = lua_gettop(state_);
  if (top <= base) return values;
  values.reserve(static_cast<size_t>(top - base));
  for (int i = base + 1; i <= top; ++i) values.push_back(detatils::CachedHandle(*this, i));
  return values;
}

boost::shared_ptr<ObjectRef> RunTime::GetGlobalObject(const std::string& name) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_getglobal(state_, name.c_str());
  return detatils::CachedHandle(*this, lua_gettop(state_));
}

void RunTime::SetGlobalObject(const std::string& name, const boost::shared_ptr<ObjectRef>& value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  PushCopy(state_, value.get());
  lua_setglobal(state_, name.c_str());
}

void RunTime::AddPackagePath(const std::string& pattern) {
  if (!pattern.empty()) AddPackagePaths({pattern});
}

void RunTime::AddPackagePaths(const std::vector<std::string>& patterns) {
  if (patterns.empty()) return;
  const boost::shared_ptr<RunTime> self = shared_from_this();
  StackCleaner cleaner(self);
  boost::shared_ptr<ObjectRef> package = GetGlobalObject("package");
  if (package->Type() != LUA_TTABLE) throw RunTimeError("Invalid reference");
  const boost::shared_ptr<TableRef> table = package->AsTableRef();
  const boost::shared_ptr<ObjectRef> current = table->Get("path");
  std::string path = current->Type() == LUA_TSTRING ? current->AsString() : std::string();
  for (const std::string& pattern : patterns) {
    if (path.empty()) {
      path = pattern;
    } else {
      path += ';';
      path += pattern;
    }
  }
  table->Set("path", path);
}

boost::shared_ptr<ObjectRef> RunTime::ObjectAtStack(int index) {
  if (index == 0 || !detatils::IsAcceptableIndex(state_, index) || lua_type(state_, index) == LUA_TNONE) {
    throw RunTimeError("ObjectAtStack(): invalid stack index: " + std::to_string(index));
  }
  return detatils::CachedHandle(*this, lua_absindex(state_, index));
}

boost::shared_ptr<ObjectRef> RunTime::CreateNilAtStack() {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushnil(state_);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TNIL);
}

boost::shared_ptr<TableRef> RunTime::CreateTableAtStack() {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(state_, 0, 0);
  return detatils::NewHandle<TableRef>(shared_from_this(), lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(bool value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushboolean(state_, value ? 1 : 0);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TBOOLEAN);
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(int value) {
  return CreateAtStack(static_cast<long long>(value));
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(long long value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushinteger(state_, value);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TNUMBER);
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(double value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushnumber(state_, value);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TNUMBER);
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(void* value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushlightuserdata(state_, value);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TLIGHTUSERDATA);
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const char* value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushstring(state_, value);
  return detatils::CachedHandle(*this, lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const std::string& value) {
  return CreateAtStack(value.c_str());
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const boost::shared_ptr<ObjectRef>& value) {
  return CreateAtStack(value.get());
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const boost::shared_ptr<TableRef>& value) {
  return CreateAtStack(static_cast<const ObjectRef*>(value.get()));
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const ObjectRef* value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  PushCopy(state_, value);
  return detatils::CachedHandle(*this, lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(lua_CFunction value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushcfunction(state_, value);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TFUNCTION);
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(lua_CFunction value,
                                                    const std::vector<boost::shared_ptr<ObjectRef>>& upvalues) {
  // The interpreter does not check the count itself.
  constexpr size_t kMaxUpvalues = 255;
  if (upvalues.size() > kMaxUpvalues) {
    throw RunTimeError("CreateAtStack(): too many upvalues: " + std::to_string(upvalues.size()));
  }
  EnsureFreeStackSlots(static_cast<int>(upvalues.size()) + 1);
  for (const boost::shared_ptr<ObjectRef>& upvalue : upvalues) PushCopy(state_, upvalue.get());
  lua_pushcclosure(state_, value, static_cast<int>(upvalues.size()));
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TFUNCTION);
}

boost::shared_ptr<ObjectRef> RunTime::CreateAtStack(const NativeFunction& value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  void* block = lua_newuserdata(state_, sizeof(NativeFunction));
  // Constructed before the finalizer is attached, so a copy that throws never
  // leaves a destructor to run on raw memory.
  new (block) NativeFunction(value);
  lua_createtable(state_, 0, 1);
  const lua_CFunction finalizer = WrapFunc<&detatils::UserDataDefaultFinalizer<NativeFunction, true>::Exec>;
  lua_pushcfunction(state_, finalizer);
  lua_setfield(state_, -2, "__gc");
  lua_setmetatable(state_, -2);
  lua_pushcclosure(state_, detatils::CallNativeClosure, 1);
  return detatils::CachedHandle(*this, lua_gettop(state_), LUA_TFUNCTION);
}

boost::shared_ptr<ObjectRef> RunTime::CreateResultAtStack(const std::string& value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  // Pushed with its length: results may be binary.
  if (value.empty()) {
    lua_pushnil(state_);
  } else {
    lua_pushlstring(state_, value.data(), value.size());
  }
  return detatils::CachedHandle(*this, lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::CreateResultAtStack(const char* value) {
  if (value == nullptr || *value == '\0') return CreateNilAtStack();
  return CreateAtStack(value);
}

boost::shared_ptr<ObjectRef> RunTime::CreateResultAtStack(const boost::shared_ptr<ObjectRef>& value) {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  PushCopy(state_, value.get());
  if (lua_type(state_, -1) == LUA_TSTRING && lua_rawlen(state_, -1) == 0) {
    lua_pop(state_, 1);
    lua_pushnil(state_);
  }
  return detatils::CachedHandle(*this, lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::CreateResultAtStack(const boost::shared_ptr<TableRef>& value) {
  if (!value) throw RunTimeError("Invalid reference");
  if (value->Empty()) return CreateNilAtStack();
  return CreateAtStack(value);
}

boost::shared_ptr<ObjectRef> RunTime::CreateResultAtStack(const NilResultPlaceholder&) {
  return CreateNilAtStack();
}

int RunTime::NilResult() {
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_pushnil(state_);
  return 1;
}

void RunTime::CheckArgsCount(int n) {
  if (lua_gettop(state_) != n) luaL_error(state_, "expected %d args", n);
}

void RunTime::CheckArgsCount(const std::vector<boost::shared_ptr<ObjectRef>>& args, size_t n) {
  if (args.size() != n) luaL_error(state_, "expected %d args", static_cast<int>(n));
}

void RunTime::CheckType(const boost::shared_ptr<ObjectRef>& object, int type, const std::string& what) {
  CheckType(object ? object->StackIndex() : 0, type, what);
}

void RunTime::CheckType(int index, int type, const std::string& what) {
  const int actual =
      index == 0 || !detatils::IsAcceptableIndex(state_, index) ? LUA_TNONE : lua_type(state_, index);
  if (actual != type) {
    luaL_error(state_, "%s: expected type '%s', got '%s'", what.c_str(), TypeNameOf(state_, type),
               TypeNameOf(state_, actual));
  }
}

void RunTime::Error(const std::string& message) {
  luaL_error(state_, "%s", message.c_str());
  __builtin_unreachable();  // luaL_error raises and never returns
}

boost::shared_ptr<TableRef> RunTime::CreateLibTable(const std::vector<luaL_Reg>& regs) {
  luaL_checkversion(state_);
  const bool terminated = !regs.empty() && regs.back().name == nullptr;
  const size_t count = terminated ? regs.size() - 1 : regs.size();
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(state_, 0, static_cast<int>(count));
  // luaL_setfuncs of this Lua version would store a null function as a C
  // function; placeholders must read false instead.
  for (size_t i = 0; i < count && regs[i].name != nullptr; ++i) {
    if (regs[i].func != nullptr) {
      lua_pushcfunction(state_, regs[i].func);
    } else {
      lua_pushboolean(state_, 0);
    }
    lua_setfield(state_, -2, regs[i].name);
  }
  return detatils::NewHandle<TableRef>(shared_from_this(), lua_gettop(state_));
}

boost::shared_ptr<TableRef> RunTime::CreateWeakTableAtStack(WeakTableType type) {
  const char* mode = nullptr;
  switch (type) {
    case WeakKeys: mode = "k"; break;
    case WeakValues: mode = "v"; break;
    case WeakKeysAndValues: mode = "kv"; break;
  }
  if (mode == nullptr) {
    throw RunTimeError("CreateWeakTableAtStack(): invalid weak table type: " +
                       std::to_string(static_cast<int>(type)));
  }
  EnsureFreeStackSlots(RunTime::kPushHeadroom);
  lua_createtable(state_, 0, 0);
  lua_createtable(state_, 0, 1);
  lua_pushstring(state_, mode);
  lua_setfield(state_, -2, "__mode");
  lua_setmetatable(state_, -2);
  return detatils::NewHandle<TableRef>(shared_from_this(), lua_gettop(state_));
}

boost::shared_ptr<ObjectRef> RunTime::GetUpValue(int n) {
  return ObjectAtStack(lua_upvalueindex(n));
}

}  // namespace lua
