#include "utils/http/request.h"

#include <sys/mman.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "utils/base64.h"
#include "utils/env.h"
#include "utils/http/chunked_decoder.h"
#include "utils/http/connection_pool.h"
#include "utils/http/cookies.h"
#include "utils/http/digest_auth.h"
#include "utils/http/framing.h"
#include "utils/log.h"
#include "utils/net/proxy_tunnel.h"
#include "utils/net/socket.h"
#include "utils/string_to_int.h"
#include "utils/strings.h"
#include "utils/time.h"
#include "utils/url.h"

namespace utils {

namespace {

using Error_t = AbstractCancellableClient::Error_t;

constexpr const char* kModule = "utils::http";
// Reads of the head; also the most body bytes that arrive with it.
constexpr size_t kHeadReadBytes = 16 * 1024;
// Reads of bodies of unknown length and chunked bodies.
constexpr size_t kBodyReadBytes = 256 * 1024;
// Reads of bodies handed to a sink: small enough that the sink's work on one
// piece overlaps the arrival of the next.
constexpr size_t kStreamReadBytes = 64 * 1024;
// Bodies up to this size go out in the same send as the head.
constexpr size_t kInlineBodyBytes = 64 * 1024;

// Control bytes of a peer's or caller's text would split a log line or
// forge one; they are shown as '?'.
std::string Printable(const std::string& text) {
  std::string out = text.substr(0, 256);
  for (char& c : out) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
  }
  return out;
}

// What went wrong in one request: the class as the result, the detail kept
// for HttpResponse::ErrorText and logged once.
class Failure {
 public:
  explicit Failure(HttpResponse* response) : response_(response) {}

  int operator()(int code, const std::string& detail) const {
    const std::string text = Printable(detail);
    CORVANE_LOG(UtilsLogger(), zullog::SeverityWarning, kModule)
        << HttpRequestErrorName(code) << ": " << text;
    response_->SetErrorText(text);
    return code;
  }

  // A wait of the client that did not end in ErrorNone; what names the
  // step, as in "no response from host:port".
  int Client(Error_t error, const std::string& what, int timeoutMs, int otherwise) const {
    switch (error) {
      case AbstractCancellableClient::ErrorTimedOut:
        return (*this)(HttpRequestTimedOut, what + " within " + std::to_string(timeoutMs) + " ms");
      case AbstractCancellableClient::ErrorCanceled:
        return (*this)(HttpRequestCanceled, what + ": canceled");
      default:
        return (*this)(otherwise, what + ": " + AbstractCancellableClient::ErrorCodeToString(error));
    }
  }

 private:
  HttpResponse* response_;
};

// Where one hop goes.
struct Target {
  bool secure = false;
  std::string host;      // without IPv6 brackets
  int port = 0;
  std::string hostPort;  // the Host header: brackets, and the port when not the default
  std::string path;      // never empty
  std::string requestTarget;  // path and query, in origin form
  std::string user;
  std::string password;

  std::string Origin() const { return (secure ? "https://" : "http://") + hostPort; }
  bool SameOrigin(const Target& other) const {
    return secure == other.secure && port == other.port && SameIgnoreCase(host, other.host);
  }
};

bool ParseTarget(const std::string& url, Target* target) {
  Url parsed;
  if (!parsed.Parse(url, true)) return false;
  if (parsed.Scheme() == "https") {
    target->secure = true;
  } else if (parsed.Scheme() != "http") {
    return false;
  }
  if (parsed.Host().empty()) return false;
  target->host = parsed.Host();
  const int defaultPort = target->secure ? 443 : 80;
  target->port = parsed.Port(defaultPort);
  if (target->port <= 0) return false;
  const bool ipv6 = target->host.find(':') != std::string::npos;
  target->hostPort = ipv6 ? "[" + target->host + "]" : target->host;
  if (target->port != defaultPort) target->hostPort += ":" + std::to_string(target->port);
  target->path = parsed.Path().empty() ? "/" : parsed.Path();
  target->requestTarget = target->path;
  if (!parsed.Query().empty()) target->requestTarget += "?" + parsed.Query();
  target->user.clear();
  target->password.clear();
  if (!parsed.UserInfo().empty() &&
      !ParseUrlEscapedUserInfo(parsed.UserInfo(), &target->user, &target->password)) {
    return false;
  }
  return true;
}

// RFC 3986, section 5.2, for the forms servers put into Location; dot
// segments go when the result is parsed with normalisation.
std::string ResolveLocation(const Target& base, const std::string& location) {
  const size_t colon = location.find(':');
  if (colon != std::string::npos && colon > 0 && std::isalpha(static_cast<unsigned char>(location[0])) &&
      location.find_first_of("/?#") > colon) {
    return location;
  }
  if (location.compare(0, 2, "//") == 0) return (base.secure ? "https:" : "http:") + location;
  if (location.empty() || location[0] == '#') return base.Origin() + base.requestTarget;
  if (location[0] == '/') return base.Origin() + location;
  if (location[0] == '?') return base.Origin() + base.path + location;
  return base.Origin() + base.path.substr(0, base.path.rfind('/') + 1) + location;
}

bool HasHeader(const StringPairList& headers, const char* name) {
  return headers.Value(name, nullptr, true, nullptr);
}

bool IsSafeHeaderText(const std::string& text) {
  return text.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

// The method is a token (RFC 7230 sections 3.1.1 and 3.2.6); anything else
// could split the request line.
bool IsToken(const std::string& text) {
  static const std::string kDelimiters = "\"(),/:;<=>?@[\\]{}";
  return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) {
    const unsigned char u = static_cast<unsigned char>(c);
    return u > 0x20 && u < 0x7f && kDelimiters.find(c) == std::string::npos;
  });
}

