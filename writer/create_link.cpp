// LuAfxsCreateLink: creates a cross-section file, writes its text header and
// appends the cameras, plane and plane-subset records, keeping the record
// chain, each plane's subset chain and the FIRST_RECORD and STATE lines up to
// date. The layout is described in docs/format.md.
#include <algorithm>
#include <cerrno>
#include <cwchar>
#include <string>
#include <vector>

#include <luAnaf/luAfxsCreate.h>
#include <luAnaf/luEnv.h>

#include "format/coding.h"
#include "format/format.h"
#include "format/io_error.h"
#include "platform/lu_io.h"

namespace {

constexpr size_t kXSFileBuffer = 1024;  // wide characters, NUL included

// Writes one formatted header line with at most kMaxHeaderLine bytes. A longer
// line is cut there on purpose, line feed and all; an empty one is a failure.
void putHeaderLine(FILE* f, const std::string& line) {
  if (line.empty()) afxs::fail();
  afxs::putBytes(f, line.data(), std::min(line.size(), afxs::kMaxHeaderLine));
}

// Rewrites the header line that starts at `offset` in place, cut the same way,
// without moving the stream from the end of the file.
void patchHeaderLine(FILE* f, int64_t offset, const std::string& line, int64_t position = -1) {
  if (line.empty()) afxs::fail();
  afxs::patchBytes(f, offset, line.data(), std::min(line.size(), afxs::kMaxHeaderLine), position);
}

// The path of cross-section file `number` of `name`, as LuFileName::XSFile
// forms it into a 1024-character buffer. A name too long for the buffer is
// formed in full and cut to 1023 characters, so nothing is ever written past
// the buffer and the path is never silently empty.
std::wstring composeXSPath(const wchar_t* name, uint64_t number) {
  wchar_t buffer[kXSFileBuffer] = {};
  // The result is not checked: the buffer's text is the path.
  LuFileName::XSFile(name, static_cast<uint32_t>(number), 1, buffer, kXSFileBuffer);
  buffer[kXSFileBuffer - 1] = L'\0';
  if (buffer[0] == L'\0' && name != nullptr && name[0] != L'\0') {
    size_t needed = std::wcslen(name) + 32;
    std::vector<wchar_t> wide(needed, L'\0');
    if (LuFileName::XSFile(name, static_cast<uint32_t>(number), 1, wide.data(), wide.size())) {
      size_t length = std::min(std::wcslen(wide.data()), kXSFileBuffer - 1);
      // Never keep half of a UTF-16 surrogate pair.
      if (sizeof(wchar_t) == 2 && length > 0 && wide[length - 1] >= 0xD800 &&
          wide[length - 1] <= 0xDBFF)
        --length;
      return std::wstring(wide.data(), length);
    }
  }
  return std::wstring(buffer);
}

}  // namespace

LuAfxsCreateLink::LuAfxsCreateLink(const wchar_t* path)
    : m_path(path != nullptr && path[0] != L'\0' ? path : L"") {}

LuAfxsCreateLink::LuAfxsCreateLink(const wchar_t* name, uint64_t number)
    : m_path(composeXSPath(name, number)) {}

LuAfxsCreateLink::~LuAfxsCreateLink() {
  try {
    closeFile(true);
    // Intended: a link that was never created successfully (or failed
    // later) removes whatever is at its path; LuDeleteFile refuses a
    // read-only file, so such a file survives.
    // A file whose lock another process holds is that process's: it is
    // left alone (so is anything but a regular file).
    if (m_deleteOnDestroy || !m_ok) luio::deleteUnlessLocked(m_path);
  } catch (...) {
  }
}

