#include "changes.h"

#include <algorithm>
#include <utility>

namespace vconf {

using layout::ChangeRecord;
using layout::KindOf;
using layout::SizeOf;

namespace {

// The record in the ring for the change `number`. Even if `records` in the header is damaged, it is within the ring,
// and `kFirstRecords` successive numbers have different records.
ChangeRecord& RecordOf(const Region& region, std::uint64_t number) {
  const std::uint32_t mask =
      (region.header().records.load(std::memory_order_acquire) - 1) | (layout::kFirstRecords - 1);
  return region.header().ring[number & mask & (layout::kMaxRecords - 1)];
}

// Whether a record contains the text of a value of this form.
bool IsKept(std::uint32_t form) { return KindOf(form) == layout::kText && SizeOf(form) <= layout::kMaxChangeText; }

}  // namespace

Publisher::Publisher(Region& region)
    : region_(region), table_(region), lock_(std::in_place, region.header().lock, "publishing") {
  status_ = lock_->status(region.file());
  if (status_.ok() && !region.IsWhole()) {
    status_ = Status(Code::kRemoved, region.file() + ": was replaced; repeat the call");
  } else if (status_.ok() && lock_->inherited()) {
    Finish();
  }
}

Publisher::~Publisher() {
  lock_.reset();
  if (wakes_) {
    region_.WakeAll();
  }
}

void Publisher::Publish(const std::vector<std::uint32_t>& keys) {
  layout::Header& header = region_.header();
  const bool faults = std::any_of(keys.begin(), keys.end(), [this](std::uint32_t key) { return table_.IsFault(key); });
  if (faults) {
    header.no_faults = 0;  // before the first fault can be seen
  }
  for (std::size_t i = 0; i < keys.size();) {
    std::uint64_t number = header.last.load(std::memory_order_relaxed);
    for (const std::size_t end = std::min<std::size_t>(keys.size(), i + layout::kFirstRecords); i < end; ++i) {
      Record(++number, keys[i]);
    }
    header.publishing.store(number, std::memory_order_release);
    Finish();
  }
  if (faults) {
    CountFaults();
  }
}

void Publisher::CountFaults() {
  std::vector<Entry> left;
  static_cast<void>(table_.List(kFaultPrefix, &left));
  region_.header().no_faults = left.empty() ? 1 : 0;
}

void Publisher::Record(std::uint64_t number, std::uint32_t key) {
  layout::Header& header = region_.header();
  const layout::Key* const at = table_.KeyAt(key);
  if (at == nullptr) {
    return;  // was damaged meanwhile
  }
  // The ring is doubled only at such a number: then the records that it has keep their places.
  const std::uint32_t records = header.records.load(std::memory_order_relaxed);
  if ((number & (2 * std::uint64_t{records} - 1)) == records && region_.GrowRing(2 * records)) {
    header.records.store(2 * records, std::memory_order_release);
  }
  ChangeRecord& record = RecordOf(region_, number);
  record.number.store(0, std::memory_order_release);
  const std::uint32_t version = at->version.load(std::memory_order_relaxed) + 1;
  const layout::Slot& slot = at->slots[version % 2];
  const std::uint32_t form = slot.form.load(std::memory_order_relaxed);
  record.key.store(key, std::memory_order_release);
  record.version.store(version, std::memory_order_release);
  record.form.store(form, std::memory_order_release);
  record.content.store(slot.content.load(std::memory_order_relaxed), std::memory_order_release);
  record.check.store(slot.check.load(std::memory_order_relaxed), std::memory_order_release);
  if (IsKept(form)) {
    RawValue value;
    table_.LoadSlot(slot, &value);
    StoreBytes(record.text.data(), value.text);
  }
  record.number.store(number, std::memory_order_release);
}

// Makes the values of all recorded changes the current ones, and then counts the change. If this process dies
// meanwhile, the next owner of the lock does the rest.
void Publisher::Finish() {
  layout::Header& header = region_.header();
  const std::uint64_t end = header.publishing.load(std::memory_order_acquire);
  for (std::uint64_t number = header.last + 1; number <= end; ++number) {
    const ChangeRecord& record = RecordOf(region_, number);
    if (layout::Key* const key = table_.KeyAt(record.key.load(std::memory_order_relaxed));
        key != nullptr && record.number.load(std::memory_order_relaxed) == number) {
      key->version.store(record.version.load(std::memory_order_relaxed), std::memory_order_release);
    }
    header.last.store(number, std::memory_order_release);
  }
  wakes_ = true;
}

bool ReadChanges(Region& region, std::uint64_t next, std::size_t most, std::vector<Change>* changes) {
  const layout::Header& header = region.header();
  const Table table(region);
  const std::uint64_t last = header.last.load(std::memory_order_acquire);
  for (std::uint64_t number = next; number <= last && changes->size() < most; ++number) {
    const ChangeRecord& record = RecordOf(region, number);
    if (record.number.load(std::memory_order_acquire) != number) {
      return !changes->empty();
    }
    RawValue value;
    value.form = record.form.load(std::memory_order_acquire);
    value.content = record.content.load(std::memory_order_acquire);
    const std::uint32_t check = record.check.load(std::memory_order_acquire);
    Change change{.sequence = number, .path = {}, .value = std::nullopt};
    const bool named = table.PathOf(record.key.load(std::memory_order_acquire), &change.path);
    if (IsKept(value.form)) {
      LoadBytes(record.text.data(), SizeOf(value.form), &value.text);
    }
    const bool is_long = value.is_text() && !IsKept(value.form);
    // Check that the record was not overwritten, nor its key unlinked, while it was read.
    if (!named || record.number.load(std::memory_order_acquire) != number ||
        header.first_kept.load(std::memory_order_acquire) > number ||
        (!is_long && check != value.CheckOf(Table::HashOf(change.path)))) {
      return !changes->empty();
    }
    if (is_long) {
      static_cast<void>(table.Read(change.path, &change.value));
    } else {
      change.value = std::move(value).ToValue();
    }
    changes->push_back(std::move(change));
  }
  return true;
}

}  // namespace vconf
