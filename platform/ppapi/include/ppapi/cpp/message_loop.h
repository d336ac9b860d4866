#pragma once

#include <memory>
#include <utility>

namespace pp {

/// A reference to a thread's work queue; copies name the same loop. Any thread.
class MessageLoop {
 public:
  class Core;  ///< the loop itself, internal to the platform

  MessageLoop() noexcept = default;  ///< names no loop
  explicit MessageLoop(std::shared_ptr<Core> core) noexcept : core_(std::move(core)) {}

  /// The loop that runs on the calling thread, or one that names none.
  static MessageLoop GetCurrent();

  bool is_null() const noexcept { return core_ == nullptr; }
  const std::shared_ptr<Core>& core() const noexcept { return core_; }

 private:
  std::shared_ptr<Core> core_;
};

}  // namespace pp
