#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "folder.h"
#include "layout.h"
#include "result.h"

namespace vconf {

/// The region of a store, mapped. It may be changed, cut short or filled with noise by others at any time: each place
/// in it is checked before it is used. Any thread.
class Region {
 public:
  /// The one that stands in `folder`, when it belongs to this boot, to this file and to the database that is there now
  /// (`database` is its inode). `kMissing` when it is none such, which one that is made anew may replace.
  static Result<std::unique_ptr<Region>> Open(const Folder& folder, ino_t database);

  /// Whatever stands there and is long enough, to tell who has it open that another one has come.
  static Result<std::unique_ptr<Region>> OpenAny(const Folder& folder);

  /// A new one without keys under the name `name`, to be renamed when it is filled.
  static Result<std::unique_ptr<Region>> Make(const Folder& folder, const std::string& name, ino_t database);

  /// One of this process alone, for a folder where it may make none.
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

  /// `size` bytes at `offset` behind the header, or null when they do not lie within what the file holds.
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

  /// Lets everybody who has it open see that another one has come.
  void MarkReplaced();

  /// Wakes all who wait for changes.
  void Ring();

  /// Waits until it is no longer `seen` that `header().rings` holds, at the most for `limit`; it may return early.
  void AwaitRing(std::uint32_t seen, std::chrono::nanoseconds limit);

  /// Wakes those of this process, and few others.
  void RingHere();

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
