#include "utils/net/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/support/certs.h"
#include "net/support/log_capture.h"
#include "net/support/peers.h"
#include "utils/env.h"

namespace {

TEST(CertHostnameCompare, WildcardTakesTheRestOfOneLabel) {
  struct Case {
    const char* pattern;
    const char* host;
    bool match;
  };
  const Case cases[] = {
      {"*.b.c", "a.b.c", true},
      {"*.b.c", "A.B.C", true},
      {"*.b.c", "x.a.b.c", false},
      {"*.b.c", "b.c", false},
      {"*.b.c", ".b.c", true},  // the star may take nothing
      {"f*.b.c", "foo.b.c", true},
      {"f*.b.c", "bar.b.c", false},
      {"*oo.b.c", "foo.b.c", false},  // the star has taken "foo" already
      {"*.*.c", "a.b.c", true},
      {"*", "localhost", true},
      {"*", "a.b", false},
      {"*.b.c", "a.b.c.", false},
      {"example.com", "EXAMPLE.com", true},
      {"example.com", "example.co", false},
      {"example.co", "example.com", false},
      {"", "", true},
      {"", "a", false},
      {"10.0.0.*", "10.0.0.7", true},  // no special rule for addresses
  };
  for (const Case& c : cases) {
    EXPECT_EQ(utils::CertHostnameCompare(c.pattern, c.host, nullptr), c.match)
        << c.pattern << " vs " << c.host;
  }
  EXPECT_FALSE(utils::CertHostnameCompare(nullptr, "a", nullptr));
  EXPECT_FALSE(utils::CertHostnameCompare("a", nullptr, nullptr));
}

using SslCtxPtr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

SslCtxPtr NewContext() { return SslCtxPtr(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free); }

// Every test starts from an environment without TLS variables.
void ClearCaEnvironment() {
  for (const char* name :
       {"CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
        "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"}) {
    utils::UnsetEnv(name);
  }
}

class TlsPem : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_ = new nettest::TempDir();
    nettest::CertFactory factory(directory_->Path());
    const nettest::KeyPair ca = factory.CreateCa("ca");
    const nettest::KeyPair other = factory.CreateCa("other");
    caPem_ = new std::string(nettest::ReadFile(ca.certificate));
    bundle_ = new std::string(*caPem_ + nettest::ReadFile(other.certificate) +
                              nettest::ReadFile(factory.CreateCrl("ca", ca)));
  }
  static void TearDownTestSuite() {
    delete bundle_;
    delete caPem_;
    delete directory_;
  }
  void SetUp() override { ClearCaEnvironment(); }

  static nettest::TempDir* directory_;
  static std::string* caPem_;
  static std::string* bundle_;
};

nettest::TempDir* TlsPem::directory_ = nullptr;
std::string* TlsPem::caPem_ = nullptr;
std::string* TlsPem::bundle_ = nullptr;

TEST_F(TlsPem, CountsEveryCertificateAndCrlAndQueuesAnErrorForNone) {
  auto context = NewContext();
  EXPECT_EQ(utils::SslCtxLoadPemCertsFromMem(context.get(), bundle_->data(), bundle_->size()), 3);
  // Loading the same again adds nothing new but is no failure either.
  EXPECT_EQ(utils::SslCtxLoadPemCertsFromMem(context.get(), caPem_->data(), caPem_->size()), 1);

  ERR_clear_error();
  const std::string text = "no certificates here";
  EXPECT_EQ(utils::SslCtxLoadPemCertsFromMem(context.get(), text.data(), text.size()), 0);
  EXPECT_NE(ERR_peek_error(), 0u);
  ERR_clear_error();

  // A PEM block whose body is not base64 fails as a whole.
  const std::string broken = "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n";
  EXPECT_EQ(utils::SslCtxLoadPemCertsFromMem(context.get(), broken.data(), broken.size()), 0);
  EXPECT_NE(utils::GetErrorStackStr(-1, true), "");
  // The settings-level loader reports the count, or that nothing was found.
  nettest::LogCapture log;
  const utils::tls::CertSettings good(*bundle_, utils::tls::CertModeMemoryOnly);
  EXPECT_TRUE(utils::ConfigureOpensslCaVerification(context.get(), nullptr, good));
  EXPECT_TRUE(log.Has("<utils::openssl> Loaded 3 certs from the memory buffer"));
  const utils::tls::CertSettings empty("", utils::tls::CertModeMemoryOnly);
  EXPECT_FALSE(utils::ConfigureOpensslCaVerification(context.get(), nullptr, empty));
  EXPECT_TRUE(log.Has("<utils::openssl> No pem certs were found in the memory buffer"));
  ERR_clear_error();

  // Only the first size bytes count.
  EXPECT_EQ(utils::SslCtxLoadPemCertsFromMem(context.get(), caPem_->data(), caPem_->size() / 2), 0);
  ERR_clear_error();
}

