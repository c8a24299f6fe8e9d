// The response-head parser on whatever a server might send as a head.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/http/framing.h"
#include "utils/http/response.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* begin = text.data();
  const char* headEnd = utils::ExtractHttpResponseRequestHeader(begin, begin + size);
  utils::HttpResponse response;
  if (utils::ParseHttpResponseHead(begin, headEnd != nullptr ? headEnd : begin + size, &response)) {
    if (response.StatusCode < 0 || response.StatusCode > 999 || response.HttpVersion.size() != 3) std::abort();
    std::string key;
    std::string value;
    for (size_t i = 0; response.Headers.Value(i, &key, &value); ++i) {
      if (key.empty() || key.find_first_of(":\r\n") != std::string::npos) std::abort();
      if (value.find('\n') != std::string::npos) std::abort();
    }
  } else if (response.StatusCode != 0 || response.Headers.Size() != 0) {
    std::abort();
  }
  return 0;
}
