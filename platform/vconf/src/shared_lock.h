#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "layout.h"
#include "result.h"

namespace vconf {

/// The longest that a call waits for other processes.
constexpr std::chrono::milliseconds kLockLimit{5000};

/// While one exists, this thread waits for other processes for at most `limit` in total; if nested, no longer than the
/// outer one allows. Without one it does not wait.
class WaitLimit {
 public:
  explicit WaitLimit(std::chrono::milliseconds limit = kLockLimit);
  WaitLimit(const WaitLimit&) = delete;
  WaitLimit& operator=(const WaitLimit&) = delete;
  ~WaitLimit();

  /// The remaining time; 0 or more. It starts to run with the first call, so a thread that need not wait reads no
  /// clock.
  static std::chrono::milliseconds Left();

 private:
  const std::chrono::milliseconds outer_;
};

/// The process that has locked one of these files or folders, for messages; "another process" if it is not known.
std::string HolderOf(const std::vector<std::string>& files);

/// Returns 0, or the error.
int InitLock(layout::Lock& lock);

/// Must be called in a child after a fork: the cached process id is written into each lock that is acquired.
void RememberProcessId();

/// Holds a lock of the region for its scope. A thread must not acquire one twice; it waits as long as its `WaitLimit`
/// allows.
class SharedLock {
 public:
  /// `name` is the purpose of the lock, for messages.
  SharedLock(layout::Lock& lock, const char* name, bool waits = true);
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;
  ~SharedLock();

  bool held() const { return result_ == 0; }

  /// Whether the previous owner died while it held the lock.
  bool inherited() const { return inherited_; }

  /// Why the lock is not held.
  Status status(const std::string& file) const;

 private:
  layout::Lock& lock_;
  const char* const name_;
  int result_;
  bool inherited_ = false;
};

}  // namespace vconf
