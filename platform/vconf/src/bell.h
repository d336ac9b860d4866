#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace vconf {

/// A few words of memory that all processes with one store share: the bell that wakes them after a change, and hints
/// that spare them a look into the store. Nothing lasting is kept here: the file may vanish, be cut short or hold
/// noise. What is lost then is time, and some sequence numbers may be passed over. Any thread.
class Bell {
 public:
  /// Maps `file`, which is made when it is missing. Where it cannot be had, a bell of this process alone comes instead.
  static std::unique_ptr<Bell> Open(const std::string& file);

  Bell(const Bell&) = delete;
  Bell& operator=(const Bell&) = delete;
  ~Bell();

  /// Tells every process that the store has come to `sequence`.
  void Ring(std::uint64_t sequence);

  /// How often it rang; the value to wait on.
  std::uint32_t Rings() const { return words_->rings.load(std::memory_order_acquire); }

  /// Returns when `Rings()` is no longer `seen`, or at the latest after `timeout`; it may also return early.
  void Wait(std::uint32_t seen, std::chrono::nanoseconds timeout);

  /// The highest sequence ever rung, as far as the bell knows.
  std::uint64_t LastSequence() const { return words_->sequence.load(std::memory_order_acquire); }

  /// True when the store is known to hold no fault; false costs a look into it.
  bool KnownFaultless() const { return IsMark(words_->faultless) && IsMark(words_->shared); }
  void SetKnownFaultless(bool faultless);

 private:
  struct Words {
    std::atomic<std::uint32_t> rings;
    // Set by whoever goes to sleep, taken down by whoever rings: a sleeper that was killed costs one needless wake.
    std::atomic<std::uint32_t> asleep;
    // These two say yes with a mark that zeros and noise do not hold. Memory that this process has to itself, also in
    // place of a file that was cut short, is not marked as shared.
    std::atomic<std::uint32_t> faultless;
    std::atomic<std::uint32_t> shared;
    std::atomic<std::uint64_t> sequence;
  };
  static_assert(std::atomic<std::uint64_t>::is_always_lock_free);

  static constexpr std::uint32_t kMark = 0x6c6c6562;
  static bool IsMark(const std::atomic<std::uint32_t>& word) { return word.load(std::memory_order_acquire) == kMark; }

  Bell(Words* words, bool writable) : words_(words), writable_(writable) {}

  Words* const words_;
  const bool writable_;
};

}  // namespace vconf
