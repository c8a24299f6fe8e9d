// HTTP CONNECT tunnels through tinyproxy to nginx, plain and TLS.
#include <sys/socket.h>

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "net/support/certs.h"
#include "net/support/peers.h"
#include "net/test_helpers.h"
#include "utils/env.h"
#include "utils/net/proxy_tunnel.h"

namespace {

using nettest::Client;

// nginx with a plain and a TLS server, an open tinyproxy and one that asks
// for credentials, both allowing CONNECT to the two nginx ports only.
struct Peers {
  Peers() {
    nettest::CertFactory factory(directory.Path());
    const nettest::KeyPair leaf =
        factory.Issue("leaf", factory.CreateCa("ca"), "localhost", "DNS:localhost");
    nginx.reset(new nettest::Nginx(directory.Path(), {{}, {0, leaf.certificate, leaf.key, ""}}));
    const std::vector<int> allowed = {nginx->Port(0), nginx->Port(1)};
    open.reset(new nettest::Tinyproxy(directory.Path(), allowed));
    nettest::RunCommand({"mkdir", "-p", directory.File("guarded")}, directory.File("mkdir.log"));
    guarded.reset(new nettest::Tinyproxy(directory.File("guarded"), allowed, "user", "secret"));
  }
  nettest::TempDir directory;
  std::unique_ptr<nettest::Nginx> nginx;
  std::unique_ptr<nettest::Tinyproxy> open;
  std::unique_ptr<nettest::Tinyproxy> guarded;
};

class TinyproxyTunnel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { peers_.reset(new Peers()); }
  static void TearDownTestSuite() { peers_.reset(); }

  // A tunnel through proxy to the nginx server with the given index.
  static Client::Error_t Tunnel(Client* client, const nettest::Tinyproxy& proxy, int server,
                                std::string* error, const std::string& login = "",
                                const std::string& password = "") {
    return nettest::Tunnel(client, std::to_string(proxy.Port()), {"127.0.0.1", 0, login, password},
                           "127.0.0.1", peers_->nginx->Port(server), error);
  }

  static void ExpectOk(Client* client) {
    std::string body;
    EXPECT_EQ(nettest::HttpGet(client, &body), Client::ErrorNone);
    EXPECT_EQ(body, "ok\n");
  }

  static std::unique_ptr<Peers> peers_;
};

std::unique_ptr<Peers> TinyproxyTunnel::peers_;

TEST_F(TinyproxyTunnel, PlainAndTlsTrafficCrossTheTunnel) {
  std::string error;
  Client plain;
  ASSERT_EQ(Tunnel(&plain, *peers_->open, 0, &error), Client::ErrorNone) << error;
  ExpectOk(&plain);

  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", peers_->directory.File("ca.pem"));
  Client secure;
  ASSERT_EQ(Tunnel(&secure, *peers_->open, 1, &error), Client::ErrorNone) << error;
  ASSERT_EQ(secure.InitiateSecureSession("localhost", 5000, 0, utils::tls::CertSettings()),
            Client::ErrorNone);
  ExpectOk(&secure);
}

TEST_F(TinyproxyTunnel, PortsTheProxyDoesNotAllowAreRefused) {
  const int other = nettest::FreePort(AF_INET);
  Client client;
  std::string error;
  EXPECT_EQ(nettest::Tunnel(&client, std::to_string(peers_->open->Port()), utils::NetProxyInfo(),
                            "127.0.0.1", other, &error),
            Client::ErrorFailed);
  EXPECT_EQ(error.rfind("Proxy refused CONNECT 127.0.0.1:" + std::to_string(other) + ": 403", 0),
            0u)
      << error;
}

TEST_F(TinyproxyTunnel, BasicCredentialsAreRequiredAndChecked) {
  std::string error;
  Client anonymous;
  EXPECT_EQ(Tunnel(&anonymous, *peers_->guarded, 0, &error), Client::ErrorFailed);
  EXPECT_EQ(error, "Proxy requires credentials: 407 Proxy Authentication Required");

  Client wrong;
  EXPECT_EQ(Tunnel(&wrong, *peers_->guarded, 0, &error, "user", "guess"), Client::ErrorFailed);
  EXPECT_EQ(error.rfind("Proxy rejected the credentials: 40", 0), 0u) << error;

  Client right;
  ASSERT_EQ(Tunnel(&right, *peers_->guarded, 0, &error, "user", "secret"), Client::ErrorNone)
      << error;
  ExpectOk(&right);
}

}  // namespace
