#include "heap.h"

#include <algorithm>

namespace vconf {

using layout::Word;

std::uint32_t Heap::IndexOf(std::uint32_t size) {
  std::uint32_t index = 0;
  while (index + 1 < layout::kBlockSizes && (layout::kMinBlock << index) < size) {
    ++index;
  }
  return index;
}

std::uint32_t Heap::Pop(std::uint32_t index) {
  Word& free = region_.header().free[index];
  const std::uint32_t block = free.load(std::memory_order_relaxed);
  const Word* const next = region_.At<Word>(block, layout::kMinBlock << index);
  free.store(next != nullptr ? next->load(std::memory_order_relaxed) : 0, std::memory_order_relaxed);
  return next != nullptr ? block : 0;
}

std::uint32_t Heap::Take(std::uint32_t size) {
  layout::Header& header = region_.header();
  std::uint32_t index = IndexOf(size);
  const std::uint32_t full = layout::kMinBlock << index;
  if (const std::uint32_t block = Pop(index); block != 0) {
    return block;
  }
  if (const std::uint32_t block = header.end.load(std::memory_order_relaxed);
      block >= layout::kFirstBlock && block <= layout::kMaxSize - full && region_.Grow(block + full)) {
    header.end.store(block + full, std::memory_order_relaxed);
    return block;
  }
  // The beginning of a larger block, whose other parts are freed.
  while (++index < layout::kBlockSizes) {
    if (const std::uint32_t block = Pop(index); block != 0) {
      for (std::uint32_t half = layout::kMinBlock << (index - 1); half >= full; half /= 2) {
        Give(block + half, half);
      }
      return block;
    }
  }
  return 0;
}

void Heap::Give(std::uint32_t block, std::uint32_t size) {
  Word& free = region_.header().free[IndexOf(size)];
  if (Word* const next = region_.At<Word>(block)) {
    next->store(free.load(std::memory_order_relaxed), std::memory_order_release);
    free.store(block, std::memory_order_relaxed);
  }
}

void Heap::FreeAllBut(Blocks used) {
  layout::Header& header = region_.header();
  for (Word& list : header.free) {
    list.store(0, std::memory_order_relaxed);
  }
  std::sort(used.begin(), used.end());
  std::uint32_t begin = layout::kFirstBlock;
  for (const auto& [block, size] : used) {
    if (block % layout::kMinBlock != 0 || region_.At<Word>(block, size) == nullptr) {
      continue;  // a damaged value
    }
    for (std::uint32_t index = layout::kBlockSizes; index-- > 0 && begin < block;) {
      for (const std::uint32_t piece = layout::kMinBlock << index; begin < block && block - begin >= piece;) {
        Give(begin, piece);
        begin += piece;
      }
    }
    begin = std::max(begin, block + (layout::kMinBlock << IndexOf(size)));
  }
  header.end.store(begin, std::memory_order_relaxed);
}

}  // namespace vconf
