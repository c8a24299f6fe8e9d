// utils::Error: the exception thrown by constructors that create operating-system
// resources. Keeps the errno that was current when it was made.
#pragma once

#include <cerrno>
#include <stdexcept>
#include <string>

namespace utils {

class Error : public std::runtime_error {
 public:
  // Takes the errno current at the throw site.
  explicit Error(const std::string& message) : Error(message, errno) {}
  Error(const std::string& message, int errorNumber)
      : std::runtime_error(message), errno_(errorNumber) {}

  int Errno() const { return errno_; }

 private:
  int errno_;
};

}  // namespace utils
