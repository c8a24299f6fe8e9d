#include "utils/files.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>

#include "utils/env.h"
#include "utils/log.h"
#include "utils/strings.h"

namespace utils {

std::string GetProgramExeDir() {
  char path[PATH_MAX];
  ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return std::string();
  std::string exe(path, static_cast<size_t>(n));
  return exe.substr(0, exe.rfind('/') + 1);
}

namespace {

const char kModule[] = "utils";

class UniqueFd {
 public:
  explicit UniqueFd(int fd = -1) : fd_(fd) {}
  ~UniqueFd() { Close(); }
  UniqueFd(UniqueFd&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
      Close();
      fd_ = other.fd_;
      other.fd_ = -1;
    }
    return *this;
  }

  int Get() const { return fd_; }
  // close(2) reports deferred write errors (NFS, quotas), so callers that
  // wrote through the descriptor check this result.
  int Close() {
    int result = 0;
    if (fd_ >= 0) result = ::close(fd_);
    fd_ = -1;
    return result;
  }

 private:
  int fd_;
};

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

void SetError(std::string* error, const std::string& what, const std::string& path,
              int errorNumber) {
  if (error != nullptr) *error = what + "(" + path + ") failed: " + ::strerror(errorNumber);
}

// The system ends a path at its first NUL, so one that holds a NUL would name
// another file; such paths are refused, without echoing the bytes.
bool RefuseNul(const std::string& path, const char* what, std::string* error) {
  if (path.find('\0') == std::string::npos) return false;
  if (error != nullptr) *error = std::string(what) + "() failed: the path contains a NUL byte";
  return true;
}

// Removes the temporary file of an unfinished atomic write.
class TempFileGuard {
 public:
  explicit TempFileGuard(std::string path) : path_(std::move(path)) {}
  ~TempFileGuard() {
    if (!path_.empty()) ::unlink(path_.c_str());
  }
  TempFileGuard(const TempFileGuard&) = delete;
  TempFileGuard& operator=(const TempFileGuard&) = delete;
  void Release() { path_.clear(); }

 private:
  std::string path_;
};

// Hidden name beside the target, unique across threads and processes; O_EXCL
// settles the rare collision with a stale file.
std::string TempNameFor(const std::string& path) {
  static std::atomic<unsigned> counter{0};
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return dir + "." + base + ".tmp." + std::to_string(::getpid()) + "." +
         std::to_string(counter.fetch_add(1)) + "." + std::to_string(now.tv_nsec);
}

std::string DirectoryOf(const std::string& path) {
  size_t slash = path.rfind('/');
  if (slash == std::string::npos) return ".";
  if (slash == 0) return "/";
  return path.substr(0, slash);
}

bool WriteAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// Home directory from the password database: `name`, or the current user when empty.
bool LookUpHome(const std::string& name, std::string* home) {
  long suggested = ::sysconf(_SC_GETPW_R_SIZE_MAX);
  std::vector<char> buffer(suggested > 0 ? static_cast<size_t>(suggested) : 1024);
  struct passwd entry;
  struct passwd* found = nullptr;
  for (;;) {
    int rc = name.empty()
                 ? ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found)
                 : ::getpwnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found);
    if (rc == ERANGE && buffer.size() < (1u << 20)) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (rc != 0 || found == nullptr || found->pw_dir == nullptr) return false;
    home->assign(found->pw_dir);
    return true;
  }
}

bool IsNameStart(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}

bool IsNameChar(char c) { return IsNameStart(c) || (c >= '0' && c <= '9'); }

// Expands one "$NAME" or "${NAME}" at path[pos] == '$' into *out; returns the
// position after it, or pos when no variable starts there.
size_t ExpandVariable(const std::string& path, size_t pos, std::string* out) {
  size_t begin = pos + 1;
  bool braced = begin < path.size() && path[begin] == '{';
  if (braced) ++begin;
  if (begin >= path.size() || !IsNameStart(path[begin])) return pos;
  size_t end = begin;
  while (end < path.size() && IsNameChar(path[end])) ++end;
  if (braced) {
    if (end >= path.size() || path[end] != '}') return pos;
  }
  std::string value;
  GetEnv(path.substr(begin, end - begin), &value);
  out->append(value);
  return braced ? end + 1 : end;
}

