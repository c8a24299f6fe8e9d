#include "utils/segments.h"

#include <algorithm>
#include <cstring>

#include "utils/strings.h"

namespace utils {

namespace {

boost::string_view Window(boost::string_view text, size_t start, size_t end) {
  end = std::min(end, text.size());
  start = std::min(start, end);
  return text.substr(start, end - start);
}

}  // namespace

boost::string_view ExtractMessage(const char* begin, const char* end, const char* open,
                                  const char* close, bool includeMarkers) {
  if (begin == nullptr) return boost::string_view();
  if (end == nullptr) end = begin + std::strlen(begin);
  size_t openLength = open == nullptr ? 0 : std::strlen(open);
  size_t closeLength = close == nullptr ? 0 : std::strlen(close);

  const char* openAt = FindStr(begin, end, open);
  if (openAt == end && openLength != 0) return boost::string_view();
  const char* inner = openAt + openLength;
  const char* closeAt = closeLength == 0 ? end : FindStr(inner, end, close);
  if (closeAt == end && closeLength != 0) return boost::string_view();

  const char* from = includeMarkers ? openAt : inner;
  const char* to = includeMarkers ? closeAt + closeLength : closeAt;
  return boost::string_view(from, static_cast<size_t>(to - from));
}

bool GetSegment(boost::string_view text, boost::string_view delimiter, size_t index,
                boost::string_view* segment, size_t start, size_t end) {
  return GetSegmentSeq(text, delimiter, index, 1, segment, start, end);
}

bool GetSegmentSeq(boost::string_view text, boost::string_view delimiter, size_t first,
                   size_t count, boost::string_view* segments, size_t start, size_t end) {
  SegmentIterator it(text, delimiter, start, end);
  for (size_t i = 0; i < first && it.HasNext(); ++i) it.Next();
  if (!it.HasNext()) return false;
  boost::string_view head = it.Next();
  const char* from = head.data();
  const char* to = count == 0 ? from : from + head.size();
  for (size_t i = 1; i < count && it.HasNext(); ++i) {
    boost::string_view next = it.Next();
    to = next.data() + next.size();
  }
  if (segments != nullptr) *segments = boost::string_view(from, static_cast<size_t>(to - from));
  return true;
}

SegmentIterator::SegmentIterator(boost::string_view text, boost::string_view delimiter,
                                 size_t start, size_t end)
    : rest_(Window(text, start, end)), delimiter_(delimiter) {}

boost::string_view SegmentIterator::Next() {
  if (!hasNext_) return boost::string_view();
  size_t at = delimiter_.empty() ? boost::string_view::npos : rest_.find(delimiter_);
  if (at == boost::string_view::npos) {
    hasNext_ = false;
    return rest_;
  }
  boost::string_view segment = rest_.substr(0, at);
  rest_.remove_prefix(at + delimiter_.size());
  return segment;
}

}  // namespace utils
