#pragma once

#include <optional>
#include <vector>

#include "shared_lock.h"
#include "table.h"

namespace vconf {

/// A writer's critical section: holds the region's lock while publishing, and wakes waiting listeners when it is
/// released. If the previous owner died while publishing, the constructor first completes that.
class Turn {
 public:
  explicit Turn(Region& region);
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn();

  /// Whether the lock was acquired; after a failure nothing else may be called.
  const Status& status() const { return status_; }

  /// Reserves the space for the record of a change, so that publishing cannot fail. False if there is none.
  bool Reserve();

  /// Publishes what was prepared with `mark` for `keys`, one recorded change for each key; changes of faults are not
  /// recorded. All are published, even if this process dies meanwhile.
  void PublishAll(const std::vector<std::uint32_t>& keys, layout::Prepared mark);

 private:
  layout::ChangeRecord* RecordFor(std::uint64_t number);
  void Publish(std::uint32_t key);
  void PublishFault(std::uint32_t key);
  void Flip(std::uint32_t key, std::uint64_t number);
  void Finish();

  Region& region_;
  Table table_;
  std::optional<SharedLock> lock_;
  Status status_;
  bool wakes_ = false;
};

/// Reads at most `most` changes from number `next` on. False if the first of them is no longer kept or cannot be read.
/// Any thread; no lock.
bool ReadChanges(Region& region, std::uint64_t next, std::size_t most, std::vector<Change>* changes);

/// The prefix of the internal keys that hold faults; their changes are not delivered.
constexpr std::string_view kFaultPrefix = "!fault/";

}  // namespace vconf
