// A map from 64-bit keys to 32-bit values in one flat array (open
// addressing, linear probing): no allocation per entry, and a lookup reads
// one or two neighbouring slots. Used for the edge keys of one plane's cut
// and the cell keys of a segment grid. Internal to section/.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace lusection {

class FlatKeyTable {
public:
  // The one key that cannot be stored: it marks an empty slot.
  static constexpr uint64_t kEmpty = ~uint64_t{0};

  FlatKeyTable() { reset(0); }

  // Empties the table and sizes it for about `expected` keys (it grows when
  // more come). Only the slots of the new size are written, so clearing a
  // small table that once held many keys stays cheap.
  void reset(size_t expected) {
    size_t capacity = 16;
    int shift = 60;
    while (capacity < 2 * expected) {
      capacity *= 2;
      --shift;
    }
    m_slots.assign(capacity, Slot{kEmpty, 0});
    m_mask = capacity - 1;
    m_shift = shift;
    m_size = 0;
  }

  // The value stored for `key`, after storing `value` for it when it was
  // absent; `second` tells whether it was absent. The pointer is valid until
  // the next insertion.
  std::pair<uint32_t*, bool> emplace(uint64_t key, uint32_t value) {
    if (2 * (m_size + 1) > m_slots.size()) grow();
    size_t i = slotOf(key);
    while (m_slots[i].key != kEmpty) {
      if (m_slots[i].key == key) return {&m_slots[i].value, false};
      i = (i + 1) & m_mask;
    }
    m_slots[i] = Slot{key, value};
    ++m_size;
    return {&m_slots[i].value, true};
  }

  // The value stored for `key`, or nullptr.
  const uint32_t* find(uint64_t key) const {
    for (size_t i = slotOf(key);; i = (i + 1) & m_mask) {
      if (m_slots[i].key == key) return &m_slots[i].value;
      if (m_slots[i].key == kEmpty) return nullptr;
    }
  }

  size_t size() const { return m_size; }

private:
  struct Slot {
    uint64_t key;
    uint32_t value;
  };

  size_t slotOf(uint64_t key) const {
    // Fibonacci hashing: the high bits of the product mix every key bit.
    return static_cast<size_t>((key * 0x9E3779B97F4A7C15ull) >> m_shift);
  }

  void grow() {
    std::vector<Slot> old = std::move(m_slots);
    reset(old.empty() ? 8 : old.size());
    for (const Slot& s : old)
      if (s.key != kEmpty) emplace(s.key, s.value);
  }

  std::vector<Slot> m_slots;
  size_t m_mask = 0;
  int m_shift = 60;  // 64 - log2(capacity)
  size_t m_size = 0;
};

}  // namespace lusection
