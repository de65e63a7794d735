// Storage for the data objects of one data set: a data set indexes every
// plane-subset record of its file, so its objects come out of a few large
// blocks instead of one heap allocation each, and destroying the set frees
// those few blocks.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

namespace afxs {

class RecordArena {
public:
  // `objectSize` and `objectAlign` are those of the objects it holds.
  RecordArena(size_t objectSize, size_t objectAlign);
  RecordArena(const RecordArena&) = delete;
  RecordArena& operator=(const RecordArena&) = delete;

  // Room for one object, uninitialised; throws std::bad_alloc.
  void* allocate();
  // Whether `object` lies in this arena's storage (an object a data set was
  // handed from elsewhere does not).
  bool holds(const void* object) const;

private:
  struct Block {
    std::unique_ptr<std::byte[]> bytes;
    std::byte* first = nullptr;  // the first aligned object
    size_t capacity = 0;         // objects
  };
  void addBlock();

  size_t m_stride;
  size_t m_align;
  std::vector<Block> m_blocks;
  size_t m_usedInLast = 0;
};

}  // namespace afxs
