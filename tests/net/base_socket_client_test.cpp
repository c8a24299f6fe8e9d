// The socket layer and the client over it, against raw loopback peers.
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

#include <gtest/gtest.h>

#include "net/support/loopback.h"
#include "net/support/peers.h"
#include "net/test_helpers.h"
#include "utils/net/cancelable_block_operation_point.h"
#include "utils/net/sockaddr.h"
#include "utils/net/socket.h"

namespace {

using nettest::Client;
using nettest::Clock;
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

// A non-blocking Socket connected to a loopback listener, and the peer's end.
struct ConnectedSocket {
  ConnectedSocket() : socket(nullptr) {
    EXPECT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
    utils::Sockaddr address("127.0.0.1", static_cast<unsigned>(listener.Port()));
    socket.Connect(address.AsSockaddr(), address.GetSockaddrLen());
    EXPECT_TRUE(WaitFor(socket.Descriptor(), POLLOUT));
    EXPECT_FALSE(socket.IsError());
    peer = listener.Accept();
    EXPECT_TRUE(peer.Valid());
  }
  nettest::Listener listener;
  Socket socket;
  nettest::Fd peer;
};

// A client connected to a loopback listener, and the accepted peer.
struct Connected {
  Connected() {
    EXPECT_EQ(nettest::ConnectLoopback(&client, listener.Service()), Client::ErrorNone);
    peer = listener.Accept();
  }
  nettest::Listener listener;
  Client client;
  nettest::Fd peer;
};

TEST(Socket, ReceiveReportsWouldBlockDataPeekAndEndOfStream) {
  ConnectedSocket pair;
  char buffer[16];
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

TEST(Socket, SendReportsFullBufferAndVanishedPeerWithoutSignal) {
  ConnectedSocket pair;
  const int small = 4096;
  setsockopt(pair.socket.Descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  const std::string chunk(64 * 1024, 'x');
  int status = utils::impl::SocketStatusDone;
  for (int i = 0; i < 10000 && status == utils::impl::SocketStatusDone; ++i) {
    status = pair.socket.Send(chunk.data(), chunk.size(), nullptr);
  }
  EXPECT_EQ(status, utils::impl::SocketStatusWantWrite);

  // Without MSG_NOSIGNAL this would raise SIGPIPE and end the test program.
  pair.peer = nettest::Fd();
  for (int i = 0; i < 100 && status != utils::impl::SocketStatusFailed; ++i) {
    WaitFor(pair.socket.Descriptor(), POLLOUT);
    status = pair.socket.Send(chunk.data(), chunk.size(), nullptr);
  }
  EXPECT_EQ(status, utils::impl::SocketStatusFailed);
}

TEST(Socket, OwnershipMovesThroughCreateAttachAndDetach) {
  Socket socket(nullptr);
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, false), utils::impl::SocketStatusDone);
  const int first = socket.Descriptor();
  EXPECT_EQ(fcntl(first, F_GETFL) & O_NONBLOCK, 0);
  // Create again closes the first descriptor (whose number the new one may reuse).
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
  EXPECT_TRUE(socket.Descriptor() == first || fcntl(first, F_GETFD) == -1);
  EXPECT_NE(fcntl(socket.Descriptor(), F_GETFL) & O_NONBLOCK, 0);

  const int detached = socket.Detach();
  EXPECT_EQ(socket.Descriptor(), -1);
  EXPECT_NE(fcntl(detached, F_GETFD), -1) << "detaching must not close";
  socket.Attach(detached, "example.test");
  EXPECT_EQ(socket.Descriptor(), detached);
  EXPECT_EQ(socket.HostName(), "example.test");
  EXPECT_EQ(socket.Close(), 0);
  EXPECT_EQ(socket.Descriptor(), -1);
  EXPECT_EQ(fcntl(detached, F_GETFD), -1);
}

TEST(Socket, FailedTlsSetUpLeavesThePlainSocket) {
  nettest::ClearTlsEnvironment();
  ConnectedSocket pair;
  const int descriptor = pair.socket.Descriptor();
  EXPECT_EQ(pair.socket.InitializeSecureData("localhost", true, utils::tls::CertSettings()),
            utils::impl::SocketStatusFailed);
  EXPECT_FALSE(pair.socket.IsSecure());
  EXPECT_EQ(pair.socket.Descriptor(), descriptor);
  nettest::SendText(pair.peer.Get(), "plain");
  char buffer[8];
  size_t done = 0;
  ASSERT_TRUE(WaitFor(descriptor, POLLIN));
  ASSERT_EQ(pair.socket.Recv(buffer, sizeof(buffer), &done), utils::impl::SocketStatusDone);
  EXPECT_EQ(std::string(buffer, done), "plain");

  // Without verification the set-up needs no CA and switches to TLS.
  EXPECT_EQ(pair.socket.InitializeSecureData(nullptr, false, utils::tls::CertSettings()),
            utils::impl::SocketStatusDone);
  EXPECT_TRUE(pair.socket.IsSecure());
  pair.socket.FreeSecureData();
  EXPECT_FALSE(pair.socket.IsSecure());
}

// Runs call while another thread cancels client a little later, which must
// end it promptly. Whether the wait has begun by then does not matter, since
// a pending cancellation cancels the next wait.
template <typename Call>
void ExpectCanceledPromptly(Client* client, Call call) {
  std::thread canceler([client] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    client->Cancel();
  });
  const auto start = Clock::now();
  EXPECT_EQ(call(), Client::ErrorCanceled);
  EXPECT_LT(ElapsedMs(start), kPromptMs);
  canceler.join();
}

