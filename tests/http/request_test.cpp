#include "utils/http/request.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "http/support/http_peers.h"
#include "net/test_helpers.h"
#include "utils/http/framing.h"
#include "utils/net/base_socket_client.h"
#include "utils/url.h"

namespace {

using nettest::Clock;
using nettest::ElapsedMs;

class HttpRequest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { servers_ = std::make_unique<httptest::Servers>(); }
  static void TearDownTestSuite() { servers_.reset(); }

  int Get(const std::string& url, const utils::HttpRequestParams& params = {}) {
    return utils::PerformHttpRequest("GET", url, params, &body_, &response_);
  }

  static std::unique_ptr<httptest::Servers> servers_;
  std::string body_;
  utils::HttpResponse response_;
};

std::unique_ptr<httptest::Servers> HttpRequest::servers_;

// Each hop carries what the parameters ask; the caller's framing headers never go out.
TEST_F(HttpRequest, FollowsRedirectsUpToTheLimitRewritingTheMethodAsBrowsersDo) {
  utils::HttpRequestParams params;
  params.body = std::string(100000, 'b');  // above the size sent together with the head
  params.userAgent = "probe/2";
  params.keepAlive = false;
  params.headers.AddValue("Content-Length", "999");
  const struct {
    const char* code;
    const char* method;
    const char* expectedLine;
    bool bodyKept;
  } cases[] = {
      {"303", "POST", "GET /echo HTTP/1.1", false}, {"302", "POST", "GET /echo HTTP/1.1", false},
      {"301", "POST", "GET /echo HTTP/1.1", false}, {"307", "POST", "POST /echo HTTP/1.1", true},
      {"308", "PUT", "PUT /echo HTTP/1.1", true},   {"303", "PUT", "GET /echo HTTP/1.1", false},
  };
  for (const auto& c : cases) {
    const std::string url = servers_->peer.Url(std::string("/redirect?") + c.code + "&/echo");
    ASSERT_EQ(utils::PerformHttpRequest(c.method, url, params, &body_, &response_), 200) << c.code;
    EXPECT_EQ(body_.compare(0, strlen(c.expectedLine), c.expectedLine), 0) << c.code << ": " << body_;
    for (const std::string& line : {"Host: 127.0.0.1:" + std::to_string(servers_->peer.Port()),
                                    std::string("User-Agent: probe/2"), std::string("Connection: close")}) {
      EXPECT_NE(body_.find("\r\n" + line + "\r\n"), std::string::npos) << c.code << " " << line;
    }
    EXPECT_EQ(body_.find("999"), std::string::npos) << c.code;
    EXPECT_EQ(body_.find("Content-Length: 100000\r\n") != std::string::npos, c.bodyKept) << c.code;
    EXPECT_EQ(body_.find(params.body) != std::string::npos, c.bodyKept) << c.code;
  }
  auto chain = [this](int hops) {
    std::string path = "/echo";
    while (hops-- > 0) path = "/redirect?302&" + path;
    return servers_->peer.Url(path);
  };
  EXPECT_EQ(Get(chain(4)), 200);
  EXPECT_EQ(body_.compare(0, 9, "GET /echo"), 0) << body_;
  EXPECT_EQ(Get(chain(5)), 302);  // the fifth redirect is over the default limit
  EXPECT_TRUE(response_.Headers.Value("Location", &body_, true, nullptr) && body_ == "/echo");
  params.maxRedirects = 0;
  EXPECT_EQ(Get(chain(1), params), 302);
}

