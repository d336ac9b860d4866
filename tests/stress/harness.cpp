#include "harness.h"

#include <sys/mman.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace stress {
namespace {

volatile std::sig_atomic_t g_stopped = 0;

void Stop(int /*signal*/) { g_stopped = 1; }

}  // namespace

double Milliseconds(Clock::duration time) { return std::chrono::duration<double, std::milli>(time).count(); }

double Quantile(std::vector<double> values, double part) {
  if (values.empty()) return 0;
  std::ranges::sort(values);
  return values[static_cast<std::size_t>(part * static_cast<double>(values.size() - 1))];
}

Progress::Progress(std::string name, double goal, std::string unit)
    : name_(std::move(name)), goal_(goal), unit_(std::move(unit)) {
  struct sigaction action = {};
  action.sa_handler = Stop;
  action.sa_flags = SA_RESTART;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

bool Progress::Continues(double done) {
  const auto now = Clock::now();
  if (now - shown_ > std::chrono::seconds(isatty(STDERR_FILENO) != 0 ? 5 : 60)) {
    shown_ = now;
    std::fprintf(stderr, "%s: %.0f of %.0f %s\n", name_.c_str(), done, goal_, unit_.c_str());
  }
  return done < goal_ && !Stopped() && !testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed();
}

bool Progress::Stopped() { return g_stopped != 0; }

std::string Progress::Remark() { return Stopped() ? " (stopped early)" : ""; }

Witness::Witness() : thread_([this](const std::stop_token& stop) { Watch(stop); }) {}

Clock::duration Witness::WithoutGaps(Clock::time_point begin, Clock::time_point end) {
  std::unique_lock lock(mutex_);
  woken_.wait(lock, [&] { return awake_ > end; });  // a gap that includes `end` is over
  std::erase_if(gaps_, [&](const Gap& gap) { return gap.end < begin; });
  Clock::duration rest = end - begin;
  for (const Gap& gap : gaps_) {
    rest -= std::max(std::min(gap.end, end) - std::max(gap.begin, begin), Clock::duration::zero());
  }
  return rest;
}

void Witness::Watch(const std::stop_token& stop) {
  constexpr std::chrono::milliseconds kPeriod(1);
  constexpr std::chrono::milliseconds kGap(10);
  std::unique_lock lock(mutex_);
  while (!stop.stop_requested()) {
    woken_.wait_for(lock, stop, kPeriod, [] { return false; });
    const auto now = Clock::now();
    if (now - awake_ > kGap) gaps_.push_back({awake_, now});
    awake_ = now;
    woken_.notify_all();
  }
}

void Slowest::Take(Witness& witness, Clock::time_point begin, Clock::time_point end) {
  slowest_ = std::max(slowest_.load(), end - begin);
  if (end - begin > without_gaps_.load()) {
    without_gaps_ = std::max(without_gaps_.load(), witness.WithoutGaps(begin, end));
  }
}

Usage OwnUsage() {
  double mebibytes = 0;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.starts_with("RssAnon:")) mebibytes = std::atof(line.c_str() + sizeof "RssAnon:") / 1024;
  }
  const auto files = std::filesystem::directory_iterator("/proc/self/fd");
  return {mebibytes, static_cast<int>(std::distance(begin(files), end(files)))};
}

void* MapShared(std::size_t size) {
  void* const memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) throw std::bad_alloc();
  return memory;
}

}  // namespace stress
