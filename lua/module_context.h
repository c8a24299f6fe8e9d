// lua::LuaModuleContext: one script file kept loaded in a runtime of its own
// and shared by many host threads. Every use goes through a Lock, which
// serialises access, (re)loads the script into a fresh runtime when there is
// none, when the last one broke, or (if asked to) when the file changed, and
// empties the runtime's stack on release.
//
// Thread-safe: any thread may create Locks; the runtime a Lock hands out may
// only be used while that Lock lives. The context's mutex comes first in the
// lock order (docs/embedding.md, "Locks and their order").
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "object_ref.h"
#include "runtime.h"
#include "../utils/files.h"
#include "../utils/noncopyable.h"
#include "../utils/thread_mutex.h"

namespace lua {

// A timed Lock that ran out of time; it holds nothing.
class LockTimeout : public std::runtime_error {
 public:
  explicit LockTimeout(const std::string& message) : std::runtime_error(message) {}
};

class LuaModuleContext : public std::enable_shared_from_this<LuaModuleContext>, private utils::Noncopyable {
 public:
  // Called before each load with an empty table that becomes the script's
  // init_data; the callback may fill it or replace it with another table.
  using PreLoadCallback = std::function<void(boost::shared_ptr<RunTime>&, boost::shared_ptr<TableRef>&)>;
  // Called after each load with the script's results, still on the stack.
  using PostLoadCallback =
      std::function<void(boost::shared_ptr<RunTime>&, const std::vector<boost::shared_ptr<ObjectRef>>&)>;

  class Lock;

  // A context without a script: its runtime has the registered libraries only.
  static std::shared_ptr<LuaModuleContext> Create();
  static std::shared_ptr<LuaModuleContext> Create(const std::string& path, bool reloadOnChange);
  // Every runtime the context creates is made with these options.
  static std::shared_ptr<LuaModuleContext> Create(const std::string& path, bool reloadOnChange,
                                                  const RunTimeOptions& options);

  // Nothing is loaded until the first Lock (or Load).
  LuaModuleContext();
  LuaModuleContext(const std::string& path, bool reloadOnChange);

  // Used by every later load.
  void SetPreLoadCallback(const PreLoadCallback& callback);
  void SetPostLoadCallback(const PostLoadCallback& callback);

  // Loads into a new runtime now. Callers hold the context's mutex (a Lock
  // does). Throws std::runtime_error "LuaModuleContext: runtime init error: "
  // + the cause, and leaves the context unloaded.
  void Init();
  // Takes a Lock and releases it: true when the script is loaded, else false
  // with the reason in *error (when not null).
  bool Load(std::string* error);
  bool IsLoaded() const;
  // Whether the file's status differs from the one seen last (and remembers
  // the new one). False when the file cannot be examined.
  bool IsScriptFileChanged();
  // Init() when the file changed and reloading on change was asked for, or
  // when there is no usable runtime. Callers hold the mutex.
  void ReloadIfNeeded();
  // Call limits (RunTime::SetCallLimits) for the current runtime and every
  // later one, the module load included.
  void SetCallLimits(std::chrono::milliseconds timeout, std::uint64_t instructions);
  // Any thread, without waiting for the Lock: RunTime::Cancel on the current
  // runtime, which interrupts the call in progress there. Whether there was
  // one; nothing happens while nothing is loaded or running.
  bool Cancel();
  // Kept as part of the interface; they do nothing.
  void SetGcParams() {}
  void CollectGarbage() {}

 private:
  // Replaced only with boost::atomic_store, since Cancel reads it without the mutex.
  boost::shared_ptr<RunTime> runtime_;
  utils::FileStatus fileStatus_;
  std::string path_;
  bool hasScript_;
  PreLoadCallback preLoad_;
  PostLoadCallback postLoad_;
  bool reloadOnChange_;
  RunTimeOptions options_;
  bool hasOptions_ = false;
  std::chrono::milliseconds callTimeout_{0};
  std::uint64_t callInstructions_ = 0;
  mutable utils::ThreadMutex mutex_;
};

// Holds the context's mutex (and the context) from construction to
// destruction. Construction loads the script when needed and throws as
// Init() does; destruction empties the runtime's stack.
class LuaModuleContext::Lock : private utils::Noncopyable {
 public:
  explicit Lock(const std::shared_ptr<LuaModuleContext>& context);
  // Waits at most maxWait for the context; throws LockTimeout when that runs
  // out (or as the other constructor does once locked).
  Lock(const std::shared_ptr<LuaModuleContext>& context, std::chrono::milliseconds maxWait);
  ~Lock();

  boost::shared_ptr<RunTime> GetRuntime() const { return context_->runtime_; }

 private:
  void Enter();

  std::shared_ptr<LuaModuleContext> context_;
};

}  // namespace lua
