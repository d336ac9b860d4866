#include "table.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vconf {

using layout::Key;
using layout::Kind;
using layout::KindOf;
using layout::SizeOf;
using layout::Slot;
using layout::Word;

namespace {

constexpr std::uint32_t kOdd = 0x9E3779B1U;

// More keys than can fit: a longer chain is damaged.
constexpr std::uint32_t kMaxKeys = layout::kMaxSize / layout::kMinBlock;

constexpr std::uint32_t WordsOf(std::uint32_t bytes) { return (bytes + 3) / 4; }

// The word at `at`, padded with zeros. A copy of a fixed size is one instruction.
std::uint32_t WordAt(std::string_view bytes, std::size_t at) {
  std::uint32_t word = 0;
  if (at + sizeof word <= bytes.size()) {
    std::memcpy(&word, bytes.data() + at, sizeof word);
    return word;
  }
  for (std::size_t i = at; i < bytes.size(); ++i) {
    word |= std::uint32_t{static_cast<unsigned char>(bytes[i])} << (8 * (i - at));
  }
  return word;
}

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

std::uint32_t Mix(std::uint32_t hash, std::uint32_t word) {
  hash = (hash ^ word) * kOdd;
  return hash ^ (hash >> 15U);
}

Word* PathWords(Key& key) { return reinterpret_cast<Word*>(&key + 1); }

std::uint32_t SizeOfKey(std::uint32_t path_size) {
  return static_cast<std::uint32_t>(sizeof(Key)) + 4 * WordsOf(path_size);
}

}  // namespace

/// A value as it was read; `text` is used only for a text.
struct Table::Held {
  std::uint32_t form = 0;
  std::uint32_t content = 0;
  std::string text;

