#include "harness.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdio>
#include <thread>

namespace bench {
namespace {

volatile std::sig_atomic_t g_stop = 0;
int g_terminal = STDERR_FILENO;

}  // namespace

void HandleStopSignals() {
  struct sigaction action {};
  action.sa_handler = [](int) { g_stop = 1; };
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  signal(SIGPIPE, SIG_IGN);
}

bool StopAsked() { return g_stop != 0; }

void CheckStop() {
  if (StopAsked()) throw Stop();
}

void DiscardStderr() {
  g_terminal = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(nowhere, STDERR_FILENO);
  close(nowhere);
}

void Progress(const std::string& text) { dprintf(g_terminal, "%s\n", text.c_str()); }

void Rest() { std::this_thread::sleep_for(std::chrono::microseconds(500)); }

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

Comparison Compare(const Effort& effort, const std::function<double()>& reference,
                   const std::function<double()>& measured) {
  std::vector<double> references;
  std::vector<double> measurements;
  std::vector<double> ratios;
  for (int round = 0; round < effort.rounds; ++round) {
    references.push_back(reference());
    measurements.push_back(measured());
    ratios.push_back(measurements.back() / references.back());
  }
  return {Median(references), Median(measurements), Median(ratios)};
}

Row AtMost(std::string what, std::string compared_with, const Comparison& times, double goal) {
  return {std::move(what),     std::move(compared_with),  Time(times.reference), Time(times.measured),
          Number(times.ratio), "at most " + Number(goal), times.ratio <= goal};
}

Row AtMost(std::string what, double figure, double goal, std::string (*text)(double)) {
  return {std::move(what), "", "", text(figure), "", "at most " + text(goal), figure <= goal};
}

Row Missing(std::string what, std::string why) {
  return {std::move(what), std::move(why), "", "", "", "", std::nullopt};
}

std::string Number(double value, int digits) {
  std::array<char, 64> text;
  const int size = std::snprintf(text.data(), text.size(), "%.*f", digits, value);
  std::string number(text.data(), static_cast<std::size_t>(size));
  if (digits > 0) {
    number.erase(number.find_last_not_of('0') + 1);
    if (number.back() == '.') number.pop_back();
  }
  return number;
}

std::string Time(double nanoseconds) {
  static constexpr std::array<const char*, 3> kUnits{"ns", "µs", "ms"};
  std::size_t unit = 0;
  for (; nanoseconds >= 1000 && unit + 1 < kUnits.size(); ++unit) nanoseconds /= 1000;
  return Number(nanoseconds, nanoseconds < 10 ? 2 : nanoseconds < 100 ? 1 : 0) + " " + kUnits[unit];
}

std::string Memory(double bytes) {
  return bytes < 1024.0 * 1024 ? Number(bytes / 1024, 1) + " KiB" : Number(bytes / 1024 / 1024, 1) + " MiB";
}

}  // namespace bench
