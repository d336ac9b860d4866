#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace bench {

/// A page that processes share: one slot, the lock that guards it, and a word to sleep on. As bare as a hand-over
/// between two processes can be that survives the death of either.
class SharedWords {
 public:
  /// Maps `file`, which is made and set up unless it is there.
  explicit SharedWords(const std::string& file);
  SharedWords(const SharedWords&) = delete;
  SharedWords& operator=(const SharedWords&) = delete;
  ~SharedWords();

  void Put(int value);
  int Take();

  std::uint32_t Rings() const { return words_->rings.load(std::memory_order_acquire); }
  /// Wakes all who sleep.
  void Ring();
  /// Returns when it is no longer `seen` that `Rings()` gives.
  void Await(std::uint32_t seen);

 private:
  struct Words {
    pthread_mutex_t lock;
    int slot;
    std::atomic<std::uint32_t> rings;
  };
  Words* words_;
};

/// For a line "value" of its stdin it hands the value over and answers with the clock's count just before.
int RunHandOver(const std::string& file);
/// Sleeps on the word of `file`, again and again, until its stdin ends.
int RunSleeper(const std::string& file);
/// Listens to `kMemoryKey` of the store until its stdin ends.
int RunListener(const std::string& store);
/// Writes `kDiskKey` durably, again and again, until its stdin ends.
int RunDurableWriter(const std::string& store);

}  // namespace bench
