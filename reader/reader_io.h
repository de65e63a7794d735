// Bounds checks shared by the reader's classes: a byte count read from a file
// is never trusted before it is checked against what is left of the file.
#pragma once

#include <cstdint>
#include <cstdio>
#include <limits>
#include <optional>
#include <utility>

#include "format/byte_source.h"
#include "format/coding.h"
#include "format/io_error.h"
#include "format/visited_offsets.h"
#include "platform/lu_io.h"

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

// The link's stream as a source of bytes: `open(at)` gives the stream
// positioned at `at` (reporting a failed open or seek itself) or null, and
// the read then comes up short.
template <class Open>
class LinkStreamSource final : public ByteSource {
public:
  explicit LinkStreamSource(Open open) : m_open(std::move(open)) {}
  size_t readAt(uint64_t at, void* data, size_t size) override {
    if (at > static_cast<uint64_t>(std::numeric_limits<long>::max())) return 0;
    FILE* f = m_open(static_cast<long>(at));
    return f == nullptr ? 0 : luio::read(data, 1, size, f);
  }

private:
  Open m_open;
};

// `stream` if positioned reads may go to its file: a stream open for
// reading only, without an error (one open for writing may still hold bytes
// of its own); else null.
inline FILE* readOnlyStream(FILE* stream, bool openForWrite) {
  return stream != nullptr && !openForWrite && !luio::error(stream) ? stream : nullptr;
}

// Positioned reads of the stream that `stream()` gives, while it gives one
// (a stream open for reading only, without an error), else the reads of
// `fallback`: no seek, and no copy through the stream's buffer.
// - Through a window (a load of arrays): afxs::PositionedSource; the window
//   stays with the stream, so the heads behind one record's blocks come
//   with its last block.
// - Without one (the base of the windows an index reads through): one
//   positioned read per call, straight into the caller's memory.
enum class Readahead { Window, None };

template <class Stream>
class ReadOnlyStreamSource final : public ByteSource {
public:
  ReadOnlyStreamSource(Stream stream, ByteSource& fallback, Readahead readahead)
      : m_stream(std::move(stream)), m_fallback(fallback), m_readahead(readahead) {}
  size_t readAt(uint64_t at, void* data, size_t size) override {
    FILE* f = m_stream();
    if (f == nullptr) return m_fallback.readAt(at, data, size);
    if (m_readahead == Readahead::None) {
      const luio::ReadPiece piece{data, size};
      return luio::readAt(f, at, &piece, 1);
    }
    if (!m_positioned || m_positioned->stream() != f) m_positioned.emplace(f);
    return m_positioned->readAt(at, data, size);
  }

private:
  Stream m_stream;
  ByteSource& m_fallback;
  Readahead m_readahead;
  std::optional<PositionedSource> m_positioned;
};

}  // namespace afxs
