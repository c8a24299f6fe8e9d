// Proxy handshakes against a peer that answers canned bytes, records what the
// client sent, and covers every way a proxy can refuse or garble. A half-close
// by the peer ends the stream without the reset that unread bytes would cause.
#include "utils/net/proxy_tunnel.h"

#include <sys/socket.h>

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "net/test_helpers.h"
#include "utils/base64.h"

namespace {

using nettest::Client;

template <size_t N>
std::string Bytes(const char (&text)[N]) {  // keeps embedded NULs
  return std::string(text, N - 1);
}

utils::NetProxyInfo Proxy(utils::NetProxyType type, const std::string& login = "",
                          const std::string& password = "pw") {
  return {"127.0.0.1", 0, login, password, type};
}

// The client must send exactly these requests, take exactly the proxy's
// reply, whatever address form it has, and leave what follows to the tunnel
// in both directions.
TEST(ProxyTunnel, SendsExactRequestsAndTheTunnelStartsRightAfterTheReply) {
  const std::string port = Bytes("\x1F\x90");  // 8080
  const std::string greeting = Bytes("\x05\x01\x00"), methodOk = Bytes("\x05\x00");
  const std::string byName = Bytes("\x05\x01\x00\x03\x09localhost") + port;
  const struct {
    utils::NetProxyInfo proxy;
    const char* target;
    std::vector<std::pair<std::string, std::string>> exchange;  // client's bytes, proxy's answer
  } cases[] = {
      {Proxy(utils::NetProxyTypeSocks5),
       "localhost",
       {{greeting, methodOk}, {byName, Bytes("\x05\x00\x00\x01\x7F\x00\x00\x01\x12\x34")}}},
      {Proxy(utils::NetProxyTypeSocks5, "user", "secret"),
       "127.0.0.1",
       {{Bytes("\x05\x02\x00\x02"), Bytes("\x05\x02")},
        {Bytes("\x01\x04user\x06secret"), Bytes("\x01\x00")},
        {Bytes("\x05\x01\x00\x01\x7F\x00\x00\x01") + port,
         Bytes("\x05\x00\x00\x04") + std::string(16, '\0') + Bytes("\x12\x34")}}},
      {Proxy(utils::NetProxyTypeSocks5),
       "localhost",
       {{greeting, methodOk}, {byName, Bytes("\x05\x00\x00\x03\x04host\x12\x34")}}},
      {Proxy(utils::NetProxyTypeHttp, "user", "p:w"),
       "::1",
       {{"CONNECT [::1]:8080 HTTP/1.1\r\nHost: [::1]:8080\r\nProxy-Authorization: Basic " +
             utils::Base64Encode(std::string("user:p:w")) + "\r\n\r\n",
         "HTTP/1.1 200 Connection established\r\nVia: test\r\n\r\n"}}},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.target);
    nettest::Connected c;  // the proxy's side is the peer
    std::string request;
    nettest::PeerThread proxy([&] {
      for (const auto& step : row.exchange) {
        request += nettest::ReceiveText(c.peer.Get(), step.first.size());
        // The first tunnel bytes come with the reply.
        nettest::SendText(c.peer.Get(),
                          step.second + (&step == &row.exchange.back() ? "BANNER" : ""));
      }
      request += nettest::ReceiveText(c.peer.Get(), std::string::npos);
    });
    std::string error;
    EXPECT_EQ(utils::ConnectThroughProxy(row.target, 8080, row.proxy, &c.client, 5000, &error),
              Client::ErrorNone)
        << error;
    char banner[6];
    EXPECT_EQ(utils::RecvAll(&c.client, banner, sizeof(banner), nullptr, 5000), Client::ErrorNone);
    EXPECT_EQ(std::string(banner, sizeof(banner)), "BANNER");
    EXPECT_EQ(c.client.Send("PING", 4, nullptr, 5000), Client::ErrorNone);
    c.client.Close();
    proxy.join();
    std::string sent;
    for (const auto& step : row.exchange) sent += step.first;
    EXPECT_EQ(request, sent + "PING");
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
  for (const auto& row : cases) {
    SCOPED_TRACE(row.answer.substr(0, 40));
    nettest::Connected c;
    nettest::PeerThread proxy([&] {
      nettest::ReceiveText(c.peer.Get(), 3);  // then answers, whatever the request
      nettest::SendText(c.peer.Get(), row.answer);
      if (row.result == Client::ErrorEndOfStream) shutdown(c.peer.Get(), SHUT_WR);
      nettest::ReceiveText(c.peer.Get(), std::string::npos);  // until the client goes
    });
    std::string error;
    const int timeoutMs = row.result == Client::ErrorTimedOut ? 300 : 5000;
    const auto start = nettest::Clock::now();
    EXPECT_EQ(utils::ConnectThroughProxy("example.test", 80, Proxy(row.type, row.login), &c.client,
                                         timeoutMs, &error),
              row.result);
    EXPECT_EQ(error, row.reason);
    EXPECT_GE(nettest::ElapsedMs(start), timeoutMs == 300 ? 250 : 0);
    c.client.Close();
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

}  // namespace
