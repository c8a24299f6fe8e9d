#include "utils/http/chunked_decoder.h"

#include <algorithm>
#include <cstring>

#include "utils/string_to_int.h"

namespace utils {

namespace {

// Lenient like the rest of the framing: LF alone ends a line.
void StripLineEnd(std::string* line) {
  if (!line->empty() && line->back() == '\n') line->pop_back();
  if (!line->empty() && line->back() == '\r') line->pop_back();
}

}  // namespace

ChunkedDecoder::Result ChunkedDecoder::TakeSizeLine() {
  StripLineEnd(&line_);
  const char* begin = line_.data();
  const char* end = begin + line_.size();
  unsigned long long size = 0;
  const char* stop = nullptr;
  // Strict digits at the start, so that a blank or a sign is no size; what
  // follows may only be an extension (RFC 9112, section 7.1.1) or blanks.
  // An overflow stops on a digit, which the second check rejects.
  HexStringToInt(begin, end, &size, true, &stop);
  if (stop == begin) return kMalformed;
  if (stop != end && *stop != ';' && *stop != ' ' && *stop != '\t') return kMalformed;
  line_.clear();
  if (size == 0) {
    state_ = kTrailer;
  } else {
    if (size > maxBodyBytes_ - decoded_) return kTooLarge;
    remaining_ = size;
    state_ = kData;
  }
  return kNeedMore;
}

ChunkedDecoder::Result ChunkedDecoder::Feed(const char* data, size_t size, std::string* out,
                                            size_t* consumed) {
  size_t localConsumed = 0;
  if (consumed == nullptr) consumed = &localConsumed;
  *consumed = 0;
  const char* p = data;
  const char* const end = data + size;
  while (p < end) {
    switch (state_) {
      case kSizeLine:
      case kTrailer:
      case kDataEnd: {
        const char* lf = static_cast<const char*>(std::memchr(p, '\n', static_cast<size_t>(end - p)));
        const char* take = lf != nullptr ? lf + 1 : end;
        if (line_.size() + static_cast<size_t>(take - p) > kMaxLineBytes) return kMalformed;
        line_.append(p, take);
        p = take;
        *consumed = static_cast<size_t>(p - data);
        if (lf == nullptr) return kNeedMore;
        if (state_ == kSizeLine) {
          const Result result = TakeSizeLine();
          if (result != kNeedMore) return result;
        } else if (state_ == kDataEnd) {
          StripLineEnd(&line_);
          if (!line_.empty()) return kMalformed;
          state_ = kSizeLine;
        } else {
          StripLineEnd(&line_);
          const bool last = line_.empty();
          line_.clear();
          if (last) {
            state_ = kFinished;
            return kDone;
          }
        }
        break;
      }
      case kData: {
        const size_t take = static_cast<size_t>(std::min<uint64_t>(remaining_, static_cast<uint64_t>(end - p)));
        out->append(p, take);
        p += take;
        decoded_ += take;
        remaining_ -= take;
        *consumed = static_cast<size_t>(p - data);
        if (remaining_ == 0) state_ = kDataEnd;
        break;
      }
      case kFinished:
        return kDone;
    }
  }
  return state_ == kFinished ? kDone : kNeedMore;
}

}  // namespace utils
