#include "utils/net/base_socket_client.h"
#include "utils/net/internal/resolver.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "utils/log.h"
#include "utils/net/cancelable_block_operation_point.h"
#include "utils/net/internal/detailed_trace_scope.h"
#include "utils/net/sockaddr.h"
#include "utils/net/socket.h"

namespace utils {

namespace {

const char* ModuleName(SocketType type) {
  switch (type) {
    case SocketTypeStream:
      return "utils::StreamSocket";
    case SocketTypeDatagram:
      return "utils::DatagramSocket";
    default:
      return "utils::UnknownSocket";
  }
}

// Requests go out as head and body in separate writes; Nagle's algorithm
// meeting the peer's delayed acknowledgement would hold the second back by
// tens of milliseconds.
void DisableNagle(int descriptor, const addrinfo& address) {
  if (address.ai_socktype != SOCK_STREAM) return;
  if (address.ai_family != AF_INET && address.ai_family != AF_INET6) return;
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

// What a wait's result means for the operation that waited: ErrorNone when ready.
AbstractCancellableClient::Error_t WaitError(int result) {
  switch (result) {
    case impl::WaitReady:
      return AbstractCancellableClient::ErrorNone;
    case impl::WaitCanceled:
      return AbstractCancellableClient::ErrorCanceled;
    case impl::WaitTimedOut:
      return AbstractCancellableClient::ErrorTimedOut;
    default:
      return AbstractCancellableClient::ErrorFailed;
  }
}

}  // namespace

struct BaseSocketClient::Impl {
  Impl(SocketType socketType, zullog::AbstractLogger* log)
      : logger(UtilsLogger(log)), socket(logger), type(socketType), module(ModuleName(type)) {}

  // Repeats a socket step, waiting in between for what it asks for, until it
  // is done, the stream ends, or the wait fails.
  template <typename Step>
  Error_t Drive(Step step, int timeoutMs) {
    for (;;) {
      impl::OperationType_t operation;
      switch (step()) {
        case impl::SocketStatusDone:
          return ErrorNone;
        case impl::SocketStatusEndOfStream:
          return ErrorEndOfStream;
        // A TLS read can need the socket writable, and a TLS write readable.
        case impl::SocketStatusWantRead:
          operation = impl::OperationRead;
          break;
        case impl::SocketStatusWantWrite:
          operation = impl::OperationWrite;
          break;
        default:
          return ErrorFailed;
      }
      const Error_t waited = WaitError(point.WaitFor(socket.Descriptor(), operation, timeoutMs));
      if (waited != ErrorNone) return waited;
    }
  }

  Error_t Connect(const std::string& host, const std::string& service, int family,
                  AddressOrder order, int timeoutMs);

  zullog::AbstractLogger* logger;
  impl::Socket socket;
  impl::CancelableBlockOperationPoint point;
  SocketType type;
  const char* module;
  FailureStage failureStage = FailureNone;
  std::string failureText;