TEST_F(HttpRequest, CredentialsStayWithTheirOriginAcrossRedirects) {
  const std::string peer = "127.0.0.1:" + std::to_string(servers_->peer.Port());
  const std::string echo = "http://" + peer + "/echo";
  const std::string viaNginx = "127.0.0.1:" + std::to_string(servers_->site.HttpPort()) + "/goto?to=" + echo;
  const std::string viaHttps = "localhost:" + std::to_string(servers_->site.HttpsPort()) + "/goto?to=" + echo;
  const struct {
    std::string url;
    bool callerHeaders;
    int expected;
    bool credentialsArrive;
  } cases[] = {
      {"http://bob:pw@" + peer + "/redirect?302&/echo", false, 200, true},  // same origin
      {"http://" + peer + "/redirect?302&/echo", true, 200, true},
      {"http://bob:pw@" + peer + "/redirect?302&http://localhost:PORT/echo", false, 200, false},  // other host
      {"http://" + peer + "/redirect?302&http://localhost:PORT/echo", true, 200, false},
      {"http://bob:pw@" + viaNginx, false, 200, false},  // same host, other port
      {"http://" + viaNginx, true, 200, false},
      {"https://" + viaHttps, false, 200, false},  // https to http without credentials is followed
      {"https://bob:pw@" + viaHttps, false, utils::HttpRequestRedirectRefused, false},
      {"https://" + viaHttps, true, utils::HttpRequestRedirectRefused, false},
  };
  // Same host and port, other scheme: another origin.
  EXPECT_EQ(Get("http://bob:pw@localhost:" + std::to_string(servers_->site.HttpsPort()) + "/private/secret"), 401);
  for (const auto& c : cases) {
    utils::HttpRequestParams params;
    params.headers.AddValue("X-Keep", "1");
    if (c.callerHeaders) {
      params.headers.AddValue("Authorization", "Bearer t");
      params.headers.AddValue("Cookie", "c=1");
    }
    // Meant for a proxy; with none it never goes out.
    params.headers.AddValue("Proxy-Authorization", "Basic cHJveHk6cHc=");
    ASSERT_EQ(Get(c.url, params), c.expected) << c.url << ": " << response_.ErrorText();
    if (c.expected != 200) continue;
    const bool fromUrl = c.credentialsArrive && !c.callerHeaders;
    const bool fromCaller = c.credentialsArrive && c.callerHeaders;
    EXPECT_NE(body_.find("X-Keep: 1\r\n"), std::string::npos) << c.url;
    EXPECT_EQ(body_.find("Authorization: Basic Ym9iOnB3") != std::string::npos, fromUrl) << c.url << body_;
    EXPECT_EQ(body_.find("Authorization: Bearer t") != std::string::npos, fromCaller) << c.url;
    EXPECT_EQ(body_.find("Cookie: c=1") != std::string::npos, fromCaller) << c.url;
    EXPECT_EQ(body_.find("Proxy-Authorization"), std::string::npos) << c.url;
  }
}

TEST_F(HttpRequest, RefusesLineBreaksAndNulInEveryHeadValue) {
  const std::string peer = "127.0.0.1:" + std::to_string(servers_->peer.Port());
  const struct {
    const char* method;
    std::string url;
    const char* headerName;
    std::string headerValue;
    const char* userAgent;
    const char* proxyLogin;
  } cases[] = {
      {"GET / HTTP/1.1\r\nX:", "http://" + peer + "/echo", "X", "1", "a", ""},
      {"GET", "http://" + peer + "/echo", "X-Bad", "a\r\nInjected: 1", "a", ""},
      {"GET", "http://" + peer + "/echo", "X-Bad\nY", "1", "a", ""},
      {"GET", "http://" + peer + "/echo", "X", std::string("a\0b", 3), "a", ""},
      {"GET", "http://" + peer + "/echo", "X", "1", "a\rb", ""},
      {"GET", "http://" + peer + "/echo", "X", "1", "a", "me\nX: 1"},
      // Into a Digest user name once the challenge comes, into Basic at once.
      {"GET", "http://alice%0d%0aX:%20y:secret@" + peer + "/digest", "X", "1", "a", ""},
      {"GET", "http://alice:se%00cret@" + peer + "/echo", "X", "1", "a", ""},
  };
  for (const auto& c : cases) {
    utils::HttpRequestParams params;
    params.headers.AddValue(c.headerName, c.headerValue);
    params.userAgent = c.userAgent;
    params.proxy.login = c.proxyLogin;
    EXPECT_EQ(utils::PerformHttpRequest(c.method, c.url, params, &body_, &response_), utils::HttpRequestInvalid)
        << c.url << " " << c.headerName;
    EXPECT_NE(response_.ErrorText(), "");
  }
}

