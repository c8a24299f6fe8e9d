// How the script libraries enter the process-wide registry. The registry only
// ever appends, so a second registration would list every function twice:
// each library passes its own once_flag and is registered once per process.
#pragma once

#include <cstddef>
#include <mutex>

#include <lua.hpp>

#include "lua/global_lib.h"

namespace lua {
namespace detail {

// Adds `funcs` in their order; an entry with a null function becomes a data
// placeholder that `init` fills in each runtime.
void RegisterLibOnce(std::once_flag& once, const char* name, GlobalLib::InitFunc init, const luaL_Reg* funcs,
                     std::size_t count);

template <std::size_t N>
void RegisterLibOnce(std::once_flag& once, const char* name, const luaL_Reg (&funcs)[N],
                     GlobalLib::InitFunc init = nullptr) {
  RegisterLibOnce(once, name, std::move(init), funcs, N);
}

}  // namespace detail
}  // namespace lua
