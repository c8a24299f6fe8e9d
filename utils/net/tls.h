// TLS trust over OpenSSL: process-wide set-up, the CA policy driven by the
// environment ("CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
// "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"),
// certificates from PEM text, the server host-name check and the error-queue
// text. OpenSSL types are only forward declared here.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "../../zullog/zullog.h"

struct ssl_st;
struct ssl_ctx_st;
struct ssl_session_st;

namespace utils {
namespace tls {

// How the PEM text of CertSettings and the environment policy combine.
enum CertMode : unsigned int {
  CertModeEnvironmentThenMemory = 0,  // environment must succeed; then the PEM load decides
  CertModeMemoryThenEnvironment = 1,  // PEM must load; then the environment decides
  CertModeMemoryOnly = 2,
  CertModeEnvironmentOnly = 3,
};

struct CertSettings {
  CertSettings() = default;
  CertSettings(std::string pemText, unsigned int certMode)
      : pem(std::move(pemText)), mode(certMode) {}

  std::string pem;  // certificates and/or CRLs, any number, concatenated
  unsigned int mode = CertModeEnvironmentOnly;  // a CertMode; other values always fail
};

// A TLS session a later connection to the same server can resume, shared
// between holders. Null for none.
using SessionPtr = std::shared_ptr<ssl_session_st>;

}  // namespace tls

// Once per process; later calls do nothing. Call it before sockets are used
// from several threads.
void InitializeTlsLibrary();

// The environment CA policy. Suppression ("1" exactly) leaves the context as
// OpenSSL made it, without peer verification; otherwise one CA file or
// directory must load, and "1" in the strict variable rejects not-yet-valid
// certificates that are otherwise forgiven. A null logger means the "utils" logger.
bool ConfigureOpensslCaVerification(ssl_ctx_st* context, zullog::AbstractLogger* logger);
bool ConfigureOpensslCaVerification(ssl_ctx_st* context, zullog::AbstractLogger* logger,
                                    const tls::CertSettings& settings);

// Adds every certificate and CRL of the PEM text to the context's store.
// Returns how many were added; 0 (with an OpenSSL error queued) when none.
int SslCtxLoadPemCertsFromMem(ssl_ctx_st* context, const char* pem, size_t size);

// Checks the peer certificate's DNS alternative names, or its common name
// when it has no alternative-name extension, against host.
bool VerifyOpensslServerCertHostname(const ssl_st* connection, const char* host,
                                     zullog::AbstractLogger* logger);

// Case-insensitive; each '*' consumes the rest of one host label and never a
// dot, so "*.b.c" matches "a.b.c" but neither "x.a.b.c" nor "b.c". The logger
// is not used.
bool CertHostnameCompare(const char* pattern, const char* host, zullog::AbstractLogger* logger);

// OpenSSL's queued errors, one line each, joined by newlines. At most maxLines
// lines are taken (negative: all); lines taken leave the queue, and clear
// empties the rest too.
std::string GetErrorStackStr(int maxLines, bool clear);

}  // namespace utils
