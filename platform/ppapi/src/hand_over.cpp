#include "hand_over.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

namespace pp {
namespace {

using std::chrono::steady_clock;

/// As long as a parked worker takes to wake and answer, so that the page is still awake then.
constexpr std::chrono::microseconds kCompletionSpin{100};

// The rounds of a spinning thread, the first ones a few nanoseconds each:
constexpr std::uint32_t kFreeRounds = 64;  ///< that any thread may have; a warm hand-over is mostly over by then
constexpr std::uint32_t kYields = 16;      ///< then, without a seat: to go round by offers costs less than to park and
                                           ///< be woken, and who waits for nothing soon is out of the way
constexpr std::uint32_t kTightRounds = 512;  ///< with one, before it looks at the clock and rests between rounds
constexpr std::uint32_t kRoundsToYield = 8;  ///< then, between two offers of its core to other threads, one of which
                                             ///< may be the one that it waits for

/// How many threads may spin for long: as many as there are cores, and none where there is only one.
int CountSeats() noexcept {
  cpu_set_t cores;
  if (sched_getaffinity(0, sizeof cores, &cores) != 0) return 0;
  const int count = CPU_COUNT(&cores);
  return count > 1 ? count : 0;
}

const int g_seats = CountSeats();
constinit std::atomic<int> g_seats_taken{0};
constinit std::atomic<bool> g_seat_refused{false};  // since a late return of a core was last looked into

// Where a core that was offered comes back only now, somebody who never rests has had a whole turn of it. Unless that
// is a thread that waits here without a seat, offers are then no way to wait: who parks is woken at once.
constexpr std::chrono::milliseconds kTurn{1};
constexpr std::chrono::seconds kTimeWithoutOffers{1};
thread_local constinit steady_clock::time_point t_no_offers_until{};

/// Offers the core of a thread with a seat to others. False when that is no way to wait.
bool OfferCore() noexcept {
  const auto before = steady_clock::now();
  sched_yield();
  const auto after = steady_clock::now();
  if (after - before < kTurn || g_seat_refused.exchange(false, std::memory_order_relaxed)) return true;
  t_no_offers_until = after + kTimeWithoutOffers;
  return false;
}

constexpr std::uint32_t kPending = 0;
constexpr std::uint32_t kDone = 1;
constexpr std::uint32_t kWaiterParked = 2;

}  // namespace

void Park(std::atomic<std::uint32_t>* word, std::uint32_t value) noexcept {
  syscall(SYS_futex, word, FUTEX_WAIT_PRIVATE, value, nullptr, nullptr, 0);
}

void WakeOne(std::atomic<std::uint32_t>* word) noexcept {
  syscall(SYS_futex, word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
}

bool Spin::Again() noexcept {
  if (g_seats == 0) return false;
  if (++rounds_ < kFreeRounds) return true;
  if (!seat_->Take()) {
    sched_yield();
    return rounds_ < kFreeRounds + kYields;
  }
  if (rounds_ == kFreeRounds) return steady_clock::now() >= t_no_offers_until;
  if (rounds_ < kTightRounds) return true;
  if (rounds_ == kTightRounds) end_ = steady_clock::now() + limit_;
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
  if (rounds_ % kRoundsToYield == 0 && !OfferCore()) return false;
  return steady_clock::now() < end_;
}

bool Seat::Take() noexcept {
  if (taken_) return true;
  taken_ = g_seats_taken.fetch_add(1, std::memory_order_relaxed) < g_seats;
  if (!taken_) {
    g_seats_taken.fetch_sub(1, std::memory_order_relaxed);
    if (!g_seat_refused.load(std::memory_order_relaxed)) g_seat_refused.store(true, std::memory_order_relaxed);
  }
  return taken_;
}

void Seat::Leave() noexcept {
  if (std::exchange(taken_, false)) g_seats_taken.fetch_sub(1, std::memory_order_relaxed);
}

void Completion::Set() noexcept {
  if (state_.exchange(kDone, std::memory_order_release) == kWaiterParked) WakeOne(&state_);
}

void Completion::Wait() noexcept {
  Seat seat;
  for (Spin spin(kCompletionSpin, &seat); spin.Again();) {
    if (state_.load(std::memory_order_acquire) == kDone) return;
  }
  std::uint32_t state = kPending;
  if (!state_.compare_exchange_strong(state, kWaiterParked, std::memory_order_acquire)) return;
  while (state_.load(std::memory_order_acquire) != kDone) Park(&state_, kWaiterParked);
}

}  // namespace pp