bool IsMethodWithBody(const std::string& method) {
  return method == "POST" || method == "PUT" || method == "PATCH";
}

std::string BasicCredentials(const std::string& user, const std::string& password) {
  return "Basic " + Base64Encode(user + ":" + password);
}

struct Hop {
  std::string method;
  const std::string* body;
  HttpBodySource* source = nullptr;  // instead of body when set
  std::string authorization;  // ready header value, or empty
  std::string cookies;
  bool absoluteForm = false;
  // The hop left the first URL's origin: the caller's Authorization and
  // Cookie headers stay behind.
  bool foreign = false;
};

bool IsCallerCredential(const std::string& name) {
  return SameIgnoreCase(name, "Authorization") || SameIgnoreCase(name, "Cookie");
}

// False, leaving *head unspecified, when a value would break the head.
bool BuildRequestHead(const Hop& hop, const Target& target, const HttpRequestParams& params,
                      std::string* head) {
  std::string& out = *head;
  out.reserve(256);
  out = hop.method;
  out += ' ';
  if (hop.absoluteForm) out += target.Origin();
  out += target.requestTarget;
  out += " HTTP/1.1\r\n";
  bool safe = IsSafeHeaderText(target.requestTarget) && IsSafeHeaderText(target.hostPort);
  auto add = [&out, &safe](const char* name, const std::string& value) {
    safe = safe && IsSafeHeaderText(value);
    out += name;
    out += ": ";
    out += value;
    out += "\r\n";
  };
  const StringPairList& extra = params.headers;
  auto callerHas = [&](const char* name) {
    return HasHeader(extra, name) && !(hop.foreign && IsCallerCredential(name));
  };
  if (!HasHeader(extra, "Host")) add("Host", target.hostPort);
  if (!params.userAgent.empty() && !HasHeader(extra, "User-Agent")) add("User-Agent", params.userAgent);
  if (!hop.authorization.empty() && !callerHas("Authorization")) add("Authorization", hop.authorization);
  if (hop.absoluteForm && params.proxy.HasCredentials()) {
    add("Proxy-Authorization", BasicCredentials(params.proxy.login, params.proxy.password));
  }
  bool cookiesSent = hop.cookies.empty();
  std::string name;
  std::string value;
  for (size_t i = 0; extra.Value(i, &name, &value); ++i) {
    if (name.empty() || !IsSafeHeaderText(name) || !IsSafeHeaderText(value) ||
        name.find(':') != std::string::npos) {
      return false;
    }
    if (SameIgnoreCase(name, "Content-Length") || SameIgnoreCase(name, "Transfer-Encoding")) continue;
    if (hop.foreign && IsCallerCredential(name)) continue;
    // Meant for the proxy: inside a tunnel it would reach the target.
    if (SameIgnoreCase(name, "Proxy-Authorization") && !hop.absoluteForm) continue;
    if (!cookiesSent && SameIgnoreCase(name, "Cookie")) {
      value += (value.empty() ? "" : "; ") + hop.cookies;
      cookiesSent = true;
    }
    add(name.c_str(), value);
  }
  if (!cookiesSent) add("Cookie", hop.cookies);
  if (hop.source != nullptr) {
    if (hop.source->size >= 0) {
      add("Content-Length", std::to_string(hop.source->size));
    } else {
      add("Transfer-Encoding", "chunked");
    }
  } else if (!hop.body->empty() || IsMethodWithBody(hop.method)) {
    add("Content-Length", std::to_string(hop.body->size()));
  }
  // HTTP/1.1 keeps the connection by default. One that will not be kept
  // says so: the server then closes first and keeps the TIME_WAIT state on
  // its side.
  if (!params.keepAlive && !HasHeader(extra, "Connection")) add("Connection", "close");
  out += "\r\n";
  return safe;
}

// The time left for one connection step: the connect time-out, within
// what is left of the whole.
int StepMs(const Deadline& deadline, const Deadline& connectDeadline) {
  const int left = deadline.LeftMs();
  const int connectLeft = connectDeadline.LeftMs();
  if (connectLeft < 0) return left;
  return left < 0 ? connectLeft : std::min(left, connectLeft);
}

// The class of a failed connect to host:port, by the step that failed.
int ConnectFailure(const Failure& fail, const BaseSocketClient& client, Error_t error,
                   const std::string& hostPort, int timeoutMs, bool proxy) {
  const std::string what = (proxy ? "proxy " : "") + hostPort;
  if (error != AbstractCancellableClient::ErrorFailed && error != AbstractCancellableClient::ErrorEndOfStream) {
    return fail.Client(error, "no connection to " + what, timeoutMs, HttpRequestConnectFailed);
  }
  switch (client.LastFailureStage()) {
    case BaseSocketClient::FailureResolve:
      return fail(proxy ? HttpRequestProxyFailed : HttpRequestDnsFailed,
                  "cannot resolve " + what + ": " + client.LastFailureText());
    case BaseSocketClient::FailureTls:
      return fail(proxy ? HttpRequestProxyFailed : HttpRequestTlsFailed,
                  "TLS with " + what + " failed: " + client.LastFailureText());
    default:
      return fail(proxy ? HttpRequestProxyFailed : HttpRequestConnectFailed,
                  "cannot connect to " + what + ": " + client.LastFailureText());
  }
}

