// Proxy handshakes against peers written here: a SOCKS5 server that really
// relays, and canned answers for every way a proxy can refuse or garble.
#include "utils/net/proxy_tunnel.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "net/support/peer_threads.h"
#include "utils/base64.h"
#include "utils/net/base_socket_client.h"

namespace {

using Client = utils::BaseSocketClient;
using nettest::CannedPeer;
using nettest::EchoServer;
using nettest::Fd;

// A SOCKS5 server for one connection: no-auth or username/password, CONNECT
// by address or name, then relays until either side closes.
class Socks5Peer {
 public:
  Socks5Peer(std::string login, std::string password)
      : login_(std::move(login)), password_(std::move(password)), thread_([this] { Serve(); }) {}
  ~Socks5Peer() { thread_.join(); }
  int Port() const { return listener_.Port(); }
  std::string Service() const { return listener_.Service(); }
  // Address type of the CONNECT request, once it has arrived.
  int AddressType() const { return addressType_; }

 private:
  static std::string Read(int descriptor, size_t size) {
    return nettest::ReceiveText(descriptor, size, 5000);
  }

  void Serve() {
    Fd client = listener_.Accept(10000);
    if (!client.Valid()) return;
    const int c = client.Get();
    const std::string greeting = Read(c, 2);
    if (greeting.size() != 2 || greeting[0] != 5) return;
    const std::string methods = Read(c, static_cast<uint8_t>(greeting[1]));
    const char wanted = login_.empty() ? 0x00 : 0x02;
    if (methods.find(wanted) == std::string::npos) {
      nettest::SendText(c, std::string("\x05\xFF", 2));
      return;
    }
    nettest::SendText(c, std::string("\x05", 1) + wanted);
    if (!login_.empty()) {
      const std::string header = Read(c, 2);
      const std::string user = Read(c, static_cast<uint8_t>(header[1]));
      const std::string passwordLength = Read(c, 1);
      const std::string password = Read(c, static_cast<uint8_t>(passwordLength[0]));
      const bool ok = header[0] == 1 && user == login_ && password == password_;
      nettest::SendText(c, std::string("\x01", 1) + (ok ? '\x00' : '\x01'));
      if (!ok) return;
    }
    const std::string request = Read(c, 4);
    addressType_ = static_cast<uint8_t>(request[3]);
    std::string host;
    if (addressType_ == 1 || addressType_ == 4) {
      const std::string raw = Read(c, addressType_ == 1 ? 4 : 16);
      char text[64];
      inet_ntop(addressType_ == 1 ? AF_INET : AF_INET6, raw.data(), text, sizeof(text));
      host = text;
    } else {
      host = Read(c, static_cast<uint8_t>(Read(c, 1)[0]));
    }
    const std::string portBytes = Read(c, 2);
    const int port = (static_cast<uint8_t>(portBytes[0]) << 8) | static_cast<uint8_t>(portBytes[1]);

    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* resolved = nullptr;
    Fd upstream;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &resolved) == 0) {
      upstream = Fd(socket(resolved->ai_family, SOCK_STREAM, 0));
      if (connect(upstream.Get(), resolved->ai_addr, resolved->ai_addrlen) != 0) upstream = Fd();
      freeaddrinfo(resolved);
    }
    if (!upstream.Valid()) {
      nettest::SendText(c, std::string("\x05\x05\x00\x01\0\0\0\0\0\0", 10));
      return;
    }
    nettest::SendText(c, std::string("\x05\x00\x00\x01\x7F\x00\x00\x01\x12\x34", 10));
    Relay(c, upstream.Get());
  }

  static void Relay(int a, int b) {
    pollfd entries[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
    char buffer[4096];
    while (poll(entries, 2, 10000) > 0) {
      for (int i = 0; i < 2; ++i) {
        if (entries[i].revents == 0) continue;
        const ssize_t count = recv(entries[i].fd, buffer, sizeof(buffer), 0);
        if (count <= 0) return;
        nettest::SendText(entries[1 - i].fd, std::string(buffer, static_cast<size_t>(count)));
      }
    }
  }

  nettest::Listener listener_;
  std::string login_;
  std::string password_;
  std::atomic<int> addressType_{0};
  std::thread thread_;
};

