#include "utils/time.h"

#include <errno.h>
#include <time.h>

#include <algorithm>

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

Deadline::Deadline(int timeoutMs)
    : timeoutMs_(timeoutMs), end_(timeoutMs > 0 ? GetMonotonicTimeInMs() + timeoutMs : 0) {}

int Deadline::LeftMs() const {
  if (timeoutMs_ <= 0) return timeoutMs_;
  return static_cast<int>(std::max<int64_t>(0, end_ - GetMonotonicTimeInMs()));
}

namespace {

// Whether the format uses the given conversion character, skipping literal "%%".
bool HasConversion(const std::string& format, char conversion) {
  for (size_t i = 0; i + 1 < format.size(); ++i) {
    if (format[i] != '%') continue;
    ++i;
    // Skip the E and O modifiers and a field width (glibc accepts both).
    while (i < format.size() && (format[i] == 'E' || format[i] == 'O' ||
                                 (format[i] >= '0' && format[i] <= '9'))) {
      ++i;
    }
    if (i < format.size() && format[i] == conversion) return true;
  }
  return false;
}

bool IsLeapYear(long year) {
  return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// strptime checks %d against 1..31 only.
bool DayExistsInMonth(const struct tm& tm) {
  static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (tm.tm_mon < 0 || tm.tm_mon > 11 || tm.tm_mday < 1) return false;
  long year = 1900L + tm.tm_year;
  int days = kDays[tm.tm_mon] + (tm.tm_mon == 1 && IsLeapYear(year) ? 1 : 0);
  return tm.tm_mday <= days;
}

}  // namespace

int64_t ParseTime(const std::string& text, const std::string& format, bool utc) {
  struct tm tm = {};
  // A format without a day still names a valid date (the 1st), and a local
  // time left at -1 lets mktime find out whether daylight saving applies.
  tm.tm_mday = 1;
  tm.tm_isdst = -1;
  const char* end = strptime(text.c_str(), format.c_str(), &tm);
  // Also rejects text with an embedded NUL, where strptime stops early.
  if (end == nullptr || end != text.c_str() + text.size()) return -1;
  if (!DayExistsInMonth(tm)) return -1;

  time_t seconds;
  if (HasConversion(format, 's')) {
    // glibc turns %s into local broken-down time, daylight flag included.
    seconds = mktime(&tm);
  } else if (HasConversion(format, 'z')) {
    long offset = tm.tm_gmtoff;
    seconds = timegm(&tm);
    if (seconds == static_cast<time_t>(-1)) return -1;
    seconds -= offset;
  } else {
    seconds = utc ? timegm(&tm) : mktime(&tm);
  }
  if (seconds < 0) return -1;
  return static_cast<int64_t>(seconds) * 1000;
}

}  // namespace utils
