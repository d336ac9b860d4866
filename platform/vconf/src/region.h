#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "folder.h"
#include "layout.h"
#include "result.h"

namespace vconf {

/// The region of a store, mapped into this process. Other processes may change, truncate or corrupt it at any time, so
/// each offset is checked before use. Any thread.
class Region {
 public:
  /// Opens the region of `folder`. `kMissing` if it was not created in this boot, as this file, from the database with
  /// the inode `database`; it may then be replaced.
  static Result<std::unique_ptr<Region>> Open(const Folder& folder, ino_t database);

  /// Opens the region of `folder` from any boot, if the file is long enough: to read its counters, and to mark it as
  /// replaced.
  static Result<std::unique_ptr<Region>> OpenAny(const Folder& folder);

  /// Creates an empty region in the file `name`, which the caller renames when the region is filled.
  static Result<std::unique_ptr<Region>> Make(const Folder& folder, const std::string& name, ino_t database);

  /// Creates a region in the memory of this process, for a folder in which it may not create a file.
  static Result<std::unique_ptr<Region>> MakePrivate(const Folder& folder);

  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;
  ~Region();

  layout::Header& header() const { return *static_cast<layout::Header*>(base_); }
  const std::string& file() const { return file_; }
  bool writable() const { return writable_; }
  bool is_shared() const { return descriptor_.is_open(); }

  /// Whether it is neither damaged nor replaced.
  bool IsWhole() const { return header().state.load(std::memory_order_acquire) == layout::kWhole; }

  /// Whether the file was removed or replaced by one of the same name.
  bool IsRemoved() const;

  /// `size` bytes at `offset`, or null if they are not between the header and the end of the file.
  template <typename T>
  T* At(std::uint32_t offset, std::uint32_t size = sizeof(T)) const {
    const std::uint32_t end = header().file_end.load(std::memory_order_acquire);
    return offset >= layout::kFirstBlock && offset % alignof(T) == 0 && end <= layout::kMaxSize && size <= end &&
                   offset <= end - size
               ? reinterpret_cast<T*>(static_cast<char*>(base_) + offset)
               : nullptr;
  }

  /// Extends the file at least to `end`; false if the disk or the region is full. Requires the lock.
  bool Grow(std::uint32_t end);

  /// Allocates disk space for this number of records; false if the disk is full, or there may not be so many. Requires
  /// the lock.
  bool GrowRing(std::uint32_t records);

  /// Tells every process that maps the region to look for a new one at its next call.
  void MarkReplaced();

  /// Wakes all threads that wait for changes.
  void WakeAll();

  /// Sleeps while `header().wakeups` is `seen`, for at most `limit`; may return early.
  void AwaitWakeup(std::uint32_t seen, std::chrono::nanoseconds limit);

  /// Wakes the waiting thread of this process, and those of processes that have the same `futex_bit_`.
  void WakeOwn();

 private:
  Region(std::string file, UniqueFd descriptor, void* base, bool writable)
      : file_(std::move(file)), descriptor_(std::move(descriptor)), base_(base), writable_(writable) {}

  void ChooseFutexBit() { futex_bit_ = 1U << (header().openings.fetch_add(1) % 32U); }

  static Result<std::unique_ptr<Region>> Map(std::string file, UniqueFd descriptor, bool writable);

  const std::string file_;
  const UniqueFd descriptor_;
  void* const base_;
  const bool writable_;
  std::uint32_t futex_bit_ = 1;  // 32 openings in a row have different ones
};

}  // namespace vconf
