// Real servers for the HTTP client tests, on 127.0.0.1 and free ports.
#pragma once

#include <memory>
#include <string>

#include "net/support/certs.h"
#include "net/support/peers.h"

namespace httptest {

// fixtures/http_peer.py and its SOCKS5 relay.
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

// nginx over HTTP and HTTPS (a certificate for "localhost" only, its authority
// trusted through CORVANE_OPENSSL_CA_FILE): /files/<n> for n in 0, 1024, 65536
// and 1000000, /private/ behind Basic auth (bob:pw), /goto?to=URL redirecting
// there, /conn answering "<connection> <request on it> <r if resumed, else .>".
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

// Everything a suite of HTTP tests talks to, in one scratch directory.
struct Servers {
  nettest::TempDir dir;
  NginxSite site{dir.Path()};
  PythonPeer peer{dir.Path()};
};

}  // namespace httptest
