#pragma once

#include <memory>

#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/message_loop.h"

namespace pp {

/// A worker: one thread that runs one loop. Made, started and deleted on one thread.
class SimpleThreadAwaitLoop {
 public:
  explicit SimpleThreadAwaitLoop(const InstanceHandle& instance);
  SimpleThreadAwaitLoop(const SimpleThreadAwaitLoop&) = delete;
  SimpleThreadAwaitLoop& operator=(const SimpleThreadAwaitLoop&) = delete;

  /// Lets the work that runs now come to its end, drops what is queued behind it (a page that waits on a dropped
  /// message gets an undefined variable), and joins the thread.
  ~SimpleThreadAwaitLoop();

  /// Starts the thread. True: the loop runs there. False when the worker was started before, or when the thread could
  /// not be made, which ends the loop for good.
  bool Start();

  /// The worker's loop, the same at every call, before `Start` too.
  MessageLoop message_loop() const;

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace pp