  std::optional<Value> value() {
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
};

std::uint32_t Table::HashOf(std::string_view path) {
  std::uint64_t hash = path.size();
  for (std::size_t at = 0; at < path.size(); at += 8) {
    const std::uint64_t high = at + 4 < path.size() ? WordAt(path, at + 4) : 0;
    hash = (hash ^ (high << 32U) ^ WordAt(path, at)) * 0x9E3779B97F4A7C15U;
    hash ^= hash >> 32U;
  }
  return static_cast<std::uint32_t>(hash);
}

std::uint32_t Table::CheckOf(std::uint32_t hash, std::uint32_t form, std::uint32_t content, std::string_view text) {
  return Mix(Mix(~hash, form), KindOf(form) == layout::kText ? HashOf(text) : content);
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
  std::uint32_t at = region_.header().buckets[hash % layout::kBuckets].load(std::memory_order_acquire);
  for (std::uint32_t steps = 0; steps < kMaxKeys; ++steps) {
    Key* const key = KeyAt(at);
    if (key == nullptr) {
      return nullptr;
    }
    if (key->hash.load(std::memory_order_acquire) == hash &&
        key->path_size.load(std::memory_order_relaxed) == path.size()) {
      const Word* const words = PathWords(*key);
      std::uint32_t i = 0;
      const std::uint32_t count = WordsOf(static_cast<std::uint32_t>(path.size()));
      while (i < count && words[i].load(std::memory_order_acquire) == WordAt(path, std::size_t{4} * i)) {
        ++i;
      }
      if (i == count) {
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

// A key counts as missing only if its bucket can be read to the end.
bool Table::IsSound(std::uint32_t hash) const {
  return ReadBucket(hash % layout::kBuckets, [](const Key&, const std::string&) { return true; });
}

// False if the content was not written for this key: it is damaged, or was just overwritten.
bool Table::ReadSlot(const Key& key, const Slot& slot, Held* held) const {
  held->form = slot.form.load(std::memory_order_acquire);
  held->content = slot.content.load(std::memory_order_acquire);
  const std::uint32_t check = slot.check.load(std::memory_order_acquire);
  if (KindOf(held->form) == layout::kText) {
    const std::uint32_t size = SizeOf(held->form);
    const Word* const words = size > 0 ? region_.At<Word>(held->content, 4 * WordsOf(size)) : nullptr;
    if (size > layout::kMaxText || (size > 0 && words == nullptr)) {
      return false;
    }
    LoadBytes(words, size, &held->text);
  }
  return check == CheckOf(key.hash.load(std::memory_order_relaxed), held->form, held->content, held->text);
}

Code Table::Look(const Key& key, Held* held) const {
  while (true) {
    const std::uint32_t version = key.version.load(std::memory_order_acquire);
    const bool sound = ReadSlot(key, key.slots[version % 2], held);
    if (key.version.load(std::memory_order_acquire) == version) {
      return !sound ? Code::kDamaged : KindOf(held->form) == layout::kNone ? Code::kMissing : Code::kOk;
    }
  }
}

// A key that is unlinked meanwhile may hide the keys after it, and its block may be reused for another key.
template <typename Found>
Code Table::Seek(std::string_view path, Held* held, Found&& found) const {
  const std::uint32_t hash = HashOf(path);
  const Word& unlinks = region_.header().unlinks;
  while (true) {
    const std::uint32_t before = unlinks.load(std::memory_order_acquire);
    std::uint32_t offset = 0;
    const Key* const key = Find(path, hash, &offset);
    const Code code = key != nullptr ? Look(*key, held) : IsSound(hash) ? Code::kMissing : Code::kDamaged;
    if (unlinks.load(std::memory_order_acquire) == before) {
      return code == Code::kOk ? found() : code;
    }
  }
}

Code Table::Read(std::string_view path, std::optional<Value>* value) const {
  Held held;
  return Seek(path, &held, [&] {
    *value = held.value();
    return *value ? Code::kOk : Code::kDamaged;
  });
}

Code Table::ReadNumber(std::string_view path, Kind kind, int* number) const {
  Held held;
  return Seek(path, &held, [&] {
    if (KindOf(held.form) != kind) {
      return Code::kWrongType;
    }
    *number = static_cast<int>(held.content);
    return Code::kOk;
  });
}

bool Table::PathOf(std::uint32_t key, std::string* path) const {
  Key* const at = KeyAt(key);
  if (at != nullptr) {
    LoadBytes(PathWords(*at), at->path_size.load(std::memory_order_relaxed), path);
  }
  return at != nullptr && at->hash.load(std::memory_order_acquire) == HashOf(*path);
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
        if (Held held; path.starts_with(prefix)) {
          const Code code = Look(key, &held);
          sound = sound && code != Code::kDamaged;
          if (auto value = code == Code::kOk ? held.value() : std::nullopt) {
            entries->push_back({path, *std::move(value)});
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

std::uint32_t Table::Take(std::uint32_t size) {
  std::uint32_t block = heap_.Take(size);
  if (block == 0) {
    Sweep();
    block = heap_.Take(size);
  }
  return block;
}

void Table::EmptySlot(Slot& slot) {
  const std::uint32_t form = slot.form.exchange(0);
  if (KindOf(form) == layout::kText && SizeOf(form) > 0) {
    heap_.Give(slot.content.load(std::memory_order_relaxed), SizeOf(form));
  }
}

bool Table::FillSlot(Slot& slot, std::uint32_t hash, const Value* value) {
  EmptySlot(slot);
  std::uint32_t form = 0;
  std::uint32_t content = 0;
  std::string_view text;
  if (value == nullptr) {
    form = layout::kNone;
  } else if (const int* const number = std::get_if<int>(value)) {
    form = layout::FormOf(layout::kInt);
    content = static_cast<std::uint32_t>(*number);
  } else if (const bool* const flag = std::get_if<bool>(value)) {
    form = layout::FormOf(layout::kBool);
    content = *flag ? 1 : 0;
  } else {
    text = std::get<std::string>(*value);
    form = layout::FormOf(layout::kText, static_cast<std::uint32_t>(text.size()));
    content = text.empty() ? 0 : Take(static_cast<std::uint32_t>(text.size()));
    if (!text.empty() && content == 0) {
      return false;
    }
    StoreBytes(region_.At<Word>(content), text);
  }
  slot.content.store(content, std::memory_order_release);
  slot.check.store(CheckOf(hash, form, content, text), std::memory_order_release);
  slot.form.store(form, std::memory_order_release);
  return true;
}

Code Table::Prepare(std::string_view path, const Value* value, std::uint32_t* key) {
  const auto mark = path.starts_with(kMemoryPrefix) ? layout::kPreparedInMemory : layout::kPreparedForDisk;
  const std::uint32_t hash = HashOf(path);
  Key* found = Find(path, hash, key);
  if (found == nullptr) {
    const auto size = static_cast<std::uint32_t>(path.size());
    *key = Take(SizeOfKey(size));
    found = region_.At<Key>(*key, SizeOfKey(size));
    if (found == nullptr) {
      return Code::kFull;
    }
    Word& bucket = region_.header().buckets[hash % layout::kBuckets];
    found->next.store(bucket.load(std::memory_order_relaxed), std::memory_order_release);
    found->hash.store(hash, std::memory_order_release);
    found->path_size.store(size, std::memory_order_release);
    found->prepared.store(mark, std::memory_order_release);
    found->version.store(0, std::memory_order_release);
    for (Slot& slot : found->slots) {
      slot.form.store(0, std::memory_order_release);
      slot.content.store(0, std::memory_order_release);
      slot.check.store(CheckOf(hash, 0, 0, {}), std::memory_order_release);
    }
    StoreBytes(PathWords(*found), path);
    bucket.store(*key, std::memory_order_release);
  }
  found->prepared.store(mark, std::memory_order_relaxed);
  const std::uint32_t version = found->version.load(std::memory_order_relaxed);
  const bool filled = FillSlot(found->slots[(version + 1) % 2], hash, value);
  if (!filled) {
    found->prepared.store(layout::kNotPrepared, std::memory_order_relaxed);
  }
  return filled ? Code::kOk : Code::kFull;
}

void Table::Flip(std::uint32_t key) {
  if (Key* const at = KeyAt(key)) {
    at->version.fetch_add(1, std::memory_order_release);
    at->prepared.store(layout::kNotPrepared, std::memory_order_release);
  }
}

const Slot* Table::Prepared(std::uint32_t key) const {
  const Key* const at = KeyAt(key);
  return at != nullptr ? &at->slots[(at->version.load(std::memory_order_relaxed) + 1) % 2] : nullptr;
}

// `visit` returns true if it has unlinked the key from `link`.
void Table::ForEachKey(const std::function<bool(Word&, Key&)>& visit) {
  for (Word& bucket : region_.header().buckets) {
    Word* link = &bucket;
    for (std::uint32_t steps = 0; steps < kMaxKeys; ++steps) {
      Key* const key = KeyAt(link->load(std::memory_order_relaxed));
      if (key == nullptr) {
        break;
      }
      if (!visit(*link, *key)) {
        link = &key->next;
      }
    }
  }
}

void Table::Drop(const std::vector<std::uint32_t>& keys) {
  for (const std::uint32_t key : keys) {
    if (Key* const at = KeyAt(key)) {
      at->prepared.store(layout::kNotPrepared, std::memory_order_relaxed);
    }
  }
}

std::vector<std::uint32_t> Table::KeysPrepared(layout::Prepared mark) {
  std::vector<std::uint32_t> keys;
  ForEachKey([&](const Word& link, const Key& key) {
    if (key.prepared.load(std::memory_order_relaxed) == mark) {
      keys.push_back(link.load(std::memory_order_relaxed));
    }
    return false;
  });
  return keys;
}

// Unlinks removed keys, and frees all blocks that are no longer in use. The kept changes refer to keys, so they are
// dropped first: a subscriber that has not read them gets one notification for each key instead.
void Table::Sweep() {
  layout::Header& header = region_.header();
  header.floor = header.last + 1;
  header.unlinks.fetch_add(1);
  Heap::Blocks used;
  for (const Word& chunk : header.chunks) {
    if (chunk != 0) {
      used.emplace_back(chunk.load(std::memory_order_relaxed), layout::kMaxBlock);
    }
  }
  ForEachKey([&](Word& link, Key& key) {
    if (key.prepared.load(std::memory_order_relaxed) == layout::kNotPrepared) {
      const std::uint32_t version = key.version.load(std::memory_order_relaxed);
      key.slots[(version + 1) % 2].form = 0;
      if (KindOf(key.slots[version % 2].form.load(std::memory_order_relaxed)) == layout::kNone) {
        link.store(key.next.load(std::memory_order_relaxed), std::memory_order_release);
        return true;
      }
    }
    used.emplace_back(link.load(std::memory_order_relaxed), SizeOfKey(key.path_size.load(std::memory_order_relaxed)));
    for (const Slot& slot : key.slots) {
      const std::uint32_t form = slot.form.load(std::memory_order_relaxed);
      if (KindOf(form) == layout::kText && SizeOf(form) > 0) {
        used.emplace_back(slot.content.load(std::memory_order_relaxed), SizeOf(form));
      }
    }
    return false;
  });
  header.unlinks.fetch_add(1);
  heap_.FreeAllBut(std::move(used));
}

}  // namespace vconf
