#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "ppapi/cpp/message_loop.h"

namespace pp {

class SpinSlot;

/// A loop of work: any thread pushes, one thread runs what was pushed, in the order of the pushes.
///
/// It is driven by whoever owns the thread that the loop runs on, and shared with all who hold a `MessageLoop` of it.
/// Once `Quit` was called it takes no more work, for good.
class MessageLoop::Core : public std::enable_shared_from_this<Core> {
 public:
  /// A piece of work. It belongs to its maker until the loop accepts it; then the loop calls exactly one of `Run` and
  /// `Drop`, once, and does not touch the work afterwards.
  class Work {
   public:
    Work() = default;
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

    /// On the loop's thread.
    virtual void Run() = 0;
    /// Instead of `Run`, when the loop has ended: on its thread or on the one that called `Quit`.
    virtual void Drop() = 0;

   protected:
    ~Work() = default;

   private:
    friend Core;
    Work* next_ = nullptr;
  };

  Core() = default;
  Core(const Core&) = delete;
  Core& operator=(const Core&) = delete;
  ~Core();

  /// The loop that runs on the calling thread, or null.
  static Core* Current() noexcept;

  /// Queues `work`. False, and the work stays the caller's, when the loop has ended. Any thread, before `Run` too.
  bool Push(Work* work) noexcept;

  /// Runs work on the calling thread until `Quit`. At most one call in the loop's life.
  void Run();

  /// Ends the loop: the piece that runs comes to its end, what is queued behind it is dropped. Does not wait for `Run`
  /// to return. Any thread; a second call does nothing.
  void Quit() noexcept;

  bool has_ended() const noexcept;

 private:
  static Work* OldestFirst(Work* newest) noexcept;
  Work* WaitForWork(SpinSlot* slot) noexcept;
  void Unpark() noexcept;

  // The newest piece of work, linked to the older ones, or null, or one of the marks in the source file. All sides
  // contend for it, so it has its cache line to itself.
  alignas(64) std::atomic<Work*> newest_{nullptr};
  alignas(64) std::atomic<std::uint32_t> parked_{0};
};

}  // namespace pp
