// The socket layer, the client over it and the proxy tunnels it makes,
// against raw loopback peers.
#include "utils/net/base_socket_client.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "net/support/peers.h"
#include "net/test_helpers.h"
#include "utils/base64.h"
#include "utils/net/cancelable_block_operation_point.h"
#include "utils/net/proxy_tunnel.h"
#include "utils/net/socket.h"

namespace {

using nettest::Client;
using nettest::Clock;
using nettest::Connected;
using nettest::ElapsedMs;
using utils::impl::Socket;

// Bounds are generous on purpose: they separate "at once" from "waited the
// whole time-out" without racing a loaded machine.
constexpr int kLongMs = 60000;
constexpr long kPromptMs = 10000;

bool WaitFor(int descriptor, short events) {
  pollfd entry = {descriptor, events, 0};
  return poll(&entry, 1, 5000) == 1;
}

// A connection moved (non-blocking) into a bare Socket.
struct Bare : nettest::Connected {
  Bare() { socket.Attach(client.DetachNativeHandle(), "localhost"); }
  Socket socket{nullptr};
};

// A failed TLS set-up leaves the plain socket working.
TEST(Socket, ReceiveReportsWouldBlockDataPeekAndEndOfStreamAfterFailedTls) {
  nettest::ClearTlsEnvironment();
  Bare pair;
  // The client lets go of the detached descriptor for good.
  EXPECT_EQ(pair.client.DetachNativeHandle(), -1);
  char buffer[16];
  EXPECT_EQ(pair.client.Recv(buffer, 1, nullptr, 100), Client::ErrorFailed);
  pair.client.Close();
  EXPECT_EQ(pair.socket.InitializeSecureData("localhost", true, utils::tls::CertSettings()),
            utils::impl::SocketStatusFailed);
  EXPECT_FALSE(pair.socket.IsSecure());
  size_t done = 99;
  EXPECT_EQ(pair.socket.Recv(buffer, sizeof(buffer), &done), utils::impl::SocketStatusWantRead);
  EXPECT_EQ(pair.socket.Peek(buffer, sizeof(buffer), &done), utils::impl::SocketStatusWantRead);
  EXPECT_EQ(done, 99u);

  nettest::SendText(pair.peer.Get(), "hello");
  ASSERT_TRUE(WaitFor(pair.socket.Descriptor(), POLLIN));
  ASSERT_EQ(pair.socket.Peek(buffer, sizeof(buffer), &done), utils::impl::SocketStatusDone);
  EXPECT_EQ(std::string(buffer, done), "hello");
  ASSERT_EQ(pair.socket.Recv(buffer, 3, &done), utils::impl::SocketStatusDone);
  EXPECT_EQ(std::string(buffer, done), "hel");  // the peeked bytes were still there
  ASSERT_EQ(pair.socket.Recv(buffer, sizeof(buffer), nullptr), utils::impl::SocketStatusDone);

  pair.peer = nettest::Fd();
  ASSERT_TRUE(WaitFor(pair.socket.Descriptor(), POLLIN));
  EXPECT_EQ(pair.socket.Recv(buffer, sizeof(buffer), &done), utils::impl::SocketStatusEndOfStream);
}

TEST(Socket, SendToAVanishedPeerFailsWithoutSignal) {
  Bare pair;
  const std::string chunk(64 * 1024, 'x');
  int status = utils::impl::SocketStatusDone;
  // Without MSG_NOSIGNAL this would raise SIGPIPE and end the test program.
  pair.peer = nettest::Fd();
  for (int i = 0; i < 100 && status != utils::impl::SocketStatusFailed; ++i) {
    WaitFor(pair.socket.Descriptor(), POLLOUT);
    status = pair.socket.Send(chunk.data(), chunk.size(), nullptr);
  }
  EXPECT_EQ(status, utils::impl::SocketStatusFailed);
}

// A socket never leaks a descriptor: Create again and Close release the old one.
TEST(Socket, CreateReplacesAndCloseReleasesTheDescriptor) {
  Socket socket(nullptr);
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, false), utils::impl::SocketStatusDone);
  const int first = socket.Descriptor();
  EXPECT_EQ(fcntl(first, F_GETFL) & O_NONBLOCK, 0);
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
  const int second = socket.Descriptor();
  EXPECT_TRUE(second == first || fcntl(first, F_GETFD) == -1);  // the number may be reused
  EXPECT_NE(fcntl(second, F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(socket.Close(), 0);
  EXPECT_EQ(fcntl(second, F_GETFD), -1);
}

// Each kind of wait ends at its time-out, or promptly when another thread
// cancels it. Whether the wait has begun by then does not matter, since a
// pending cancellation cancels the next wait.
TEST(Client, EachWaitEndsAtItsTimeOutOrWhenCanceledFromAnotherThread) {
  nettest::SilentListener silent;
  char buffer[100];
  size_t received;
  const struct {
    const char* name;
    Client::Error_t atTimeOut;
    size_t received;  // what the count says afterwards; 1 is untouched
    std::function<Client::Error_t(Connected&, int)> wait;
  } cases[] = {
      {"RecvAll", Client::ErrorTimedOut, 10,  // one deadline over the whole buffer
       [&](Connected& c, int ms) {
         nettest::SendText(c.peer.Get(), std::string(10, 'a'));
         return utils::RecvAll(&c.client, buffer, sizeof(buffer), &received, ms);
       }},
      {"Recv", Client::ErrorTimedOut, 0,
       [&](Connected& c, int ms) { return c.client.Recv(buffer, sizeof(buffer), &received, ms); }},
      {"TLS handshake", Client::ErrorTimedOut, 1,
       [&](Connected& c, int ms) {
         return c.client.InitiateSecureSession("localhost", ms, utils::kSecureSessionNoVerify,
                                               utils::tls::CertSettings());
       }},
      {"Connect", Client::ErrorTimedOut, 1,
       [&](Connected& c, int ms) { return c.client.Connect("127.0.0.1", silent.Service(), ms); }},
  };
  for (const auto& w : cases) {
    SCOPED_TRACE(w.name);
    Connected timed, canceled;  // peers that never answer
    auto start = Clock::now();
    received = 1;
    EXPECT_EQ(w.wait(timed, 300), w.atTimeOut);
    EXPECT_GE(ElapsedMs(start), 250);
    EXPECT_LT(ElapsedMs(start), kPromptMs);
    EXPECT_EQ(received, w.received);
    std::thread canceler([&] {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
      canceled.client.Cancel();
    });
    start = Clock::now();
    received = 1;
    EXPECT_EQ(w.wait(canceled, kLongMs), Client::ErrorCanceled);
    EXPECT_LT(ElapsedMs(start), kPromptMs);
    EXPECT_EQ(received, w.received);
    canceler.join();
  }
}

TEST(Client, EachPendingCancelConsumesExactlyOneWait) {
  Client client;
  ASSERT_EQ(client.Cancel(), Client::ErrorNone);
  ASSERT_EQ(client.Cancel(), Client::ErrorNone);
  const auto start = Clock::now();
  EXPECT_EQ(client.Sleep(kLongMs), Client::ErrorCanceled);
  EXPECT_EQ(client.Sleep(kLongMs), Client::ErrorCanceled);
  EXPECT_LT(ElapsedMs(start), kPromptMs);
  EXPECT_EQ(client.Sleep(0), Client::ErrorNone);

  // Close keeps the pipe and so a pending cancellation; Reset drops it.
  client.Cancel();
  client.Close();
  EXPECT_EQ(client.Sleep(kLongMs), Client::ErrorCanceled);
  client.Cancel();
  client.Reset();
  EXPECT_EQ(client.Sleep(1), Client::ErrorNone);
}

TEST(CancelableBlockOperationPoint, CancellationWinsOverReadiness) {
  Connected c;  // a connected socket is writable at once
  utils::impl::CancelableBlockOperationPoint point;
  const int peer = c.peer.Get();
  ASSERT_TRUE(point.Cancel());
  EXPECT_EQ(point.WaitFor(peer, utils::impl::OperationWrite, 5000), utils::impl::WaitCanceled);
  EXPECT_EQ(point.WaitFor(peer, utils::impl::OperationWrite, 5000), utils::impl::WaitReady);
  EXPECT_EQ(point.WaitFor(peer, utils::impl::OperationRead, 0), utils::impl::WaitTimedOut);
}

TEST(Client, TlsWritesToAResetPeerFailWithoutSignal) {
  Connected c;
  const linger reset = {1, 0};  // closing with a zero linger time resets the connection
  setsockopt(c.peer.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  c.peer = nettest::Fd();
  // The first write reports the reset; later ones fail with EPIPE, which
  // raises SIGPIPE and would end this program if it were not held off.
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_EQ(
        c.client.InitiateSecureSession("localhost", 1000, utils::kSecureSessionNoVerify, utils::tls::CertSettings()),
        Client::ErrorFailed);
  }
}

TEST(Client, WholeBuffersCrossInBothDirectionsUntilEndOfStream) {
  Connected c;
  // Larger than the socket buffers, so that SendAll must wait for room.
  std::string payload(8 * 1024 * 1024, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
  std::thread echo([&] {
    nettest::SendText(c.peer.Get(), nettest::ReceiveText(c.peer.Get(), payload.size(), 10000));
    nettest::SendText(c.peer.Get(), "tail");
    c.peer = nettest::Fd();
  });
  size_t sent = 0;
  EXPECT_EQ(utils::SendAll(&c.client, payload.data(), payload.size(), &sent, 20000), Client::ErrorNone);
  EXPECT_EQ(sent, payload.size());
  std::string back(payload.size(), '\0');
  size_t received = 0;
  EXPECT_EQ(utils::RecvAll(&c.client, &back[0], back.size(), &received, 20000), Client::ErrorNone);
  EXPECT_EQ(received, payload.size());
  EXPECT_TRUE(back == payload);
  echo.join();
  EXPECT_EQ(utils::RecvAll(&c.client, &back[0], 100, &received, 5000), Client::ErrorEndOfStream);
  EXPECT_EQ(back.substr(0, received), "tail");
}

// The resolver gives ::1 and 127.0.0.1 for an empty host. With ::1 silent on
// the port and 127.0.0.1 listening, the connection arrives through the second
// address once the first has used up its time-out.
TEST(Client, ConnectMovesOnFromAnAddressThatDoesNotAnswer) {
  std::unique_ptr<nettest::Listener> listener;
  std::unique_ptr<nettest::SilentListener> silent;
  for (int attempt = 0; attempt < 20 && !silent; ++attempt) {
    listener.reset(new nettest::Listener(AF_INET));
    try {
      silent.reset(new nettest::SilentListener(AF_INET6, listener->Port()));
    } catch (const std::runtime_error&) {  // that port number was taken on ::1
    }
  }
  ASSERT_TRUE(silent) << "no port free on both loopback addresses";
  const std::string service = listener->Service();

  Client client;
  auto start = Clock::now();
  ASSERT_EQ(client.ConnectEx("", service, utils::ConnectionModeIPv6ThenIPv4, 1000), Client::ErrorNone);
  EXPECT_GE(ElapsedMs(start), 900);
  EXPECT_LT(ElapsedMs(start), 1000 + kPromptMs);
  EXPECT_TRUE(listener->Accept().Valid());

  // IPv4 first, or IPv4 only, never meets the silent address.
  for (auto mode : {utils::ConnectionModeIPv4ThenIPv6, utils::ConnectionModeIPv4}) {
    start = Clock::now();
    EXPECT_EQ(client.ConnectEx("", service, mode, kLongMs), Client::ErrorNone) << mode;
    EXPECT_LT(ElapsedMs(start), kPromptMs);
    EXPECT_TRUE(listener->Accept().Valid());
  }
  // IPv6 only has nothing else to try; an address literal ignores the mode.
  EXPECT_EQ(client.ConnectEx("", service, utils::ConnectionModeIPv6, 300), Client::ErrorTimedOut);
  EXPECT_EQ(client.ConnectEx("127.0.0.1", service, utils::ConnectionModeIPv6, 5000), Client::ErrorNone);
  EXPECT_EQ(client.Connect("127.0.0.1", std::to_string(nettest::FreePort(AF_INET)), 5000), Client::ErrorFailed);
}

TEST(Client, ConnectsToLocalSockets) {
  nettest::TempDir directory;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::strncpy(address.sun_path, directory.File("socket").c_str(), sizeof(address.sun_path) - 1);
  nettest::Fd server(socket(AF_UNIX, SOCK_STREAM, 0));
  ASSERT_EQ(bind(server.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
  ASSERT_EQ(listen(server.Get(), 4), 0);

  Client client;
  ASSERT_EQ(client.ConnectLocal(address.sun_path, 5000), Client::ErrorNone);
  nettest::Fd peer(accept(server.Get(), nullptr, nullptr));
  ASSERT_EQ(client.Send("ping", 4, nullptr, 5000), Client::ErrorNone);
  EXPECT_EQ(nettest::ReceiveText(peer.Get(), 4), "ping");
}

// Proxy handshakes against a peer that answers canned bytes, records what the
// client sent, and covers every way a proxy can refuse or garble. A half-close
// by the peer ends the stream without the reset that unread bytes would cause.
template <size_t N>
std::string Bytes(const char (&text)[N]) {  // keeps embedded NULs
  return std::string(text, N - 1);
}

utils::NetProxyInfo Proxy(utils::NetProxyType type, const std::string& login = "", const std::string& password = "pw") {
  return {"127.0.0.1", 0, login, password, type};
}

// The client must send exactly these requests, take exactly the proxy's
// reply, whatever address form it has, and leave what follows to the tunnel
// in both directions.
TEST(ProxyTunnel, SendsExactRequestsAndTheTunnelStartsRightAfterTheReply) {
  const std::string port = Bytes("\x1F\x90");  // 8080
  const std::string greeting = Bytes("\x05\x01\x00"), methodOk = Bytes("\x05\x00");
  const std::string byName = Bytes("\x05\x01\x00\x03\x09localhost") + port;
  const auto socks5 = utils::NetProxyTypeSocks5;
  const struct {
    utils::NetProxyInfo proxy;
    const char* target;
    std::vector<std::pair<std::string, std::string>> exchange;  // client's bytes, proxy's answer
  } cases[] = {
      {Proxy(socks5), "localhost", {{greeting, methodOk}, {byName, Bytes("\x05\x00\x00\x01\x7F\x00\x00\x01\x12\x34")}}},
      {Proxy(socks5, "user", "secret"),
       "127.0.0.1",
       {{Bytes("\x05\x02\x00\x02"), Bytes("\x05\x02")},
        {Bytes("\x01\x04user\x06secret"), Bytes("\x01\x00")},
        {Bytes("\x05\x01\x00\x01\x7F\x00\x00\x01") + port,
         Bytes("\x05\x00\x00\x04") + std::string(16, '\0') + Bytes("\x12\x34")}}},
      {Proxy(socks5), "localhost", {{greeting, methodOk}, {byName, Bytes("\x05\x00\x00\x03\x04host\x12\x34")}}},
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
        nettest::SendText(c.peer.Get(), step.second + (&step == &row.exchange.back() ? "BANNER" : ""));
      }
      request += nettest::ReceiveText(c.peer.Get(), std::string::npos);
    });
    std::string error;
    EXPECT_EQ(utils::ConnectThroughProxy(row.target, 8080, row.proxy, &c.client, 5000, &error), Client::ErrorNone)
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
  const char* invalid = "Invalid proxy target host";
  const struct {
    utils::NetProxyInfo proxy;
    std::string answer;
    Client::Error_t result;
    std::string reason;
    std::string host = "example.test";
  } cases[] = {
      {Proxy(socks5), Bytes("\x05\xFF"), failed, "SOCKS5 proxy requires credentials"},
      {Proxy(socks5, "user"), Bytes("\x05\x02\x01\x01"), failed, "SOCKS5 proxy rejected the credentials"},
      {Proxy(socks5), methodOk + Bytes("\x05\x05\x00\x01\0\0\0\0\0\0"), failed,
       "SOCKS5 proxy refused example.test:80: connection refused"},
      {Proxy(socks5), Bytes("\x05\x02"), failed, "Malformed SOCKS5 method selection"},  // not offered
      {Proxy(socks5), methodOk + Bytes("\x05\x00\x00\x09\0\0\0\0\0\0"), failed, "Malformed SOCKS5 connect answer"},
      {Proxy(socks5), methodOk + Bytes("\x05\x00\x00\x01\x7F"), Client::ErrorEndOfStream, ""},
      {Proxy(socks5), "", Client::ErrorTimedOut, ""},  // the whole handshake shares one deadline
      {Proxy(socks5), "", failed, "Target host name too long for a SOCKS5 proxy", longName},
      {Proxy(socks5, longName), "", failed, "Proxy credentials too long for SOCKS5"},
      {Proxy(socks5, "u", longName), "", failed, "Proxy credentials too long for SOCKS5"},
      {Proxy(http), "HTTP/1.0 200 OK\n\n", ok, ""},  // bare line feeds
      {Proxy(http), "HTTP/1.1 403 Forbidden\r\n\r\n", failed, "Proxy refused CONNECT example.test:80: 403 Forbidden"},
      {Proxy(http), "HTTP/1.0 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic\r\n\r\n", failed,
       "Proxy requires credentials: 407 Proxy Authentication Required"},
      {Proxy(http, "user"), "HTTP/1.0 407 Nope\r\n\r\n", failed, "Proxy rejected the credentials: 407 Nope"},
      {Proxy(http), "HTTP/1.1 20 OK\r\n\r\n", failed, "Malformed proxy answer to CONNECT example.test:80"},
      {Proxy(http), "HTTP/1.1 200 OK\r\n", Client::ErrorEndOfStream, ""},
      {Proxy(http), "HTTP/1.1 200 OK\r\n" + std::string(20000, 'x'), failed, "Proxy answer head exceeds 16384 bytes"},
      {Proxy(http), "", failed, invalid, "a\r\nX-Injected: 1"},
      {Proxy(http), "", failed, invalid, "a b"},
      {Proxy(http), "", failed, invalid, ""},
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
    EXPECT_EQ(utils::ConnectThroughProxy(row.host, 80, row.proxy, &c.client, timeoutMs, &error), row.result);
    EXPECT_EQ(error, row.reason);
    EXPECT_GE(nettest::ElapsedMs(start), timeoutMs == 300 ? 250 : 0);
    c.client.Close();
  }
}

}  // namespace
