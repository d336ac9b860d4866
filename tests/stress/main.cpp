// The program `stress kill|soak [LENGTH [SEED]]`, which runs kill.cpp or soak.cpp; see harness.h.
#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "harness.h"

namespace {

struct Run {
  const char* name;
  void (*run)(double length, unsigned seed);
  double length;  // when none is given
};
constexpr std::array kRuns = {Run{"kill", stress::RunKill, 1000}, Run{"soak", stress::RunSoak, 1800}};

}  // namespace

int main(int argc, char** argv) {
  testing::InitGoogleTest(&argc, argv);
  const std::string name = argc > 1 ? argv[1] : "";
  const auto* const run = std::ranges::find(kRuns, name, &Run::name);
  const double length = argc > 2 ? std::atof(argv[2]) : 0;
  if (run == kRuns.end() || argc > 4 || (argc > 2 && length <= 0)) {
    std::fputs("usage: stress kill [KILLS [SEED]] | soak [SECONDS [SEED]]\n", stderr);
    return 2;
  }
  if (run->run == stress::RunKill && !HasRobustLocks()) {
    std::printf("%s: Skipped\n%s\n", run->name, kNoRobustLocks);
    return 77;
  }
  static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
  const auto seed = argc > 3 ? static_cast<unsigned>(std::strtoul(argv[3], nullptr, 10)) : std::random_device{}();
  std::fprintf(stderr, "%s: seed %u\n", run->name, seed);
  try {
    run->run(length > 0 ? length : run->length, seed);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", run->name, error.what());
    return 1;
  }
  if (testing::UnitTest::GetInstance()->ad_hoc_test_result().Failed()) return 1;
  return stress::Progress::Stopped() ? 130 : 0;
}
