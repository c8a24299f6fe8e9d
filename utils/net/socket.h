// utils::impl::Socket: the one owner of a socket descriptor and its OpenSSL
// connection. Send, receive and peek go through slots that switch between the
// plain and the TLS operations, so callers never ask whether TLS is on.
// Operations never wait: they report "would block" and leave waiting to the
// caller. No OpenSSL or socket headers are needed to use it.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "tls.h"
#include "../noncopyable.h"
#include "../../zullog/zullog.h"

struct sockaddr;

namespace utils {
namespace impl {

// Socket operation results; a set of their own, never mixed with the client's
// error codes.
enum SocketStatus : int {
  SocketStatusFailed = -1,
  SocketStatusDone = 0,
  SocketStatusEndOfStream = 1,
  SocketStatusInProgress = 2,  // non-blocking connect under way
  SocketStatusWantRead = 3,    // would block until readable
  SocketStatusWantWrite = 4,   // would block until writable
};

// Closed (no descriptor), open-plain, or open-secure (TLS objects present).
// The TLS objects are always freed before the descriptor is closed.
// Belongs to one thread at a time; nothing in it is locked.
class Socket : private Noncopyable {
 public:
  // A null logger means the "utils" logger.
  explicit Socket(zullog::AbstractLogger* logger);
  virtual ~Socket();

  // Closes what was held, then opens a new descriptor; optionally non-blocking.
  int Create(int domain, int type, int protocol, bool nonBlocking);
  // Exchanges everything held (descriptor, TLS objects, host) with other.
  void Swap(Socket& other);
  // True when the connection is open, nothing arrived on it since the last
  // read and nothing is buffered: fit to carry a new request. Never waits.
  bool IsIdleAndOpen() const;
  // TLS holds decrypted or raw bytes that a read would return without the
  // descriptor becoming readable.
  bool HasBufferedInput() const;
  // Closes what was held and takes the descriptor; host serves SNI and the
  // host-name check.
  void Attach(int descriptor, const std::string& host);
  // Gives the descriptor away without closing it; TLS data is left as it is.
  int Detach();
  int Descriptor() const { return descriptor_; }
  const std::string& HostName() const { return host_; }
  bool IsSecure() const { return secure_ != nullptr; }

  // SocketStatusDone, SocketStatusInProgress or SocketStatusFailed.
  int Connect(const sockaddr* address, unsigned int length);
  // The pending error after a non-blocking connect became writable; true also
  // when it cannot be read.
  bool IsError() const;

  // TLS data first, then the descriptor. Returns 0.
  int Close();
  void FreeSocketData();
  // Shuts down and frees the TLS objects and puts the plain operations back.
  void FreeSecureData();

  // Through the current slots. Each stores a positive count in *done (when
  // not null) and returns a SocketStatus.
  int Send(const void* data, size_t size, size_t* done) { return (this->*send_)(data, size, done); }
  int Recv(void* buffer, size_t size, size_t* done) { return (this->*recv_)(buffer, size, done); }
  int Peek(void* buffer, size_t size, size_t* done) { return (this->*peek_)(buffer, size, done); }

  int PlainSend(const void* data, size_t size, size_t* done);
  int PlainRecv(void* buffer, size_t size, size_t* done);
  int PlainPeek(void* buffer, size_t size, size_t* done);
  int SecureSend(const void* data, size_t size, size_t* done);
  int SecureRecv(void* buffer, size_t size, size_t* done);
  int SecurePeek(void* buffer, size_t size, size_t* done);

  // Builds the TLS context and connection on the current descriptor and
  // switches the slots; with verify, the CA policy of settings applies and the
  // handshake checks the host name. A null host keeps the stored one.
  int InitializeSecureData(const char* host, bool verify, const tls::CertSettings& settings);
  // One handshake step: SocketStatusDone once the handshake (and, with
  // verification, the host-name check) has passed.
  int SecureConnect();
  // Offered for resumption by the next InitializeSecureData; used once.
  void OfferSession(tls::SessionPtr session) { offer_ = std::move(session); }
  // The session of the current TLS connection when it can be resumed (after
  // a TLS 1.3 handshake, only once a ticket was read); null otherwise.
  tls::SessionPtr ResumableSession() const;
  // The last handshake resumed an offered session.
  bool SessionReused() const;
  // Why the last SecureConnect failed, in a few words; empty before any failure.
  const std::string& LastTlsError() const { return tlsError_; }

  // Maps an SSL_get_error result onto a SocketStatus.
  static int ConvertSslError(int sslError);

 private:
  using SendOperation = int (Socket::*)(const void*, size_t, size_t*);
  using RecvOperation = int (Socket::*)(void*, size_t, size_t*);
  struct SecureData;

  int descriptor_ = -1;
  SendOperation send_;
  RecvOperation recv_;
  RecvOperation peek_;
  std::unique_ptr<SecureData> secure_;
  std::string host_;
  std::string tlsError_;
  tls::SessionPtr offer_;
  bool verify_ = true;
  zullog::AbstractLogger* logger_;
};

// True when result is negative and errno is EAGAIN.
bool CheckWouldBlock(int result);

// Nothing to set up or tear down on POSIX; kept so that callers stay portable.
bool InitializeNetworkEnvironment();
void UninitializeNetworkEnvironment();

}  // namespace impl
}  // namespace utils
