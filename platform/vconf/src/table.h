#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "region.h"
#include "vconf_control.h"

namespace vconf {

/// The prefix of the keys that are not kept on disk.
constexpr std::string_view kMemoryPrefix = "memory/";

/// The prefix of the internal keys that hold faults; their changes are not delivered.
constexpr std::string_view kFaultPrefix = "!fault/";

/// A value as it is in a slot or a record; `text` is used only for a text.
struct RawValue {
  std::uint32_t form = 0;
  std::uint32_t content = 0;
  std::string text;

  bool is_text() const { return layout::KindOf(form) == layout::kText; }
  std::optional<Value> ToValue() &&;

  /// The checksum of this value for a path with this hash.
  std::uint32_t CheckOf(std::uint32_t hash) const;
};

/// Bytes in words that other processes may write meanwhile. `bytes` are padded with zeros.
void StoreBytes(layout::Word* words, std::string_view bytes);
void LoadBytes(const layout::Word* words, std::uint32_t size, std::string* bytes);

/// The keys of a region and their values.
///
/// Each key has two slots for a value. A writer fills the unused one and then increments the version. So a reader takes
/// no lock and does not wait: it retries only if the version has changed meanwhile, and gets the previous value if a
/// writer was stopped or killed half-way. Each value has a checksum over itself and its path, so corrupt data is a
/// failure and never a value.
class Table {
 public:
  explicit Table(Region& region) : region_(region) {}

  // ---- for readers. Any thread, no lock. Failures are `kMissing` and `kDamaged`.

  Code Read(std::string_view path, std::optional<Value>* value) const;

  /// The same for an int or a bool; `kWrongType` if the key holds another type.
  Code ReadNumber(std::string_view path, layout::Kind kind, int* number) const;

  /// Appends the keys that begin with `prefix`, in byte order. Each value is one that its key had during the call; it
  /// is not a snapshot if there are concurrent writes.
  Code List(std::string_view prefix, std::vector<Entry>* entries) const;

  /// The key at `offset`; null if there cannot be one.
  layout::Key* KeyAt(std::uint32_t offset) const;

  /// The path of the key at `offset`; false if there is none.
  bool PathOf(std::uint32_t offset, std::string* path) const;

  bool IsFault(std::uint32_t offset) const;

  static std::uint32_t HashOf(std::string_view path);

  /// Reads what is in `slot`, and returns the checksum that belongs to it. A text of an impossible size stays empty.
  std::uint32_t LoadSlot(const layout::Slot& slot, RawValue* value) const;

  // ---- for writers, with the region's lock held

  /// Prepares `value`, or the removal of the key if it is null, in the unused slot of the key, where readers do not see
  /// it. A second call for the same key replaces the first. False if there is no space.
  bool Prepare(std::string_view path, const Value* value, std::uint32_t* key);

  /// Frees all blocks that are not in use, also those of removed keys and of unused slots, with what is prepared in
  /// them; if `spares_disk`, not those of keys on disk. The kept changes are dropped: a subscriber that has not read
  /// them gets one notification for each key instead.
  void Sweep(bool spares_disk);

 private:
  layout::Key* Find(std::string_view path, std::uint32_t hash, std::uint32_t* offset) const;
  template <typename Visit>
  bool ReadBucket(std::uint32_t bucket, Visit&& visit) const;
  Code ReadCurrent(const layout::Key& key, RawValue* held) const;
  Code FindValue(std::string_view path, RawValue* held) const;
  bool FillSlot(layout::Slot& slot, std::uint32_t hash, const Value* value);
  std::uint32_t Allocate(std::uint32_t size);
  void FreeAllBut(std::vector<std::pair<std::uint32_t, std::uint32_t>> used);

  Region& region_;
};

inline std::uint32_t RawValue::CheckOf(std::uint32_t hash) const {
  const auto mix = [](std::uint32_t sum, std::uint32_t word) {
    sum = (sum ^ word) * 0x9E3779B1U;
    return sum ^ (sum >> 15U);
  };
  return mix(mix(~hash, form), is_text() ? Table::HashOf(text) : content);
}

}  // namespace vconf
