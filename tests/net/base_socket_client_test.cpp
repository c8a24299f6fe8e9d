#include "utils/net/base_socket_client.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "net/support/log_capture.h"
#include "net/support/loopback.h"
#include "net/support/peers.h"
#include "net/test_helpers.h"
#include "utils/net/cancelable_block_operation_point.h"

namespace {

using nettest::Client;
using nettest::Clock;
using nettest::ElapsedMs;

// Bounds are generous on purpose: they separate "at once" from "waited the
// whole time-out" without racing a loaded machine.
constexpr int kLongMs = 60000;
constexpr long kPromptMs = 10000;

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

TEST(Client, CancelFromAnotherThreadWakesEachKindOfWait) {
  Connected c;  // the peer never answers
  char buffer[8];
  size_t received = 1;
  ExpectCanceledPromptly(&c.client, [&] {
    return c.client.Recv(buffer, sizeof(buffer), &received, kLongMs);
  });
  EXPECT_EQ(received, 0u);
  ExpectCanceledPromptly(&c.client, [&] { return c.client.Sleep(kLongMs); });
  ExpectCanceledPromptly(&c.client, [&] {
    return c.client.InitiateSecureSession("localhost", kLongMs, utils::kSecureSessionNoVerify,
                                          utils::tls::CertSettings());
  });
  nettest::SilentListener silent;
  Client connecting;
  ExpectCanceledPromptly(&connecting, [&] {
    return connecting.Connect("127.0.0.1", silent.Service(), kLongMs);
  });
}

TEST(Client, WaitsEndAtTheirTimeOut) {
  Connected c;  // the peer never answers
  char buffer[8];
  auto start = Clock::now();
  EXPECT_EQ(c.client.Recv(buffer, sizeof(buffer), nullptr, 200), Client::ErrorTimedOut);
  EXPECT_GE(ElapsedMs(start), 150);
  start = Clock::now();
  EXPECT_EQ(c.client.Recv(buffer, sizeof(buffer), nullptr, 0), Client::ErrorTimedOut);
  EXPECT_LT(ElapsedMs(start), kPromptMs);
  start = Clock::now();
  EXPECT_EQ(c.client.InitiateSecureSession("localhost", 300, utils::kSecureSessionNoVerify,
                                           utils::tls::CertSettings()),
            Client::ErrorTimedOut);
  EXPECT_GE(ElapsedMs(start), 250);
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

TEST(Client, RecvAllStopsAtItsDeadlineOrEndOfStream) {
  Connected c;
  char buffer[100];
  size_t received = 7;
  // RecvAll: one deadline over the whole buffer, partial count on time-out...
  nettest::SendText(c.peer.Get(), std::string(10, 'a'));
  const auto start = Clock::now();
  EXPECT_EQ(utils::RecvAll(&c.client, buffer, sizeof(buffer), &received, 300),
            Client::ErrorTimedOut);
  EXPECT_EQ(received, 10u);
  EXPECT_GE(ElapsedMs(start), 250);
  EXPECT_LT(ElapsedMs(start), kPromptMs);

  // ... and on end of stream.
  nettest::SendText(c.peer.Get(), std::string(40, 'b'));
  c.peer = nettest::Fd();
  EXPECT_EQ(utils::RecvAll(&c.client, buffer, sizeof(buffer), &received, 5000),
            Client::ErrorEndOfStream);
  EXPECT_EQ(received, 40u);
  EXPECT_EQ(utils::RecvAll(&c.client, buffer, 0, &received, 5000), Client::ErrorNone);
  EXPECT_EQ(received, 0u);
}

TEST(Client, WholeBuffersCrossInBothDirections) {
  Connected c;
  // Larger than the socket buffers, so that SendAll must wait for room.
  std::string payload(8 * 1024 * 1024, '\0');
  for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<char>(i * 7);
  std::thread echo([&] {
    nettest::SendText(c.peer.Get(), nettest::ReceiveText(c.peer.Get(), payload.size(), 10000));
  });
  size_t sent = 0;
  EXPECT_EQ(utils::SendAll(&c.client, payload.data(), payload.size(), &sent, 20000),
            Client::ErrorNone);
  EXPECT_EQ(sent, payload.size());
  std::string back(payload.size(), '\0');
  size_t received = 0;
  EXPECT_EQ(utils::RecvAll(&c.client, &back[0], back.size(), &received, 20000), Client::ErrorNone);
  echo.join();
  EXPECT_EQ(received, payload.size());
  EXPECT_TRUE(back == payload);
}

TEST(Client, ConnectFailuresAreReportedByKind) {
  Client client;
  EXPECT_EQ(nettest::ConnectLoopback(&client, std::to_string(nettest::ClosedPort())),
            Client::ErrorFailed);

  nettest::SilentListener silent;
  const auto start = Clock::now();
  EXPECT_EQ(client.Connect("127.0.0.1", silent.Service(), 300), Client::ErrorTimedOut);
  EXPECT_GE(ElapsedMs(start), 250);
  EXPECT_LT(ElapsedMs(start), kPromptMs);

  // An unknown service fails in the resolver without asking any server.
  nettest::LogCapture log;
  EXPECT_EQ(nettest::ConnectLoopback(&client, "no-such-service-name"), Client::ErrorFailed);
  EXPECT_TRUE(log.HasPrefix("<utils::StreamSocket> Failed to resolve address '127.0.0.1': "));
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
}

TEST(Client, UnknownSocketTypeConnectsAsStreamUnderItsOwnName) {
  nettest::LogCapture log;
  nettest::Listener listener;
  Client client(static_cast<utils::SocketType>(7));
  ASSERT_EQ(nettest::ConnectLoopback(&client, listener.Service()), Client::ErrorNone);
  EXPECT_TRUE(listener.Accept().Valid());
  EXPECT_TRUE(log.Has("<utils::UnknownSocket> Enter scope `Connect' >>> host=`127.0.0.1', svc=`" +
                      listener.Service() + "'"));
  EXPECT_TRUE(log.Has("<utils::UnknownSocket> Leave scope `Connect' <<<"));
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
