#include "platform/lu_io.h"

#include <sys/stat.h>
#include <sys/types.h>
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#if defined(_WIN32)
#include <io.h>
#include <windows.h>
#else
#include <sys/uio.h>
#include <unistd.h>
#endif

#include <luAnaf/luIoFault.h>

namespace {

struct FaultState {
  uint64_t counts[6] = {0, 0, 0, 0, 0, 0};
  LuIoOp armedOp = LuIoOp::Any;
  uint64_t armedAt = 0;  // 0: disarmed
  bool sticky = false;
  bool fired = false;
};

FaultState& faults() {
  static FaultState state;
  return state;
}

// Counts one call of op and tells whether the armed fault hits it.
bool injectFault(LuIoOp op) {
  FaultState& f = faults();
  uint64_t& ofKind = f.counts[static_cast<int>(op)];
  uint64_t& ofAny = f.counts[static_cast<int>(LuIoOp::Any)];
  ++ofKind;
  ++ofAny;
  if (f.armedAt == 0) return false;
  if (f.armedOp != LuIoOp::Any && f.armedOp != op) return false;
  uint64_t n = f.armedOp == LuIoOp::Any ? ofAny : ofKind;
  if (n == f.armedAt || (f.sticky && n > f.armedAt)) {
    f.fired = true;
    errno = EIO;
    return true;
  }
  return false;
}

void arm(LuIoOp op, uint64_t nth, bool sticky) {
  FaultState& f = faults();
  for (auto& c : f.counts) c = 0;
  f.armedOp = op;
  f.armedAt = nth;
  f.sticky = sticky;
  f.fired = false;
}

}  // namespace

void luIoFaultArm(LuIoOp op, uint64_t nth) { arm(op, nth, false); }
void luIoFaultArmSticky(LuIoOp op, uint64_t nth) { arm(op, nth, true); }
void luIoFaultDisarm() {
  faults().armedAt = 0;
  faults().sticky = false;
}
bool luIoFaultFired() { return faults().fired; }
uint64_t luIoCallCount(LuIoOp op) { return faults().counts[static_cast<int>(op)]; }
void luIoResetCounts() {
  for (auto& c : faults().counts) c = 0;
}

namespace luio {

std::string narrowPath(const std::wstring& path) {
  std::string out;
  out.reserve(path.size());
  for (size_t i = 0; i < path.size(); ++i) {
    uint32_t c = static_cast<uint32_t>(path[i]);
    // UTF-16 surrogate pairs (wchar_t of 16 bits) become one code point.
    if (c >= 0xD800 && c <= 0xDBFF && i + 1 < path.size()) {
      uint32_t lo = static_cast<uint32_t>(path[i + 1]);
      if (lo >= 0xDC00 && lo <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (lo - 0xDC00);
        ++i;
      }
    }
    if (c < 0x80) {
      out += static_cast<char>(c);
    } else if (c < 0x800) {
      out += static_cast<char>(0xC0 | (c >> 6));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      out += static_cast<char>(0xE0 | (c >> 12));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x110000) {
      out += static_cast<char>(0xF0 | (c >> 18));
      out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
      out += '?';
    }
  }
  return out;
}

std::wstring widen(const std::string& text) {
  std::wstring out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    unsigned char b = static_cast<unsigned char>(text[i]);
    uint32_t c = b;
    size_t extra = 0;
    if (b >= 0xF0) {
      c = b & 0x07;
      extra = 3;
    } else if (b >= 0xE0) {
      c = b & 0x0F;
      extra = 2;
    } else if (b >= 0xC0) {
      c = b & 0x1F;
      extra = 1;
    }
    if (extra != 0 && i + extra >= text.size()) {
      out += static_cast<wchar_t>(b);  // truncated sequence: keep the byte
      ++i;
      continue;
    }
    for (size_t k = 1; k <= extra; ++k)
      c = (c << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3F);
    i += extra + 1;
    if (sizeof(wchar_t) == 2 && c >= 0x10000) {
      c -= 0x10000;
      out += static_cast<wchar_t>(0xD800 + (c >> 10));
      out += static_cast<wchar_t>(0xDC00 + (c & 0x3FF));
    } else {
      out += static_cast<wchar_t>(c);
    }
  }
  return out;
}

