// Proxy handshakes against a peer that answers canned bytes, records what the
// client sent, and covers every way a proxy can refuse or garble.
#include "utils/net/proxy_tunnel.h"

#include <poll.h>
#include <sys/socket.h>

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "net/test_helpers.h"
#include "utils/base64.h"

namespace {

using nettest::Client;

// Serves one connection in turns: reads requestBytes (0: up to a blank line),
// then answers. Then it holds the connection open or half-closes it (which
// ends the stream without the reset that unread bytes would cause), and
// waits for the client to go.
class CannedPeer {
 public:
  struct Turn {
    size_t requestBytes;
    std::string answer;
  };

  explicit CannedPeer(std::vector<Turn> turns, bool closeAfterAnswer = false)
      : turns_(std::move(turns)), close_(closeAfterAnswer), thread_([this] { Serve(); }) {}
  ~CannedPeer() { Request(); }
  std::string Service() const { return listener_.Service(); }
  // What the client sent; call once the client has closed.
  std::string Request() {
    if (thread_.joinable()) thread_.join();
    return request_;
  }

 private:
  bool ReadByte(int descriptor) {
    pollfd entry = {descriptor, POLLIN, 0};
    char byte;
    if (poll(&entry, 1, 5000) != 1 || recv(descriptor, &byte, 1, 0) != 1) return false;
    request_ += byte;
    return true;
  }

  void Serve() {
    nettest::Fd client = listener_.Accept(10000);
    if (!client.Valid()) return;
    for (const Turn& turn : turns_) {
      const size_t start = request_.size();
      while ((turn.requestBytes == 0 ? request_.find("\r\n\r\n", start) == std::string::npos
                                     : request_.size() - start < turn.requestBytes) &&
             ReadByte(client.Get())) {
      }
      nettest::SendText(client.Get(), turn.answer);
    }
    if (close_) shutdown(client.Get(), SHUT_WR);
    while (ReadByte(client.Get())) {
    }
  }

  nettest::Listener listener_;
  std::vector<Turn> turns_;
  bool close_;
  std::string request_;
  std::thread thread_;
};

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

TEST(ProxyTunnel, AnswersOtherThanSuccessFailWithAReason) {
  const auto socks5 = utils::NetProxyTypeSocks5, http = utils::NetProxyTypeHttps;
  const Client::Error_t ok = Client::ErrorNone, failed = Client::ErrorFailed;
  const std::string methodOk = Bytes("\x05\x00");
  const std::string malformed = "Malformed proxy answer to CONNECT example.test:80";
  const struct {
    utils::NetProxyType type;
    const char* login;
    std::string answer;
    Client::Error_t result;
    std::string reason;
  } cases[] = {
      {socks5, "", Bytes("\x05\xFF"), failed, "SOCKS5 proxy requires credentials"},
      {socks5, "user", Bytes("\x05\x02\x01\x01"), failed, "SOCKS5 proxy rejected the credentials"},
      {socks5, "", methodOk + Bytes("\x05\x05\x00\x01\0\0\0\0\0\0"), failed,
       "SOCKS5 proxy refused example.test:80: connection refused"},
      {socks5, "", Bytes("\x05\x02"), failed, "Malformed SOCKS5 method selection"},  // not offered
      {socks5, "", Bytes("\x04\x00"), failed, "Malformed SOCKS5 method selection"},
      {socks5, "", methodOk + Bytes("\x05\x00\x00\x09\0\0\0\0\0\0"), failed,
       "Malformed SOCKS5 connect answer"},
      {socks5, "", methodOk + Bytes("\x05\x00\x00\x01\x7F"), Client::ErrorEndOfStream, ""},
      {socks5, "", "", Client::ErrorTimedOut, ""},  // the whole handshake shares one deadline
      {http, "", "HTTP/1.0 200 OK\n\n", ok, ""},    // bare line feeds
      {http, "", "HTTP/1.1 204\r\n\r\n", ok, ""},
      {http, "", "HTTP/1.1 403 Forbidden\r\n\r\n", failed,
       "Proxy refused CONNECT example.test:80: 403 Forbidden"},
      {http, "", "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic\r\n\r\n",
       failed, "Proxy requires credentials: 407 Proxy Authentication Required"},
      {http, "user", "HTTP/1.0 407 Nope\r\n\r\n", failed,
       "Proxy rejected the credentials: 407 Nope"},
      {http, "", "SSH-2.0-OpenSSH\r\n\r\n", failed, malformed},
      {http, "", "HTTP/1.1 20 OK\r\n\r\n", failed, malformed},
      {http, "", "HTTP/1.1 200 OK\r\n", Client::ErrorEndOfStream, ""},
      {http, "", "HTTP/1.1 200 OK\r\n" + std::string(20000, 'x'), failed,
       "Proxy answer head exceeds 16384 bytes"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.answer.substr(0, 40));
    CannedPeer peer({{c.type == socks5 ? 3u : 0u, c.answer}}, c.result == Client::ErrorEndOfStream);
    Client client;
    std::string error;
    const auto start = nettest::Clock::now();
    EXPECT_EQ(nettest::Tunnel(&client, peer.Service(), Proxy(c.type, c.login), "example.test", 80,
                              &error, c.result == Client::ErrorTimedOut ? 300 : 5000),
              c.result);
    EXPECT_EQ(error, c.reason);
    EXPECT_GE(nettest::ElapsedMs(start), c.result == Client::ErrorTimedOut ? 250 : 0);
    client.Close();  // the peer waits for the client to go
  }
}

// Names and credentials longer than one length byte, and targets that would
// inject header lines, never reach the wire.
TEST(ProxyTunnel, BadTargetsAndCredentialsAreRefusedBeforeSending) {
  const std::string longName(256, 'a');
  const char* invalid = "Invalid proxy target host";
  const struct {
    utils::NetProxyInfo proxy;
    std::string host;
    const char* reason;
  } cases[] = {
      {Proxy(utils::NetProxyTypeSocks5), longName, "Target host name too long for a SOCKS5 proxy"},
      {Proxy(utils::NetProxyTypeSocks5, longName), "a", "Proxy credentials too long for SOCKS5"},
      {Proxy(utils::NetProxyTypeSocks5, "u", longName), "a",
       "Proxy credentials too long for SOCKS5"},
      {Proxy(utils::NetProxyTypeHttp), "a\r\nX-Injected: 1", invalid},
      {Proxy(utils::NetProxyTypeHttp), "a b", invalid},
      {Proxy(utils::NetProxyTypeHttp), "", invalid},
      {Proxy(utils::NetProxyTypeHttp), "tab\there", invalid},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.host);
    Client unconnected;
    std::string error;
    EXPECT_EQ(utils::ConnectThroughProxy(c.host, 80, c.proxy, &unconnected, 100, &error),
              Client::ErrorFailed);
    EXPECT_EQ(error, c.reason);
  }
}

TEST(HttpConnectTunnel, RequestCarriesTargetAndCredentialsAndTunnelBytesSurvive) {
  // The proxy's answer and the first tunnel bytes arrive together.
  CannedPeer peer({{0, "HTTP/1.1 200 Connection established\r\nVia: test\r\n\r\nBANNER"}});
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

}  // namespace
