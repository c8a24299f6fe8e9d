// UTF-8 sequence checks shared by the JSON checker and writer.
#pragma once

#include <cstddef>

namespace utils {
namespace impl {

// Length of the UTF-8 sequence that starts at p (RFC 3629 section 4: no
// overlong forms, no surrogates, nothing above U+10FFFF), or 0 when it is not
// valid. p must be before end.
inline size_t Utf8SequenceLength(const unsigned char* p, const unsigned char* end) {
  const unsigned char c = p[0];
  if (c < 0x80) return 1;
  size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;
    if (c == 0xED) high = 0x9F;
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;
    if (c == 0xF4) high = 0x8F;
  } else {
    return 0;
  }
  if (static_cast<size_t>(end - p) < length) return 0;
  if (p[1] < low || p[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (p[i] < 0x80 || p[i] > 0xBF) return 0;
  }
  return length;
}

}  // namespace impl
}  // namespace utils