int ConnectHop(BaseSocketClient* client, const Target& target, const HttpRequestParams& params,
               const Deadline& deadline, const Failure& fail, bool* absoluteForm) {
  const unsigned int tlsFlags = params.lenientTls ? kSecureSessionNoVerify : 0;
  const Deadline connectDeadline(params.connectTimeoutMs);
  // The limit that a time-out of a connection step ran into, for the detail.
  const bool connectLimitFirst =
      params.connectTimeoutMs >= 0 && (params.timeoutMs < 0 || params.connectTimeoutMs < params.timeoutMs);
  const int limitMs = connectLimitFirst ? params.connectTimeoutMs : params.timeoutMs;
  *absoluteForm = false;
  Error_t error;
  const NetProxyInfo& proxy = params.proxy;
  if (proxy.IsSet()) {
    const std::string proxyHostPort = proxy.host + ":" + std::to_string(proxy.port);
    error = client->ConnectEx(proxy.host, std::to_string(proxy.port), params.connectionMode,
                              StepMs(deadline, connectDeadline));
    if (error != AbstractCancellableClient::ErrorNone) {
      return ConnectFailure(fail, *client, error, proxyHostPort, limitMs, true);
    }
    if (proxy.type == NetProxyTypeHttps) {
      if (target.secure) {
        // The socket carries one TLS session; a second one inside it is not supported.
        return fail(HttpRequestProxyFailed,
                    "https target " + target.hostPort + " through an https proxy is not supported");
      }
      error = client->InitiateSecureSession(proxy.host.c_str(), StepMs(deadline, connectDeadline), tlsFlags,
                                            tls::CertSettings());
      if (error != AbstractCancellableClient::ErrorNone) {
        return ConnectFailure(fail, *client, error, proxyHostPort, limitMs, true);
      }
    }
    if (target.secure || proxy.type == NetProxyTypeSocks5) {
      std::string why;
      error = ConnectThroughProxy(target.host, static_cast<unsigned short>(target.port), proxy,
                                  client, StepMs(deadline, connectDeadline), &why);
      if (error != AbstractCancellableClient::ErrorNone) {
        if (error == AbstractCancellableClient::ErrorFailed) {
          return fail(HttpRequestProxyFailed, "proxy " + proxyHostPort + " gave no tunnel to " + target.hostPort +
                                                  (why.empty() ? "" : ": " + why));
        }
        return fail.Client(error, "no tunnel to " + target.hostPort + " through proxy " + proxyHostPort, limitMs,
                           HttpRequestProxyFailed);
      }
    } else {
      *absoluteForm = true;
    }
  } else {
    error = client->ConnectEx(target.host, std::to_string(target.port), params.connectionMode,
                              StepMs(deadline, connectDeadline));
    if (error != AbstractCancellableClient::ErrorNone) {
      return ConnectFailure(fail, *client, error, target.hostPort, limitMs, false);
    }
  }
  if (!target.secure) return 0;
  error = client->InitiateSecureSession(target.host.c_str(), StepMs(deadline, connectDeadline), tlsFlags,
                                        tls::CertSettings());
  if (error == AbstractCancellableClient::ErrorNone) return 0;
  if (error == AbstractCancellableClient::ErrorTimedOut || error == AbstractCancellableClient::ErrorCanceled) {
    return fail.Client(error, "no TLS handshake with " + target.hostPort, limitMs, HttpRequestTlsFailed);
  }
  const std::string why = client->LastFailureStage() == BaseSocketClient::FailureTls ? client->LastFailureText()
                                                                                     : "handshake failed";
  return fail(HttpRequestTlsFailed, "TLS with " + target.hostPort + " failed: " + why);
}

// One exchange with one peer: where its bytes come from and how its
// failures read.
struct Exchange {
  BaseSocketClient* client;
  const Deadline& deadline;
  Failure fail;
  std::string peer;  // host:port
  int timeoutMs;

  int TooLarge(size_t maxBodyBytes) const {
    return fail(HttpRequestTooLarge, "body from " + peer + " larger than " + std::to_string(maxBodyBytes) + " bytes");
  }
  int BodyStalled(Error_t error) const {
    return fail.Client(error, "body from " + peer + " not complete", timeoutMs, HttpRequestFailed);
  }
};

// Reads a final response head (interim 1xx heads are dropped, except 101
// which ends the exchange) into *response. The body bytes that came with it
// are left at the start of *pending.
// What ReadResponseHead returns when a reused connection ended before the
// first byte of an answer: the server closed it while it was idle.
constexpr int kStaleConnection = 1;

