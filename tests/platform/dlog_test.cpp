// The platform's logger.

#include "dlog.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "dlog_control.h"

namespace {

class DlogTest : public testing::Test {
 protected:
  ~DlogTest() override {
    dlog::SetSink(nullptr);
    dlog::SetThreshold(4);
  }

  void Collect() {
    dlog::SetSink([this](const dlog::Line& line) { lines_.push_back(dlog::Format(line)); });
  }

  std::vector<std::string> lines_;
};

TEST_F(DlogTest, LinesReachStderrWhole) {
  testing::internal::CaptureStderr();
  const std::string long_text(5000, 'x');
  EXPECT_GE(__dlog_print(0, 4, "TAG", "%s: %d", "seven", 7), 0);
  EXPECT_GE(__dlog_print(2, 6, "TAG", "%s", long_text.c_str()), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "I/TAG(0): seven: 7\nE/TAG(2): " + long_text + "\n");
}

TEST_F(DlogTest, LinesNearTheSizeOfTheBufferAreNotCut) {
  Collect();
  for (const std::size_t length : {0U, 510U, 511U, 512U, 513U}) {
    __dlog_print(0, 4, "T", "%s", std::string(length, 'y').c_str());
    EXPECT_EQ(lines_.back(), "I/T(0): " + std::string(length, 'y'));
  }
}

TEST_F(DlogTest, ThresholdDropsLowerPriorities) {
  Collect();
  dlog::SetThreshold(5);
  __dlog_print(0, 4, "T", "dropped");
  __dlog_print(0, 5, "T", "kept");
  EXPECT_EQ(lines_, std::vector<std::string>{"W/T(0): kept"});
}

TEST_F(DlogTest, AFailedWriteOnlyReturnsAnError) {
  const int kept = dup(STDERR_FILENO);
  close(STDERR_FILENO);
  const int result = __dlog_print(0, 4, "T", "lost");
  dup2(kept, STDERR_FILENO);
  close(kept);
  EXPECT_LT(result, 0);
}

TEST_F(DlogTest, SinkGetsOneLineAtATimeAndNoneAfterItIsReplaced) {
  int count = 0;  // not atomic: the logger promises to call the sink from one thread at a time
  dlog::SetSink([&count](const dlog::Line&) { ++count; });
  std::vector<std::jthread> writers(4);
  for (auto& writer : writers) {
    writer = std::jthread([] {
      for (int i = 0; i < 1000; ++i) __dlog_print(0, 4, "T", "%d", i);
    });
  }
  writers.clear();
  dlog::SetSink([](const dlog::Line&) {});
  __dlog_print(0, 4, "T", "elsewhere");
  EXPECT_EQ(count, 4000);
}

}  // namespace
