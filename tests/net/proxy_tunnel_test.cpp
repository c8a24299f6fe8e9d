// Proxy handshakes against peers written here that answer with canned bytes,
// record what the client sent, and cover every way a proxy can refuse or garble.
#include "utils/net/proxy_tunnel.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "net/support/peer_threads.h"
#include "net/test_helpers.h"
#include "utils/base64.h"

namespace {

using nettest::CannedPeer;
using nettest::Client;
using nettest::Fd;

template <size_t N>
std::string Bytes(const char (&text)[N]) {  // keeps embedded NULs
  return std::string(text, N - 1);
}

utils::NetProxyInfo Proxy(utils::NetProxyType type, const std::string& login = "",
                          const std::string& password = "pw") {
  return {"127.0.0.1", 0, login, password, type};
}

// The client must take exactly the proxy's reply, whatever address form it
// has, and leave what follows to the tunnel in both directions.
TEST(Socks5Tunnel, SendsExactRequestsAndTheTunnelStartsRightAfterTheReply) {
  const std::string port = Bytes("\x1F\x90");  // 8080
  const std::string byName = Bytes("\x05\x01\x00\x03\x09localhost") + port;
  const struct {
    const char* target;
    const char* login;
    std::string greeting, auth, request, reply;
  } cases[] = {
      {"localhost", "", Bytes("\x05\x01\x00"), "", byName,
       Bytes("\x05\x00\x00\x01\x7F\x00\x00\x01\x12\x34")},
      {"127.0.0.1", "user", Bytes("\x05\x02\x00\x02"), Bytes("\x01\x04user\x06secret"),
       Bytes("\x05\x01\x00\x01\x7F\x00\x00\x01") + port,
       Bytes("\x05\x00\x00\x04") + std::string(16, '\0') + Bytes("\x12\x34")},
      {"localhost", "", Bytes("\x05\x01\x00"), "", byName,
       Bytes("\x05\x00\x00\x03\x04host\x12\x34")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.target);
    std::vector<CannedPeer::Turn> turns = {
        {c.greeting.size(), Bytes(c.auth.empty() ? "\x05\x00" : "\x05\x02")}};
    if (!c.auth.empty()) turns.push_back({c.auth.size(), Bytes("\x01\x00")});
    turns.push_back({c.request.size(), c.reply + "BANNER"});
    turns.push_back({4, ""});
    CannedPeer peer(turns);
    Client client;
    std::string error;
    ASSERT_EQ(nettest::Tunnel(&client, peer.Service(),
                              Proxy(utils::NetProxyTypeSocks5, c.login, "secret"), c.target, 8080,
                              &error),
              Client::ErrorNone)
        << error;
    char banner[6];
    ASSERT_EQ(utils::RecvAll(&client, banner, sizeof(banner), nullptr, 5000), Client::ErrorNone);
    EXPECT_EQ(std::string(banner, sizeof(banner)), "BANNER");
    ASSERT_EQ(client.Send("PING", 4, nullptr, 5000), Client::ErrorNone);
    client.Close();
    EXPECT_EQ(peer.Request(), c.greeting + c.auth + c.request + "PING");
  }
}

TEST(Socks5Tunnel, AnswersOtherThanSuccessFailWithAReason) {
  const std::string methodOk = Bytes("\x05\x00");
  const struct {
    const char* name;
    std::string answer;
    const char* login;
    Client::Error_t result;
    const char* reason;
  } cases[] = {
      {"no acceptable method", Bytes("\x05\xFF"), "", Client::ErrorFailed,
       "SOCKS5 proxy requires credentials"},
      {"bad credentials", Bytes("\x05\x02\x01\x01"), "user", Client::ErrorFailed,
       "SOCKS5 proxy rejected the credentials"},
      {"connect refused", methodOk + Bytes("\x05\x05\x00\x01\0\0\0\0\0\0"), "", Client::ErrorFailed,
       "SOCKS5 proxy refused example.test:80: connection refused"},
      {"unoffered method", Bytes("\x05\x02"), "", Client::ErrorFailed,
       "Malformed SOCKS5 method selection"},
      {"wrong version", Bytes("\x04\x00"), "", Client::ErrorFailed,
       "Malformed SOCKS5 method selection"},
      {"unknown address type", methodOk + Bytes("\x05\x00\x00\x09\0\0\0\0\0\0"), "",
       Client::ErrorFailed, "Malformed SOCKS5 connect answer"},
      {"closed halfway through the reply", methodOk + Bytes("\x05\x00\x00\x01\x7F"), "",
       Client::ErrorEndOfStream, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CannedPeer peer(c.answer, 3,
                    c.result == Client::ErrorEndOfStream ? CannedPeer::kCloseAfterAnswer
                                                         : CannedPeer::kHoldOpen);
    Client client;
    std::string error;
    EXPECT_EQ(nettest::Tunnel(&client, peer.Service(), Proxy(utils::NetProxyTypeSocks5, c.login),
                              "example.test", 80, &error),
              c.result);
    EXPECT_EQ(error, c.reason);
  }
}

TEST(Socks5Tunnel, SilentProxiesAndOversizedFields) {
  const utils::NetProxyInfo socks5 = Proxy(utils::NetProxyTypeSocks5);
  {
    // The whole handshake shares one deadline.
    nettest::Listener silent;
    Client client;
    const auto start = nettest::Clock::now();
    EXPECT_EQ(nettest::Tunnel(&client, silent.Service(), socks5, "example.test", 80, nullptr, 300),
              Client::ErrorTimedOut);
    EXPECT_GE(nettest::ElapsedMs(start), 250);
  }
  // Names and credentials longer than one length byte never reach the wire.
  Client unconnected;
  std::string error;
  EXPECT_EQ(
      utils::ConnectThroughProxy(std::string(256, 'a'), 80, socks5, &unconnected, 100, &error),
      Client::ErrorFailed);
  EXPECT_EQ(error, "Target host name too long for a SOCKS5 proxy");
  for (const auto& proxy : {Proxy(utils::NetProxyTypeSocks5, std::string(256, 'u')),
                            Proxy(utils::NetProxyTypeSocks5, "u", std::string(256, 'p'))}) {
    error.clear();
    EXPECT_EQ(utils::ConnectThroughProxy("a", 80, proxy, &unconnected, 100, &error), Client::ErrorFailed);
    EXPECT_EQ(error, "Proxy credentials too long for SOCKS5");
  }
}

TEST(HttpConnectTunnel, RequestCarriesTargetAndCredentialsAndTunnelBytesSurvive) {
  // The proxy's answer and the first tunnel bytes arrive together.
  CannedPeer peer("HTTP/1.1 200 Connection established\r\nVia: test\r\n\r\nBANNER");
  Client client;
  ASSERT_EQ(nettest::Tunnel(&client, peer.Service(), Proxy(utils::NetProxyTypeHttp, "user", "p:w"),
                            "::1", 8443),
            Client::ErrorNone);
  char banner[6];
  ASSERT_EQ(utils::RecvAll(&client, banner, sizeof(banner), nullptr, 5000), Client::ErrorNone);
  EXPECT_EQ(std::string(banner, sizeof(banner)), "BANNER");
  client.Close();
  EXPECT_EQ(peer.Request(),
            "CONNECT [::1]:8443 HTTP/1.1\r\nHost: [::1]:8443\r\n"
            "Proxy-Authorization: Basic " +
                utils::Base64Encode(std::string("user:p:w")) + "\r\n\r\n");
}

TEST(HttpConnectTunnel, AnswersOtherThanSuccessAreFailuresWithAReason) {
  const std::string malformed = "Malformed proxy answer to CONNECT example.test:443";
  const struct {
    std::string answer;
    const char* login;
    Client::Error_t result;
    std::string reason;
  } cases[] = {
      {"HTTP/1.0 200 OK\n\n", "", Client::ErrorNone, ""},  // bare line feeds
      {"HTTP/1.1 204\r\n\r\n", "", Client::ErrorNone, ""},
      {"HTTP/1.1 403 Forbidden\r\n\r\n", "", Client::ErrorFailed,
       "Proxy refused CONNECT example.test:443: 403 Forbidden"},
      {"HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic\r\n\r\n", "",
       Client::ErrorFailed, "Proxy requires credentials: 407 Proxy Authentication Required"},
      {"HTTP/1.0 407 Nope\r\n\r\n", "user", Client::ErrorFailed,
       "Proxy rejected the credentials: 407 Nope"},
      {"SSH-2.0-OpenSSH\r\n\r\n", "", Client::ErrorFailed, malformed},
      {"HTTP/1.1 20 OK\r\n\r\n", "", Client::ErrorFailed, malformed},
      {"HTTP/1.1 200 OK\r\n", "", Client::ErrorEndOfStream, ""},  // closes before the blank line
      {"HTTP/1.1 200 OK\r\n" + std::string(20000, 'x'), "", Client::ErrorFailed,
       "Proxy answer head exceeds 16384 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer.substr(0, 40));
    Client client;
    std::string error;
    CannedPeer peer(c.answer, 0,
                    c.result == Client::ErrorEndOfStream ? CannedPeer::kCloseAfterAnswer
                                                         : CannedPeer::kHoldOpen);
    EXPECT_EQ(nettest::Tunnel(&client, peer.Service(), Proxy(utils::NetProxyTypeHttps, c.login),
                              "example.test", 443, &error),
              c.result);
    EXPECT_EQ(error, c.reason);
    client.Close();  // the peer waits for the client to go
  }
}

TEST(HttpConnectTunnel, TargetsThatWouldInjectHeaderLinesAreRefusedBeforeSending) {
  Client unconnected;
  std::string error;
  for (const char* host : {"a\r\nX-Injected: 1", "a b", "", "tab\there"}) {
    error.clear();
    EXPECT_EQ(utils::ConnectThroughProxy(host, 80, Proxy(utils::NetProxyTypeHttp), &unconnected,
                                         100, &error),
              Client::ErrorFailed);
    EXPECT_EQ(error, "Invalid proxy target host");
  }
}

}  // namespace