  Error_t Failed(FailureStage stage, std::string text) {
    failureStage = stage;
    failureText = std::move(text);
    return ErrorFailed;
  }
};

BaseSocketClient::Error_t BaseSocketClient::Impl::Connect(const std::string& host,
                                                          const std::string& service, int family,
                                                          AddressOrder order, int timeoutMs) {
  impl::DetailedTraceScope scope(logger, module, "Connect", [&](std::ostream& out) {
    out << "host=`" << host << "', svc=`" << service << "'";
  });
  addrinfo hints;
  std::memset(&hints, 0, sizeof(hints));
  hints.ai_family = family;
  hints.ai_socktype = type == SocketTypeDatagram ? SOCK_DGRAM : SOCK_STREAM;
  std::string error;
  failureStage = FailureNone;
  std::shared_ptr<AddressInfo> addresses;
  switch (impl::ResolveCancellable(point, host, service, &hints, order, timeoutMs, &addresses, &error)) {
    case impl::WaitReady:
      break;
    case impl::WaitCanceled:
      return ErrorCanceled;
    case impl::WaitTimedOut:
      CORVANE_LOG(logger, zullog::SeverityError, module)
          << "Failed to resolve address '" << host << "': no answer within " << timeoutMs << " ms";
      Failed(FailureResolve, "no answer within " + std::to_string(timeoutMs) + " ms");
      return ErrorTimedOut;
    default:
      CORVANE_LOG(logger, zullog::SeverityError, module)
          << "Failed to resolve address '" << host << "': " << error;
      return Failed(FailureResolve, error);
  }
  std::string lastError = "no usable address";
  while (const addrinfo* address = addresses->Next()) {
    impl::Socket candidate(logger);
    if (candidate.Create(address->ai_family, address->ai_socktype, address->ai_protocol, true) !=
        impl::SocketStatusDone) {
      lastError = std::strerror(errno);
      continue;
    }
    DisableNagle(candidate.Descriptor(), *address);
    const int status = candidate.Connect(address->ai_addr, address->ai_addrlen);
    if (status == impl::SocketStatusInProgress) {
      // Every address gets the whole time-out anew.
      switch (point.WaitFor(candidate.Descriptor(), impl::OperationConnect, timeoutMs)) {
        case impl::WaitReady:
          if (candidate.IsError()) {
            lastError = std::strerror(errno);
            continue;
          }
          break;
        case impl::WaitCanceled:
          return ErrorCanceled;
        case impl::WaitTimedOut:
          // ai_next is the resolver's order even when the cursor walks a
          // family-ordered list: only the resolver's last record reports the
          // time-out, others move on.
          if (address->ai_next == nullptr) return ErrorTimedOut;
          continue;
        default:
          return ErrorFailed;
      }
    } else if (status != impl::SocketStatusDone) {
      lastError = std::strerror(errno);
      continue;
    }
    socket.Attach(candidate.Detach(), host);
    return ErrorNone;
  }
  return Failed(FailureConnect, lastError);
}

BaseSocketClient::BaseSocketClient(SocketType type, zullog::AbstractLogger* logger)
    : impl_(new Impl(type, logger)) {}

BaseSocketClient::~BaseSocketClient() = default;

BaseSocketClient::Error_t BaseSocketClient::Connect(const std::string& host,
                                                    const std::string& service, int timeoutMs) {
  return impl_->Connect(host, service, AF_UNSPEC, AddressOrderNone, timeoutMs);
}

BaseSocketClient::Error_t BaseSocketClient::ConnectEx(const std::string& host,
                                                      const std::string& service,
                                                      ConnectionMode mode, int timeoutMs) {
  int family = AF_UNSPEC;
  AddressOrder order = AddressOrderNone;
  // An address literal has one family already: the mode has nothing to choose.
  if (!IsValidIpAddr(host)) {
    switch (mode) {
      case ConnectionModeIPv4:
        family = AF_INET;
        break;
      case ConnectionModeIPv6:
        family = AF_INET6;
        break;
      case ConnectionModeIPv4ThenIPv6:
        order = AddressOrderIPv4First;
        break;
      case ConnectionModeIPv6ThenIPv4:
        order = AddressOrderIPv6First;
        break;
      default:
        break;
    }
  }
  return impl_->Connect(host, service, family, order, timeoutMs);
}

BaseSocketClient::Error_t BaseSocketClient::ConnectLocal(const std::string& path, int timeoutMs) {
  return impl_->Connect(path, std::string(), AF_UNIX, AddressOrderNone, timeoutMs);
}

BaseSocketClient::Error_t BaseSocketClient::InitiateSecureSession(
    const char* host, int timeoutMs, unsigned int flags, const tls::CertSettings& settings) {
  Impl& self = *impl_;
  impl::DetailedTraceScope scope(self.logger, self.module, "InitiateSecureSession",
                                 [&](std::ostream& out) {
                                   out << "socket=" << self.socket.Descriptor()
                                       << ", timeout=" << timeoutMs << ", flags=" << flags;
                                 });
  const bool verify = (flags & kSecureSessionNoVerify) == 0;
  self.failureStage = FailureNone;
  if (self.socket.InitializeSecureData(host, verify, settings) != impl::SocketStatusDone) {
    return self.Failed(FailureTls, "no TLS context (are trusted certificates configured?)");
  }
  TraceScope handshake(self.logger, self.module, "InitiateSecureSession::SecureConnect");
  const Error_t result = self.Drive([&self] { return self.socket.SecureConnect(); }, timeoutMs);
  if (result == ErrorFailed || result == ErrorEndOfStream) {
    const std::string& text = self.socket.LastTlsError();
    self.Failed(FailureTls, text.empty() ? "handshake failed" : text);
  }
  return result;
}

BaseSocketClient::Error_t BaseSocketClient::InitiateSecureSession(int timeoutMs) {
  return InitiateSecureSession(nullptr, timeoutMs, 0,
                               tls::CertSettings(std::string(), tls::CertModeEnvironmentOnly));
}

BaseSocketClient::Error_t BaseSocketClient::Send(const void* data, size_t size, size_t* sent,
                                                 int timeoutMs) {
  size_t count = 0;
  Impl& self = *impl_;
  const Error_t result =
      self.Drive([&] { return self.socket.Send(data, size, &count); }, timeoutMs);
  if (sent != nullptr) *sent = result == ErrorNone ? count : 0;
  return result;
}

BaseSocketClient::Error_t BaseSocketClient::Recv(void* buffer, size_t size, size_t* received,
                                                 int timeoutMs) {
  if (received != nullptr) *received = 0;
  size_t count = 0;
  Impl& self = *impl_;
  const Error_t result =
      self.Drive([&] { return self.socket.Recv(buffer, size, &count); }, timeoutMs);
  if (received != nullptr && result == ErrorNone) *received = count;
  return result;
}

BaseSocketClient::Error_t BaseSocketClient::WaitForInput(int timeoutMs) {
  Impl& self = *impl_;
  if (self.socket.HasBufferedInput()) return ErrorNone;
  return WaitError(self.point.WaitFor(self.socket.Descriptor(), impl::OperationRead, timeoutMs));
}

BaseSocketClient::Error_t BaseSocketClient::Sleep(int ms) {
  switch (impl_->point.Sleep(ms)) {
    case 0:
      return ErrorNone;
    case 1:
      return ErrorCanceled;
    default:
      return ErrorFailed;
  }
}

BaseSocketClient::Error_t BaseSocketClient::Cancel() {
  return impl_->point.Cancel() ? ErrorNone : ErrorFailed;
}

BaseSocketClient::Error_t BaseSocketClient::Close() {
  impl_->socket.Close();
  return ErrorNone;
}

void BaseSocketClient::Reset() {
  // The new object is made first: if its pipe cannot be made, the old state stays.
  std::unique_ptr<Impl> fresh(new Impl(impl_->type, impl_->logger));
  impl_.swap(fresh);
}

int BaseSocketClient::DetachNativeHandle() { return impl_->socket.Detach(); }

void BaseSocketClient::SwapConnection(impl::Socket* other) { impl_->socket.Swap(*other); }

bool BaseSocketClient::IsIdleAndOpen() const { return impl_->socket.IsIdleAndOpen(); }

void BaseSocketClient::OfferTlsSession(tls::SessionPtr session) { impl_->socket.OfferSession(std::move(session)); }

tls::SessionPtr BaseSocketClient::ResumableTlsSession() const { return impl_->socket.ResumableSession(); }

bool BaseSocketClient::TlsSessionReused() const { return impl_->socket.SessionReused(); }

BaseSocketClient::FailureStage BaseSocketClient::LastFailureStage() const { return impl_->failureStage; }

const std::string& BaseSocketClient::LastFailureText() const { return impl_->failureText; }

}  // namespace utils
