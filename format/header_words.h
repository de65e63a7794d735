// The text header, parsed word by word through the keyword table in the
// classic locale: numbers are read as the writer's C-locale printf wrote
// them, whatever global locale the client has set.
#pragma once

#include <cstdint>
#include <istream>
#include <string>

#include <luAnaf/luAfxsRecords.h>

namespace afxs {

// What a header holds. Values read before a failure stay: nothing is rolled
// back, and fields of lines the header lacks keep what they held before.
struct HeaderValues {
  LuAfxsHeader header;  // point, normal, numPlanes, distBwPlanes (version is left alone)
  int version = -1;     // -1 without a VER line
  bool hasVersion = false;
  int32_t firstRecord = 0;
  uint32_t state = 0;
};

enum class HeaderOutcome {
  Parsed,         // up to HEADER_END or the end of the text
  BadIdentifier,  // the first word is not the file identifier
  BadValue,       // a keyword's value cannot be read
};

// Told about each word the parse acts on, after its value was read.
class HeaderObserver {
public:
  virtual ~HeaderObserver() = default;
  // `lineId` is a HeaderLineId, or -1 for an unknown word whose line was
  // skipped; `offset` is where the word begins.
  virtual void word(uint64_t offset, int lineId, const std::string& keyword,
                    const HeaderValues& values) = 0;
  // The value of the keyword at `offset` could not be read.
  virtual void badValue(uint64_t offset, const std::string& keyword) = 0;
  // HEADER_END was read; `end` is the offset behind it (its line feed included).
  virtual void headerEnd(uint64_t end) = 0;
};

// Parses the header from `in` (imbued with the classic locale here). With an
// observer, word offsets are taken with tellg() (the stream must answer it).
HeaderOutcome parseHeader(std::istream& in, HeaderValues& values,
                          HeaderObserver* observer = nullptr);

}  // namespace afxs
