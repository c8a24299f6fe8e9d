// Base64 decoding: every code path must agree with a deliberately naive
// reference on the verdict and the bytes, in both modes; the input's bytes
// must also survive an encode/decode round trip on every path.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "utils/base64.h"
#include "utils/internal/base64_codec.h"

namespace {

using utils::impl::Base64Path;

const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int ValueOf(char c) {
  if (c == '\0') return -1;
  const char* found = std::strchr(kAlphabet, c);
  return found == nullptr ? -1 : static_cast<int>(found - kAlphabet);
}

// Character by character: alphabet, then at most two '=' that complete the last
// group of four; a dangling single character fails.
bool ReferenceDecode(const std::string& text, std::string* out) {
  out->clear();
  size_t body = text.size();
  while (body > 0 && text[body - 1] == '=') --body;
  size_t padding = text.size() - body;
  if (padding > 2) return false;
  if (padding > 0 && (body + padding) % 4 != 0) return false;
  if (body % 4 == 1) return false;
  uint32_t bits = 0;
  int count = 0;
  for (size_t i = 0; i < body; ++i) {
    int value = ValueOf(text[i]);
    if (value < 0) return false;
    bits = bits << 6 | static_cast<uint32_t>(value);
    count += 6;
    if (count >= 8) {
      count -= 8;
      out->push_back(static_cast<char>((bits >> count) & 0xff));
    }
  }
  return true;
}

std::string ReferenceEncode(const uint8_t* data, size_t size) {
  std::string text;
  for (size_t i = 0; i < size; i += 3) {
    uint32_t group = uint32_t{data[i]} << 16;
    if (i + 1 < size) group |= uint32_t{data[i + 1]} << 8;
    if (i + 2 < size) group |= data[i + 2];
    text.push_back(kAlphabet[group >> 18]);
    text.push_back(kAlphabet[(group >> 12) & 63]);
    text.push_back(i + 1 < size ? kAlphabet[(group >> 6) & 63] : '=');
    text.push_back(i + 2 < size ? kAlphabet[group & 63] : '=');
  }
  return text;
}

bool IsSpace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  std::string expected;
  const bool expectedOk = ReferenceDecode(text, &expected);

  for (Base64Path path : {Base64Path::kScalar, Base64Path::kSsse3, Base64Path::kAvx2}) {
    if (!utils::impl::Base64PathAvailable(path)) continue;
    // Exactly the promised room, so a write past it shows under ASan.
    std::vector<uint8_t> out(utils::Base64DecodedMaxSize(size));
    size_t written = 0;
    bool ok = utils::impl::Base64DecodeStrictWith(path, text.data(), size, out.data(), &written);
    if (ok != expectedOk) std::abort();
    if (ok && (written != expected.size() ||
               (written > 0 && std::memcmp(out.data(), expected.data(), written) != 0))) {
      std::abort();
    }

    std::string encoded(utils::Base64EncodedSize(size), '\0');
    size_t length = utils::impl::Base64EncodeWith(path, data, size, &encoded[0]);
    if (length != encoded.size() || encoded != ReferenceEncode(data, size)) std::abort();
    std::vector<uint8_t> back(utils::Base64DecodedMaxSize(length));
    if (!utils::impl::Base64DecodeStrictWith(path, encoded.data(), length, back.data(),
                                             &written) ||
        written != size || (size > 0 && std::memcmp(back.data(), data, size) != 0)) {
      std::abort();
    }
  }

  std::string stripped;
  for (char c : text) {
    if (!IsSpace(c)) stripped.push_back(c);
  }
  std::string lenientExpected;
  const bool lenientExpectedOk = ReferenceDecode(stripped, &lenientExpected);
  std::string lenient;
  bool lenientOk = utils::Base64Decode(text, &lenient, utils::Base64Mode::kSkipWhitespace);
  if (lenientOk != lenientExpectedOk || (lenientOk && lenient != lenientExpected)) std::abort();
  return 0;
}
