#include "utils/json_check.h"

#include <cstdio>
#include <utility>

#include "utils/internal/native_stack.h"
#include "utils/internal/utf8.h"

namespace utils {

namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

class Checker {
 public:
  Checker(const char* begin, const char* end, int maxDepth)
      : begin_(begin), end_(end), p_(begin), maxDepth_(maxDepth) {}

  bool Text() {
    SkipSpace();
    if (!Value(0)) return false;
    SkipSpace();
    if (p_ != end_) return Fail(p_, Unexpected("after the value"));
    return true;
  }

  size_t offset = 0;
  std::string reason;

 private:
  bool Value(int depth) {
    if (p_ == end_) return Fail(p_, "unexpected end of text");
    switch (*p_) {
      case '{': return Object(depth);
      case '[': return Array(depth);
      case '"': return String();
      case 't': return Literal("true");
      case 'f': return Literal("false");
      case 'n': return Literal("null");
      default: break;
    }
    if (*p_ == '-' || IsDigit(*p_)) return Number();
    return Fail(p_, Unexpected(""));
  }

  bool Object(int depth) {
    if (depth >= maxDepth_) return Fail(p_, "nesting deeper than " + std::to_string(maxDepth_) + " levels");
    if (NativeStackLeft() < kNativeStackReserve) return Fail(p_, "nesting too deep for the thread's stack");
    ++p_;
    SkipSpace();
    if (p_ != end_ && *p_ == '}') {
      ++p_;
      return true;
    }
    for (;;) {
      if (p_ == end_) return Fail(p_, "unexpected end of text");
      if (*p_ != '"') return Fail(p_, Unexpected("where a member name should start"));
      if (!String()) return false;
      SkipSpace();
      if (p_ == end_) return Fail(p_, "unexpected end of text");
      if (*p_ != ':') return Fail(p_, Unexpected("where ':' should follow a member name"));
      ++p_;
      SkipSpace();
      if (!Value(depth + 1)) return false;
      SkipSpace();
      if (p_ == end_) return Fail(p_, "unexpected end of text");
      if (*p_ == '}') {
        ++p_;
        return true;
      }
      if (*p_ != ',') return Fail(p_, Unexpected("where ',' or '}' should follow a member"));
      ++p_;
      SkipSpace();
    }
  }

  bool Array(int depth) {
    if (depth >= maxDepth_) return Fail(p_, "nesting deeper than " + std::to_string(maxDepth_) + " levels");
    if (NativeStackLeft() < kNativeStackReserve) return Fail(p_, "nesting too deep for the thread's stack");
    ++p_;
    SkipSpace();
    if (p_ != end_ && *p_ == ']') {
      ++p_;
      return true;
    }
    for (;;) {
      if (!Value(depth + 1)) return false;
      SkipSpace();
      if (p_ == end_) return Fail(p_, "unexpected end of text");
      if (*p_ == ']') {
        ++p_;
        return true;
      }
      if (*p_ != ',') return Fail(p_, Unexpected("where ',' or ']' should follow an element"));
      ++p_;
      SkipSpace();
    }
  }

  bool String() {
    const char* start = p_++;
    for (;;) {
      if (p_ == end_) return Fail(start, "unterminated string");
      const unsigned char c = static_cast<unsigned char>(*p_);
      if (c == '"') {
        ++p_;
        return true;
      }
      if (c < 0x20) return Fail(p_, "control character in a string (it must be escaped)");
      if (c == '\\') {
        if (!Escape()) return false;
      } else if (c < 0x80) {
        ++p_;
      } else {
        const size_t length = impl::Utf8SequenceLength(reinterpret_cast<const unsigned char*>(p_),
                                                       reinterpret_cast<const unsigned char*>(end_));
        if (length == 0) return Fail(p_, "invalid UTF-8");
        p_ += length;
      }
    }
  }

