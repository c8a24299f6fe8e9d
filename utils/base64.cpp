#include "utils/base64.h"

#include <cstdint>
#include <cstring>

#include "utils/internal/base64_codec.h"

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define CORVANE_BASE64_X86 1
#endif

namespace utils {

namespace {

using impl::Base64Path;

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

// Two output characters per 12 input bits halve the lookups of a per-character
// table; 8 KiB stays in L1.
struct PairTable {
  char pairs[4096][2];
};

constexpr PairTable MakePairTable() {
  PairTable table{};
  for (int i = 0; i < 4096; ++i) {
    table.pairs[i][0] = kAlphabet[i >> 6];
    table.pairs[i][1] = kAlphabet[i & 63];
  }
  return table;
}

constexpr PairTable kPairs = MakePairTable();

// One table per position in a group of four, holding the character's six bits
// already shifted into place, so a group decodes with four loads and three ORs.
// Characters outside the alphabet carry bits above the 24 data bits, which
// survive the ORs and flag the whole group.
constexpr uint32_t kInvalid = 0xff000000u;

struct DecodeTables {
  uint32_t shifted[4][256];
};

constexpr DecodeTables MakeDecodeTables() {
  DecodeTables tables{};
  for (int position = 0; position < 4; ++position) {
    for (int c = 0; c < 256; ++c) tables.shifted[position][c] = kInvalid;
    for (uint32_t value = 0; value < 64; ++value) {
      auto c = static_cast<unsigned char>(kAlphabet[value]);
      tables.shifted[position][c] = value << (18 - 6 * position);
    }
  }
  return tables;
}

constexpr DecodeTables kDecode = MakeDecodeTables();

inline uint32_t DecodeGroup(const char* in) {
  const auto* c = reinterpret_cast<const unsigned char*>(in);
  return kDecode.shifted[0][c[0]] | kDecode.shifted[1][c[1]] | kDecode.shifted[2][c[2]] |
         kDecode.shifted[3][c[3]];
}

size_t EncodeScalar(const uint8_t* in, size_t size, char* out) {
  char* start = out;
  size_t i = 0;
  for (; size - i >= 3; i += 3) {
    uint32_t bits = uint32_t{in[i]} << 16 | uint32_t{in[i + 1]} << 8 | in[i + 2];
    std::memcpy(out, kPairs.pairs[bits >> 12], 2);
    std::memcpy(out + 2, kPairs.pairs[bits & 0xfff], 2);
    out += 4;
  }
  if (size - i == 1) {
    uint32_t bits = uint32_t{in[i]} << 4;
    std::memcpy(out, kPairs.pairs[bits], 2);
    out[2] = '=';
    out[3] = '=';
    out += 4;
  } else if (size - i == 2) {
    uint32_t bits = (uint32_t{in[i]} << 8 | in[i + 1]) << 2;
    std::memcpy(out, kPairs.pairs[bits >> 6], 2);
    out[2] = kAlphabet[bits & 63];
    out[3] = '=';
    out += 4;
  }
  return static_cast<size_t>(out - start);
}

// Decodes whole groups of four alphabet characters from the start of `in`;
// returns how many characters it consumed, stopping before the first group
// that holds anything else.
size_t DecodeGroupsScalar(const char* in, size_t length, uint8_t* out) {
  size_t i = 0;
  for (; length - i >= 4; i += 4) {
    uint32_t bits = DecodeGroup(in + i);
    if (bits & kInvalid) break;
    out[0] = static_cast<uint8_t>(bits >> 16);
    out[1] = static_cast<uint8_t>(bits >> 8);
    out[2] = static_cast<uint8_t>(bits);
    out += 3;
  }
  return i;
}

// The complete strict rules, applied to what the vector loops left over. Their
// prefix holds alphabet characters only, in whole groups, so judging the rest
// alone gives the same verdict as judging the whole text.
bool DecodeRestScalar(const char* in, size_t length, uint8_t* out, size_t* size) {
  size_t padding = 0;
  while (padding < 3 && padding < length && in[length - 1 - padding] == '=') ++padding;
  if (padding > 2) return false;
  size_t body = length - padding;
  size_t whole = body & ~size_t{3};
  if (DecodeGroupsScalar(in, whole, out) != whole) return false;
  out += whole / 4 * 3;
  size_t partial = body - whole;
  // A lone character carries six bits, not a byte; padding must fill the group.
  if (partial == 1 || (padding != 0 && partial + padding != 4)) return false;
  *size = whole / 4 * 3;
  if (partial == 0) return true;
  const auto* c = reinterpret_cast<const unsigned char*>(in + whole);
  uint32_t bits = kDecode.shifted[0][c[0]] | kDecode.shifted[1][c[1]] |
                  (partial == 3 ? kDecode.shifted[2][c[2]] : 0);
  if (bits & kInvalid) return false;
  out[0] = static_cast<uint8_t>(bits >> 16);
  if (partial == 3) out[1] = static_cast<uint8_t>(bits >> 8);
  *size += partial - 1;
  return true;
}

#ifdef CORVANE_BASE64_X86

// Vector decoding validates 16 or 32 characters at once by their nibbles: each
// high nibble selects a class bit, and the low-nibble table sets that bit for
// the low nibbles that are invalid in the class. A character is valid when the
// two lookups share no bit. Classes: 0x01 high nibble 2 ('+' and '/' only),
// 0x02 nibble 3 (digits), 0x04 nibbles 4 and 6 (letters from 1), 0x08 nibbles
// 5 and 7 (letters up to 0xA), 0x10 every other nibble (always invalid).
#define CORVANE_BASE64_LO_CLASSES                                                          \
  0x15, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x11, 0x13, 0x1a, 0x1b, 0x1b, 0x1b, \
      0x1a
#define CORVANE_BASE64_HI_CLASSES                                                          \
  0x10, 0x10, 0x01, 0x02, 0x04, 0x08, 0x04, 0x08, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, 0x10, \
      0x10
// What to add to a valid character to get its value, by high nibble; '/' looks
// one entry lower than '+' (index 1 instead of 2).
#define CORVANE_BASE64_ROLL 0, 16, 19, 4, -65, -65, -71, -71, 0, 0, 0, 0, 0, 0, 0, 0
// Encoding: what to add to a six-bit value to get its character, by range
// index: 0 lower case, 1..10 digits, 11 '+', 12 '/', 13 upper case.
#define CORVANE_BASE64_SHIFTS 71, -4, -4, -4, -4, -4, -4, -4, -4, -4, -4, -19, -16, 65, 0, 0
// Each group of three input bytes s0 s1 s2 becomes the 32-bit lane s1 s0 s2 s1,
// which puts every six-bit field where one 16-bit multiply can move it.
#define CORVANE_BASE64_SPREAD 1, 0, 2, 1, 4, 3, 5, 4, 7, 6, 8, 7, 10, 9, 11, 10
// After decoding each 32-bit lane holds 24 bits; keep their three bytes in order.
#define CORVANE_BASE64_GATHER 2, 1, 0, 6, 5, 4, 10, 9, 8, 14, 13, 12, -1, -1, -1, -1

__attribute__((target("ssse3"))) size_t EncodeBlocksSsse3(const uint8_t* in, size_t size,
                                                          char* out) {
  const __m128i spread = _mm_setr_epi8(CORVANE_BASE64_SPREAD);
  const __m128i shifts = _mm_setr_epi8(CORVANE_BASE64_SHIFTS);
  size_t i = 0;
  // 16 bytes are loaded for the 12 encoded.
  for (; size - i >= 16; i += 12) {
    __m128i bytes = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i)),
                                     spread);
    // Fields a and c through the high half of a multiply, b and d through the low.
    __m128i ac = _mm_mulhi_epu16(_mm_and_si128(bytes, _mm_set1_epi32(0x0fc0fc00)),
                                 _mm_set1_epi32(0x04000040));
    __m128i bd = _mm_mullo_epi16(_mm_and_si128(bytes, _mm_set1_epi32(0x003f03f0)),
                                 _mm_set1_epi32(0x01000010));
    __m128i values = _mm_or_si128(ac, bd);
    // 0..25 -> 13, 26..51 -> 0, 52..63 -> 1..12.
    __m128i index = _mm_subs_epu8(values, _mm_set1_epi8(51));
    __m128i upper = _mm_cmpgt_epi8(_mm_set1_epi8(26), values);
    index = _mm_or_si128(index, _mm_and_si128(upper, _mm_set1_epi8(13)));
    __m128i chars = _mm_add_epi8(values, _mm_shuffle_epi8(shifts, index));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), chars);
    out += 16;
  }
  return i;
}

