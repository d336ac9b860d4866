#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bell.h"
#include "cause.h"
#include "environment.h"
#include "vconf_control.h"

namespace vconf {

/// The keys, their journal and the faults, in two environments: one on disk, one on a memory file system.
///
/// All changes stand in one order. Each has a sequence number, one more than the one before, given under the write lock
/// of the disk environment, which a change in memory takes too. The journal entry of a change lies in the environment
/// of its key and is committed with it; a reader merges the two journals by number. Any thread.
class Store {
 public:
  /// A directory that is missing or empty becomes a store that holds `initial`, unless that is null.
  static Result<std::unique_ptr<Store>> Open(const std::string& directory, const std::vector<Entry>* initial);

  Cause Get(std::string_view path, std::optional<Value>* value);
  Cause Set(std::string_view path, const Value& value);
  Cause Remove(std::string_view path);
  Cause Reset(const std::vector<Entry>& entries);  // which pass `CheckEntries`
  Cause List(std::string_view prefix, std::vector<Entry>* entries);

  /// Makes what was written to `path` durable; has nothing to do for `memory/`.
  Cause Sync(std::string_view path);

  Cause SetFault(const Fault& fault);
  Cause ClearFault(std::string_view call, std::string_view path);
  Cause ClearFaults();
  Cause ListFaults(std::vector<Fault>* faults);
  std::optional<int> TakeFault(std::string_view call, std::string_view path);

  /// The number of the last change.
  Cause LastSequence(std::uint64_t* sequence);

  /// Appends the changes from number `next` on, up to the last one or `kMaxChanges`. `fell_behind` is set, and nothing
  /// appended, when the journal no longer holds that number.
  Cause ReadChanges(std::uint64_t next, std::vector<Change>* changes, bool* fell_behind);
  static constexpr std::size_t kMaxChanges = 256;

  Bell& bell() { return *bell_; }

  /// The failure of a call for `path`, with that or the file that it is about.
  Status Explain(Cause cause, std::string_view path) const;

 private:
  class Batch;

  explicit Store(std::string directory) : directory_(std::move(directory)) {}

  Status OpenDisk(const std::vector<Entry>* initial);
  Cause MakeStore(const std::vector<Entry>& initial);
  Cause OpenMemory();
  Cause CheckFormat(Environment& environment, std::string* id);
  Environment* HomeOf(std::string_view path) const;
  Cause CommitFaults(WriteTransaction& write);
  void NoteFaultless();
  Cause NoteWrite(std::string_view path, Cause status) const;

  const std::string directory_;
  std::string memory_directory_;
  std::string id_;
  std::unique_ptr<Environment> disk_;
  std::unique_ptr<Environment> memory_;  // null where the memory file system gave none
  std::unique_ptr<Bell> bell_;

  // Whoever is told of a change in this process also sees what its writer did before. The database orders the two in
  // ways that the language does not know of; this says it again.
  std::atomic<unsigned> commits_{0};
};

/// Whether the store serves `path` at all; `set/` is for the control side alone.
bool IsPath(std::string_view path, bool control);

/// Whether all of `entries` could be written; else what stands against the first one that could not.
Status CheckEntries(const std::vector<Entry>& entries);

}  // namespace vconf