bool LuAfxsCreateLink::create(bool keepOpen) {
  // A handle left open by an earlier create on this link is closed first
  // rather than leaked.
  if (m_file != nullptr) closeFile(true);
  m_ok = false;
  m_keepOpen = keepOpen;
  m_reservesAhead = true;

  if (LuFileExist(m_path.c_str()) && !replaceExisting()) return false;
  m_atEnd = false;
  m_file = luio::open(m_path, "w+b", luio::kAppendBuffer);
  if (m_file == nullptr) {
    afxs::report(afxs::kErrCreateOpen, afxs::kCreateSource, m_path);
    return false;
  }

  m_state = 0xFFFFFFFF;
  m_deleteOnDestroy = true;
  m_stateDirty = false;
  m_recordCount = 0;
  m_lastRecordOffset = 0;
  // Intended: the plane links survive a second create (callers create once
  // per link).

  try {
    using afxs::headerLineFormat;
    // Lines 0 and 8 hold no conversion: their text is written as it stands.
    putHeaderLine(m_file, LuStrFrmt::format("%s", headerLineFormat(afxs::kLineIdentifier)));
    putHeaderLine(m_file,
                  LuStrFrmt::format(headerLineFormat(afxs::kLineVersion), m_header.version));
    m_patchOffset = afxs::offset32(m_file);
    putHeaderLine(m_file, LuStrFrmt::format(headerLineFormat(afxs::kLineFirstRecord), 0u));
    putHeaderLine(m_file, LuStrFrmt::format(headerLineFormat(afxs::kLinePoint), m_header.point[0],
                                            m_header.point[1], m_header.point[2]));
    putHeaderLine(m_file, LuStrFrmt::format(headerLineFormat(afxs::kLineNormal), m_header.normal[0],
                                            m_header.normal[1], m_header.normal[2]));
    // Intended: the 64-bit count goes through the 32-bit " %d" (low 32 bits,
    // signed); a reader reads it back unsigned.
    putHeaderLine(m_file,
                  LuStrFrmt::format(headerLineFormat(afxs::kLineNumPlanes),
                                    static_cast<int>(static_cast<uint32_t>(m_header.numPlanes))));
    putHeaderLine(m_file, LuStrFrmt::format(headerLineFormat(afxs::kLineDistBwPlanes),
                                            m_header.distBwPlanes));
    m_stateLineOffset = afxs::offset32(m_file);
    putHeaderLine(m_file, LuStrFrmt::format(headerLineFormat(afxs::kLineState), 0u));
    putHeaderLine(m_file, LuStrFrmt::format("%s", headerLineFormat(afxs::kLineHeaderEnd)));
    m_atEnd = true;
    // A file kept open has its header handed to the system now; a closed
    // one when it is closed (checked there).
    if (keepOpen && luio::flush(m_file) != 0) afxs::fail();
    m_ok = true;
  } catch (...) {
    afxs::report(afxs::kErrCreateHeader, afxs::kCreateSource, m_path);
  }

  if (m_ok && !m_cameras.cameras.empty()) m_ok = createCamerasRecord();
  closeFile(!m_ok);
  return m_ok;
}

// Deletes the existing file at the path before a new one is created in its
// place. A read-only file is refused (0xc41b0001); a folder is never deleted
// (0xc41b0002, as a failed delete); a FIFO, a device and a file another
// process holds locked are refused as a failed open (0xc41b0003); a failed
// delete reports 0xc41b0002.
bool LuAfxsCreateLink::replaceExisting() {
  luio::FileStatus st;
  if (luio::status(m_path, st) && !st.regular) {
    afxs::report(luio::isFolder(st) ? afxs::kErrCreateDelete : afxs::kErrCreateOpen,
                 afxs::kCreateSource, m_path);
    return false;
  }
  if (!luio::writable(m_path)) {
    afxs::report(afxs::kErrCreateNotWritable, afxs::kCreateSource, m_path);
    return false;
  }
  luio::FileLock old;
  if (!old.acquire(m_path, luio::LockMode::Exclusive) && errno == EBUSY) {
    afxs::report(afxs::kErrCreateOpen, afxs::kCreateSource, m_path);
    return false;
  }
  if (!luio::lockSurvivesDelete()) old.release();
  if (!LuDeleteFile(m_path.c_str())) {
    afxs::report(afxs::kErrCreateDelete, afxs::kCreateSource, m_path);
    return false;
  }
  return true;
}

bool LuAfxsCreateLink::reopenForRecord() {
  if (!m_ok) return false;
  if (m_file != nullptr) return true;
  m_atEnd = false;
  m_file = luio::open(m_path, "r+b", luio::kAppendBuffer);
  if (m_file == nullptr) {
    // Intended: ok stays as it is, so a later record may try again.
    afxs::report(afxs::kErrRecordReopen, afxs::kCreateSource, m_path);
    return false;
  }
  return true;
}

int64_t LuAfxsCreateLink::seekAppendPosition() {
  // Seeks on an update stream are costly (each one flushes the stdio buffer
  // and reads a buffer's worth back), so links are patched with positioned
  // writes that leave the stream at the end, and the end is only sought when
  // the stream is elsewhere (after a reopen).
  if (!m_atEnd) {
    afxs::seekEnd(m_file);
    m_atEnd = true;
  }
  return afxs::position(m_file);
}

bool LuAfxsCreateLink::seekEndForRecord() {
  if (m_atEnd) return true;
  try {
    afxs::seekEnd(m_file);
  } catch (...) {
    afxs::report(afxs::kErrRecordWrite, afxs::kCreateSource, m_path);
    m_ok = false;
    return false;
  }
  m_atEnd = true;
  return true;
}

