#include "format/byte_source.h"

#include <algorithm>
#include <cstring>

#include "platform/lu_io.h"

namespace afxs {

FileSource::FileSource(const std::wstring& path) : m_file(luio::open(path, "rb")) {
  if (m_file == nullptr) return;
  if (luio::seek(m_file, 0, SEEK_END) != 0) return;
  const int64_t size = luio::tell(m_file);
  if (size < 0) return;
  m_size = static_cast<uint64_t>(size);
  m_ok = true;
}

FileSource::~FileSource() {
  if (m_file != nullptr) luio::close(m_file);
}

size_t FileSource::readAt(uint64_t at, void* data, size_t size) {
  if (!m_ok || at > m_size) return 0;
  const size_t inFile = static_cast<size_t>(std::min<uint64_t>(size, m_size - at));
  if (inFile == 0) return 0;
  if (luio::seek(m_file, static_cast<int64_t>(at), SEEK_SET) != 0) return 0;
  return luio::read(data, 1, inFile, m_file);
}

size_t WindowSource::readAt(uint64_t at, void* data, size_t size) {
  if (size > kSmallWindow) return m_base.readAt(at, data, size);
  if (at < m_start || at - m_start + size > m_filled) {
    const bool dense = m_filled != 0 && at >= m_start && at - m_start < m_filled + kDenseGap;
    if (dense && m_window.size() < kLargeWindow) m_window.resize(kLargeWindow);
    m_start = at;
    m_filled = m_base.readAt(at, m_window.data(), dense ? kLargeWindow : kSmallWindow);
  }
  const size_t got = at - m_start >= m_filled ? 0 : std::min(size, m_filled - (at - m_start));
  if (got != 0) std::memcpy(data, m_window.data() + (at - m_start), got);
  return got;
}

size_t PositionedSource::readAt(uint64_t at, void* data, size_t size) {
  auto* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  if (at >= m_start && at - m_start < m_filled) {
    const size_t inWindow = static_cast<size_t>(at - m_start);
    done = std::min(size, m_filled - inWindow);
    std::memcpy(out, m_window + inWindow, done);
    if (done == size) return size;
  }
  const uint64_t from = at + done;
  const size_t rest = size - done;
  m_start = from;
  m_filled = 0;
  if (rest <= kWindow) {
    const luio::ReadPiece window{m_window, kWindow};
    m_filled = luio::readAt(m_stream, from, &window, 1);
    const size_t got = std::min(rest, m_filled);
    std::memcpy(out + done, m_window, got);
    return done + got;
  }
  const luio::ReadPiece pieces[2] = {{out + done, rest}, {m_window, kReadAhead}};
  const size_t got = luio::readAt(m_stream, from, pieces, 2);
  if (got <= rest) return done + got;
  m_start = from + rest;
  m_filled = got - rest;
  return size;
}

HeaderStreamBuf::int_type HeaderStreamBuf::underflow() {
  if (gptr() < egptr()) return traits_type::to_int_type(*gptr());
  if (m_ended) return traits_type::eof();
  size_t n = m_source.readAt(m_consumed, m_buffer, sizeof m_buffer);
  if (luio::kTextModeEndByte >= 0) {
    const void* end = std::memchr(m_buffer, luio::kTextModeEndByte, n);
    if (end != nullptr) {
      n = static_cast<size_t>(static_cast<const char*>(end) - m_buffer);
      m_ended = true;
    }
  }
  if (n == 0) return traits_type::eof();
  m_consumed += n;
  setg(m_buffer, m_buffer, m_buffer + n);
  return traits_type::to_int_type(*gptr());
}

// Only the question "where am I" is answered; the stream never moves back.
HeaderStreamBuf::pos_type HeaderStreamBuf::seekoff(off_type off, std::ios_base::seekdir dir,
                                                   std::ios_base::openmode which) {
  if (off != 0 || dir != std::ios_base::cur || (which & std::ios_base::in) == 0)
    return pos_type(off_type(-1));
  return pos_type(static_cast<off_type>(m_consumed - static_cast<uint64_t>(egptr() - gptr())));
}

}  // namespace afxs
