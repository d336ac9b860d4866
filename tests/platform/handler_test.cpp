#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdint>
#include <functional>
#include <latch>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "message_loop_control.h"
#include "simple_thread_await_loop.h"

namespace {

using Loop = pp::MessageLoop::Core;

/// Counts what the loop does with it.
class CountedWork final : public Loop::Work {
 public:
  explicit CountedWork(std::function<void()> run = [] {}) : run_(std::move(run)) {}
  void Run() override {
    run_();
    ++ran;
  }
  void Drop() override { ++dropped; }

  int ran = 0;
  int dropped = 0;

 private:
  const std::function<void()> run_;
};

TEST(Worker, RunsWhatWasQueuedBeforeTheStartOnAThreadOfItsOwn) {
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

TEST(Worker, DeletionDropsWhatIsQueuedBehindTheRunningWork) {
  for (const bool start : {false, true}) {
    auto worker = std::make_unique<pp::SimpleThreadAwaitLoop>(pp::InstanceHandle(PP_Instance{1}));
    const auto loop = worker->message_loop().core();
    std::latch running(1);
    CountedWork long_one([&] {
      running.count_down();
      while (!loop->has_ended()) std::this_thread::yield();
    });
    std::vector<CountedWork> behind(3);
    EXPECT_TRUE(loop->Push(&long_one));
    for (CountedWork& work : behind) EXPECT_TRUE(loop->Push(&work));
    if (start) {
      EXPECT_TRUE(worker->Start());
      running.wait();
    }
    worker.reset();
    EXPECT_EQ(long_one.ran, start ? 1 : 0);
    EXPECT_EQ(long_one.dropped, start ? 0 : 1);
    for (const CountedWork& work : behind) EXPECT_EQ(work.dropped, 1);
    EXPECT_FALSE(loop->Push(&long_one)) << "the loop has ended for good";
  }
}

TEST(Worker, AThreadThatCannotBeMadeEndsTheLoop) {
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
