#include "utils/http/body_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

namespace utils {

namespace {

std::string ErrorText(const char* what, const std::string& path) {
  return std::string(what) + " " + path + ": " + std::strerror(errno);
}

}  // namespace

HttpFileSink::HttpFileSink(const std::string& path) : path_(path) {
  if (path.empty()) {
    error_ = "empty output path";
    return;
  }
  std::random_device random;
  for (int attempt = 0; attempt < 100 && fd_ < 0; ++attempt) {
    tempPath_ = path + ".part-" + std::to_string(random());
    fd_ = ::open(tempPath_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd_ < 0 && errno != EEXIST) break;
  }
  if (fd_ < 0) {
    error_ = ErrorText("cannot create", tempPath_);
    tempPath_.clear();
    return;
  }
  // A file that is replaced keeps its permission bits, as with WriteFileAtomically.
  struct stat status;
  if (::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode)) ::fchmod(fd_, status.st_mode & 07777);
}

HttpFileSink::~HttpFileSink() {
  if (fd_ >= 0) ::close(fd_);
  if (!tempPath_.empty()) ::unlink(tempPath_.c_str());
}

HttpBodySink HttpFileSink::Sink() {
  return [this](const char* data, size_t size) {
    while (size > 0) {
      const ssize_t written = ::write(fd_, data, size);
      if (written < 0 && errno == EINTR) continue;
      if (written <= 0) {
        error_ = ErrorText("cannot write", tempPath_);
        return false;
      }
      data += written;
      size -= static_cast<size_t>(written);
    }
    return true;
  };
}

bool HttpFileSink::Commit() {
  if (fd_ < 0) return false;
  // Synced before the rename: a crash must not leave an empty file under the
  // destination's name.
  const bool synced = ::fsync(fd_) == 0;
  const bool closed = ::close(fd_) == 0;
  fd_ = -1;
  if (!synced || !closed) {
    error_ = ErrorText("cannot write", tempPath_);
    return false;
  }
  if (::rename(tempPath_.c_str(), path_.c_str()) != 0) {
    error_ = ErrorText("cannot rename into", path_);
    return false;
  }
  tempPath_.clear();
  return true;
}

HttpFileSource::HttpFileSource(const std::string& path) {
  fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  struct stat status;
  if (fd_ < 0 || ::fstat(fd_, &status) != 0 || !S_ISREG(status.st_mode)) {
    error_ = fd_ < 0 ? ErrorText("cannot open", path) : "not a regular file: " + path;
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    return;
  }
  source_.size = static_cast<int64_t>(status.st_size);
  source_.read = [this](char* buffer, size_t size, size_t* got) {
    ssize_t count;
    do {
      count = ::read(fd_, buffer, size);
    } while (count < 0 && errno == EINTR);
    *got = count > 0 ? static_cast<size_t>(count) : 0;
    return count >= 0;
  };
  source_.rewind = [this] { return ::lseek(fd_, 0, SEEK_SET) == 0; };
}

HttpFileSource::~HttpFileSource() {
  if (fd_ >= 0) ::close(fd_);
}

}  // namespace utils
