// RecordArena: blocks of doubling size, each holding objects at a fixed stride.
#include "reader/record_arena.h"

#include <algorithm>
#include <cstdint>
#include <utility>

namespace afxs {
namespace {

// The first block holds this many objects; each later one twice as many as
// the one before, up to the last size, so a set of n records takes about
// log2(n) blocks and wastes at most a block's worth.
constexpr size_t kFirstBlockObjects = 64;
constexpr size_t kLargestBlockObjects = size_t{1} << 16;

}  // namespace

RecordArena::RecordArena(size_t objectSize, size_t objectAlign)
    : m_stride((objectSize + objectAlign - 1) / objectAlign * objectAlign), m_align(objectAlign) {}

void* RecordArena::allocate() {
  if (m_blocks.empty() || m_usedInLast == m_blocks.back().capacity) addBlock();
  Block& last = m_blocks.back();
  return last.first + m_stride * m_usedInLast++;
}

bool RecordArena::holds(const void* object) const {
  // The later blocks are the larger ones: most objects are found early.
  const auto at = reinterpret_cast<std::uintptr_t>(object);
  for (auto block = m_blocks.rbegin(); block != m_blocks.rend(); ++block) {
    const auto first = reinterpret_cast<std::uintptr_t>(block->first);
    if (at >= first && at < first + m_stride * block->capacity) return true;
  }
  return false;
}

void RecordArena::addBlock() {
  const size_t capacity = m_blocks.empty()
                              ? kFirstBlockObjects
                              : std::min(m_blocks.back().capacity * 2, kLargestBlockObjects);
  Block block;
  // Made before the block enters the list: a failed allocation changes nothing.
  block.bytes.reset(new std::byte[m_stride * capacity + m_align]);
  const auto raw = reinterpret_cast<std::uintptr_t>(block.bytes.get());
  block.first = block.bytes.get() + ((m_align - raw % m_align) % m_align);
  block.capacity = capacity;
  m_blocks.reserve(m_blocks.size() + 1);
  m_blocks.push_back(std::move(block));
  m_usedInLast = 0;
}

}  // namespace afxs
