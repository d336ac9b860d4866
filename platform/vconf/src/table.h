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

/// What the keys begin with that are not kept on disk.
constexpr std::string_view kMemoryPrefix = "memory/";

/// The keys of a region and their values.
///
/// Each key has two slots for a value. A writer fills the one that is not in use and then counts the version up. So a
/// reader takes no lock and waits for nobody: it reads again only when the version has changed meanwhile, and finds the
/// last value when a writer stopped or died half-way. Each value has a check over itself and its path, so noise in the
/// file is a failure and never a value.
class Table {
 public:
  explicit Table(Region& region) : region_(region), heap_(region) {}

  // ---- for readers. Any thread, no lock. `kMissing` and `kDamaged` are the failures.

  Code Read(std::string_view path, std::optional<Value>* value) const;

  /// The same for an int or a bool; `kWrongType` when the key holds something else.
  Code ReadNumber(std::string_view path, layout::Kind kind, int* number) const;

  /// Appends what begins with `prefix`, in the order of the bytes. Each value is one that its key had during the call;
  /// as long as nobody writes, all are of one moment.
  Code List(std::string_view prefix, std::vector<Entry>* entries) const;

  /// The path of the key at `key`; false when there is none.
  bool PathOf(std::uint32_t key, std::string* path) const;

  static std::uint32_t HashOf(std::string_view path);

  /// What `slot.check` is when the slot holds this.
  static std::uint32_t CheckOf(std::uint32_t hash, std::uint32_t form, std::uint32_t content, std::string_view text);

  // ---- for writers, with the region's lock held

  /// Gets everything ready for `value`, or for removing the key when it is null, so that `Flip` cannot fail; nobody
  /// sees it yet. For one key, only one writer may be between the two; a second `Prepare` takes back the first. A
  /// path in memory is marked `kPreparedInMemory`, another one `kPreparedForDisk`.
  Code Prepare(std::string_view path, const Value* value, std::uint32_t* key);

  /// What `Prepare` got ready becomes the value.
  void Flip(std::uint32_t key);

  /// The slot that `Prepare` filled.
  const layout::Slot* Prepared(std::uint32_t key) const;

  /// Takes back what was prepared for these.
  void Drop(const std::vector<std::uint32_t>& keys);

  /// The keys that have this mark.
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
