// The framing functions on arbitrary bytes, and the incremental chunk decoder
// fed the same bytes in two pieces, which must agree with feeding them whole.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "utils/http/chunked_decoder.h"
#include "utils/http/framing.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const char* begin = text.data();
  const char* end = begin + size;

  const char* headEnd = utils::ExtractHttpResponseRequestHeader(begin, end);
  if (headEnd != nullptr && (headEnd <= begin || headEnd > end || headEnd[-1] != '\n')) std::abort();
  const char* line = utils::ExtractHttpLine(begin, end);
  if (line != nullptr && (line <= begin || line > end || line[-1] != '\n')) std::abort();
  if (utils::ParseContentLength(begin, end) < -1) std::abort();
  utils::ParseContentLength(text.c_str(), nullptr);

  const std::string decoded = utils::ParseChunkedEncodedString(text);
  if (decoded.size() > size) std::abort();

  const size_t limit = 1 << 16;
  utils::ChunkedDecoder whole(limit);
  std::string wholeOut;
  size_t wholeUsed = 0;
  const auto wholeResult = whole.Feed(begin, size, &wholeOut, &wholeUsed);
  if (wholeUsed > size || wholeOut.size() > limit) std::abort();
  const size_t split = size == 0 ? 0 : data[0] % (size + 1);
  utils::ChunkedDecoder parts(limit);
  std::string partsOut;
  size_t used = 0;
  auto partsResult = parts.Feed(begin, split, &partsOut, &used);
  size_t partsUsed = used;
  if (partsResult == utils::ChunkedDecoder::kNeedMore) {
    partsResult = parts.Feed(begin + split, size - split, &partsOut, &used);
    partsUsed += used;
  }
  if (partsResult != wholeResult) std::abort();
  if (wholeResult == utils::ChunkedDecoder::kDone && (partsOut != wholeOut || partsUsed != wholeUsed)) {
    std::abort();
  }
  return 0;
}
