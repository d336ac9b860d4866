#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

/// What all measurements share: repetition, comparison with a floor, and the formats of the table. All times are in
/// nanoseconds unless a name says otherwise.
namespace bench {

using Clock = std::chrono::steady_clock;

/// How long each measurement takes. The quick effort is for checking that everything works; its figures are rough.
struct Effort {
  int rounds;                        ///< how often each measurement of a comparison is repeated
  std::chrono::milliseconds sample;  ///< how long one measurement of a short operation lasts
  int singles;                       ///< how many operations are timed one by one for one measurement
};
inline constexpr Effort kFullEffort{15, std::chrono::milliseconds(40), 100};
inline constexpr Effort kQuickEffort{3, std::chrono::milliseconds(10), 20};

/// Thrown by `CheckStop` after SIGINT or SIGTERM, so that child processes and folders are released on the way.
struct Stop {};

/// Makes SIGINT and SIGTERM end the run at the next `CheckStop`, and ignores SIGPIPE.
void HandleStopSignals();
bool StopAsked();
void CheckStop();

/// Prints a line on the original stderr, such as the name of the current measurement.
void Progress(const std::string& text);

/// Discards all later output to stderr; `Progress` still prints.
void DiscardStderr();

inline double Between(Clock::time_point start, Clock::time_point end) {
  return std::chrono::duration<double, std::nano>(end - start).count();
}
inline double Since(Clock::time_point start) { return Between(start, Clock::now()); }

/// Sleeps 0.5 ms: after that, every idle thread of the product has stopped spinning and sleeps.
void Rest();

double Median(std::vector<double> values);

/// The time of one call of `operation`, for those that are too short to be timed one by one: the median over slices of
/// about a tenth of a millisecond, so that the slices in which another process had the core do not count.
template <typename Operation>
double PerCall(const Effort& effort, Operation&& operation) {
  const auto slice = [&](int calls) {
    const auto start = Clock::now();
    for (int call = 0; call < calls; ++call) operation();
    return Since(start);
  };
  int calls = 1;
  while (slice(calls) < 100'000) calls *= 2;
  std::vector<double> slices;
  for (const auto end = Clock::now() + effort.sample; Clock::now() < end || slices.empty();) {
    slices.push_back(slice(calls) / calls);
  }
  CheckStop();
  return Median(std::move(slices));
}

/// The median of `count` results of `operation`, which times itself.
template <typename Operation>
double MedianOf(int count, Operation&& operation) {
  std::vector<double> times;
  for (int i = 0; i < count; ++i) {
    times.push_back(operation());
    CheckStop();
  }
  return Median(std::move(times));
}

/// Two measurements that were taken alternately: the median of each, and the median of the rounds' ratios, which hardly
/// changes with the machine's speed from minute to minute.
struct Comparison {
  double reference;  ///< what the product is compared with: mostly its floor
  double measured;
  double ratio;  ///< measured / reference
};
Comparison Compare(const Effort& effort, const std::function<double()>& reference,
                   const std::function<double()>& measured);

/// One line of the table.
struct Row {
  std::string what;
  std::string compared_with;
  std::string reference;
  std::string measured;
  std::string ratio;
  std::string goal;
  std::optional<bool> reached;  ///< empty if it could not be measured
};

/// A row of times whose ratio must be at most `goal`.
Row AtMost(std::string what, std::string compared_with, const Comparison& times, double goal);
/// A row of one figure that must be at most `goal`; `text` formats both with their unit.
Row AtMost(std::string what, double figure, double goal, std::string (*text)(double));
/// A row that could not be measured, and why.
Row Missing(std::string what, std::string why);

/// A time with its unit, such as "1.26 µs".
std::string Time(double nanoseconds);
/// An amount of memory with its unit, such as "96 KiB".
std::string Memory(double bytes);
/// A number with at most `digits` digits after the point.
std::string Number(double value, int digits = 2);

/// A curve. In each point the first value is what is increased, such as the number of instances.
struct Series {
  std::string name;
  std::vector<std::string> columns;
  std::vector<std::vector<double>> points;
};

/// The result of a measurement: curves to plot, and rows of the table.
struct Figures {
  std::vector<Series> series;
  std::vector<Row> rows;
};

}  // namespace bench
