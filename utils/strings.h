// Byte-wise text helpers: trimming, case conversion, searching inside ranges,
// case-insensitive comparison, a strict multi-byte sequence check and
// splitting. Character classes are those of the "C" locale, whatever the
// process locale is.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include <boost/utility/string_view.hpp>

namespace utils {

// Removes leading and trailing white space (blank, \t, \n, \v, \f, \r).
std::string TrimString(const std::string& text);

// Remove every repetition of `c` at the start, the end, or both.
std::string TrimLeading(const std::string& text, char c);
std::string TrimTrailing(const std::string& text, char c);
std::string TrimBothEnds(const std::string& text, char c);

// Converts A-Z (a-z) only; every other byte is copied unchanged.
std::string ToLower(const std::string& text);
std::string ToUpper(const std::string& text);

// The text made safe for one log line: CR, LF and the other control bytes
// (tab excepted) become \r, \n and \xHH, so that no value can end a record or
// forge another.
std::string EscapeForLogLine(const std::string& text);

// First occurrence of the NUL-terminated `needle` in [begin, end); a null
// `end` means up to the NUL of `begin`. Returns `begin` for an empty (or null)
// needle and `end` when there is no occurrence. Never reads outside the range,
// so it works inside buffers that are not NUL-terminated at `end`.
const char* FindStr(const char* begin, const char* end, const char* needle);
// The same, comparing A-Z and a-z as equal.
const char* FindStrIgnoreCase(const char* begin, const char* end, const char* needle);

// Equal length and equal bytes once A-Z and a-z are folded together.
bool SameIgnoreCase(boost::string_view a, boost::string_view b);
// Byte-wise ordering after lower-casing; a strict weak order usable as a map
// comparator, consistent with SameIgnoreCase.
bool LessIgnoreCase(const std::string& a, const std::string& b);

// True when every byte is 0-9, a-f or A-F; true for the empty string.
bool IsHexString(const std::string& text);

// Walks the NUL-terminated text in multi-byte sequences: each must start with
// a lead byte 0xC0-0xFD whose value gives its length (0xC0-0xDF two bytes,
// 0xE0-0xEF three, 0xF0-0xF7 four, 0xF8-0xFB five, 0xFC-0xFD six), followed by
// that many 10xxxxxx bytes. Deliberately stricter than UTF-8 validation:
// callers rely on any ASCII byte failing. True when the walk reaches the NUL
// (so for the empty string and a null `text`); otherwise false with the offset
// of the failing sequence in `*errorOffset`, which is left untouched on success.
bool CheckUtf8String(const char* text, size_t* errorOffset);

// Cuts `text` at the first occurrence of `delimiter`. With `trim`, both parts
// pass through TrimString. When `delimiter` is empty or absent the result is
// false, `*first` gets the whole (trimmed) text and `*second` is cleared.
// Null outputs are not written.
bool SplitString(const std::string& text, const std::string& delimiter, bool trim,
                 std::string* first, std::string* second);

// Replaces `*parts` with the pieces of `text` between any of the bytes in
// `delimiters`: n delimiters give n + 1 pieces, so "a,,b" gives "a", "", "b"
// and "" gives one empty piece. With `skipEmpty` the empty pieces are left
// out. An empty `delimiters` leaves the text whole.
void SplitString(const std::string& text, const std::string& delimiters, bool skipEmpty,
                 std::vector<std::string>* parts);
// The same over a range of characters.
template <typename Iterator>
void SplitString(Iterator begin, Iterator end, const std::string& delimiters, bool skipEmpty,
                 std::vector<std::string>* parts);

// Value of the first line, at or after offset `start`, of the form
// "name = value" or "name: value" (lines end at "\n"; blanks around the name,
// the separator and the value are ignored, as is a "\r" before the "\n").
// The name is compared exactly. Empty when no line matches.
std::string GetIniField(const std::string& text, const std::string& name, const size_t& start);

// ---- template implementation ----

template <typename Iterator>
void SplitString(Iterator begin, Iterator end, const std::string& delimiters, bool skipEmpty,
                 std::vector<std::string>* parts) {
  parts->clear();
  std::string piece;
  for (; begin != end; ++begin) {
    char c = *begin;
    if (delimiters.find(c) == std::string::npos) {
      piece.push_back(c);
      continue;
    }
    if (!skipEmpty || !piece.empty()) parts->push_back(piece);
    piece.clear();
  }
  if (!skipEmpty || !piece.empty()) parts->push_back(piece);
}

}  // namespace utils
