// Base64 with the standard alphabet and '=' padding (RFC 4648, section 4).
// Large inputs run through SSSE3 or AVX2 when the processor has them; every
// code path gives the same result and the same failures.
#pragma once

#include <cstddef>
#include <string>

namespace utils {

enum class Base64Mode {
  // Fails at the first character outside the alphabet and the padding.
  kStrict,
  // Ignores ASCII whitespace anywhere (line-wrapped MIME or PEM bodies) and is
  // otherwise strict.
  kSkipWhitespace,
};

// Decoding rules beyond the alphabet: padding is optional, but when present it
// must complete the last group of four and end the text; a last group of a
// single character fails; unused low bits of the last character are ignored
// (RFC 4648, section 3.5 leaves rejecting them to the decoder).

// Length of the encoding of `size` bytes, padding included.
size_t Base64EncodedSize(size_t size);

// Enough room for the bytes that `length` characters can decode to.
size_t Base64DecodedMaxSize(size_t length);

// Encodes into `out`, which must hold Base64EncodedSize(size) characters (no
// terminating NUL is written); returns that count.
size_t Base64EncodeTo(const void* data, size_t size, char* out);

std::string Base64Encode(const void* data, size_t size);
std::string Base64Encode(const std::string& data);

// Decodes into `out`, which must hold Base64DecodedMaxSize(length) bytes, and
// sets *size to the count written. On failure returns false and the content of
// `out` is unspecified.
bool Base64DecodeTo(const char* text, size_t length, void* out, size_t* size,
                    Base64Mode mode = Base64Mode::kStrict);

// Decodes [begin, end) (a null `end`: up to the terminating NUL) into *out. On
// failure returns false and clears *out.
bool Base64Decode(const char* begin, const char* end, std::string* out,
                  Base64Mode mode = Base64Mode::kStrict);
bool Base64Decode(const std::string& text, std::string* out,
                  Base64Mode mode = Base64Mode::kStrict);

}  // namespace utils