int ReadResponseHead(const Exchange& x, HttpResponse* response, std::string* pending, bool mayBeStale) {
  std::string& buffer = *pending;
  size_t filled = buffer.size();
  for (;;) {
    const char* headEnd = ExtractHttpResponseRequestHeader(buffer.data(), buffer.data() + filled);
    if (headEnd != nullptr) {
      const size_t headSize = static_cast<size_t>(headEnd - buffer.data());
      if (!ParseHttpResponseHead(buffer.data(), headEnd, response)) {
        return x.fail(HttpRequestProtocolError, "malformed response head from " + x.peer);
      }
      buffer.erase(0, headSize);
      filled -= headSize;
      if (response->StatusCode >= 200 || response->StatusCode == 101) {
        buffer.resize(filled);
        return 0;
      }
      continue;
    }
    if (filled >= kMaxHeadBytes) {
      return x.fail(HttpRequestTooLarge,
                    "response head from " + x.peer + " larger than " + std::to_string(kMaxHeadBytes) + " bytes");
    }
    buffer.resize(std::max(buffer.size(), filled + kHeadReadBytes));
    size_t got = 0;
    // Nothing can be there the moment the request went out: a read first
    // would only report "would block".
    Error_t error = filled == 0 ? x.client->WaitForInput(x.deadline.LeftMs()) : AbstractCancellableClient::ErrorNone;
    if (error == AbstractCancellableClient::ErrorNone) {
      error = x.client->Recv(&buffer[filled], std::min(kHeadReadBytes, kMaxHeadBytes - filled + 1), &got,
                             x.deadline.LeftMs());
    }
    filled += got;
    const bool ended =
        error == AbstractCancellableClient::ErrorEndOfStream || error == AbstractCancellableClient::ErrorFailed;
    if (ended && mayBeStale && filled == 0) return kStaleConnection;
    if (error == AbstractCancellableClient::ErrorEndOfStream) {
      return x.fail(HttpRequestProtocolError, x.peer + " closed the connection before a complete response head");
    }
    if (error != AbstractCancellableClient::ErrorNone) {
      return x.fail.Client(error, "no response from " + x.peer, x.timeoutMs, HttpRequestFailed);
    }
  }
}

// The announced length, -1 for none, -2 for a malformed or contradictory one
// (RFC 9112, section 6.3: such a response cannot be framed safely).
int64_t ContentLength(const HttpResponse& response) {
  std::vector<std::string> values;
  if (!response.Headers.ValueList("Content-Length", values, true)) return -1;
  int64_t length = -1;
  for (const std::string& value : values) {
    std::vector<std::string> items;
    SplitString(value, ",", false, &items);
    for (const std::string& item : items) {
      const std::string text = TrimString(item);
      long long parsed = 0;
      if (text.empty() || text[0] < '0' || text[0] > '9' ||
          !StringToInt(text.data(), text.data() + text.size(), &parsed, true, nullptr)) {
        return -2;
      }
      if (length >= 0 && parsed != length) return -2;
      length = parsed;
    }
  }
  return length;
}

bool IsChunked(const HttpResponse& response) {
  std::string encoding;
  if (!response.Headers.LastValue("Transfer-Encoding", &encoding, true, nullptr)) return false;
  std::vector<std::string> codings;
  SplitString(encoding, ",", true, &codings);
  return !codings.empty() && SameIgnoreCase(TrimString(codings.back()), "chunked");
}

// The next bytes of a chunked body, up to `size`, in place of *block: 0, or
// the failure (a body may not end before its last chunk).
int ReadChunkedPiece(const Exchange& x, size_t size, std::string* block) {
  block->resize(size);
  size_t got = 0;
  const Error_t error = x.client->Recv(&(*block)[0], block->size(), &got, x.deadline.LeftMs());
  block->resize(got);
  if (error == AbstractCancellableClient::ErrorEndOfStream) {
    return x.fail(HttpRequestProtocolError, "chunked body from " + x.peer + " truncated");
  }
  return error != AbstractCancellableClient::ErrorNone ? x.BodyStalled(error) : 0;
}

// Leaves in *pending what came after the body.
int ReadChunkedBody(const Exchange& x, size_t maxBodyBytes, std::string* pending, std::string* output) {
  ChunkedDecoder decoder(maxBodyBytes);
  std::string block = std::move(*pending);
  for (;;) {
    size_t consumed = 0;
    const ChunkedDecoder::Result result = decoder.Feed(block.data(), block.size(), output, &consumed);
    if (result == ChunkedDecoder::kDone) {
      pending->assign(block, consumed, std::string::npos);
      return 0;
    }
    if (result == ChunkedDecoder::kMalformed) {
      return x.fail(HttpRequestProtocolError, "malformed chunked body from " + x.peer);
    }
    if (result == ChunkedDecoder::kTooLarge) return x.TooLarge(maxBodyBytes);
    const int read = ReadChunkedPiece(x, kBodyReadBytes, &block);
    if (read != 0) return read;
  }
}

// A fresh large buffer costs a page fault per 4 KiB as the body fills it,
// more than the copy itself; where the system grants huge pages on request,
// a large body takes one fault per 2 MiB instead.
void AskForHugePages(std::string* buffer) {
  constexpr uintptr_t kHugePage = uintptr_t{2} << 20;
  if (buffer->capacity() < 4 * kHugePage) return;
  const uintptr_t begin = reinterpret_cast<uintptr_t>(&(*buffer)[0]);
  const uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
  const uintptr_t last = (begin + buffer->capacity()) & ~(kHugePage - 1);
  if (last > first) madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
}

// std::string zero-fills what it grows by. Growing by one read's room just
// before the read keeps that fill in the cache, where the read then finds it,
// instead of a separate pass over a whole body in memory.
void GrowForRead(std::string* output, size_t room) { output->resize(output->size() + room); }