utils::NetProxyInfo Proxy(utils::NetProxyType type, const std::string& login = "",
                          const std::string& password = "") {
  utils::NetProxyInfo proxy;
  proxy.host = "127.0.0.1";
  proxy.type = type;
  proxy.login = login;
  proxy.password = password;
  return proxy;
}

// Sends text through the client and expects it back from the echo target.
void ExpectEcho(Client* client, const std::string& text) {
  ASSERT_EQ(utils::SendAll(client, text.data(), text.size(), nullptr, 5000), Client::ErrorNone);
  std::string back(text.size(), '\0');
  ASSERT_EQ(utils::RecvAll(client, &back[0], back.size(), nullptr, 5000), Client::ErrorNone);
  EXPECT_EQ(back, text);
}

TEST(Socks5Tunnel, ReachesTheTargetByNameOrAddressWithOrWithoutCredentials) {
  struct Case {
    const char* target;
    const char* login;
    int addressType;
  };
  const Case cases[] = {{"localhost", "", 3}, {"127.0.0.1", "", 1}, {"localhost", "user", 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.target);
    EchoServer target;
    Socks5Peer peer(c.login, "secret");
    Client client;
    ASSERT_EQ(client.Connect("127.0.0.1", peer.Service(), 5000), Client::ErrorNone);
    std::string error;
    ASSERT_EQ(utils::ConnectThroughProxy(c.target, static_cast<unsigned short>(target.Port()),
                                         Proxy(utils::NetProxyTypeSocks5, c.login, "secret"),
                                         &client, 5000, &error),
              Client::ErrorNone)
        << error;
    ExpectEcho(&client, "through the tunnel");
    EXPECT_EQ(peer.AddressType(), c.addressType);
    client.Close();
  }
}

TEST(Socks5Tunnel, RefusalsAreFailuresWithAReason) {
  struct Case {
    const char* name;
    std::string answer;
    std::string login;
    const char* reason;
  };
  const std::string methodOk("\x05\x00", 2);
  const Case cases[] = {
      {"no acceptable method", std::string("\x05\xFF", 2), "", "SOCKS5 proxy requires credentials"},
      {"bad credentials", std::string("\x05\x02\x01\x01", 4), "user",
       "SOCKS5 proxy rejected the credentials"},
      {"connect refused", methodOk + std::string("\x05\x05\x00\x01\0\0\0\0\0\0", 10), "",
       "SOCKS5 proxy refused example.test:80: connection refused"},
      {"unoffered method", std::string("\x05\x02", 2), "", "Malformed SOCKS5 method selection"},
      {"wrong version", std::string("\x04\x00", 2), "", "Malformed SOCKS5 method selection"},
      {"unknown address type", methodOk + std::string("\x05\x00\x00\x09\0\0\0\0\0\0", 10), "",
       "Malformed SOCKS5 connect answer"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    CannedPeer peer(c.answer, 3);
    Client client;
    ASSERT_EQ(client.Connect("127.0.0.1", peer.Service(), 5000), Client::ErrorNone);
    std::string error;
    EXPECT_EQ(utils::ConnectThroughProxy("example.test", 80,
                                         Proxy(utils::NetProxyTypeSocks5, c.login, "pw"), &client,
                                         5000, &error),
              Client::ErrorFailed);
    EXPECT_EQ(error, c.reason);
  }
}

TEST(Socks5Tunnel, TruncatedSilentAndOversizedCases) {
  {
    // The proxy closes halfway through its connect reply.
    CannedPeer peer(std::string("\x05\x00\x05\x00\x00\x01\x7F", 7), 3,
                    CannedPeer::kCloseAfterAnswer);
    Client client;
    ASSERT_EQ(client.Connect("127.0.0.1", peer.Service(), 5000), Client::ErrorNone);
    EXPECT_EQ(utils::ConnectThroughProxy("example.test", 80, Proxy(utils::NetProxyTypeSocks5),
                                         &client, 5000),
              Client::ErrorEndOfStream);
  }
  {
    // A proxy that never answers: the whole handshake shares one deadline.
    nettest::Listener silent;
    Client client;
    ASSERT_EQ(client.Connect("127.0.0.1", silent.Service(), 5000), Client::ErrorNone);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(utils::ConnectThroughProxy("example.test", 80, Proxy(utils::NetProxyTypeSocks5),
                                         &client, 300),
              Client::ErrorTimedOut);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(250));
  }
  // Names and credentials longer than one length byte never reach the wire.
  Client unconnected;
  std::string error;
  EXPECT_EQ(utils::ConnectThroughProxy(std::string(256, 'a'), 80, Proxy(utils::NetProxyTypeSocks5),
                                       &unconnected, 100, &error),
            Client::ErrorFailed);
  EXPECT_EQ(error, "Target host name too long for a SOCKS5 proxy");
  EXPECT_EQ(
      utils::ConnectThroughProxy("a", 80, Proxy(utils::NetProxyTypeSocks5, std::string(256, 'u')),
                                 &unconnected, 100, &error),
      Client::ErrorFailed);
}

