// HTTP CONNECT tunnels through tinyproxy to nginx, plain and TLS.
#include <sys/socket.h>

#include <string>

#include <gtest/gtest.h>

#include "net/support/certs.h"
#include "net/support/peers.h"
#include "utils/env.h"
#include "utils/net/base_socket_client.h"
#include "utils/net/proxy_tunnel.h"

namespace {

using Client = utils::BaseSocketClient;

class TinyproxyTunnel : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    directory_ = new nettest::TempDir();
    nettest::CertFactory factory(directory_->Path());
    const nettest::KeyPair ca = factory.CreateCa("ca");
    const nettest::KeyPair leaf = factory.Issue("leaf", ca, "localhost", "DNS:localhost");
    nettest::Nginx::Server plain;
    nettest::Nginx::Server secure;
    secure.certificate = leaf.certificate;
    secure.key = leaf.key;
    nginx_ = new nettest::Nginx(directory_->Path(), {plain, secure});
    const std::vector<int> allowed = {nginx_->Port(0), nginx_->Port(1)};
    open_ = new nettest::Tinyproxy(directory_->Path(), allowed);
    const std::string guardedDirectory = directory_->File("guarded");
    nettest::RunCommand({"mkdir", "-p", guardedDirectory}, directory_->File("mkdir.log"));
    guarded_ = new nettest::Tinyproxy(guardedDirectory, allowed, "user", "secret");
  }
  static void TearDownTestSuite() {
    delete guarded_;
    delete open_;
    delete nginx_;
    delete directory_;
  }

  static utils::NetProxyInfo Proxy(const nettest::Tinyproxy& proxy, const std::string& login = "",
                                   const std::string& password = "") {
    utils::NetProxyInfo info;
    info.host = "127.0.0.1";
    info.port = static_cast<unsigned short>(proxy.Port());
    info.login = login;
    info.password = password;
    return info;
  }

  // Connects to the proxy and asks for a tunnel to port on the loopback.
  static Client::Error_t Tunnel(Client* client, const utils::NetProxyInfo& proxy, int port,
                                std::string* error) {
    const Client::Error_t result = client->Connect(proxy.host, std::to_string(proxy.port), 5000);
    if (result != Client::ErrorNone) return result;
    return utils::ConnectThroughProxy("127.0.0.1", static_cast<unsigned short>(port), proxy, client,
                                      5000, error);
  }

  static std::string Get(Client* client) {
    const std::string request = "GET / HTTP/1.0\r\nHost: localhost\r\n\r\n";
    if (utils::SendAll(client, request.data(), request.size(), nullptr, 5000) !=
        Client::ErrorNone) {
      return "send failed";
    }
    std::string response(4096, '\0');
    size_t received = 0;
    utils::RecvAll(client, &response[0], response.size(), &received, 5000);
    response.resize(received);
    const size_t bodyStart = response.find("\r\n\r\n");
    return bodyStart == std::string::npos ? response : response.substr(bodyStart + 4);
  }

  static nettest::TempDir* directory_;
  static nettest::Nginx* nginx_;
  static nettest::Tinyproxy* open_;
  static nettest::Tinyproxy* guarded_;
};

nettest::TempDir* TinyproxyTunnel::directory_ = nullptr;
nettest::Nginx* TinyproxyTunnel::nginx_ = nullptr;
nettest::Tinyproxy* TinyproxyTunnel::open_ = nullptr;
nettest::Tinyproxy* TinyproxyTunnel::guarded_ = nullptr;

TEST_F(TinyproxyTunnel, PlainAndTlsTrafficCrossTheTunnel) {
  std::string error;
  Client plain;
  ASSERT_EQ(Tunnel(&plain, Proxy(*open_), nginx_->Port(0), &error), Client::ErrorNone) << error;
  EXPECT_EQ(Get(&plain), "ok\n");

  utils::SetEnv("CORVANE_OPENSSL_CA_FILE", directory_->File("ca.pem"));
  Client secure;
  ASSERT_EQ(Tunnel(&secure, Proxy(*open_), nginx_->Port(1), &error), Client::ErrorNone) << error;
  ASSERT_EQ(secure.InitiateSecureSession("localhost", 5000, 0, utils::tls::CertSettings()),
            Client::ErrorNone);
  EXPECT_EQ(Get(&secure), "ok\n");
}

TEST_F(TinyproxyTunnel, PortsTheProxyDoesNotAllowAreRefused) {
  const int other = nettest::FreePort(AF_INET);
  Client client;
  std::string error;
  EXPECT_EQ(Tunnel(&client, Proxy(*open_), other, &error), Client::ErrorFailed);
  EXPECT_EQ(error.rfind("Proxy refused CONNECT 127.0.0.1:" + std::to_string(other) + ": 403", 0),
            0u)
      << error;
}

TEST_F(TinyproxyTunnel, BasicCredentialsAreRequiredAndChecked) {
  std::string error;
  Client anonymous;
  EXPECT_EQ(Tunnel(&anonymous, Proxy(*guarded_), nginx_->Port(0), &error), Client::ErrorFailed);
  EXPECT_EQ(error, "Proxy requires credentials: 407 Proxy Authentication Required");

  Client wrong;
  EXPECT_EQ(Tunnel(&wrong, Proxy(*guarded_, "user", "guess"), nginx_->Port(0), &error),
            Client::ErrorFailed);
  EXPECT_EQ(error.rfind("Proxy rejected the credentials: 40", 0), 0u) << error;

  Client right;
  ASSERT_EQ(Tunnel(&right, Proxy(*guarded_, "user", "secret"), nginx_->Port(0), &error),
            Client::ErrorNone)
      << error;
  EXPECT_EQ(Get(&right), "ok\n");
}

}  // namespace
