// Real servers for the HTTP client tests, on 127.0.0.1 and free ports: nginx
// with static files, HTTPS, redirects and Basic auth; the scripted Python
// peer (fixtures/http_peer.py); tinyproxy in front of them.
#pragma once

#include <memory>
#include <string>

#include "net/support/certs.h"
#include "net/support/peers.h"

namespace httptest {

// The scripted peer and its SOCKS5 relay; it writes their ports into a file
// once they listen.
class PythonPeer {
 public:
  explicit PythonPeer(const std::string& directory);
  int Port() const { return port_; }
  int SocksPort() const { return socksPort_; }
  std::string Url(const std::string& path) const;

 private:
  int port_ = 0;
  int socksPort_ = 0;
  std::unique_ptr<nettest::ChildProcess> process_;
};

// nginx serving /files/<n> (n bytes of a repeating pattern, for the sizes in
// FileSizes), /private/ behind Basic auth (user "bob", password "pw"),
// /goto?to=URL redirecting to URL,
// /conn answering "<connection number> <its request count> <r if the TLS
// session was resumed, else .>", on plain HTTP and on HTTPS with a
// certificate for "localhost" only, whose authority is trusted through
// CORVANE_OPENSSL_CA_FILE.
class NginxSite {
 public:
  explicit NginxSite(const std::string& directory);
  int HttpPort() const { return nginx_->Port(0); }
  int HttpsPort() const { return nginx_->Port(1); }
  std::string HttpUrl(const std::string& path) const;
  std::string HttpsUrl(const std::string& host, const std::string& path) const;
  // The content of /files/<size>.
  static std::string FileContent(size_t size);

 private:
  std::unique_ptr<nettest::Nginx> nginx_;
};

// Everything a suite of HTTP tests talks to, in one scratch directory; made
// once per suite and torn down in reverse order.
struct Servers {
  nettest::TempDir dir;
  NginxSite site{dir.Path()};
  PythonPeer peer{dir.Path()};
};

}  // namespace httptest
