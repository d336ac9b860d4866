#pragma once

#include <utility>
#include <vector>

#include "region.h"

namespace vconf {

/// The blocks behind the region's header: of 64 bytes times a power of two, up to the longest text. Their sizes are
/// known to who holds them. With the region's lock held. What is free when a process dies within a call may be lost
/// until the next `FreeAllBut`.
class Heap {
 public:
  explicit Heap(Region& region) : region_(region) {}

  /// 0 when there is no room.
  std::uint32_t Take(std::uint32_t size);
  void Give(std::uint32_t block, std::uint32_t size);

  using Blocks = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // offset and size

  /// Everything but these becomes free, and what lies side by side is joined.
  void FreeAllBut(Blocks used);

 private:
  static std::uint32_t IndexOf(std::uint32_t size);
  std::uint32_t Pop(std::uint32_t index);

  Region& region_;
};

}  // namespace vconf
