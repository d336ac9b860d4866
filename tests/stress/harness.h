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

#include "support/host_program.h"

/// What the runs share. Their checks are those of the tests, made outside of a test; `main` turns a failed one into the
/// exit status.
namespace stress {

using Clock = std::chrono::steady_clock;

/// Whether a sanitizer is at work, which takes time and keeps memory back.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

double Milliseconds(Clock::duration time);

/// The value that `part` (0 to 1) of `values` do not exceed; 0 when there are none.
double Quantile(std::vector<double> values, double part);

/// Tells on stderr how far a run is, and ends it early on SIGINT or SIGTERM.
class Progress {
 public:
  /// `goal` is where the run ends by itself, counted in `unit`.
  Progress(std::string name, double goal, std::string unit);

  /// Whether the run goes on, `done` of the goal being reached. To be asked often.
  bool GoesOn(double done);

  /// Whether somebody asked for the end.
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

/// A thread that wakes every millisecond and notes when it could not: the machine had other work or stood still, which
/// no other part of the process is to blame for.
class Witness {
 public:
  Witness();
  Witness(const Witness&) = delete;
  Witness& operator=(const Witness&) = delete;

  /// The time from `begin` to `end`, which is past, less what the process lost of it. Waits until the witness wakes.
  Clock::duration Blamed(Clock::time_point begin, Clock::time_point end);

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

/// The slowest of many, as it was and without what the process is not to blame for.
class Slowest {
 public:
  void Take(Witness& witness, Clock::time_point begin, Clock::time_point end);

  double milliseconds() const { return Milliseconds(slowest_.load()); }
  double blamed_milliseconds() const { return Milliseconds(blamed_.load()); }

 private:
  std::atomic<Clock::duration> slowest_;
  std::atomic<Clock::duration> blamed_;
};

struct Usage {
  double mebibytes;  ///< of memory that is backed by no file
  int descriptors;
};
/// What this process uses.
Usage OwnUsage();

/// Each run prints what it found. The number is how long it goes on, in the unit of the run. The seed repeats its
/// random choices, not the order in which processes come to run.
void RunKill(double kills, unsigned seed);
void RunSoak(double seconds, unsigned seed);

// ---------------------------------------------------------------------------------------------------------------------

void* MapShared(std::size_t size);

template <typename T>
T& SharedWithForks() {
  return *new (MapShared(sizeof(T))) T{};
}

}  // namespace stress
