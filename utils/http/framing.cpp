#include "utils/http/framing.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "utils/string_to_int.h"
#include "utils/strings.h"
#include "utils/time.h"

namespace utils {

namespace {

using Error_t = AbstractCancellableClient::Error_t;

const char* FindLineFeed(const char* begin, const char* end) {
  return static_cast<const char*>(std::memchr(begin, '\n', static_cast<size_t>(end - begin)));
}

}  // namespace

const char* ExtractHttpResponseRequestHeader(const char* begin, const char* end) {
  if (begin == nullptr || end == nullptr || end <= begin) return nullptr;
  // Starting from the first line feed means the first line is never taken for
  // the empty one, even when the range starts with a line feed.
  for (const char* lf = FindLineFeed(begin, end); lf != nullptr;) {
    const char* next = lf + 1;
    if (next == end) return nullptr;
    if (*next == '\n') return next + 1;
    if (*next == '\r' && next + 1 < end && next[1] == '\n') return next + 2;
    lf = FindLineFeed(next, end);
  }
  return nullptr;
}

const char* ExtractHttpLine(const char* begin, const char* end) {
  if (begin == nullptr || end == nullptr || end <= begin) return nullptr;
  const char* lf = FindLineFeed(begin, end);
  return lf == nullptr ? nullptr : lf + 1;
}

int64_t ParseContentLength(const char* begin, const char* end) {
  if (begin == nullptr) return -1;
  if (end == nullptr) end = begin + std::strlen(begin);
  if (end <= begin) return -1;
  static const char kName[] = "Content-Length";
  static const char kMisspelt[] = "ContentLength";
  const char* from = begin;
  for (;;) {
    const char* name = FindStrIgnoreCase(from, end, kName);
    size_t nameSize = sizeof(kName) - 1;
    if (name == end) {
      name = FindStrIgnoreCase(from, end, kMisspelt);
      nameSize = sizeof(kMisspelt) - 1;
    }
    if (name == end) return -1;
    const char* p = name + nameSize;
    bool colonSeen = false;
    while (p < end) {
      if (*p == ' ' || *p == '\t') {
        ++p;
      } else if (*p == ':' && !colonSeen) {
        colonSeen = true;
        ++p;
      } else {
        break;
      }
    }
    if (p < end && *p >= '0' && *p <= '9') {
      long long length = 0;
      if (!StringToInt(p, end, &length, false, nullptr)) return -1;
      return length;
    }
    // Not a number here: a later occurrence of the name may still carry one.
    from = p;
  }
}

std::string ParseChunkedEncodedString(const std::string& body) {
  std::string result;
  const char* data = body.c_str();
  const size_t size = body.size();
  size_t position = 0;
  while (position < size) {
    // strtoul stops at the NUL that c_str() guarantees, so it never reads past the input.
    char* stop = nullptr;
    errno = 0;
    const unsigned long chunkSize = std::strtoul(data + position, &stop, 16);
    if (errno != 0 || stop == data + position) return result;
    const size_t lineEnd = body.find("\r\n", position);
    if (lineEnd == std::string::npos) return result;
    const size_t dataStart = lineEnd + 2;
    const size_t available = size - dataStart;
    if (chunkSize > available) {
      result.append(body, dataStart, available);
      return result;
    }
    result.append(body, dataStart, chunkSize);
    // The CRLF behind the data is skipped without being checked.
    position = dataStart + chunkSize + 2;
  }
  return result;
}

bool RecvHttpRequestResponseHeader(AbstractCancellableClient* client, void* buffer, size_t size,
                                   size_t* received, Error_t* error, int timeoutMs) {
  size_t localReceived = 0;
  Error_t localError = 0;
  if (received == nullptr) received = &localReceived;
  if (error == nullptr) error = &localError;
  *received = 0;
  *error = AbstractCancellableClient::ErrorNone;
  if (client == nullptr || buffer == nullptr || size == 0) return false;
  char* const begin = static_cast<char*>(buffer);
  const Deadline deadline(timeoutMs);
  for (;;) {
    size_t got = 0;
    const Error_t result = client->Recv(begin + *received, 1, &got, deadline.LeftMs());
    *received += got;
    if (result != AbstractCancellableClient::ErrorNone || got != 1) {
      *error = result;
      return false;
    }
    const char* current = begin + *received;
    if (ExtractHttpResponseRequestHeader(begin, current) == current) return true;
    if (*received == size) return false;
  }
}

bool RecvExtractHttpHeader(AbstractCancellableClient* client, void* buffer, size_t size,
                           size_t* headerSize, size_t* extraSize, Error_t* error, int timeoutMs) {
  size_t localHeader = 0;
  size_t localExtra = 0;
  Error_t localError = 0;
  if (headerSize == nullptr) headerSize = &localHeader;
  if (extraSize == nullptr) extraSize = &localExtra;
  if (error == nullptr) error = &localError;
  *headerSize = 0;
  *extraSize = 0;
  *error = AbstractCancellableClient::ErrorNone;
  if (client == nullptr || buffer == nullptr || size == 0) return false;
  char* const begin = static_cast<char*>(buffer);
  const Deadline deadline(timeoutMs);
  size_t filled = 0;
  for (;;) {
    size_t got = 0;
    *error = client->Recv(begin + filled, size - filled, &got, deadline.LeftMs());
    filled += got;
    const char* headEnd = ExtractHttpResponseRequestHeader(begin, begin + filled);
    if (headEnd != nullptr) {
      *headerSize = static_cast<size_t>(headEnd - begin);
      *extraSize = filled - *headerSize;
      return true;
    }
    if (*error != AbstractCancellableClient::ErrorNone || filled == size) {
      *extraSize = filled;
      return false;
    }
  }
}

}  // namespace utils
