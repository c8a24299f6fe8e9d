// The Base64 code paths one by one, so that tests, the fuzz target and the
// benchmark can hold each to the same behaviour. Library code calls utils/base64.h.
#pragma once

#include <cstddef>
#include <cstdint>

namespace utils {
namespace impl {

enum class Base64Path { kScalar, kSsse3, kAvx2 };

// Whether this processor (and build) can run `path`; kScalar always can.
bool Base64PathAvailable(Base64Path path);

// The fastest available path; what utils::Base64EncodeTo/DecodeTo use.
Base64Path Base64BestPath();

// As utils::Base64EncodeTo, on the given path (which must be available).
size_t Base64EncodeWith(Base64Path path, const uint8_t* data, size_t size, char* out);

// As utils::Base64DecodeTo in strict mode, on the given path.
bool Base64DecodeStrictWith(Base64Path path, const char* text, size_t length, uint8_t* out,
                            size_t* size);

}  // namespace impl
}  // namespace utils
