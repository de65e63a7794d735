#include "platform/lu_io.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#include <share.h>
#include <windows.h>
#else
#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <unistd.h>
#endif

#include <luAnaf/luEnv.h>
#include "platform/lu_io_fault.h"

namespace luio {

namespace {

// What the library keeps of each stream it opened: its buffer, so that the
// library knows how much a stream can hold back (see writeAt; the runtime
// would otherwise choose the size itself), and its hold on the file's lock.
struct StreamState {
  std::unique_ptr<char[]> bytes;
  size_t size = 0;
  FileLock lock;
};

struct StreamStates {
  std::mutex mutex;
  std::unordered_map<FILE*, StreamState> byStream;
};

StreamStates& streamStates() {
  static StreamStates* states = new StreamStates;  // outlives every stream
  return *states;
}

void giveBuffer(StreamState& state, FILE* file, size_t size) {
  std::unique_ptr<char[]> bytes(new (std::nothrow) char[size]);
  if (bytes == nullptr || std::setvbuf(file, bytes.get(), _IOFBF, size) != 0) return;
  state.bytes = std::move(bytes);
  state.size = size;
}

void keepState(FILE* file, StreamState&& state) {
  StreamStates& all = streamStates();
  std::lock_guard<std::mutex> guard(all.mutex);
  all.byStream[file] = std::move(state);
}

// The size of the stream's own buffer; 0 when it runs on the runtime's.
size_t ownBufferSize(FILE* file) {
  StreamStates& all = streamStates();
  std::lock_guard<std::mutex> guard(all.mutex);
  auto it = all.byStream.find(file);
  return it == all.byStream.end() ? 0 : it->second.size;
}

// Takes the stream's state out of the table; its buffer and lock are given
// up by the caller after the stream is closed.
StreamState takeState(FILE* file) {
  StreamStates& all = streamStates();
  std::lock_guard<std::mutex> guard(all.mutex);
  auto it = all.byStream.find(file);
  if (it == all.byStream.end()) return {};
  StreamState state = std::move(it->second);
  all.byStream.erase(it);
  return state;
}

bool readOnly(const char* mode) { return std::strchr(mode, '+') == nullptr && mode[0] == 'r'; }

// Opens the descriptor without waiting (a FIFO without a writer would block
// an ordinary open), refuses anything but a regular file, and hands it to a
// stream. "w+b" is opened without emptying the file: that waits for its lock.
#if defined(_WIN32)
FILE* openRegular(const std::wstring& path, const char* mode) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES &&
      (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) != 0) {
    errno = (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0 ? EISDIR : EINVAL;
    return nullptr;
  }
  int flags = _O_BINARY | _O_NOINHERIT;
  if (mode[0] == 'w') {
    flags |= _O_RDWR | _O_CREAT;
  } else {
    flags |= readOnly(mode) ? _O_RDONLY : _O_RDWR;
  }
  int fd = -1;
  if (_wsopen_s(&fd, path.c_str(), flags, _SH_DENYNO, _S_IREAD | _S_IWRITE) != 0) return nullptr;
  if (GetFileType(reinterpret_cast<HANDLE>(_get_osfhandle(fd))) != FILE_TYPE_DISK) {
    _close(fd);
    errno = EINVAL;
    return nullptr;
  }
  FILE* file = _fdopen(fd, mode);
  if (file == nullptr) _close(fd);
  return file;
}
#else
FILE* openRegular(const std::wstring& path, const char* mode) {
  int flags = O_NONBLOCK | O_CLOEXEC;
  if (mode[0] == 'w') {
    flags |= O_RDWR | O_CREAT;
  } else {
    flags |= readOnly(mode) ? O_RDONLY : O_RDWR;
  }
  const int fd = ::open(narrowPath(path).c_str(), flags, 0666);
  if (fd < 0) return nullptr;
  struct stat st {};
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    const int err = S_ISDIR(st.st_mode) ? EISDIR : EINVAL;
    ::close(fd);
    errno = err;
    return nullptr;
  }
  const int status = ::fcntl(fd, F_GETFL);
  FILE* file =
      status < 0 || ::fcntl(fd, F_SETFL, status & ~O_NONBLOCK) != 0 ? nullptr : ::fdopen(fd, mode);
  if (file == nullptr) {
    const int err = errno;
    ::close(fd);
    errno = err;
  }
  return file;
}
#endif

