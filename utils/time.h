// Clocks, sleeping and date parsing.
#pragma once

#include <cstdint>
#include <string>

namespace utils {

// Milliseconds of a clock that never goes back (CLOCK_MONOTONIC).
int64_t GetMonotonicTimeInMs();

// Wall-clock milliseconds since the Unix epoch.
int64_t GetLocalTimeInMs();

// Sleeps for the whole duration, resuming after signals.
void Sleep(uint32_t ms);

}  // namespace utils
