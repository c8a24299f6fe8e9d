#include "utils/http/request.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <vector>

#include "utils/base64.h"
#include "utils/http/chunked_decoder.h"
#include "utils/http/cookies.h"
#include "utils/http/digest_auth.h"
#include "utils/http/framing.h"
#include "utils/log.h"
#include "utils/net/proxy_tunnel.h"
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
// Bodies up to this size go out in the same send as the head.
constexpr size_t kInlineBodyBytes = 64 * 1024;

int FromClientError(Error_t error) {
  switch (error) {
    case AbstractCancellableClient::ErrorTimedOut:
      return HttpRequestTimedOut;
    case AbstractCancellableClient::ErrorCanceled:
      return HttpRequestCanceled;
    default:
      return HttpRequestFailed;
  }
}

int Fail(const std::string& reason, int result = HttpRequestFailed) {
  CORVANE_LOG(UtilsLogger(), zullog::SeverityWarning, kModule) << reason;
  return result;
}

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
  return text.find_first_of("\r\n", 0) == std::string::npos && text.find('\0') == std::string::npos;
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
  std::string authorization;  // ready header value, or empty
  std::string cookies;
  bool absoluteForm = false;
};

bool BuildRequestHead(const Hop& hop, const Target& target, const HttpRequestParams& params,
                      std::string* head) {
  std::string& out = *head;
  out.reserve(256);
  out = hop.method;
  out += ' ';
  if (hop.absoluteForm) out += target.Origin();
  out += target.requestTarget;
  out += " HTTP/1.1\r\n";
  auto add = [&out](const char* name, const std::string& value) {
    out += name;
    out += ": ";
    out += value;
    out += "\r\n";
  };
  const StringPairList& extra = params.headers;
  if (!HasHeader(extra, "Host")) add("Host", target.hostPort);
  if (!params.userAgent.empty() && !HasHeader(extra, "User-Agent")) add("User-Agent", params.userAgent);
  if (!hop.authorization.empty() && !HasHeader(extra, "Authorization")) add("Authorization", hop.authorization);
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
    if (!cookiesSent && SameIgnoreCase(name, "Cookie")) {
      value += (value.empty() ? "" : "; ") + hop.cookies;
      cookiesSent = true;
    }
    add(name.c_str(), value);
  }
  if (!cookiesSent) add("Cookie", hop.cookies);
  if (!hop.body->empty() || IsMethodWithBody(hop.method)) {
    add("Content-Length", std::to_string(hop.body->size()));
  }
  // Connections are never reused, so say so: the server then closes first
  // and keeps the TIME_WAIT state on its side.
  if (!HasHeader(extra, "Connection")) add("Connection", "close");
  out += "\r\n";
  return true;
}

Error_t ConnectHop(BaseSocketClient* client, const Target& target, const HttpRequestParams& params,
                   const Deadline& deadline, bool* absoluteForm) {
  const unsigned int tlsFlags = params.lenientTls ? kSecureSessionNoVerify : 0;
  *absoluteForm = false;
  Error_t error;
  const NetProxyInfo& proxy = params.proxy;
  if (proxy.IsSet()) {
    error = client->ConnectEx(proxy.host, std::to_string(proxy.port), params.connectionMode,
                              deadline.LeftMs());
    if (error != AbstractCancellableClient::ErrorNone) return error;
    if (proxy.type == NetProxyTypeHttps) {
      if (target.secure) {
        // The socket carries one TLS session; a second one inside it is not supported.
        Fail("https target through an https proxy is not supported");
        return AbstractCancellableClient::ErrorFailed;
      }
      error = client->InitiateSecureSession(proxy.host.c_str(), deadline.LeftMs(), tlsFlags,
                                            tls::CertSettings());
      if (error != AbstractCancellableClient::ErrorNone) return error;
    }
    if (target.secure || proxy.type == NetProxyTypeSocks5) {
      error = ConnectThroughProxy(target.host, static_cast<unsigned short>(target.port), proxy,
                                  client, deadline.LeftMs());
      if (error != AbstractCancellableClient::ErrorNone) return error;
    } else {
      *absoluteForm = true;
    }
  } else {
    error = client->ConnectEx(target.host, std::to_string(target.port), params.connectionMode,
                              deadline.LeftMs());
    if (error != AbstractCancellableClient::ErrorNone) return error;
  }
  if (!target.secure) return AbstractCancellableClient::ErrorNone;
  return client->InitiateSecureSession(target.host.c_str(), deadline.LeftMs(), tlsFlags,
                                       tls::CertSettings());
}

