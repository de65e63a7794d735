// The offsets a chain has visited, to tell a chain that comes back to one of
// them.
#pragma once

#include <algorithm>
#include <cstdint>
#include <unordered_set>
#include <vector>

namespace afxs {

// Chains the writer makes only lead forward, so an offset past the largest
// one seen is new without a look-up and goes to the end of a sorted array
// (4 bytes, no allocation of its own); only the offsets of a chain that once
// led backwards are kept in a hash set.
class VisitedOffsets {
public:
  // True when `offset` was not visited before; it counts as visited from now.
  bool firstVisit(uint32_t offset) {
    if (m_ascending.empty() || offset > m_ascending.back()) {
      m_ascending.push_back(offset);
      return true;
    }
    if (std::binary_search(m_ascending.begin(), m_ascending.end(), offset)) return false;
    return m_others.insert(offset).second;
  }
  // Forgets every offset; the storage stays for the next chain.
  void clear() {
    m_ascending.clear();
    m_others.clear();
  }

private:
  std::vector<uint32_t> m_ascending;      // ascending: each one larger than all before it
  std::unordered_set<uint32_t> m_others;  // every one smaller than m_ascending.back()
};

}  // namespace afxs