bool LuAfxsCreateLink::createCamerasRecord() {
  if (m_cameras.cameras.empty()) return false;
  if (!reopenForRecord() || !seekEndForRecord()) return false;
  const uint64_t dataBytes = static_cast<uint64_t>(m_cameras.cameras.size()) * afxs::kPointSize;
  try {
    // The whole record must end inside u32 offsets; nothing is written otherwise.
    afxs::requireRoom(seekAppendPosition(), afxs::kRecordHeaderSize + afxs::kFieldHeaderSize +
                                                dataBytes + afxs::kEndMarkSize);
  } catch (...) {
    afxs::report(afxs::kErrCamerasRecord, afxs::kCreateSource, m_path);
    m_ok = false;
    return false;
  }
  FILE* f = createNewRecord(LU_AFXS_REC_CAMERAS);
  if (f == nullptr) return false;
  try {
    afxs::putU32(f, afxs::kFieldCameras);
    afxs::putU32(f, static_cast<uint32_t>(dataBytes));
    afxs::putBytes(f, m_cameras.cameras.data(), static_cast<size_t>(dataBytes));
    afxs::putU32(f, afxs::kEndMark);
    afxs::putU32(f, LU_AFXS_REC_CAMERAS);
    // Success only for bytes that reached the system.
    if (luio::flush(f) != 0) afxs::fail();
  } catch (...) {
    afxs::report(afxs::kErrCamerasRecord, afxs::kCreateSource, m_path);
    m_ok = false;
    return false;
  }
  return true;
}

void LuAfxsCreateLink::closeFile(bool close) {
  if (m_file == nullptr) return;
  if (m_stateDirty) {
    m_stateDirty = false;
    try {
      patchHeaderLine(m_file, m_stateLineOffset,
                      LuStrFrmt::format(afxs::headerLineFormat(afxs::kLineState), m_state));
    } catch (...) {
      afxs::report(afxs::kErrCloseState, afxs::kCreateSource, m_path);
      m_ok = false;
    }
  }
  if (!close && m_keepOpen) return;
  giveBackReserved();
  // The stream's last buffered bytes go out with the close: a failed close
  // is a failed write, reported once (as the STATE line's) unless the link
  // has failed already.
  const int closed = luio::close(m_file);
  m_file = nullptr;
  if (closed != 0 && m_ok) {
    afxs::report(afxs::kErrCloseState, afxs::kCreateSource, m_path);
    m_ok = false;
  }
}

bool LuAfxsCreateLink::closeDurably() {
  if (!reopenForRecord()) return false;
  int64_t end = -1;
  try {
    end = seekAppendPosition();
  } catch (...) {
  }
  const bool keepOpen = m_keepOpen;
  m_keepOpen = true;
  closeFile(false);  // the STATE line, when it changed
  m_keepOpen = keepOpen;
  // Before the sync, so that the file on the device holds no room behind
  // its end.
  giveBackReserved();
  if (m_ok && (end < 0 || luio::sync(m_file) != 0)) {
    afxs::report(afxs::kErrCloseState, afxs::kCreateSource, m_path);
    m_ok = false;
  }
  closeFile(true);
  luio::FileStatus st;
  if (m_ok && (!luio::status(m_path, st) || st.size != static_cast<uint64_t>(end))) {
    afxs::report(afxs::kErrCloseState, afxs::kCreateSource, m_path);
    m_ok = false;
  }
  return m_ok;
}

void LuAfxsCreateLink::release() { m_deleteOnDestroy = false; }

bool LuAfxsCreateLink::reserve(uint64_t bytes) {
  if (!m_ok || !m_keepOpen || m_file == nullptr) return false;
  int64_t end = -1;
  try {
    end = seekAppendPosition();
  } catch (...) {
    return false;
  }
  if (end < 0 || !luio::reserve(m_file, static_cast<uint64_t>(end), bytes)) return false;
  m_reservedEnd = std::max(m_reservedEnd, static_cast<uint64_t>(end) + bytes);
  return true;
}

void LuAfxsCreateLink::giveBackReserved() {
  if (m_reservedEnd == 0) return;
  // Room reserved and not written goes back; the file stays as it is.
  m_reservedEnd = 0;
  luio::releaseReserved(m_file);
}

void LuAfxsCreateLink::reserveAhead(uint64_t end, uint64_t bytes) {
  constexpr uint64_t kMiB = uint64_t{1} << 20;
  // Small files never pay for a reservation; a large one reserves as much
  // again as it holds, so a growing file makes a few calls, not one per
  // record.
  constexpr uint64_t kFrom = kMiB;
  constexpr uint64_t kLeast = kMiB;
  constexpr uint64_t kMost = 64 * kMiB;
  const uint64_t needed = end + bytes;
  if (!m_reservesAhead || !m_keepOpen || m_file == nullptr || needed < kFrom ||
      needed <= m_reservedEnd)
    return;
  const uint64_t target = needed + std::clamp(end, kLeast, kMost);
  const uint64_t from = std::max(end, m_reservedEnd);
  // After a refusal m_reservedEnd may name more room than is left: the close
  // gives back whatever is there all the same.
  if (luio::reserve(m_file, from, target - from))
    m_reservedEnd = target;
  else
    m_reservesAhead = false;
}

