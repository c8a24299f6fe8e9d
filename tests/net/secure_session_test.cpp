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
#include "utils/env.h"
#include "utils/net/base_socket_client.h"

namespace {

using Client = utils::BaseSocketClient;

enum Server { kGood, kUnknownCa, kExpired, kNotYetValid, kWrongHost, kWildcard, kIpOnly, kCnOnly };

// One nginx per test program with a server block per certificate.
class SecureSession : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_ = new nettest::TempDir();
    nettest::CertFactory factory(directory_->Path());
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
    for (const auto& leaf : leaves) {
      nettest::Nginx::Server server;
      server.certificate = leaf.certificate;
      server.key = leaf.key;
      servers.push_back(server);
    }
    nginx_ = new nettest::Nginx(directory_->Path(), servers);
    // A hashed CA directory holding only the trusted authority.
    const std::string caDirectory = directory_->File("cadir");
    nettest::RunCommand({"mkdir", "-p", caDirectory}, directory_->File("openssl.log"));
    nettest::WriteFile(caDirectory + "/ca.pem", nettest::ReadFile(ca.certificate));
    nettest::RunCommand({"openssl", "rehash", caDirectory}, directory_->File("openssl.log"));
  }
  static void TearDownTestSuite() {
    delete nginx_;
    delete directory_;
  }

  void SetUp() override {
    for (const char* name :
         {"CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
          "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"}) {
      utils::UnsetEnv(name);
    }
  }

  static std::string CaFile() { return directory_->File("ca.pem"); }
  static std::string Pem(const std::string& name) {
    return nettest::ReadFile(directory_->File(name + ".pem"));
  }

  // Handshake with server, then one request; the body when everything worked.
  static Client::Error_t Fetch(Server server, const char* host, unsigned flags,
                               const utils::tls::CertSettings& settings, std::string* body) {
    Client client;
    Client::Error_t result =
        client.Connect("127.0.0.1", std::to_string(nginx_->Port(server)), 5000);
    if (result != Client::ErrorNone) return result;
    result = client.InitiateSecureSession(host, 5000, flags, settings);
    if (result != Client::ErrorNone) return result;
    return Exchange(&client, body);
  }

  static Client::Error_t Exchange(Client* client, std::string* body) {
    const std::string request = "GET / HTTP/1.0\r\nHost: localhost\r\n\r\n";
    Client::Error_t result = utils::SendAll(client, request.data(), request.size(), nullptr, 5000);
    if (result != Client::ErrorNone) return result;
    std::string response(4096, '\0');
    size_t received = 0;
    // nginx closes an HTTP/1.0 exchange with close_notify: end of stream.
    result = utils::RecvAll(client, &response[0], response.size(), &received, 5000);
    response.resize(received);
    if (result != Client::ErrorEndOfStream) return result;
    *body = response.substr(response.find("\r\n\r\n") + 4);
    return Client::ErrorNone;
  }

  static Client::Error_t Fetch(Server server, const char* host, unsigned flags = 0) {
    std::string body;
    const Client::Error_t result = Fetch(server, host, flags, utils::tls::CertSettings(), &body);
    EXPECT_TRUE(result != Client::ErrorNone || body == "ok\n") << body;
    return result;
  }

  static nettest::TempDir* directory_;
  static nettest::Nginx* nginx_;
};

nettest::TempDir* SecureSession::directory_ = nullptr;
nettest::Nginx* SecureSession::nginx_ = nullptr;

TEST_F(SecureSession, VerificationFollowsChainDatesAndNames) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", CaFile());
  struct Case {
    Server server;
    const char* host;
    Client::Error_t expected;
  };
  const Case cases[] = {
      {kGood, "localhost", Client::ErrorNone},
      {kGood, "LOCALHOST", Client::ErrorNone},
      {kGood, "127.0.0.1", Client::ErrorFailed},  // IP alternative names are not consulted
      {kGood, nullptr, Client::ErrorFailed},      // the connected host is 127.0.0.1
      {kUnknownCa, "localhost", Client::ErrorFailed},
      {kExpired, "localhost", Client::ErrorFailed},
      {kNotYetValid, "localhost", Client::ErrorNone},  // forgiven unless strict
      {kWrongHost, "localhost", Client::ErrorFailed},
      {kWrongHost, "other.test", Client::ErrorNone},
      {kWildcard, "a.wild.test", Client::ErrorNone},
      {kWildcard, "A.Wild.Test", Client::ErrorNone},
      {kWildcard, "x.a.wild.test", Client::ErrorFailed},
      {kWildcard, "wild.test", Client::ErrorFailed},
      {kIpOnly, "localhost", Client::ErrorFailed},  // the common name is ignored
      {kCnOnly, "localhost", Client::ErrorNone},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(Fetch(c.server, c.host), c.expected)
        << "server " << c.server << " host " << (c.host != nullptr ? c.host : "(null)");
  }
  // Flag bit 0 turns every check off; other bits change nothing.
  for (Server server : {kUnknownCa, kExpired, kWrongHost}) {
    EXPECT_EQ(Fetch(server, "localhost", utils::kSecureSessionNoVerify | 6), Client::ErrorNone);
    EXPECT_EQ(Fetch(server, "localhost", 6), Client::ErrorFailed);
  }
}

