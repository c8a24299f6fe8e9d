#include "lua/libs/libs.h"

#include <utility>

#include "lua/libs/register.h"

namespace lua {

namespace detail {

void RegisterLibOnce(std::once_flag& once, const char* name, GlobalLib::InitFunc init, const luaL_Reg* funcs,
                     std::size_t count) {
  std::call_once(once, [&] {
    GlobalLib lib(name, std::move(init));
    for (std::size_t i = 0; i < count; ++i) {
      if (funcs[i].func) {
        lib.AddFunc(funcs[i].name, funcs[i].func);
      } else {
        lib.AddDataPlaceholder(funcs[i].name);
      }
    }
  });
}

}  // namespace detail

void RegisterAllLibs() {
  RegisterCommonLib();
  RegisterHttpLib();
  RegisterXmlLib();
  RegisterBase64Lib();
  RegisterJsonLib();
}

}  // namespace lua
