#include "utils/net/socket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include <gtest/gtest.h>

#include "net/support/log_capture.h"
#include "net/support/loopback.h"
#include "net/test_helpers.h"
#include "utils/net/sockaddr.h"

namespace {

using utils::impl::Socket;

bool WaitFor(int descriptor, short events) {
  pollfd entry = {descriptor, events, 0};
  return poll(&entry, 1, 5000) == 1;
}

int ConnectTo(Socket* socket, int port) {
  utils::Sockaddr address("127.0.0.1", static_cast<unsigned>(port));
  return socket->Connect(address.AsSockaddr(), address.GetSockaddrLen());
}

// A non-blocking Socket connected to a loopback listener, and the peer's end.
struct ConnectedPair {
  ConnectedPair() : socket(nullptr) {
    EXPECT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
    const int status = ConnectTo(&socket, listener.Port());
    EXPECT_TRUE(status == utils::impl::SocketStatusInProgress ||
                status == utils::impl::SocketStatusDone);
    EXPECT_TRUE(WaitFor(socket.Descriptor(), POLLOUT));
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
    WaitFor(pair.socket.Descriptor(), POLLOUT);
    status = pair.socket.Send(chunk.data(), chunk.size(), nullptr);
  }
  EXPECT_EQ(status, utils::impl::SocketStatusFailed);
}

TEST(Socket, RefusedConnectShowsAsPendingError) {
  Socket socket(nullptr);
  ASSERT_EQ(socket.Create(AF_INET, SOCK_STREAM, 0, true), utils::impl::SocketStatusDone);
  const int status = ConnectTo(&socket, nettest::ClosedPort());
  if (status == utils::impl::SocketStatusInProgress) {
    ASSERT_TRUE(WaitFor(socket.Descriptor(), POLLOUT));
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
  nettest::ClearTlsEnvironment();
  nettest::LogCapture log;
  ConnectedPair pair;
  const int descriptor = pair.socket.Descriptor();
  EXPECT_EQ(pair.socket.InitializeSecureData("localhost", true, utils::tls::CertSettings()),
            utils::impl::SocketStatusFailed);
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Enter scope `::InitializeSecureData' >>>"));
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
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Shutdown and free"));
  EXPECT_TRUE(log.Has("<utils::impl::Socket> Free context"));
  EXPECT_FALSE(pair.socket.IsSecure());
}

}  // namespace
