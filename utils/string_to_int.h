// Integer parsing over byte ranges, without locale and without copying.
//
// Every overload behaves the same way, only the bounds differ:
// - a null `end` means up to the terminating NUL of `begin`;
// - `*out` is set to 0 first; a null `out` or `stop` means not wanted;
// - unless `strict`, leading white space (C "space" class) is skipped;
// - signed types take one leading '+' or '-'. Unsigned decimal types also take
//   '+', and '-' only in front of digits that are all zero ("-0" gives 0); a
//   non-zero digit after '-' fails with `*out` left at 0. Unsigned hexadecimal
//   types take no sign;
// - hexadecimal digits are 0-9, a-f, A-F, with no "0x" prefix ("0x1F" stops at
//   the 'x');
// - on overflow `*out` is the type's maximum (minimum for negative values) and
//   `*stop` points at the digit that overflowed; the result is false;
// - without any digit the result is false; otherwise it is true, except that
//   `strict` also requires the digits to run up to `end` ("12abc" strictly
//   fails with `*out` 12 and `*stop` at the 'a');
// - `*stop` is where parsing ended, written in every case (`end` for an empty
//   range).
#pragma once

namespace utils {

bool StringToInt(const char* begin, const char* end, signed char* out, bool strict,
                 const char** stop);
bool StringToInt(const char* begin, const char* end, unsigned char* out, bool strict,
                 const char** stop);
bool StringToInt(const char* begin, const char* end, short* out, bool strict, const char** stop);
bool StringToInt(const char* begin, const char* end, unsigned short* out, bool strict,
                 const char** stop);
bool StringToInt(const char* begin, const char* end, int* out, bool strict, const char** stop);
bool StringToInt(const char* begin, const char* end, unsigned int* out, bool strict,
                 const char** stop);
bool StringToInt(const char* begin, const char* end, long* out, bool strict, const char** stop);
bool StringToInt(const char* begin, const char* end, unsigned long* out, bool strict,
                 const char** stop);
bool StringToInt(const char* begin, const char* end, long long* out, bool strict,
                 const char** stop);
bool StringToInt(const char* begin, const char* end, unsigned long long* out, bool strict,
                 const char** stop);

bool HexStringToInt(const char* begin, const char* end, signed char* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, unsigned char* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, short* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, unsigned short* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, int* out, bool strict, const char** stop);
bool HexStringToInt(const char* begin, const char* end, unsigned int* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, long* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, unsigned long* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, long long* out, bool strict,
                    const char** stop);
bool HexStringToInt(const char* begin, const char* end, unsigned long long* out, bool strict,
                    const char** stop);

}  // namespace utils
