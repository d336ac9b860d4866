#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "heap.h"
#include "region.h"
#include "vconf_control.h"

namespace vconf {

/// The prefix of the keys that are not kept on disk.
constexpr std::string_view kMemoryPrefix = "memory/";

/// The keys of a region and their values.
///
/// Each key has two slots for a value. A writer fills the unused one and then increments the version. So a reader takes
/// no lock and does not wait: it retries only if the version has changed meanwhile, and gets the previous value if a
/// writer was stopped or killed half-way. Each value has a checksum over itself and its path, so corrupt data is a
/// failure and never a value.
class Table {
 public:
  explicit Table(Region& region) : region_(region), heap_(region) {}

  // ---- for readers. Any thread, no lock. Failures are `kMissing` and `kDamaged`.

  Code Read(std::string_view path, std::optional<Value>* value) const;

  /// The same for an int or a bool; `kWrongType` if the key holds another type.
  Code ReadNumber(std::string_view path, layout::Kind kind, int* number) const;

  /// Appends the keys that begin with `prefix`, in byte order. Each value is one that its key had during the call; it
  /// is not a snapshot if there are concurrent writes.
  Code List(std::string_view prefix, std::vector<Entry>* entries) const;

  /// The path of the key at offset `key`; false if there is none.
  bool PathOf(std::uint32_t key, std::string* path) const;

  static std::uint32_t HashOf(std::string_view path);

  /// The value of `slot.check` for this content.
  static std::uint32_t CheckOf(std::uint32_t hash, std::uint32_t form, std::uint32_t content, std::string_view text);

  // ---- for writers, with the region's lock held

  /// Prepares `value`, or the removal of the key if it is null, so that `Flip` cannot fail; readers do not see it yet.
  /// Only one value of a key can be prepared; a second `Prepare` drops the first. A path in memory is marked
  /// `kPreparedInMemory`, any other one `kPreparedForDisk`.
  Code Prepare(std::string_view path, const Value* value, std::uint32_t* key);

  /// Makes the prepared value the current one.
  void Flip(std::uint32_t key);

  /// The slot that `Prepare` filled.
  const layout::Slot* Prepared(std::uint32_t key) const;

  /// Drops the prepared values of these keys.
  void Drop(const std::vector<std::uint32_t>& keys);

  /// The keys with this mark.
  std::vector<std::uint32_t> KeysPrepared(layout::Prepared mark);

  Heap& heap() { return heap_; }

 private:
  struct Held;
  layout::Key* KeyAt(std::uint32_t offset) const;
  layout::Key* Find(std::string_view path, std::uint32_t hash, std::uint32_t* offset) const;
  template <typename Visit>
  bool ReadBucket(std::uint32_t bucket, Visit&& visit) const;
  bool IsSound(std::uint32_t hash) const;
  bool ReadSlot(const layout::Key& key, const layout::Slot& slot, Held* held) const;
  Code Look(const layout::Key& key, Held* held) const;
  template <typename Found>
  Code Seek(std::string_view path, Held* held, Found&& found) const;
  bool FillSlot(layout::Slot& slot, std::uint32_t hash, const Value* value);
  void EmptySlot(layout::Slot& slot);
  std::uint32_t Take(std::uint32_t size);
  void Sweep();
  void ForEachKey(const std::function<bool(layout::Word& link, layout::Key& key)>& visit);

  Region& region_;
  Heap heap_;
};

}  // namespace vconf