int ReadBody(const Exchange& x, const HttpResponse& response, size_t maxBodyBytes, std::string* pending,
             std::string* output) {
  if (IsChunked(response)) return ReadChunkedBody(x, maxBodyBytes, pending, output);
  const int64_t length = ContentLength(response);
  if (length == -2) return x.fail(HttpRequestProtocolError, "malformed Content-Length from " + x.peer);
  if (length >= 0) {
    if (static_cast<uint64_t>(length) > maxBodyBytes) return x.TooLarge(maxBodyBytes);
    const size_t size = static_cast<size_t>(length);
    // Straight into the result, in one allocation.
    output->reserve(size);
    AskForHugePages(output);
    output->assign(*pending, 0, std::min(size, pending->size()));
    pending->erase(0, output->size());
    size_t filled = output->size();
    Error_t error = AbstractCancellableClient::ErrorNone;
    while (filled < size && error == AbstractCancellableClient::ErrorNone) {
      if (output->size() == filled) GrowForRead(output, std::min(kBodyReadBytes, size - filled));
      size_t got = 0;
      error = x.client->Recv(&(*output)[filled], output->size() - filled, &got, x.deadline.LeftMs());
      filled += got;
    }
    output->resize(filled);
    if (error == AbstractCancellableClient::ErrorEndOfStream) {
      return x.fail(HttpRequestProtocolError, "body from " + x.peer + " truncated at " + std::to_string(filled) +
                                                  " of " + std::to_string(size) + " bytes");
    }
    return error == AbstractCancellableClient::ErrorNone ? 0 : x.BodyStalled(error);
  }
  // No framing: the body runs to the end of the stream.
  if (pending->size() > maxBodyBytes) return x.TooLarge(maxBodyBytes);
  *output = std::move(*pending);
  pending->clear();
  size_t filled = output->size();
  for (;;) {
    if (output->size() == filled) GrowForRead(output, kBodyReadBytes);
    size_t got = 0;
    const Error_t error = x.client->Recv(&(*output)[filled], output->size() - filled, &got, x.deadline.LeftMs());
    filled += got;
    if (filled > maxBodyBytes) {
      output->clear();
      return x.TooLarge(maxBodyBytes);
    }
    if (error != AbstractCancellableClient::ErrorNone) {
      output->resize(filled);
      return error == AbstractCancellableClient::ErrorEndOfStream ? 0 : x.BodyStalled(error);
    }
  }
}

// Sends the source's body after the head, chunked when its size is not
// known. 0, or a failure class.
int SendSourceBody(const Exchange& x, HttpBodySource* source) {
  const bool chunked = source->size < 0;
  const uint64_t announced = static_cast<uint64_t>(source->size);
  // Room for a chunk-size line in front of the data and CRLF behind it.
  constexpr size_t kFront = 18;
  std::string buffer(kFront + kBodyReadBytes + 2, '\0');
  char* data = &buffer[kFront];
  uint64_t total = 0;
  for (;;) {
    size_t got = 0;
    if (!source->read(data, kBodyReadBytes, &got) || got > kBodyReadBytes) {
      return x.fail(HttpRequestAborted, "body source for " + x.peer + " failed");
    }
    total += got;
    if (!chunked && (total > announced || (got == 0 && total != announced))) {
      return x.fail(HttpRequestAborted, "body source for " + x.peer + " gave other than the " +
                                            std::to_string(announced) + " bytes announced");
    }
    const char* out = data;
    size_t size = got;
    if (chunked) {
      char line[kFront + 1];
      const size_t length = static_cast<size_t>(std::snprintf(line, sizeof(line), "%zx\r\n", got));
      std::memcpy(data - length, line, length);
      std::memcpy(data + got, "\r\n", 2);
      out = data - length;
      size = length + got + 2;  // the last chunk is "0\r\n\r\n"
    }
    if (size > 0) {
      const Error_t error = SendAll(x.client, out, size, nullptr, x.deadline.LeftMs());
      if (error != AbstractCancellableClient::ErrorNone) {
        return x.fail.Client(error, "request body to " + x.peer + " not sent", x.timeoutMs, HttpRequestFailed);
      }
    }
    if (got == 0 || (!chunked && total == announced)) return 0;
  }
}

// Hands the body to the sink piece by piece, in a buffer of bounded size,
// under the same framing rules as ReadBody.
int StreamBody(const Exchange& x, const HttpResponse& response, size_t maxBodyBytes, std::string* pending,
               const HttpBodySink& sink) {
  uint64_t delivered = 0;
  auto deliver = [&](const char* data, size_t size) {
    delivered += size;
    if (delivered > maxBodyBytes) return x.TooLarge(maxBodyBytes);
    if (size > 0 && !sink(data, size)) return x.fail(HttpRequestAborted, "body sink stopped the body from " + x.peer);
    return 0;
  };
  std::string block;
  if (IsChunked(response)) {
    // The decoder's own cap stays off: delivered counts instead.
    ChunkedDecoder decoder(static_cast<size_t>(-1));
    std::string decoded;
    block = std::move(*pending);
    pending->clear();
    for (;;) {
      size_t consumed = 0;
      const ChunkedDecoder::Result result = decoder.Feed(block.data(), block.size(), &decoded, &consumed);
      const int delivery = deliver(decoded.data(), decoded.size());
      if (delivery != 0) return delivery;
      decoded.clear();
      if (result == ChunkedDecoder::kDone) {
        pending->assign(block, consumed, std::string::npos);
        return 0;
      }
      if (result != ChunkedDecoder::kNeedMore) {
        return x.fail(HttpRequestProtocolError, "malformed chunked body from " + x.peer);
      }
      const int read = ReadChunkedPiece(x, kStreamReadBytes, &block);
      if (read != 0) return read;
    }
  }
  const int64_t length = ContentLength(response);
  if (length == -2) return x.fail(HttpRequestProtocolError, "malformed Content-Length from " + x.peer);
  if (length >= 0 && static_cast<uint64_t>(length) > maxBodyBytes) return x.TooLarge(maxBodyBytes);
  const uint64_t size = length >= 0 ? static_cast<uint64_t>(length) : UINT64_MAX;
  const size_t first = static_cast<size_t>(std::min<uint64_t>(size, pending->size()));
  int delivery = deliver(pending->data(), first);
  if (delivery != 0) return delivery;
  pending->erase(0, first);
  block.resize(kStreamReadBytes);
  while (delivered < size) {
    size_t got = 0;
    const size_t want = static_cast<size_t>(std::min<uint64_t>(block.size(), size - delivered));
    const Error_t error = x.client->Recv(&block[0], want, &got, x.deadline.LeftMs());
    if (error == AbstractCancellableClient::ErrorEndOfStream) {
      if (length < 0) return 0;
      return x.fail(HttpRequestProtocolError, "body from " + x.peer + " truncated at " + std::to_string(delivered) +
                                                  " of " + std::to_string(size) + " bytes");
    }
    if (error != AbstractCancellableClient::ErrorNone) return x.BodyStalled(error);
    delivery = deliver(block.data(), got);
    if (delivery != 0) return delivery;
  }
  return 0;
}

