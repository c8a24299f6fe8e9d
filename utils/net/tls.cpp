#include "utils/net/tls.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <cctype>
#include <climits>
#include <cstring>

#include "utils/env.h"
#include "utils/log.h"
#include "utils/net/internal/ca_bundle_cache.h"
#include "utils/net/internal/openssl_ptr.h"

namespace utils {

namespace {

constexpr const char* kModule = "utils::openssl";

// The function code OpenSSL 1.1 recorded for loading certificates from a BIO,
// so that errors pushed here read like the library's own. OpenSSL 3 drops
// function codes, hence maybe_unused.
[[maybe_unused]] constexpr int kLoadCertsFunctionCode = 124;

const char* const kCaFileVariable = "CORVANE_OPENSSL_CA_FILE";
const char* const kCaPathVariable = "CORVANE_OPENSSL_CA_PATH";
const char* const kSuppressVariable = "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION";
const char* const kStrictVariable = "CORVANE_OPENSSL_STRICT_CA_VERIFICATION";

// Only the exact text "1" switches a flag variable on; "true" or "yes" do not.
bool FlagVariableSet(const char* name) {
  std::string value;
  return GetEnv(name, &value) && value == "1";
}

void PushLoadError(int reason) {
  ERR_put_error(ERR_LIB_X509, kLoadCertsFunctionCode, reason, __FILE__, __LINE__);
}

// OpenSSL calls verification callbacks without user data, so the logger cannot
// travel with them: the logging variants write to the default "utils" logger
// and are installed only when that is the configured logger.
int VerifyCallback(int preverified, X509_STORE_CTX* store, bool lenient, bool log) {
  if (preverified == 1) return 1;
  const int error = X509_STORE_CTX_get_error(store);
  zullog::AbstractLogger* logger = zul_log_logger__utils();
  if (lenient && error == X509_V_ERR_CERT_NOT_YET_VALID) {
    // Devices with a clock behind the server's must still connect. Logged at
    // error severity on purpose, like a rejection.
    X509_STORE_CTX_set_error(store, X509_V_OK);
    if (log) {
      CORVANE_LOG(logger, zullog::SeverityError, kModule)
          << "Allowing 'not yet valid' server certificate";
    }
    return 1;
  }
  if (log) {
    CORVANE_LOG(logger, zullog::SeverityError, kModule)
        << "Server certificate verification error: " << X509_verify_cert_error_string(error);
  }
  return 0;
}

int VerifyStrictLogging(int preverified, X509_STORE_CTX* store) {
  return VerifyCallback(preverified, store, false, true);
}
int VerifyStrictQuiet(int preverified, X509_STORE_CTX* store) {
  return VerifyCallback(preverified, store, false, false);
}
int VerifyLenientLogging(int preverified, X509_STORE_CTX* store) {
  return VerifyCallback(preverified, store, true, true);
}
int VerifyLenientQuiet(int preverified, X509_STORE_CTX* store) {
  return VerifyCallback(preverified, store, true, false);
}

void SetPeerVerification(SSL_CTX* context, zullog::AbstractLogger* logger) {
  const bool strict = FlagVariableSet(kStrictVariable);
  const bool log = logger == zul_log_logger__utils();
  SSL_verify_cb callback;
  if (strict) {
    callback = log ? VerifyStrictLogging : VerifyStrictQuiet;
  } else {
    callback = log ? VerifyLenientLogging : VerifyLenientQuiet;
  }
  SSL_CTX_set_verify(context, SSL_VERIFY_PEER, callback);
}

enum class EnvironmentPolicy { kFailed, kSuppressed, kLoaded };

EnvironmentPolicy ApplyEnvironmentPolicy(SSL_CTX* context, zullog::AbstractLogger* logger) {
  std::string caFile;
  std::string caPath;
  GetEnv(kCaFileVariable, &caFile);
  GetEnv(kCaPathVariable, &caPath);
  if (FlagVariableSet(kSuppressVariable)) {
    CORVANE_LOG(logger, zullog::SeverityWarning, kModule) << "CA verification is suppressed!";
    return EnvironmentPolicy::kSuppressed;
  }
  // Deliberately no built-in default locations: trust is whatever the
  // environment names, or nothing.
  const std::string* location;
  int loaded;
  if (!caFile.empty()) {
    location = &caFile;
    // What SSL_CTX_load_verify_locations(context, file, null) does, without
    // parsing the same file again for every connection.
    loaded = impl::AddCaBundleFile(caFile, SSL_CTX_get_cert_store(context)) ? 1 : 0;
  } else if (!caPath.empty()) {
    location = &caPath;
    loaded = SSL_CTX_load_verify_locations(context, nullptr, caPath.c_str());
  } else {
    CORVANE_LOG(logger, zullog::SeverityError, kModule)
        << "Failed to locate CA bundle! SSL connection is not allowed!";
    return EnvironmentPolicy::kFailed;
  }
  if (loaded != 1) {
    CORVANE_LOG(logger, zullog::SeverityError, kModule)
        << "Failed to load CA bundle: " << *location;
    return EnvironmentPolicy::kFailed;
  }
  CORVANE_LOG(logger, zullog::SeverityInfo, kModule)
      << "CA bundles have been successfully loaded: " << *location;
  SetPeerVerification(context, logger);
  return EnvironmentPolicy::kLoaded;
}

bool LoadPemSettings(SSL_CTX* context, zullog::AbstractLogger* logger, const std::string& pem) {
  const int count = SslCtxLoadPemCertsFromMem(context, pem.data(), pem.size());
  if (count == 0) {
    CORVANE_LOG(logger, zullog::SeverityError, kModule)
        << "No pem certs were found in the memory buffer";
    return false;
  }
  CORVANE_LOG(logger, zullog::SeverityInfo, kModule)
      << "Loaded " << count << " certs from the memory buffer";
  return true;
}

bool NameHasEmbeddedNul(const ASN1_STRING* name) {
  const char* data = reinterpret_cast<const char*>(ASN1_STRING_get0_data(name));
  return static_cast<size_t>(ASN1_STRING_length(name)) != std::strlen(data);
}

// The DNS alternative names decide alone when the extension is present.
bool MatchAlternativeNames(const GENERAL_NAMES* names, const char* host) {
  for (int i = 0; i < sk_GENERAL_NAME_num(names); ++i) {
    const GENERAL_NAME* name = sk_GENERAL_NAME_value(names, i);
    if (name->type != GEN_DNS) continue;
    // A NUL inside a name could make "good.com\0.evil.com" pass as good.com.
    if (NameHasEmbeddedNul(name->d.dNSName)) return false;
    const char* dns = reinterpret_cast<const char*>(ASN1_STRING_get0_data(name->d.dNSName));
    if (CertHostnameCompare(dns, host, nullptr)) return true;
  }
  return false;
}

bool MatchCommonName(X509* certificate, const char* host) {
  X509_NAME* subject = X509_get_subject_name(certificate);
  const int index = X509_NAME_get_index_by_NID(subject, NID_commonName, -1);
  if (index < 0) return false;
  const ASN1_STRING* data = X509_NAME_ENTRY_get_data(X509_NAME_get_entry(subject, index));
  if (data == nullptr || ASN1_STRING_length(data) <= 0 || NameHasEmbeddedNul(data)) return false;
  return CertHostnameCompare(reinterpret_cast<const char*>(ASN1_STRING_get0_data(data)), host,
                             nullptr);
}

bool MatchCertificate(X509* certificate, const char* host) {
  if (host == nullptr) return false;
  int found = -1;
  impl::GeneralNamesPtr names(static_cast<GENERAL_NAMES*>(
      X509_get_ext_d2i(certificate, NID_subject_alt_name, &found, nullptr)));
  if (names != nullptr) return MatchAlternativeNames(names.get(), host);
  // -1: no extension. Anything else is an extension that did not decode (or
  // came twice), which must not fall back to the common name.
  if (found != -1) return false;
  return MatchCommonName(certificate, host);
}

struct ErrorLines {
  std::string text;
  int left;
};

int AppendErrorLine(const char* line, size_t length, void* user) {
  auto* lines = static_cast<ErrorLines*>(user);
  while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\r')) --length;
  if (!lines->text.empty()) lines->text += '\n';
  lines->text.append(line, length);
  // Returning 0 stops the printer and leaves the remaining errors queued.
  return (lines->left > 0 && --lines->left == 0) ? 0 : 1;
}

}  // namespace

void InitializeTlsLibrary() {
  static std::atomic<bool> initialized{false};
  if (initialized.exchange(true)) return;
  CORVANE_LOG(UtilsLogger(), zullog::SeverityInfo, kModule) << "Initializing OpenSSL library";
  OPENSSL_init_ssl(0, nullptr);
}

bool ConfigureOpensslCaVerification(SSL_CTX* context, zullog::AbstractLogger* logger) {
  return ApplyEnvironmentPolicy(context, UtilsLogger(logger)) != EnvironmentPolicy::kFailed;
}

// Certificates from memory turn peer verification on as the environment's CA
// bundle does; a suppressing environment still wins in the combined modes.
bool ConfigureOpensslCaVerification(SSL_CTX* context, zullog::AbstractLogger* logger,
                                    const tls::CertSettings& settings) {
  logger = UtilsLogger(logger);
  switch (settings.mode) {
    case tls::CertModeEnvironmentThenMemory:
      return ApplyEnvironmentPolicy(context, logger) != EnvironmentPolicy::kFailed &&
             LoadPemSettings(context, logger, settings.pem);
    case tls::CertModeMemoryThenEnvironment:
      return LoadPemSettings(context, logger, settings.pem) &&
             ApplyEnvironmentPolicy(context, logger) != EnvironmentPolicy::kFailed;
    case tls::CertModeMemoryOnly:
      if (!LoadPemSettings(context, logger, settings.pem)) return false;
      SetPeerVerification(context, logger);
      return true;
    case tls::CertModeEnvironmentOnly:
      return ApplyEnvironmentPolicy(context, logger) != EnvironmentPolicy::kFailed;
    default:
      CORVANE_LOG(logger, zullog::SeverityError, kModule)
          << "Unknown certificate mode: " << settings.mode;
      return false;
  }
}

int SslCtxLoadPemCertsFromMem(SSL_CTX* context, const char* pem, size_t size) {
  impl::BioPtr bio;
  if (size <= static_cast<size_t>(INT_MAX)) bio.reset(BIO_new_mem_buf(pem, static_cast<int>(size)));
  if (bio == nullptr) {
    PushLoadError(ERR_R_SYS_LIB);
    return 0;
  }
  impl::X509InfoStackPtr items(PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
  if (items == nullptr) {
    PushLoadError(ERR_R_PEM_LIB);
    return 0;
  }
  X509_STORE* store = SSL_CTX_get_cert_store(context);
  int added = 0;
  for (int i = 0; i < sk_X509_INFO_num(items.get()); ++i) {
    const X509_INFO* item = sk_X509_INFO_value(items.get(), i);
    if (item->x509 != nullptr) {
      if (X509_STORE_add_cert(store, item->x509) != 1) return added;
      ++added;
    }
    if (item->crl != nullptr) {
      if (X509_STORE_add_crl(store, item->crl) != 1) return added;
      ++added;
    }
  }
  if (added == 0) PushLoadError(X509_R_NO_CERTIFICATE_OR_CRL_FOUND);
  return added;
}

bool VerifyOpensslServerCertHostname(const SSL* connection, const char* host,
                                     zullog::AbstractLogger* logger) {
  logger = UtilsLogger(logger);
  impl::X509Ptr certificate(SSL_get_peer_certificate(connection));
  if (certificate == nullptr) {
    CORVANE_LOG(logger, zullog::SeverityError, kModule) << "Server certificate is not availabe!";
    return false;
  }
  if (MatchCertificate(certificate.get(), host)) return true;
  CORVANE_LOG(logger, zullog::SeverityError, kModule)
      << "Failed to verify server hostname: " << (host != nullptr ? host : "");
  return false;
}

bool CertHostnameCompare(const char* pattern, const char* host, zullog::AbstractLogger*) {
  if (pattern == nullptr || host == nullptr) return false;
  while (*pattern != '\0') {
    if (*pattern == '*') {
      // The star takes the rest of the host's label, never the dot: text after
      // it in the same label can therefore never match.
      while (*host != '\0' && *host != '.') ++host;
      ++pattern;
      continue;
    }
    if (*host == '\0') return false;
    if (std::tolower(static_cast<unsigned char>(*pattern)) !=
        std::tolower(static_cast<unsigned char>(*host))) {
      return false;
    }
    ++pattern;
    ++host;
  }
  return *host == '\0';
}

std::string GetErrorStackStr(int maxLines, bool clear) {
  ErrorLines lines{std::string(), maxLines};
  if (maxLines != 0) ERR_print_errors_cb(AppendErrorLine, &lines);
  if (clear) ERR_clear_error();
  return lines.text;
}

}  // namespace utils
