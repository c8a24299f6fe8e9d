#include "utils/md5.h"

#include <openssl/evp.h>

namespace utils {

struct Md5::Context {
  struct Free {
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
  };
  std::unique_ptr<EVP_MD_CTX, Free> evp{EVP_MD_CTX_new()};
};

Md5::Md5() : context_(std::make_unique<Context>()) { Start(); }

Md5::~Md5() = default;

void Md5::Start() {
  ok_ = context_->evp != nullptr &&
        EVP_DigestInit_ex(context_->evp.get(), EVP_md5(), nullptr) == 1;
}

void Md5::Update(const void* data, size_t size) {
  if (ok_ && size > 0) ok_ = EVP_DigestUpdate(context_->evp.get(), data, size) == 1;
}

std::string Md5::Final() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  bool done = ok_ && EVP_DigestFinal_ex(context_->evp.get(), digest, &length) == 1;
  Start();
  if (!done) return std::string();
  static const char kHex[] = "0123456789abcdef";
  std::string hex(length * 2, '\0');
  for (unsigned int i = 0; i < length; ++i) {
    hex[2 * i] = kHex[digest[i] >> 4];
    hex[2 * i + 1] = kHex[digest[i] & 0x0f];
  }
  return hex;
}

std::string Md5Hex(const void* data, size_t size) {
  Md5 md5;
  md5.Update(data, size);
  return md5.Final();
}

std::string Md5Hex(const std::string& data) { return Md5Hex(data.data(), data.size()); }

}  // namespace utils
