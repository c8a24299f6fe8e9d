// utils::JsonWriter: JSON text built in one growing buffer, compact or
// indented by two spaces, and WriteJson for Json::Value documents. Numbers
// read back as the same value: integers exactly, doubles in their shortest
// round-trip form, with ".0" kept on integral values so that a float stays a
// float. Strings must be UTF-8; non-ASCII text is written as it is.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

#include <json/value.h>

namespace utils {

class JsonWriter {
 public:
  // A position to come back to, with the nesting that goes with it.
  struct Mark {
    size_t size;
    int depth;
  };

  explicit JsonWriter(bool pretty) : pretty_(pretty) {}

  // A container is Open(), then Item() before each element or member, then
  // Close() with whether it stayed empty.
  void Open(char bracket) {
    text_ += bracket;
    ++depth_;
  }
  void Item(bool first) {
    if (!first) text_ += ',';
    if (pretty_) NewLine();
  }
  void Close(char bracket, bool empty) {
    --depth_;
    if (pretty_ && !empty) NewLine();
    text_ += bracket;
  }
  // After a member name.
  void Colon() {
    if (pretty_) {
      text_.append(": ", 2);
    } else {
      text_ += ':';
    }
  }

  void Null() { text_.append("null", 4); }
  void Bool(bool value) { value ? text_.append("true", 4) : text_.append("false", 5); }
  void Integer(long long value);
  void Unsigned(unsigned long long value);
  // False, with nothing written, for NaN and the infinities.
  bool Double(double value);
  // 1e999 or -1e999: beyond the doubles, so readers make an infinity of it.
  void Infinity(bool negative) { negative ? text_.append("-1e999", 6) : text_.append("1e999", 5); }
  // False at the first byte that does not begin valid UTF-8, with its offset
  // in *badOffset (when not null); the text is then left as it was.
  bool String(const char* data, size_t size, size_t* badOffset = nullptr);
  // As String, with each byte of invalid UTF-8 written as U+FFFD.
  void LenientString(const char* data, size_t size);

  Mark GetMark() const { return Mark{text_.size(), depth_}; }
  void Rewind(const Mark& mark) {
    text_.resize(mark.size);
    depth_ = mark.depth;
  }

  const std::string& Text() const { return text_; }
  std::string Take() { return std::move(text_); }

 private:
  void NewLine() {
    text_ += '\n';
    text_.append(static_cast<size_t>(depth_) * 2, ' ');
  }

  bool pretty_;
  int depth_ = 0;
  std::string text_;
};

// The document as JSON text. Non-finite reals become null and invalid UTF-8
// in strings becomes U+FFFD, so that the result is always valid JSON.
std::string WriteJson(const Json::Value& value, bool pretty);

}  // namespace utils
