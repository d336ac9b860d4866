#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

namespace pp {

/// Sleeps while `word` is `value`, until `WakeOne`; may return early without a cause.
void Park(std::atomic<std::uint32_t>* word, std::uint32_t value) noexcept;

/// Wakes one thread that sleeps on `word`, which may no longer exist.
void WakeOne(std::atomic<std::uint32_t>* word) noexcept;

/// The right of a thread to spin for long. There are as many seats as cores, so that threads which only wait do not
/// stand in the way of those that have something to do. One thread.
class Seat {
 public:
  Seat() = default;
  Seat(const Seat&) = delete;
  Seat& operator=(const Seat&) = delete;
  ~Seat() { Leave(); }

  /// True when the thread has one, from before or now.
  bool Take() noexcept;
  void Leave() noexcept;

 private:
  bool taken_ = false;
};

/// Bounds the time for which a thread waits awake. A parked thread takes tens of microseconds to come back, a spinning
/// one takes a fraction of one; but a thread that spins where another could run only stands in its way.
class Spin {
 public:
  /// Takes `seat` when the waiting becomes long, and leaves it to the caller to give it back.
  Spin(std::chrono::nanoseconds limit, Seat* seat) noexcept : limit_(limit), seat_(seat) {}

  /// One round of waiting. False when it is time to park.
  bool Again() noexcept;

 private:
  const std::chrono::nanoseconds limit_;
  Seat* const seat_;
  std::uint32_t rounds_ = 0;
  std::chrono::steady_clock::time_point end_;
};

/// Tells one waiting thread that something is done, once.
class Completion {
 public:
  /// The last touch of this object: the waiting thread may free it before the call returns.
  void Set() noexcept;
  void Wait() noexcept;

 private:
  std::atomic<std::uint32_t> state_{0};
};

}  // namespace pp
