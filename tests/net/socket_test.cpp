#include "utils/net/socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "net/support/log_capture.h"
#include "net/support/loopback.h"
#include "utils/env.h"
#include "utils/net/sockaddr.h"

namespace {

using utils::impl::Socket;

bool WaitWritable(int descriptor) {
  pollfd entry = {descriptor, POLLOUT, 0};
  return poll(&entry, 1, 5000) == 1;
}

// A non-blocking Socket connected to a loopback listener, and the peer's end.
struct ConnectedPair {
  ConnectedPair() : socket(nullptr) {
    EXPECT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
    utils::Sockaddr address("127.0.0.1", static_cast<unsigned>(listener.Port()));
    const int status = socket.Connect(address.AsSockaddr(), address.GetSockaddrLen());
    EXPECT_TRUE(status == utils::impl::SocketStatusInProgress ||
                status == utils::impl::SocketStatusDone);
    EXPECT_TRUE(WaitWritable(socket.Descriptor()));
    EXPECT_FALSE(socket.IsError());
    peer = listener.Accept();
    EXPECT_TRUE(peer.Valid());
  }

  nettest::Listener listener;
  Socket socket;
  nettest::Fd peer;
};

TEST(Socket, ReceiveReportsWouldBlockDataPeekAndEndOfStream) {
  ConnectedPair pair;
  char buffer[16];
  size_t done = 99;
  EXPECT_EQ(pair.socket.Recv(buffer, sizeof(buffer), &done), utils::impl::SocketStatusWantRead);
  EXPECT_EQ(pair.socket.Peek(buffer, sizeof(buffer), &done), utils::impl::SocketStatusWantRead);
  EXPECT_EQ(done, 99u);

  nettest::SendText(pair.peer.Get(), "hello");
  pollfd entry = {pair.socket.Descriptor(), POLLIN, 0};
  ASSERT_EQ(poll(&entry, 1, 5000), 1);
  ASSERT_EQ(pair.socket.Peek(buffer, sizeof(buffer), &done), utils::impl::SocketStatusDone);
  EXPECT_EQ(std::string(buffer, done), "hello");
  // The peeked bytes are still there.
  ASSERT_EQ(pair.socket.Recv(buffer, 3, &done), utils::impl::SocketStatusDone);
  EXPECT_EQ(std::string(buffer, done), "hel");
  ASSERT_EQ(pair.socket.Recv(buffer, sizeof(buffer), nullptr), utils::impl::SocketStatusDone);

  pair.peer = nettest::Fd();
  ASSERT_EQ(poll(&entry, 1, 5000), 1);
  EXPECT_EQ(pair.socket.Recv(buffer, sizeof(buffer), &done), utils::impl::SocketStatusEndOfStream);
}

TEST(Socket, SendReportsFullBufferAndVanishedPeerWithoutSignal) {
  ConnectedPair pair;
  const int small = 4096;
  setsockopt(pair.socket.Descriptor(), SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  const std::string chunk(64 * 1024, 'x');
  int status = utils::impl::SocketStatusDone;
  size_t total = 0;
  for (int i = 0; i < 10000 && status == utils::impl::SocketStatusDone; ++i) {
    size_t done = 0;
    status = pair.socket.Send(chunk.data(), chunk.size(), &done);
    total += done;
  }
  EXPECT_EQ(status, utils::impl::SocketStatusWantWrite);
  EXPECT_GT(total, 0u);

  // Without MSG_NOSIGNAL this would raise SIGPIPE and end the test program.
  pair.peer = nettest::Fd();
  for (int i = 0; i < 100 && status != utils::impl::SocketStatusFailed; ++i) {
    WaitWritable(pair.socket.Descriptor());
    status = pair.socket.Send(chunk.data(), chunk.size(), nullptr);
  }
  EXPECT_EQ(status, utils::impl::SocketStatusFailed);
}

TEST(Socket, RefusedConnectShowsAsPendingError) {
  int port;
  {
    nettest::Listener closed;  // a port that surely has no listener afterwards
    port = closed.Port();
  }
  Socket socket(nullptr);
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
  utils::Sockaddr address("127.0.0.1", static_cast<unsigned>(port));
  const int status = socket.Connect(address.AsSockaddr(), address.GetSockaddrLen());
  if (status == utils::impl::SocketStatusInProgress) {
    ASSERT_TRUE(WaitWritable(socket.Descriptor()));
    EXPECT_TRUE(socket.IsError());
    EXPECT_EQ(errno, ECONNREFUSED);
  } else {
    EXPECT_EQ(status, utils::impl::SocketStatusFailed);
  }
}

TEST(Socket, OwnershipMovesThroughCreateAttachAndDetach) {
  nettest::LogCapture log;
  Socket socket(nullptr);
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, false), utils::impl::SocketStatusDone);
  const int first = socket.Descriptor();
  EXPECT_TRUE(log.Has("<utils::impl::Socket> ::Create(): socket=" + std::to_string(first)));
  EXPECT_EQ(fcntl(first, F_GETFL) & O_NONBLOCK, 0);

  // Create again closes the first descriptor.
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
  EXPECT_TRUE(log.Has("<utils::impl::Socket> ::Close(): socket=" + std::to_string(first)));
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
  utils::UnsetEnv("CORVANE_OPENSSL_CA_FILE");
  utils::UnsetEnv("CORVANE_OPENSSL_CA_PATH");
  utils::UnsetEnv("CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION");
  nettest::LogCapture log;
  ConnectedPair pair;
  const int descriptor = pair.socket.Descriptor();
  EXPECT_EQ(pair.socket.InitializeSecureData("localhost", true, utils::tls::CertSettings()),
            utils::impl::SocketStatusFailed);
  EXPECT_TRUE(
      log.Has("<utils::openssl> Failed to locate CA bundle! SSL connection is not allowed!"));
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Enter scope `::InitializeSecureData' >>>"));
  EXPECT_FALSE(pair.socket.IsSecure());
  EXPECT_EQ(pair.socket.Descriptor(), descriptor);

  // Still plain: bytes go through untouched.
  nettest::SendText(pair.peer.Get(), "plain");
  pollfd entry = {descriptor, POLLIN, 0};
  ASSERT_EQ(poll(&entry, 1, 5000), 1);
  char buffer[8];
  size_t done = 0;
  ASSERT_EQ(pair.socket.Recv(buffer, sizeof(buffer), &done), utils::impl::SocketStatusDone);
  EXPECT_EQ(std::string(buffer, done), "plain");

  // Without verification the set-up needs no CA and switches to TLS.
  EXPECT_EQ(pair.socket.InitializeSecureData(nullptr, false, utils::tls::CertSettings()),
            utils::impl::SocketStatusDone);
  EXPECT_TRUE(pair.socket.IsSecure());
  pair.socket.FreeSecureData();
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Shutdown and free"));
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Free context"));
  EXPECT_FALSE(pair.socket.IsSecure());
}

}  // namespace
