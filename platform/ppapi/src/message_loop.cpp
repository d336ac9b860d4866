#include "ppapi/cpp/message_loop.h"

#include <utility>

#include "hand_over.h"
#include "message_loop_control.h"

namespace pp {
namespace {

using Core = MessageLoop::Core;

/// How long an idle loop spins: longer than the pause between two requests of a page that sends one after the other.
constexpr std::chrono::microseconds kIdleSpin{20};

class Mark final : public Core::Work {
 public:
  void Run() override {}
  void Drop() override {}
};

// Markers that replace the newest work: while the loop's thread is parked, and after the loop has ended.
constinit Mark g_parked;
constinit Mark g_ended;

thread_local Core* t_current = nullptr;

}  // namespace

MessageLoop MessageLoop::GetCurrent() {
  return t_current != nullptr ? MessageLoop(t_current->shared_from_this()) : MessageLoop();
}

Core::~Core() { Quit(); }

Core* Core::Current() noexcept { return t_current; }

bool Core::has_ended() const noexcept { return newest_.load(std::memory_order_acquire) == &g_ended; }

bool Core::Push(Work* work) noexcept {
  Work* newest = newest_.load(std::memory_order_relaxed);
  do {
    if (newest == &g_ended) return false;
    work->next_ = newest == &g_parked ? nullptr : newest;
  } while (!newest_.compare_exchange_weak(newest, work, std::memory_order_acq_rel, std::memory_order_relaxed));
  if (newest == &g_parked) Unpark();
  return true;
}

void Core::Run() {
  t_current = this;
  SpinSlot slot;  // kept until the thread parks: acquiring one for each message would cost as much as the hand-over
  while (Work* oldest = WaitForWork(&slot)) {
    while (oldest != nullptr) {
      Work* const work = std::exchange(oldest, oldest->next_);
      if (has_ended()) {
        work->Drop();
      } else {
        work->Run();
      }
    }
  }
  t_current = nullptr;
}

void Core::Quit() noexcept {
  Work* const newest = newest_.exchange(&g_ended, std::memory_order_acq_rel);
  if (newest == &g_ended) return;
  if (newest == &g_parked) {
    Unpark();
    return;
  }
  for (Work* oldest = OldestFirst(newest); oldest != nullptr;) std::exchange(oldest, oldest->next_)->Drop();
}

Core::Work* Core::OldestFirst(Work* newest) noexcept {
  Work* oldest = nullptr;
  while (newest != nullptr) {
    Work* const older = std::exchange(newest->next_, oldest);
    oldest = std::exchange(newest, older);
  }
  return oldest;
}

/// All queued work, oldest first; null after the loop has ended.
Core::Work* Core::WaitForWork(SpinSlot* slot) noexcept {
  while (true) {
    Spin spin(kIdleSpin, slot);
    do {
      Work* newest = newest_.load(std::memory_order_acquire);
      if (newest == &g_ended) return nullptr;
      if (newest != nullptr && newest_.compare_exchange_strong(newest, nullptr, std::memory_order_acq_rel)) {
        return OldestFirst(newest);
      }
    } while (spin.Again());
    Work* none = nullptr;
    slot->Leave();
    parked_.store(1, std::memory_order_relaxed);
    if (newest_.compare_exchange_strong(none, &g_parked, std::memory_order_acq_rel)) {
      while (parked_.load(std::memory_order_acquire) == 1) Park(&parked_, 1);
    }
  }
}

/// Called by the thread that replaced `g_parked`, so once each time that the loop's thread parks.
void Core::Unpark() noexcept {
  parked_.store(0, std::memory_order_release);
  WakeOne(&parked_);
}

}  // namespace pp
