#include "utils/http/connection_pool.h"

#include <algorithm>
#include <utility>

namespace utils {

HttpConnectionPool& HttpConnectionPool::ForThisThread() {
  // Thread-local: a connection never crosses threads, and the pool's
  // destructor closes its connections when the thread ends.
  thread_local HttpConnectionPool pool;
  return pool;
}

std::unique_ptr<impl::Socket> HttpConnectionPool::Take(const std::string& key, int64_t nowMs) {
  idle_.erase(std::remove_if(idle_.begin(), idle_.end(),
                             [nowMs](const Idle& idle) { return nowMs - idle.sinceMs > kMaxIdleMs; }),
              idle_.end());
  for (size_t i = idle_.size(); i-- > 0;) {
    if (idle_[i].key != key) continue;
    std::unique_ptr<impl::Socket> socket = std::move(idle_[i].socket);
    idle_.erase(idle_.begin() + static_cast<std::ptrdiff_t>(i));
    if (socket->IsIdleAndOpen()) return socket;
  }
  return nullptr;
}

void HttpConnectionPool::Put(const std::string& key, std::unique_ptr<impl::Socket> socket, int64_t nowMs) {
  if (socket == nullptr) return;
  const size_t sameKey = static_cast<size_t>(
      std::count_if(idle_.begin(), idle_.end(), [&key](const Idle& idle) { return idle.key == key; }));
  if (sameKey >= kMaxIdlePerKey) {
    idle_.erase(std::find_if(idle_.begin(), idle_.end(), [&key](const Idle& idle) { return idle.key == key; }));
  } else if (idle_.size() >= kMaxIdle) {
    idle_.erase(idle_.begin());
  }
  idle_.push_back(Idle{key, std::move(socket), nowMs});
}

tls::SessionPtr HttpConnectionPool::Session(const std::string& key) const {
  for (const Stored& stored : sessions_) {
    if (stored.key == key) return stored.session;
  }
  return nullptr;
}

void HttpConnectionPool::StoreSession(const std::string& key, tls::SessionPtr session) {
  sessions_.erase(std::remove_if(sessions_.begin(), sessions_.end(),
                                 [&key](const Stored& stored) { return stored.key == key; }),
                  sessions_.end());
  if (session == nullptr) return;
  if (sessions_.size() >= kMaxSessions) sessions_.erase(sessions_.begin());
  sessions_.push_back(Stored{key, std::move(session)});
}

void HttpConnectionPool::Clear() {
  idle_.clear();
  sessions_.clear();
}

}  // namespace utils
