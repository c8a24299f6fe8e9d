// utils::ChunkedDecoder: decodes a chunked body as it arrives, in pieces of
// any size, straight into the caller's string. Stricter than
// ParseChunkedEncodedString, because a download must know where the body
// ends: a malformed size line is an error rather than the end.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace utils {

// One body per object; one thread at a time.
class ChunkedDecoder {
 public:
  enum Result { kNeedMore, kDone, kMalformed, kTooLarge };

  // A size line or trailer line longer than this is malformed: extensions are
  // never that long, and the cap keeps a hostile peer from growing the buffer.
  static constexpr size_t kMaxLineBytes = 8192;

  explicit ChunkedDecoder(size_t maxBodyBytes) : maxBodyBytes_(maxBodyBytes) {}

  // Appends the data of [data, data + size) to *out. *consumed (may be null)
  // counts the input bytes used; after kDone the rest belongs to whatever
  // follows the body. kTooLarge when the decoded body would pass the limit.
  Result Feed(const char* data, size_t size, std::string* out, size_t* consumed);

 private:
  enum State { kSizeLine, kData, kDataEnd, kTrailer, kFinished };

  Result TakeSizeLine();

  State state_ = kSizeLine;
  std::string line_;
  uint64_t remaining_ = 0;
  size_t maxBodyBytes_;
  size_t decoded_ = 0;
};

}  // namespace utils
