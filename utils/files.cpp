#include "utils/files.h"

#include <limits.h>
#include <unistd.h>

namespace utils {

std::string GetProgramExeDir() {
  char path[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return std::string();
  std::string exe(path, static_cast<size_t>(n));
  return exe.substr(0, exe.rfind('/') + 1);
}

}  // namespace utils
