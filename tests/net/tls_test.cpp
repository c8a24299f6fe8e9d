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
#include "net/test_helpers.h"
#include "utils/env.h"

namespace {

TEST(CertHostnameCompare, WildcardTakesTheRestOfOneLabel) {
  const struct {
    const char* pattern;
    const char* host;
    bool match;
  } cases[] = {
      {"*.b.c", "a.b.c", true},
      {"*.b.c", "A.B.C", true},
      {"*.b.c", ".b.c", true},  // the star may take nothing
      {"*.b.c", "x.a.b.c", false},
      {"*.b.c", "b.c", false},
      {"*.b.c", "a.b.c.", false},
      {"f*.b.c", "foo.b.c", true},
      {"f*.b.c", "bar.b.c", false},
      {"*oo.b.c", "foo.b.c", false},  // the star has taken "foo" already
      {"*.*.c", "a.b.c", true},
      {"*", "localhost", true},
      {"*", "a.b", false},
      {"example.com", "EXAMPLE.com", true},
      {"example.com", "example.co", false},
      {"example.co", "example.com", false},
      {"", "", true},
      {"", "a", false},
      {"10.0.0.*", "10.0.0.7", true},  // no special rule for addresses
  };
  for (const auto& c : cases) {
    EXPECT_EQ(utils::CertHostnameCompare(c.pattern, c.host, nullptr), c.match)
        << c.pattern << " vs " << c.host;
  }
  EXPECT_FALSE(utils::CertHostnameCompare(nullptr, "a", nullptr));
  EXPECT_FALSE(utils::CertHostnameCompare("a", nullptr, nullptr));
}

using SslCtxPtr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

SslCtxPtr NewContext() { return SslCtxPtr(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free); }

// Two authorities (the first also written as ca.pem) and a CRL of the first.
struct Pems {
  Pems() {
    nettest::CertFactory factory(directory.Path());
    const nettest::KeyPair ca = factory.CreateCa("ca");
    caPem = nettest::ReadFile(ca.certificate);
    bundle = caPem + nettest::ReadFile(factory.CreateCa("other").certificate) +
             nettest::ReadFile(factory.CreateCrl("ca", ca));
  }
  nettest::TempDir directory;
  std::string caPem;
  std::string bundle;
};

class TlsPem : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { pems_.reset(new Pems()); }
  static void TearDownTestSuite() { pems_.reset(); }
  void SetUp() override { nettest::ClearTlsEnvironment(); }

  static int Load(SSL_CTX* context, const std::string& text, size_t size = std::string::npos) {
    return utils::SslCtxLoadPemCertsFromMem(context, text.data(), std::min(size, text.size()));
  }

  static std::unique_ptr<Pems> pems_;
};

std::unique_ptr<Pems> TlsPem::pems_;

TEST_F(TlsPem, CountsEveryCertificateAndCrlAndQueuesAnErrorForNone) {
  auto context = NewContext();
  EXPECT_EQ(Load(context.get(), pems_->bundle), 3);
  // Loading the same again adds nothing new but is no failure either.
  EXPECT_EQ(Load(context.get(), pems_->caPem), 1);

  ERR_clear_error();
  EXPECT_EQ(Load(context.get(), "no certificates here"), 0);
  EXPECT_NE(ERR_peek_error(), 0u);
  ERR_clear_error();
  // A PEM block whose body is not base64 fails as a whole.
  EXPECT_EQ(Load(context.get(), "-----BEGIN CERTIFICATE-----\n!!!!\n-----END CERTIFICATE-----\n"),
            0);
  EXPECT_NE(utils::GetErrorStackStr(-1, true), "");
  // Only the first size bytes count.
  EXPECT_EQ(Load(context.get(), pems_->caPem, pems_->caPem.size() / 2), 0);
  ERR_clear_error();

  // The settings-level loader reports the count, or that nothing was found.
  nettest::LogCapture log;
  const utils::tls::CertSettings good(pems_->bundle, utils::tls::CertModeMemoryOnly);
  EXPECT_TRUE(utils::ConfigureOpensslCaVerification(context.get(), nullptr, good));
  EXPECT_TRUE(log.Has("<utils::openssl> Loaded 3 certs from the memory buffer"));
  const utils::tls::CertSettings empty("", utils::tls::CertModeMemoryOnly);
  EXPECT_FALSE(utils::ConfigureOpensslCaVerification(context.get(), nullptr, empty));
  EXPECT_TRUE(log.Has("<utils::openssl> No pem certs were found in the memory buffer"));
  ERR_clear_error();
}

TEST_F(TlsPem, EnvironmentPolicyNeedsALocationUnlessSuppressedByExactlyOne) {
  nettest::LogCapture log;
  auto configure = [] {
    auto context = NewContext();
    const bool ok = utils::ConfigureOpensslCaVerification(context.get(), nullptr);
    ERR_clear_error();
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
  EXPECT_EQ(configure(), std::make_pair(true, SSL_VERIFY_NONE));
  EXPECT_TRUE(log.Has("<utils::openssl> CA verification is suppressed!"));
  utils::UnsetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION");

  const std::string missing = pems_->directory.File("missing.pem");
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", missing);
  EXPECT_FALSE(configure().first);
  EXPECT_TRUE(log.Has("<utils::openssl> Failed to load CA bundle: " + missing));
  // The file wins over the directory when both are set.
  utils::SetEnv("CORVANE_OPENSSL_CA_PATH", pems_->directory.Path());
  EXPECT_FALSE(configure().first);
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", pems_->directory.File("ca.pem"));
  EXPECT_EQ(configure(), std::make_pair(true, SSL_VERIFY_PEER));
  EXPECT_TRUE(log.Has("<utils::openssl> CA bundles have been successfully loaded: " +
                      pems_->directory.File("ca.pem")));
}

TEST(TlsErrors, ErrorStackTextTakesAtMostTheAskedLines) {
  ERR_clear_error();
  for (int reason = 1; reason <= 3; ++reason) ERR_put_error(ERR_LIB_SSL, 0, reason, __FILE__, 1);
  const std::string first = utils::GetErrorStackStr(1, false);
  EXPECT_FALSE(first.empty());
  EXPECT_EQ(first.find('\n'), std::string::npos);
  const std::string rest = utils::GetErrorStackStr(-1, false);
  EXPECT_EQ(std::count(rest.begin(), rest.end(), '\n'), 1);  // two lines left
  EXPECT_EQ(ERR_peek_error(), 0u);

  ERR_put_error(ERR_LIB_SSL, 0, 1, __FILE__, 1);
  ERR_put_error(ERR_LIB_SSL, 0, 2, __FILE__, 1);
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
