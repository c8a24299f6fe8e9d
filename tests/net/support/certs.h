// Certificates made with the openssl CLI at test time: certificate
// authorities and leaves with chosen names and validity.
#pragma once

#include <string>
#include <vector>

namespace nettest {

struct KeyPair {
  std::string certificate;  // PEM file paths
  std::string key;
};

class CertFactory {
 public:
  // keySpec is an openssl -newkey argument: "ec" (fast, the default) or "rsa:2048".
  explicit CertFactory(const std::string& directory, const std::string& keySpec = "ec");

  KeyPair CreateCa(const std::string& name);

  // Signs a leaf for commonName. altNames is a subjectAltName value such as
  // "DNS:localhost,IP:127.0.0.1" (empty: no extension). Dates are
  // YYYYMMDDHHMMSSZ; empty means from an hour ago for thirty days.
  // An empty certificate revocation list of the authority (PEM file path).
  std::string CreateCrl(const std::string& name, const KeyPair& ca);

  KeyPair Issue(const std::string& name, const KeyPair& ca, const std::string& commonName,
                const std::string& altNames, const std::string& notBefore = "",
                const std::string& notAfter = "");

 private:
  std::string Path(const std::string& file) const { return directory_ + "/" + file; }
  std::vector<std::string> NewKey() const;

  std::string directory_;
  std::string keySpec_;
};

// A UTC time as YYYYMMDDHHMMSSZ, offset from now by the given seconds.
std::string CertTime(long offsetSeconds);

}  // namespace nettest
