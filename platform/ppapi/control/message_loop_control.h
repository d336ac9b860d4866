#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include "ppapi/cpp/message_loop.h"

namespace pp {

class SpinSlot;

/// A work queue: any thread pushes work, one thread runs it in the order of the pushes.
///
/// The owner of its thread calls `Run` and `Quit`; every `MessageLoop` that names it shares it. After `Quit` it accepts
/// no more work.
class MessageLoop::Core : public std::enable_shared_from_this<Core> {
 public:
  /// A work item. Its creator owns it until the loop accepts it; then the loop calls either `Run` or `Drop`, exactly
  /// once, and does not access the item afterwards.
  class Work {
   public:
    Work() = default;
    Work(const Work&) = delete;
    Work& operator=(const Work&) = delete;

    /// On the loop's thread.
    virtual void Run() = 0;
    /// Called instead of `Run` after `Quit`: on the loop's thread or on the one that called `Quit`.
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

  /// Queues `work`. Returns false after `Quit`; the caller then still owns the work. Any thread, also before `Run`.
  bool Push(Work* work) noexcept;

  /// Runs work on the calling thread until `Quit`. May be called only once.
  void Run();

  /// Ends the loop: the running item completes, queued items are dropped. Does not wait for `Run` to return. Any
  /// thread; a second call does nothing.
  void Quit() noexcept;

  bool has_ended() const noexcept;

 private:
  static Work* OldestFirst(Work* newest) noexcept;
  Work* WaitForWork(SpinSlot* slot) noexcept;
  void Unpark() noexcept;

  // The newest work item, linked to the older ones, or null, or one of the markers in the source file. All threads
  // contend for it, so it has its own cache line.
  alignas(64) std::atomic<Work*> newest_{nullptr};
  alignas(64) std::atomic<std::uint32_t> parked_{0};
};

}  // namespace pp
