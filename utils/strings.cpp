#include "utils/strings.h"

#include <algorithm>
#include <cstring>

namespace utils {

namespace {

// Classification and case mapping of the "C" locale, independent of the
// process locale and of the signedness of char.
inline bool IsSpace(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }
inline bool IsBlank(char c) { return c == ' ' || c == '\t'; }
inline char LowerByte(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; }
inline char UpperByte(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c; }
inline bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Length of the sequence a lead byte opens, 0 when it opens none.
inline size_t SequenceLength(unsigned char lead) {
  if (lead < 0xC0) return 0;
  if (lead <= 0xDF) return 2;
  if (lead <= 0xEF) return 3;
  if (lead <= 0xF7) return 4;
  if (lead <= 0xFB) return 5;
  if (lead <= 0xFD) return 6;
  return 0;
}

std::string TrimBlanks(const std::string& text, size_t from, size_t to) {
  while (from < to && IsSpace(text[from])) ++from;
  while (to > from && IsSpace(text[to - 1])) --to;
  return text.substr(from, to - from);
}

}  // namespace

std::string TrimString(const std::string& text) { return TrimBlanks(text, 0, text.size()); }

std::string TrimLeading(const std::string& text, char c) {
  size_t from = text.find_first_not_of(c);
  return from == std::string::npos ? std::string() : text.substr(from);
}

std::string TrimTrailing(const std::string& text, char c) {
  size_t last = text.find_last_not_of(c);
  return last == std::string::npos ? std::string() : text.substr(0, last + 1);
}

std::string TrimBothEnds(const std::string& text, char c) {
  size_t from = text.find_first_not_of(c);
  if (from == std::string::npos) return std::string();
  return text.substr(from, text.find_last_not_of(c) - from + 1);
}

std::string ToLower(const std::string& text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), LowerByte);
  return result;
}

std::string ToUpper(const std::string& text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), UpperByte);
  return result;
}

std::string EscapeForLogLine(const std::string& text) {
  static const char kHex[] = "0123456789abcdef";
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    const unsigned char byte = static_cast<unsigned char>(c);
    if (c == '\r') {
      result += "\\r";
    } else if (c == '\n') {
      result += "\\n";
    } else if ((byte < 0x20 && c != '\t') || byte == 0x7f) {
      result += "\\x";
      result += kHex[byte >> 4];
      result += kHex[byte & 0xf];
    } else {
      result += c;
    }
  }
  return result;
}

const char* FindStr(const char* begin, const char* end, const char* needle) {
  if (begin == nullptr) return end;
  if (end == nullptr) end = begin + std::strlen(begin);
  if (needle == nullptr || *needle == '\0') return begin;
  boost::string_view haystack(begin, static_cast<size_t>(end - begin));
  size_t at = haystack.find(needle);
  return at == boost::string_view::npos ? end : begin + at;
}

const char* FindStrIgnoreCase(const char* begin, const char* end, const char* needle) {
  if (begin == nullptr) return end;
  if (end == nullptr) end = begin + std::strlen(begin);
  if (needle == nullptr || *needle == '\0') return begin;
  size_t length = std::strlen(needle);
  if (static_cast<size_t>(end - begin) < length) return end;
  const char first = LowerByte(needle[0]);
  const char* last = end - length;
  for (const char* p = begin; p <= last; ++p) {
    if (LowerByte(*p) != first) continue;
    size_t i = 1;
    while (i < length && LowerByte(p[i]) == LowerByte(needle[i])) ++i;
    if (i == length) return p;
  }
  return end;
}

bool SameIgnoreCase(boost::string_view a, boost::string_view b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    if (UpperByte(a[i]) != UpperByte(b[i])) return false;
  }
  return true;
}

bool LessIgnoreCase(const std::string& a, const std::string& b) {
  return std::lexicographical_compare(
      a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return static_cast<unsigned char>(LowerByte(x)) < static_cast<unsigned char>(LowerByte(y));
      });
}

bool IsHexString(const std::string& text) {
  return std::all_of(text.begin(), text.end(), IsHexDigit);
}

bool CheckUtf8String(const char* text, size_t* errorOffset) {
  if (text == nullptr) return true;
  const unsigned char* bytes = reinterpret_cast<const unsigned char*>(text);
  size_t at = 0;
  while (bytes[at] != 0) {
    size_t length = SequenceLength(bytes[at]);
    // A NUL is not a continuation byte, so a short tail stops here too and
    // nothing past the terminator is read.
    size_t i = 1;
    while (i < length && (bytes[at + i] & 0xC0) == 0x80) ++i;
    if (length == 0 || i != length) {
      if (errorOffset != nullptr) *errorOffset = at;
      return false;
    }
    at += length;
  }
  return true;
}

bool SplitString(const std::string& text, const std::string& delimiter, bool trim,
                 std::string* first, std::string* second) {
  size_t at = delimiter.empty() ? std::string::npos : text.find(delimiter);
  if (at == std::string::npos) {
    if (first != nullptr) *first = trim ? TrimString(text) : text;
    if (second != nullptr) second->clear();
    return false;
  }
  size_t rest = at + delimiter.size();
  if (first != nullptr) *first = trim ? TrimBlanks(text, 0, at) : text.substr(0, at);
  if (second != nullptr) *second = trim ? TrimBlanks(text, rest, text.size()) : text.substr(rest);
  return true;
}

void SplitString(const std::string& text, const std::string& delimiters, bool skipEmpty,
                 std::vector<std::string>* parts) {
  SplitString(text.begin(), text.end(), delimiters, skipEmpty, parts);
}

std::string GetIniField(const std::string& text, const std::string& name, const size_t& start) {
  size_t line = start;
  while (line < text.size()) {
    size_t lineEnd = text.find('\n', line);
    if (lineEnd == std::string::npos) lineEnd = text.size();
    size_t p = line;
    while (p < lineEnd && IsBlank(text[p])) ++p;
    if (!name.empty() && text.compare(p, name.size(), name) == 0 &&
        p + name.size() <= lineEnd) {
      p += name.size();
      while (p < lineEnd && IsBlank(text[p])) ++p;
      if (p < lineEnd && (text[p] == '=' || text[p] == ':')) {
        return TrimBlanks(text, p + 1, lineEnd);
      }
    }
    line = lineEnd + 1;
  }
  return std::string();
}

}  // namespace utils