// Empties a file just opened with "w+b", now that its lock is held. A new
// file is left alone: some file systems (ext4's auto_da_alloc) take a cut
// to size 0 as a replace and write the file out at its close.
bool emptyFile(FILE* file) {
#if defined(_WIN32)
  const int fd = _fileno(file);
  return _filelengthi64(fd) == 0 || _chsize_s(fd, 0) == 0;
#else
  struct stat st;
  const int fd = fileno(file);
  return (::fstat(fd, &st) == 0 && st.st_size == 0) || ::ftruncate(fd, 0) == 0;
#endif
}

}  // namespace

FILE* open(const std::wstring& path, const char* mode, size_t bufferSize) {
  if (injectFault(LuIoOp::Open)) return nullptr;
  FILE* file = openRegular(path, mode);
  if (file == nullptr) return nullptr;
  StreamState state;
  const LockMode lockMode = readOnly(mode) ? LockMode::Shared : LockMode::Exclusive;
  if (!state.lock.acquire(file, lockMode) || (mode[0] == 'w' && !emptyFile(file))) {
    const int err = errno;
    std::fclose(file);
    errno = err;
    return nullptr;
  }
  giveBuffer(state, file, bufferSize);
  keepState(file, std::move(state));
  return file;
}

bool relock(FILE* file, LockMode mode) {
  StreamStates& all = streamStates();
  std::lock_guard<std::mutex> guard(all.mutex);
  auto it = all.byStream.find(file);
  if (it == all.byStream.end()) {
    errno = EBADF;
    return false;
  }
  FileLock& lock = it->second.lock;
  return lock.held() ? lock.convert(mode) : lock.acquire(file, mode);
}

size_t read(void* buffer, size_t size, size_t count, FILE* file) {
  if (injectFault(LuIoOp::Read)) return 0;
  countBytesRead(uint64_t{size} * count);
  return std::fread(buffer, size, count, file);
}

size_t write(const void* buffer, size_t size, size_t count, FILE* file) {
  if (injectFault(LuIoOp::Write)) return 0;
  return std::fwrite(buffer, size, count, file);
}

namespace {

// Bodies smaller than this go through the stream's buffer.
constexpr size_t kGatherThreshold = size_t{64} << 10;

bool writeEach(FILE* file, const Piece* pieces, size_t count) {
  for (size_t i = 0; i < count; ++i)
    if (pieces[i].size != 0 &&
        std::fwrite(pieces[i].data, 1, pieces[i].size, file) != pieces[i].size)
      return false;
  return true;
}

#if !defined(_WIN32)
// Steps past `done` bytes of the pieces from `first` on, after a short
// gathered read or write: whole pieces are left behind, a partly done one
// is cut to what remains.
void stepPast(iovec* pieces, size_t count, size_t& first, size_t done) {
  while (first < count && done >= pieces[first].iov_len) done -= pieces[first++].iov_len;
  if (done != 0) {
    pieces[first].iov_base = static_cast<char*>(pieces[first].iov_base) + done;
    pieces[first].iov_len -= done;
  }
}

// Flushes the stream and writes the pieces with writev, resuming after short
// writes; the descriptor's position then stands behind them, where the
// stream goes on.
bool writeGathered(FILE* file, const Piece* pieces, size_t count) {
  if (std::fflush(file) != 0) return false;
  const int fd = fileno(file);
  std::vector<iovec> rest;
  rest.reserve(count);
  for (size_t i = 0; i < count; ++i)
    if (pieces[i].size != 0) rest.push_back({const_cast<void*>(pieces[i].data), pieces[i].size});
  size_t first = 0;
  while (first < rest.size()) {
    const int n = static_cast<int>(std::min<size_t>(rest.size() - first, 512));
    ssize_t written = ::writev(fd, rest.data() + first, n);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    stepPast(rest.data(), rest.size(), first, static_cast<size_t>(written));
  }
  return true;
}
#endif

}  // namespace

