#pragma once

#include <optional>
#include <vector>

#include "shared_lock.h"
#include "table.h"

namespace vconf {

/// A writer's turn: holds the region's lock, for the time that publishing takes, and wakes whoever waits for changes
/// when it ends. What one that died in its turn had begun to publish, the next turn publishes to its end first.
class Turn {
 public:
  explicit Turn(Region& region);
  Turn(const Turn&) = delete;
  Turn& operator=(const Turn&) = delete;
  ~Turn();

  /// How it began; after a failure nothing may be done in it.
  const Status& status() const { return status_; }

  /// Sees to it that no change can fail for want of room to remember it.
  bool Reserve();

  /// What was prepared for `keys`, with the mark `mark`, becomes their value: as one more change each, which is
  /// remembered, but for faults, of which nobody is told. All of it, also when this process dies meanwhile.
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

/// The changes from number `next` on, up to the last one or `most`. False when one of them is no longer remembered, or
/// not readable, and there are none before it. Any thread; no lock.
bool ReadChanges(Region& region, std::uint64_t next, std::size_t most, std::vector<Change>* changes);

/// What the internal keys begin with that hold faults; nobody is told of them.
constexpr std::string_view kFaultPrefix = "!fault/";

}  // namespace vconf
