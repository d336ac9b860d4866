#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <random>
#include <stop_token>
#include <string>
#include <thread>
#include <vector>

#include "support/program.h"

/// What the runs `kill` and `soak` share. They use the expectations of GoogleTest outside of a test; `main` returns 1
/// if one has failed.
namespace stress {

using Clock = std::chrono::steady_clock;

/// Whether this is a build with a sanitizer, which takes time and delays the release of memory.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

double Milliseconds(Clock::duration time);

/// The value that `part` (0 to 1) of `values` do not exceed; 0 when there are none.
double Quantile(std::vector<double> values, double part);

/// Prints the progress of a run on stderr, and ends the run early on SIGINT or SIGTERM.
class Progress {
 public:
  /// The run ends by itself at `goal`, a number of `unit`.
  Progress(std::string name, double goal, std::string unit);

  /// Whether to continue when `done` of the goal is reached. Call it often.
  bool Continues(double done);

  /// Whether SIGINT or SIGTERM has been received.
  static bool Stopped();

  /// " (stopped early)" or nothing, for the result.
  static std::string Remark();

 private:
  std::string name_;
  double goal_;
  std::string unit_;
  Clock::time_point shown_ = Clock::now();
};

/// Memory that a process shares with those it forks; `T` is not destroyed.
template <typename T>
T& SharedWithForks();

/// A thread that wakes every millisecond and records the gaps in which it could not run, because the machine was busy
/// or suspended.
class Witness {
 public:
  Witness();
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  /// The time from `begin` to `end` without the gaps. `end` must be past. Waits until the thread wakes.
  Clock::duration WithoutGaps(Clock::time_point begin, Clock::time_point end);

 private:
  struct Gap {
    Clock::time_point begin;
    Clock::time_point end;
  };

  void Watch(const std::stop_token& stop);

  std::mutex mutex_;
  std::condition_variable_any woken_;
  Clock::time_point awake_ = Clock::now();
  std::vector<Gap> gaps_;
  std::jthread thread_;  // last, so that it ends first
};

/// The longest of many durations, with and without the gaps of the witness.
class Slowest {
 public:
  void Take(Witness& witness, Clock::time_point begin, Clock::time_point end);

  double milliseconds() const { return Milliseconds(slowest_.load()); }
  double milliseconds_without_gaps() const { return Milliseconds(without_gaps_.load()); }

 private:
  std::atomic<Clock::duration> slowest_;
  std::atomic<Clock::duration> without_gaps_;
};

struct Usage {
  double mebibytes;  ///< of memory that is not backed by a file
  int descriptors;
};
/// What this process uses.
Usage OwnUsage();

/// Each run prints its results. The number is its length, in its own unit. The same seed gives the same random choices,
/// but not the same scheduling of the processes.
void RunKill(double kills, unsigned seed);
void RunSoak(double seconds, unsigned seed);

// ---------------------------------------------------------------------------------------------------------------------

void* MapShared(std::size_t size);

template <typename T>
T& SharedWithForks() {
  return *new (MapShared(sizeof(T))) T{};
}

}  // namespace stress
