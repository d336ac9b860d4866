#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

/// The floor of a hand-over between two processes, and the child processes of rows_store.cpp.
namespace bench {

/// A memory page that processes share: one value, its robust lock, and a futex word. The least that a hand-over between
/// two processes needs if either may die.
class SharedWords {
 public:
  /// Maps `file`; creates and initializes it if it does not exist.
  explicit SharedWords(const std::string& file);
  SharedWords(const SharedWords&) = delete;
  SharedWords& operator=(const SharedWords&) = delete;
  ~SharedWords();

  void Put(int value);
  int Take();

  /// The number of calls of `WakeAll` so far.
  std::uint32_t Wakeups() const { return words_->wakeups.load(std::memory_order_acquire); }
  void WakeAll();
  /// Sleeps until `Wakeups()` is no longer `seen`.
  void Await(std::uint32_t seen);

 private:
  struct Words {
    pthread_mutex_t lock;
    int slot;
    std::atomic<std::uint32_t> wakeups;
  };
  Words* words_;
};

/// For each number on stdin: prints the clock's count just before it hands the number over through `file`.
int RunHandOver(const std::string& file);
/// Sleeps on the futex word of `file`, again after each wake-up, until stdin ends.
int RunSleeper(const std::string& file);
/// Subscribes to `kMemoryKey` until stdin ends.
int RunListener(const std::string& store);
/// Writes `kDiskKey` durably without a pause until stdin ends.
int RunDurableWriter(const std::string& store);

}  // namespace bench