TEST_F(TlsPem, EnvironmentPolicyNeedsALocationUnlessSuppressedByExactlyOne) {
  nettest::LogCapture log;
  auto configure = [] {
    auto context = NewContext();
    const bool ok = utils::ConfigureOpensslCaVerification(context.get(), nullptr);
    return std::make_pair(ok, SSL_CTX_get_verify_mode(context.get()));
  };
  EXPECT_FALSE(configure().first);
  EXPECT_TRUE(
      log.Has("<utils::openssl> Failed to locate CA bundle! SSL connection is not allowed!"));

  for (const char* notOne : {"true", "yes", "01", " 1"}) {
    utils::SetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", notOne);
    EXPECT_FALSE(configure().first) << notOne;
  }
  utils::SetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "1");
  const auto suppressed = configure();
  EXPECT_TRUE(suppressed.first);
  EXPECT_EQ(suppressed.second, SSL_VERIFY_NONE);
  EXPECT_TRUE(log.Has("<utils::openssl> CA verification is suppressed!"));
  utils::UnsetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION");

  const std::string missing = directory_->File("missing.pem");
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", missing);
  EXPECT_FALSE(configure().first);
  EXPECT_TRUE(log.Has("<utils::openssl> Failed to load CA bundle: " + missing));
  ERR_clear_error();

  // The file wins over the directory when both are set.
  utils::SetEnv("CORVANE_OPENSSL_CA_PATH", directory_->Path());
  EXPECT_FALSE(configure().first);
  ERR_clear_error();
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", directory_->File("ca.pem"));
  const auto loaded = configure();
  EXPECT_TRUE(loaded.first);
  EXPECT_EQ(loaded.second, SSL_VERIFY_PEER);
  EXPECT_TRUE(log.Has("<utils::openssl> CA bundles have been successfully loaded: " +
                      directory_->File("ca.pem")));
}

TEST(TlsErrors, ErrorStackTextTakesAtMostTheAskedLines) {
  ERR_clear_error();
  for (int reason = 1; reason <= 3; ++reason) {
    ERR_put_error(ERR_LIB_SSL, 0, reason, __FILE__, __LINE__);
  }
  const std::string first = utils::GetErrorStackStr(1, false);
  EXPECT_FALSE(first.empty());
  EXPECT_EQ(first.find('\n'), std::string::npos);
  const std::string rest = utils::GetErrorStackStr(-1, false);
  EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 1);  // two lines left
  EXPECT_EQ(ERR_peek_error(), 0u);

  ERR_put_error(ERR_LIB_SSL, 0, 1, __FILE__, __LINE__);
  ERR_put_error(ERR_LIB_SSL, 0, 2, __FILE__, __LINE__);
  utils::GetErrorStackStr(1, true);
  EXPECT_EQ(ERR_peek_error(), 0u) << "clear empties what was not taken";
}

TEST(TlsLibrary, InitializesOnce) {
  nettest::LogCapture log;
  utils::InitializeTlsLibrary();
  utils::InitializeTlsLibrary();
  const auto lines = log.Lines();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "<utils::openssl> Initializing OpenSSL library"),
            1);
}

}  // namespace