TEST_F(HttpRequest, CancelFromAnotherThreadEndsTheRequestAtOnce) {
  utils::BaseSocketClient client;
  std::thread canceller([&client] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    client.Cancel();
  });
  const auto start = Clock::now();
  EXPECT_EQ(utils::PerformHttpRequest(&client, "GET", servers_->peer.Url("/slow-head"), {}, &body_, &response_),
            utils::HttpRequestCanceled);
  EXPECT_LT(ElapsedMs(start), 2000);
  canceller.join();
}

TEST_F(HttpRequest, GoesThroughHttpAndSocks5ProxiesWithTheirCredentials) {
  nettest::Tinyproxy guarded(servers_->dir.Path(), {servers_->site.HttpsPort()}, "user", "secret");
  const int closed = nettest::FreePort(2);
  const std::string plain = servers_->peer.Url("/echo");
  const std::string secure = servers_->site.HttpsUrl("localhost", "/files/65536");
  const struct {
    utils::NetProxyType type;
    int port;
    const char* password;  // for the login "user", or none
    const std::string& url;
    int expected;
  } cases[] = {
      // Plain HTTP goes in absolute form, HTTPS through a CONNECT tunnel.
      {utils::NetProxyTypeHttp, guarded.Port(), "secret", plain, 200},
      {utils::NetProxyTypeHttp, guarded.Port(), "secret", secure, 200},
      {utils::NetProxyTypeHttp, guarded.Port(), "", plain, 401},  // tinyproxy's own answer
      {utils::NetProxyTypeHttp, guarded.Port(), "guess", secure, utils::HttpRequestProxyFailed},
      {utils::NetProxyTypeHttp, closed, "", plain, utils::HttpRequestProxyFailed},
      {utils::NetProxyTypeSocks5, servers_->peer.SocksPort(), "", plain, 200},
      {utils::NetProxyTypeSocks5, servers_->peer.SocksPort(), "", secure, 200},
  };
  for (const auto& c : cases) {
    utils::ClearThreadHttpConnections();
    utils::HttpRequestParams params;
    params.proxy = {"127.0.0.1", static_cast<unsigned short>(c.port), *c.password ? "user" : "", c.password, c.type};
    params.headers.AddValue("Proxy-Authorization", "Basic Y2FsbGVyOnB3");
    const std::string where = std::to_string(c.port) + " " + c.password + " " + c.url;
    ASSERT_EQ(Get(c.url, params), c.expected) << where << ": " << response_.ErrorText();
    if (c.expected != 200) continue;
    const bool secured = &c.url == &secure;
    EXPECT_TRUE(secured ? body_ == httptest::NginxSite::FileContent(65536) : body_.find("GET /echo HTTP/1.1") == 0);
    // Whatever is meant for a proxy never reaches the server through a tunnel.
    EXPECT_TRUE(c.type != utils::NetProxyTypeSocks5 || body_.find("Proxy-Authorization") == std::string::npos);
  }
}

