// utils::PerformHttpRequest: one HTTP/1.1 exchange over a kept or new
// connection, with TLS, redirects, Basic and Digest authentication, cookies
// kept for the call's own hops, HTTP and SOCKS5 proxies, one time-out for
// everything, named caps on what the peer may make us store, and bodies
// held in memory or streamed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "response.h"
#include "../net/address_info.h"
#include "../net/base_socket_client.h"
#include "../net_proxy_info.h"
#include "../noncopyable.h"
#include "../string_pair_list.h"

namespace utils {

// A response head larger than this fails the request.
constexpr size_t kMaxHeadBytes = 64 * 1024;
constexpr size_t kDefaultMaxBodyBytes = size_t{256} << 20;

// What PerformHttpRequest returns instead of a status code: the class of
// the failure. HttpResponse::ErrorText() gives the detail.
enum HttpRequestError : int {
  HttpRequestFailed = -1,  // the connection broke while sending or receiving
  HttpRequestTimedOut = -2,
  HttpRequestCanceled = -3,
  HttpRequestTooLarge = -4,  // head above kMaxHeadBytes or body above maxBodyBytes
  HttpRequestDnsFailed = -5,     // the host name did not resolve
  HttpRequestConnectFailed = -6, // no address of the host accepted a connection
  HttpRequestTlsFailed = -7,     // handshake, certificate or host-name check
  HttpRequestProxyFailed = -8,   // the proxy refused, failed or could not be reached
  HttpRequestProtocolError = -9, // malformed or truncated response
  HttpRequestBadUrl = -10,       // not an http or https URL, or malformed
  HttpRequestRedirectRefused = -11,  // a redirect that would expose credentials
  HttpRequestInvalid = -12,      // a method, header or credential unfit for a request head
  HttpRequestAborted = -13,      // the body sink or source stopped the transfer
  HttpRequestFileError = -14,    // a body file could not be read, written or put in place
};

// The class's one-word name ("timeout", "dns", ...), as scripts see it;
// "failed" for anything that is not an HttpRequestError.
const char* HttpRequestErrorName(int code);

struct HttpRequestParams {
  // The whole exchange, redirects included: positive is a limit in
  // milliseconds, 0 gives up at the first wait, negative waits without limit.
  int timeoutMs = -1;
  // Each connection set-up (TCP, proxy tunnel, TLS handshake) within the
  // whole time-out; negative: only the whole time-out applies.
  int connectTimeoutMs = -1;
  // Redirects followed before a 3xx is returned as it is; 0 follows none.
  int maxRedirects = 4;
  // Verify neither the certificate chain nor the host name.
  bool lenientTls = false;
  // Empty sends no User-Agent.
  std::string userAgent = "corvane-http/1";
  // Sent in order after ours. A name we would send ourselves (Host,
  // User-Agent, Authorization, Connection) replaces ours; Content-Length and
  // Transfer-Encoding are ours alone, since the framing depends on them.
  StringPairList headers;
  NetProxyInfo proxy;
  std::string body;
  ConnectionMode connectionMode = ConnectionModeAuto;
  size_t maxBodyBytes = kDefaultMaxBodyBytes;
  // Take an idle connection from the calling thread's pool and leave the
  // connection there afterwards when HTTP allows. TLS sessions are resumed
  // either way.
  bool keepAlive = true;
};

// Performs method on url ("http" or "https"; user info becomes Basic or
// Digest credentials). Returns the final status code with its body in
// *output and its head in *response (either may be null), or an
// HttpRequestError with a one-line detail in response->ErrorText(); failures
// are also logged at warning severity. Blocks the calling thread.
//
// Credentials stay with their origin (scheme, host and port): a redirect
// elsewhere drops the URL's user info and the caller's "Authorization" and
// "Cookie" headers; a caller's "Proxy-Authorization" goes to the HTTP proxy
// only, never into a tunnel. A redirect from https to http while any of these
// would still be sent is refused. CR, LF or NUL in any value bound for the
// request head fails the request before anything is sent.
//
// With params.keepAlive the request takes an idle connection of the calling
// thread when one to the same server, through the same proxy and with the
// same TLS settings is open with nothing unread, and leaves its connection
// there when HTTP/1.1 allows. A GET, HEAD, PUT, DELETE, OPTIONS or TRACE on a
// reused connection that ends before the first byte of an answer is sent
// once more on a new connection. TLS sessions are resumed on new connections
// to the same host and port under the same verification, keepAlive or not.
int PerformHttpRequest(const std::string& method, const std::string& url,
                       const HttpRequestParams& params, std::string* output,
                       HttpResponse* response);

// Takes each piece of a response body as it arrives, in order; false stops
// the request (HttpRequestAborted).
using HttpBodySink = std::function<bool(const char* data, size_t size)>;

// Supplies a request body in pieces instead of HttpRequestParams::body.
struct HttpBodySource {
  // Fills [buffer, buffer + size) with up to size bytes and stores the count
  // in *got; 0 marks the end. False stops the request (HttpRequestAborted).
  std::function<bool(char* buffer, size_t size, size_t* got)> read;
  // Sent as Content-Length when known; -1 sends the body chunked.
  int64_t size = -1;
  // Starts the body over for a second send (a 307 or 308 redirect, a Digest
  // challenge, a retry on a new connection). Without it the body goes out
  // once: a redirect or challenge that needs it again is returned as it is.
  std::function<bool()> rewind;
};

// Streaming forms: the body comes from source when it is not null, and goes
// to sink when it is set (the caller's memory then never holds it whole;
// params.maxBodyBytes still caps it). Otherwise as above.
int PerformHttpRequest(const std::string& method, const std::string& url, const HttpRequestParams& params,
                       HttpBodySource* source, const HttpBodySink& sink, std::string* output,
                       HttpResponse* response);
int PerformHttpRequest(BaseSocketClient* client, const std::string& method, const std::string& url,
                       const HttpRequestParams& params, HttpBodySource* source, const HttpBodySink& sink,
                       std::string* output, HttpResponse* response);

// The same on a client the caller owns, so that another thread may Cancel it
// (the call then returns HttpRequestCanceled). The client must not be
// connected; when the call returns it is closed again, its connection kept
// in the thread's pool or closed. A Cancel that arrives
// while nothing waits cancels the call's next wait.
int PerformHttpRequest(BaseSocketClient* client, const std::string& method, const std::string& url,
                       const HttpRequestParams& params, std::string* output,
                       HttpResponse* response);

// Closes the calling thread's idle connections and forgets its TLS
// sessions. Connections are kept per thread (at most 4 idle ones per server
// and way to it, 32 in all, each for 30 s) and closed when the thread ends.
void ClearThreadHttpConnections();

// The calling thread's client for one request. A client per call would cost a
// pipe and four system calls, a fair share of a small request, so each thread
// keeps one; a nested call on the same thread (say, from a logger that sends
// records over HTTP) gets a client of its own. Every request leaves the client
// closed, so it serves the thread's next call as good as new.
class ThreadHttpClient : private Noncopyable {
 public:
  ThreadHttpClient();
  ~ThreadHttpClient();
  BaseSocketClient& Get();

 private:
  bool owner_;
  std::unique_ptr<BaseSocketClient> own_;
};

}  // namespace utils
