#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "folder.h"
#include "layout.h"
#include "result.h"

namespace vconf {

/// The region of a store, mapped into this process. Others may change it, cut it short or fill it with noise at any
/// time, so each offset in it is checked before it is used. Any thread.
class Region {
 public:
  /// The region of `folder`, if it was made in this boot, as this file, from the database with the inode `database`.
  /// `kMissing` if not: then a new one may take its place.
  static Result<std::unique_ptr<Region>> Open(const Folder& folder, ino_t database);

  /// The file of `folder`'s region, from whatever boot, if it is long enough: for what it still tells, and to mark it.
  static Result<std::unique_ptr<Region>> OpenAny(const Folder& folder);

  /// A new region without keys. Its file has the name `name`, to be renamed when the region is filled.
  static Result<std::unique_ptr<Region>> Make(const Folder& folder, const std::string& name, ino_t database);

  /// A new region in the memory of this process, for a folder where it may make no file.
  static Result<std::unique_ptr<Region>> MakePrivate(const Folder& folder);

  Region(const Region&) = delete;
  Region& operator=(const Region&) = delete;
  ~Region();

  layout::Header& header() const { return *static_cast<layout::Header*>(base_); }
  const std::string& file() const { return file_; }
  bool writable() const { return writable_; }
  bool is_shared() const { return descriptor_.is_open(); }

  /// Whether it is neither damaged nor replaced.
  bool IsWhole() const {
    const auto state = header().state.load(std::memory_order_acquire);
    return state == layout::kWhole || state == layout::kWholeWithFaults;
  }

  /// Whether the file was removed or replaced by one of the same name.
  bool IsRemoved() const;

  /// `size` bytes at `offset`, or null when they do not lie between the header and the end of the file.
  template <typename T>
  T* At(std::uint32_t offset, std::uint32_t size = sizeof(T)) const {
    const std::uint32_t end = header().growing.load(std::memory_order_acquire);
    return offset >= layout::kFirstBlock && offset % alignof(T) == 0 && end <= layout::kMaxSize && size <= end &&
                   offset <= end - size
               ? reinterpret_cast<T*>(static_cast<char*>(base_) + offset)
               : nullptr;
  }

  /// Makes room up to `end`; false when the disk or the region is full. With the lock held.
  bool Grow(std::uint32_t end);

  /// From now on every process that has it mapped looks for another one at its next call.
  void MarkReplaced();

  /// Wakes all threads that wait for changes.
  void WakeAll();

  /// Sleeps while `header().wakeups` is `seen`, for `limit` at the most; may return early.
  void AwaitWakeup(std::uint32_t seen, std::chrono::nanoseconds limit);

  /// Wakes the waiting thread of this process, and few of others.
  void WakeOwn();

 private:
  Region(std::string file, Descriptor descriptor, void* base, bool writable)
      : file_(std::move(file)), descriptor_(std::move(descriptor)), base_(base), writable_(writable) {}

  static Result<std::unique_ptr<Region>> Map(std::string file, Descriptor descriptor, bool writable);

  const std::string file_;
  const Descriptor descriptor_;
  void* const base_;
  const bool writable_;
};

}  // namespace vconf
