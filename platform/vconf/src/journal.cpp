#include "journal.h"

#include <algorithm>
#include <utility>

namespace vconf {

using layout::ChangeRecord;
using layout::KindOf;
using layout::SizeOf;
using layout::Word;

namespace {

// The number of a change that is not recorded, such as that of a fault.
constexpr std::uint64_t kUntold = 0;

ChangeRecord* RecordIn(const Region& region, std::uint64_t number) {
  const auto chunk = static_cast<std::uint32_t>(number / layout::kChunkRecords % layout::kChunks);
  const std::uint32_t block = region.header().chunks[chunk].load(std::memory_order_acquire);
  const auto place = static_cast<std::uint32_t>(number % layout::kChunkRecords * sizeof(ChangeRecord));
  return block != 0 ? region.At<ChangeRecord>(block + place) : nullptr;
}

// Not for a replaced region: that state is final.
void SetWhole(layout::Header& header, bool with_faults) {
  std::uint32_t before = with_faults ? layout::kWhole : layout::kWholeWithFaults;
  header.state.compare_exchange_strong(before, with_faults ? layout::kWholeWithFaults : layout::kWhole);
}

}  // namespace

Turn::Turn(Region& region) : region_(region), table_(region), lock_(std::in_place, region.header().lock, "publishing") {
  status_ = lock_->status(region.file());
  if (!status_.ok()) {
    return;
  }
  if (!region.IsWhole()) {
    status_ = Status(Code::kRemoved, region.file() + ": was replaced");
  } else if (lock_->inherited()) {
    Finish();
  }
}

Turn::~Turn() {
  lock_.reset();
  if (wakes_) {
    region_.WakeAll();
  }
}

void Turn::Finish() {
  layout::Header& header = region_.header();
  if (auto* const key = region_.At<layout::Key>(header.pending_key.load(std::memory_order_relaxed));
      key != nullptr && key->version.load(std::memory_order_relaxed) != header.pending_version) {
    key->prepared.store(layout::kNotPrepared, std::memory_order_relaxed);
    if (header.pending_number == header.last + 1) {
      header.last.fetch_add(1, std::memory_order_release);
    }
  }
  header.pending_key = 0;
  if (const std::uint32_t mark = header.publishing; mark != layout::kNotPrepared) {
    PublishAll(table_.KeysPrepared(static_cast<layout::Prepared>(mark)), static_cast<layout::Prepared>(mark));
  }
  table_.Drop(table_.KeysPrepared(layout::kPreparedInMemory));
  std::vector<Entry> faults;
  static_cast<void>(table_.List(kFaultPrefix, &faults));
  header.faults = static_cast<std::uint32_t>(faults.size());
  SetWhole(header, !faults.empty());
  wakes_ = true;
}

bool Turn::Reserve() { return RecordFor(region_.header().last + 1) != nullptr; }

ChangeRecord* Turn::RecordFor(std::uint64_t number) {
  layout::Header& header = region_.header();
  const auto chunk = static_cast<std::uint32_t>(number / layout::kChunkRecords % layout::kChunks);
  if (header.chunks[chunk].load(std::memory_order_relaxed) == 0) {
    std::uint32_t block = table_.heap().Take(layout::kMaxBlock);
    if (block == 0) {
      // No space: drop the changes that are kept.
      header.floor = number;
      for (Word& other : header.chunks) {
        if (block == 0) {
          block = other.exchange(0);
        }
      }
    }
    for (std::uint32_t i = 0; block != 0 && i < layout::kChunkRecords; ++i) {
      if (auto* const record = region_.At<ChangeRecord>(block + i * static_cast<std::uint32_t>(sizeof(ChangeRecord)))) {
        record->number.store(0, std::memory_order_release);
      }
    }
    header.chunks[chunk].store(block, std::memory_order_release);
  }
  return RecordIn(region_, number);
}

void Turn::PublishAll(const std::vector<std::uint32_t>& keys, layout::Prepared mark) {
  std::string path;
  region_.header().publishing = keys.size() > 1 ? mark : layout::kNotPrepared;
  for (const std::uint32_t key : keys) {
    // Faults are never in memory, and this check would slow down the writes there.
    if (mark == layout::kPreparedForDisk && table_.PathOf(key, &path) && path.starts_with(kFaultPrefix)) {
      PublishFault(key);
    } else {
      Publish(key);
    }
  }
  region_.header().publishing = layout::kNotPrepared;
}

// If a process dies in here, the next owner of the lock calls `Finish`.
void Turn::Flip(std::uint32_t key, std::uint64_t number) {
  layout::Header& header = region_.header();
  header.pending_number.store(number, std::memory_order_relaxed);
  header.pending_version.store(region_.At<layout::Key>(key)->version.load(std::memory_order_relaxed),
                               std::memory_order_relaxed);
  header.pending_key.store(key, std::memory_order_release);  // written last of the three, for `Finish`
  table_.Flip(key);
  if (number != kUntold) {
    header.last.store(number, std::memory_order_release);
  }
  header.pending_key.store(0, std::memory_order_release);
}

void Turn::Publish(std::uint32_t key) {
  const std::uint64_t number = region_.header().last.load(std::memory_order_relaxed) + 1;
  const layout::Slot* const slot = table_.Prepared(key);
  if (slot == nullptr) {
    return;
  }
  if (ChangeRecord* const record = RecordFor(number)) {
    const std::uint32_t form = slot->form.load(std::memory_order_relaxed);
    const std::uint32_t content = slot->content.load(std::memory_order_relaxed);
    record->number.store(0, std::memory_order_release);
    record->key.store(key, std::memory_order_release);
    record->value.form.store(form, std::memory_order_release);
    record->value.content.store(content, std::memory_order_release);
    record->value.check.store(slot->check.load(std::memory_order_relaxed), std::memory_order_release);
    const std::uint32_t size = KindOf(form) == layout::kText ? SizeOf(form) : 0;
    if (const Word* const text = region_.At<Word>(content, size); text != nullptr && size <= layout::kMaxChangeText) {
      for (std::uint32_t i = 0; i < (size + 3) / 4; ++i) {
        record->text[i].store(text[i].load(std::memory_order_relaxed), std::memory_order_release);
      }
    }
    record->number.store(number, std::memory_order_release);
  }
  Flip(key, number);
  wakes_ = true;
}

void Turn::PublishFault(std::uint32_t key) {
  layout::Header& header = region_.header();
  const layout::Slot* const slot = table_.Prepared(key);
  if (slot == nullptr) {
    return;
  }
  const auto there = [](const layout::Slot& each) { return KindOf(each.form.load(std::memory_order_relaxed)) != 0; };
  const auto* const at = region_.At<layout::Key>(key);
  const bool was = there(at->slots[at->version.load(std::memory_order_relaxed) % 2]);
  const bool is = there(*slot);
  // The state is set before the first fault is published, and cleared after the last is removed.
  const std::uint32_t faults = header.faults + (is ? 1U : 0U) - (was ? 1U : 0U);
  if (faults > 0) {
    SetWhole(header, true);
  }
  Flip(key, kUntold);
  header.faults = faults;
  if (faults == 0) {
    SetWhole(header, false);
  }
}

bool ReadChanges(Region& region, std::uint64_t next, std::size_t most, std::vector<Change>* changes) {
  const layout::Header& header = region.header();
  const Table table(region);
  const std::uint64_t last = header.last.load(std::memory_order_acquire);
  for (std::uint64_t number = next; number <= last && changes->size() < most; ++number) {
    const ChangeRecord* const record = last - number < layout::kRememberedChanges ? RecordIn(region, number) : nullptr;
    if (record == nullptr || record->number.load(std::memory_order_acquire) != number) {
      return !changes->empty();
    }
    const std::uint32_t form = record->value.form.load(std::memory_order_acquire);
    const std::uint32_t content = record->value.content.load(std::memory_order_acquire);
    const std::uint32_t check = record->value.check.load(std::memory_order_acquire);
    Change change{.sequence = number, .path = {}, .value = std::nullopt};
    const bool named = table.PathOf(record->key.load(std::memory_order_acquire), &change.path);
    std::string text;
    const bool is_text = KindOf(form) == layout::kText;
    const bool is_long = is_text && SizeOf(form) > layout::kMaxChangeText;
    if (is_text && !is_long) {
      for (std::uint32_t i = 0; i < (SizeOf(form) + 3) / 4; ++i) {
        const std::uint32_t word = record->text[i].load(std::memory_order_acquire);
        text.append(reinterpret_cast<const char*>(&word), std::min(4U, SizeOf(form) - 4 * i));
      }
    }
    // Check that it was not overwritten, nor its key unlinked, while it was read.
    if (!named || record->number.load(std::memory_order_acquire) != number ||
        header.floor.load(std::memory_order_acquire) > number ||
        (!is_long && check != Table::CheckOf(Table::HashOf(change.path), form, content, text))) {
      return !changes->empty();
    }
    if (is_long) {
      static_cast<void>(table.Read(change.path, &change.value));
    } else if (is_text) {
      change.value = std::move(text);
    } else if (KindOf(form) == layout::kInt) {
      change.value = static_cast<int>(content);
    } else if (KindOf(form) == layout::kBool) {
      change.value = content != 0;
    }
    changes->push_back(std::move(change));
  }
  return true;
}

}  // namespace vconf
