// TLS sessions of the client against nginx, with certificates made by the
// openssl CLI for each way verification can go.
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/certs.h"
#include "net/support/log_capture.h"
#include "net/support/peers.h"
#include "net/test_helpers.h"
#include "utils/env.h"
#include "utils/net/base_socket_client.h"

namespace {

using nettest::Client;

enum Server { kGood, kUnknownCa, kExpired, kNotYetValid, kWrongHost, kWildcard, kIpOnly, kCnOnly };

// One nginx with a server block per certificate (in Server order), and a
// hashed CA directory holding only the trusted authority.
struct Peers {
  Peers() {
    nettest::CertFactory factory(directory.Path());
    const nettest::KeyPair ca = factory.CreateCa("ca");
    const nettest::KeyPair other = factory.CreateCa("other");
    const long day = 86400;
    const std::vector<nettest::KeyPair> leaves = {
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
    };
    std::vector<nettest::Nginx::Server> servers;
    for (const auto& leaf : leaves) servers.push_back({0, leaf.certificate, leaf.key, ""});
    nginx.reset(new nettest::Nginx(directory.Path(), servers));
    const std::string log = directory.File("openssl.log");
    nettest::RunCommand({"mkdir", "-p", directory.File("cadir")}, log);
    nettest::WriteFile(directory.File("cadir/ca.pem"), nettest::ReadFile(ca.certificate));
    nettest::RunCommand({"openssl", "rehash", directory.File("cadir")}, log);
  }
  nettest::TempDir directory;
  std::unique_ptr<nettest::Nginx> nginx;
};

class SecureSession : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { peers_.reset(new Peers()); }
  static void TearDownTestSuite() { peers_.reset(); }
  void SetUp() override { nettest::ClearTlsEnvironment(); }

  static std::string File(const std::string& name) { return peers_->directory.File(name); }
  static std::string Pem(const std::string& name) { return nettest::ReadFile(File(name + ".pem")); }

  // Handshake with server, then one request whose answer must be nginx's "ok".
  static Client::Error_t Fetch(Server server, const char* host, unsigned flags = 0,
                               const utils::tls::CertSettings& settings = {}) {
    Client client;
    Client::Error_t result =
        client.Connect("127.0.0.1", std::to_string(peers_->nginx->Port(server)), 5000);
    if (result == Client::ErrorNone) {
      result = client.InitiateSecureSession(host, 5000, flags, settings);
    }
    std::string body;
    if (result == Client::ErrorNone) result = nettest::HttpGet(&client, &body);
    EXPECT_TRUE(result != Client::ErrorNone || body == "ok\n") << body;
    return result;
  }

  static std::unique_ptr<Peers> peers_;
};

std::unique_ptr<Peers> SecureSession::peers_;

TEST_F(SecureSession, VerificationFollowsChainDatesAndNames) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", File("ca.pem"));
  const Client::Error_t ok = Client::ErrorNone, failed = Client::ErrorFailed;
  const struct {
    Server server;
    const char* host;
    Client::Error_t expected;
  } cases[] = {
      {kGood, "localhost", ok},
      {kGood, "LOCALHOST", ok},
      {kGood, "127.0.0.1", failed},  // IP alternative names are not consulted
      {kGood, nullptr, failed},      // the connected host is 127.0.0.1
      {kUnknownCa, "localhost", failed},
      {kExpired, "localhost", failed},
      {kNotYetValid, "localhost", ok},  // forgiven unless strict
      {kWrongHost, "localhost", failed},
      {kWrongHost, "other.test", ok},
      {kWildcard, "a.wild.test", ok},
      {kWildcard, "x.a.wild.test", failed},
      {kIpOnly, "localhost", failed},  // the common name is ignored
      {kCnOnly, "localhost", ok},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fetch(c.server, c.host), c.expected)
        << "server " << c.server << " host " << (c.host != nullptr ? c.host : "(null)");
  }
  // Flag bit 0 turns every check off; other bits change nothing.
  for (Server server : {kUnknownCa, kExpired, kWrongHost}) {
    EXPECT_EQ(Fetch(server, "localhost", utils::kSecureSessionNoVerify | 6), ok);
    EXPECT_EQ(Fetch(server, "localhost", 6), failed);
  }
}

