#include "utils/http/response.h"

#include <algorithm>

#include "utils/http/framing.h"

namespace utils {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsBlank(char c) { return c == ' ' || c == '\t'; }

// The line without its LF and an optional CR before it.
const char* LineContentEnd(const char* begin, const char* lineEnd) {
  const char* end = lineEnd;
  if (end > begin && end[-1] == '\n') --end;
  if (end > begin && end[-1] == '\r') --end;
  return end;
}

std::string TrimBlanks(const char* begin, const char* end) {
  while (begin < end && IsBlank(*begin)) ++begin;
  while (end > begin && IsBlank(end[-1])) --end;
  return std::string(begin, end);
}

bool ParseStatusLine(const char* begin, const char* end, HttpResponse* response) {
  static const char kPrefix[] = "HTTP/";
  const size_t prefixSize = sizeof(kPrefix) - 1;
  // "HTTP/d.d ddd" is the shortest acceptable line.
  if (end - begin < static_cast<std::ptrdiff_t>(prefixSize + 3 + 4)) return false;
  if (std::string(begin, prefixSize) != kPrefix) return false;
  const char* p = begin + prefixSize;
  if (!IsDigit(p[0]) || p[1] != '.' || !IsDigit(p[2]) || p[3] != ' ') return false;
  response->HttpVersion.assign(p, 3);
  p += 4;
  if (end - p < 3 || !IsDigit(p[0]) || !IsDigit(p[1]) || !IsDigit(p[2])) return false;
  response->StatusCode = (p[0] - '0') * 100 + (p[1] - '0') * 10 + (p[2] - '0');
  p += 3;
  if (p < end && *p != ' ') return false;
  response->StatusPhrase = TrimBlanks(p, end);
  return true;
}

}  // namespace

void HttpResponse::Clear() {
  StatusCode = 0;
  StatusPhrase.clear();
  HttpVersion.clear();
  Headers.Clear();
  errorText_.clear();
}

bool ParseHttpResponseHead(const char* begin, const char* end, HttpResponse* response) {
  response->Clear();
  if (begin == nullptr || end == nullptr || end <= begin) return false;
  const char* lineEnd = ExtractHttpLine(begin, end);
  if (lineEnd == nullptr) lineEnd = end;
  if (!ParseStatusLine(begin, LineContentEnd(begin, lineEnd), response)) {
    response->Clear();
    return false;
  }
  std::string name;
  std::string value;
  bool pending = false;
  for (const char* line = lineEnd; line < end; line = lineEnd) {
    lineEnd = ExtractHttpLine(line, end);
    if (lineEnd == nullptr) lineEnd = end;
    const char* contentEnd = LineContentEnd(line, lineEnd);
    if (contentEnd == line) break;  // the empty line that ends the head
    if (IsBlank(*line)) {
      if (pending) {
        const std::string more = TrimBlanks(line, contentEnd);
        if (!more.empty()) value += (value.empty() ? "" : " ") + more;
      }
      continue;
    }
    if (pending) response->Headers.AddValue(name, value);
    pending = false;
    const char* colon = line;
    while (colon < contentEnd && *colon != ':') ++colon;
    if (colon == contentEnd) continue;
    name = TrimBlanks(line, colon);
    // A field name is a token (RFC 7230 section 3.2): a line whose name holds a
    // control byte, such as a bare CR, is not a header and is skipped.
    if (name.empty() || std::any_of(name.begin(), name.end(), [](char c) {
          return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
        })) {
      continue;
    }
    value = TrimBlanks(colon + 1, contentEnd);
    pending = true;
  }
  if (pending) response->Headers.AddValue(name, value);
  return true;
}

}  // namespace utils
