// lua::GlobalLib: a handle to one native library in the process-wide registry
// that every new RunTime opens (as a global and in package.loaded), in the
// order the libraries were first registered. A library registered after a
// runtime was created is not in that runtime.
//
// Thread-safe: one mutex guards the registry for every GlobalLib operation and
// for RunTime::LoadLibs. Init functions run under that mutex, so they must not
// register libraries or create runtimes themselves. Lock order: docs/embedding.md,
// "Locks and their order".
#pragma once

#include <functional>
#include <string>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "runtime.h"

namespace lua {

class GlobalLib {
 public:
  // Called when a runtime opens the library: with the table built from the
  // added functions, or with an empty pointer when none were added (then the
  // values it leaves on the stack become the library value).
  using InitFunc = std::function<void(boost::shared_ptr<RunTime>& rt, boost::shared_ptr<TableRef>& table)>;

  // The first registration of a name keeps its init function; later handles of
  // that name add to the same entry.
  GlobalLib(const std::string& name, InitFunc init);

  GlobalLib& AddFunc(const std::string& name, int (*f)(lua_State*));
  // A field that reads false until the init function fills it.
  GlobalLib& AddDataPlaceholder(const std::string& name);
  void SetInitFunc(const InitFunc& init);

 private:
  std::string name_;
};

}  // namespace lua