// Answers written byte for byte by the peer's /raw (then closed) and /held
// (kept open): what is framed and followed, or the failure and its detail.
TEST_F(HttpRequest, FramesAndFollowsAnswersOrFailsWithAClassAndADetail) {
  const std::string peer = "127.0.0.1:" + std::to_string(servers_->peer.Port());
  const std::string ok = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
  const std::string lengthOf5 = "HTTP/1.1 200 OK\r\nContent-Length: ";
  const int kBadFraming = utils::HttpRequestProtocolError;
  auto raw = [this](const char* path, const std::string& answer) {
    return servers_->peer.Url(std::string(path) + "?" + utils::UrlEscape(answer));
  };
  auto moved = [&raw](const std::string& location) {
    return raw("/a/b/raw", "HTTP/1.1 302 Found\r\nLocation: " + location + "\r\nContent-Length: 0\r\n\r\n");
  };
  const std::string toEnd = raw("/raw", "HTTP/1.1 200 OK\r\n\r\n" + std::string(100000, 'z'));
  const struct {
    std::string url;
    int expected;
    std::string text;  // in the body, or in the error text
    size_t maxBodyBytes = 0;
  } cases[] = {
      // The forms a Location may take, resolved against /a/b/raw.
      {moved("../../c/./echo"), 200, "GET /c/echo HTTP/1.1"},
      {moved("//" + peer + "/d/echo"), 200, "GET /d/echo HTTP/1.1"},
      {moved("HTTP://" + peer + "/e/echo"), 200, "GET /e/echo HTTP/1.1"},
      {moved("?" + utils::UrlEscape(ok)), 200, "ok"},
      {moved(""), 302, ""},
      {moved("ftp://127.0.0.1/x"), utils::HttpRequestBadUrl, "redirected"},
      // Cookies set on the way go with the call's own redirects.
      {raw("/raw",
           "HTTP/1.1 302 Found\r\nSet-Cookie: session=abc; Path=/\r\nSet-Cookie: other=1; Path=/elsewhere\r\n"
           "Location: /echo\r\nContent-Length: 0\r\n\r\n"),
       200, "\r\nCookie: session=abc\r\n"},
      // No body is waited for after these, whatever follows.
      {raw("/held", "HTTP/1.1 101 Switching Protocols\r\nUpgrade: x\r\nConnection: Upgrade\r\n\r\nbytes"), 101, ""},
      {raw("/held", "HTTP/1.1 304 Not Modified\r\n\r\n"), 304, ""},
      {raw("/held", "HTTP/1.1 100 Continue\r\n\r\n" + ok), 200, "ok"},
      // Digest, answered once: the peer checks every field of the answer.
      {"http://alice:secret@" + peer + "/digest?MD5-sess", 200, "digest ok"},
      {"http://alice:wrong@" + peer + "/digest", 401, "no"},
      {servers_->peer.Url("/chunked"), 200, "Hello, world"},
      {toEnd, 200, std::string(100000, 'z')},
      {servers_->site.HttpsUrl("localhost", "/files/1000000"), 200, httptest::NginxSite::FileContent(1000000)},
      // A length that cannot be trusted frames nothing.
      {raw("/raw", lengthOf5 + "5\r\nContent-Length: 5\r\n\r\nhello"), 200, "hello"},
      {raw("/raw", lengthOf5 + "4, 5\r\n\r\nhello"), kBadFraming, "Content-Length"},
      {raw("/raw", lengthOf5 + "-5\r\n\r\nhello"), kBadFraming, "Content-Length"},
      {raw("/raw", lengthOf5 + "99999999999999999999\r\n\r\nhello"), kBadFraming, "Content-Length"},
      // Transfer-Encoding wins over Content-Length.
      {raw("/held",
           "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\nContent-Length: 99\r\n\r\n2\r\nhi\r\n0\r\n\r\n"),
       200, "hi"},
      {raw("/raw", "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n5\r\nHel"), kBadFraming, peer + " truncated"},
      {servers_->peer.Url("/close-mid-body"), kBadFraming, "truncated at 100 of 1000"},
      {raw("/raw", "HTTP/1.1 200 OK\r\nX-Filler: " + std::string(70000, 'y') + "\r\n\r\n"), utils::HttpRequestTooLarge,
       "head from " + peer},
      {raw("/held", lengthOf5 + "100\r\n\r\n0123456789"), utils::HttpRequestTimedOut, "body from " + peer},
      {toEnd, utils::HttpRequestTooLarge, "larger than 65535 bytes", 65535},
  };
  for (const auto& c : cases) {
    utils::HttpRequestParams params;
    params.timeoutMs = 1000;
    params.keepAlive = false;  // a held connection must not be asked again
    if (c.maxBodyBytes != 0) params.maxBodyBytes = c.maxBodyBytes;
    const auto start = Clock::now();
    const int result = Get(c.url, params);
    const std::string where = c.url.substr(0, 120);
    EXPECT_LT(ElapsedMs(start), 2500) << where;
    EXPECT_EQ(result, c.expected) << where << ": " << response_.ErrorText();
    if (result < 0) {
      EXPECT_NE(response_.ErrorText().find(c.text), std::string::npos) << where << ": " << response_.ErrorText();
      EXPECT_EQ(body_, "") << where;
    } else {
      EXPECT_NE(body_.find(c.text), std::string::npos) << where << ": " << body_.substr(0, 200);
      EXPECT_EQ(response_.ErrorText(), "") << where;
    }
  }
  ASSERT_EQ(Get(servers_->peer.Url("/echo")), 200);
  EXPECT_EQ(body_.find("Cookie"), std::string::npos);  // nothing outlives the call
  // An authority we do not trust: the same server, a CA file without its issuer.
  const std::string trusted = getenv("CORVANE_OPENSSL_CA_FILE");
  nettest::CertFactory factory(servers_->dir.Path());
  setenv("CORVANE_OPENSSL_CA_FILE", factory.CreateCa("stranger").certificate.c_str(), 1);
  EXPECT_EQ(Get(servers_->site.HttpsUrl("localhost", "/files/1024")), utils::HttpRequestTlsFailed);
  setenv("CORVANE_OPENSSL_CA_FILE", trusted.c_str(), 1);
}

