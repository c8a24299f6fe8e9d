#include "utils/net/internal/ca_bundle_cache.h"

#include <openssl/pem.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <sstream>

#include "utils/net/internal/openssl_ptr.h"

namespace utils {
namespace impl {

namespace {

// Trust bundles are a few hundred kilobytes; anything far larger is not one.
constexpr std::streamoff kMaxBundleBytes = 64 << 20;

struct FileVersion {
  dev_t device = 0;
  ino_t inode = 0;
  off_t size = 0;
  timespec modified{};

  bool operator==(const FileVersion& other) const {
    return device == other.device && inode == other.inode && size == other.size &&
           modified.tv_sec == other.modified.tv_sec && modified.tv_nsec == other.modified.tv_nsec;
  }
};

struct Bundle {
  FileVersion version;
  std::shared_ptr<X509InfoStackPtr> items;
};

bool CurrentVersion(const std::string& path, FileVersion* version) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  version->device = status.st_dev;
  version->inode = status.st_ino;
  version->size = status.st_size;
  version->modified = status.st_mtim;
  return true;
}

std::shared_ptr<X509InfoStackPtr> ParseFile(const std::string& path, const FileVersion& version) {
  if (version.size > kMaxBundleBytes) return nullptr;
  std::ifstream in(path, std::ios::binary);
  if (!in) return nullptr;
  std::ostringstream content;
  content << in.rdbuf();
  const std::string pem = content.str();
  if (static_cast<std::streamoff>(pem.size()) > kMaxBundleBytes) return nullptr;
  BioPtr bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  if (bio == nullptr) return nullptr;
  auto items = std::make_shared<X509InfoStackPtr>(
      PEM_X509_INFO_read_bio(bio.get(), nullptr, nullptr, nullptr));
  if (*items == nullptr) return nullptr;
  return items;
}

class BundleCache {
 public:
  std::shared_ptr<X509InfoStackPtr> Get(const std::string& path) {
    FileVersion version;
    if (!CurrentVersion(path, &version)) return nullptr;
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = bundles_.find(path);
    if (found != bundles_.end() && found->second.version == version) return found->second.items;
    auto items = ParseFile(path, version);
    if (items == nullptr) {
      bundles_.erase(path);
      return nullptr;
    }
    bundles_[path] = Bundle{version, items};
    return items;
  }

 private:
  std::mutex mutex_;
  std::map<std::string, Bundle> bundles_;
};

}  // namespace

bool AddCaBundleFile(const std::string& path, X509_STORE* store) {
  // Never destroyed: contexts may still be set up from static destructors,
  // and freeing certificates after OpenSSL's own exit clean-up would crash.
  static BundleCache* cache = new BundleCache;
  const auto items = cache->Get(path);
  if (items == nullptr) return false;
  int added = 0;
  // The certificates are shared: a store takes its own reference to each.
  for (int i = 0; i < sk_X509_INFO_num(items->get()); ++i) {
    const X509_INFO* item = sk_X509_INFO_value(items->get(), i);
    if (item->x509 != nullptr) {
      if (X509_STORE_add_cert(store, item->x509) != 1) return false;
      ++added;
    }
    if (item->crl != nullptr) {
      if (X509_STORE_add_crl(store, item->crl) != 1) return false;
      ++added;
    }
  }
  return added > 0;
}

}  // namespace impl
}  // namespace utils
