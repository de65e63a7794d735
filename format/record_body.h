// The words and arrays of one record's body, gathered in file order and
// written in one go (luio::writeGather): field blocks and the closing words,
// without first copying the arrays into the stream's buffer.
#pragma once

#include <cstdint>
#include <vector>

#include "format/io_error.h"
#include "platform/lu_io.h"

namespace afxs {

class RecordBody {
public:
  // One field block: identifier, byte count, raw contents (none for a count
  // of 0). The values must outlive write().
  template <typename T>
  void block(uint32_t id, const std::vector<T>& values) {
    word(id);
    word(static_cast<uint32_t>(values.size() * sizeof(T)));
    m_pieces.push_back({values.data(), values.size() * sizeof(T)});
  }
  void word(uint32_t value) {
    if (m_wordCount == kMaxWords) fail();
    m_words[m_wordCount] = value;
    m_pieces.push_back({&m_words[m_wordCount++], sizeof(uint32_t)});
  }
  // Writes what was gathered; throws when a piece could not be written.
  void write(FILE* f) const {
    if (!luio::writeGather(f, m_pieces.data(), m_pieces.size())) fail();
  }

private:
  // Nine blocks of two words, the results link's three and the end mark's two.
  static constexpr size_t kMaxWords = 23;
  uint32_t m_words[kMaxWords] = {};
  size_t m_wordCount = 0;
  std::vector<luio::Piece> m_pieces;
};

}  // namespace afxs