TEST(HttpConnectTunnel, RequestCarriesTargetAndCredentialsAndTunnelBytesSurvive) {
  // The proxy's answer and the first tunnel bytes arrive together.
  CannedPeer peer("HTTP/1.1 200 Connection established\r\nVia: test\r\n\r\nBANNER");
  Client client;
  ASSERT_EQ(client.Connect("127.0.0.1", peer.Service(), 5000), Client::ErrorNone);
  ASSERT_EQ(utils::ConnectThroughProxy("::1", 8443, Proxy(utils::NetProxyTypeHttp, "user", "p:w"),
                                       &client, 5000),
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
  struct Case {
    std::string answer;
    const char* login;
    Client::Error_t result;
    std::string reason;
  };
  const Case cases[] = {
      {"HTTP/1.0 200 OK\n\n", "", Client::ErrorNone, ""},  // bare line feeds
      {"HTTP/1.1 204\r\n\r\n", "", Client::ErrorNone, ""},
      {"HTTP/1.1 403 Forbidden\r\n\r\n", "", Client::ErrorFailed,
       "Proxy refused CONNECT example.test:443: 403 Forbidden"},
      {"HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic\r\n\r\n", "",
       Client::ErrorFailed, "Proxy requires credentials: 407 Proxy Authentication Required"},
      {"HTTP/1.0 407 Nope\r\n\r\n", "user", Client::ErrorFailed,
       "Proxy rejected the credentials: 407 Nope"},
      {"SSH-2.0-OpenSSH\r\n\r\n", "", Client::ErrorFailed,
       "Malformed proxy answer to CONNECT example.test:443"},
      {"HTTP/1.1 20 OK\r\n\r\n", "", Client::ErrorFailed,
       "Malformed proxy answer to CONNECT example.test:443"},
      {"HTTP/1.1 200 OK\r\n", "", Client::ErrorEndOfStream, ""},  // closes before the blank line
      {"HTTP/1.1 200 OK\r\n" + std::string(20000, 'x'), "", Client::ErrorFailed,
       "Proxy answer head exceeds 16384 bytes"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.answer.substr(0, 40));
    Client client;
    std::string error;
    Client::Error_t result;
    {
      CannedPeer peer(c.answer, 0,
                      c.result == Client::ErrorEndOfStream ? CannedPeer::kCloseAfterAnswer
                                                           : CannedPeer::kHoldOpen);
      ASSERT_EQ(client.Connect("127.0.0.1", peer.Service(), 5000), Client::ErrorNone);
      result = utils::ConnectThroughProxy("example.test", 443,
                                          Proxy(utils::NetProxyTypeHttps, c.login, "pw"), &client,
                                          5000, &error);
      client.Close();
    }
    EXPECT_EQ(result, c.result);
    EXPECT_EQ(error, c.reason);
  }
}

TEST(HttpConnectTunnel, TargetsThatWouldInjectHeaderLinesAreRefusedBeforeSending) {
  Client unconnected;
  std::string error;
  for (const char* host : {"a\r\nX-Injected: 1", "a b", "", "tab\there"}) {
    EXPECT_EQ(utils::ConnectThroughProxy(host, 80, Proxy(utils::NetProxyTypeHttp), &unconnected,
                                         100, &error),
              Client::ErrorFailed);
    EXPECT_EQ(error, "Invalid proxy target host");
  }
}

}  // namespace
