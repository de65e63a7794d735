// Where the decoder's bytes come from: reads at absolute offsets of a file,
// served to the chain walks from one large window, and the text header as a
// narrow input stream.
#pragma once

#include <cstdint>
#include <cstdio>
#include <streambuf>
#include <string>
#include <vector>

namespace afxs {

class ByteSource {
public:
  virtual ~ByteSource() = default;
  // Reads up to `size` bytes at offset `at`; returns how many it got (fewer
  // at the end of the file or when a read failed).
  virtual size_t readAt(uint64_t at, void* data, size_t size) = 0;
  // Reads exactly `size` bytes at `at`.
  bool readExactly(uint64_t at, void* data, size_t size) {
    return size == 0 || readAt(at, data, size) == size;
  }
  bool u32At(uint64_t at, uint32_t& value) { return readExactly(at, &value, sizeof value); }
};

// A file opened read-only through the I/O layer, with its size taken once.
class FileSource final : public ByteSource {
public:
  explicit FileSource(const std::wstring& path);
  ~FileSource() override;
  FileSource(const FileSource&) = delete;
  FileSource& operator=(const FileSource&) = delete;

  bool ok() const { return m_ok; }
  uint64_t size() const { return m_size; }
  // Whether `bytes` bytes starting at `at` lie inside the file.
  bool has(uint64_t at, uint64_t bytes) const { return at <= m_size && bytes <= m_size - at; }
  size_t readAt(uint64_t at, void* data, size_t size) override;

private:
  FILE* m_file = nullptr;
  uint64_t m_size = 0;
  bool m_ok = false;
};

// Small reads served from one window of another source, refilled where a
// read falls outside it: a chain walk costs a read per window instead of one
// per record, and allocates nothing per record. A refill that starts less
// than kDenseGap past the end of the last window (records packed densely)
// reads a large window; one further on (records holding arrays of more than
// a few kilobytes) reads a small one, so that a scan of a large file does
// not read the arrays it steps over. The window grows to its large size
// once, on the first dense refill.
class WindowSource final : public ByteSource {
public:
  static constexpr size_t kSmallWindow = 4 * 1024;
  static constexpr size_t kLargeWindow = 64 * 1024;
  // Past this gap a system call per small window costs less than copying
  // the bytes in between through a large one.
  static constexpr size_t kDenseGap = 8 * 1024;
  explicit WindowSource(ByteSource& base) : m_base(base), m_window(kSmallWindow) {}
  size_t readAt(uint64_t at, void* data, size_t size) override;

private:
  ByteSource& m_base;
  std::vector<uint8_t> m_window;
  uint64_t m_start = 0;
  size_t m_filled = 0;
};

// The file of a stream opened read-only, read at absolute offsets with
// positioned reads (luio::readAt) that neither move the stream nor go
// through its buffer. A read larger than the window goes straight into the
// caller's memory, and the same system call reads the next kReadAhead bytes
// into the window: the small reads that follow (the next block's identifier
// and count, a small block, the end mark and the next record's head) come
// from there. So a record of large blocks costs one system call per block
// and no copy through a buffer; a read of the window's size or less refills
// the whole window.
class PositionedSource final : public ByteSource {
public:
  static constexpr size_t kWindow = 4 * 1024;
  static constexpr size_t kReadAhead = 512;
  explicit PositionedSource(FILE* stream) : m_stream(stream) {}
  FILE* stream() const { return m_stream; }
  size_t readAt(uint64_t at, void* data, size_t size) override;

private:
  FILE* m_stream;
  uint64_t m_start = 0;
  size_t m_filled = 0;
  uint8_t m_window[kWindow];
};

// A read-only stream buffer over a source from its first byte, so that the
// header can be parsed as words; tellg() gives the offset of the next byte.
// It reads as the reader's text-mode header stream does: where the platform's
// text mode ends the input at a byte (Ctrl-Z on Windows), so does this.
class HeaderStreamBuf final : public std::streambuf {
public:
  explicit HeaderStreamBuf(ByteSource& source) : m_source(source) {
    setg(m_buffer, m_buffer, m_buffer);
  }

protected:
  int_type underflow() override;
  pos_type seekoff(off_type off, std::ios_base::seekdir dir,
                   std::ios_base::openmode which) override;

private:
  ByteSource& m_source;
  char m_buffer[16384];
  uint64_t m_consumed = 0;  // bytes of the source read into the buffer so far
  bool m_ended = false;     // the text mode's end byte was met
};

}  // namespace afxs
