// Files, directories and paths.
#pragma once

#include <string>

namespace utils {

// Directory of the running program's executable, with its trailing '/'
// (so that "?.lua" can be appended directly). Empty when it cannot be found.
std::string GetProgramExeDir();

}  // namespace utils
