// Bounds checks shared by the reader's classes: a byte count read from a file
// is never trusted before it is checked against what is left of the file.
#pragma once

#include <algorithm>
#include <cstdint>
#include <unordered_set>
#include <vector>

#include "format/coding.h"
#include "format/io_error.h"

namespace afxs {

// Fails unless `count` bytes starting at offset `at` end inside a file of
// `fileSize` bytes. A count that runs past the end is a failed read, as a
// short read would be, and is refused before anything is allocated for it.
inline void requireInFile(uint64_t at, uint64_t count, uint64_t fileSize) {
  if (at > fileSize || count > fileSize - at) fail();
}

// Whether a read-only stream already stands at `offset`, so that seeking there
// can be left out (each seek costs a system call). Streams open for writing
// always seek: a read after a write needs the seek in between.
inline bool alreadyAt(FILE* f, int64_t offset, bool readOnly) {
  return readOnly && luio::tell(f) == offset;
}

// The offsets a chain has visited, to tell a chain that comes back to one of
// them. Chains the writer makes only lead forward, so an offset past the
// largest one seen is new without a look-up and goes to the end of a sorted
// array (4 bytes, no allocation of its own); only the offsets of a chain that
// once led backwards are kept in a hash set.
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
