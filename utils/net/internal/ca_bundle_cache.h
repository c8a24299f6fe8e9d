// Certificates of CA bundle files, parsed once per version of each file.
// Parsing PEM is the dearest step of a TLS set-up under OpenSSL 3 (hundreds
// of microseconds per certificate) while trust files rarely change; a file is
// parsed again when its identity, size or modification time changes.
// Thread-safe.
#pragma once

#include <openssl/x509.h>

#include <string>

namespace utils {
namespace impl {

// Adds every certificate and CRL of the PEM file at path to store, as
// SSL_CTX_load_verify_locations would. False when the file cannot be read or
// holds neither; the store may then hold part of the file.
bool AddCaBundleFile(const std::string& path, X509_STORE* store);

}  // namespace impl
}  // namespace utils
