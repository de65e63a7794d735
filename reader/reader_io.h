// Bounds checks shared by the reader's classes: a byte count read from a file
// is never trusted before it is checked against what is left of the file.
#pragma once

#include <cstdint>

#include "format/coding.h"
#include "format/io_error.h"
#include "format/visited_offsets.h"

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

}  // namespace afxs
