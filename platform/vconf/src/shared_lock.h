#pragma once

#include <chrono>
#include <string>

#include "layout.h"
#include "result.h"

namespace vconf {

/// No call waits longer than this for a lock of another process.
constexpr std::chrono::seconds kLockLimit{5};

void InitLock(layout::Lock& lock);

/// To be called in a process that was forked.
void NoteProcess();

/// Holds a lock of the region for its scope. A thread holds each of them once.
class SharedLock {
 public:
  /// `name` says in messages what the lock is for. With a limit of 0 it does not wait.
  SharedLock(layout::Lock& lock, const char* name, std::chrono::milliseconds limit = kLockLimit);
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
