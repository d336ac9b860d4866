// The worker of an instance, pp::SimpleThreadAwaitLoop.

#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <functional>
#include <latch>
#include <thread>
#include <utility>

#include "message_loop_control.h"
#include "simple_thread_await_loop.h"

namespace {

using Loop = pp::MessageLoop::Core;

/// Work that counts how often the loop has run it.
class CountedWork final : public Loop::Work {
 public:
  explicit CountedWork(std::function<void()> run = [] {}) : run_(std::move(run)) {}
  void Run() override {
    run_();
    ++ran;
  }
  void Drop() override {}

  int ran = 0;

 private:
  const std::function<void()> run_;
};

TEST(Worker, RunsWorkThatWasQueuedBeforeTheStartOnItsOwnThread) {
  pp::SimpleThreadAwaitLoop worker(pp::InstanceHandle(PP_Instance{1}));
  Loop& loop = *worker.message_loop().core();
  std::latch done(1);
  std::thread::id thread;
  CountedWork first;
  CountedWork second([&] { thread = std::this_thread::get_id(); });
  CountedWork last([&] { done.count_down(); });
  EXPECT_TRUE(loop.Push(&first));
  EXPECT_TRUE(loop.Push(&second));
  EXPECT_TRUE(worker.Start());
  EXPECT_TRUE(loop.Push(&last));
  done.wait();
  EXPECT_EQ(first.ran + second.ran, 2);
  EXPECT_NE(thread, std::this_thread::get_id());
  EXPECT_FALSE(worker.Start()) << "started before";
}

TEST(Worker, EndsIfTheThreadCannotBeCreated) {
  pthread_attr_t usual;
  pthread_attr_t impossible;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(pthread_getattr_default_np(&impossible), 0);
  ASSERT_EQ(pthread_attr_setstacksize(&impossible, SIZE_MAX - 0xffff), 0);
  ASSERT_EQ(pthread_setattr_default_np(&impossible), 0);
  pp::SimpleThreadAwaitLoop worker(pp::InstanceHandle(PP_Instance{1}));
  EXPECT_FALSE(worker.Start());
  ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
  CountedWork work;
  EXPECT_FALSE(worker.message_loop().core()->Push(&work)) << "nobody would ever run it";
}

}  // namespace