TEST_F(SecureSession, LogsTellWhyAndTraceTheHandshake) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", CaFile());
  nettest::LogCapture log;
  EXPECT_EQ(Fetch(kWrongHost, "localhost"), Client::ErrorFailed);
  EXPECT_TRUE(log.Has("<utils::openssl> Failed to verify server hostname: localhost"));
  EXPECT_TRUE(
      log.HasPrefix("<utils::StreamSocket> Enter scope `InitiateSecureSession' >>> socket="));
  EXPECT_TRUE(
      log.Has("<utils::StreamSocket> Enter scope `InitiateSecureSession::SecureConnect' >>>"));
  EXPECT_TRUE(log.Has("<utils::StreamSocket> Leave scope `InitiateSecureSession' <<<"));
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Enter scope `Socket::FreeSecureData' >>>"));

  EXPECT_EQ(Fetch(kUnknownCa, "localhost"), Client::ErrorFailed);
  EXPECT_TRUE(log.HasPrefix("<utils::openssl> Server certificate verification error: "));
}

TEST_F(SecureSession, StrictVariableRejectsCertificatesNotYetValid) {
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", CaFile());
  nettest::LogCapture log;
  EXPECT_EQ(Fetch(kNotYetValid, "localhost"), Client::ErrorNone);
  EXPECT_TRUE(log.Has("<utils::openssl> Allowing 'not yet valid' server certificate"));
  utils::SetEnv("CORVANE_OPENSSL_STRICT_CA_VERIFICATION", "1");
  EXPECT_EQ(Fetch(kNotYetValid, "localhost"), Client::ErrorFailed);
  EXPECT_TRUE(
      log.Has("<utils::openssl> Server certificate verification error: certificate is not "
              "yet valid"));
  // Strictness does not touch certificates that are fine.
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);
  utils::SetEnv("CORVANE_OPENSSL_STRICT_CA_VERIFICATION", "yes");
  EXPECT_EQ(Fetch(kNotYetValid, "localhost"), Client::ErrorNone);
}

TEST_F(SecureSession, TrustComesFromCaDirectoryOrSuppression) {
  utils::SetEnv("CORVANE_OPENSSL_CA_PATH", directory_->File("cadir"));
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);
  EXPECT_EQ(Fetch(kUnknownCa, "localhost"), Client::ErrorFailed);
  utils::UnsetEnv("CORVANE_OPENSSL_CA_PATH");

  // No CA at all: a verifying session cannot start.
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
  utils::SetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "true");
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);

  // Suppression drops the CA check but not the host-name check.
  utils::SetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "1");
  EXPECT_EQ(Fetch(kUnknownCa, "localhost"), Client::ErrorNone);
  EXPECT_EQ(Fetch(kExpired, "localhost"), Client::ErrorNone);
  EXPECT_EQ(Fetch(kWrongHost, "localhost"), Client::ErrorFailed);
}

TEST_F(SecureSession, ChangedCaFileIsReadAgain) {
  const std::string bundle = directory_->File("bundle.pem");
  nettest::WriteFile(bundle, Pem("other"));
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", bundle);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
  // Rewritten in place with other content...
  nettest::WriteFile(bundle, Pem("other") + Pem("ca"));
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorNone);
  // ... or replaced by another file.
  const std::string replacement = directory_->File("replacement.pem");
  nettest::WriteFile(replacement, Pem("other"));
  ASSERT_EQ(std::rename(replacement.c_str(), bundle.c_str()), 0);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
  ASSERT_EQ(std::remove(bundle.c_str()), 0);
  EXPECT_EQ(Fetch(kGood, "localhost"), Client::ErrorFailed);
}

TEST_F(SecureSession, PemFromMemoryInEachMode) {
  const std::string trusted = Pem("ca");
  const std::string untrusted = Pem("other");
  auto fetch = [](Server server, const std::string& pem, unsigned mode) {
    std::string body;
    return Fetch(server, "localhost", 0, utils::tls::CertSettings(pem, mode), &body);
  };
  using utils::tls::CertModeEnvironmentOnly;
  using utils::tls::CertModeEnvironmentThenMemory;
  using utils::tls::CertModeMemoryOnly;
  using utils::tls::CertModeMemoryThenEnvironment;

  // No environment: memory alone is the trust.
  EXPECT_EQ(fetch(kGood, trusted, CertModeMemoryOnly), Client::ErrorNone);
  EXPECT_EQ(fetch(kGood, untrusted, CertModeMemoryOnly), Client::ErrorFailed);
  EXPECT_EQ(fetch(kUnknownCa, trusted, CertModeMemoryOnly), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, trusted, CertModeEnvironmentThenMemory), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, trusted, CertModeMemoryThenEnvironment), Client::ErrorFailed);
  EXPECT_EQ(fetch(kGood, trusted, CertModeEnvironmentOnly), Client::ErrorFailed);

  // Environment trusts the other authority; memory adds the right one.
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", directory_->File("other.pem"));
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
  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", CaFile());
  Client client;
  ASSERT_EQ(client.Connect("localhost", std::to_string(nginx_->Port(kGood)), 5000),
            Client::ErrorNone);
  ASSERT_EQ(client.InitiateSecureSession(5000), Client::ErrorNone);
  std::string body;
  EXPECT_EQ(Exchange(&client, &body), Client::ErrorNone);
  EXPECT_EQ(body, "ok\n");

  // Close ends TLS and descriptor; the same client connects again.
  EXPECT_EQ(client.Close(), Client::ErrorNone);
  ASSERT_EQ(client.Connect("localhost", std::to_string(nginx_->Port(kWrongHost)), 5000),
            Client::ErrorNone);
  EXPECT_EQ(client.InitiateSecureSession(5000), Client::ErrorFailed);
}

}  // namespace