void LuAfxsCreateLink::setHeader(const LuAfxsHeader& header) { m_header = header; }

void LuAfxsCreateLink::setCameras(const LuAfxsCamerasTable& cameras) {
  m_cameras.cameras = cameras.cameras;
}

FILE* LuAfxsCreateLink::createNewRecord(luafxs_records_en kind) {
  if (!reopenForRecord()) return nullptr;
  try {
    const int64_t end = seekAppendPosition();
    // A record header that would end past u32 offsets is refused before
    // anything is written, so the records before it stay intact.
    afxs::requireRoom(end, afxs::kRecordHeaderSize);
    const uint32_t recordOffset = static_cast<uint32_t>(end);
    afxs::putU32(m_file, kind);
    const uint32_t nextField = recordOffset + afxs::kNextFieldOffset;
    afxs::putU32(m_file, 0);

    // The patch lies before the new record (in the header or an earlier
    // record); the stream stays behind the new record's header.
    const int64_t behindHeader = end + static_cast<int64_t>(afxs::kRecordHeaderSize);
    if (m_recordCount != 0) {
      afxs::patchU32(m_file, m_patchOffset, recordOffset, behindHeader);
    } else {
      patchHeaderLine(
          m_file, m_patchOffset,
          LuStrFrmt::format(afxs::headerLineFormat(afxs::kLineFirstRecord), recordOffset),
          behindHeader);
    }
    ++m_recordCount;
    m_lastRecordOffset = recordOffset;
    m_patchOffset = nextField;
    return m_file;
  } catch (...) {
    afxs::report(afxs::kErrRecordWrite, afxs::kCreateSource, m_path);
    m_ok = false;
    return nullptr;
  }
}

FILE* LuAfxsCreateLink::createPlaneSubsetRecord(uint32_t planeId, uint32_t subsetId) {
  if (!reopenForRecord() || !seekEndForRecord()) return nullptr;
  const bool newPlane = m_planeLinks.find(planeId) == m_planeLinks.end();
  try {
    // The plane record (if any) and the subset record's head must end inside
    // u32 offsets; nothing is written otherwise.
    afxs::requireRoom(seekAppendPosition(),
                      (newPlane ? afxs::kPlaneRecordSize : 0) + afxs::kSubsetRecordHead);
  } catch (...) {
    afxs::report(afxs::kErrSubsetRecord, afxs::kCreateSource, m_path);
    m_ok = false;
    return nullptr;
  }

  if (newPlane) {
    FILE* f = createNewRecord(LU_AFXS_REC_PLANE);
    if (f == nullptr) return nullptr;
    try {
      afxs::putU32(f, planeId);
      const uint32_t firstSubsetField = m_lastRecordOffset + afxs::kPlaneFirstSubsetOffset;
      afxs::putU32(f, 0);
      afxs::putU32(f, afxs::kEndMark);
      afxs::putU32(f, LU_AFXS_REC_PLANE);
      m_planeLinks[planeId] = firstSubsetField;
    } catch (...) {
      afxs::report(afxs::kErrSubsetRecord, afxs::kCreateSource, m_path);
      m_ok = false;
      return nullptr;
    }
  }

  FILE* f = createNewRecord(LU_AFXS_REC_PLANE_SUBSET);
  if (f == nullptr) return nullptr;
  try {
    afxs::putU32(f, subsetId);
    const uint32_t nextSubsetField = m_lastRecordOffset + afxs::kSubsetNextSubsetOffset;
    afxs::putU32(f, 0);
    uint32_t& planeLink = m_planeLinks[planeId];
    const int64_t staleEnd = int64_t{planeLink} + 4;
    afxs::patchU32(f, planeLink, m_lastRecordOffset, int64_t{nextSubsetField} + 4);
    // A stale link of an earlier create may lie past this head: the file then
    // ends behind it, and the record goes on from there.
    if (staleEnd > int64_t{nextSubsetField} + 4) afxs::seekTo(f, staleEnd);
    planeLink = nextSubsetField;
    return f;
  } catch (...) {
    afxs::report(afxs::kErrSubsetRecord, afxs::kCreateSource, m_path);
    m_ok = false;
    return nullptr;
  }
}

void LuAfxsCreateLink::updateState(uint32_t mask) {
  m_state &= mask;
  m_stateDirty = true;
}
