#include "lua/libs/libs.h"

namespace lua {

void RegisterAllLibs() {
  RegisterCommonLib();
  RegisterXmlLib();
  RegisterBase64Lib();
  RegisterJsonLib();
}

}  // namespace lua
