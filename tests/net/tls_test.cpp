// TLS: certificate name matching, trust loading and client sessions against
// nginx, with certificates made by the openssl CLI for each way verification
// can go.
#include "utils/net/tls.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/certs.h"
#include "net/support/peers.h"
#include "net/test_helpers.h"
#include "utils/env.h"
#include "utils/net/base_socket_client.h"

namespace {

using nettest::Client;
TEST(CertHostnameCompare, WildcardTakesTheRestOfOneLabel) {
  const struct {
    const char* pattern;
    const char* host;
    bool match;
  } cases[] = {
      {"*.b.c", "a.b.c", true},
      {"*.b.c", ".b.c", true},  // the star may take nothing
      {"*.b.c", "x.a.b.c", false},
      {"*.b.c", "b.c", false},
      {"f*.b.c", "foo.b.c", true},
      {"*oo.b.c", "foo.b.c", false},  // the star has taken "foo" already
      {"*", "a.b", false},
      {"example.com", "EXAMPLE.com", true},
      {"example.com", "example.co", false},
      {"", "a", false},
      {"10.0.0.*", "10.0.0.7", true},  // no special rule for addresses
  };
  for (const auto& c : cases) {
    EXPECT_EQ(utils::CertHostnameCompare(c.pattern, c.host, nullptr), c.match) << c.pattern << " vs " << c.host;
  }
  EXPECT_FALSE(utils::CertHostnameCompare(nullptr, "a", nullptr));
}

const char* const kShortForm = "(short form)";

enum Server { kGood, kUnknownCa, kExpired, kNotYetValid, kWrongHost, kWildcard, kIpOnly, kCnOnly };

// Two authorities (ca, other) and a revocation list of the first; one nginx
// with a server block per certificate (in Server order); a hashed CA
// directory holding only the trusted authority.
class SecureSession : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_.reset(new nettest::TempDir());
    nettest::CertFactory factory(directory_->Path());
    const nettest::KeyPair ca = factory.CreateCa("ca"), other = factory.CreateCa("other");
    factory.CreateCrl("ca", ca);
    const long day = 86400;
    std::vector<nettest::Nginx::Server> servers;
    for (const auto& leaf : {
             factory.Issue("good", ca, "localhost", "DNS:localhost,IP:127.0.0.1"),
             factory.Issue("unknown", other, "localhost", "DNS:localhost"),
             factory.Issue("expired", ca, "localhost", "DNS:localhost", nettest::CertTime(-10 * day),
                           nettest::CertTime(-day)),
             factory.Issue("future", ca, "localhost", "DNS:localhost", nettest::CertTime(day),
                           nettest::CertTime(30 * day)),
             factory.Issue("wrong", ca, "other.test", "DNS:other.test"),
             factory.Issue("wildcard", ca, "wildcard", "DNS:*.wild.test"),
             factory.Issue("iponly", ca, "localhost", "IP:127.0.0.1"),
             factory.Issue("cnonly", ca, "localhost", ""),
         }) {
      servers.push_back({0, leaf.certificate, leaf.key, ""});
    }
    nginx_.reset(new nettest::Nginx(directory_->Path(), servers));
    std::filesystem::create_directories(File("cadir"));
    nettest::WriteFile(File("cadir/ca.pem"), Pem("ca"));
    nettest::RunCommand({"openssl", "rehash", File("cadir")}, File("log"));
  }
  static void TearDownTestSuite() {
    nginx_.reset();
    directory_.reset();
  }
  void SetUp() override { nettest::ClearTlsEnvironment(); }

  static std::string File(const std::string& name) { return directory_->File(name); }
  static std::string Pem(const std::string& name) { return nettest::ReadFile(File(name + ".pem")); }

  // Handshake, then one HTTP/1.0 request that must get nginx's "ok". kShortForm
  // connects to "localhost" and leaves host and trust to the short form. One
  // client serves every fetch: Close must leave nothing of a session behind.
  static Client::Error_t Fetch(Server server, const char* host, unsigned flags = 0,
                               const utils::tls::CertSettings& settings = {}) {
    static Client client;
    const bool shortForm = host == kShortForm;
    const std::string port = std::to_string(nginx_->Port(server));
    Client::Error_t result = client.Connect(shortForm ? "localhost" : "127.0.0.1", port, 5000);
    if (result == Client::ErrorNone) {
      result =
          shortForm ? client.InitiateSecureSession(5000) : client.InitiateSecureSession(host, 5000, flags, settings);
    }
    const std::string request = "GET / HTTP/1.0\r\nHost: localhost\r\n\r\n";
    std::string answer(4096, '\0');
    size_t received = 0;
    if (result == Client::ErrorNone) result = utils::SendAll(&client, request.data(), request.size(), nullptr, 5000);
    if (result == Client::ErrorNone) result = utils::RecvAll(&client, &answer[0], answer.size(), &received, 5000);
    if (result == Client::ErrorEndOfStream) {
      result = Client::ErrorNone;
      EXPECT_EQ(answer.substr(0, received).substr(answer.find("\r\n\r\n") + 4), "ok\n");
    }
    client.Close();
    return result;
  }

  static int Load(SSL_CTX* context, const std::string& text, size_t size = std::string::npos) {
    return utils::SslCtxLoadPemCertsFromMem(context, text.data(), std::min(size, text.size()));
  }

  static std::unique_ptr<nettest::TempDir> directory_;
  static std::unique_ptr<nettest::Nginx> nginx_;
};

std::unique_ptr<nettest::TempDir> SecureSession::directory_;
std::unique_ptr<nettest::Nginx> SecureSession::nginx_;

