#include "net/support/certs.h"

#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "net/support/peers.h"

namespace nettest {

namespace {

void Run(const std::vector<std::string>& argv, const std::string& log) {
  if (!RunCommand(argv, log)) throw std::runtime_error(argv[1] + " failed, see " + log);
}

}  // namespace

std::string CertTime(long offsetSeconds) {
  const std::time_t when = std::time(nullptr) + offsetSeconds;
  std::tm utc;
  gmtime_r(&when, &utc);
  char text[32];
  std::strftime(text, sizeof(text), "%Y%m%d%H%M%SZ", &utc);
  return text;
}

// An openssl req command line that makes a new key.
std::vector<std::string> CertFactory::NewKey() const {
  std::vector<std::string> argv = {"openssl", "req", "-new", "-nodes", "-newkey", keySpec_};
  if (keySpec_ == "ec") argv.insert(argv.end(), {"-pkeyopt", "ec_paramgen_curve:prime256v1"});
  return argv;
}

CertFactory::CertFactory(const std::string& directory, const std::string& keySpec)
    : directory_(directory), keySpec_(keySpec) {
  std::filesystem::create_directories(Path("db"));
  WriteFile(Path("db/index.txt"), "");
  WriteFile(Path("db/serial"), "1000\n");
  WriteFile(
      Path("ca.cnf"),
      "[ca]\ndefault_ca = test_ca\n"
      "[test_ca]\ndatabase = " +
          Path("db/index.txt") + "\nnew_certs_dir = " + Path("db") +
          "\nserial = " + Path("db/serial") +
          "\ndefault_md = sha256\ndefault_crl_days = 30\npolicy = any_policy\nunique_subject = no\n"
          "[any_policy]\ncommonName = supplied\n");
}

KeyPair CertFactory::CreateCa(const std::string& name) {
  KeyPair ca{Path(name + ".pem"), Path(name + ".key")};
  std::vector<std::string> argv = NewKey();
  argv.insert(argv.end(), {"-x509", "-keyout", ca.key, "-out", ca.certificate, "-subj",
                           "/CN=" + name, "-days", "30"});
  Run(argv, Path("openssl.log"));
  return ca;
}

std::string CertFactory::CreateCrl(const std::string& name, const KeyPair& ca) {
  const std::string crl = Path(name + ".crl.pem");
  Run({"openssl", "ca", "-gencrl", "-config", Path("ca.cnf"), "-cert", ca.certificate, "-keyfile",
       ca.key, "-out", crl},
      Path("openssl.log"));
  return crl;
}

KeyPair CertFactory::Issue(const std::string& name, const KeyPair& ca,
                           const std::string& commonName, const std::string& altNames,
                           const std::string& notBefore, const std::string& notAfter) {
  KeyPair leaf{Path(name + ".pem"), Path(name + ".key")};
  const std::string request = Path(name + ".csr");
  std::vector<std::string> argv = NewKey();
  argv.insert(argv.end(), {"-keyout", leaf.key, "-out", request, "-subj", "/CN=" + commonName});
  Run(argv, Path("openssl.log"));

  const std::string extensions = Path(name + ".ext");
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
       "-extensions", "leaf"},
      Path("openssl.log"));
  return leaf;
}

}  // namespace nettest
