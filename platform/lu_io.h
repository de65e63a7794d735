// The library's one door to the file system. Every open, read, write, seek
// and tell of the library goes through here, so that one seam can inject
// faults (luAnaf/luIoFault.h) and one place knows the platform's calls.
#pragma once

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

#include <luAnaf/luUtf8.h>

#include "platform/lu_lock.h"

namespace luio {

// The buffer of a stream the library opens for reading: small, since every
// seek refills it. A writer appends with kAppendBuffer, so that many small
// puts and field blocks go out in few large writes.
inline constexpr size_t kStreamBuffer = 4096;
inline constexpr size_t kAppendBuffer = size_t{64} << 10;

// UTF-8 form of a wide path, for file systems that take narrow paths, and
// back (luAnaf/luUtf8.h: the project's one conversion).
inline std::string narrowPath(const std::wstring& path) { return luWideToUtf8(path); }
inline std::wstring widen(const std::string& text) { return luUtf8ToWide(text); }
// The path as std::filesystem and the standard streams take it: the wide
// path itself on Windows, its UTF-8 form elsewhere (a std::filesystem::path
// made from a wide string would convert it with the locale instead, and
// throw on a name that is not valid UTF-8).
inline std::filesystem::path nativePath(const std::wstring& path) {
#if defined(_WIN32)
  return std::filesystem::path(path);
#else
  return std::filesystem::path(narrowPath(path));
#endif
}

// The byte at which a stream opened in text mode ends its input: Ctrl-Z
// under the Windows C runtime's text mode, none elsewhere (-1). Code that
// reads a file as bytes where the reader uses a text-mode stream stops there.
#if defined(_WIN32)
inline constexpr int kTextModeEndByte = 0x1A;
#else
inline constexpr int kTextModeEndByte = -1;
#endif

// Opens a regular file ("rb", "r+b" or "w+b") and takes its lock: shared
// for "rb", exclusive otherwise (luio::FileLock), held until close. Never
// waits: a FIFO, a device or a folder is refused at once (errno EINVAL or
// EISDIR), and so is a file whose lock another process holds (errno EBUSY).
// "w+b" empties the file only once its lock is held.
FILE* open(const std::wstring& path, const char* mode, size_t bufferSize = kStreamBuffer);
// Converts the lock that `file` took when it was opened (never waits; false
// with errno EBUSY when another process holds a conflicting lock).
bool relock(FILE* file, LockMode mode);
size_t read(void* buffer, size_t size, size_t count, FILE* file);
size_t write(const void* buffer, size_t size, size_t count, FILE* file);
// 0 on success, as fseek.
int seek(FILE* file, int64_t offset, int origin);
// Writes `size` bytes at `offset` and leaves the stream where it was, so a
// writer that patches a link behind it goes on appending without seeking
// back. The stream's buffer is flushed first unless the bytes lie more than
// a buffer's worth behind the stream's position (given, or else asked of
// the stream), then one positioned write goes to the file. Counts as one
// seek and one write for the fault seam. 0 on success; -1 on a failed
// flush, positioning or short write.
int writeAt(FILE* file, int64_t offset, const void* data, size_t size, int64_t position = -1);
// One piece of a gathered write.
struct Piece {
  const void* data;
  size_t size;
};
// Appends the pieces in order, as that many writes would (the fault seam
// counts one write per non-empty piece). Large bodies bypass the stream's
// buffer: the stream is flushed and the pieces go to the file in one
// gathered write, so the bytes are not copied into the buffer first.
// Returns true when every piece was written.
bool writeGather(FILE* file, const Piece* pieces, size_t count);
// One piece of a scattered read.
struct ReadPiece {
  void* data;
  size_t size;
};
// Reads the file's bytes from `offset` on into the pieces in order, as far
// as the file goes, without moving the stream or using its buffer: one
// positioned, scattered read where the platform has one (preadv; on Windows
// the descriptor is moved, read and put back). For a stream opened
// read-only. Counts as one read for the fault seam. Returns the bytes read:
// fewer than the pieces hold at the end of the file or on a failed read.
size_t readAt(FILE* file, uint64_t offset, const ReadPiece* pieces, size_t count);
// -1 on failure, as ftell.
int64_t tell(FILE* file);
// 0 on success, as fclose; the stream is closed (and its lock given up)
// either way.
int close(FILE* file);
bool error(FILE* file);
// Hands the stream's buffered bytes to the system: 0, or EOF as fflush.
int flush(FILE* file);
// Flushes the stream and makes the file's contents durable on the device
// (fsync, _commit): 0 or -1.
int sync(FILE* file);
// Sets the file's size (shortening it), dropping whatever the stream still
// holds for the part cut off: 0 or -1. Counts as a write for the fault seam.
int truncate(FILE* file, int64_t size);
// Reserves the file's room for `bytes` bytes from `offset` on without
// changing its size or contents (fallocate with FALLOC_FL_KEEP_SIZE), so
// that writing them later costs the file system less: ext4 then maps each
// page to a block it already has instead of reserving one page by page. A
// hint: false, with nothing changed, where the platform or the file system
// has no such call, when the request is more than half the room left on the
// volume (a reservation must never fill a disk for other writers), or when
// the call failed (any part it had reserved is given back).
bool reserve(FILE* file, uint64_t offset, uint64_t bytes);
// Gives back whatever room is reserved past the end of the file: sets the
// file's size to what it is, which frees the blocks behind it. The size and
// contents never change; bytes still in the stream's buffer go out later as
// any append does (with the close, whose failure is reported as before).
// False when the call failed (nothing else happens then).
bool releaseReserved(FILE* file);
// Makes the entries of the folder that holds `path` durable (a created,
// deleted or renamed name); true where the platform has nothing to do.
bool syncFolderOf(const std::wstring& path);

struct FileStatus {
  uint32_t mode = 0;     // permission bits; 0x80 is the owner-write bit
  int64_t modified = 0;  // whole seconds
  uint64_t size = 0;
  // Which file: device (volume) and index (inode) number.
  uint64_t device = 0;
  uint64_t index = 0;
  int64_t modifiedNs = 0;  // nanoseconds, as fine as the platform keeps them
  bool regular = false;    // a regular file (not a folder, FIFO or device)
};
bool status(const std::wstring& path, FileStatus& out);
bool isFolder(const FileStatus& status);
// The status of the file an open stream is on.
bool status(FILE* file, FileStatus& out);
// The same file (device and index) with the same size and modification time.
bool sameState(const FileStatus& a, const FileStatus& b);
// Deletes the regular file at `path` (LuDeleteFile) unless another process
// holds its lock; false when nothing was deleted.
bool deleteUnlessLocked(const std::wstring& path);
// The write-access test of an existing file: the owner-write bit.
bool writable(const std::wstring& path);
// The runtime's text for the current errno, widened.
std::wstring systemErrorText(int errnum);

}  // namespace luio
