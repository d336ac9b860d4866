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

/// Values of `Header::state`. A truncated region reads as zeros, which is none of these.
enum State : std::uint32_t {
  kWhole = 0x6c697665,
  kWholeWithFaults,
  kReplaced,  ///< replaced by another region
};

/// To be incremented with every change of the layout.
constexpr std::uint32_t kFormat = 2;

/// The mapped address space, and the maximum size of the file.
constexpr std::uint32_t kMaxSize = 64U << 20U;

constexpr std::uint32_t kBuckets = 16384;
constexpr std::uint32_t kMaxText = 65536;
constexpr std::uint32_t kMaxChangeText = 128;
constexpr std::uint64_t kRememberedChanges = 65536;

constexpr std::uint32_t kMaxPath = 511;
constexpr std::uint32_t kMaxName = kMaxPath + 64;  // of a fault: a call and a path

/// Marks the end of each list of keys. A 0 there is damage: a failing disk leaves zeros.
constexpr std::uint32_t kEndOfList = 1;

/// Values of `Key::prepared` and `Header::publishing`.
enum Prepared : std::uint32_t { kNotPrepared, kPreparedForDisk, kPreparedInMemory };

enum Kind : std::uint32_t { kNone, kInt, kBool, kText };

/// The form of a value: its kind, and the size of a text in bytes.
constexpr std::uint32_t FormOf(Kind kind, std::uint32_t size = 0) { return (std::uint32_t{kind} << 24U) + size; }
constexpr Kind KindOf(std::uint32_t form) { return static_cast<Kind>(form >> 24U); }
constexpr std::uint32_t SizeOf(std::uint32_t form) { return form & 0xffffffU; }

/// One value. A text is in a separate block at offset `content`. The checksum covers the path and the value.
struct Slot {
  Word form;
  Word content;
  Word check;
};

/// One key. `slots[version % 2]` is its value; the next value is prepared in the other slot. The path follows.
struct Key {
  Word next;  // in the same bucket
  Word hash;
  Word path_size;
  Word prepared;  // whether the other slot holds an unpublished value, or is being filled
  Word version;
  std::array<Slot, 2> slots;
};

/// One change, valid if `number` is the expected one.
struct ChangeRecord {
  LongWord number;
  Word key;
  Slot value;  // a short text follows; a long one is read from the key
  std::array<Word, kMaxChangeText / sizeof(Word)> text;
};

// The records of the kept changes are in chunks, which are blocks of the largest size.
constexpr std::uint32_t kMinBlock = 64;
constexpr std::uint32_t kBlockSizes = 11;
constexpr std::uint32_t kMaxBlock = kMinBlock << (kBlockSizes - 1);
constexpr std::uint64_t kChunkRecords = kMaxBlock / sizeof(ChangeRecord);
constexpr std::uint64_t kChunks = kRememberedChanges / kChunkRecords + 2;
static_assert(kMaxBlock == kMaxText);

/// A robust lock. `holder` is the owner's process id, for messages; 0 if there is no owner or it has not written its id
/// yet.
struct Lock {
  pthread_mutex_t mutex;
  Word holder;
};

struct Header {  // NOLINT(clang-analyzer-optin.performance.Padding): what changes together has a cache line of its own
  Word state;
  Word format;
  Word lock_size;  // differs in a program of another word size
  std::array<char, 40> boot;
  LongWord device;  // of this file; a copy has another inode
  LongWord inode;
  LongWord born;
  LongWord database;  // the inode of the database that it was read from

  alignas(64) LongWord last;  // the number of the last change
  LongWord floor;             // changes below it are no longer kept
  Word unlinks;               // how often keys were unlinked from their buckets

  alignas(64) Word wakeups;  // the futex word, incremented for each wake-up
  Word asleep;               // set before sleeping, cleared by the process that wakes

  alignas(64) Lock lock;  // guards everything below, and everything after the header
  Word pending_key;       // the change in progress, which the next owner of the lock has to finish
  Word pending_version;
  LongWord pending_number;
  Word publishing;  // everything prepared so is being published; the next owner of the lock completes it
  Word faults;
  Word end;      // of the allocated blocks
  Word growing;  // of the file, as far as disk space is allocated
  std::array<Word, kBlockSizes> free;
  std::array<Word, kChunks> chunks;

  alignas(64) Lock disk_lock;  // guards the database, and changes of keys on disk
  LongWord published;          // the number of the last commit that is in the region
  Word committing;             // a commit may be in the database and not in the region

  alignas(64) std::array<Word, kBuckets> buckets;
};

constexpr std::uint32_t kFirstBlock = (sizeof(Header) + 4095U) / 4096U * 4096U;

}  // namespace vconf::layout
