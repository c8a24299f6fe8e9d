#include "utils/time.h"

#include <errno.h>
#include <time.h>

namespace utils {

int64_t GetMonotonicTimeInMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

int64_t GetLocalTimeInMs() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void Sleep(uint32_t ms) {
  struct timespec left;
  left.tv_sec = ms / 1000;
  left.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
  while (nanosleep(&left, &left) != 0 && errno == EINTR) {
  }
}

}  // namespace utils
