#include "lua/global_lib.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <boost/unordered_map.hpp>

#include "lua/object_ref.h"
#include "lua/wrap_func.h"
#include "utils/thread_mutex.h"

namespace lua {

namespace {

struct LibEntry {
  // Always ends with {nullptr, nullptr} once anything was added, so that it can
  // go to luaL_setfuncs as it is.
  std::vector<luaL_Reg> funcs;
  // Owners of the names in `funcs`.
  std::vector<std::unique_ptr<char[]>> names;
  GlobalLib::InitFunc init;
};

struct Registry {
  utils::ThreadMutex mutex;
  boost::unordered_map<std::string, LibEntry> libs;
  // The names in registration order, so that every runtime opens the libraries
  // in the same order whatever the hash order of `libs`.
  std::vector<std::string> order;
};

// Never destroyed: runtimes may be created and closed from static destructors
// and from threads that outlive main().
Registry& GetRegistry() {
  static Registry* const registry = new Registry;
  return *registry;
}

// The entry of `lib`, made (and put at the end of the order) on first use.
// The caller holds the registry mutex.
LibEntry& FindOrAddEntry(Registry& registry, const std::string& lib) {
  const auto inserted = registry.libs.emplace(lib, LibEntry());
  if (inserted.second) registry.order.push_back(lib);
  return inserted.first->second;
}

void AddEntry(const std::string& lib, const std::string& name, lua_CFunction f) {
  Registry& registry = GetRegistry();
  utils::ThreadMutex::ScopedLock lock(registry.mutex);
  LibEntry& entry = FindOrAddEntry(registry, lib);
  if (!entry.funcs.empty()) entry.funcs.pop_back();
  std::unique_ptr<char[]> copy(new char[name.size() + 1]);
  std::memcpy(copy.get(), name.c_str(), name.size() + 1);
  entry.funcs.push_back({copy.get(), f});
  entry.names.push_back(std::move(copy));
  entry.funcs.push_back({nullptr, nullptr});
}

// The opener luaL_requiref calls with the library name. It runs inside
// LoadLibs, which holds the registry mutex.
int OpenLibrary(boost::shared_ptr<RunTime>& rt, const std::vector<boost::shared_ptr<ObjectRef>>&) {
  const std::string name = rt->ObjectAtStackTop()->AsString();
  Registry& registry = GetRegistry();
  const auto found = registry.libs.find(name);
  if (found == registry.libs.end()) return 0;
  LibEntry& entry = found->second;
  if (entry.funcs.empty()) {
    const int top = rt->StackTopIndex();
    boost::shared_ptr<TableRef> none;
    if (entry.init) entry.init(rt, none);
    const int produced = rt->StackTopIndex() - top;
    return produced > 0 ? produced : 0;
  }
  boost::shared_ptr<TableRef> table = rt->CreateLibTable(entry.funcs);
  if (entry.init) entry.init(rt, table);
  if (!table) return 0;
  rt->CreateAtStack(table);
  return 1;
}

}  // namespace

GlobalLib::GlobalLib(const std::string& name, InitFunc init) : name_(name) {
  Registry& registry = GetRegistry();
  utils::ThreadMutex::ScopedLock lock(registry.mutex);
  if (registry.libs.find(name) == registry.libs.end()) FindOrAddEntry(registry, name).init = std::move(init);
}

GlobalLib& GlobalLib::AddFunc(const std::string& name, int (*f)(lua_State*)) {
  AddEntry(name_, name, f);
  return *this;
}

GlobalLib& GlobalLib::AddDataPlaceholder(const std::string& name) {
  AddEntry(name_, name, nullptr);
  return *this;
}

void GlobalLib::SetInitFunc(const InitFunc& init) {
  Registry& registry = GetRegistry();
  utils::ThreadMutex::ScopedLock lock(registry.mutex);
  FindOrAddEntry(registry, name_).init = init;
}

void RunTime::LoadLibs() {
  luaL_openlibs(state_);
  const boost::shared_ptr<RunTime> self = shared_from_this();
  StackCleaner cleaner(self);
  Registry& registry = GetRegistry();
  utils::ThreadMutex::ScopedLock lock(registry.mutex);
  for (const std::string& name : registry.order) {
    EnsureFreeStackSlots(RunTime::kPushHeadroom);
    luaL_requiref(state_, name.c_str(), WrapFunc<&OpenLibrary>, 1);
    lua_pop(state_, 1);  // the copy of the library value that luaL_requiref leaves
  }
}

}  // namespace lua