// The numbers the peer's /keep and nginx's /conn answer with.
std::vector<std::string> Words(const std::string& text) {
  std::istringstream in(text);
  std::vector<std::string> words;
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

TEST_F(HttpRequest, ReusesConnectionsAsHttp11Allows) {
  const struct {
    const char* first;  // the peer's /keep mode for the first answer
    bool keepAlive;
    int pauseMs;
    const char* secondMethod;
    bool reused;
    int secondResult;
  } cases[] = {
      {"", true, 0, "GET", true, 200},
      {"1.0ka", true, 0, "GET", true, 200},
      {"", false, 0, "GET", false, 200},
      {"close", true, 0, "GET", false, 200},
      {"1.0", true, 0, "GET", false, 200},
      // Closed by the server while idle: seen before the next request...
      {"idle-close", true, 100, "GET", false, 200},
      // ... or only after it went out: sent again on a new connection, but a POST is not.
      {"drop", true, 0, "GET", false, 200},
      {"drop", true, 0, "POST", true, utils::HttpRequestProtocolError},
  };
  for (const auto& c : cases) {
    utils::ClearThreadHttpConnections();
    utils::HttpRequestParams params;
    params.keepAlive = c.keepAlive;
    ASSERT_EQ(Get(servers_->peer.Url(std::string("/keep?") + c.first), params), 200) << c.first;
    const std::string first = Words(body_).at(0);
    std::this_thread::sleep_for(std::chrono::milliseconds(c.pauseMs));
    EXPECT_EQ(utils::PerformHttpRequest(c.secondMethod, servers_->peer.Url("/keep"), {}, &body_, &response_),
              c.secondResult)
        << c.first << " " << c.secondMethod;
    if (c.secondResult != 200) continue;
    const std::vector<std::string> second = Words(body_);
    EXPECT_EQ(second.at(0) == first, c.reused) << c.first;
    EXPECT_EQ(second.at(1), c.reused ? "2" : "1") << c.first;
  }
}

TEST_F(HttpRequest, ReusesHttpsConnectionsAndResumesSessionsOnNewOnes) {
  utils::ClearThreadHttpConnections();
  const std::string url = servers_->site.HttpsUrl("localhost", "/conn");
  std::vector<std::vector<std::string>> seen;
  for (int i = 0; i < 5; ++i) {
    if (i == 4) utils::ClearThreadHttpConnections();
    utils::HttpRequestParams params;
    params.keepAlive = i < 2;
    ASSERT_EQ(Get(url, params), 200) << response_.ErrorText();
    seen.push_back(Words(body_));
    ASSERT_EQ(seen.back().size(), 3u) << body_;
  }
  EXPECT_EQ(seen[1][0], seen[0][0]);  // one connection, two requests
  EXPECT_EQ(seen[1][1], "2");
  for (size_t i : {2, 3}) {
    EXPECT_NE(seen[i][0], seen[i - 1][0]);  // new connections, resumed sessions
    EXPECT_EQ(seen[i][2], "r");
  }
  EXPECT_EQ(seen[4][2], ".");  // nothing left to resume
}

TEST_F(HttpRequest, PooledConnectionsNeverCrossThreads) {
  std::vector<std::set<std::string>> connections(4);
  std::vector<std::thread> threads;
  for (auto& mine : connections) {
    threads.emplace_back([this, &mine] {
      std::string body;
      for (int i = 0; i < 5; ++i) {
        if (utils::PerformHttpRequest("GET", servers_->peer.Url("/keep"), {}, &body, nullptr) == 200) {
          mine.insert(Words(body).at(0));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  std::set<std::string> all;
  for (const auto& mine : connections) {
    EXPECT_EQ(mine.size(), 1u);  // each thread kept its own
    all.insert(mine.begin(), mine.end());
  }
  EXPECT_EQ(all.size(), connections.size());
}

long ResidentKb() {
  std::ifstream statm("/proc/self/statm");
  long pages = 0;
  long resident = 0;
  statm >> pages >> resident;
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

TEST_F(HttpRequest, StreamsBodiesBothWaysInBoundedMemory) {
  // Sparse: a gigabyte of zeros without the disk space.
  const std::string source = servers_->dir.Path() + "/www/files/big";
  nettest::WriteFile(source, "");
  std::filesystem::resize_file(source, uint64_t{1} << 30);
  const long startKb = ResidentKb();
  long peakKb = startKb;
  uint64_t total = 0;
  utils::HttpRequestParams params;
  params.maxBodyBytes = SIZE_MAX;
  const int code = utils::PerformHttpRequest(
      "GET", servers_->site.HttpUrl("/files/big"), params, nullptr,
      [&](const char*, size_t size) {
        if ((total >> 24) != ((total + size) >> 24)) peakKb = std::max(peakKb, ResidentKb());
        total += size;
        return true;
      },
      nullptr, &response_);
  ASSERT_EQ(code, 200) << response_.ErrorText();
  EXPECT_EQ(total, uint64_t{1} << 30);
  EXPECT_LT(peakKb - startKb, 32 * 1024);
  std::filesystem::remove(source);
  const utils::HttpBodySink refuse = [](const char*, size_t) { return false; };
  EXPECT_EQ(utils::PerformHttpRequest("GET", servers_->site.HttpUrl("/files/65536"), {}, nullptr, refuse, nullptr,
                                      &response_),
            utils::HttpRequestAborted);

  // Sources: unsized (chunked), sized (Content-Length) and started over for a
  // 307 only when they can be.
  const std::string payload = httptest::NginxSite::FileContent(300000);
  const struct {
    int64_t size;
    bool rewind;
    const char* path;
    int expected;
    const char* framing;
  } cases[] = {
      {-1, true, "/echo", 200, "Transfer-Encoding: chunked\r\n"},
      {300000, true, "/redirect?307&/echo", 200, "Content-Length: 300000\r\n"},
      {300000, false, "/redirect?307&/echo", 307, nullptr},
  };
  for (const auto& c : cases) {
    size_t offset = 0;
    utils::HttpBodySource source;
    source.size = c.size;
    source.read = [&](char* buffer, size_t size, size_t* got) {
      *got = std::min(size, std::min<size_t>(7777, payload.size() - offset));  // odd pieces
      payload.copy(buffer, *got, offset);
      offset += *got;
      return true;
    };
    if (c.rewind) source.rewind = [&offset] { return (offset = 0) == 0; };
    ASSERT_EQ(utils::PerformHttpRequest("PUT", servers_->peer.Url(c.path), {}, &source, {}, &body_, &response_),
              c.expected)
        << c.path << " " << response_.ErrorText();
    if (c.framing == nullptr) continue;
    EXPECT_NE(body_.find(c.framing), std::string::npos) << body_.substr(0, 300);
    const std::string sent = body_.substr(body_.find("\r\n\r\n") + 4);
    EXPECT_TRUE((c.size < 0 ? utils::ParseChunkedEncodedString(sent) : sent) == payload) << c.size;
  }
}

}  // namespace
