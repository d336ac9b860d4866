#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

/// How a thread waits for another one: it spins for a bounded time, then parks, that is, sleeps on a futex.
namespace pp {

/// Sleeps while `word` is `value`, until `WakeOne`. May return early.
void Park(std::atomic<std::uint32_t>* word, std::uint32_t value) noexcept;

/// Wakes one thread that sleeps on `word`. `word` may have been freed meanwhile.
void WakeOne(std::atomic<std::uint32_t>* word) noexcept;

/// The permission of a thread to spin for long. There are as many slots as cores, so that waiting threads do not take
/// cores from working threads. Used by one thread.
class SpinSlot {
 public:
  SpinSlot() = default;
  SpinSlot(const SpinSlot&) = delete;
  SpinSlot& operator=(const SpinSlot&) = delete;
  ~SpinSlot() { Leave(); }

  /// True if the thread holds a slot, already or from now on.
  bool Take() noexcept;
  void Leave() noexcept;

 private:
  bool taken_ = false;
};

/// Bounds how long a thread waits without sleeping. Waking a parked thread takes tens of microseconds; a spinning one
/// sees the change in a fraction of one, but occupies a core.
class Spin {
 public:
  /// Acquires `slot` when the wait becomes long; the caller has to release it.
  Spin(std::chrono::nanoseconds limit, SpinSlot* slot) noexcept : limit_(limit), slot_(slot) {}

  /// One round of waiting. False when it is time to park.
  bool Again() noexcept;

 private:
  const std::chrono::nanoseconds limit_;
  SpinSlot* const slot_;
  std::uint32_t rounds_ = 0;
  std::chrono::steady_clock::time_point end_;
};

/// A one-shot completion signal for one waiting thread.
class Completion {
 public:
  /// The waiting thread may free this object before the call returns.
  void Set() noexcept;
  void Wait() noexcept;

 private:
  std::atomic<std::uint32_t> state_{0};
};

}  // namespace pp
