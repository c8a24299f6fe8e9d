// The strict multi-byte check against a walk that derives each sequence's
// length from the count of leading one bits of its lead byte.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "utils/strings.h"

namespace {

int LeadingOnes(unsigned char byte) {
  int count = 0;
  while (count < 8 && (byte & (0x80 >> count)) != 0) ++count;
  return count;
}

// Offset where the walk fails, or `length` when it reaches the end.
size_t ReferenceWalk(const unsigned char* text, size_t length) {
  size_t at = 0;
  while (at < length) {
    int ones = LeadingOnes(text[at]);
    if (ones < 2 || ones > 6) return at;
    size_t need = static_cast<size_t>(ones);
    if (length - at < need) return at;
    for (size_t i = 1; i < need; ++i) {
      if ((text[at + i] & 0xC0) != 0x80) return at;
    }
    at += need;
  }
  return length;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // Exactly sized and terminated, so a read past the NUL is caught by ASan.
  std::unique_ptr<char[]> text(new char[size + 1]);
  if (size != 0) std::memcpy(text.get(), data, size);
  text[size] = '\0';
  size_t length = std::strlen(text.get());

  const size_t kUntouched = static_cast<size_t>(-1);
  size_t offset = kUntouched;
  bool ok = utils::CheckUtf8String(text.get(), &offset);
  size_t want = ReferenceWalk(reinterpret_cast<const unsigned char*>(text.get()), length);
  if (ok != (want == length)) __builtin_trap();
  if (offset != (ok ? kUntouched : want)) __builtin_trap();
  if (utils::CheckUtf8String(text.get(), nullptr) != ok) __builtin_trap();
  return 0;
}