TEST_F(SecureSession, CountsEveryCertificateAndCrlAndQueuesAnErrorForNone) {
  const std::string bundle = Pem("ca") + Pem("other") + Pem("ca.crl");
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
  EXPECT_EQ(Load(context.get(), bundle), 3);
  // Loading the same again adds nothing new but is no failure either.
  EXPECT_EQ(Load(context.get(), Pem("ca")), 1);

  ERR_clear_error();
  EXPECT_EQ(Load(context.get(), "no certificates here"), 0);
  EXPECT_NE(ERR_peek_error(), 0u);
  ERR_clear_error();
  // Only the first size bytes count.
  EXPECT_EQ(Load(context.get(), Pem("ca"), Pem("ca").size() / 2), 0);
  ERR_clear_error();
}

// Trust settings from the environment, in the order of kTlsVariables and
// unset when null; the first two name files of the fixture.
struct Trust {
  const char* caFile = nullptr;
  const char* caPath = nullptr;
  const char* suppress = nullptr;
  const char* strict = nullptr;
};

TEST_F(SecureSession, VerificationFollowsTrustChainDatesAndNames) {
  using namespace utils::tls;
  const Client::Error_t ok = Client::ErrorNone, failed = Client::ErrorFailed;
  const Trust none{}, ca{"ca.pem"}, caDir{nullptr, "cadir"}, suppressed{nullptr, nullptr, "1"},
      strict{"ca.pem", nullptr, nullptr, "1"}, strictYes{"ca.pem", nullptr, nullptr, "yes"}, other{"other.pem"},
      otherSuppressed{"other.pem", nullptr, "1"};
  const unsigned noVerify = utils::kSecureSessionNoVerify;
  const struct {
    Trust trust;
    Server server;
    const char* host;
    Client::Error_t expected;
    unsigned flags = 0;
    const char* pem = nullptr;  // a certificate authority given in memory
    unsigned mode = 0;
  } cases[] = {
      {ca, kGood, "localhost", ok},
      {ca, kGood, "127.0.0.1", failed},  // IP alternative names are not consulted
      {ca, kGood, nullptr, failed},      // the connected host is 127.0.0.1
      {ca, kUnknownCa, "localhost", failed},
      {ca, kExpired, "localhost", failed},
      {ca, kNotYetValid, "localhost", ok},  // forgiven unless strict
      {ca, kWrongHost, "localhost", failed},
      {ca, kWrongHost, "other.test", ok},
      {ca, kWildcard, "a.wild.test", ok},
      {ca, kIpOnly, "localhost", failed},  // the common name is ignored
      {ca, kCnOnly, "localhost", ok},
      {ca, kGood, kShortForm, ok},  // verifies the connected host with the environment
      {ca, kWrongHost, kShortForm, failed},
      // Flag bit 0 turns every check off; other bits change nothing.
      {ca, kUnknownCa, "localhost", ok, noVerify | 6},
      {ca, kWrongHost, "localhost", failed, 6},
      {strict, kNotYetValid, "localhost", failed},
      {strictYes, kNotYetValid, "localhost", ok},
      {caDir, kGood, "localhost", ok},
      {none, kGood, "localhost", failed},
      {{"missing.pem", "cadir"}, kGood, "localhost", failed},  // the file wins
      // Suppression takes exactly "1"; anything else leaves no trust at all.
      {{nullptr, nullptr, "true"}, kGood, "localhost", failed},
      // Suppression drops the CA check but not the host-name check.
      {suppressed, kUnknownCa, "localhost", ok},
      {suppressed, kWrongHost, "localhost", failed},
      // Without environment, memory alone is the trust.
      {none, kGood, "localhost", ok, 0, "ca", CertModeMemoryOnly},
      {none, kGood, "localhost", failed, 0, "other", CertModeMemoryOnly},
      {none, kGood, "localhost", failed, 0, "missing", CertModeMemoryOnly},  // empty memory
      {none, kGood, "localhost", failed, 0, "ca", CertModeEnvironmentThenMemory},
      // The environment trusts the other authority; memory adds the right one.
      {other, kGood, "localhost", ok, 0, "ca", CertModeEnvironmentThenMemory},
      {other, kGood, "localhost", ok, 0, "ca", CertModeMemoryThenEnvironment},
      {other, kUnknownCa, "localhost", ok, 0, "ca", CertModeEnvironmentThenMemory},
      {other, kGood, "localhost", failed, 0, "ca", CertModeEnvironmentOnly},
      // A suppressing environment wins over certificates from memory.
      {otherSuppressed, kUnknownCa, "localhost", ok, 0, "ca", CertModeEnvironmentThenMemory},
      {otherSuppressed, kUnknownCa, "localhost", failed, 0, "ca", CertModeMemoryOnly},
  };
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
    const auto& c = cases[i];
    SCOPED_TRACE("case " + std::to_string(i));
    nettest::ClearTlsEnvironment();
    const char* values[] = {c.trust.caFile, c.trust.caPath, c.trust.suppress, c.trust.strict};
    for (int k = 0; k < 4; ++k) {
      if (values[k] != nullptr) utils::SetEnv(nettest::kTlsVariables[k], k < 2 ? File(values[k]) : values[k]);
    }
    const CertSettings settings = c.pem == nullptr ? CertSettings() : CertSettings(Pem(c.pem), c.mode);
    EXPECT_EQ(Fetch(c.server, c.host, c.flags, settings), c.expected);
  }
}

TEST_F(SecureSession, ChangedCaFileIsReadAgain) {
  const std::string bundle = File("bundle.pem");
  nettest::WriteFile(bundle, Pem("other"));
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", bundle);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
  nettest::WriteFile(bundle, Pem("other") + Pem("ca"));
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);
  ASSERT_EQ(std::remove(bundle.c_str()), 0);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
}

}  // namespace