TEST(Client, CancelFromAnotherThreadWakesEachKindOfWait) {
  Connected c;  // the peer never answers
  char buffer[8];
  size_t received = 1;
  ExpectCanceledPromptly(&c.client,
                         [&] { return c.client.Recv(buffer, sizeof(buffer), &received, kLongMs); });
  EXPECT_EQ(received, 0u);
  ExpectCanceledPromptly(&c.client, [&] { return c.client.Sleep(kLongMs); });
  ExpectCanceledPromptly(&c.client, [&] {
    return c.client.InitiateSecureSession("localhost", kLongMs, utils::kSecureSessionNoVerify,
                                          utils::tls::CertSettings());
  });
  nettest::SilentListener silent;
  Client connecting;
  ExpectCanceledPromptly(
      &connecting, [&] { return connecting.Connect("127.0.0.1", silent.Service(), kLongMs); });
}

TEST(Client, EachPendingCancelConsumesExactlyOneWait) {
  Client client;
  EXPECT_EQ(client.Sleep(0), Client::ErrorNone);
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
  EXPECT_EQ(point.WaitFor(peer, static_cast<utils::impl::OperationType_t>(9), 0),
            utils::impl::WaitFailed);
}

TEST(Client, WaitsEndAtTheirTimeOutKeepingWhatArrived) {
  Connected c;  // the peer sends ten bytes, then nothing
  nettest::SendText(c.peer.Get(), std::string(10, 'a'));
  nettest::SilentListener silent;
  Client connecting;
  char buffer[100];
  size_t received = 0;
  const struct {
    const char* name;
    long minMs;
    std::function<Client::Error_t()> call;
  } cases[] = {
      {"RecvAll", 250,
       [&] { return utils::RecvAll(&c.client, buffer, sizeof(buffer), &received, 300); }},
      {"Recv", 150, [&] { return c.client.Recv(buffer, sizeof(buffer), nullptr, 200); }},
      {"Recv without waiting", 0, [&] { return c.client.Recv(buffer, 1, nullptr, 0); }},
      {"TLS handshake", 250,
       [&] {
         return c.client.InitiateSecureSession("localhost", 300, utils::kSecureSessionNoVerify,
                                               utils::tls::CertSettings());
       }},
      {"Connect", 250, [&] { return connecting.Connect("127.0.0.1", silent.Service(), 300); }},
  };
  for (const auto& w : cases) {
    SCOPED_TRACE(w.name);
    const auto start = Clock::now();
    EXPECT_EQ(w.call(), Client::ErrorTimedOut);
    EXPECT_GE(ElapsedMs(start), w.minMs);
    EXPECT_LT(ElapsedMs(start), kPromptMs);
  }
  EXPECT_EQ(received, 10u);  // RecvAll has one deadline over the whole buffer
}