__attribute__((target("avx2"))) size_t EncodeBlocksAvx2(const uint8_t* in, size_t size,
                                                        char* out) {
  const __m256i spread = _mm256_setr_epi8(CORVANE_BASE64_SPREAD, CORVANE_BASE64_SPREAD);
  const __m256i shifts = _mm256_setr_epi8(CORVANE_BASE64_SHIFTS, CORVANE_BASE64_SHIFTS);
  size_t i = 0;
  // Each 128-bit lane takes 12 bytes; the upper lane's load reaches byte 28.
  for (; size - i >= 32; i += 24) {
    __m256i bytes = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i + 12)), 1);
    bytes = _mm256_shuffle_epi8(bytes, spread);
    __m256i ac = _mm256_mulhi_epu16(_mm256_and_si256(bytes, _mm256_set1_epi32(0x0fc0fc00)),
                                    _mm256_set1_epi32(0x04000040));
    __m256i bd = _mm256_mullo_epi16(_mm256_and_si256(bytes, _mm256_set1_epi32(0x003f03f0)),
                                    _mm256_set1_epi32(0x01000010));
    __m256i values = _mm256_or_si256(ac, bd);
    __m256i index = _mm256_subs_epu8(values, _mm256_set1_epi8(51));
    __m256i upper = _mm256_cmpgt_epi8(_mm256_set1_epi8(26), values);
    index = _mm256_or_si256(index, _mm256_and_si256(upper, _mm256_set1_epi8(13)));
    __m256i chars = _mm256_add_epi8(values, _mm256_shuffle_epi8(shifts, index));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), chars);
    out += 32;
  }
  return i;
}

