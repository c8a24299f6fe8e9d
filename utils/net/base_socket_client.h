// utils::BaseSocketClient: the cancellable client over a utils::impl::Socket.
// Connects to each resolved address in turn, optionally starts TLS, and waits
// through a CancelableBlockOperationPoint so that Cancel from another thread
// wakes any blocked operation.
#pragma once

#include <memory>
#include <string>

#include "address_info.h"
#include "cancellable_client.h"
#include "tls.h"
#include "../../zullog/zullog.h"

namespace utils {

namespace impl {
class Socket;
}

// Selects the resolver's socket type and the module name of log records.
enum SocketType : int {
  SocketTypeStream = 0,    // TCP; "utils::StreamSocket"
  SocketTypeDatagram = 1,  // UDP; "utils::DatagramSocket"
  // Any other value connects with stream sockets and logs as "utils::UnknownSocket".
};

// Flag bit for InitiateSecureSession: verify neither CA trust nor host name.
constexpr unsigned int kSecureSessionNoVerify = 1;

// Created unconnected; a connect attaches a descriptor, InitiateSecureSession
// adds TLS, Close goes back to unconnected (keeping pending cancellations),
// Reset starts over (dropping them). Threads: see AbstractCancellableClient.
class BaseSocketClient : public AbstractCancellableClient {
 public:
  // A null logger means the "utils" logger. Throws utils::Error when the
  // wake-up pipe cannot be made.
  explicit BaseSocketClient(SocketType type = SocketTypeStream,
                            zullog::AbstractLogger* logger = nullptr);
  ~BaseSocketClient() override;

  // Tries each resolved address with the whole time-out: several addresses
  // can take a multiple of it.
  Error_t Connect(const std::string& host, const std::string& service, int timeoutMs) override;
  // As Connect, but a host name (not an address literal) is resolved by the
  // family and order that the mode asks for.
  Error_t ConnectEx(const std::string& host, const std::string& service, ConnectionMode mode,
                    int timeoutMs);
  Error_t ConnectLocal(const std::string& path, int timeoutMs);

  // TLS on the connected socket. host (may be null) serves SNI and the
  // host-name check; flag bit kSecureSessionNoVerify turns verification off.
  Error_t InitiateSecureSession(const char* host, int timeoutMs, unsigned int flags,
                                const tls::CertSettings& settings);
  // No SNI, verification by the environment against the connected host name.
  Error_t InitiateSecureSession(int timeoutMs);

  // The time-out applies to each wait, not to the whole call.
  Error_t Send(const void* data, size_t size, size_t* sent, int timeoutMs) override;
  Error_t Recv(void* buffer, size_t size, size_t* received, int timeoutMs) override;
  // Waits until a Recv would find input (or an end of stream) without
  // reading any. Saves the read that would only report "would block" when
  // an answer cannot have arrived yet.
  Error_t WaitForInput(int timeoutMs);
  Error_t Sleep(int ms) override;
  Error_t Cancel() override;
  Error_t Close() override;
  void Reset() override;
  // Hands the descriptor out (-1 when not connected); the client no longer owns it.
  int DetachNativeHandle();

  // Exchanges the connection (descriptor and TLS state) with a socket held
  // aside, so that a connection can outlive one request and serve the next.
  void SwapConnection(impl::Socket* other);
  // Connected, nothing unread and nothing arrived since the last read.
  bool IsIdleAndOpen() const;
  // A session for the next InitiateSecureSession to resume; used once.
  void OfferTlsSession(tls::SessionPtr session);
  // The current connection's session, when a later connection may resume it.
  tls::SessionPtr ResumableTlsSession() const;
  bool TlsSessionReused() const;

  // Which step the last failed Connect/ConnectEx or InitiateSecureSession
  // failed in, and why in a few words (the resolver's or the system's message,
  // or the TLS verification error).
  enum FailureStage { FailureNone, FailureResolve, FailureConnect, FailureTls };
  FailureStage LastFailureStage() const;
  const std::string& LastFailureText() const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace utils
