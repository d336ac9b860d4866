// The run `kill`: a writing process is killed at random moments, again and again, while another process reads. No
// acknowledged write may be lost, no value may be read that was never written, and no lock may stay held.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <thread>

#include "harness.h"
#include "numbered_values.h"
#include "set/simulated_set.h"
#include "vconf.h"
#include "vconf_control.h"

namespace stress {
namespace {

constexpr char kNumber[] = "db/kill/number";
constexpr char kMemory[] = "memory/kill/number";
constexpr char kText[] = "db/kill/text";
constexpr std::array kKeys = {kNumber, kMemory, kText};
constexpr int kFailed = -1;

/// An acknowledged write: the `number`th of the key, counted from 1, or `kFailed`.
struct Acknowledged {
  int key;
  int number;
};

/// The results of the reader.
struct Results {
  std::atomic<std::uint64_t> reads;
  std::atomic<std::uint64_t> torn;
  std::atomic<std::uint64_t> back_in_time;
  std::atomic<std::uint64_t> failed_writes;
  Slowest read;
  Slowest write;
  std::atomic<std::uint64_t> events;
  std::atomic<bool> stop;
};

bool WriteNumber(int key, int number) {
  const char* const path = kKeys[static_cast<std::size_t>(key)];
  if (key == 2) return vconf::Set(path, TextOf(number)).ok();
  return vconf_set_int(path, number) == 0 && vconf_sync_key(path) == 0;
}

void Write(const std::string& store, int pipe) {
  EXPECT_EQ(vconf::OpenOrCreateStore(store, desk::DefaultEntries()).text(), "");
  std::array<int, 3> numbers = {NumberIn(kNumber), NumberIn(kMemory), NumberIn(kText)};
  while (true) {
    for (int key = 0; key < 3; ++key) {
      int& number = numbers[static_cast<std::size_t>(key)];
      const Acknowledged acknowledged = {key, WriteNumber(key, ++number) ? number : kFailed};
      if (write(pipe, &acknowledged, sizeof acknowledged) < 0) return;
    }
  }
}

/// Reads all the time, and writes sometimes, to check that the lock of the killed writer is released.
void Read(const std::string& store, Results& results, int pipe) {
  EXPECT_EQ(vconf::OpenStore(store).text(), "");
  const auto count = [](keynode_t*, void* events) { ++*static_cast<std::atomic<std::uint64_t>*>(events); };
  EXPECT_GE(vconf_notify_key_changed(kNumber, count, &results.events), 0);
  EXPECT_EQ(write(pipe, "", 1), 1);
  Witness witness;
  std::array<int, 3> last{};
  for (std::uint64_t round = 1; !results.stop; ++round) {
    const auto before = Clock::now();
    for (int key = 0; key < 3; ++key) {
      const int number = NumberIn(kKeys[static_cast<std::size_t>(key)]);
      int& least = last[static_cast<std::size_t>(key)];
      if (number == kFailed) {
        ++results.torn;
      } else if (number < least) {
        ++results.back_in_time;
      } else {
        least = number;
      }
    }
    const auto between = Clock::now();
    results.read.Take(witness, before, between);
    if (round % 256 == 0) {
      const auto written_from = Clock::now();
      if (vconf_set_int("db/kill/reader", static_cast<int>(round / 256)) != 0) ++results.failed_writes;
      results.write.Take(witness, written_from, Clock::now());
    }
    ++results.reads;
  }
  vconf::Settle();
  vconf_ignore_key_changed(kNumber, count);
  vconf::CloseStore();
}

/// Kills a process while it creates the store. Afterwards the store must open with its initial content.
void KillCreator(const std::string& store, std::chrono::microseconds life) {
  {
    Process creator([&](int pipe) { Write(store, pipe); });
    std::this_thread::sleep_for(life);
  }
  EXPECT_EQ(vconf::OpenOrCreateStore(store, desk::DefaultEntries()).text(), "");
  for (const auto& entry : desk::DefaultEntries()) EXPECT_EQ(*vconf::Get(entry.path), entry.value) << entry.path;
  vconf::CloseStore();
  std::filesystem::remove_all(store);
}

}  // namespace

void RunKill(double kills, unsigned seed) {
  Progress progress("kill", kills, "kills");
  const TemporaryFolder folder;
  const std::string store = folder / "store";
  EXPECT_EQ(vconf::OpenOrCreateStore(store, desk::DefaultEntries()).text(), "");
  vconf::CloseStore();

  auto& results = SharedWithForks<Results>();
  Process reader([&](int pipe) { Read(store, results, pipe); });
  char ready = 0;
  EXPECT_TRUE(reader.Read(&ready));

  std::mt19937 random(seed);
  const auto life = [&random](int most) {
    return std::chrono::microseconds(std::uniform_int_distribution<>(0, most)(random));
  };
  std::array<int, 3> stored{};
  std::vector<double> opening;
  Slowest slowest_opening;
  std::uint64_t acknowledged = 0;
  int kill = 0;
  for (; progress.Continues(kill); ++kill) {
    if (kill % 10 == 9) {
      KillCreator(folder / "new", life(3'000));
      continue;
    }
    Process writer([&](int pipe) { Write(store, pipe); });
    auto least = stored;
    const auto take = [&] {
      Acknowledged next{};
      if (!writer.Read(&next)) return false;
      EXPECT_NE(next.number, kFailed) << kKeys[static_cast<std::size_t>(next.key)];
      least[static_cast<std::size_t>(next.key)] = next.number;
      ++acknowledged;
      return true;
    };
    // Mostly while it writes, sometimes while it opens the store.
    if (kill % 4 != 0) take();
    std::this_thread::sleep_for(life(5'000));  // until the random moment of the kill
    writer.Signal(SIGKILL);
    while (take()) {
    }
    {
      Witness witness;
      const auto before = Clock::now();
      EXPECT_EQ(vconf::OpenStore(store).text(), "");
      const auto opened = Clock::now();
      opening.push_back(Milliseconds(opened - before));
      slowest_opening.Take(witness, before, opened);
    }
    for (int key = 0; key < 3; ++key) {
      const auto at = static_cast<std::size_t>(key);
      stored[at] = NumberIn(kKeys[at]);
      EXPECT_GE(stored[at], least[at]) << kKeys[at] << " lost an acknowledged write";
      EXPECT_LE(stored[at], least[at] + 1) << kKeys[at] << " has a value that was never written";
    }
    vconf::CloseStore();
  }

  results.stop = true;
  EXPECT_EQ(reader.Wait(), 0) << "a process of the run failed";
  EXPECT_EQ(results.torn, 0U);
  EXPECT_EQ(results.back_in_time, 0U);
  EXPECT_EQ(results.failed_writes, 0U);
  EXPECT_EQ(results.events, static_cast<std::uint64_t>(stored[0])) << "one event for each write";
  constexpr double kLongTime = kSanitized ? 2'000 : 500;  // long enough for a busy machine
  EXPECT_LT(results.read.milliseconds_without_gaps(), kLongTime) << "the reader stalled";
  EXPECT_LT(slowest_opening.milliseconds_without_gaps(), kLongTime) << "opening the store took too long";
  std::printf(
      "kill: %d kills%s, %llu acknowledged writes all there; store open again after %.2f ms (median), %.2f ms "
      "(longest)\n"
      "  during this %llu reads, none torn, the slowest %.1f ms (a write: %.1f ms); %llu events, one for each write\n",
      kill, Progress::Remark().c_str(), static_cast<unsigned long long>(acknowledged), Quantile(opening, 0.5),
      Quantile(opening, 1), 3ULL * results.reads.load(), results.read.milliseconds(), results.write.milliseconds(),
      static_cast<unsigned long long>(results.events.load()));
}

}  // namespace stress
