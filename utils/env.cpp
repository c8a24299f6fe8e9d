#include "utils/env.h"

#include <stdlib.h>

#include <mutex>

namespace utils {

namespace {

std::mutex& EnvMutex() {
  static std::mutex mutex;
  return mutex;
}

// setenv would cut the name at a NUL and silently set some other variable.
bool ValidName(const std::string& name) {
  return !name.empty() && name.find_first_of(std::string("=\0", 2)) == std::string::npos;
}

}  // namespace

bool GetEnv(const std::string& name, std::string* value) {
  std::lock_guard<std::mutex> lock(EnvMutex());
  // The value is copied under the lock: a concurrent SetEnv may replace it.
  const char* found = ValidName(name) ? ::getenv(name.c_str()) : nullptr;
  if (value != nullptr) {
    if (found != nullptr) {
      value->assign(found);
    } else {
      value->clear();
    }
  }
  return found != nullptr;
}

bool SetEnv(const std::string& name, const std::string& value) {
  if (!ValidName(name) || value.find('\0') != std::string::npos) return false;
  std::lock_guard<std::mutex> lock(EnvMutex());
  return ::setenv(name.c_str(), value.c_str(), 1) == 0;
}

bool UnsetEnv(const std::string& name) {
  if (!ValidName(name)) return false;
  std::lock_guard<std::mutex> lock(EnvMutex());
  return ::unsetenv(name.c_str()) == 0;
}

}  // namespace utils
