#pragma once

#include <memory>

#include "ppapi/cpp/instance_handle.h"
#include "ppapi/cpp/message_loop.h"

namespace pp {

/// A worker: one thread that runs one loop. Must be created, started and deleted on the same thread.
class SimpleThreadAwaitLoop {
 public:
  explicit SimpleThreadAwaitLoop(const InstanceHandle& instance);
  SimpleThreadAwaitLoop(const SimpleThreadAwaitLoop&) = delete;
  SimpleThreadAwaitLoop& operator=(const SimpleThreadAwaitLoop&) = delete;

  /// Lets the running work finish, drops queued work (a page that waits for a dropped message gets an undefined
  /// variable), and joins the thread.
  ~SimpleThreadAwaitLoop();

  /// Starts the thread, which runs the loop. False if the worker was started before, or if the thread could not be
  /// created, which ends the loop permanently.
  bool Start();

  /// The worker's loop, always the same, also before `Start`.
  MessageLoop message_loop() const;

 private:
  struct State;
  const std::unique_ptr<State> state_;
};

}  // namespace pp
