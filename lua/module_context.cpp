#include "lua/module_context.h"

#include <exception>
#include <stdexcept>

#include "utils/log.h"
#include "utils/strings.h"

namespace lua {

std::shared_ptr<LuaModuleContext> LuaModuleContext::Create() {
  return std::make_shared<LuaModuleContext>();
}

std::shared_ptr<LuaModuleContext> LuaModuleContext::Create(const std::string& path, bool reloadOnChange) {
  return std::make_shared<LuaModuleContext>(path, reloadOnChange);
}

std::shared_ptr<LuaModuleContext> LuaModuleContext::Create(const std::string& path, bool reloadOnChange,
                                                          const RunTimeOptions& options) {
  auto context = std::make_shared<LuaModuleContext>(path, reloadOnChange);
  context->options_ = options;
  context->hasOptions_ = true;
  return context;
}

LuaModuleContext::LuaModuleContext() : hasScript_(false), reloadOnChange_(false) {}

LuaModuleContext::LuaModuleContext(const std::string& path, bool reloadOnChange)
    : path_(path), hasScript_(true), reloadOnChange_(reloadOnChange) {}

void LuaModuleContext::SetPreLoadCallback(const PreLoadCallback& callback) {
  utils::ThreadMutex::ScopedLock lock(mutex_);
  preLoad_ = callback;
}

void LuaModuleContext::SetPostLoadCallback(const PostLoadCallback& callback) {
  utils::ThreadMutex::ScopedLock lock(mutex_);
  postLoad_ = callback;
}

void LuaModuleContext::SetCallLimits(std::chrono::milliseconds timeout, std::uint64_t instructions) {
  utils::ThreadMutex::ScopedLock lock(mutex_);
  callTimeout_ = timeout;
  callInstructions_ = instructions;
  if (runtime_) runtime_->SetCallLimits(timeout, instructions);
}

bool LuaModuleContext::Cancel() {
  const boost::shared_ptr<RunTime> rt = boost::atomic_load(&runtime_);
  return rt && rt->Cancel();
}

void LuaModuleContext::Init() {
  try {
    // The old runtime goes first: a reload starts from a clean state.
    boost::atomic_store(&runtime_, boost::shared_ptr<RunTime>());
    boost::shared_ptr<RunTime> fresh = hasOptions_ ? RunTime::Create(options_) : RunTime::Create();
    fresh->SetCallLimits(callTimeout_, callInstructions_);
    boost::atomic_store(&runtime_, fresh);
    if (!hasScript_) return;
    // The callbacks get their own reference, so that nothing they do to it
    // can pull the runtime out from under the load.
    boost::shared_ptr<RunTime> rt = runtime_;
    {
      RunTime::StackCleaner cleaner(rt);
      boost::shared_ptr<TableRef> args = rt->CreateTableAtStack();
      if (preLoad_) preLoad_(rt, args);
      const std::vector<boost::shared_ptr<ObjectRef>> results = rt->RunFile(path_, args, true);
      if (postLoad_) postLoad_(rt, results);
    }
    CORVANE_LOG(zul_log_logger__lua(), zullog::SeverityInfo, "lua_module_ctx")
        << "Init: " << utils::EscapeForLogLine(path_) << " has been loaded";
  } catch (const std::exception& e) {
    boost::atomic_store(&runtime_, boost::shared_ptr<RunTime>());
    throw std::runtime_error(std::string("LuaModuleContext: runtime init error: ") + e.what());
  }
}

bool LuaModuleContext::Load(std::string* error) {
  try {
    Lock lock(shared_from_this());
    return true;
  } catch (const std::exception& e) {
    if (error != nullptr) *error = e.what();
    return false;
  }
}

bool LuaModuleContext::IsLoaded() const {
  utils::ThreadMutex::ScopedLock lock(mutex_);
  return runtime_ && runtime_->IsValid();
}

bool LuaModuleContext::IsScriptFileChanged() {
  const utils::FileStatus status = utils::GetStatus(path_);
  if (!status.exists || status == fileStatus_) return false;
  fileStatus_ = status;
  return true;
}

void LuaModuleContext::ReloadIfNeeded() {
  // Asked first, so that the status seen at this load is remembered.
  const bool changed = hasScript_ && reloadOnChange_ && IsScriptFileChanged();
  if (changed || !runtime_ || !runtime_->IsValid()) Init();
}

LuaModuleContext::Lock::Lock(const std::shared_ptr<LuaModuleContext>& context) : context_(context) {
  if (!context_) throw std::runtime_error("LuaModuleContext::Lock: no context");
  context_->mutex_.Lock();
  Enter();
}

LuaModuleContext::Lock::Lock(const std::shared_ptr<LuaModuleContext>& context, std::chrono::milliseconds maxWait)
    : context_(context) {
  if (!context_) throw std::runtime_error("LuaModuleContext::Lock: no context");
  if (!context_->mutex_.TryLockFor(maxWait)) {
    throw LockTimeout("LuaModuleContext::Lock: " + context_->path_ + " still busy after " +
                      std::to_string(maxWait.count()) + " ms");
  }
  Enter();
}

void LuaModuleContext::Lock::Enter() {
  try {
    context_->ReloadIfNeeded();
  } catch (...) {
    context_->mutex_.Unlock();
    throw;
  }
}

LuaModuleContext::Lock::~Lock() {
  const boost::shared_ptr<RunTime>& rt = context_->runtime_;
  if (rt && rt->IsValid()) {
    rt->ClearStack();
    // One user's collectgarbage("stop") must not leave the next ones to grow
    // without bound.
    if (lua_gc(rt->State(), LUA_GCISRUNNING, 0) == 0) lua_gc(rt->State(), LUA_GCRESTART, 0);
  }
  context_->mutex_.Unlock();
}

}  // namespace lua
