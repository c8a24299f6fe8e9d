// Every overload of both integer parsers, strict or not, over the input as a
// bounded range and as a NUL-terminated string, checked against a reference
// that does its arithmetic in 128 bits.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>

#include "utils/string_to_int.h"

namespace {

template <typename T>
struct Outcome {
  bool ok;
  T value;
  const char* stop;
};

int DigitValue(char c, unsigned radix) {
  int digit = -1;
  if (c >= '0' && c <= '9') digit = c - '0';
  if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
  if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
  return digit >= 0 && static_cast<unsigned>(digit) < radix ? digit : -1;
}

template <typename T>
Outcome<T> Reference(const char* begin, const char* end, unsigned radix, bool strict) {
  const __int128 max = std::numeric_limits<T>::max();
  const __int128 min = std::numeric_limits<T>::min();
  const char* p = begin;
  if (!strict) {
    while (p != end && std::isspace(static_cast<unsigned char>(*p))) ++p;
  }
  if (p == end) return {false, 0, end};
  bool negative = false;
  if ((std::numeric_limits<T>::is_signed || radix == 10) && (*p == '+' || *p == '-')) {
    negative = *p == '-';
    ++p;
  }
  const char* digits = p;
  __int128 magnitude = 0;
  for (; p != end && DigitValue(*p, radix) >= 0; ++p) {
    magnitude = magnitude * radix + DigitValue(*p, radix);
    if (!negative && magnitude > max) return {false, std::numeric_limits<T>::max(), p};
    if (negative && -magnitude < min) return {false, std::numeric_limits<T>::min(), p};
  }
  if (p == digits) return {false, 0, p};
  T value = static_cast<T>(negative ? -magnitude : magnitude);
  return {!strict || p == end, value, p};
}

template <typename T>
void Check(const char* begin, const char* end, bool nullEnd, unsigned radix, bool strict) {
  T value;
  const char* stop = nullptr;
  const char* passedEnd = nullEnd ? nullptr : end;
  bool ok = radix == 10 ? utils::StringToInt(begin, passedEnd, &value, strict, &stop)
                        : utils::HexStringToInt(begin, passedEnd, &value, strict, &stop);
  Outcome<T> want = Reference<T>(begin, end, radix, strict);
  if (ok != want.ok || value != want.value || stop != want.stop) __builtin_trap();
}

template <typename... Types>
void CheckAll(const char* begin, const char* end, bool nullEnd) {
  for (unsigned radix : {10u, 16u}) {
    for (bool strict : {false, true}) {
      (Check<Types>(begin, end, nullEnd, radix, strict), ...);
    }
  }
}

void CheckEveryType(const char* begin, const char* end, bool nullEnd) {
  CheckAll<signed char, unsigned char, short, unsigned short, int, unsigned int, long,
           unsigned long, long long, unsigned long long>(begin, end, nullEnd);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const char* begin = reinterpret_cast<const char*>(data);
  CheckEveryType(begin, begin + size, false);

  // The same bytes up to their first NUL, with the end left to the parser.
  std::unique_ptr<char[]> text(new char[size + 1]);
  if (size != 0) std::memcpy(text.get(), data, size);
  text[size] = '\0';
  CheckEveryType(text.get(), text.get() + std::strlen(text.get()), true);
  return 0;
}
