#include "lua/libs/libs.h"

namespace lua {

void RegisterAllLibs() {
  RegisterCommonLib();
  RegisterHttpLib();
  RegisterXmlLib();
  RegisterBase64Lib();
  RegisterJsonLib();
}

}  // namespace lua
