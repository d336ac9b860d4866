#pragma once

#include <pthread.h>

#include <array>
#include <atomic>
#include <cstdint>

/// The layout of the region, the file that all processes with one store map.
///
/// Every word that a reader may meet while a writer changes it is atomic. A place in the file is an offset from its
/// beginning; 0 means none. docs/store.md has the picture.
namespace vconf::layout {

using Word = std::atomic<std::uint32_t>;
using LongWord = std::atomic<std::uint64_t>;
static_assert(Word::is_always_lock_free && LongWord::is_always_lock_free);

/// What `Header::state` holds. A region that was cut short reads as zeros, and noise is none of these.
enum State : std::uint32_t {
  kWhole = 0x6c697665,
  kWholeWithFaults,
  kReplaced,  ///< another region stands in its place
};

/// Changes with every change of this file.
constexpr std::uint32_t kFormat = 2;

/// Address space, and the most that the file may take.
constexpr std::uint32_t kMaxSize = 64U << 20U;

constexpr std::uint32_t kBuckets = 16384;
constexpr std::uint32_t kMaxText = 65536;
constexpr std::uint32_t kMaxChangeText = 128;
constexpr std::uint64_t kRememberedChanges = 65536;

constexpr std::uint32_t kMaxPath = 511;
constexpr std::uint32_t kMaxName = kMaxPath + 64;  // of a fault, which is a call and a path

/// Stands at the end of each list of keys. A 0 there is damage: a disk that fails leaves zeros.
constexpr std::uint32_t kEndOfList = 1;

/// What `Key::prepared` and `Header::publishing` say.
enum Prepared : std::uint32_t { kNotPrepared, kPreparedForDisk, kPreparedInMemory };

enum Kind : std::uint32_t { kNone, kInt, kBool, kText };

/// The form of a value: what kind it is, and how many bytes a text has.
constexpr std::uint32_t FormOf(Kind kind, std::uint32_t size = 0) { return (std::uint32_t{kind} << 24U) + size; }
constexpr Kind KindOf(std::uint32_t form) { return static_cast<Kind>(form >> 24U); }
constexpr std::uint32_t SizeOf(std::uint32_t form) { return form & 0xffffffU; }

/// One value. A text lies in a block of its own at `content`. The check covers the path and the value.
struct Slot {
  Word form;
  Word content;
  Word check;
};

/// One key. `slots[version % 2]` is its value; the other one is where the next value is prepared. The path follows.
struct Key {
  Word next;  // in the same bucket
  Word hash;
  Word path_size;
  Word prepared;  // the other slot holds a value, or is about to, that nobody may see yet
  Word version;
  std::array<Slot, 2> slots;
};

/// One change, complete when `number` is right.
struct ChangeRecord {
  LongWord number;
  Word key;
  Slot value;  // a short text follows; a long one is that of the key
  std::array<Word, kMaxChangeText / sizeof(Word)> text;
};

// A block of the largest size holds as many records as fit; enough of them hold the changes that are remembered.
constexpr std::uint32_t kMinBlock = 64;
constexpr std::uint32_t kBlockSizes = 11;
constexpr std::uint32_t kMaxBlock = kMinBlock << (kBlockSizes - 1);
constexpr std::uint64_t kChunkRecords = kMaxBlock / sizeof(ChangeRecord);
constexpr std::uint64_t kChunks = kRememberedChanges / kChunkRecords + 2;
static_assert(kMaxBlock == kMaxText);

/// A lock that tells its next owner when the last one died. `holder` is the owner's process, for
/// messages, and 0 when there is none or it has not written its number yet.
struct Lock {
  pthread_mutex_t mutex;
  Word holder;
};

struct Header {  // NOLINT(clang-analyzer-optin.performance.Padding): what changes together has a cache line of its own
  Word state;
  Word format;
  Word lock_size;  // a program of another word size has other locks
  std::array<char, 40> boot;
  LongWord device;  // this file; a copy has another number
  LongWord inode;
  LongWord born;
  LongWord database;  // the inode of the database that it was read from

  alignas(64) LongWord last;  // the number of the last change
  LongWord floor;             // changes below are no longer remembered
  Word unlinks;               // how often keys were taken out of their buckets

  alignas(64) Word wakeups;  // the futex word: counts what there is to wake up for
  Word asleep;               // set by who goes to sleep, cleared by who wakes

  alignas(64) Lock lock;  // for everything below and all that lies behind the header
  Word pending_key;       // the change that is being made: what its owner's successor has to finish
  Word pending_version;
  LongWord pending_number;
  Word publishing;  // all that is prepared so is to become visible: who dies meanwhile is completed
  Word faults;
  Word end;      // of the blocks given out
  Word growing;  // of the file, as far as the disk has given it
  std::array<Word, kBlockSizes> free;
  std::array<Word, kChunks> chunks;

  alignas(64) Lock disk_lock;  // for the database, and for changing what lies on disk
  LongWord published;          // the number of the last commit that stands here
  Word committing;             // a commit may stand in the database and not here

  alignas(64) std::array<Word, kBuckets> buckets;
};

constexpr std::uint32_t kFirstBlock = (sizeof(Header) + 4095U) / 4096U * 4096U;

}  // namespace vconf::layout
