// The field directory of one plane-subset record (and its results record):
// field identifier -> file offset of that field block's byte-count word, in
// ascending identifier order, read like an ordered map.
//
// Indexing a file builds one directory per record, so the directory is flat:
// the identifiers of the field table (0 to 9) each have a slot inside the
// object, and only an identifier the table does not know (a foreign or
// damaged file) goes to a sorted list beside them. Building the directory of
// an ordinary record allocates nothing, and dropping it frees nothing.
#pragma once

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <map>
#include <stdexcept>
#include <utility>
#include <vector>

class LuAfxsFieldDirectory {
public:
  using key_type = uint32_t;
  using mapped_type = uint32_t;
  using value_type = std::pair<uint32_t, uint32_t>;
  using size_type = size_t;

  // Walks the entries in ascending identifier order; an entry is handed out
  // by value (the directory is read, never written, through it).
  class const_iterator {
  public:
    using value_type = LuAfxsFieldDirectory::value_type;
    using difference_type = std::ptrdiff_t;
    using reference = value_type;
    using iterator_category = std::forward_iterator_tag;
    struct Arrow {
      value_type entry;
      const value_type* operator->() const { return &entry; }
    };

    const_iterator() = default;
    value_type operator*() const { return m_owner->entryAt(m_position); }
    Arrow operator->() const { return Arrow{**this}; }
    const_iterator& operator++() {
      m_position = m_owner->nextPosition(m_position + 1);
      return *this;
    }
    const_iterator operator++(int) {
      const_iterator before = *this;
      ++*this;
      return before;
    }
    bool operator==(const const_iterator& other) const { return m_position == other.m_position; }

  private:
    friend class LuAfxsFieldDirectory;
    const_iterator(const LuAfxsFieldDirectory* owner, size_t position)
        : m_owner(owner), m_position(position) {}
    const LuAfxsFieldDirectory* m_owner = nullptr;
    size_t m_position = 0;
  };
  using iterator = const_iterator;

  // Enters (id -> offset) unless `id` is present already: an identifier keeps
  // its first position. The bool tells whether it was entered.
  std::pair<const_iterator, bool> emplace(uint32_t id, uint32_t offset) {
    if (id < kSlots) {
      const bool entered = !hasSlot(id);
      if (entered) {
        m_slots[id] = offset;
        m_present = static_cast<uint16_t>(m_present | (1u << id));
      }
      return {const_iterator(this, id), entered};
    }
    auto at = std::lower_bound(m_others.begin(), m_others.end(), id, idBelow);
    const bool entered = at == m_others.end() || at->first != id;
    if (entered) at = m_others.insert(at, value_type(id, offset));
    return {const_iterator(this, kSlots + static_cast<size_t>(at - m_others.begin())), entered};
  }

  std::pair<const_iterator, bool> insert(const value_type& entry) {
    return emplace(entry.first, entry.second);
  }

  const_iterator find(uint32_t id) const {
    if (id < kSlots) return hasSlot(id) ? const_iterator(this, id) : end();
    auto at = std::lower_bound(m_others.begin(), m_others.end(), id, idBelow);
    if (at == m_others.end() || at->first != id) return end();
    return const_iterator(this, kSlots + static_cast<size_t>(at - m_others.begin()));
  }
  size_t count(uint32_t id) const { return find(id) == end() ? 0 : 1; }
  bool contains(uint32_t id) const { return count(id) != 0; }
  // The offset of `id`; std::out_of_range when it is not in the directory.
  uint32_t at(uint32_t id) const {
    const_iterator it = find(id);
    if (it == end()) throw std::out_of_range("LuAfxsFieldDirectory::at");
    return it->second;
  }

  size_t size() const { return static_cast<size_t>(std::popcount(m_present)) + m_others.size(); }
  bool empty() const { return size() == 0; }
  const_iterator begin() const { return const_iterator(this, nextPosition(0)); }
  const_iterator end() const { return const_iterator(this, kSlots + m_others.size()); }
  void clear() {
    m_present = 0;
    m_others.clear();
  }

  // The same entries as an ordered map, for code written against one.
  operator std::map<uint32_t, uint32_t>() const { return {begin(), end()}; }
  friend bool operator==(const LuAfxsFieldDirectory& a, const LuAfxsFieldDirectory& b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
  }
  friend bool operator==(const LuAfxsFieldDirectory& a, const std::map<uint32_t, uint32_t>& b) {
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(), [](const value_type& x, const auto& y) {
             return x.first == y.first && x.second == y.second;
           });
  }

private:
  // The identifiers 0 to kSlots - 1 have a slot of their own.
  static constexpr uint32_t kSlots = 10;

  static bool idBelow(const value_type& entry, uint32_t id) { return entry.first < id; }
  bool hasSlot(uint32_t id) const { return (m_present >> id) & 1u; }
  // The first position at or after `position` that holds an entry (end() when none).
  size_t nextPosition(size_t position) const {
    while (position < kSlots && !hasSlot(static_cast<uint32_t>(position))) ++position;
    return position;
  }
  value_type entryAt(size_t position) const {
    if (position < kSlots) return value_type(static_cast<uint32_t>(position), m_slots[position]);
    return m_others[position - kSlots];
  }

  uint32_t m_slots[kSlots] = {};
  uint16_t m_present = 0;            // bit i: identifier i has an entry
  std::vector<value_type> m_others;  // identifiers from kSlots on, ascending
};
