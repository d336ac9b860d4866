#pragma once

#include <csetjmp>
#include <cstddef>

namespace vconf {

/// What stands between a file that somebody cuts short or fills with noise while it is mapped, and the process.
///
/// LMDB trusts what it maps: a page that is gone raises SIGBUS, a wild offset SIGSEGV, a broken page an assertion.
/// Inside `Run` each of them ends the call instead of the process. Faults elsewhere, and signals that somebody sent, go
/// to the handler that was there before. Any thread; calls do not nest.
class Guard {
 public:
  /// Takes SIGSEGV and SIGBUS over, once for the process. Call it before the first `Run`.
  static void Install();

  /// Runs `body` and returns true, or false when it was cut off by a fault. Neither `body` nor what it calls may own
  /// anything that a destructor would have to give back.
  template <typename Body>
  [[nodiscard, gnu::noinline]] static bool Run(Body&& body) {
    Guard guard;
    if (sigsetjmp(guard.jump_, 0) != 0) {
      current_ = nullptr;
      return false;
    }
    current_ = &guard;
    body();
    current_ = nullptr;
    return true;
  }

  /// Whether a `body` runs on this thread.
  static bool IsRunning() { return current_ != nullptr; }

  /// Ends the running `body` as a fault would; does nothing outside of one.
  static void Leave();

  /// Memory that may be replaced by zeros when the file behind it is cut short: a fault there is mended on the spot and
  /// never seen. One range for the process; null takes it back.
  static void SetExpendable(void* begin, std::size_t size);

 private:
  sigjmp_buf jump_;

  [[gnu::tls_model("initial-exec")]] static thread_local constinit Guard* current_;
};

}  // namespace vconf
