#pragma once

#include <optional>
#include <vector>

#include "shared_lock.h"
#include "table.h"

namespace vconf {

/// Publishes changes: makes prepared values the current ones, and keeps a record of each in the ring of the region.
///
/// Holds the region's lock for its scope, and wakes waiting listeners when it releases the lock. If the previous owner
/// of the lock died while publishing, the constructor first completes that.
class Publisher {
 public:
  explicit Publisher(Region& region);
  Publisher(const Publisher&) = delete;
  Publisher& operator=(const Publisher&) = delete;
  ~Publisher();

  /// Whether the lock was acquired; after a failure nothing else may be called.
  const Status& status() const { return status_; }

  /// Publishes what `Table::Prepare` prepared for `keys`, one change for each key; cannot fail. Of each
  /// `layout::kFirstRecords` keys, all are published, even if this process dies meanwhile.
  void Publish(const std::vector<std::uint32_t>& keys);

 private:
  void Record(std::uint64_t number, std::uint32_t key);
  void Finish();
  void CountFaults();

  Region& region_;
  Table table_;
  std::optional<SharedLock> lock_;
  Status status_;
  bool wakes_ = false;
};

/// Fills the empty `changes` with at most `most` kept changes from number `next` on, those of faults included. False if
/// number `next` is no longer kept or cannot be read. Any thread; no lock.
bool ReadChanges(Region& region, std::uint64_t next, std::size_t most, std::vector<Change>* changes);

}  // namespace vconf