uint64_t SaturatingProduct(uint64_t a, uint64_t b) {
  uint64_t product;
  return __builtin_mul_overflow(a, b, &product) ? UINT64_MAX : product;
}

}  // namespace

FileStatus GetStatus(const std::string& path) {
  FileStatus status;
  struct stat st;
  if (RefuseNul(path, "stat", nullptr) || ::stat(path.c_str(), &st) != 0) return status;
  status.exists = true;
  status.mtimeNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  status.size = static_cast<uint64_t>(st.st_size);
  status.inode = static_cast<uint64_t>(st.st_ino);
  status.device = static_cast<uint64_t>(st.st_dev);
  return status;
}

namespace {

bool Read(const std::string& path, bool regularOnly, size_t maxBytes, std::string* out,
          std::string* error) {
  if (RefuseNul(path, "open", error)) return false;
  // Non-blocking, so that opening a FIFO with no writer does not wait for
  // one before it can be refused; reads of regular files ignore the flag.
  UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | (regularOnly ? O_NONBLOCK : 0)));
  if (fd.Get() < 0) {
    SetError(error, "open", path, errno);
    return false;
  }
  std::string content;
  struct stat st;
  const bool regular = ::fstat(fd.Get(), &st) == 0 && S_ISREG(st.st_mode);
  if (regularOnly && !regular) {
    if (error != nullptr) *error = "read(" + path + ") failed: not a regular file";
    return false;
  }
  if (regular && static_cast<uint64_t>(st.st_size) > maxBytes) {
    if (error != nullptr) {
      *error = "read(" + path + ") failed: file too large (" + std::to_string(st.st_size) +
               " bytes, at most " + std::to_string(maxBytes) + ")";
    }
    return false;
  }
  if (regular) content.reserve(static_cast<size_t>(st.st_size));
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(fd.Get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      SetError(error, "read", path, errno);
      return false;
    }
    if (n == 0) break;
    // A file that grows while it is read is held to the same bound.
    if (static_cast<size_t>(n) > maxBytes - content.size()) {
      if (error != nullptr) {
        *error = "read(" + path + ") failed: file too large (more than " +
                 std::to_string(maxBytes) + " bytes)";
      }
      return false;
    }
    content.append(buffer, static_cast<size_t>(n));
  }
  out->swap(content);
  return true;
}

}  // namespace

bool ReadFile(const std::string& path, std::string* out, std::string* error) {
  return Read(path, false, std::string().max_size(), out, error);
}

bool ReadRegularFile(const std::string& path, size_t maxBytes, std::string* out,
                     std::string* error) {
  return Read(path, true, maxBytes, out, error);
}

bool WriteFileAtomically(const std::string& path, const std::string& data, std::string* error) {
  if (RefuseNul(path, "open", error)) return false;
  if (path.empty()) {
    SetError(error, "open", path, ENOENT);
    return false;
  }
  std::string tempPath;
  UniqueFd fd;
  for (int attempt = 0; attempt < 100 && fd.Get() < 0; ++attempt) {
    tempPath = TempNameFor(path);
    fd = UniqueFd(::open(tempPath.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.Get() < 0 && errno != EEXIST) break;
  }
  if (fd.Get() < 0) {
    SetError(error, "open", tempPath, errno);
    return false;
  }
  TempFileGuard guard(tempPath);

  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode)) {
    // Best effort: a file we may replace but not chmod keeps the default mode.
    ::fchmod(fd.Get(), st.st_mode & 07777);
  }
  if (!WriteAll(fd.Get(), data.data(), data.size())) {
    SetError(error, "write", tempPath, errno);
    return false;
  }
  // Without this sync the rename may reach the disk before the data does, and
  // a crash would leave an empty file under the old name.
  if (::fsync(fd.Get()) != 0) {
    SetError(error, "fsync", tempPath, errno);
    return false;
  }
  if (fd.Close() != 0) {
    SetError(error, "close", tempPath, errno);
    return false;
  }
  if (::rename(tempPath.c_str(), path.c_str()) != 0) {
    SetError(error, "rename", path, errno);
    return false;
  }
  guard.Release();

  // The new content is in place; syncing the directory only makes the rename
  // itself durable, so a failure here is worth a warning, not a false result.
  std::string dir = DirectoryOf(path);
  UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (dirFd.Get() < 0 || ::fsync(dirFd.Get()) != 0) {
    int errorNumber = errno;
    CORVANE_LOG(UtilsLogger(), zullog::SeverityWarning, kModule)
        << "WriteFileAtomically(): cannot sync directory " << EscapeForLogLine(dir) << ": "
        << ::strerror(errorNumber);
  }
  return true;
}

