// The two fixed tables of the format, built once when the library is loaded.
#include <array>
#include <map>
#include <string>

#include "format/format.h"

namespace afxs {
namespace {

struct HeaderTable {
  std::array<HeaderKeyword, kHeaderLineCount> lines{{
      {"Lumoravel_XS_COP", "\n"},
      {"VER", " %d\n"},
      {"FIRST_RECORD", " 0x%.8X\n"},
      {"POINT", " %f %f %f\n"},
      {"NORMAL", " %f %f %f\n"},
      {"NUM_PLANES", " %d\n"},
      {"DIST_BW_PLANES", " %f\n"},
      {"STATE", " 0x%.8X\n"},
      {"HEADER_END", "\n"},
  }};
  std::array<std::string, kHeaderLineCount> formats;
  HeaderTable() {
    for (int i = 0; i < kHeaderLineCount; ++i)
      formats[i] = std::string(lines[i].keyword) + lines[i].format;
  }
};

const HeaderTable kHeaderTable;

// Identifier -> mask bit, in the order the format defines them. Identifier 3
// is absent on purpose (see format.h).
const std::map<uint32_t, uint32_t> kFieldTable{
    {0, 1}, {2, 2}, {1, 4}, {8, 8}, {9, 8}, {7, 8}, {5, 16}, {6, 32}, {4, 0}, {0xFFFFFFFF, 0},
};

}  // namespace

const HeaderKeyword& headerKeyword(int id) { return kHeaderTable.lines.at(static_cast<size_t>(id)); }
const char* headerLineFormat(int id) { return kHeaderTable.formats.at(static_cast<size_t>(id)).c_str(); }

uint32_t fieldMaskBit(uint32_t id) {
  auto it = kFieldTable.find(id);
  return it == kFieldTable.end() ? 0 : it->second;
}

bool fieldInTable(uint32_t id) { return kFieldTable.count(id) != 0; }

size_t fieldElementSize(uint32_t id) {
  switch (id) {
    case kFieldPoints:
    case kFieldNormals:
    case kFieldResPoints:
      return kPointSize;
    case kFieldDistances:
      return kDistanceSize;
    case kFieldSegments:
    case kFieldAuxFirst:
    case kFieldAuxPos:
    case kFieldAuxOffsets:
    case kFieldAuxCounts:
      return kIndexSize;
    default:
      return 0;
  }
}

}  // namespace afxs
