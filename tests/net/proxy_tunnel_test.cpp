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

// Answers other than success, and targets or credentials that are refused
// before anything is sent: names and credentials longer than one length byte,
// hosts that would inject header lines.
TEST(ProxyTunnel, FailuresComeWithAReason) {
  const auto socks5 = utils::NetProxyTypeSocks5, http = utils::NetProxyTypeHttps;
  const Client::Error_t ok = Client::ErrorNone, failed = Client::ErrorFailed;
  const std::string methodOk = Bytes("\x05\x00"), longName(256, 'a');
  const std::string malformed = "Malformed proxy answer to CONNECT example.test:80";
  const char* invalid = "Invalid proxy target host";
  const struct {
    utils::NetProxyInfo proxy;
    std::string answer;
    Client::Error_t result;
    std::string reason;
    std::string host = "example.test";
  } cases[] = {
      {Proxy(socks5), Bytes("\x05\xFF"), failed, "SOCKS5 proxy requires credentials"},
      {Proxy(socks5, "user"), Bytes("\x05\x02\x01\x01"), failed,
       "SOCKS5 proxy rejected the credentials"},
      {Proxy(socks5), methodOk + Bytes("\x05\x05\x00\x01\0\0\0\0\0\0"), failed,
       "SOCKS5 proxy refused example.test:80: connection refused"},
      {Proxy(socks5), Bytes("\x05\x02"), failed,
       "Malformed SOCKS5 method selection"},  // not offered
      {Proxy(socks5), Bytes("\x04\x00"), failed, "Malformed SOCKS5 method selection"},
      {Proxy(socks5), methodOk + Bytes("\x05\x00\x00\x09\0\0\0\0\0\0"), failed,
       "Malformed SOCKS5 connect answer"},
      {Proxy(socks5), methodOk + Bytes("\x05\x00\x00\x01\x7F"), Client::ErrorEndOfStream, ""},
      {Proxy(socks5), "", Client::ErrorTimedOut, ""},  // the whole handshake shares one deadline
      {Proxy(socks5), "", failed, "Target host name too long for a SOCKS5 proxy", longName},
      {Proxy(socks5, longName), "", failed, "Proxy credentials too long for SOCKS5"},
      {Proxy(socks5, "u", longName), "", failed, "Proxy credentials too long for SOCKS5"},
      {Proxy(http), "HTTP/1.0 200 OK\n\n", ok, ""},  // bare line feeds
      {Proxy(http), "HTTP/1.1 204\r\n\r\n", ok, ""},
      {Proxy(http), "HTTP/1.1 403 Forbidden\r\n\r\n", failed,
       "Proxy refused CONNECT example.test:80: 403 Forbidden"},
      {Proxy(http),
       "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic\r\n\r\n", failed,
       "Proxy requires credentials: 407 Proxy Authentication Required"},
      {Proxy(http, "user"), "HTTP/1.0 407 Nope\r\n\r\n", failed,
       "Proxy rejected the credentials: 407 Nope"},
      {Proxy(http), "SSH-2.0-OpenSSH\r\n\r\n", failed, malformed},
      {Proxy(http), "HTTP/1.1 20 OK\r\n\r\n", failed, malformed},
      {Proxy(http), "HTTP/1.1 200 OK\r\n", Client::ErrorEndOfStream, ""},
      {Proxy(http), "HTTP/1.1 200 OK\r\n" + std::string(20000, 'x'), failed,
       "Proxy answer head exceeds 16384 bytes"},
      {Proxy(http), "", failed, invalid, "a\r\nX-Injected: 1"},
      {Proxy(http), "", failed, invalid, "a b"},
      {Proxy(http), "", failed, invalid, ""},
      {Proxy(http), "", failed, invalid, "tab\there"},
  };
  for (const auto& row : cases) {
    SCOPED_TRACE(row.answer.substr(0, 40) + row.host.substr(0, 20));
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
    EXPECT_EQ(utils::ConnectThroughProxy(row.host, 80, row.proxy, &c.client, timeoutMs, &error),
              row.result);
    EXPECT_EQ(error, row.reason);
    EXPECT_GE(nettest::ElapsedMs(start), timeoutMs == 300 ? 250 : 0);
    c.client.Close();
  }
}

}  // namespace
