#include "utils/net/socket.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <vector>

#include "utils/env.h"
#include "utils/files.h"
#include "utils/log.h"
#include "utils/net/internal/openssl_ptr.h"
#include "utils/net/sockaddr.h"

namespace utils {
namespace impl {

namespace {

constexpr const char* kModule = "utils::impl::Socket";

// Four full TLS records: bulk reads take a quarter of the system calls,
// while an idle connection keeps a modest buffer.
constexpr size_t kTlsReadBufferBytes = 64 * 1024;

int ClampToInt(size_t size) {
  return size > static_cast<size_t>(INT_MAX) ? INT_MAX : static_cast<int>(size);
}

// OpenSSL writes to the descriptor with write(), which raises SIGPIPE when the
// peer has gone and would kill a host that did not ignore the signal. The
// signal is blocked on this thread for the call, and one that the call raised
// (it then failed with EPIPE) is consumed; the process's disposition is left
// alone.
class SigpipeGuard {
 public:
  SigpipeGuard() {
    sigemptyset(&pipeSet_);
    sigaddset(&pipeSet_, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSet_, &previous_);
    errno = 0;  // an EPIPE seen at the end must come from the guarded call
  }
  ~SigpipeGuard() {
    const int savedErrno = errno;
    // Blocked by the host already: what happens to the signal is its choice.
    if (sigismember(&previous_, SIGPIPE) == 1) return;
    if (savedErrno == EPIPE) {
      const timespec noWait{0, 0};
      while (sigtimedwait(&pipeSet_, nullptr, &noWait) == -1 && errno == EINTR) {
      }
    }
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
    errno = savedErrno;
  }
  SigpipeGuard(const SigpipeGuard&) = delete;
  SigpipeGuard& operator=(const SigpipeGuard&) = delete;

 private:
  sigset_t pipeSet_;
  sigset_t previous_;
};

int PlainResult(ssize_t count, size_t* done, int wouldBlockStatus) {
  if (count > 0) {
    if (done != nullptr) *done = static_cast<size_t>(count);
    return SocketStatusDone;
  }
  if (count == 0) return SocketStatusEndOfStream;
  if (errno == EAGAIN || errno == EWOULDBLOCK) return wouldBlockStatus;
  return SocketStatusFailed;
}

// An SSL_read, SSL_peek or SSL_write, repeated while a signal interrupts it.
template <typename Transfer>
int RetryOnEintr(Transfer transfer) {
  int result;
  do {
    errno = 0;
    result = transfer();
  } while (result <= 0 && errno == EINTR);
  return result;
}

// The socket status of such a transfer's result.
int SslTransferStatus(SSL* connection, int result, size_t* done) {
  if (result > 0) {
    if (done != nullptr) *done = static_cast<size_t>(result);
    return SocketStatusDone;
  }
  const int error = SSL_get_error(connection, result);
  ERR_clear_error();
  return Socket::ConvertSslError(error);
}

// A context costs more to make than a resumed handshake (OpenSSL 3 fetches
// its algorithms for each) and holds nothing of one connection, so each
// thread keeps the few it made, under everything that configured them: the
// logger (it picks the verification callback), the verification settings,
// the CA environment and the state of the CA file it names.
std::string ContextKey(zullog::AbstractLogger* logger, bool verify, const tls::CertSettings& settings) {
  std::string key = std::to_string(reinterpret_cast<uintptr_t>(logger)) + (verify ? "|v|" : "|n|");
  if (!verify) return key;
  key += std::to_string(settings.mode) + "|" + settings.pem + "|";
  std::string caFile;
  for (const char* name : {"CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
                           "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"}) {
    std::string value;
    GetEnv(name, &value);
    if (caFile.empty()) caFile = value;
    key += value + "|";
  }
  const FileStatus status = GetStatus(caFile);
  key += std::to_string(status.mtimeNs) + "|" + std::to_string(status.size) + "|" + std::to_string(status.inode);
  return key;
}

class ContextCache {
 public:
  // A new reference to the context kept under key, or null.
  SslCtxPtr Take(const std::string& key) {
    for (const Entry& entry : entries_) {
      if (entry.key == key) {
        SSL_CTX_up_ref(entry.context.get());
        return SslCtxPtr(entry.context.get());
      }
    }
    return nullptr;
  }
  void Keep(const std::string& key, SSL_CTX* context) {
    if (entries_.size() >= kMaxContexts) entries_.erase(entries_.begin());
    SSL_CTX_up_ref(context);
    entries_.push_back(Entry{key, SslCtxPtr(context)});
  }

