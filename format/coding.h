// Little-endian put/get helpers over the I/O layer. Each checks the count it
// got and throws CommonIOHelp::io_err when it comes up short.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "format/io_error.h"
#include "platform/lu_io.h"

namespace afxs {

static_assert(std::endian::native == std::endian::little,
              "the format stores raw little-endian values; a big-endian port must swap");

inline void putBytes(FILE* f, const void* data, size_t size) {
  if (size != 0 && luio::write(data, 1, size, f) != size) fail();
}

inline void putU32(FILE* f, uint32_t value) { putBytes(f, &value, sizeof value); }

inline void getBytes(FILE* f, void* data, size_t size) {
  if (size != 0 && luio::read(data, 1, size, f) != size) fail();
}

inline uint32_t getU32(FILE* f) {
  uint32_t value = 0;
  getBytes(f, &value, sizeof value);
  return value;
}

inline void seekTo(FILE* f, int64_t offset) {
  if (luio::seek(f, offset, SEEK_SET) != 0) fail();
}

// Writes bytes at `offset` behind (or past) the stream without moving it;
// `position` is the stream's position when the caller knows it (-1 else).
inline void patchBytes(FILE* f, int64_t offset, const void* data, size_t size,
                       int64_t position = -1) {
  if (luio::writeAt(f, offset, data, size, position) != 0) fail();
}

inline void patchU32(FILE* f, int64_t offset, uint32_t value, int64_t position = -1) {
  patchBytes(f, offset, &value, sizeof value, position);
}

inline void seekBy(FILE* f, int64_t delta) {
  if (luio::seek(f, delta, SEEK_CUR) != 0) fail();
}

inline void seekEnd(FILE* f) {
  if (luio::seek(f, 0, SEEK_END) != 0) fail();
}

inline int64_t position(FILE* f) {
  int64_t p = luio::tell(f);
  if (p < 0) fail();
  return p;
}

// The current position as a u32 file offset; fails when it is past what a
// u32 offset can reach.
inline uint32_t offset32(FILE* f) {
  int64_t p = position(f);
  if (static_cast<uint64_t>(p) > kMaxFileOffset) fail();
  return static_cast<uint32_t>(p);
}

// Fails unless `bytes` more bytes written at `at` still end inside the range
// of u32 offsets.
inline void requireRoom(int64_t at, uint64_t bytes) {
  if (at < 0 || static_cast<uint64_t>(at) + bytes > kMaxFileOffset + 1) fail();
}

}  // namespace afxs