bool HasToken(const StringPairList& headers, const char* name, const char* token) {
  std::vector<std::string> values;
  headers.ValueList(name, values, true);
  for (const std::string& value : values) {
    std::vector<std::string> items;
    SplitString(value, ",", true, &items);
    for (const std::string& item : items) {
      if (SameIgnoreCase(TrimString(item), token)) return true;
    }
  }
  return false;
}

// HTTP/1.1 persistence (RFC 9112, section 9.3): a 1.1 answer keeps the
// connection unless either side said close, a 1.0 answer only with
// keep-alive; a body that ran to the end of the stream took it along.
bool ConnectionStaysOpen(const HttpRequestParams& params, const HttpResponse& response, bool bodyToEnd) {
  if (!params.keepAlive || bodyToEnd || response.StatusCode == 101) return false;
  if (HasToken(params.headers, "Connection", "close") || HasToken(response.Headers, "Connection", "close")) {
    return false;
  }
  if (response.HttpVersion == "1.1") return true;
  return response.HttpVersion == "1.0" && HasToken(response.Headers, "Connection", "keep-alive");
}

// RFC 9110, section 9.2.2: these can be sent twice without harm.
bool IsIdempotent(const std::string& method) {
  return method == "GET" || method == "HEAD" || method == "OPTIONS" || method == "TRACE" || method == "PUT" ||
         method == "DELETE";
}

// What a TLS session was made under: the server, and how and against what
// trust its certificate was verified. A session resumes only under the same.
std::string SessionKey(const Target& target, const HttpRequestParams& params) {
  std::string key = target.host + "|" + std::to_string(target.port) + (params.lenientTls ? "|lenient|" : "|verify|");
  for (const char* name : {"CORVANE_OPENSSL_CA_FILE", "CORVANE_OPENSSL_CA_PATH",
                           "CORVANE_OPENSSL_SUPPRESS_CA_VERIFICATION", "CORVANE_OPENSSL_STRICT_CA_VERIFICATION"}) {
    std::string value;
    GetEnv(name, &value);
    key += value + "|";
  }
  return key;
}

// Whatever changes what a connection was set up for: the scheme, the way to
// the server (address order, proxy) and, for TLS, the session's key.
std::string ConnectionKey(const Target& target, const HttpRequestParams& params, const std::string& sessionKey) {
  std::string key = (target.secure ? "https|" : "http|") + std::to_string(params.connectionMode) + "|";
  const NetProxyInfo& proxy = params.proxy;
  if (proxy.IsSet()) {
    key += std::to_string(proxy.type) + "|" + proxy.host + "|" + std::to_string(proxy.port) + "|" + proxy.login +
           "|" + proxy.password + "|";
  }
  return key + (target.secure ? sessionKey : target.host + "|" + std::to_string(target.port));
}

bool IsRedirect(int status) {
  return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

bool HasBody(const std::string& method, int status) {
  return method != "HEAD" && status >= 200 && status != 204 && status != 304;
}

// Closes the connection of each hop, whatever way the hop ends.
class ConnectionGuard {
 public:
  explicit ConnectionGuard(AbstractCancellableClient* client) : client_(client) {}
  ~ConnectionGuard() { client_->Close(); }
  ConnectionGuard(const ConnectionGuard&) = delete;
  ConnectionGuard& operator=(const ConnectionGuard&) = delete;

 private:
  AbstractCancellableClient* client_;
};

}  // namespace

namespace {

thread_local bool threadClientBusy = false;

BaseSocketClient& SharedThreadClient() {
  thread_local BaseSocketClient client;
  return client;
}

}  // namespace

void ClearThreadHttpConnections() { HttpConnectionPool::ForThisThread().Clear(); }

