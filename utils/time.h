// Clocks, deadlines, sleeping and date parsing.
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

// One deadline on the monotonic clock for a series of waits: LeftMs() is what
// remains of a positive time-out (0 once passed); 0 and negative pass through.
class Deadline {
 public:
  explicit Deadline(int timeoutMs);
  int LeftMs() const;

 private:
  int timeoutMs_;
  int64_t end_;
};

// Parses `text` with a strptime(3) format and returns milliseconds since the
// epoch, reading the fields as UTC when `utc` is true and as the process's local
// time zone (TZ) otherwise. The whole text must match; a day the month does not
// have (Feb 30) is rejected rather than rolled over. Local times let mktime
// decide daylight saving: a time inside a spring-forward gap moves forward by
// the gap, a repeated fall-back hour takes mktime's choice. An explicit offset
// (%z) overrides `utc`; %s is already absolute. Returns -1 on failure, and
// times before the epoch count as failures because negative means failure.
int64_t ParseTime(const std::string& text, const std::string& format, bool utc);

}  // namespace utils
