#include "pages.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstring>

namespace vconf {

// The layout of the file.
struct Pages::Tree {
  std::uint32_t pad;  // of the list of free pages: the page size
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t branch_pages;
  std::uint64_t leaf_pages;
  std::uint64_t overflow_pages;
  std::uint64_t entries;
  std::uint64_t root;
};

struct Pages::Page {
  std::uint64_t number;
  std::uint16_t pad;
  std::uint16_t flags;
  std::uint16_t lower;  // where the offsets of the nodes end; of an overflow page: the low half of the count
  std::uint16_t upper;  // where the nodes begin; the high half
};

struct Pages::Meta {
  Page page;
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t address;
  std::uint64_t map_size;
  Tree free;
  Tree main;
  std::uint64_t last_page;
  std::uint64_t transaction;
};

// A node's head, as it lies at any even address, and where its key is.
struct Pages::Node {
  std::uint16_t low;
  std::uint16_t high;
  std::uint16_t flags;
  std::uint16_t key_size;
  const char* key;

  static constexpr std::size_t kHead = 8;

  static Node Read(const Page* page, std::size_t index) {
    const char* const bytes = reinterpret_cast<const char*>(page);
    std::uint16_t offset = 0;
    std::memcpy(&offset, bytes + sizeof(Page) + index * sizeof offset, sizeof offset);
    return ReadAt(bytes + offset);
  }
  static Node ReadAt(const char* at) {
    Node node{};
    std::memcpy(&node, at, kHead);
    node.key = at + kHead;
    return node;
  }