bool writeGather(FILE* file, const Piece* pieces, size_t count) {
  // The fault seam sees one write per non-empty piece; the pieces before a
  // failing one are written, as separate writes would have been.
  size_t good = count;
  size_t bytes = 0;
  for (size_t i = 0; i < count; ++i) {
    if (pieces[i].size == 0) continue;
    if (injectFault(LuIoOp::Write)) {
      good = i;
      break;
    }
    bytes += pieces[i].size;
  }
  bool ok = false;
#if defined(_WIN32)
  (void)bytes;  // the runtime has no gathered write
  ok = writeEach(file, pieces, good);
#else
  ok = bytes < kGatherThreshold ? writeEach(file, pieces, good) : writeGathered(file, pieces, good);
#endif
  return ok && good == count;
}

namespace {

#if defined(_WIN32)
// The runtime has no positioned read: the descriptor is moved, read from
// piece by piece and put back where the stream's buffer expects it.
size_t readPiecesAt(int fd, uint64_t offset, const ReadPiece* pieces, size_t count) {
  const __int64 at = _lseeki64(fd, 0, SEEK_CUR);
  if (at < 0) return 0;
  size_t total = 0;
  if (_lseeki64(fd, static_cast<__int64>(offset), SEEK_SET) == static_cast<__int64>(offset)) {
    for (size_t i = 0; i < count; ++i) {
      char* bytes = static_cast<char*>(pieces[i].data);
      size_t left = pieces[i].size;
      while (left != 0) {
        const unsigned int ask = static_cast<unsigned int>(std::min<size_t>(left, size_t{1} << 30));
        const int got = _read(fd, bytes, ask);
        if (got <= 0) break;
        bytes += got;
        left -= static_cast<size_t>(got);
        total += static_cast<size_t>(got);
      }
      if (left != 0) break;
    }
  }
  if (_lseeki64(fd, at, SEEK_SET) != at) return 0;
  return total;
}
#else
// preadv, resumed after a short read until the pieces are full, the file
// ends or a read fails.
size_t readPiecesAt(int fd, uint64_t offset, const ReadPiece* pieces, size_t count) {
  // A load reads two pieces at a time: no allocation for a few.
  iovec few[4];
  std::vector<iovec> many;
  if (count > std::size(few)) many.resize(count);
  iovec* rest = many.empty() ? few : many.data();
  size_t pieceCount = 0;
  for (size_t i = 0; i < count; ++i)
    if (pieces[i].size != 0) rest[pieceCount++] = {pieces[i].data, pieces[i].size};
  size_t total = 0;
  size_t first = 0;
  while (first < pieceCount) {
    const int n = static_cast<int>(std::min<size_t>(pieceCount - first, 512));
    const ssize_t got = ::preadv(fd, rest + first, n, static_cast<off_t>(offset + total));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    total += static_cast<size_t>(got);
    stepPast(rest, pieceCount, first, static_cast<size_t>(got));
  }
  return total;
}
#endif

}  // namespace

size_t readAt(FILE* file, uint64_t offset, const ReadPiece* pieces, size_t count) {
  if (injectFault(LuIoOp::Read)) return 0;
  if (offset > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) return 0;
  for (size_t i = 0; i < count; ++i) countBytesRead(pieces[i].size);
#if defined(_WIN32)
  return readPiecesAt(_fileno(file), offset, pieces, count);
#else
  return readPiecesAt(fileno(file), offset, pieces, count);
#endif
}

int seek(FILE* file, int64_t offset, int origin) {
  if (injectFault(LuIoOp::Seek)) return -1;
#if defined(_WIN32)
  return _fseeki64(file, offset, origin);
#else
  return fseeko(file, static_cast<off_t>(offset), origin);
#endif
}

namespace {

int64_t tellStream(FILE* file) {
#if defined(_WIN32)
  return _ftelli64(file);
#else
  return static_cast<int64_t>(ftello(file));
#endif
}

}  // namespace

