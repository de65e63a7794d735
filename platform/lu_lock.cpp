#include "platform/lu_lock.h"

#include <cerrno>
#include <compare>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "platform/lu_io.h"

namespace luio {

namespace {

struct FileKey {
  uint64_t device = 0;
  uint64_t index = 0;
  auto operator<=>(const FileKey&) const = default;
};

#if defined(_WIN32)
using OsHandle = HANDLE;
const OsHandle kNoHandle = INVALID_HANDLE_VALUE;
#else
using OsHandle = int;
constexpr OsHandle kNoHandle = -1;
#endif

}  // namespace

// The process's one OS lock on one file.
struct LockEntry {
  FileKey key;
  OsHandle handle = kNoHandle;
  int shared = 0;     // holds in shared mode
  int exclusive = 0;  // holds in exclusive mode
  LockMode osMode = LockMode::Shared;
};

namespace {

#if defined(_WIN32)

bool keyOf(HANDLE handle, FileKey& key) {
  BY_HANDLE_FILE_INFORMATION info;
  if (!GetFileInformationByHandle(handle, &info)) return false;
  key.device = info.dwVolumeSerialNumber;
  key.index = (uint64_t{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
  return true;
}

HANDLE handleOf(FILE* file) { return reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))); }

OsHandle duplicate(HANDLE handle) {
  HANDLE out = kNoHandle;
  if (!DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &out, 0, FALSE,
                       DUPLICATE_SAME_ACCESS))
    return kNoHandle;
  return out;
}

void closeHandle(OsHandle handle) { CloseHandle(handle); }

// The locked byte: 2^40, past the end of any file of this format.
OVERLAPPED lockedByte() {
  OVERLAPPED at{};
  at.Offset = 0;
  at.OffsetHigh = 0x100;
  return at;
}

bool osLock(OsHandle handle, LockMode mode) {
  OVERLAPPED at = lockedByte();
  const DWORD flags =
      LOCKFILE_FAIL_IMMEDIATELY | (mode == LockMode::Exclusive ? LOCKFILE_EXCLUSIVE_LOCK : 0);
  return LockFileEx(handle, flags, 0, 1, 0, &at) != 0;
}

void osUnlock(OsHandle handle) {
  OVERLAPPED at = lockedByte();
  UnlockFileEx(handle, 0, 1, 0, &at);
}

// A lock is converted by giving it up and taking the new one; when that is
// refused the old one is taken again.
bool osConvert(OsHandle handle, LockMode from, LockMode to) {
  osUnlock(handle);
  if (osLock(handle, to)) return true;
  osLock(handle, from);
  return false;
}

// Opens the regular file at `path` for its lock only; every sharing allowed,
// so the handle never stands in the way of a read, a write or a delete.
OsHandle openForLock(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0) {
    errno = EINVAL;
    return kNoHandle;
  }
  HANDLE handle = CreateFileW(path.c_str(), GENERIC_READ,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) {
    errno = ENOENT;
    return kNoHandle;
  }
  if (GetFileType(handle) != FILE_TYPE_DISK) {
    CloseHandle(handle);
    errno = EINVAL;
    return kNoHandle;
  }
  return handle;
}

#else

bool keyOf(int fd, FileKey& key) {
  struct stat st;
  if (::fstat(fd, &st) != 0) return false;
  key.device = static_cast<uint64_t>(st.st_dev);
  key.index = static_cast<uint64_t>(st.st_ino);
  return true;
}

int handleOf(FILE* file) { return fileno(file); }

OsHandle duplicate(int fd) { return ::fcntl(fd, F_DUPFD_CLOEXEC, 0); }

void closeHandle(OsHandle fd) { ::close(fd); }

bool osLock(OsHandle fd, LockMode mode) {
  const int op = (mode == LockMode::Exclusive ? LOCK_EX : LOCK_SH) | LOCK_NB;
  for (;;) {
    if (::flock(fd, op) == 0) return true;
    if (errno != EINTR) return false;
  }
}

void osUnlock(OsHandle fd) { ::flock(fd, LOCK_UN); }

// flock converts the lock of the descriptor in place; a refused conversion
// may have given up the old lock, so that one is asked for again.
bool osConvert(OsHandle fd, LockMode from, LockMode to) {
  if (osLock(fd, to)) return true;
  osLock(fd, from);
  return false;
}

OsHandle openForLock(const std::wstring& path) {
  const int fd = ::open(narrowPath(path).c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return kNoHandle;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    const int err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    ::close(fd);
    errno = err;
    return kNoHandle;
  }
  return fd;
}

#endif

struct LockTable {
  std::mutex mutex;
  std::map<FileKey, std::unique_ptr<LockEntry>> entries;
};

LockTable& table() {
  static LockTable* locks = new LockTable;  // outlives every hold
  return *locks;
}