const char* HttpRequestErrorName(int code) {
  switch (code) {
    case HttpRequestTimedOut:
      return "timeout";
    case HttpRequestCanceled:
      return "canceled";
    case HttpRequestTooLarge:
      return "toolarge";
    case HttpRequestDnsFailed:
      return "dns";
    case HttpRequestConnectFailed:
      return "connect";
    case HttpRequestTlsFailed:
      return "tls";
    case HttpRequestProxyFailed:
      return "proxy";
    case HttpRequestProtocolError:
      return "protocol";
    case HttpRequestBadUrl:
      return "badurl";
    case HttpRequestRedirectRefused:
      return "redirect";
    case HttpRequestInvalid:
      return "invalid";
    case HttpRequestAborted:
      return "aborted";
    case HttpRequestFileError:
      return "file";
    default:
      return "failed";
  }
}

ThreadHttpClient::ThreadHttpClient() : owner_(!threadClientBusy) {
  if (owner_) {
    threadClientBusy = true;
  } else {
    own_.reset(new BaseSocketClient());
  }
}

ThreadHttpClient::~ThreadHttpClient() {
  if (owner_) threadClientBusy = false;
}

BaseSocketClient& ThreadHttpClient::Get() { return own_ ? *own_ : SharedThreadClient(); }

int PerformHttpRequest(const std::string& method, const std::string& url,
                       const HttpRequestParams& params, std::string* output,
                       HttpResponse* response) {
  // Nothing else can reach this thread's client, so no cancel can be pending in it.
  ThreadHttpClient client;
  return PerformHttpRequest(&client.Get(), method, url, params, nullptr, HttpBodySink(), output, response);
}

int PerformHttpRequest(const std::string& method, const std::string& url, const HttpRequestParams& params,
                       HttpBodySource* source, const HttpBodySink& sink, std::string* output,
                       HttpResponse* response) {
  ThreadHttpClient client;
  return PerformHttpRequest(&client.Get(), method, url, params, source, sink, output, response);
}

int PerformHttpRequest(BaseSocketClient* client, const std::string& method, const std::string& url,
                       const HttpRequestParams& params, std::string* output,
                       HttpResponse* response) {
  return PerformHttpRequest(client, method, url, params, nullptr, HttpBodySink(), output, response);
}

