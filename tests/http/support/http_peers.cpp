#include "http/support/http_peers.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

namespace httptest {

PythonPeer::PythonPeer(const std::string& directory) {
  const std::string ready = directory + "/python.port";
  process_.reset(new nettest::ChildProcess({"python3", CORVANE_SOURCE_DIR "/tests/http/fixtures/http_peer.py", ready},
                                           directory + "/python.log"));
  // The peer renames the file into place only once it listens.
  for (int i = 0; i < 1000 && access(ready.c_str(), F_OK) != 0; ++i) {
    if (!process_->Running()) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (sscanf(nettest::ReadFile(ready).c_str(), "%d %d", &port_, &socksPort_) != 2) port_ = 0;
  if (port_ <= 0)
    throw std::runtime_error("python peer did not start: " + nettest::ReadFile(directory + "/python.log"));
}

std::string PythonPeer::Url(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(port_) + path;
}

std::string NginxSite::FileContent(size_t size) {
  std::string content(size, '\0');
  for (size_t i = 0; i < size; ++i) content[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
  return content;
}

NginxSite::NginxSite(const std::string& directory) {
  const std::string root = directory + "/www";
  mkdir(root.c_str(), 0755);
  mkdir((root + "/files").c_str(), 0755);
  mkdir((root + "/private").c_str(), 0755);
  for (size_t size : {0, 1024, 65536, 1000000})
    nettest::WriteFile(root + "/files/" + std::to_string(size), FileContent(size));
  nettest::WriteFile(root + "/private/secret", "for bob\n");
  nettest::WriteFile(directory + "/htpasswd", "bob:{PLAIN}pw\n");

  nettest::CertFactory factory(directory);
  const nettest::KeyPair ca = factory.CreateCa("ca");
  const nettest::KeyPair leaf = factory.Issue("leaf", ca, "localhost", "DNS:localhost");
  setenv("CORVANE_OPENSSL_CA_FILE", ca.certificate.c_str(), 1);

  const std::string extra =
      "    root " + root + ";\n    location /private/ { auth_basic \"corvane\"; auth_basic_user_file " + directory +
      "/htpasswd; }\n    location = /goto { return 302 $arg_to; }\n"
      "    location = /conn { return 200 \"$connection $connection_requests $ssl_session_reused\"; }\n";
  nettest::Nginx::Server plain;
  plain.extra = extra;
  nettest::Nginx::Server secure;
  secure.certificate = leaf.certificate;
  secure.key = leaf.key;
  // Plain HTTP to the TLS port is sent on to TLS on the same port.
  secure.extra = extra + "    error_page 497 =307 https://$host:$server_port$request_uri;\n";
  nginx_.reset(new nettest::Nginx(directory, {plain, secure}));
}

std::string NginxSite::HttpUrl(const std::string& path) const {
  return "http://127.0.0.1:" + std::to_string(HttpPort()) + path;
}

std::string NginxSite::HttpsUrl(const std::string& host, const std::string& path) const {
  return "https://" + host + ":" + std::to_string(HttpsPort()) + path;
}

}  // namespace httptest
