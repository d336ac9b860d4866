#pragma once

#include <utility>
#include <vector>

#include "region.h"

namespace vconf {

/// The blocks behind the region's header: of 64 bytes times a power of two, up to the longest text. Their sizes are
/// known to who holds them. With the region's lock held. Who dies within a call loses a block at the most.
class Heap {
 public:
  explicit Heap(Region& region) : region_(region) {}

  /// 0 when there is no room.
  std::uint32_t Take(std::uint32_t size);
  void Give(std::uint32_t block, std::uint32_t size);

  using Blocks = std::vector<std::pair<std::uint32_t, std::uint32_t>>;  // offset and size

  /// Gives these back and joins all that is free. Nobody may hold one of them.
  void Compact(Blocks blocks);

 private:
  static std::uint32_t IndexOf(std::uint32_t size);
  std::uint32_t Pop(std::uint32_t index);

  Region& region_;
};

}  // namespace vconf
