// MD5 digests (through OpenSSL's EVP interface), as lowercase hex text.
// MD5 is broken for security; it is here for protocols that require it, such as
// HTTP digest authentication.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "noncopyable.h"

namespace utils {

// Hex digest of one buffer. Empty only when the crypto library refuses MD5
// (a FIPS-only configuration).
std::string Md5Hex(const void* data, size_t size);
std::string Md5Hex(const std::string& data);

// Incremental digest; one object per thread at a time.
class Md5 : private Noncopyable {
 public:
  Md5();
  ~Md5();

  void Update(const void* data, size_t size);
  void Update(const std::string& data) { Update(data.data(), data.size()); }

  // Hex digest of everything given since construction or the last Final(),
  // after which the object starts over. Empty when MD5 is unavailable.
  std::string Final();

 private:
  void Start();

  struct Context;
  std::unique_ptr<Context> context_;
  bool ok_ = false;
};

}  // namespace utils
