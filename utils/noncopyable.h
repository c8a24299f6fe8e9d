// Base class that forbids copying; derive privately.
#pragma once

namespace utils {

class Noncopyable {
 protected:
  Noncopyable() = default;
  ~Noncopyable() = default;

 public:
  Noncopyable(const Noncopyable&) = delete;
  Noncopyable& operator=(const Noncopyable&) = delete;
};

}  // namespace utils
