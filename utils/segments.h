// Delimiter-based extraction over views of existing text; nothing is copied
// and every result points into the caller's bytes, so it lives only as long as
// they do.
//
// Segments: the bytes between occurrences of a delimiter (a string, matched
// exactly). A range holding n delimiters has n + 1 segments, so "a,,b" has
// "a", "" and "b", and an empty range has one empty segment. An empty
// delimiter leaves the range as one segment.
//
// Optional indices [start, end) narrow the text first; they are clamped to
// its size, and a start past the end gives an empty range.
#pragma once

#include <cstddef>

#include <boost/utility/string_view.hpp>

namespace utils {

// The text between the first occurrence of `open` in [begin, end) and the
// first occurrence of `close` after it; with `includeMarkers` the markers
// themselves are part of the result. A null `end` means up to the NUL of
// `begin`. An empty (or null) `open` starts at `begin`, an empty (or null)
// `close` runs to `end`. When either marker is missing the result is a
// default view whose data() is null, which tells it apart from an empty find.
boost::string_view ExtractMessage(const char* begin, const char* end, const char* open,
                                  const char* close, bool includeMarkers);

// Segment number `index` (from 0) into `*segment`; false when there are fewer
// segments. A null `segment` only asks whether it exists.
bool GetSegment(boost::string_view text, boost::string_view delimiter, size_t index,
                boost::string_view* segment, size_t start = 0,
                size_t end = boost::string_view::npos);

// Segments `first` to `first + count - 1` as one view, the delimiters between
// them included ("a.b.c.d", ".", 1, 2 gives "b.c"). The run stops early at the
// last segment, so `count` = npos means "to the end". False when segment
// `first` does not exist; a zero `count` gives an empty view at its start.
bool GetSegmentSeq(boost::string_view text, boost::string_view delimiter, size_t first,
                   size_t count, boost::string_view* segments, size_t start = 0,
                   size_t end = boost::string_view::npos);

// Yields the segments in order:
//   for (utils::SegmentIterator it(header, ","); it.HasNext();) Use(it.Next());
// A plain value; the text must outlive it.
class SegmentIterator {
 public:
  SegmentIterator(boost::string_view text, boost::string_view delimiter, size_t start = 0,
                  size_t end = boost::string_view::npos);

  bool HasNext() const { return hasNext_; }
  // The next segment; an empty default view once HasNext() is false.
  boost::string_view Next();

 private:
  boost::string_view rest_;
  boost::string_view delimiter_;
  bool hasNext_ = true;
};

}  // namespace utils
