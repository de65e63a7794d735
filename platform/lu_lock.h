// One writer at a time: the advisory lock of a file, shared for reading and
// exclusive for changing it, taken without ever waiting. Another process
// that holds a conflicting lock makes the request fail at once (errno
// EBUSY); inside one process requests never conflict: the process holds one
// OS lock per file (one dedicated descriptor, found by the file's device and
// index), counted per mode, taken by the first holder and converted as the
// strongest mode held changes. POSIX flock; Windows LockFileEx on one byte
// at 2^40, far beyond any file, so it never blocks a read or write.
#pragma once

#include <cstdio>
#include <string>

namespace luio {

enum class LockMode : int { Shared = 1, Exclusive = 2 };

// Whether a file may be deleted and replaced while this process holds its
// lock: true on POSIX; on Windows an open handle keeps the file's name, so
// the lock is given up before a delete.
bool lockSurvivesDelete();

struct LockEntry;

// One hold on a file's lock. Move-only; the destructor releases it.
class FileLock {
public:
  FileLock() = default;
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;
  FileLock(FileLock&& other) noexcept;
  FileLock& operator=(FileLock&& other) noexcept;
  ~FileLock();

  // Takes the lock of the file `file` is open on in `mode`, or converts this
  // hold to `mode` when it already holds that file's lock. False, with errno
  // EBUSY, when another process holds a conflicting lock; the hold is then
  // as it was.
  bool acquire(FILE* file, LockMode mode);
  // The same for the regular file at `path`, opened without waiting. False
  // with the open's errno when it cannot be opened or is not a regular file.
  bool acquire(const std::wstring& path, LockMode mode);
  // Converts this hold to `mode` (it must be held); false with errno EBUSY
  // as acquire.
  bool convert(LockMode mode);
  void release();
  bool held() const { return m_entry != nullptr; }

private:
  bool attach(LockEntry* entry, LockMode mode);

  LockEntry* m_entry = nullptr;
  LockMode m_mode = LockMode::Shared;
};

}  // namespace luio
