#include "format/header_words.h"

#include <locale>

#include "format/format.h"

namespace afxs {
namespace {

// The line id of a keyword, -1 for a word the table lacks. The identifier
// is only a keyword as the first word.
int lineOf(const std::string& word) {
  for (int id = kLineVersion; id < kHeaderLineCount; ++id)
    if (word == headerKeyword(id).keyword) return id;
  return -1;
}

// Reads the value(s) of line `id` into `v`.
bool readValue(std::istream& in, int id, HeaderValues& v) {
  switch (id) {
    case kLineVersion:
      v.hasVersion = true;
      return static_cast<bool>(in >> std::dec >> v.version);
    case kLineFirstRecord:
      // Hexadecimal reading accepts the "0x" prefix the writer puts there.
      return static_cast<bool>(in >> std::hex >> v.firstRecord);
    case kLinePoint:
      return static_cast<bool>(in >> v.header.point[0] >> v.header.point[1] >> v.header.point[2]);
    case kLineNormal:
      return static_cast<bool>(in >> v.header.normal[0] >> v.header.normal[1] >>
                               v.header.normal[2]);
    case kLineNumPlanes:
      // Intended: written as a signed 32-bit " %d", read back as unsigned 64-bit.
      return static_cast<bool>(in >> std::dec >> v.header.numPlanes);
    case kLineDistBwPlanes:
      return static_cast<bool>(in >> v.header.distBwPlanes);
    case kLineState:
      return static_cast<bool>(in >> std::hex >> v.state);
    default:
      return true;
  }
}

uint64_t offsetOf(std::istream& in) {
  const std::streamoff at = in.tellg();
  return at < 0 ? 0 : static_cast<uint64_t>(at);
}

}  // namespace

HeaderOutcome parseHeader(std::istream& in, HeaderValues& values, HeaderObserver* observer) {
  in.imbue(std::locale::classic());
  std::string word;
  if (!(in >> word) || word != kFileIdentifier) return HeaderOutcome::BadIdentifier;
  for (;;) {
    uint64_t at = 0;
    if (observer != nullptr) {
      in >> std::ws;
      at = offsetOf(in);
    }
    if (!(in >> word)) break;
    const int id = lineOf(word);
    if (id == kLineHeaderEnd) {
      if (observer != nullptr) {
        observer->word(at, id, word, values);
        uint64_t end = offsetOf(in);
        if (in.peek() == '\n') end += 1;
        observer->headerEnd(end);
      }
      break;
    }
    if (id < 0) {
      // An unknown keyword: the rest of its line is skipped.
      in.ignore(0x7FFFFFFF, '\n');
    } else if (!readValue(in, id, values)) {
      if (observer != nullptr) observer->badValue(at, word);
      return HeaderOutcome::BadValue;
    }
    if (observer != nullptr) observer->word(at, id, word, values);
  }
  return HeaderOutcome::Parsed;
}

}  // namespace afxs