// Returns the characters consumed, a multiple of 16; stops before the first
// block holding a character outside the alphabet.
__attribute__((target("ssse3"))) size_t DecodeBlocksSsse3(const char* in, size_t length,
                                                          uint8_t* out) {
  const __m128i loClasses = _mm_setr_epi8(CORVANE_BASE64_LO_CLASSES);
  const __m128i hiClasses = _mm_setr_epi8(CORVANE_BASE64_HI_CLASSES);
  const __m128i roll = _mm_setr_epi8(CORVANE_BASE64_ROLL);
  const __m128i gather = _mm_setr_epi8(CORVANE_BASE64_GATHER);
  const __m128i nibble = _mm_set1_epi8(0x0f);
  size_t i = 0;
  // The 16-byte store writes 4 bytes past the 12 decoded; at least 16 more
  // characters remain, so the caller's buffer has room for them.
  for (; length - i >= 32; i += 16) {
    __m128i chars = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in + i));
    __m128i hi = _mm_and_si128(_mm_srli_epi32(chars, 4), nibble);
    __m128i classes = _mm_and_si128(_mm_shuffle_epi8(loClasses, _mm_and_si128(chars, nibble)),
                                    _mm_shuffle_epi8(hiClasses, hi));
    if (_mm_movemask_epi8(_mm_cmpeq_epi8(classes, _mm_setzero_si128())) != 0xffff) break;
    __m128i slash = _mm_cmpeq_epi8(chars, _mm_set1_epi8('/'));
    __m128i values = _mm_add_epi8(chars, _mm_shuffle_epi8(roll, _mm_add_epi8(slash, hi)));
    // Pairs of six-bit values into 12 bits, pairs of those into 24.
    __m128i pairs = _mm_maddubs_epi16(values, _mm_set1_epi32(0x01400140));
    __m128i groups = _mm_madd_epi16(pairs, _mm_set1_epi32(0x00011000));
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out), _mm_shuffle_epi8(groups, gather));
    out += 12;
  }
  return i;
}

__attribute__((target("avx2"))) size_t DecodeBlocksAvx2(const char* in, size_t length,
                                                        uint8_t* out) {
  const __m256i loClasses =
      _mm256_setr_epi8(CORVANE_BASE64_LO_CLASSES, CORVANE_BASE64_LO_CLASSES);
  const __m256i hiClasses =
      _mm256_setr_epi8(CORVANE_BASE64_HI_CLASSES, CORVANE_BASE64_HI_CLASSES);
  const __m256i roll = _mm256_setr_epi8(CORVANE_BASE64_ROLL, CORVANE_BASE64_ROLL);
  const __m256i gather = _mm256_setr_epi8(CORVANE_BASE64_GATHER, CORVANE_BASE64_GATHER);
  const __m256i lanes = _mm256_setr_epi32(0, 1, 2, 4, 5, 6, 3, 7);
  const __m256i nibble = _mm256_set1_epi8(0x0f);
  size_t i = 0;
  // As in the SSSE3 loop: the 32-byte store writes 8 bytes of slack.
  for (; length - i >= 64; i += 32) {
    __m256i chars = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(in + i));
    __m256i hi = _mm256_and_si256(_mm256_srli_epi32(chars, 4), nibble);
    __m256i loClass = _mm256_shuffle_epi8(loClasses, _mm256_and_si256(chars, nibble));
    __m256i hiClass = _mm256_shuffle_epi8(hiClasses, hi);
    if (!_mm256_testz_si256(loClass, hiClass)) break;
    __m256i slash = _mm256_cmpeq_epi8(chars, _mm256_set1_epi8('/'));
    __m256i values =
        _mm256_add_epi8(chars, _mm256_shuffle_epi8(roll, _mm256_add_epi8(slash, hi)));
    __m256i pairs = _mm256_maddubs_epi16(values, _mm256_set1_epi32(0x01400140));
    __m256i groups = _mm256_madd_epi16(pairs, _mm256_set1_epi32(0x00011000));
    __m256i packed = _mm256_permutevar8x32_epi32(_mm256_shuffle_epi8(groups, gather), lanes);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out), packed);
    out += 24;
  }
  return i;
}

