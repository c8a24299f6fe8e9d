// Certificates made with the openssl CLI at test time: certificate
// authorities and leaves with chosen names and validity.
#pragma once

#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "net/support/peers.h"

namespace nettest {

struct KeyPair {
  std::string certificate;  // PEM file paths
  std::string key;
};

// A UTC time as YYYYMMDDHHMMSSZ, offset from now by the given seconds.
inline std::string CertTime(long offsetSeconds) {
  const std::time_t when = std::time(nullptr) + offsetSeconds;
  std::tm utc;
  gmtime_r(&when, &utc);
  char text[32];
  std::strftime(text, sizeof(text), "%Y%m%d%H%M%SZ", &utc);
  return text;
}

class CertFactory {
 public:
  // keySpec is an openssl -newkey argument: "ec" (fast, the default) or "rsa:2048".
  explicit CertFactory(const std::string& directory, const std::string& keySpec = "ec")
      : directory_(directory), keySpec_(keySpec) {
    std::filesystem::create_directories(Path("db"));
    WriteFile(Path("db/index.txt"), "");
    WriteFile(Path("db/serial"), "1000\n");
    WriteFile(Path("ca.cnf"), "[ca]\ndefault_ca = test_ca\n[test_ca]\ndatabase = " + Path("db/index.txt") +
                                  "\nnew_certs_dir = " + Path("db") + "\nserial = " + Path("db/serial") +
                                  "\ndefault_md = sha256\ndefault_crl_days = 30\n"
                                  "policy = any_policy\nunique_subject = no\n"
                                  "[any_policy]\ncommonName = supplied\n");
  }

  KeyPair CreateCa(const std::string& name) {
    KeyPair ca{Path(name + ".pem"), Path(name + ".key")};
    Run(NewKey({"-x509", "-keyout", ca.key, "-out", ca.certificate, "-subj", "/CN=" + name, "-days", "30"}));
    return ca;
  }

  // An empty certificate revocation list of the authority (PEM file path).
  std::string CreateCrl(const std::string& name, const KeyPair& ca) {
    const std::string crl = Path(name + ".crl.pem");
    Run({"openssl", "ca", "-gencrl", "-config", Path("ca.cnf"), "-cert", ca.certificate, "-keyfile", ca.key, "-out",
         crl});
    return crl;
  }

  // Signs a leaf for commonName. altNames is a subjectAltName value such as
  // "DNS:localhost,IP:127.0.0.1" (empty: no extension). Dates are
  // YYYYMMDDHHMMSSZ; empty means from an hour ago for thirty days.
  KeyPair Issue(const std::string& name, const KeyPair& ca, const std::string& commonName, const std::string& altNames,
                const std::string& notBefore = "", const std::string& notAfter = "") {
    KeyPair leaf{Path(name + ".pem"), Path(name + ".key")};
    const std::string request = Path(name + ".csr"), extensions = Path(name + ".ext");
    Run(NewKey({"-keyout", leaf.key, "-out", request, "-subj", "/CN=" + commonName}));
    WriteFile(extensions, "[leaf]\nbasicConstraints = CA:FALSE\n" +
                              (altNames.empty() ? "" : "subjectAltName = " + altNames + "\n"));
    Run({"openssl",     "ca",
         "-batch",      "-notext",
         "-config",     Path("ca.cnf"),
         "-cert",       ca.certificate,
         "-keyfile",    ca.key,
         "-in",         request,
         "-out",        leaf.certificate,
         "-startdate",  notBefore.empty() ? CertTime(-3600) : notBefore,
         "-enddate",    notAfter.empty() ? CertTime(30 * 86400) : notAfter,
         "-extfile",    extensions,
         "-extensions", "leaf"});
    return leaf;
  }

 private:
  std::string Path(const std::string& file) const { return directory_ + "/" + file; }

  // An openssl req command line that makes a new key, then more arguments.
  std::vector<std::string> NewKey(const std::vector<std::string>& more) const {
    std::vector<std::string> argv = {"openssl", "req", "-new", "-nodes", "-newkey", keySpec_};
    if (keySpec_ == "ec") argv.insert(argv.end(), {"-pkeyopt", "ec_paramgen_curve:prime256v1"});
    argv.insert(argv.end(), more.begin(), more.end());
    return argv;
  }

  void Run(const std::vector<std::string>& argv) const {
    if (!RunCommand(argv, Path("openssl.log"))) {
      throw std::runtime_error(argv[1] + " failed, see " + Path("openssl.log"));
    }
  }

  std::string directory_;
  std::string keySpec_;
};

}  // namespace nettest
