#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

#include <lmdb.h>

#include "harness.h"

/// Floors, which the product is compared with: minimal implementations of the same steps. rows_*.cpp measure both.
namespace bench {

/// A second thread that spins until `Ask`, does `work` and hands back. Only one thread may call `Ask`.
class SpinPartner {
 public:
  explicit SpinPartner(std::function<void()> work);
  SpinPartner(const SpinPartner&) = delete;
  SpinPartner& operator=(const SpinPartner&) = delete;
  ~SpinPartner();

  /// Hands over, and spins until the partner hands back.
  void Ask() {
    turn_.store(kPartner, std::memory_order_release);
    while (turn_.load(std::memory_order_acquire) != kAsker) {
    }
  }

 private:
  enum Turn : std::uint32_t { kAsker, kPartner, kEnd };
  std::atomic<Turn> turn_{kAsker};
  std::thread thread_;
};

/// A second thread that waits on a condition variable, and hands back through another one. Only one thread may call
/// `Ask`.
class CondvarPartner {
 public:
  CondvarPartner();
  CondvarPartner(const CondvarPartner&) = delete;
  CondvarPartner& operator=(const CondvarPartner&) = delete;
  ~CondvarPartner();

  /// Hands over and waits for the hand-over back. Returns the time at which the other thread woke.
  Clock::time_point Ask();

 private:
  std::mutex mutex_;
  std::condition_variable partner_;
  std::condition_variable asker_;
  bool partners_turn_ = false;
  bool end_ = false;
  Clock::time_point woke_;
  std::thread thread_;
};

/// An LMDB environment with one tree of text to int, and as few calls as possible for each access. For one thread.
class BareStore {
 public:
  /// In the existing folder `directory`, with `key` and `keys` more keys. `flags` as `mdb_env_open` takes them.
  BareStore(const std::string& directory, unsigned flags, std::string key, int keys = 30);
  BareStore(const BareStore&) = delete;
  BareStore& operator=(const BareStore&) = delete;
  ~BareStore();

  int Read() { return Read(key_); }
  int Read(std::string& key);
  void Write(int value);

 private:
  std::string key_;
  MDB_env* env_ = nullptr;
  MDB_dbi tree_ = 0;
  MDB_txn* reader_ = nullptr;
};

}  // namespace bench