  bool Escape() {
    const char* start = p_++;
    if (p_ == end_) return Fail(start, "unterminated string");
    switch (*p_) {
      case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't':
        ++p_;
        return true;
      case 'u': break;
      default: return Fail(start, "invalid escape");
    }
    int unit = 0;
    if (!HexUnit(start, &unit)) return false;
    if (unit >= 0xDC00 && unit <= 0xDFFF) return Fail(start, "lone surrogate in \\u escape");
    if (unit < 0xD800 || unit > 0xDBFF) return true;
    if (end_ - p_ < 2 || p_[0] != '\\' || p_[1] != 'u') return Fail(start, "lone surrogate in \\u escape");
    const char* second = p_++;
    int low = 0;
    if (!HexUnit(second, &low)) return false;
    if (low < 0xDC00 || low > 0xDFFF) return Fail(start, "lone surrogate in \\u escape");
    return true;
  }

  // p_ is on the 'u' of an escape that starts at `start`.
  bool HexUnit(const char* start, int* unit) {
    ++p_;
    *unit = 0;
    for (int i = 0; i < 4; ++i, ++p_) {
      const int digit = p_ == end_ ? -1 : HexValue(*p_);
      if (digit < 0) return Fail(start, "invalid \\u escape");
      *unit = *unit * 16 + digit;
    }
    return true;
  }

  bool Number() {
    const char* start = p_;
    if (*p_ == '-') ++p_;
    if (p_ == end_ || !IsDigit(*p_)) return Fail(start, "invalid number");
    if (*p_ == '0') {
      ++p_;
    } else {
      while (p_ != end_ && IsDigit(*p_)) ++p_;
    }
    if (p_ != end_ && *p_ == '.') {
      ++p_;
      if (p_ == end_ || !IsDigit(*p_)) return Fail(start, "invalid number");
      while (p_ != end_ && IsDigit(*p_)) ++p_;
    }
    if (p_ != end_ && (*p_ == 'e' || *p_ == 'E')) {
      ++p_;
      if (p_ != end_ && (*p_ == '+' || *p_ == '-')) ++p_;
      if (p_ == end_ || !IsDigit(*p_)) return Fail(start, "invalid number");
      while (p_ != end_ && IsDigit(*p_)) ++p_;
    }
    return true;
  }

  bool Literal(const char* word) {
    for (const char* w = word; *w != '\0'; ++w, ++p_) {
      if (p_ == end_) return Fail(p_, "unexpected end of text");
      if (*p_ != *w) return Fail(p_, Unexpected(""));
    }
    return true;
  }

  void SkipSpace() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\n' || *p_ == '\r')) ++p_;
  }

  // "unexpected character 'x'" (or byte 0xNN when it is not printable).
  std::string Unexpected(const char* where) {
    if (p_ == end_) return "unexpected end of text";
    const unsigned char c = static_cast<unsigned char>(*p_);
    char text[40];
    if (c > 0x20 && c < 0x7F) {
      std::snprintf(text, sizeof text, "unexpected character '%c'", c);
    } else {
      std::snprintf(text, sizeof text, "unexpected byte 0x%02X", c);
    }
    std::string result(text);
    if (*where != '\0') {
      result += ' ';
      result += where;
    }
    return result;
  }

  bool Fail(const char* at, std::string why) {
    offset = static_cast<size_t>(at - begin_);
    reason = std::move(why);
    return false;
  }

  const char* begin_;
  const char* end_;
  const char* p_;
  int maxDepth_;
};

}  // namespace

bool CheckJsonText(const char* begin, const char* end, int maxDepth, size_t* offset, std::string* reason) {
  Checker checker(begin, end, maxDepth);
  if (checker.Text()) return true;
  if (offset != nullptr) *offset = checker.offset;
  if (reason != nullptr) *reason = std::move(checker.reason);
  return false;
}

bool IsJsonNumber(const char* begin, const char* end) {
  if (begin == end || !(*begin == '-' || IsDigit(*begin))) return false;
  Checker checker(begin, end, 0);
  return checker.Text();
}

}  // namespace utils
