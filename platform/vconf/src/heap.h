#pragma once

#include <utility>
#include <vector>

#include "region.h"

namespace vconf {

/// Allocates the blocks after the region's header. Their sizes are 64 bytes times a power of two, up to the longest
/// text; the caller has to know the size of its blocks. Requires the region's lock. If a process dies within a call,
/// free blocks may leak until the next `FreeAllBut`.
class Heap {
 public:
  explicit Heap(Region& region) : region_(region) {}

  /// 0 if there is no space.
  std::uint32_t Take(std::uint32_t size);
  void Give(std::uint32_t block, std::uint32_t size);

  using Blocks = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // offset and size

  /// Frees all blocks except these, and merges adjacent free blocks.
  void FreeAllBut(Blocks used);

 private:
  static std::uint32_t IndexOf(std::uint32_t size);
  std::uint32_t Pop(std::uint32_t index);

  Region& region_;
};

}  // namespace vconf
