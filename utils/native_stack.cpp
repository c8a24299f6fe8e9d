#include "utils/internal/native_stack.h"

#include <pthread.h>

#include <cstdint>
#include <limits>

namespace utils {

namespace {

// The lowest address of the thread's stack (stacks grow down on every
// platform we build for); 0 when unknown.
uintptr_t StackLow() {
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return 0;
  void* low = nullptr;
  size_t size = 0;
  const bool known = pthread_attr_getstack(&attr, &low, &size) == 0;
  pthread_attr_destroy(&attr);
  return known ? reinterpret_cast<uintptr_t>(low) : 0;
}

}  // namespace

size_t NativeStackLeft() {
  thread_local const uintptr_t low = StackLow();
  // The frame address, not a local's: under AddressSanitizer locals may live
  // on a heap-allocated fake stack.
  const uintptr_t here = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  if (low == 0 || here <= low) return std::numeric_limits<size_t>::max();
  return static_cast<size_t>(here - low);
}

}  // namespace utils
