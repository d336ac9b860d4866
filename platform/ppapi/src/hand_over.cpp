#include "hand_over.h"

#include <linux/futex.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <utility>

namespace pp {
namespace {

using std::chrono::steady_clock;

/// About as long as a parked worker takes to wake and answer, so that the page need not park as well.
constexpr std::chrono::microseconds kCompletionSpin{100};

// What a waiting thread does in its rounds, counted from the start of the wait:
constexpr std::uint32_t kFreeRounds = 64;  ///< every thread: looks again at once. A warm hand-over ends within these.
constexpr std::uint32_t kYields = 16;  ///< a thread without a slot: yields this often, then parks. It is cheaper than
                                       ///< to park at once when many threads take turns.
constexpr std::uint32_t kTightRounds = 512;  ///< a thread with a slot: looks again at once, then pauses in each round
constexpr std::uint32_t kRoundsToYield = 8;  ///< and yields after this many. The core may be needed by the very thread
                                             ///< that is waited for.

/// The number of slots: one for each core that this process may use, and none if that is one core.
int CountSlots() noexcept {
  cpu_set_t cores;
  if (sched_getaffinity(0, sizeof cores, &cores) != 0) return 0;
  const int count = CPU_COUNT(&cores);
  return count > 1 ? count : 0;
}

const int g_slots = CountSlots();
constinit std::atomic<int> g_slots_taken{0};
constinit std::atomic<bool> g_slot_refused{false};  // whether a thread was refused a slot since the last late yield

// A yield that returns late means that another thread used a whole turn of the scheduler. If no thread of this process
// was refused a slot, it is a thread that never waits, such as another program's. Then yields only make this thread
// late: for a while it parks instead, because a thread that is woken runs at once.
constexpr std::chrono::milliseconds kTurn{1};  // a yield that takes longer is late
constexpr std::chrono::seconds kTimeWithoutYields{1};
thread_local constinit steady_clock::time_point t_no_yields_until{};

/// Yields the core of a thread with a slot. False if the thread should park.
bool Yield() noexcept {
  const auto before = steady_clock::now();
  sched_yield();
  const auto after = steady_clock::now();
  if (after - before < kTurn || g_slot_refused.exchange(false, std::memory_order_relaxed)) return true;
  t_no_yields_until = after + kTimeWithoutYields;
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
  if (g_slots == 0) return false;
  if (++rounds_ < kFreeRounds) return true;
  if (!slot_->Take()) {
    sched_yield();
    return rounds_ < kFreeRounds + kYields;
  }
  if (rounds_ == kFreeRounds) return steady_clock::now() >= t_no_yields_until;
  if (rounds_ < kTightRounds) return true;
  if (rounds_ == kTightRounds) end_ = steady_clock::now() + limit_;
#if defined(__x86_64__) || defined(__i386__)
  __builtin_ia32_pause();
#endif
  if (rounds_ % kRoundsToYield == 0 && !Yield()) return false;
  return steady_clock::now() < end_;
}

bool SpinSlot::Take() noexcept {
  if (taken_) return true;
  taken_ = g_slots_taken.fetch_add(1, std::memory_order_relaxed) < g_slots;
  if (!taken_) {
    g_slots_taken.fetch_sub(1, std::memory_order_relaxed);
    if (!g_slot_refused.load(std::memory_order_relaxed)) g_slot_refused.store(true, std::memory_order_relaxed);
  }
  return taken_;
}

void SpinSlot::Leave() noexcept {
  if (std::exchange(taken_, false)) g_slots_taken.fetch_sub(1, std::memory_order_relaxed);
}

void Completion::Set() noexcept {
  if (state_.exchange(kDone, std::memory_order_release) == kWaiterParked) WakeOne(&state_);
}

void Completion::Wait() noexcept {
  SpinSlot slot;
  for (Spin spin(kCompletionSpin, &slot); spin.Again();) {
    if (state_.load(std::memory_order_acquire) == kDone) return;
  }
  std::uint32_t state = kPending;
  if (!state_.compare_exchange_strong(state, kWaiterParked, std::memory_order_acquire)) return;
  while (state_.load(std::memory_order_acquire) != kDone) Park(&state_, kWaiterParked);
}

}  // namespace pp