int writeAt(FILE* file, int64_t offset, const void* data, size_t size, int64_t position) {
  if (injectFault(LuIoOp::Seek)) return -1;
  if (injectFault(LuIoOp::Write)) return -1;
  if (offset < 0) return -1;
  // The stream holds back at most its buffer's worth of the bytes before its
  // position; a patch behind those needs no flush.
  const size_t held = ownBufferSize(file);
  const int64_t here = position >= 0 || held == 0 ? position : tellStream(file);
  if (held == 0 || here < 0 || offset + static_cast<int64_t>(size) > here - int64_t(held)) {
    if (std::fflush(file) != 0) return -1;
  }
#if defined(_WIN32)
  const int fd = _fileno(file);
  // The runtime has no positioned write: move the descriptor, write, and put
  // it back where the (now empty) stream buffer expects it.
  const __int64 at = _lseeki64(fd, 0, SEEK_CUR);
  if (at < 0 || _lseeki64(fd, offset, SEEK_SET) != offset) return -1;
  const int written = _write(fd, data, static_cast<unsigned int>(size));
  if (_lseeki64(fd, at, SEEK_SET) != at) return -1;
  return written == static_cast<int>(size) ? 0 : -1;
#else
  const int fd = fileno(file);
  const char* bytes = static_cast<const char*>(data);
  while (size != 0) {
    const ssize_t written = ::pwrite(fd, bytes, size, static_cast<off_t>(offset));
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return -1;
    bytes += written;
    size -= static_cast<size_t>(written);
    offset += written;
  }
  return 0;
#endif
}

int64_t tell(FILE* file) {
  if (injectFault(LuIoOp::Tell)) return -1;
  return tellStream(file);
}

int close(FILE* file) {
  // The lock is given up after the stream's last bytes went out.
  StreamState state = takeState(file);
  const bool failing = injectFault(LuIoOp::Close);
  const int closed = std::fclose(file);
  if (failing) {
    errno = EIO;
    return EOF;
  }
  return closed;
}

bool error(FILE* file) { return std::ferror(file) != 0; }

int flush(FILE* file) {
  if (injectFault(LuIoOp::Flush)) return EOF;
  return std::fflush(file);
}

int sync(FILE* file) {
  if (injectFault(LuIoOp::Sync)) return -1;
  if (std::fflush(file) != 0) return -1;
#if defined(_WIN32)
  return _commit(_fileno(file)) == 0 ? 0 : -1;
#else
  return ::fsync(fileno(file)) == 0 ? 0 : -1;
#endif
}

int truncate(FILE* file, int64_t size) {
  if (injectFault(LuIoOp::Write)) return -1;
  // What the stream still holds lies behind the cut: what can go out goes
  // out and is cut off; what cannot (a full disk) is dropped, so that it
  // never reaches the file later, at the close.
  std::fflush(file);
#if defined(_WIN32)
  const bool cut = _chsize_s(_fileno(file), size) == 0;
#else
  __fpurge(file);
  const bool cut = ::ftruncate(fileno(file), static_cast<off_t>(size)) == 0;
#endif
  std::clearerr(file);
  return cut ? 0 : -1;
}

#if defined(_WIN32)
bool reserve(FILE*, uint64_t, uint64_t) {
  injectFault(LuIoOp::Reserve);  // counted; the platform has no such call
  return false;
}
bool releaseReserved(FILE*) { return false; }
#else
bool reserve(FILE* file, uint64_t offset, uint64_t bytes) {
  if (injectFault(LuIoOp::Reserve)) return false;
  constexpr uint64_t kLargestOffset = static_cast<uint64_t>(std::numeric_limits<off_t>::max());
  if (bytes == 0 || offset > kLargestOffset || bytes > kLargestOffset - offset) return false;
  const int fd = fileno(file);
  struct statvfs volume;
  if (::fstatvfs(fd, &volume) != 0) return false;
  const uint64_t left = static_cast<uint64_t>(volume.f_bavail) * volume.f_frsize;
  if (bytes > left / 2) return false;
  if (::fallocate(fd, FALLOC_FL_KEEP_SIZE, static_cast<off_t>(offset), static_cast<off_t>(bytes)) ==
      0)
    return true;
  // A failed call may have reserved a part: it goes back at once.
  const int failed = errno;
  releaseReserved(file);
  errno = failed;
  return false;
}

bool releaseReserved(FILE* file) {
  const int fd = fileno(file);
  struct stat st;
  if (::fstat(fd, &st) != 0) return false;
  return ::ftruncate(fd, st.st_size) == 0;
}
#endif

bool syncFolderOf(const std::wstring& path) {
  if (injectFault(LuIoOp::Sync)) return false;
#if defined(_WIN32)
  // NTFS makes its name changes durable itself; a folder cannot be synced.
  (void)path;
  return true;
#else
  std::string folder = narrowPath(path);
  const size_t slash = folder.rfind('/');
  folder = slash == std::string::npos ? "." : slash == 0 ? "/" : folder.substr(0, slash);
  const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool synced = ::fsync(fd) == 0;
  ::close(fd);
  return synced;
#endif
}

