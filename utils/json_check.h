// utils::CheckJsonText: where a text stops being JSON. Fast parsers report
// that a text is malformed, seldom where; this finds the first offending byte
// for the error message. It builds nothing and allocates nothing.
#pragma once

#include <cstddef>
#include <string>

namespace utils {

// Checks that [begin, end) is exactly one JSON text of RFC 8259: one value of
// any kind with optional whitespace around it, in UTF-8, with containers
// nested at most `maxDepth` levels. On failure returns false with the byte
// offset of the first error in *offset and what was wrong in *reason (null
// pointers are not filled).
//
// Stricter than the grammar in one point: a \u escape that is half of a
// surrogate pair without its other half is refused, since the string it
// names has no UTF-8 form (RFC 8259 section 8.2 leaves such strings to the
// implementation).
bool CheckJsonText(const char* begin, const char* end, int maxDepth, size_t* offset, std::string* reason);

// Whether [begin, end) is one JSON number (RFC 8259 section 6), nothing more.
bool IsJsonNumber(const char* begin, const char* end);

}  // namespace utils