int PerformHttpRequest(BaseSocketClient* client, const std::string& method, const std::string& url,
                       const HttpRequestParams& params, HttpBodySource* source, const HttpBodySink& sink,
                       std::string* output, HttpResponse* response) {
  std::string localOutput;
  HttpResponse localResponse;
  if (output == nullptr) output = &localOutput;
  if (response == nullptr) response = &localResponse;
  output->clear();
  response->Clear();
  const Failure fail(response);
  if (client == nullptr) return fail(HttpRequestFailed, "no client");
  if (!IsToken(method)) return fail(HttpRequestInvalid, "request method \"" + method + "\" is not a token");

  Target target;
  if (!ParseTarget(url, &target)) return fail(HttpRequestBadUrl, "unsupported or malformed URL");
  const Target origin = target;
  const bool callerCredentials = HasHeader(params.headers, "Authorization") || HasHeader(params.headers, "Cookie");
  if (!IsSafeHeaderText(params.proxy.login) || !IsSafeHeaderText(params.proxy.password)) {
    return fail(HttpRequestInvalid, "proxy credentials hold CR, LF or NUL");
  }

  const Deadline deadline(params.timeoutMs);
  CookieJar cookies;
  std::string body = params.body;
  Hop hop;
  hop.method = method;
  hop.body = &body;
  hop.source = source;
  // The source's body went out once; sending it again needs a rewind.
  bool sourceSent = false;
  std::string digestAuthorization;
  bool digestTried = false;
  int redirects = 0;
  // Set after a reused connection turned out closed: the next attempt connects anew.
  bool freshConnection = false;
  for (;;) {
    ConnectionGuard guard(client);
    // Credentials stay with the origin they were given for.
    hop.foreign = !target.SameOrigin(origin);
    const bool ownCredentials = !target.user.empty();
    const bool originCredentials = !hop.foreign && !origin.user.empty();
    const std::string& user = ownCredentials ? target.user : origin.user;
    const std::string& password = ownCredentials ? target.password : origin.password;
    if ((ownCredentials || originCredentials) && (!IsSafeHeaderText(user) || !IsSafeHeaderText(password))) {
      return fail(HttpRequestInvalid, "credentials for " + target.hostPort + " hold CR, LF or NUL");
    }
    if (!digestAuthorization.empty()) {
      hop.authorization = digestAuthorization;
    } else if (ownCredentials || originCredentials) {
      hop.authorization = BasicCredentials(user, password);
    } else {
      hop.authorization.clear();
    }
    hop.cookies = cookies.CookieHeader(target.host, target.path, target.secure);

    HttpConnectionPool& pool = HttpConnectionPool::ForThisThread();
    const std::string sessionKey = target.secure ? SessionKey(target, params) : std::string();
    const std::string connectionKey = ConnectionKey(target, params, sessionKey);
    std::unique_ptr<impl::Socket> idle;
    if (params.keepAlive && !freshConnection) idle = pool.Take(connectionKey);
    freshConnection = false;
    const bool reused = idle != nullptr;
    if (reused) {
      client->SwapConnection(idle.get());
      hop.absoluteForm = params.proxy.IsSet() && !target.secure && params.proxy.type != NetProxyTypeSocks5;
    } else {
      // The session goes to the target's handshake; an https proxy would take it first.
      if (target.secure && params.proxy.type != NetProxyTypeHttps) client->OfferTlsSession(pool.Session(sessionKey));
      const int connected = ConnectHop(client, target, params, deadline, fail, &hop.absoluteForm);
      if (connected != 0) return connected;
    }
    if (hop.source != nullptr && sourceSent && (!hop.source->rewind || !hop.source->rewind())) {
      return fail(HttpRequestAborted, "body source for " + target.hostPort + " cannot start over");
    }
    // Sent twice at most, and only what may be sent twice.
    const bool mayRetry = reused && IsIdempotent(hop.method) && (hop.source == nullptr || hop.source->rewind);
    std::string head;
    if (!BuildRequestHead(hop, target, params, &head)) {
      return fail(HttpRequestInvalid, "a request header for " + target.hostPort +
                                          " holds CR, LF or NUL, or a header name is empty or holds a colon");
    }
    const Exchange exchange{client, deadline, fail, target.hostPort, params.timeoutMs};
    const bool inlineBody = hop.source == nullptr && body.size() <= kInlineBodyBytes;
    if (inlineBody) head += body;
    Error_t error = SendAll(client, head.data(), head.size(), nullptr, deadline.LeftMs());
    if (error == AbstractCancellableClient::ErrorNone && !inlineBody && hop.source == nullptr) {
      error = SendAll(client, body.data(), body.size(), nullptr, deadline.LeftMs());
    }
    if (error == AbstractCancellableClient::ErrorNone && hop.source != nullptr) {
      sourceSent = true;
      const int sent = SendSourceBody(exchange, hop.source);
      if (sent != 0) return sent;
    }
    const bool broken =
        error == AbstractCancellableClient::ErrorFailed || error == AbstractCancellableClient::ErrorEndOfStream;
    if (broken && mayRetry) {
      freshConnection = true;
      continue;
    }
    if (error != AbstractCancellableClient::ErrorNone) {
      return fail.Client(error, "request to " + target.hostPort + " not sent", params.timeoutMs, HttpRequestFailed);
    }

    std::string pending;
    const int headResult = ReadResponseHead(exchange, response, &pending, mayRetry);
    if (headResult == kStaleConnection) {
      freshConnection = true;
      continue;
    }
    if (headResult != 0) return headResult;
    const int status = response->StatusCode;
    // By now a TLS 1.3 server's tickets have arrived with the first records;
    // the newest one goes in, as a server may take each ticket only once.
    if (target.secure) {
      if (tls::SessionPtr session = client->ResumableTlsSession()) pool.StoreSession(sessionKey, std::move(session));
    }

    std::vector<std::string> setCookies;
    response->Headers.ValueList("Set-Cookie", setCookies, true);
    for (const std::string& setCookie : setCookies) cookies.Store(setCookie, target.host, target.path);

    std::string location;
    if (IsRedirect(status) && redirects < params.maxRedirects &&
        response->Headers.Value("Location", &location, true, nullptr) && !location.empty()) {
      Target next;
      if (!ParseTarget(ResolveLocation(target, TrimString(location)), &next)) {
        return fail(HttpRequestBadUrl, target.hostPort + " redirected to an unsupported or malformed URL");
      }
      // Dropping the credentials would change what the caller asked for,
      // following with them would send them in clear: neither is right.
      const bool credentials = !next.user.empty() || !origin.user.empty() || callerCredentials;
      if (target.secure && !next.secure && credentials) {
        return fail(HttpRequestRedirectRefused, target.hostPort + " redirected from https to http (" +
                                                    next.hostPort + ") with credentials in the request");
      }
      const bool dropsBody = status == 303 || ((status == 301 || status == 302) && hop.method == "POST");
      const bool stuck = !dropsBody && hop.source != nullptr && !hop.source->rewind;
      if (!stuck) {
        ++redirects;
        if (dropsBody) {
          if (hop.method != "HEAD") hop.method = "GET";
          body.clear();
          hop.source = nullptr;
        }
        target = next;
        digestAuthorization.clear();
        continue;
      }
    }

    const bool canResend = hop.source == nullptr || hop.source->rewind;
    if (status == 401 && !digestTried && canResend && (ownCredentials || originCredentials)) {
      std::vector<std::string> challenges;
      response->Headers.ValueList("WWW-Authenticate", challenges, true);
      digest_auth::Challenge challenge;
      const auto digest = std::find_if(challenges.begin(), challenges.end(), [&](const std::string& value) {
        return digest_auth::ParseChallenge(value, &challenge);
      });
      if (digest != challenges.end()) {
        digestTried = true;
        digestAuthorization = digest_auth::BuildAuthorization(challenge, user, password, hop.method,
                                                              target.requestTarget, digest_auth::MakeClientNonce(), 1);
        continue;
      }
    }

    const bool hasBody = HasBody(hop.method, status);
    const bool bodyToEnd = hasBody && !IsChunked(*response) && ContentLength(*response) == -1;
    if (hasBody) {
      const int bodyResult = sink ? StreamBody(exchange, *response, params.maxBodyBytes, &pending, sink)
                                  : ReadBody(exchange, *response, params.maxBodyBytes, &pending, output);
      if (bodyResult != 0) {
        output->clear();
        return bodyResult;
      }
    }
    // Bytes beyond the answer would be taken for the next one's.
    if (pending.empty() && ConnectionStaysOpen(params, *response, bodyToEnd)) {
      std::unique_ptr<impl::Socket> keep(new impl::Socket(nullptr));
      client->SwapConnection(keep.get());
      pool.Put(connectionKey, std::move(keep));
    }
    return status;
  }
}

}  // namespace utils
