// Files as request and response bodies for the streaming forms of
// utils::PerformHttpRequest: a sink that writes beside its destination and
// renames into place only when the body is complete, and a source that reads
// a file and starts over for redirects.
#pragma once

#include <string>

#include "request.h"
#include "../noncopyable.h"

namespace utils {

// Writes to a new temporary file in the folder of path; Commit syncs it and
// renames it over path. Without a successful Commit the temporary file is
// removed and path is left as it was, so a failed download never leaves a
// partial file behind. A replaced file keeps its permission bits.
class HttpFileSink : private Noncopyable {
 public:
  explicit HttpFileSink(const std::string& path);
  ~HttpFileSink();

  // False when the temporary file could not be made; Error() says why.
  bool IsOpen() const { return fd_ >= 0; }
  // Writes each piece to the file; a failed write stops the request.
  HttpBodySink Sink();
  bool Commit();
  const std::string& Error() const { return error_; }

 private:
  std::string path_;
  std::string tempPath_;
  int fd_ = -1;
  std::string error_;
};

// Reads a regular file; its size goes out as Content-Length.
class HttpFileSource : private Noncopyable {
 public:
  explicit HttpFileSource(const std::string& path);
  ~HttpFileSource();

  bool IsOpen() const { return fd_ >= 0; }
  HttpBodySource* Source() { return &source_; }
  const std::string& Error() const { return error_; }

 private:
  int fd_ = -1;
  HttpBodySource source_;
  std::string error_;
};

}  // namespace utils
