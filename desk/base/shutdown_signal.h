#pragma once

#include <chrono>

#include "base/unique_fd.h"

namespace desk {

/// Tells whether the program has to exit: because of SIGINT, SIGTERM or SIGHUP (unless SIGHUP is ignored, as under
/// nohup), or because of `Raise`.
///
/// Must be created before any other thread: it blocks the signals in the calling thread, and threads inherit that. To
/// be destroyed on the same thread: it unblocks SIGHUP, so one that was received ends the process there. Every other
/// function may be called on any thread. The constructor throws `std::system_error` if no descriptor is free.
class ShutdownSignal {
 public:
  ShutdownSignal();
  ~ShutdownSignal();
  ShutdownSignal(const ShutdownSignal&) = delete;
  ShutdownSignal& operator=(const ShutdownSignal&) = delete;

  void Raise();

  bool IsRaised() const;

  /// Waits until `fd` is readable (true), or until the program has to exit or `limit` has passed (false). A negative
  /// `fd` is never readable, and a negative `limit` never passes.
  bool WaitFor(int fd, std::chrono::milliseconds limit = std::chrono::milliseconds(-1)) const;

 private:
  // Neither of the two is ever read, so each stays readable.
  UniqueFd signals_;
  UniqueFd raised_;
};

}  // namespace desk
