// Small helpers shared by the script runtime tests.
#pragma once

#include <functional>
#include <string>

#include <boost/shared_ptr.hpp>
#include <lua.hpp>

#include "lua/object_ref.h"
#include "lua/runtime.h"

namespace lua_test {

// The text of the RunTimeError that `f` throws.
inline std::string ThrownText(const std::function<void()>& f) {
  try {
    f();
  } catch (const lua::RunTimeError& e) {
    return e.what();
  }
  return "<no RunTimeError>";
}

inline bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// The first result of a chunk as text; the stack is left as it was.
inline std::string Eval(const boost::shared_ptr<lua::RunTime>& rt, const std::string& code) {
  lua::RunTime::StackCleaner cleaner(rt);
  auto results = rt->RunString(code, false);
  return results.empty() ? "<none>" : results.front()->AsString();
}

inline void Expose(const boost::shared_ptr<lua::RunTime>& rt, const std::string& name, lua_CFunction f) {
  lua::RunTime::StackCleaner cleaner(rt);
  rt->SetGlobalObject(name, rt->CreateAtStack(f));
}

}  // namespace lua_test