#if defined(_WIN32)
namespace {

// Which file the handle is on, and its modification time in 100 ns steps.
void fillIdentity(HANDLE handle, FileStatus& out) {
  BY_HANDLE_FILE_INFORMATION info;
  if (handle == INVALID_HANDLE_VALUE || !GetFileInformationByHandle(handle, &info)) return;
  out.device = info.dwVolumeSerialNumber;
  out.index = (uint64_t{info.nFileIndexHigh} << 32) | info.nFileIndexLow;
  const uint64_t ticks =
      (uint64_t{info.ftLastWriteTime.dwHighDateTime} << 32) | info.ftLastWriteTime.dwLowDateTime;
  out.modifiedNs = static_cast<int64_t>(ticks) * 100;
  out.regular = (info.dwFileAttributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_DEVICE)) == 0 &&
                GetFileType(handle) == FILE_TYPE_DISK;
}

void fillFrom(const struct _stat64& st, FileStatus& out) {
  out.mode = static_cast<uint32_t>(st.st_mode);
  out.modified = static_cast<int64_t>(st.st_mtime);
  out.size = static_cast<uint64_t>(st.st_size);
  out.modifiedNs = out.modified * 1000000000;
  out.regular = (st.st_mode & _S_IFMT) == _S_IFREG;
}

}  // namespace

bool status(const std::wstring& path, FileStatus& out) {
  struct _stat64 st;
  if (_wstat64(path.c_str(), &st) != 0) return false;
  fillFrom(st, out);
  HANDLE handle =
      CreateFileW(path.c_str(), 0, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                  OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (handle != INVALID_HANDLE_VALUE) {
    fillIdentity(handle, out);
    CloseHandle(handle);
  }
  return true;
}

bool status(FILE* file, FileStatus& out) {
  struct _stat64 st;
  if (_fstat64(_fileno(file), &st) != 0) return false;
  fillFrom(st, out);
  fillIdentity(reinterpret_cast<HANDLE>(_get_osfhandle(_fileno(file))), out);
  return true;
}
#else
namespace {

void fillFrom(const struct stat& st, FileStatus& out) {
  out.mode = static_cast<uint32_t>(st.st_mode);
  out.modified = static_cast<int64_t>(st.st_mtime);
  out.size = static_cast<uint64_t>(st.st_size);
  out.device = static_cast<uint64_t>(st.st_dev);
  out.index = static_cast<uint64_t>(st.st_ino);
  out.modifiedNs = static_cast<int64_t>(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
  out.regular = S_ISREG(st.st_mode);
}

}  // namespace

bool status(const std::wstring& path, FileStatus& out) {
  struct stat st;
  if (::stat(narrowPath(path).c_str(), &st) != 0) return false;
  fillFrom(st, out);
  return true;
}

bool status(FILE* file, FileStatus& out) {
  struct stat st;
  if (::fstat(fileno(file), &st) != 0) return false;
  fillFrom(st, out);
  return true;
}
#endif

bool isFolder(const FileStatus& status) {
#if defined(_WIN32)
  return (status.mode & _S_IFMT) == _S_IFDIR;
#else
  return S_ISDIR(status.mode);
#endif
}

bool sameState(const FileStatus& a, const FileStatus& b) {
  return a.device == b.device && a.index == b.index && a.size == b.size &&
         a.modifiedNs == b.modifiedNs;
}

bool deleteUnlessLocked(const std::wstring& path) {
  FileStatus st;
  if (!status(path, st) || !st.regular) return false;
  FileLock hold;
  if (!hold.acquire(path, LockMode::Exclusive)) return false;
  // Windows keeps the name of a file with an open handle: the lock is given
  // up first (another process could take it in between).
  if (!lockSurvivesDelete()) hold.release();
  return LuDeleteFile(path.c_str());
}

bool writable(const std::wstring& path) {
  FileStatus st;
  return status(path, st) && (st.mode & 0x80) != 0;
}

std::wstring systemErrorText(int errnum) { return widen(std::strerror(errnum)); }

}  // namespace luio
