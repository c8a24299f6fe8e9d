// Registration of the script libraries. Each call puts one library into the
// process-wide registry; every runtime created afterwards opens it as a global.
#pragma once

namespace lua {

void RegisterCommonLib();  // "cv"
void RegisterHttpLib();    // "http"
void RegisterXmlLib();     // "xml"
void RegisterBase64Lib();  // "base64"
void RegisterJsonLib();    // "json"

// All of the above.
void RegisterAllLibs();

}  // namespace lua