LockMode strongest(const LockEntry& e) {
  return e.exclusive > 0 ? LockMode::Exclusive : LockMode::Shared;
}

int& holdsOf(LockEntry& e, LockMode mode) {
  return mode == LockMode::Exclusive ? e.exclusive : e.shared;
}

// Moves the OS lock to what the holds need; the table's mutex is held.
bool settle(LockEntry& e) {
  const LockMode need = strongest(e);
  if (need == e.osMode) return true;
  if (!osConvert(e.handle, e.osMode, need)) return need == LockMode::Shared;  // kept stronger
  e.osMode = need;
  return true;
}

// Drops one hold; the last one gives up the OS lock. The table's mutex is held.
void drop(LockTable& t, LockEntry* e, LockMode mode) {
  --holdsOf(*e, mode);
  if (e->shared == 0 && e->exclusive == 0) {
    osUnlock(e->handle);
    closeHandle(e->handle);
    t.entries.erase(e->key);
    return;
  }
  settle(*e);
}

// The entry of `key`, made with `handle` (owned: kept or closed here; else
// duplicated) and locked in `mode` when the process holds none yet.
LockEntry* entryFor(LockTable& t, const FileKey& key, OsHandle handle, bool owned, LockMode mode) {
  auto it = t.entries.find(key);
  if (it != t.entries.end()) {
    if (owned) closeHandle(handle);
    return it->second.get();
  }
  OsHandle own = owned ? handle : duplicate(handle);
  if (own == kNoHandle) return nullptr;
  if (!osLock(own, mode)) {
    closeHandle(own);
    errno = EBUSY;
    return nullptr;
  }
  auto entry = std::make_unique<LockEntry>();
  entry->key = key;
  entry->handle = own;
  entry->osMode = mode;
  LockEntry* made = entry.get();
  t.entries.emplace(key, std::move(entry));
  return made;
}

}  // namespace

bool lockSurvivesDelete() {
#if defined(_WIN32)
  return false;
#else
  return true;
#endif
}

FileLock::FileLock(FileLock&& other) noexcept
    : m_entry(std::exchange(other.m_entry, nullptr)), m_mode(other.m_mode) {}

FileLock& FileLock::operator=(FileLock&& other) noexcept {
  if (this != &other) {
    release();
    m_entry = std::exchange(other.m_entry, nullptr);
    m_mode = other.m_mode;
  }
  return *this;
}

FileLock::~FileLock() { release(); }

// Adds this hold in `mode` to `entry` (already in the table), converting
// the OS lock when needed. The table's mutex is held.
bool FileLock::attach(LockEntry* entry, LockMode mode) {
  ++holdsOf(*entry, mode);
  if (!settle(*entry)) {
    LockTable& t = table();
    drop(t, entry, mode);
    errno = EBUSY;
    return false;
  }
  m_entry = entry;
  m_mode = mode;
  return true;
}

bool FileLock::acquire(FILE* file, LockMode mode) {
  if (file == nullptr) {
    errno = EBADF;
    return false;
  }
  FileKey key;
  if (!keyOf(handleOf(file), key)) return false;
  if (m_entry != nullptr && m_entry->key == key) return convert(mode);
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.mutex);
  if (m_entry != nullptr) {
    drop(t, m_entry, m_mode);
    m_entry = nullptr;
  }
  LockEntry* entry = entryFor(t, key, handleOf(file), false, mode);
  return entry != nullptr && attach(entry, mode);
}

bool FileLock::acquire(const std::wstring& path, LockMode mode) {
  OsHandle handle = openForLock(path);
  if (handle == kNoHandle) return false;
  FileKey key;
  if (!keyOf(handle, key)) {
    closeHandle(handle);
    return false;
  }
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.mutex);
  if (m_entry != nullptr) {
    drop(t, m_entry, m_mode);
    m_entry = nullptr;
  }
  LockEntry* entry = entryFor(t, key, handle, true, mode);
  return entry != nullptr && attach(entry, mode);
}

bool FileLock::convert(LockMode mode) {
  if (m_entry == nullptr) {
    errno = EBADF;
    return false;
  }
  if (m_mode == mode) return true;
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.mutex);
  // The new mode is added before the old one goes, so the file is never
  // left without a lock.
  ++holdsOf(*m_entry, mode);
  if (!settle(*m_entry)) {
    --holdsOf(*m_entry, mode);
    errno = EBUSY;
    return false;
  }
  drop(t, m_entry, m_mode);
  m_mode = mode;
  return true;
}

void FileLock::release() {
  if (m_entry == nullptr) return;
  LockTable& t = table();
  std::lock_guard<std::mutex> guard(t.mutex);
  drop(t, m_entry, m_mode);
  m_entry = nullptr;
}

}  // namespace luio
