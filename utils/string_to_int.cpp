#include "utils/string_to_int.h"

#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

namespace utils {

namespace {

constexpr unsigned char kNotADigit = 0xFF;

struct HexDigitTable {
  unsigned char value[256];
  constexpr HexDigitTable() : value() {
    for (int c = 0; c < 256; ++c) value[c] = kNotADigit;
    for (int c = 0; c < 10; ++c) value['0' + c] = static_cast<unsigned char>(c);
    for (int c = 0; c < 6; ++c) {
      value['a' + c] = static_cast<unsigned char>(10 + c);
      value['A' + c] = static_cast<unsigned char>(10 + c);
    }
  }
};

constexpr HexDigitTable kHexDigits;

// The C "space" class, without going through the locale.
inline bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// Digit value, or something >= Radix for any other byte.
template <unsigned Radix>
inline unsigned DigitValue(char c) {
  if constexpr (Radix == 10) {
    return static_cast<unsigned>(static_cast<unsigned char>(c)) - '0';  // wraps for c < '0'
  } else {
    return kHexDigits.value[static_cast<unsigned char>(c)];
  }
}

// How many leading digits can never overflow T, so the loop may skip the bound
// check for them: 9 decimal digits always fit an int, 7 hexadecimal ones do.
template <typename T, unsigned Radix>
constexpr int SafeDigits() {
  return Radix == 10 ? std::numeric_limits<T>::digits10 : std::numeric_limits<T>::digits / 4;
}

// Reads eight decimal digits at once into `*value`, which shortens the serial
// multiply chain of long numbers; false unless all eight bytes are digits.
// The caller guarantees that the eight bytes lie inside its range.
inline bool EightDigits(const char* p, uint64_t* value) {
#if __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
  uint64_t chunk;
  std::memcpy(&chunk, p, sizeof chunk);
  // Each byte must be 0x30-0x39: high nibble 3, and adding 6 must not carry
  // into the high nibble.
  if ((chunk & 0xF0F0F0F0F0F0F0F0) != 0x3030303030303030 ||
      ((chunk + 0x0606060606060606) & 0xF0F0F0F0F0F0F0F0) != 0x3030303030303030) {
    return false;
  }
  chunk -= 0x3030303030303030;
  // Combine neighbours into two-digit, then four-digit, then eight-digit
  // numbers; the first byte in memory is the most significant digit.
  chunk = chunk * 10 + (chunk >> 8);
  chunk = (chunk & 0x00FF00FF00FF00FF) * 100 + ((chunk >> 16) & 0x00FF00FF00FF00FF);
  chunk = (chunk & 0x0000FFFF0000FFFF) * 10000 + ((chunk >> 32) & 0x0000FFFF0000FFFF);
  *value = chunk & 0xFFFFFFFF;
  return true;
#else
  (void)p;
  (void)value;
  return false;
#endif
}

inline void SetStop(const char** stop, const char* at) {
  if (stop != nullptr) *stop = at;
}

// Accumulates digits from `*cursor`, the value kept in T itself. Positive
// values grow by `value * Radix + digit`, negative ones by `value * Radix -
// digit`, so the most negative value never passes through an unrepresentable
// positive one. Each step past the safe prefix checks the bound before it
// multiplies. Returns false on overflow with `*cursor` at the offending digit.
template <typename T, unsigned Radix, bool Negative>
inline bool Accumulate(const char** cursor, const char* end, T* value) {
  using Limits = std::numeric_limits<T>;
  constexpr T kBound = Negative ? Limits::min() : Limits::max();
  constexpr T kCutoff = kBound / static_cast<T>(Radix);
  // Last digit allowed when the value sits exactly at the cutoff.
  constexpr unsigned kCutDigit = static_cast<unsigned>(
      Negative ? -(kBound % static_cast<T>(Radix)) : kBound % static_cast<T>(Radix));

  const char* p = *cursor;
  T v = 0;
  const char* safeEnd = end - p > SafeDigits<T, Radix>() ? p + SafeDigits<T, Radix>() : end;
  if constexpr (Radix == 10 && SafeDigits<T, Radix>() >= 8) {
    uint64_t eight;
    while (safeEnd - p >= 8 && EightDigits(p, &eight)) {
      v = static_cast<T>(Negative ? v * static_cast<T>(100000000) - static_cast<T>(eight)
                                  : v * static_cast<T>(100000000) + static_cast<T>(eight));
      p += 8;
    }
  }
  for (; p != safeEnd; ++p) {
    unsigned digit = DigitValue<Radix>(*p);
    if (digit >= Radix) {
      *cursor = p;
      *value = v;
      return true;
    }
    v = static_cast<T>(Negative ? v * static_cast<T>(Radix) - static_cast<T>(digit)
                                : v * static_cast<T>(Radix) + static_cast<T>(digit));
  }
  for (; p != end; ++p) {
    unsigned digit = DigitValue<Radix>(*p);
    if (digit >= Radix) break;
    bool overflow = Negative ? (v < kCutoff || (v == kCutoff && digit > kCutDigit))
                             : (v > kCutoff || (v == kCutoff && digit > kCutDigit));
    if (overflow) {
      *cursor = p;
      *value = kBound;
      return false;
    }
    v = static_cast<T>(Negative ? v * static_cast<T>(Radix) - static_cast<T>(digit)
                                : v * static_cast<T>(Radix) + static_cast<T>(digit));
  }
  *cursor = p;
  *value = v;
  return true;
}

template <typename T, unsigned Radix>
bool ParseInteger(const char* begin, const char* end, T* out, bool strict, const char** stop) {
  T ignored;
  if (out == nullptr) out = &ignored;
  *out = 0;
  if (begin == nullptr) {
    SetStop(stop, end);
    return false;
  }
  if (end == nullptr) end = begin + std::strlen(begin);

  const char* p = begin;
  if (!strict) {
    while (p != end && IsSpace(*p)) ++p;
  }
  if (p == end) {
    SetStop(stop, end);
    return false;
  }

  constexpr bool kSigned = std::is_signed<T>::value;
  bool negative = false;
  if (kSigned || Radix == 10) {
    if (*p == '-') {
      negative = true;
      ++p;
    } else if (*p == '+') {
      ++p;
    }
  }

  const char* const digits = p;
  T value = 0;
  bool inRange;
  if (!negative) {
    inRange = Accumulate<T, Radix, false>(&p, end, &value);
  } else if constexpr (kSigned) {
    inRange = Accumulate<T, Radix, true>(&p, end, &value);
  } else {
    // An unsigned target takes "-0...0" but nothing below zero.
    while (p != end && *p == '0') ++p;
    inRange = p == end || DigitValue<Radix>(*p) >= Radix;
  }
  SetStop(stop, p);
  *out = value;
  if (!inRange || p == digits) return false;
  return !strict || p == end;
}

}  // namespace

bool StringToInt(const char* begin, const char* end, signed char* out, bool strict,
                 const char** stop) {
  return ParseInteger<signed char, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, unsigned char* out, bool strict,
                 const char** stop) {
  return ParseInteger<unsigned char, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, short* out, bool strict, const char** stop) {
  return ParseInteger<short, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, unsigned short* out, bool strict,
                 const char** stop) {
  return ParseInteger<unsigned short, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, int* out, bool strict, const char** stop) {
  return ParseInteger<int, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, unsigned int* out, bool strict,
                 const char** stop) {
  return ParseInteger<unsigned int, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, long* out, bool strict, const char** stop) {
  return ParseInteger<long, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, unsigned long* out, bool strict,
                 const char** stop) {
  return ParseInteger<unsigned long, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, long long* out, bool strict,
                 const char** stop) {
  return ParseInteger<long long, 10>(begin, end, out, strict, stop);
}
bool StringToInt(const char* begin, const char* end, unsigned long long* out, bool strict,
                 const char** stop) {
  return ParseInteger<unsigned long long, 10>(begin, end, out, strict, stop);
}

bool HexStringToInt(const char* begin, const char* end, signed char* out, bool strict,
                    const char** stop) {
  return ParseInteger<signed char, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, unsigned char* out, bool strict,
                    const char** stop) {
  return ParseInteger<unsigned char, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, short* out, bool strict,
                    const char** stop) {
  return ParseInteger<short, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, unsigned short* out, bool strict,
                    const char** stop) {
  return ParseInteger<unsigned short, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, int* out, bool strict, const char** stop) {
  return ParseInteger<int, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, unsigned int* out, bool strict,
                    const char** stop) {
  return ParseInteger<unsigned int, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, long* out, bool strict,
                    const char** stop) {
  return ParseInteger<long, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, unsigned long* out, bool strict,
                    const char** stop) {
  return ParseInteger<unsigned long, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, long long* out, bool strict,
                    const char** stop) {
  return ParseInteger<long long, 16>(begin, end, out, strict, stop);
}
bool HexStringToInt(const char* begin, const char* end, unsigned long long* out, bool strict,
                    const char** stop) {
  return ParseInteger<unsigned long long, 16>(begin, end, out, strict, stop);
}

}  // namespace utils
