#include "table.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <utility>

namespace vconf {

using layout::Block;
using layout::Key;
using layout::Kind;
using layout::KindOf;
using layout::SizeOf;
using layout::Slot;
using layout::Word;

namespace {

// No region has room for so many keys, so a longer list is damaged.
constexpr std::uint32_t kMaxKeys = layout::kMaxSize / sizeof(Key);

constexpr std::uint32_t WordsOf(std::uint32_t bytes) { return (bytes + 3) / 4; }

// The word at `at`, padded with zeros. A copy of a fixed size is one instruction, so the padding is shifted in.
template <typename T = std::uint32_t>
T WordAt(std::string_view bytes, std::size_t at) {
  static_assert(std::endian::native == std::endian::little);
  T word = 0;
  if (at + sizeof word <= bytes.size()) {
    std::memcpy(&word, bytes.data() + at, sizeof word);
  } else if (bytes.size() >= sizeof word) {
    std::memcpy(&word, bytes.data() + bytes.size() - sizeof word, sizeof word);
    word >>= 8 * (at + sizeof word - bytes.size());
  } else {
    std::memcpy(&word, bytes.data() + at, bytes.size() - at);
  }
  return word;
}

Word* PathWords(Key& key) { return reinterpret_cast<Word*>(&key + 1); }

// All sizes of blocks are multiples of this, so the rest of a divided free block can hold a `Block`.
constexpr std::uint32_t kUnit = sizeof(Block);

std::uint32_t SizeOfKey(std::uint32_t path_size) {
  return (static_cast<std::uint32_t>(sizeof(Key)) + path_size + kUnit - 1) / kUnit * kUnit;
}
std::uint32_t SizeOfText(std::uint32_t size) {
  return (static_cast<std::uint32_t>(sizeof(Word)) + size + kUnit - 1) / kUnit * kUnit;
}

}  // namespace

void StoreBytes(Word* words, std::string_view bytes) {
  for (std::uint32_t i = 0; i < WordsOf(static_cast<std::uint32_t>(bytes.size())); ++i) {
    words[i].store(WordAt(bytes, std::size_t{4} * i), std::memory_order_release);
  }
}

void LoadBytes(const Word* words, std::uint32_t size, std::string* bytes) {
  bytes->resize(size);
  for (std::uint32_t i = 0; i < WordsOf(size); ++i) {
    const std::uint32_t word = words[i].load(std::memory_order_acquire);
    std::memcpy(bytes->data() + std::size_t{4} * i, &word, std::min(4U, size - 4 * i));
  }
}

std::optional<Value> RawValue::ToValue() && {
  switch (KindOf(form)) {
    case layout::kInt:
      return static_cast<int>(content);
    case layout::kBool:
      return content != 0;
    case layout::kText:
      return std::move(text);
    default:
      return std::nullopt;
  }
}

std::uint32_t Table::HashOf(std::string_view path) {
  std::uint64_t hash = path.size();
  for (std::size_t at = 0; at < path.size(); at += 8) {
    hash = (hash ^ WordAt<std::uint64_t>(path, at)) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32U;
  }
  return static_cast<std::uint32_t>(hash);
}

// ---- readers

Key* Table::KeyAt(std::uint32_t offset) const {
  auto* const key = region_.At<Key>(offset);
  if (key == nullptr) {
    return nullptr;
  }
  const std::uint32_t size = key->path_size.load(std::memory_order_acquire);
  return size <= layout::kMaxName ? region_.At<Key>(offset, SizeOfKey(size)) : nullptr;
}

Key* Table::Find(std::string_view path, std::uint32_t hash, std::uint32_t* offset) const {
  const auto size = static_cast<std::uint32_t>(path.size());
  std::uint32_t at = region_.header().buckets[hash % layout::kBuckets].load(std::memory_order_acquire);
  for (std::uint32_t steps = 0; steps < kMaxKeys; ++steps) {
    Key* const key = region_.At<Key>(at);
    const std::uint32_t found = key != nullptr ? key->path_size.load(std::memory_order_acquire) : UINT32_MAX;
    if (found > layout::kMaxName) {
      break;  // damaged: `Sweep` stops here, too, and would free the keys behind it
    }
    if (found == size && key->hash.load(std::memory_order_acquire) == hash &&
        region_.At<Key>(at, SizeOfKey(size)) != nullptr) {
      const Word* const words = PathWords(*key);
      std::uint32_t i = 0;
      while (i < size && words[i / 4].load(std::memory_order_acquire) == WordAt(path, i)) {
        i += 4;
      }
      if (i >= size) {
        *offset = at;
        return key;
      }
    }
    at = key->next.load(std::memory_order_acquire);
  }
  return nullptr;
}

// Calls `visit` with each key of a bucket, until it returns false. False if the bucket cannot be read to its end.
template <typename Visit>
bool Table::ReadBucket(std::uint32_t bucket, Visit&& visit) const {
  std::uint32_t at = region_.header().buckets[bucket].load(std::memory_order_acquire);
  std::string path;
  for (std::uint32_t steps = 0; at != layout::kEndOfList; ++steps) {
    const Key* const key = KeyAt(at);
    if (key == nullptr || steps >= kMaxKeys || !PathOf(at, &path) || HashOf(path) % layout::kBuckets != bucket ||
        !visit(*key, path)) {
      return false;
    }
    at = key->next.load(std::memory_order_acquire);
  }
  return true;
}

std::uint32_t Table::LoadSlot(const Slot& slot, RawValue* value) const {
  value->form = slot.form.load(std::memory_order_acquire);
  value->content = slot.content.load(std::memory_order_acquire);
  const std::uint32_t check = slot.check.load(std::memory_order_acquire);
  if (value->is_text()) {
    const std::uint32_t size = SizeOf(value->form);
    const auto* const block = region_.At<Block>(slot.block.load(std::memory_order_acquire), SizeOfText(size));
    value->text.clear();
    if (size <= layout::kMaxText && block != nullptr) {
      LoadBytes(&block->next, size, &value->text);
    }
  }
  return check;
}

Code Table::ReadCurrent(const Key& key, RawValue* held) const {
  while (true) {
    const std::uint32_t version = key.version.load(std::memory_order_acquire);
    const std::uint32_t check = LoadSlot(key.slots[version % 2], held);
    // A wrong checksum is damage, unless the value was just overwritten.
    const bool sound = check == held->CheckOf(key.hash.load(std::memory_order_relaxed));
    if (key.version.load(std::memory_order_acquire) == version) {
      return !sound ? Code::kDamaged : KindOf(held->form) == layout::kNone ? Code::kMissing : Code::kOk;
    }
  }
}

// A key that is unlinked meanwhile may hide the keys after it, and its block may be reused for another key.
inline Code Table::FindValue(std::string_view path, RawValue* held) const {
  const std::uint32_t hash = HashOf(path);
  const Word& unlinks = region_.header().unlinks;
  while (true) {
    const std::uint32_t before = unlinks.load(std::memory_order_acquire);
    std::uint32_t offset = 0;
    const Key* const key = Find(path, hash, &offset);
    // A key counts as missing only if its bucket can be read to the end.
    const bool sound =
        key != nullptr || ReadBucket(hash % layout::kBuckets, [](const Key&, const std::string&) { return true; });
    const Code code = key != nullptr ? ReadCurrent(*key, held) : sound ? Code::kMissing : Code::kDamaged;
    if (unlinks.load(std::memory_order_acquire) == before) {
      return code;
    }
  }
}

Code Table::Read(std::string_view path, std::optional<Value>* value) const {
  RawValue held;
  const Code code = FindValue(path, &held);
  if (code == Code::kOk) {
    *value = std::move(held).ToValue();
  }
  return code;
}

Code Table::ReadNumber(std::string_view path, Kind kind, int* number) const {
  RawValue held;
  const Code code = FindValue(path, &held);
  if (code == Code::kOk && KindOf(held.form) == kind) {
    *number = static_cast<int>(held.content);
  }
  return code == Code::kOk && KindOf(held.form) != kind ? Code::kWrongType : code;
}

bool Table::PathOf(std::uint32_t offset, std::string* path) const {
  Key* const at = KeyAt(offset);
  if (at != nullptr) {
    LoadBytes(PathWords(*at), at->path_size.load(std::memory_order_relaxed), path);
  }
  return at != nullptr && at->hash.load(std::memory_order_acquire) == HashOf(*path);
}

bool Table::IsFault(std::uint32_t offset) const {
  Key* const at = KeyAt(offset);
  return at != nullptr && PathWords(*at)->load(std::memory_order_relaxed) == WordAt(kFaultPrefix, 0);
}

Code Table::List(std::string_view prefix, std::vector<Entry>* entries) const {
  constexpr int kTries = 8;
  const layout::Header& header = region_.header();
  const std::size_t size_before = entries->size();
  for (int tries = 0;; ++tries) {
    const std::uint64_t last = header.last.load(std::memory_order_acquire);
    const std::uint32_t unlinks = header.unlinks.load(std::memory_order_acquire);
    entries->resize(size_before);
    bool sound = true;
    for (std::uint32_t bucket = 0; bucket < layout::kBuckets; ++bucket) {
      const bool read = ReadBucket(bucket, [&](const Key& key, const std::string& path) {
        if (RawValue held; path.starts_with(prefix)) {
          const Code code = ReadCurrent(key, &held);
          sound = sound && code != Code::kDamaged;
          if (code == Code::kOk) {
            entries->push_back({path, *std::move(held).ToValue()});
          }
        }
        return true;
      });
      sound = sound && read;
    }
    const bool whole = header.unlinks.load(std::memory_order_acquire) == unlinks;
    const bool still = whole && header.last.load(std::memory_order_acquire) == last;
    if (whole && (still || tries >= kTries)) {
      std::sort(entries->begin() + static_cast<std::ptrdiff_t>(size_before), entries->end(),
                [](const Entry& a, const Entry& b) { return a.path < b.path; });
      return sound ? Code::kOk : Code::kDamaged;
    }
  }
}

// ---- writers

std::uint32_t Table::Allocate(std::uint32_t size) {
  layout::Header& header = region_.header();
  Word* link = &header.free;
  std::uint32_t last = 0;
  // Free blocks are in the order of their offsets; any other order is damage.
  for (std::uint32_t at = link->load(std::memory_order_relaxed); at > last;
       at = link->load(std::memory_order_relaxed)) {
    auto* const block = region_.At<Block>(at);
    if (block == nullptr) {
      break;
    }
    const std::uint32_t free = block->size.load(std::memory_order_relaxed);
    if (free > size) {
      block->size.store(free - size, std::memory_order_relaxed);
      return at + free - size;
    }
    if (free == size) {
      link->store(block->next.load(std::memory_order_relaxed), std::memory_order_relaxed);
      return at;
    }
    last = at;
    link = &block->next;
  }
  const std::uint32_t end = header.blocks_end.load(std::memory_order_relaxed);
  if (end < layout::kFirstBlock || end > layout::kMaxSize - size || !region_.Grow(end + size)) {
    return 0;
  }
  header.blocks_end.store(end + size, std::memory_order_relaxed);
  return end;
}

bool Table::FillSlot(Slot& slot, std::uint32_t hash, const Value* value) {
  RawValue raw;
  if (value == nullptr) {
    raw.form = layout::FormOf(layout::kNone);
  } else if (const int* const number = std::get_if<int>(value)) {
    raw.form = layout::FormOf(layout::kInt);
    raw.content = static_cast<std::uint32_t>(*number);
  } else if (const bool* const flag = std::get_if<bool>(value)) {
    raw.form = layout::FormOf(layout::kBool);
    raw.content = *flag ? 1 : 0;
  } else {
    raw.text = std::get<std::string>(*value);
    const auto length = static_cast<std::uint32_t>(raw.text.size());
    const std::uint32_t size = SizeOfText(length);
    raw.form = layout::FormOf(layout::kText, length);
    std::uint32_t at = slot.block.load(std::memory_order_relaxed);
    auto* block = region_.At<Block>(at, size);
    if (block == nullptr || block->size.load(std::memory_order_relaxed) < size) {
      // More than is needed: a text that grows with each write would otherwise need a new block each time.
      const std::uint32_t capacity = std::min(std::bit_ceil(size), SizeOfText(layout::kMaxText));
      at = Allocate(capacity);
      block = region_.At<Block>(at, capacity);
      if (block == nullptr) {
        return false;
      }
      block->size.store(capacity, std::memory_order_release);
      slot.block.store(at, std::memory_order_release);
    }
    StoreBytes(&block->next, raw.text);
  }
  slot.content.store(raw.content, std::memory_order_release);
  slot.check.store(raw.CheckOf(hash), std::memory_order_release);
  slot.form.store(raw.form, std::memory_order_release);
  return true;
}

bool Table::Prepare(std::string_view path, const Value* value, std::uint32_t* key) {
  const std::uint32_t hash = HashOf(path);
  Key* found = Find(path, hash, key);
  if (found == nullptr) {
    const auto size = static_cast<std::uint32_t>(path.size());
    *key = Allocate(SizeOfKey(size));
    found = region_.At<Key>(*key, SizeOfKey(size));
    if (found == nullptr) {
      return false;
    }
    found->hash.store(hash, std::memory_order_release);
    found->path_size.store(size, std::memory_order_release);
    found->version.store(0, std::memory_order_release);
    for (Slot& slot : found->slots) {
      slot.block.store(0, std::memory_order_release);
      FillSlot(slot, hash, nullptr);
    }
    StoreBytes(PathWords(*found), path);
    Word& bucket = region_.header().buckets[hash % layout::kBuckets];
    found->next.store(bucket.load(std::memory_order_relaxed), std::memory_order_release);
    bucket.store(*key, std::memory_order_release);
  }
  return FillSlot(found->slots[(found->version.load(std::memory_order_relaxed) + 1) % 2], hash, value);
}

void Table::Sweep(bool spares_disk) {
  layout::Header& header = region_.header();
  header.first_kept = header.last + 1;  // kept changes refer to keys that may be freed below
  header.unlinks.fetch_add(1);
  std::vector<std::pair<std::uint32_t, std::uint32_t>> used;
  std::string path;
  for (Word& bucket : header.buckets) {
    Word* link = &bucket;
    for (std::uint32_t steps = 0; steps < kMaxKeys; ++steps) {
      const std::uint32_t at = link->load(std::memory_order_relaxed);
      Key* const key = KeyAt(at);
      if (key == nullptr) {
        break;
      }
      if (!spares_disk || (PathOf(at, &path) && path.starts_with(kMemoryPrefix))) {
        const std::uint32_t version = key->version.load(std::memory_order_relaxed);
        if (KindOf(key->slots[version % 2].form.load(std::memory_order_relaxed)) == layout::kNone) {
          link->store(key->next.load(std::memory_order_relaxed), std::memory_order_release);
          continue;
        }
        key->slots[(version + 1) % 2].block.store(0, std::memory_order_release);
      }
      used.emplace_back(at, SizeOfKey(key->path_size.load(std::memory_order_relaxed)));
      for (const Slot& slot : key->slots) {
        const std::uint32_t text = slot.block.load(std::memory_order_relaxed);
        if (const auto* const block = region_.At<Block>(text)) {
          used.emplace_back(text, block->size.load(std::memory_order_relaxed));
        }
      }
      link = &key->next;
    }
  }
  header.unlinks.fetch_add(1);
  FreeAllBut(std::move(used));
}

// Makes all space between the blocks `used` (offset, size) the new list of free blocks.
void Table::FreeAllBut(std::vector<std::pair<std::uint32_t, std::uint32_t>> used) {
  layout::Header& header = region_.header();
  header.free.store(0, std::memory_order_relaxed);
  std::sort(used.begin(), used.end());
  std::uint32_t begin = layout::kFirstBlock;
  Word* link = &header.free;
  for (const auto& [at, size] : used) {
    if (at % kUnit != 0 || size % kUnit != 0 || region_.At<Block>(at, size) == nullptr) {
      continue;  // a damaged value
    }
    if (auto* const block = region_.At<Block>(begin); at > begin) {
      block->size.store(at - begin, std::memory_order_release);
      block->next.store(0, std::memory_order_release);
      link->store(begin, std::memory_order_release);
      link = &block->next;
    }
    begin = std::max(begin, at + size);
  }
  header.blocks_end.store(begin, std::memory_order_relaxed);
}

}  // namespace vconf