// Reads a final response head (interim 1xx heads are dropped, except 101
// which ends the exchange) into *response. The body bytes that came with it
// are left at the start of *pending.
int ReadResponseHead(AbstractCancellableClient* client, const Deadline& deadline,
                     HttpResponse* response, std::string* pending) {
  std::string& buffer = *pending;
  size_t filled = buffer.size();
  for (;;) {
    const char* headEnd = ExtractHttpResponseRequestHeader(buffer.data(), buffer.data() + filled);
    if (headEnd != nullptr) {
      const size_t headSize = static_cast<size_t>(headEnd - buffer.data());
      if (!ParseHttpResponseHead(buffer.data(), headEnd, response)) {
        return Fail("malformed response head");
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
      return Fail("response head larger than " + std::to_string(kMaxHeadBytes) + " bytes",
                  HttpRequestTooLarge);
    }
    buffer.resize(std::max(buffer.size(), filled + kHeadReadBytes));
    size_t got = 0;
    const Error_t error = client->Recv(&buffer[filled], std::min(kHeadReadBytes, kMaxHeadBytes - filled + 1),
                                       &got, deadline.LeftMs());
    filled += got;
    if (error == AbstractCancellableClient::ErrorEndOfStream) {
      return Fail("connection closed before a complete response head");
    }
    if (error != AbstractCancellableClient::ErrorNone) return FromClientError(error);
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

int ReadChunkedBody(AbstractCancellableClient* client, const Deadline& deadline, size_t maxBodyBytes,
                    std::string* pending, std::string* output) {
  ChunkedDecoder decoder(maxBodyBytes);
  std::string block = std::move(*pending);
  for (;;) {
    const ChunkedDecoder::Result result = decoder.Feed(block.data(), block.size(), output, nullptr);
    if (result == ChunkedDecoder::kDone) return 0;
    if (result == ChunkedDecoder::kMalformed) return Fail("malformed chunked body");
    if (result == ChunkedDecoder::kTooLarge) {
      return Fail("body larger than " + std::to_string(maxBodyBytes) + " bytes", HttpRequestTooLarge);
    }
    block.resize(kBodyReadBytes);
    size_t got = 0;
    const Error_t error = client->Recv(&block[0], block.size(), &got, deadline.LeftMs());
    block.resize(got);
    if (error == AbstractCancellableClient::ErrorEndOfStream) return Fail("chunked body truncated");
    if (error != AbstractCancellableClient::ErrorNone) return FromClientError(error);
  }
}

// std::string zero-fills what it grows by. Growing by one read's room just
// before the read keeps that fill in the cache, where the read then finds it,
// instead of a separate pass over a whole body in memory.
void GrowForRead(std::string* output, size_t room) { output->resize(output->size() + room); }

int ReadBody(AbstractCancellableClient* client, const Deadline& deadline, const HttpResponse& response,
             size_t maxBodyBytes, std::string* pending, std::string* output) {
  if (IsChunked(response)) return ReadChunkedBody(client, deadline, maxBodyBytes, pending, output);
  const int64_t length = ContentLength(response);
  if (length == -2) return Fail("malformed Content-Length");
  if (length >= 0) {
    if (static_cast<uint64_t>(length) > maxBodyBytes) {
      return Fail("body of " + std::to_string(length) + " bytes is above the limit", HttpRequestTooLarge);
    }
    const size_t size = static_cast<size_t>(length);
    // Straight into the result, in one allocation.
    output->reserve(size);
    output->assign(*pending, 0, std::min(size, pending->size()));
    size_t filled = output->size();
    Error_t error = AbstractCancellableClient::ErrorNone;
    while (filled < size && error == AbstractCancellableClient::ErrorNone) {
      if (output->size() == filled) GrowForRead(output, std::min(kBodyReadBytes, size - filled));
      size_t got = 0;
      error = client->Recv(&(*output)[filled], output->size() - filled, &got, deadline.LeftMs());
      filled += got;
    }
    output->resize(filled);
    if (error == AbstractCancellableClient::ErrorEndOfStream) {
      return Fail("body truncated at " + std::to_string(filled) + " of " + std::to_string(size) + " bytes");
    }
    return error == AbstractCancellableClient::ErrorNone ? 0 : FromClientError(error);
  }
  // No framing: the body runs to the end of the stream.
  if (pending->size() > maxBodyBytes) return Fail("body above the limit", HttpRequestTooLarge);
  *output = std::move(*pending);
  size_t filled = output->size();
  for (;;) {
    if (output->size() == filled) GrowForRead(output, kBodyReadBytes);
    size_t got = 0;
    const Error_t error = client->Recv(&(*output)[filled], output->size() - filled, &got, deadline.LeftMs());
    filled += got;
    if (filled > maxBodyBytes) {
      output->clear();
      return Fail("body above the limit", HttpRequestTooLarge);
    }
    if (error != AbstractCancellableClient::ErrorNone) {
      output->resize(filled);
      return error == AbstractCancellableClient::ErrorEndOfStream ? 0 : FromClientError(error);
    }
  }
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
  return PerformHttpRequest(&client.Get(), method, url, params, output, response);
}

int PerformHttpRequest(BaseSocketClient* client, const std::string& method, const std::string& url,
                       const HttpRequestParams& params, std::string* output,
                       HttpResponse* response) {
  std::string localOutput;
  HttpResponse localResponse;
  if (output == nullptr) output = &localOutput;
  if (response == nullptr) response = &localResponse;
  output->clear();
  response->Clear();
  if (client == nullptr) return HttpRequestFailed;
  if (!IsToken(method)) return Fail("invalid request method");

  Target target;
  if (!ParseTarget(url, &target)) return Fail("unsupported or malformed URL");
  const std::string originHost = target.host;
  const std::string user = target.user;
  const std::string password = target.password;

  const Deadline deadline(params.timeoutMs);
  CookieJar cookies;
  std::string body = params.body;
  Hop hop;
  hop.method = method;
  hop.body = &body;
  std::string digestAuthorization;
  bool digestTried = false;
  int redirects = 0;
  for (;;) {
    ConnectionGuard guard(client);
    // Credentials stay with the host they were given for.
    const bool ownHost = target.host == originHost;
    if (!digestAuthorization.empty()) {
      hop.authorization = digestAuthorization;
    } else if (!target.user.empty()) {
      hop.authorization = BasicCredentials(target.user, target.password);
    } else if (ownHost && !user.empty()) {
      hop.authorization = BasicCredentials(user, password);
    } else {
      hop.authorization.clear();
    }
    hop.cookies = cookies.CookieHeader(target.host, target.path, target.secure);

    Error_t error = ConnectHop(client, target, params, deadline, &hop.absoluteForm);
    if (error != AbstractCancellableClient::ErrorNone) {
      CORVANE_LOG(UtilsLogger(), zullog::SeverityWarning, kModule)
          << "cannot reach " << target.hostPort << ": " << AbstractCancellableClient::ErrorCodeToString(error);
      return FromClientError(error);
    }
    std::string head;
    if (!BuildRequestHead(hop, target, params, &head)) return Fail("request header with a line break or colon in its name");
    const bool inlineBody = body.size() <= kInlineBodyBytes;
    if (inlineBody) head += body;
    error = SendAll(client, head.data(), head.size(), nullptr, deadline.LeftMs());
    if (error == AbstractCancellableClient::ErrorNone && !inlineBody) {
      error = SendAll(client, body.data(), body.size(), nullptr, deadline.LeftMs());
    }
    if (error != AbstractCancellableClient::ErrorNone) return FromClientError(error);

    std::string pending;
    const int headResult = ReadResponseHead(client, deadline, response, &pending);
    if (headResult != 0) return headResult;
    const int status = response->StatusCode;

    std::vector<std::string> setCookies;
    response->Headers.ValueList("Set-Cookie", setCookies, true);
    for (const std::string& setCookie : setCookies) cookies.Store(setCookie, target.host, target.path);

    std::string location;
    if (IsRedirect(status) && redirects < params.maxRedirects &&
        response->Headers.Value("Location", &location, true, nullptr) && !location.empty()) {
      Target next;
      if (!ParseTarget(ResolveLocation(target, TrimString(location)), &next)) {
        return Fail("redirect to an unsupported or malformed URL");
      }
      ++redirects;
      if (status == 303 || ((status == 301 || status == 302) && hop.method == "POST")) {
        if (hop.method != "HEAD") hop.method = "GET";
        body.clear();
      }
      target = next;
      digestAuthorization.clear();
      continue;
    }

    const bool haveCredentials = !target.user.empty() || (ownHost && !user.empty());
    if (status == 401 && !digestTried && haveCredentials) {
      std::vector<std::string> challenges;
      response->Headers.ValueList("WWW-Authenticate", challenges, true);
      digest_auth::Challenge challenge;
      const auto digest = std::find_if(challenges.begin(), challenges.end(), [&](const std::string& value) {
        return digest_auth::ParseChallenge(value, &challenge);
      });
      if (digest != challenges.end()) {
        digestTried = true;
        const bool own = !target.user.empty();
        digestAuthorization = digest_auth::BuildAuthorization(
            challenge, own ? target.user : user, own ? target.password : password, hop.method,
            target.requestTarget, digest_auth::MakeClientNonce(), 1);
        continue;
      }
    }

    if (!HasBody(hop.method, status)) return status;
    const int bodyResult = ReadBody(client, deadline, *response, params.maxBodyBytes, &pending, output);
    if (bodyResult != 0) {
      output->clear();
      return bodyResult;
    }
    return status;
  }
}

}  // namespace utils
