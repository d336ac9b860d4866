#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

namespace vconf {

/// The longest key of an LMDB file, in bytes.
constexpr std::size_t kMaxKey = 511;

/// Looks at the pages of an LMDB file before LMDB changes them.
///
/// LMDB changes a copy of a page in the heap and believes every offset in it, so a page of noise would have it write
/// anywhere. A reader does no such harm. This knows the file's format, version 1 of the 64-bit layout.
///
/// One thread at a time, which is the one that writes. Nothing here owns anything while it looks, so it may be cut off
/// by a fault; then it answered nothing.
class Pages {
 public:
  /// Maps the file `fd`, which LMDB has open with pages of `page_size`. Null when memory cannot be had.
  static std::unique_ptr<Pages> Map(int fd, std::size_t map_size, std::size_t page_size);

  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;
  ~Pages();

  /// Reads the two heads of the file, which a guard notices when one is gone. Any thread.
  void TouchHeads() const;

  /// Begins to look at the file as transaction number `transaction` left it, one of the last two. False when it cannot
  /// be: the head of the file or the list of its free pages is noise. The other calls are about what this one found.
  bool Begin(std::size_t file_size, std::uint64_t transaction);

  /// Whether the file is as long as its head says.
  bool IsWhole() const { return next_ <= file_pages_; }

  /// Whether all pages that a change of `key` can touch are sound, as long as nothing is removed.
  bool PathIsSound(std::string_view key);

  /// Whether all pages of the tree are.
  bool TreeIsSound();

 private:
  struct Tree;
  struct Meta;
  struct Page;
  struct Node;

  Pages(const char* map, std::size_t map_size, std::size_t page_size)
      : map_(map), map_size_(map_size), page_size_(page_size) {}

  bool MetaIsSound(const Meta& meta) const;
  const Page* At(std::uint64_t number) const;
  const Page* SoundPage(std::uint64_t number, bool leaf);
  bool SubtreeIsSound(std::uint64_t number, unsigned depth, bool free_list);
  const char* Overflow(const Node& node) const;
  bool FreeListIsSound(const Node& node) const;

  const char* const map_;
  const std::size_t map_size_;
  const std::size_t page_size_;

  std::uint64_t file_pages_ = 0;
  std::uint64_t next_ = 0;  // the number behind the last page
  std::uint64_t root_ = 0;
  unsigned depth_ = 0;
  std::uint64_t budget_ = 0;  // pages that a walk may still see, against circles
  std::array<std::uint64_t, 16> seen_{};
  std::size_t seen_count_ = 0;
};

}  // namespace vconf
