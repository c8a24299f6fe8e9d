// utils::HttpResponse, the head of one HTTP/1.x response, and the parser that
// fills it from the bytes of a head.
#pragma once

#include <string>
#include <utility>

#include "../string_pair_list.h"

namespace utils {

// A plain value.
struct HttpResponse {
  int StatusCode = 0;
  std::string StatusPhrase;
  std::string HttpVersion;  // "1.1", "1.0": the digits of the status line
  StringPairList Headers;   // in wire order, names as sent, repeats kept

  void Clear();
  // After a failed request, one line naming the peer and what went wrong;
  // empty otherwise.
  const std::string& ErrorText() const { return errorText_; }
  void SetErrorText(std::string text) { errorText_ = std::move(text); }

 private:
  std::string errorText_;
};

// Parses [begin, end), a whole head as ExtractHttpResponseRequestHeader cuts
// it. The status line must be "HTTP/d.d ddd[ reason]"; header lines without a
// colon are skipped and folded continuation lines join the previous value with
// one blank (RFC 9112, section 5.2). Values lose surrounding blanks and tabs.
// False, with *response cleared, for a malformed status line.
bool ParseHttpResponseHead(const char* begin, const char* end, HttpResponse* response);

}  // namespace utils
