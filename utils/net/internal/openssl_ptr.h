// Owning pointers for the OpenSSL objects the transport creates, one alias per
// type, so that no early return can skip a *_free.
#pragma once

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <memory>

namespace utils {
namespace impl {

template <typename T, void (*Free)(T*)>
struct OpensslDeleter {
  void operator()(T* object) const { Free(object); }
};

inline void FreeBio(BIO* bio) { BIO_free(bio); }
inline void FreeX509InfoStack(STACK_OF(X509_INFO) * infos) {
  sk_X509_INFO_pop_free(infos, X509_INFO_free);
}
inline void FreeGeneralNames(GENERAL_NAMES* names) { GENERAL_NAMES_free(names); }

using SslCtxPtr = std::unique_ptr<SSL_CTX, OpensslDeleter<SSL_CTX, SSL_CTX_free>>;
using SslPtr = std::unique_ptr<SSL, OpensslDeleter<SSL, SSL_free>>;
using X509Ptr = std::unique_ptr<X509, OpensslDeleter<X509, X509_free>>;
using BioPtr = std::unique_ptr<BIO, OpensslDeleter<BIO, FreeBio>>;
using X509InfoStackPtr =
    std::unique_ptr<STACK_OF(X509_INFO), OpensslDeleter<STACK_OF(X509_INFO), FreeX509InfoStack>>;
using GeneralNamesPtr =
    std::unique_ptr<GENERAL_NAMES, OpensslDeleter<GENERAL_NAMES, FreeGeneralNames>>;

}  // namespace impl
}  // namespace utils