  std::string_view KeyView() const { return {key, key_size}; }
  const char* data() const { return key + key_size; }
  std::size_t data_size() const { return low | std::size_t{high} << 16U; }
  std::uint64_t child() const { return low | std::uint64_t{high} << 16U | std::uint64_t{flags} << 32U; }
};

namespace {

constexpr std::uint32_t kMagic = 0xBEEFC0DE;
constexpr std::uint32_t kVersion = 1;
constexpr std::uint16_t kBranchPage = 1;
constexpr std::uint16_t kLeafPage = 2;
constexpr std::uint16_t kOverflowPage = 4;
constexpr std::uint16_t kMetaPage = 8;
constexpr std::uint16_t kBigData = 1;
constexpr std::uint16_t kIntegerKeys = 8;
constexpr std::uint64_t kNoRoot = ~std::uint64_t{0};
constexpr std::uint64_t kFirstPage = 2;
constexpr unsigned kMaxDepth = 20;

std::uint64_t ReadNumber(const char* bytes) {
  std::uint64_t number = 0;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

}  // namespace

std::unique_ptr<Pages> Pages::Map(int fd, std::size_t map_size, std::size_t page_size) {
  void* const map = mmap(nullptr, map_size, PROT_READ, MAP_SHARED, fd, 0);
  if (map == MAP_FAILED) {
    return nullptr;
  }
  madvise(map, map_size, MADV_RANDOM);
  return std::unique_ptr<Pages>(new Pages(static_cast<const char*>(map), map_size, page_size));
}

Pages::~Pages() { munmap(const_cast<char*>(map_), map_size_); }

void Pages::TouchHeads() const {
  const volatile char* const map = map_;
  static_cast<void>(map[0]);
  static_cast<void>(map[page_size_]);
}

bool Pages::Begin(std::size_t file_size, std::uint64_t transaction) {
  static_assert(sizeof(Page) == 16 && sizeof(Tree) == 48 && sizeof(Meta) == 152);
  seen_count_ = 0;
  if (page_size_ < 512 || page_size_ > 32768 || (page_size_ & (page_size_ - 1)) != 0 || file_size < 2 * page_size_) {
    return false;
  }
  file_pages_ = file_size / page_size_;
  // The first two pages hold a head each, which transactions write in turn.
  const auto& meta = *reinterpret_cast<const Meta*>(map_ + transaction % 2 * page_size_);
  if (!MetaIsSound(meta) || meta.transaction != transaction) {
    return false;
  }
  next_ = meta.last_page + 1;
  root_ = meta.main.root;
  depth_ = meta.main.depth;
  budget_ = next_;
  return meta.free.root == kNoRoot || SubtreeIsSound(meta.free.root, meta.free.depth, true);
}

bool Pages::MetaIsSound(const Meta& meta) const {
  const auto tree_is_sound = [&](const Tree& tree, std::uint16_t flags) {
    return tree.flags == flags && (tree.root == kNoRoot ? tree.depth == 0
                                                        : tree.root >= kFirstPage && tree.root <= meta.last_page &&
                                                              tree.depth > 0 && tree.depth <= kMaxDepth);
  };
  return meta.page.flags == kMetaPage && meta.magic == kMagic && meta.version == kVersion &&
         meta.free.pad == page_size_ && meta.last_page < map_size_ / page_size_ && meta.last_page > 0 &&
         tree_is_sound(meta.free, kIntegerKeys) && tree_is_sound(meta.main, 0);
}

const Pages::Page* Pages::At(std::uint64_t number) const {
  if (number < kFirstPage || number >= next_ || number >= file_pages_) {
    return nullptr;
  }
  const auto* const page = reinterpret_cast<const Page*>(map_ + number * page_size_);
  return page->number == number ? page : nullptr;
}

// The page, if LMDB can work on it without leaving it; else null.
const Pages::Page* Pages::SoundPage(std::uint64_t number, bool leaf) {
  const Page* const page = At(number);
  if (page == nullptr || page->flags != (leaf ? kLeafPage : kBranchPage) || page->lower <= sizeof(Page) ||
      page->lower % 2 != 0 || page->lower > page->upper || page->upper > page_size_) {
    return nullptr;
  }
  if (std::find(seen_.begin(), seen_.begin() + seen_count_, number) != seen_.begin() + seen_count_) {
    return page;
  }
  // The nodes fill the rest of the page without a gap, so their sizes must add up.
  const char* const bytes = reinterpret_cast<const char*>(page);
  std::size_t total = 0;
  for (std::size_t at = sizeof(Page); at < page->lower; at += 2) {
    std::uint16_t offset = 0;
    std::memcpy(&offset, bytes + at, sizeof offset);
    if (offset % 2 != 0 || offset < page->upper || offset + Node::kHead > page_size_) {
      return nullptr;
    }
    const Node node = Node::ReadAt(bytes + offset);
    std::size_t size = Node::kHead + node.key_size;
    if (leaf) {
      size += node.flags == kBigData ? sizeof(std::uint64_t) : node.data_size();
    }
    size += size % 2;
    if (node.key_size > kMaxKey || offset + size > page_size_ || (leaf && (node.flags & ~kBigData) != 0)) {
      return nullptr;
    }
    total += size;
  }
  if (total != page_size_ - page->upper) {
    return nullptr;
  }
  if (seen_count_ < seen_.size()) {
    seen_[seen_count_++] = number;
  }
  return page;
}

// Where the data of a node that keeps it on pages of its own begins; null when those pages are not what it says.
const char* Pages::Overflow(const Node& node) const {
  const std::uint64_t number = ReadNumber(node.data());
  const Page* const page = At(number);
  if (page == nullptr || page->flags != kOverflowPage) {
    return nullptr;
  }
  const std::uint64_t count = page->lower | std::uint64_t{page->upper} << 16U;
  const bool fits = count == (sizeof(Page) - 1 + node.data_size()) / page_size_ + 1 && number + count <= next_ &&
                    number + count <= file_pages_;
  return fits ? reinterpret_cast<const char*>(page + 1) : nullptr;
}

// A node of the list of free pages: under the number of a transaction, the count and the pages in falling order.
bool Pages::FreeListIsSound(const Node& node) const {
  const char* const data = node.flags == kBigData ? Overflow(node) : node.data();
  if (data == nullptr || node.key_size != sizeof(std::uint64_t) || node.data_size() < sizeof(std::uint64_t)) {
    return false;
  }
  const std::uint64_t count = ReadNumber(data);
  if (count != node.data_size() / sizeof count - 1 || node.data_size() % sizeof count != 0) {
    return false;
  }
  std::uint64_t before = next_;
  for (std::uint64_t i = 1; i <= count; ++i) {
    const std::uint64_t number = ReadNumber(data + i * sizeof count);
    if (number < kFirstPage || number >= before) {
      return false;
    }
    before = number;
  }
  return true;
}

bool Pages::SubtreeIsSound(std::uint64_t number, unsigned depth, bool free_list) {
  if (depth == 0 || budget_ == 0) {
    return false;
  }
  --budget_;
  const Page* const page = SoundPage(number, depth == 1);
  if (page == nullptr) {
    return false;
  }
  const std::size_t count = (page->lower - sizeof(Page)) / 2;
  for (std::size_t i = 0; i < count; ++i) {
    const Node node = Node::Read(page, i);
    const bool sound = depth > 1   ? SubtreeIsSound(node.child(), depth - 1, free_list)
                       : free_list ? FreeListIsSound(node)
                                   : node.flags != kBigData || Overflow(node) != nullptr;
    if (!sound) {
      return false;
    }
  }
  return true;
}

bool Pages::TreeIsSound() {
  budget_ = next_;
  return root_ == kNoRoot || SubtreeIsSound(root_, depth_, false);
}

bool Pages::PathIsSound(std::string_view key) {
  std::uint64_t number = root_;
  for (unsigned depth = depth_; depth > 0; --depth) {
    const Page* const page = SoundPage(number, depth == 1);
    if (page == nullptr) {
      return false;
    }
    const std::size_t count = (page->lower - sizeof(Page)) / 2;
    // The last node that is not above the key; the first node of a branch stands for everything below the second.
    std::size_t begin = depth == 1 ? 0 : 1;
    std::size_t end = count;
    while (begin < end) {
      const std::size_t middle = (begin + end) / 2;
      if (Node::Read(page, middle).KeyView() <= key) {
        begin = middle + 1;
      } else {
        end = middle;
      }
    }
    if (begin == 0) {
      return true;
    }
    const Node node = Node::Read(page, begin - 1);
    if (depth == 1) {
      return node.flags != kBigData || node.KeyView() != key || Overflow(node) != nullptr;
    }
    number = node.child();
  }
  return true;
}

}  // namespace vconf
