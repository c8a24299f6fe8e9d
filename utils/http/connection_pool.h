// utils::HttpConnectionPool: the idle HTTP connections and resumable TLS
// sessions of one thread, so that the next request to the same server skips
// the TCP set-up and the full TLS handshake.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "../net/socket.h"
#include "../net/tls.h"
#include "../noncopyable.h"
#include "../time.h"

namespace utils {

// Belongs to one thread and takes no lock (docs/embedding.md, "Locks and
// their order"): ForThisThread hands out that thread's pool, which
// closes what it holds when the thread ends. Keys are opaque to the pool; a
// connection is only ever handed out for the key it was kept under.
class HttpConnectionPool : private Noncopyable {
 public:
  static constexpr size_t kMaxIdlePerKey = 4;
  static constexpr size_t kMaxIdle = 32;
  static constexpr int64_t kMaxIdleMs = 30000;
  static constexpr size_t kMaxSessions = 64;

  static HttpConnectionPool& ForThisThread();

  // The most recently kept connection for key that is still open with
  // nothing unread, or null. Connections found closed or idle for longer
  // than kMaxIdleMs are closed on the way.
  std::unique_ptr<impl::Socket> Take(const std::string& key, int64_t nowMs = GetMonotonicTimeInMs());
  // Keeps an open connection; past a bound the longest idle one is closed.
  void Put(const std::string& key, std::unique_ptr<impl::Socket> socket,
           int64_t nowMs = GetMonotonicTimeInMs());
  size_t IdleCount() const { return idle_.size(); }

  // The last session stored for key, or null; a null session removes it.
  tls::SessionPtr Session(const std::string& key) const;
  void StoreSession(const std::string& key, tls::SessionPtr session);

  // Closes every connection and forgets every session.
  void Clear();

 private:
  struct Idle {
    std::string key;
    std::unique_ptr<impl::Socket> socket;
    int64_t sinceMs;
  };
  struct Stored {
    std::string key;
    tls::SessionPtr session;
  };

  // Oldest first.
  std::vector<Idle> idle_;
  std::vector<Stored> sessions_;
};

}  // namespace utils
