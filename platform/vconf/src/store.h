#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "bell.h"
#include "environment.h"
#include "status.h"
#include "vconf_control.h"

namespace vconf {

/// The keys, their journal and the faults, in two environments: one on disk, one on a memory file system.
///
/// All changes stand in one order. Each has a sequence number, one more than the one before, given under the write lock
/// of the disk environment, which a change in memory takes too. The journal entry of a change lies in the environment
/// of its key and is committed with it; a reader merges the two journals by number. Any thread.
class Store {
 public:
  /// On failure the result is null and `error` names the file and the cause.
  static std::unique_ptr<Store> Open(const std::string& directory, const std::vector<Entry>& initial,
                                     std::string* error);

  Status Get(std::string_view path, std::optional<Value>* value);
  Status Set(std::string_view path, const Value& value);
  Status Remove(std::string_view path);
  Status Reset(const std::vector<Entry>& entries);  // which pass `CheckEntries`
  Status List(std::string_view prefix, std::vector<Entry>* entries);

  /// Makes what was written to `path` durable; has nothing to do for `memory/`.
  Status Sync(std::string_view path);

  Status SetFault(const Fault& fault);
  Status ClearFault(std::string_view call, std::string_view path);
  Status ClearFaults();
  Status ListFaults(std::vector<Fault>* faults);
  std::optional<int> TakeFault(std::string_view call, std::string_view path);

  /// The number of the last change.
  Status LastSequence(std::uint64_t* sequence);

  /// Appends the changes from number `next` on, up to the last one or `kMaxChanges`. `fell_behind` is set, and nothing
  /// appended, when the journal no longer holds that number.
  Status ReadChanges(std::uint64_t next, std::vector<Change>* changes, bool* fell_behind);
  static constexpr std::size_t kMaxChanges = 256;

  Bell& bell() { return *bell_; }

  /// The failure in words, with the file or the path that it is about.
  std::string Explain(Status status, std::string_view path) const;

 private:
  class Batch;

  explicit Store(std::string directory) : directory_(std::move(directory)) {}

  Status OpenDisk(const std::vector<Entry>& initial, std::string* error);
  Status MakeStore(const std::vector<Entry>& initial);
  Status OpenMemory();
  Status CheckFormat(Environment& environment, std::string* id);
  Environment* HomeOf(std::string_view path) const;
  Status CommitFaults(WriteTransaction& write);
  void NoteFaultless();
  Status NoteWrite(std::string_view path, Status status) const;

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
Error CheckEntries(const std::vector<Entry>& entries);

}  // namespace vconf
