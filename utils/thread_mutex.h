// utils::ThreadMutex: a plain (non-recursive) mutex with a scoped lock.
#pragma once

#include <chrono>
#include <mutex>

#include "noncopyable.h"

namespace utils {

class ThreadMutex : private Noncopyable {
 public:
  void Lock() { mutex_.lock(); }
  // On the wall clock: that is pthread_mutex_timedlock, which ThreadSanitizer
  // understands; the steady-clock variant is invisible to it.
  bool TryLockFor(std::chrono::milliseconds wait) {
    return mutex_.try_lock_until(std::chrono::system_clock::now() + wait);
  }
  void Unlock() { mutex_.unlock(); }

  // BasicLockable, so std::lock_guard and std::unique_lock work too.
  void lock() { Lock(); }
  void unlock() { Unlock(); }

  class ScopedLock : private Noncopyable {
   public:
    explicit ScopedLock(ThreadMutex& mutex) : mutex_(mutex) { mutex_.Lock(); }
    ~ScopedLock() { mutex_.Unlock(); }

   private:
    ThreadMutex& mutex_;
  };

 private:
  std::timed_mutex mutex_;
};

}  // namespace utils