namespace {

// The buffers of the open streams. Each stream gets one of its own, so that
// the library knows how much a stream can hold back (see writeAt); the
// runtime would otherwise choose the size itself.
struct StreamBuffer {
  std::unique_ptr<char[]> bytes;
  size_t size = 0;
};

struct StreamBuffers {
  std::mutex mutex;
  std::unordered_map<FILE*, StreamBuffer> byStream;
};

StreamBuffers& streamBuffers() {
  static StreamBuffers* buffers = new StreamBuffers;  // outlives every stream
  return *buffers;
}

void giveBuffer(FILE* file, size_t size) {
  StreamBuffer buffer{std::unique_ptr<char[]>(new (std::nothrow) char[size]), size};
  if (buffer.bytes == nullptr || std::setvbuf(file, buffer.bytes.get(), _IOFBF, size) != 0) return;
  StreamBuffers& all = streamBuffers();
  std::lock_guard<std::mutex> lock(all.mutex);
  all.byStream[file] = std::move(buffer);
}

// The size of the stream's own buffer; 0 when it runs on the runtime's.
size_t ownBufferSize(FILE* file) {
  StreamBuffers& all = streamBuffers();
  std::lock_guard<std::mutex> lock(all.mutex);
  auto it = all.byStream.find(file);
  return it == all.byStream.end() ? 0 : it->second.size;
}

// Takes the stream's buffer out of the table; it is freed by the caller
// after the stream is closed.
std::unique_ptr<char[]> takeBuffer(FILE* file) {
  StreamBuffers& all = streamBuffers();
  std::lock_guard<std::mutex> lock(all.mutex);
  auto it = all.byStream.find(file);
  if (it == all.byStream.end()) return nullptr;
  std::unique_ptr<char[]> buffer = std::move(it->second.bytes);
  all.byStream.erase(it);
  return buffer;
}

}  // namespace

FILE* open(const std::wstring& path, const char* mode, size_t bufferSize) {
  if (injectFault(LuIoOp::Open)) return nullptr;
#if defined(_WIN32)
  std::wstring wmode(mode, mode + std::strlen(mode));
  FILE* file = _wfopen(path.c_str(), wmode.c_str());
#else
  FILE* file = std::fopen(narrowPath(path).c_str(), mode);
#endif
  if (file != nullptr) giveBuffer(file, bufferSize);
  return file;
}

size_t read(void* buffer, size_t size, size_t count, FILE* file) {
  if (injectFault(LuIoOp::Read)) return 0;
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
    size_t done = static_cast<size_t>(written);
    while (first < rest.size() && done >= rest[first].iov_len) done -= rest[first++].iov_len;
    if (done != 0) {
      rest[first].iov_base = static_cast<char*>(rest[first].iov_base) + done;
      rest[first].iov_len -= done;
    }
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
  std::unique_ptr<char[]> buffer = takeBuffer(file);
  return std::fclose(file);
}

bool error(FILE* file) { return std::ferror(file) != 0; }

bool status(const std::wstring& path, FileStatus& out) {
#if defined(_WIN32)
  struct _stat64 st;
  if (_wstat64(path.c_str(), &st) != 0) return false;
#else
  struct stat st;
  if (::stat(narrowPath(path).c_str(), &st) != 0) return false;
#endif
  out.mode = static_cast<uint32_t>(st.st_mode);
  out.modified = static_cast<int64_t>(st.st_mtime);
  out.size = static_cast<uint64_t>(st.st_size);
  return true;
}

bool writable(const std::wstring& path) {
  FileStatus st;
  return status(path, st) && (st.mode & 0x80) != 0;
}

std::wstring systemErrorText(int errnum) { return widen(std::strerror(errnum)); }

}  // namespace luio