#endif  // CORVANE_BASE64_X86

Base64Path DetectBestPath() {
#ifdef CORVANE_BASE64_X86
  __builtin_cpu_init();
  if (__builtin_cpu_supports("avx2")) return Base64Path::kAvx2;
  if (__builtin_cpu_supports("ssse3")) return Base64Path::kSsse3;
#endif
  return Base64Path::kScalar;
}

bool IsAsciiSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

namespace impl {

bool Base64PathAvailable(Base64Path path) {
  switch (path) {
    case Base64Path::kScalar:
      return true;
    case Base64Path::kSsse3:
      return Base64BestPath() != Base64Path::kScalar;
    case Base64Path::kAvx2:
      return Base64BestPath() == Base64Path::kAvx2;
  }
  return false;
}

Base64Path Base64BestPath() {
  static const Base64Path best = DetectBestPath();
  return best;
}

size_t Base64EncodeWith(Base64Path path, const uint8_t* data, size_t size, char* out) {
  size_t done = 0;
#ifdef CORVANE_BASE64_X86
  if (path == Base64Path::kAvx2) {
    done = EncodeBlocksAvx2(data, size, out);
  } else if (path == Base64Path::kSsse3) {
    done = EncodeBlocksSsse3(data, size, out);
  }
#else
  (void)path;
#endif
  return done / 3 * 4 + EncodeScalar(data + done, size - done, out + done / 3 * 4);
}

bool Base64DecodeStrictWith(Base64Path path, const char* text, size_t length, uint8_t* out,
                            size_t* size) {
  size_t done = 0;
#ifdef CORVANE_BASE64_X86
  if (path == Base64Path::kAvx2) {
    done = DecodeBlocksAvx2(text, length, out);
  } else if (path == Base64Path::kSsse3) {
    done = DecodeBlocksSsse3(text, length, out);
  }
#else
  (void)path;
#endif
  size_t rest = 0;
  if (!DecodeRestScalar(text + done, length - done, out + done / 4 * 3, &rest)) return false;
  *size = done / 4 * 3 + rest;
  return true;
}

}  // namespace impl

size_t Base64EncodedSize(size_t size) { return size / 3 * 4 + (size % 3 != 0 ? 4 : 0); }

size_t Base64DecodedMaxSize(size_t length) {
  return length / 4 * 3 + (length % 4 != 0 ? 3 : 0);
}

size_t Base64EncodeTo(const void* data, size_t size, char* out) {
  return impl::Base64EncodeWith(impl::Base64BestPath(), static_cast<const uint8_t*>(data), size,
                                out);
}

std::string Base64Encode(const void* data, size_t size) {
  std::string text(Base64EncodedSize(size), '\0');
  if (!text.empty()) Base64EncodeTo(data, size, &text[0]);
  return text;
}

std::string Base64Encode(const std::string& data) { return Base64Encode(data.data(), data.size()); }

bool Base64DecodeTo(const char* text, size_t length, void* out, size_t* size, Base64Mode mode) {
  auto* bytes = static_cast<uint8_t*>(out);
  Base64Path path = impl::Base64BestPath();
  if (impl::Base64DecodeStrictWith(path, text, length, bytes, size)) return true;
  if (mode == Base64Mode::kStrict) return false;
  // Clean text never pays for the copy: only a failed strict pass gets here.
  std::string compact;
  compact.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    if (!IsAsciiSpace(text[i])) compact.push_back(text[i]);
  }
  if (compact.size() == length) return false;
  return impl::Base64DecodeStrictWith(path, compact.data(), compact.size(), bytes, size);
}

bool Base64Decode(const char* begin, const char* end, std::string* out, Base64Mode mode) {
  size_t length = 0;
  if (begin != nullptr) {
    length = end == nullptr ? std::strlen(begin) : static_cast<size_t>(end - begin);
  }
  std::string bytes(Base64DecodedMaxSize(length), '\0');
  size_t size = 0;
  if (length != 0 && !Base64DecodeTo(begin, length, &bytes[0], &size, mode)) {
    out->clear();
    return false;
  }
  bytes.resize(size);
  out->swap(bytes);
  return true;
}

bool Base64Decode(const std::string& text, std::string* out, Base64Mode mode) {
  return Base64Decode(text.data(), text.data() + text.size(), out, mode);
}

}  // namespace utils
