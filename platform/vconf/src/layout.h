#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>

/// The layout of the region, the file that all processes with one store map.
///
/// Every word that may be read while a writer changes it is atomic. References are offsets from the beginning of the
/// file; 0 means none. docs/store.md has a picture.
namespace vconf::layout {

using Word = std::atomic<std::uint32_t>;
using LongWord = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free && LongWord::is_always_lock_free);

/// Values of `Header::state`. A truncated region reads as zeros, and 0 is none of these.
enum State : std::uint32_t {
  kWhole = 0x6c697665,
  kReplaced,  ///< replaced by another region
};

/// To be incremented with every change of the layout.
constexpr std::uint32_t kFormat = 3;

/// The mapped address space, and the maximum size of the file.
constexpr std::uint32_t kMaxSize = 64U << 20U;

constexpr std::uint32_t kBuckets = 16384;
constexpr std::uint32_t kMaxText = 65536;
constexpr std::uint32_t kMaxChangeText = 128;

/// The number of changes that are kept. The ring begins with the smaller number, and doubles when it is full.
constexpr std::uint32_t kFirstRecords = 1024;
constexpr std::uint32_t kMaxRecords = 65536;

constexpr std::uint32_t kMaxPath = 511;
constexpr std::uint32_t kMaxName = kMaxPath + 64;  // of any key: those of faults contain a call and a path

/// Marks the end of each list of keys. A 0 there is damage: a failing disk leaves zeros.
constexpr std::uint32_t kEndOfList = 1;

enum Kind : std::uint32_t { kNone, kInt, kBool, kText };

/// The form of a value: its kind, and the size of a text in bytes.
constexpr std::uint32_t FormOf(Kind kind, std::uint32_t size = 0) { return (std::uint32_t{kind} << 24U) + size; }
constexpr Kind KindOf(std::uint32_t form) { return static_cast<Kind>(form >> 24U); }
constexpr std::uint32_t SizeOf(std::uint32_t form) { return form & 0xffffffU; }

/// One value: an int or bool is in `content`, a text in `block`. The checksum covers the path and the value. The slot
/// keeps its block, for its next text.
struct Slot {
  Word form;
  Word content;
  Word check;
  Word block;
};

/// One key. `slots[version % 2]` is its value; the next value is prepared in the other slot. The path follows.
struct Key {
  Word next;  // in the same bucket
  Word hash;
  Word path_size;
  Word version;
  std::array<Slot, 2> slots;
};

/// Begins each block of a text, and each free block. Sizes are in bytes, and include this.
struct Block {
  Word size;
  Word next;  // the free block after this one; a text begins here
};

/// One change, valid if `number` is the expected one: `key` gets `version`.
struct ChangeRecord {
  LongWord number;
  Word key;
  Word version;
  Word form;
  Word content;
  Word check;
  std::array<Word, kMaxChangeText / sizeof(Word)> text;  // a longer one is read from the key
};

/// A robust lock. `holder` is the owner's process id, for messages; 0 if there is no owner or it has not written its id
/// yet.
struct Lock {
  pthread_mutex_t mutex;
  Word holder;
};

struct Header {  // NOLINT(clang-analyzer-optin.performance.Padding): what changes together has a cache line of its own
  Word state;
  Word no_faults;  // 0 if there may be faults, and in a replaced or truncated region
  Word format;
  Word lock_size;  // of a mutex: a program of another word size (32 or 64 bits) cannot use the locks
  std::array<char, 40> boot;
  LongWord device;  // these three identify this file; a copy differs in one of them
  LongWord inode;
  LongWord born;      // its birth time in nanoseconds; 0 if the file system has none
  LongWord database;  // the inode of the database that it was read from

  Word openings;  // how often the region was opened for writing

  alignas(64) LongWord last;  // the number of the last change
  LongWord first_kept;        // changes with lower numbers are no longer kept
  Word records;               // the number of records in use in the ring, a power of two
  Word unlinks;               // how often keys were unlinked from their buckets

  alignas(64) Word wakeups;  // the futex word, incremented for each wake-up
  Word asleep;               // 1 if a thread may be asleep; the process that wakes all sets it to 0

  alignas(64) Lock lock;  // guards everything except what `disk_lock` guards
  LongWord publishing;    // the changes up to this one have records, and the next owner of the lock publishes them
  Word blocks_end;        // the end of the last block
  Word file_end;          // disk space is allocated up to here
  Word free;              // the first free block

  alignas(64) Lock disk_lock;  // guards the database, and changes of keys on disk
  LongWord published;          // the number of the last commit that is in the region
  Word committing;             // a commit may be in the database and not in the region

  alignas(64) std::array<Word, kBuckets> buckets;
  std::array<ChangeRecord, kMaxRecords> ring;  // disk space is allocated only for the records in use
};

constexpr std::uint32_t kFirstBlock = (sizeof(Header) + 4095U) / 4096U * 4096U;

}  // namespace vconf::layout
