// Process environment. Calls through these functions are serialised with each
// other; code that calls getenv/setenv directly on another thread is not covered.
#pragma once

#include <string>

namespace utils {

// True when `name` is set, even to the empty string; *value (when not null)
// receives its value, and is cleared when the variable is not set.
bool GetEnv(const std::string& name, std::string* value);

// Sets (overwriting) or removes a variable. False for a name that is empty or
// holds '=' or NUL, for a value holding NUL, or when memory runs out.
bool SetEnv(const std::string& name, const std::string& value);
bool UnsetEnv(const std::string& name);

}  // namespace utils
