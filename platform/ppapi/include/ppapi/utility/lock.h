#pragma once

#include <mutex>

namespace pp {

/// Mutual exclusion between threads; a thread must not acquire it twice.
class Lock {
 public:
  Lock() = default;
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;

  void Acquire() { mutex_.lock(); }
  void Release() { mutex_.unlock(); }

 private:
  std::mutex mutex_;
};

/// Holds a lock for as long as it lives.
class AutoLock {
 public:
  explicit AutoLock(Lock& lock) : lock_(lock) { lock_.Acquire(); }
  AutoLock(const AutoLock&) = delete;
  AutoLock& operator=(const AutoLock&) = delete;
  ~AutoLock() { lock_.Release(); }

 private:
  Lock& lock_;
};

}  // namespace pp