 private:
  static constexpr size_t kMaxContexts = 8;
  struct Entry {
    std::string key;
    SslCtxPtr context;
  };
  std::vector<Entry> entries_;
};

ContextCache& ThreadContexts() {
  thread_local ContextCache cache;
  return cache;
}

}  // namespace

struct Socket::SecureData {
  SslCtxPtr context;
  SslPtr connection;
};

Socket::Socket(zullog::AbstractLogger* logger)
    : send_(&Socket::PlainSend),
      recv_(&Socket::PlainRecv),
      peek_(&Socket::PlainPeek),
      logger_(UtilsLogger(logger)) {}

Socket::~Socket() { Close(); }

int Socket::Create(int domain, int type, int protocol, bool nonBlocking) {
  Close();
  // Close-on-exec: the descriptor must not leak into programs the host spawns.
  descriptor_ = socket(domain, type | SOCK_CLOEXEC, protocol);
  if (descriptor_ == -1) return SocketStatusFailed;
  if (nonBlocking) {
    const int flags = fcntl(descriptor_, F_GETFL, 0);
    if (flags == -1 || fcntl(descriptor_, F_SETFL, flags | O_NONBLOCK) == -1) {
      return SocketStatusFailed;
    }
  }
  CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "::Create(): socket=" << descriptor_;
  return SocketStatusDone;
}

void Socket::Attach(int descriptor, const std::string& host) {
  Close();
  descriptor_ = descriptor;
  host_ = host;
}

void Socket::Swap(Socket& other) {
  std::swap(descriptor_, other.descriptor_);
  std::swap(send_, other.send_);
  std::swap(recv_, other.recv_);
  std::swap(peek_, other.peek_);
  std::swap(secure_, other.secure_);
  std::swap(host_, other.host_);
  std::swap(tlsError_, other.tlsError_);
  std::swap(offer_, other.offer_);
  std::swap(verify_, other.verify_);
}

bool Socket::IsIdleAndOpen() const {
  if (descriptor_ == -1) return false;
  if (HasBufferedInput()) return false;
  // Readable means an end of stream, a reset, or bytes nobody asked for
  // (a TLS close_notify included): none of them leaves the connection usable.
  pollfd entry{descriptor_, POLLIN | POLLRDHUP, 0};
  int ready;
  do {
    ready = poll(&entry, 1, 0);
  } while (ready < 0 && errno == EINTR);
  return ready == 0;
}

bool Socket::HasBufferedInput() const {
  return secure_ != nullptr && SSL_has_pending(secure_->connection.get()) == 1;
}

tls::SessionPtr Socket::ResumableSession() const {
  if (secure_ == nullptr) return nullptr;
  SSL_SESSION* session = SSL_get1_session(secure_->connection.get());
  if (session == nullptr) return nullptr;
  if (SSL_SESSION_is_resumable(session) != 1) {
    SSL_SESSION_free(session);
    return nullptr;
  }
  return tls::SessionPtr(session, SSL_SESSION_free);
}

bool Socket::SessionReused() const {
  return secure_ != nullptr && SSL_session_reused(secure_->connection.get()) == 1;
}

int Socket::Detach() {
  const int descriptor = descriptor_;
  descriptor_ = -1;
  return descriptor;
}

int Socket::Connect(const sockaddr* address, unsigned int length) {
  bool interrupted = false;
  for (;;) {
    if (connect(descriptor_, address, length) == 0) return SocketStatusDone;
    if (errno == EINTR) {
      interrupted = true;
      continue;
    }
    if (errno == EINPROGRESS) return SocketStatusInProgress;
    // A connect interrupted by a signal goes on in the kernel; asking again
    // reports how far it got.
    if (interrupted && errno == EALREADY) return SocketStatusInProgress;
    if (interrupted && errno == EISCONN) return SocketStatusDone;
    return SocketStatusFailed;
  }
}

bool Socket::IsError() const {
  int pending = 0;
  socklen_t length = sizeof(pending);
  if (getsockopt(descriptor_, SOL_SOCKET, SO_ERROR, &pending, &length) != 0) return true;
  if (pending == 0) return false;
  errno = pending;  // so that the caller can report why
  return true;
}

int Socket::Close() {
  FreeSecureData();
  FreeSocketData();
  return SocketStatusDone;
}

void Socket::FreeSocketData() {
  if (descriptor_ == -1) return;
  CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "::Close(): socket=" << descriptor_;
  close(descriptor_);
  descriptor_ = -1;
}

void Socket::FreeSecureData() {
  if (secure_ != nullptr) {
    TraceScope scope(logger_, kModule, "Socket::FreeSecureData");
    if (secure_->connection != nullptr) {
      CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "Shutdown and free";
      // After Detach the descriptor belongs to someone else: no close_notify
      // may be written into it.
      if (descriptor_ != -1) {
        SigpipeGuard guard;
        SSL_shutdown(secure_->connection.get());
        ERR_clear_error();
      }
      secure_->connection.reset();
    }
    if (secure_->context != nullptr) {
      CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "Free context";
      secure_->context.reset();
    }
    secure_.reset();
  }
  send_ = &Socket::PlainSend;
  recv_ = &Socket::PlainRecv;
  peek_ = &Socket::PlainPeek;
}

int Socket::PlainSend(const void* data, size_t size, size_t* done) {
  ssize_t count;
  do {
    // MSG_NOSIGNAL: a vanished peer is reported as a failure, not by SIGPIPE.
    count = send(descriptor_, data, size, MSG_NOSIGNAL);
  } while (count < 0 && errno == EINTR);
  return PlainResult(count, done, SocketStatusWantWrite);
}

int Socket::PlainRecv(void* buffer, size_t size, size_t* done) {
  ssize_t count;
  do {
    count = recv(descriptor_, buffer, size, 0);
  } while (count < 0 && errno == EINTR);
  return PlainResult(count, done, SocketStatusWantRead);
}

int Socket::PlainPeek(void* buffer, size_t size, size_t* done) {
  ssize_t count;
  do {
    count = recv(descriptor_, buffer, size, MSG_PEEK);
  } while (count < 0 && errno == EINTR);
  return PlainResult(count, done, SocketStatusWantRead);
}

int Socket::SecureSend(const void* data, size_t size, size_t* done) {
  if (secure_ == nullptr) return SocketStatusFailed;
  SSL* connection = secure_->connection.get();
  int result;
  {
    SigpipeGuard guard;
    result = RetryOnEintr([&] { return SSL_write(connection, data, ClampToInt(size)); });
  }
  return SslTransferStatus(connection, result, done);
}

// Reads are not guarded against SIGPIPE: a TLS 1.2/1.3 client read writes only
// for renegotiation or key-update replies, and the guard's system calls would
// cost every bulk read.
int Socket::SecureRecv(void* buffer, size_t size, size_t* done) {
  if (secure_ == nullptr) return SocketStatusFailed;
  SSL* connection = secure_->connection.get();
  return SslTransferStatus(
      connection, RetryOnEintr([&] { return SSL_read(connection, buffer, ClampToInt(size)); }), done);
}

int Socket::SecurePeek(void* buffer, size_t size, size_t* done) {
  if (secure_ == nullptr) return SocketStatusFailed;
  SSL* connection = secure_->connection.get();
  return SslTransferStatus(
      connection, RetryOnEintr([&] { return SSL_peek(connection, buffer, ClampToInt(size)); }), done);
}

int Socket::InitializeSecureData(const char* host, bool verify, const tls::CertSettings& settings) {
  TraceScope scope(logger_, kModule, "::InitializeSecureData");
  FreeSecureData();
  if (host != nullptr) host_ = host;
  verify_ = verify;

  // Built aside and installed only when complete, so that a failure leaves
  // the socket open-plain without TLS objects.
  auto secure = std::make_unique<SecureData>();
  const std::string contextKey = ContextKey(logger_, verify, settings);
  secure->context = ThreadContexts().Take(contextKey);
  if (secure->context == nullptr) {
    CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "Create new SSL context";
    // OpenSSL's defaults for versions, ciphers and options stand.
    secure->context.reset(SSL_CTX_new(TLS_client_method()));
    if (secure->context == nullptr) {
      CORVANE_LOG(logger_, zullog::SeverityError, kModule) << "failed to create OpenSSL context!\n"
                                                           << GetErrorStackStr(-1, true);
      return SocketStatusFailed;
    }
    if (verify && !ConfigureOpensslCaVerification(secure->context.get(), logger_, settings)) {
      return SocketStatusFailed;
    }
    ThreadContexts().Keep(contextKey, secure->context.get());
  }

  CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "Create new SSL handle";
  secure->connection.reset(SSL_new(secure->context.get()));
  if (secure->connection == nullptr) {
    CORVANE_LOG(logger_, zullog::SeverityError, kModule) << "Failed to create SSL handle";
    return SocketStatusFailed;
  }
  // Read-ahead lets one system call bring in several records instead of two
  // calls (header, then body) per record; it changes buffering only, nothing
  // of the protocol.
  SSL_set_read_ahead(secure->connection.get(), 1);
  SSL_set_default_read_buffer_len(secure->connection.get(), kTlsReadBufferBytes);
  // RFC 6066 (3) allows only host names in SNI, never address literals.
  if (host != nullptr && !IsValidIpAddr(host)) {
    SSL_set_tlsext_host_name(secure->connection.get(), host);
  }
  // A session resumes only on a connection that verifies as the one that
  // made it did; choosing such a session is the caller's part.
  const tls::SessionPtr offer = std::move(offer_);
  offer_.reset();
  if (offer != nullptr && SSL_set_session(secure->connection.get(), offer.get()) != 1) ERR_clear_error();
  CORVANE_LOG(logger_, zullog::SeverityTrace, kModule) << "Create set descriptor to SSL handle";
  if (SSL_set_fd(secure->connection.get(), descriptor_) != 1) {
    CORVANE_LOG(logger_, zullog::SeverityError, kModule)
        << "Failed to set descriptor to SSL handle";
    return SocketStatusFailed;
  }

  secure_ = std::move(secure);
  send_ = &Socket::SecureSend;
  recv_ = &Socket::SecureRecv;
  peek_ = &Socket::SecurePeek;
  // SSL_get_error reads the thread's error queue: leftovers of the set-up (or
  // of anything before it) must not turn the first handshake step into a failure.
  ERR_clear_error();
  return SocketStatusDone;
}

int Socket::SecureConnect() {
  if (secure_ == nullptr) return SocketStatusFailed;
  SSL* connection = secure_->connection.get();
  for (;;) {
    int error;
    {
      SigpipeGuard guard;
      errno = 0;
      const int result = SSL_connect(connection);
      error = SSL_get_error(connection, result);
    }
    if (error == SSL_ERROR_SSL) {
      const std::string stack = GetErrorStackStr(-1, false);
      CORVANE_LOG(logger_, zullog::SeverityError, kModule) << "TLS handshake failed: " << stack;
      const long verifyResult = SSL_get_verify_result(connection);
      tlsError_ = verifyResult != X509_V_OK ? X509_verify_cert_error_string(verifyResult)
                                            : stack.substr(0, stack.find('\n'));
    } else if (error == SSL_ERROR_SYSCALL || error == SSL_ERROR_ZERO_RETURN) {
      tlsError_ = "connection closed during the handshake";
    }
    ERR_clear_error();
    if (error == SSL_ERROR_NONE) break;
    if (errno == EINTR) continue;
    return ConvertSslError(error);
  }
  if (!verify_) return SocketStatusDone;
  // A resumed session brings no certificate chain to verify: it must have
  // passed verification when it was made.
  if (SSL_session_reused(connection) == 1 && (SSL_get_verify_mode(connection) & SSL_VERIFY_PEER) != 0 &&
      SSL_get_verify_result(connection) != X509_V_OK) {
    tlsError_ = "resumed session was not verified";
    return SocketStatusFailed;
  }
  if (VerifyOpensslServerCertHostname(connection, host_.c_str(), logger_)) return SocketStatusDone;
  tlsError_ = "certificate does not match the host name";
  return SocketStatusFailed;
}

int Socket::ConvertSslError(int sslError) {
  switch (sslError) {
    case SSL_ERROR_NONE:
      return SocketStatusDone;
    case SSL_ERROR_WANT_READ:
      return SocketStatusWantRead;
    case SSL_ERROR_WANT_WRITE:
      return SocketStatusWantWrite;
    case SSL_ERROR_ZERO_RETURN:
      return SocketStatusEndOfStream;
    case SSL_ERROR_SSL:
    case SSL_ERROR_WANT_X509_LOOKUP:
    case SSL_ERROR_SYSCALL:
    default:
      return SocketStatusFailed;
  }
}

bool CheckWouldBlock(int result) { return result < 0 && errno == EAGAIN; }

bool InitializeNetworkEnvironment() { return true; }

void UninitializeNetworkEnvironment() {}

}  // namespace impl
}  // namespace utils
