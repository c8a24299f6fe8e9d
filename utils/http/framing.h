// HTTP/1.x message framing over raw byte ranges: where a head ends, single
// lines, the announced body length, chunked bodies, and receiving a head from
// a cancellable client without reading past it.
//
// Deliberately lenient: a bare line feed is accepted wherever CRLF is
// expected, and a malformed length or chunk ends the work with what was found.
// Nothing here logs, throws or allocates except for results; null output
// pointers are allowed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "../net/cancellable_client.h"

namespace utils {

// Just behind the empty line that ends the head, or null when [begin, end)
// holds no complete head. "\n\n" and "\n\r\n" end a head; "\r\r" never does.
const char* ExtractHttpResponseRequestHeader(const char* begin, const char* end);

// Just behind the first line feed, or null. A CR before it is the caller's to strip.
const char* ExtractHttpLine(const char* begin, const char* end);

// The body length the head announces, or -1. A null end means up to the NUL
// of begin. The header name is matched anywhere in the range, case-insensitively
// ("ContentLength" too), not only at a line start: callers rely on that leniency.
int64_t ParseContentLength(const char* begin, const char* end);

// Decodes a whole chunked body; whatever cannot be decoded ends the result
// early, silently. Extensions and trailers are skipped.
std::string ParseChunkedEncodedString(const std::string& body);

// Reads one byte per call, so not one byte of the body leaves the connection.
// True once the buffer ends with a complete head (*received is its size).
// False with *error 0 when the head does not fit into size bytes, otherwise
// with the client's error. A positive time-out is one deadline for the head.
bool RecvHttpRequestResponseHeader(AbstractCancellableClient* client, void* buffer, size_t size,
                                   size_t* received, AbstractCancellableClient::Error_t* error,
                                   int timeoutMs);

// Reads in blocks. True when a head was found: *headerSize is its length,
// *extraSize the count of body bytes read behind it. False (head size 0,
// extra size all that was read) on a client error or a full buffer.
bool RecvExtractHttpHeader(AbstractCancellableClient* client, void* buffer, size_t size,
                           size_t* headerSize, size_t* extraSize,
                           AbstractCancellableClient::Error_t* error, int timeoutMs);

}  // namespace utils