TEST_F(SecureSession, LogsTellWhyAndTraceTheHandshake) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", File("ca.pem"));
  nettest::LogCapture log;
  EXPECT_EQ(Fetch(kWrongHost, "localhost"), Client::ErrorFailed);
  EXPECT_TRUE(log.Has("<utils::openssl> Failed to verify server hostname: localhost"));
  EXPECT_TRUE(
      log.HasPrefix("<utils::StreamSocket> Enter scope `InitiateSecureSession' >>> socket="));
  EXPECT_TRUE(
      log.Has("<utils::StreamSocket> Enter scope `InitiateSecureSession::SecureConnect' >>>"));
  EXPECT_TRUE(log.Has("<utils::StreamSocket> Leave scope `InitiateSecureSession' <<<"));
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Enter scope `Socket::FreeSecureData' >>>"));
}

TEST_F(SecureSession, StrictVariableRejectsCertificatesNotYetValid) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", File("ca.pem"));
  nettest::LogCapture log;
  EXPECT_EQ(Fetch(kNotYetValid, "localhost"), Client::ErrorNone);
  EXPECT_TRUE(log.Has("<utils::openssl> Allowing 'not yet valid' server certificate"));
  utils::SetEnv("CORVANE_OPENSSL_STRICT_CA_VERIFICATION", "1");
  EXPECT_EQ(Fetch(kNotYetValid, "localhost"), Client::ErrorFailed);
  EXPECT_TRUE(log.Has(
      "<utils::openssl> Server certificate verification error: certificate is not yet valid"));
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);  // strictness spares good ones
  utils::SetEnv("CORVANE_OPENSSL_STRICT_CA_VERIFICATION", "yes");
  EXPECT_EQ(Fetch(kNotYetValid, "localhost"), Client::ErrorNone);
}

TEST_F(SecureSession, TrustComesFromCaDirectoryOrSuppression) {
  utils::SetEnv("CORVANE_OPENSSL_CA_PATH", File("cadir"));
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);
  EXPECT_EQ(Fetch(kUnknownCa, "localhost"), Client::ErrorFailed);
  utils::UnsetEnv("CORVANE_OPENSSL_CA_PATH");

  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);  // no CA at all
  // Suppression drops the CA check but not the host-name check.
  utils::SetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "1");
  EXPECT_EQ(Fetch(kUnknownCa, "localhost"), Client::ErrorNone);
  EXPECT_EQ(Fetch(kExpired, "localhost"), Client::ErrorNone);
  EXPECT_EQ(Fetch(kWrongHost, "localhost"), Client::ErrorFailed);
}

TEST_F(SecureSession, ChangedCaFileIsReadAgain) {
  const std::string bundle = File("bundle.pem");
  nettest::WriteFile(bundle, Pem("other"));
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", bundle);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
  // Rewritten in place with other content...
  nettest::WriteFile(bundle, Pem("other") + Pem("ca"));
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);
  // ... or replaced by another file, or removed.
  nettest::WriteFile(File("replacement.pem"), Pem("other"));
  ASSERT_EQ(std::rename(File("replacement.pem").c_str(), bundle.c_str()), 0);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
  ASSERT_EQ(std::remove(bundle.c_str()), 0);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
}

TEST_F(SecureSession, PemFromMemoryInEachMode) {
  using namespace utils::tls;
  const std::string trusted = Pem("ca"), untrusted = Pem("other");
  auto fetch = [](Server server, const std::string& pem, unsigned mode) {
    return Fetch(server, "localhost", 0, CertSettings(pem, mode));
  };
  // No environment: memory alone is the trust.
  EXPECT_EQ(fetch(kGood, trusted, CertModeMemoryOnly), Client::ErrorNone);
  EXPECT_EQ(fetch(kGood, untrusted, CertModeMemoryOnly), Client::ErrorFailed);
  EXPECT_EQ(fetch(kUnknownCa, trusted, CertModeMemoryOnly), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, trusted, CertModeEnvironmentThenMemory), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, trusted, CertModeMemoryThenEnvironment), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, trusted, CertModeEnvironmentOnly), Client::ErrorFailed);

  // Environment trusts the other authority; memory adds the right one.
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", File("other.pem"));
  EXPECT_EQ(fetch(kGood, trusted, CertModeEnvironmentThenMemory), Client::ErrorNone);
  EXPECT_EQ(fetch(kGood, trusted, CertModeMemoryThenEnvironment), Client::ErrorNone);
  EXPECT_EQ(fetch(kUnknownCa, trusted, CertModeEnvironmentThenMemory), Client::ErrorNone);
  EXPECT_EQ(fetch(kGood, trusted, CertModeEnvironmentOnly), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, untrusted, CertModeMemoryOnly), Client::ErrorFailed);

  // A suppressing environment wins over certificates from memory.
  utils::SetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "1");
  EXPECT_EQ(fetch(kUnknownCa, trusted, CertModeEnvironmentThenMemory), Client::ErrorNone);
  EXPECT_EQ(fetch(kUnknownCa, trusted, CertModeMemoryThenEnvironment), Client::ErrorNone);
  EXPECT_EQ(fetch(kUnknownCa, trusted, CertModeMemoryOnly), Client::ErrorFailed);
}

TEST_F(SecureSession, ShortFormVerifiesTheConnectedHostWithTheEnvironment) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", File("ca.pem"));
  Client client;
  ASSERT_EQ(client.Connect("localhost", std::to_string(peers_->nginx->Port(kGood)), 5000),
            Client::ErrorNone);
  ASSERT_EQ(client.InitiateSecureSession(5000), Client::ErrorNone);
  std::string body;
  EXPECT_EQ(nettest::HttpGet(&client, &body), Client::ErrorNone);
  EXPECT_EQ(body, "ok\n");

  // Close ends TLS and descriptor; the same client connects again.
  EXPECT_EQ(client.Close(), Client::ErrorNone);
  ASSERT_EQ(client.Connect("localhost", std::to_string(peers_->nginx->Port(kWrongHost)), 5000),
            Client::ErrorNone);
  EXPECT_EQ(client.InitiateSecureSession(5000), Client::ErrorFailed);
}

}  // namespace
