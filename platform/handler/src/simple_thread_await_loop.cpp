#include "simple_thread_await_loop.h"

#include <system_error>
#include <thread>
#include <utility>

#include "message_loop_control.h"

namespace pp {

struct SimpleThreadAwaitLoop::State {
  const std::shared_ptr<MessageLoop::Core> loop = std::make_shared<MessageLoop::Core>();
  std::thread thread;
  bool started = false;
};

SimpleThreadAwaitLoop::SimpleThreadAwaitLoop(const InstanceHandle& /*instance*/) : state_(std::make_unique<State>()) {}

SimpleThreadAwaitLoop::~SimpleThreadAwaitLoop() {
  state_->loop->Quit();
  if (state_->thread.joinable()) state_->thread.join();
}

bool SimpleThreadAwaitLoop::Start() {
  if (std::exchange(state_->started, true)) return false;
  try {
    state_->thread = std::thread([loop = state_->loop.get()] { loop->Run(); });
  } catch (const std::system_error&) {
    state_->loop->Quit();  // it will never run, so no thread may wait for it
    return false;
  }
  return true;
}

MessageLoop SimpleThreadAwaitLoop::message_loop() const { return MessageLoop(state_->loop); }

}  // namespace pp