std::string ExpandPath(const std::string& path) {
  std::string result;
  size_t pos = 0;
  if (!path.empty() && path[0] == '~') {
    size_t slash = path.find('/');
    size_t nameEnd = slash == std::string::npos ? path.size() : slash;
    std::string user = path.substr(1, nameEnd - 1);
    std::string home;
    bool found = user.empty() && GetEnv("HOME", &home) && !home.empty();
    if (!found) found = LookUpHome(user, &home);
    if (found) {
      // "~/x" with HOME=/ gives "/x", not "//x".
      if (home.size() > 1 && home.back() == '/' && nameEnd < path.size()) home.pop_back();
      if (home == "/" && nameEnd < path.size()) home.clear();
      result = home;
      pos = nameEnd;
    }
  }
  while (pos < path.size()) {
    size_t dollar = path.find('$', pos);
    if (dollar == std::string::npos) {
      result.append(path, pos, std::string::npos);
      break;
    }
    result.append(path, pos, dollar - pos);
    size_t next = ExpandVariable(path, dollar, &result);
    if (next == dollar) {
      result.push_back('$');
      next = dollar + 1;
    }
    pos = next;
  }
  return result;
}

bool GetDirectoryContents(const std::string& path, std::vector<std::string>* names) {
  if (RefuseNul(path, "opendir", nullptr)) return false;
  std::unique_ptr<DIR, DirCloser> dir(::opendir(path.c_str()));
  if (!dir) return false;
  std::vector<std::string> found;
  for (;;) {
    errno = 0;
    struct dirent* entry = ::readdir(dir.get());
    if (entry == nullptr) {
      if (errno != 0) return false;
      break;
    }
    if (::strcmp(entry->d_name, ".") == 0 || ::strcmp(entry->d_name, "..") == 0) continue;
    found.emplace_back(entry->d_name);
  }
  std::sort(found.begin(), found.end());
  names->insert(names->end(), std::make_move_iterator(found.begin()),
                std::make_move_iterator(found.end()));
  return true;
}

bool GetDevNumbers(const std::string& path, unsigned int* majorNumber,
                   unsigned int* minorNumber) {
  struct stat st;
  if (RefuseNul(path, "stat", nullptr) || ::stat(path.c_str(), &st) != 0) return false;
  dev_t device = S_ISCHR(st.st_mode) || S_ISBLK(st.st_mode) ? st.st_rdev : st.st_dev;
  if (majorNumber != nullptr) *majorNumber = major(device);
  if (minorNumber != nullptr) *minorNumber = minor(device);
  return true;
}

bool GetDiskSpaceInfo(const std::string& path, uint64_t* total, uint64_t* avail,
                      uint64_t* free) {
  struct statvfs info;
  if (RefuseNul(path, "statvfs", nullptr) || ::statvfs(path.c_str(), &info) != 0) return false;
  // f_frsize is the unit of the block counts; a few old file systems leave it 0.
  uint64_t unit = info.f_frsize != 0 ? info.f_frsize : info.f_bsize;
  if (total != nullptr) *total = SaturatingProduct(info.f_blocks, unit);
  if (avail != nullptr) *avail = SaturatingProduct(info.f_bavail, unit);
  if (free != nullptr) *free = SaturatingProduct(info.f_bfree, unit);
  return true;
}

}  // namespace utils
