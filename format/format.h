// Every number this library writes to disk, in one place. The layout itself
// is described field by field in docs/format.md.
//
// Written to disk: never renumber anything in this file.
#pragma once

#include <cstddef>
#include <cstdint>

#include <luAnaf/luAfxsRecords.h>

namespace afxs {

// ---- Header ---------------------------------------------------------------
// Ids of the nine header lines, in the order they are written.
enum HeaderLineId : int {
  kLineIdentifier = 0,
  kLineVersion = 1,
  kLineFirstRecord = 2,
  kLinePoint = 3,
  kLineNormal = 4,
  kLineNumPlanes = 5,
  kLineDistBwPlanes = 6,
  kLineState = 7,
  kLineHeaderEnd = 8,
  kHeaderLineCount = 9,
};

struct HeaderKeyword {
  const char* keyword;  // the first word of the line
  const char* format;   // printf-style rest of the line, line feed included
};

// The header keyword table, built once at load. The header is written from
// this table and nowhere else.
const HeaderKeyword& headerKeyword(int id);
// keyword + format of a line, as one printf format.
const char* headerLineFormat(int id);

constexpr const char* kFileIdentifier = "Lumoravel_XS_COP";
// A formatted header line is written with at most this many bytes.
constexpr size_t kMaxHeaderLine = 80;
// "FIRST_RECORD 0x%.8X\n" and "STATE 0x%.8X\n" have a fixed width, which is
// what lets both be rewritten in place.
constexpr size_t kFirstRecordLineSize = 24;
constexpr size_t kStateLineSize = 17;

// ---- Records --------------------------------------------------------------
constexpr uint32_t kEndMark = 0xFFFFFFFF;
constexpr size_t kRecordHeaderSize = 8;    // kind, next
constexpr size_t kFieldHeaderSize = 8;     // identifier, byte count
constexpr size_t kEndMarkSize = 8;         // 0xFFFFFFFF, kind
constexpr size_t kPlaneRecordSize = 24;    // header, plane id, first subset, end mark
constexpr size_t kSubsetRecordHead = 16;   // header, subset id, next subset
constexpr size_t kResultsLinkBlockSize = 12;

// Offsets inside records.
constexpr uint32_t kNextFieldOffset = 4;
constexpr uint32_t kPlaneIdOffset = 8;
constexpr uint32_t kPlaneEndMarkOffset = 16;
constexpr uint32_t kSubsetIdOffset = 8;
constexpr uint32_t kPlaneFirstSubsetOffset = 12;
constexpr uint32_t kSubsetNextSubsetOffset = 12;
constexpr uint32_t kSubsetFirstFieldOffset = 16;
constexpr uint32_t kCamerasBodyOffset = 8;
constexpr uint32_t kResultsBodyOffset = 8;
// Offsets inside a field block (and inside the end mark).
constexpr uint32_t kFieldCountOffset = 4;  // the byte count, or the kind behind 0xFFFFFFFF
constexpr uint32_t kFieldDataOffset = 8;
constexpr size_t kResultsLinkDataSize = 4;

// The smallest plane-subset record: its head, the results link block and the
// end mark. No file holds more plane-subset records than its size allows for.
constexpr uint64_t kMinSubsetRecord = kSubsetRecordHead + kResultsLinkBlockSize + kEndMarkSize;

// ---- Field identifiers ----------------------------------------------------
enum FieldId : uint32_t {
  kFieldPoints = 0,
  kFieldNormals = 1,
  kFieldSegments = 2,
  kFieldAuxFirst = 3,
  kFieldResultsLink = 4,
  kFieldResPoints = 5,
  kFieldDistances = 6,
  kFieldAuxPos = 7,
  kFieldAuxOffsets = 8,
  kFieldAuxCounts = 9,
  kFieldCameras = 0,  // inside a cameras record
  kFieldEnd = 0xFFFFFFFF,
};

// Element size in bytes of each field identifier 0..9 (0 for the results link).
constexpr size_t kPointSize = 24;
constexpr size_t kDistanceSize = 8;
constexpr size_t kIndexSize = 4;
size_t fieldElementSize(uint32_t id);

// The field identifier table, built once at load: identifier -> mask bit.
// Identifier 3 (auxCtrlFirst) is deliberately absent, so a reader finds no
// entry and treats it as a field of mask 0: it is written, never loaded.
uint32_t fieldMaskBit(uint32_t id);
bool fieldInTable(uint32_t id);

static_assert(sizeof(LuVec3) == kPointSize, "points are stored as three binary64");
static_assert(kFirstRecordLineSize == sizeof("FIRST_RECORD 0x00000000\n") - 1, "");
static_assert(kStateLineSize == sizeof("STATE 0x00000000\n") - 1, "");

// ---- Error codes and the lines they are reported with ----------------------
struct ErrorSite {
  uint32_t code;
  int line;
};
// Writer side, source "LuAfxsCreateIface".
constexpr ErrorSite kErrCreateNotWritable{0xc41b0001, 120};
constexpr ErrorSite kErrCreateDelete{0xc41b0002, 127};
constexpr ErrorSite kErrCreateOpen{0xc41b0003, 136};
constexpr ErrorSite kErrCreateHeader{0xc41b000a, 189};
constexpr ErrorSite kErrCamerasRecord{0xc41b0004, 233};
constexpr ErrorSite kErrRecordReopen{0xc41b0011, 262};
constexpr ErrorSite kErrRecordWrite{0xc41b0012, 299};
constexpr ErrorSite kErrSubsetRecord{0xc41b0005, 367};
constexpr ErrorSite kErrCloseState{0xc41b0006, 406};
constexpr ErrorSite kErrDataFlush{0xc41b0013, 576};
// Reader side, source "LuAfxsUserIface".
constexpr ErrorSite kErrReadHeader{0xc41b0007, 283};
constexpr ErrorSite kErrOpenFile{0xc41b0008, 454};
constexpr ErrorSite kErrScanRecords{0xc41b0009, 336};
constexpr ErrorSite kErrUserNewRecord{0xc41b0014, 493};

constexpr const wchar_t* kCreateSource = L"LuAfxsCreateIface";
constexpr const wchar_t* kUserSource = L"LuAfxsUserIface";

// The largest offset a u32 can hold; a file cannot grow past it.
constexpr uint64_t kMaxFileOffset = 0xFFFFFFFFull;

}  // namespace afxs
