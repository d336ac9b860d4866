#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "layout.h"
#include "result.h"

namespace vconf {

/// No call waits longer than this for other processes.
constexpr std::chrono::milliseconds kLockLimit{5000};

/// While one exists, this thread waits for other processes for `limit` at the most, all its waits together, and within
/// another one no longer than that allows. Without one it does not wait.
class WaitLimit {
 public:
  explicit WaitLimit(std::chrono::milliseconds limit = kLockLimit);
  WaitLimit(const WaitLimit&) = delete;
  WaitLimit& operator=(const WaitLimit&) = delete;
  ~WaitLimit();

  /// How much of it is left; 0 or more. The time begins with the first question, so who need not wait reads no clock.
  static std::chrono::milliseconds Left();

 private:
  const std::chrono::milliseconds outer_;
};

/// Names the process that has locked one of these files, or the folder, for messages.
std::string HolderOf(const std::vector<std::string>& files);

void InitLock(layout::Lock& lock);

/// To be called in a process that was forked.
void NoteProcess();

/// Holds a lock of the region for its scope. A thread holds each of them once, and waits as long as its `WaitLimit`
/// says.
class SharedLock {
 public:
  /// `name` says in messages what the lock is for.
  SharedLock(layout::Lock& lock, const char* name, bool waits = true);
  SharedLock(const SharedLock&) = delete;
  SharedLock& operator=(const SharedLock&) = delete;
  ~SharedLock();

  bool held() const { return result_ == 0; }

  /// Whether the last owner died with it.
  bool inherited() const { return inherited_; }

  /// Why it is not held.
  Status status(const std::string& file) const;

 private:
  layout::Lock& lock_;
  const char* const name_;
  int result_;
  bool inherited_ = false;
};

}  // namespace vconf