TEST(Client, TlsWritesToAResetPeerFailWithoutSignal) {
  Connected c;
  const linger reset = {1, 0};  // closing with a zero linger time resets the connection
  setsockopt(c.peer.Get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  c.peer = nettest::Fd();
  // The first write reports the reset; later ones fail with EPIPE, which
  // raises SIGPIPE and would end this program if it were not held off.
  for (int attempt = 0; attempt < 3; ++attempt) {
    EXPECT_EQ(c.client.InitiateSecureSession("localhost", 1000, utils::kSecureSessionNoVerify,
                                             utils::tls::CertSettings()),
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
  EXPECT_EQ(utils::SendAll(&c.client, payload.data(), payload.size(), &sent, 20000),
            Client::ErrorNone);
  EXPECT_EQ(sent, payload.size());
  std::string back(payload.size(), '\0');
  size_t received = 0;
  EXPECT_EQ(utils::RecvAll(&c.client, &back[0], back.size(), &received, 20000), Client::ErrorNone);
  EXPECT_EQ(received, payload.size());
  EXPECT_TRUE(back == payload);
  echo.join();
  EXPECT_EQ(utils::RecvAll(&c.client, &back[0], 100, &received, 5000), Client::ErrorEndOfStream);
  EXPECT_EQ(back.substr(0, received), "tail");
  EXPECT_EQ(utils::RecvAll(&c.client, &back[0], 0, &received, 5000), Client::ErrorNone);
  EXPECT_EQ(received, 0u);
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
  ASSERT_EQ(client.ConnectEx("", service, utils::ConnectionModeIPv6ThenIPv4, 1000),
            Client::ErrorNone);
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
  EXPECT_EQ(client.ConnectEx("127.0.0.1", service, utils::ConnectionModeIPv6, 5000),
            Client::ErrorNone);
  // A refused port and a service the resolver does not know both fail.
  EXPECT_EQ(nettest::ConnectLoopback(&client, std::to_string(nettest::ClosedPort())),
            Client::ErrorFailed);
  EXPECT_EQ(nettest::ConnectLoopback(&client, "no-such-service-name"), Client::ErrorFailed);
}

TEST(Client, LocalSocketsAndDetachedDescriptors) {
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

  nettest::Fd detached(client.DetachNativeHandle());
  ASSERT_TRUE(detached.Valid());
  EXPECT_EQ(client.DetachNativeHandle(), -1);
  char buffer[4];
  EXPECT_EQ(client.Recv(buffer, sizeof(buffer), nullptr, 100), Client::ErrorFailed);
  // The descriptor outlives the client's hold on it.
  client.Close();
  nettest::SendText(detached.Get(), "pong");
  EXPECT_EQ(nettest::ReceiveText(peer.Get(), 4), "pong");
}

TEST(Client, ErrorCodesHaveTextsAndThrowIfFailedUsesThem) {
  EXPECT_STREQ(Client::ErrorCodeToString(-2), "operation timed out");
  EXPECT_STREQ(Client::ErrorCodeToString(3), "unknown error code");
  EXPECT_NO_THROW(utils::ThrowIfFailed(Client::ErrorNone, "connect"));
  try {
    utils::ThrowIfFailed(Client::ErrorCanceled, "connect");
    FAIL() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(), "connect: operation is canceled");
  }
}

}  // namespace
