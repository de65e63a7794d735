// LuAfxsUserLink: the reading and updating side's handle on one existing
// cross-section file (source "LuAfxsUserIface"). See docs/format.md for the
// layout it parses.
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include <luAnaf/luAfxsUser.h>
#include <luAnaf/luEnv.h>

#include "format/byte_source.h"
#include "format/coding.h"
#include "format/decoder.h"
#include "format/format.h"
#include "format/header_words.h"
#include "format/io_error.h"
#include "platform/lu_io.h"
#include "reader/reader_io.h"

namespace {

// Capacity, NUL included, of the buffer a cross-section file name is formed in.
constexpr size_t kPathBuffer = 1024;

}  // namespace

LuAfxsUserLink::LuAfxsUserLink(const wchar_t* path) : m_filePath(path ? path : L"") {}

LuAfxsUserLink::LuAfxsUserLink(const wchar_t* name, size_t number) {
  wchar_t buffer[kPathBuffer] = {0};
  // The result is deliberately not looked at: whatever XSFile left in the
  // buffer (an empty string on failure) becomes the path.
  LuFileName::XSFile(name, static_cast<uint32_t>(number), 1, buffer, kPathBuffer);
  buffer[kPathBuffer - 1] = 0;
  m_filePath = buffer;
}

LuAfxsUserLink::LuAfxsUserLink(const LuAfxsUserLink& other)
    : LuAfxsBaseLink(other), m_filePath(other.m_filePath) {}

LuAfxsUserLink& LuAfxsUserLink::operator=(const LuAfxsUserLink& other) {
  if (this == &other) return *this;
  LuAfxsBaseLink::operator=(other);
  // Intended shallow copy: both links then hold the same stdio stream.
  m_header = other.m_header;
  m_cameras = other.m_cameras;
  m_camerasLoaded = other.m_camerasLoaded;
  m_filePath = other.m_filePath;
  m_file = other.m_file;
  m_fileOpenForWrite = other.m_fileOpenForWrite;
  m_fileExists = other.m_fileExists;
  m_fileWritable = other.m_fileWritable;
  m_updateSupported = other.m_updateSupported;
  m_keepOpen = other.m_keepOpen;
  m_fileTime = other.m_fileTime;
  m_state = other.m_state;
  m_firstRecord = other.m_firstRecord;
  m_recordIndex = other.m_recordIndex;
  m_planeIndex = other.m_planeIndex;
  m_fileModified = other.m_fileModified;
  m_lastNextField = other.m_lastNextField;
  m_fileSize = other.m_fileSize;
  m_seenDevice = other.m_seenDevice;
  m_seenIndex = other.m_seenIndex;
  m_seenSize = other.m_seenSize;
  m_seenModified = other.m_seenModified;
  m_seen = other.m_seen;
  return *this;
}

LuAfxsUserLink::~LuAfxsUserLink() {
  try {
    closeFile(true);
  } catch (...) {
    // Destructors never throw.
  }
}

bool LuAfxsUserLink::setFilePath(std::wstring path) {
  if (path != m_filePath) m_filePath = std::move(path);
  return true;
}

// Re-reads header and chain only when the modification time (whole seconds)
// differs from the one remembered, or when the file is not the one read
// last (another file put in its place, or changed within the same second):
// a file this process changed through the link had its new state recorded,
// so it is not read again.
bool LuAfxsUserLink::verify(bool keepOpen) {
  closeFile(true);
  m_keepOpen = keepOpen;
  luio::FileStatus st;
  if (!luio::status(m_filePath, st)) {
    m_fileExists = false;
    return false;
  }
  m_fileWritable = (st.mode & 0x80) != 0;
  if (st.modified != m_fileTime || (m_seen && !fileIsAsSeen(nullptr))) {
    m_updateSupported = false;
    m_fileTime = st.modified;
    m_fileExists = create(keepOpen);
  }
  return m_fileExists;
}

bool LuAfxsUserLink::create(bool keepOpen) {
  m_keepOpen = keepOpen;
  m_camerasLoaded = false;
  m_cameras.cameras.clear();
  m_recordIndex.clear();
  m_planeIndex.clear();
  m_fileModified = false;
  // Header and chain are read under a shared lock: a file another process
  // is changing is refused as busy (its open fails with EBUSY). A file that
  // cannot be opened at all is left to readHeader to report.
  luio::FileLock hold;
  if (!hold.acquire(m_filePath, luio::LockMode::Shared) && errno == EBUSY) {
    afxs::reportWithSystemText(afxs::kErrOpenFile, afxs::kUserSource, m_filePath, EBUSY);
    m_fileExists = false;
    return false;
  }
  if (!readHeader() || !scanRecords()) return false;
  closeFile(false);
  return true;
}

// Parses the text header word by word with a narrow input stream of its own
// (not the link's stdio stream), so it can be read while that one is open.
// Values read before a failure stay in the header: nothing is rolled back.
bool LuAfxsUserLink::readHeader() {
  m_firstRecord = 0;
  m_updateSupported = false;

  // Only a regular file is read: a FIFO, a device or a folder is refused
  // before the stream is opened (opening a FIFO would wait for a writer).
  luio::FileStatus st;
  const bool regular = luio::status(m_filePath, st) && st.regular;
  std::ifstream in;
  if (regular) in.open(luio::nativePath(m_filePath));
  bool ok = regular && in.is_open();
  afxs::HeaderValues values;
  values.header = m_header;
  values.state = m_state;
  if (ok) ok = afxs::parseHeader(in, values) == afxs::HeaderOutcome::Parsed;
  // The header's version field is intentionally never set here.
  const int version = values.version;
  values.header.version = m_header.version;
  m_header = values.header;
  m_firstRecord = values.firstRecord;
  m_state = values.state;
  if (!ok) {
    afxs::report(afxs::kErrReadHeader, afxs::kUserSource, m_filePath);
    return false;
  }
  m_updateSupported = version >= 0;
  return true;
}

// Walks the record chain once and indexes the cameras record and every plane
// record. A chain that comes back to an offset it already visited ends as a
// failed read, reported like a short one.
bool LuAfxsUserLink::scanRecords() {
  if (m_firstRecord == 0) return false;  // a file without records; no report
  m_lastNextField = 0;
  m_fileExists = true;
  luio::FileStatus st;
  m_fileSize = luio::status(m_filePath, st) ? st.size : 0;
  try {
    // The chain's small reads are served from one window of the file, so a
    // scan costs a read per window instead of per record: a positioned read
    // once the stream is open for reading only, else a seek and a read.
    afxs::LinkStreamSource stream([this](long at) { return openFile(at, false); });
    afxs::ReadOnlyStreamSource file(
        [this] { return afxs::readOnlyStream(m_file, m_fileOpenForWrite); }, stream,
        afxs::Readahead::None);
    afxs::WindowSource window(file);
    afxs::FailOnDamage reporter;
    uint32_t lastNextField = 0;
    afxs::walkRecordChain(
        window, static_cast<uint32_t>(m_firstRecord), reporter,
        [&](const afxs::RecordHead& record) {
          lastNextField = record.offset + afxs::kNextFieldOffset;
          if (record.kind == LU_AFXS_REC_PLANE) {
            // An existing key is kept: of two plane records
            // of one number, the first wins. Planes come in ascending
            // order in a file as the writer makes it, so each goes in at
            // the end without a search.
            m_planeIndex.emplace_hint(m_planeIndex.end(), record.planeId,
                                      record.offset + afxs::kPlaneFirstSubsetOffset);
          } else if (record.kind == LU_AFXS_REC_CAMERAS) {
            m_recordIndex.emplace(LU_AFXS_REC_CAMERAS, record.offset + afxs::kCamerasBodyOffset);
          }
        });
    m_lastNextField = lastNextField;
    if (m_file != nullptr) rememberFile(m_file);
    return true;
  } catch (...) {
    afxs::report(afxs::kErrScanRecords, afxs::kUserSource, m_filePath);
    closeFile(true);
    m_fileExists = false;
    return false;
  }
}

FILE* LuAfxsUserLink::openFile(long offset, bool forWrite) {
  if (!m_fileExists) return nullptr;
  if (m_file && forWrite && !m_fileOpenForWrite) closeFile(true);
  const bool reused = m_file != nullptr;
  if (!m_file) {
    m_file = luio::open(m_filePath, forWrite ? "r+b" : "rb");
    if (m_file) m_fileOpenForWrite = forWrite;
  }
  // An open stream is reused as it is: a read may get a stream open for writing.
  int err = 0;
  if (!m_file) {
    err = errno;
  } else if (forWrite && !luio::relock(m_file, luio::LockMode::Exclusive)) {
    err = errno;  // another process reads or changes the file
  } else if (luio::error(m_file)) {
    err = errno;
  } else if (reused && afxs::alreadyAt(m_file, offset, !m_fileOpenForWrite)) {
    return m_file;  // a seek to where the stream stands would change nothing
  } else if (luio::seek(m_file, offset, SEEK_SET) != 0) {
    err = errno;
  } else {
    return m_file;
  }
  afxs::reportWithSystemText(afxs::kErrOpenFile, afxs::kUserSource, m_filePath, err);
  closeFile(true);
  return nullptr;
}

void LuAfxsUserLink::closeFile(bool force) {
  if (!force && m_keepOpen) return;
  if (m_file) {
    luio::close(m_file);
    m_file = nullptr;
    m_fileOpenForWrite = false;
  }
  if (m_fileModified) {
    // Recording the new time keeps the next verify from re-reading a file
    // that this process changed itself.
    luio::FileStatus st;
    if (luio::status(m_filePath, st)) m_fileTime = st.modified;
    m_fileModified = false;
  }
}

FILE* LuAfxsUserLink::getRecord(luafxs_records_en kind) {
  auto it = m_recordIndex.find(static_cast<uint32_t>(kind));
  if (it == m_recordIndex.end()) return nullptr;
  return openFile(static_cast<long>(it->second), false);
}

FILE* LuAfxsUserLink::getPlaneRecord(unsigned long planeId) {
  if (planeId > std::numeric_limits<uint32_t>::max()) return nullptr;
  auto it = m_planeIndex.find(static_cast<uint32_t>(planeId));
  if (it == m_planeIndex.end()) return nullptr;
  return openFile(static_cast<long>(it->second), false);
}

// Appends an empty record and links it behind the last record of the chain.
// What was written before a failure stays in the file. The new record enters
// neither index.
FILE* LuAfxsUserLink::createNewRecord(luafxs_records_en kind) {
  if (!m_fileExists || m_lastNextField == 0) return nullptr;
  try {
    FILE* f = openFile(0, true);
    if (!f) afxs::fail();
    afxs::seekEnd(f);
    uint32_t recordOffset = afxs::offset32(f);
    afxs::requireRoom(recordOffset, afxs::kRecordHeaderSize);
    afxs::putU32(f, static_cast<uint32_t>(kind));
    uint32_t nextField = recordOffset + afxs::kNextFieldOffset;
    afxs::putU32(f, 0);
    // The header reaches the system before the chain leads to it.
    if (luio::flush(f) != 0) afxs::fail();
    // Patched in place: the stream stays at the end, behind the new header.
    afxs::patchU32(f, m_lastNextField, recordOffset);
    m_lastNextField = nextField;
    uint64_t end = static_cast<uint64_t>(recordOffset) + afxs::kRecordHeaderSize;
    if (end > m_fileSize) m_fileSize = end;
    return f;
  } catch (...) {
    afxs::report(afxs::kErrUserNewRecord, afxs::kUserSource, m_filePath);
    return nullptr;
  }
}

// Reads the first cameras record. Any damage (short read, zero count, a count
// past the end of the file or not a multiple of 24, a wrong kind after the end
// mark, a failed seek) empties the table; nothing is reported.
const LuAfxsCamerasTable& LuAfxsUserLink::getCameras() {
  if (m_camerasLoaded) return m_cameras;
  FILE* f = getRecord(LU_AFXS_REC_CAMERAS);
  if (!f) {
    closeFile(false);
    return m_cameras;
  }
  try {
    afxs::FailOnDamage reporter;
    uint64_t countAt = m_recordIndex[LU_AFXS_REC_CAMERAS] + afxs::kFieldCountOffset;
    for (;;) {
      uint32_t id = afxs::getU32(f);
      if (id == afxs::kEndMark) {
        afxs::checkEndMark(countAt, afxs::getU32(f), LU_AFXS_REC_CAMERAS, reporter);
        break;
      }
      uint32_t count = afxs::getU32(f);
      const afxs::BlockUse use = afxs::blockUse(LU_AFXS_REC_CAMERAS, id, 0);
      afxs::checkBlockCount(LU_AFXS_REC_CAMERAS, use, id, count, countAt, m_fileSize, reporter);
      if (use == afxs::BlockUse::Read) {
        m_cameras.cameras.resize(count / afxs::kPointSize);
        afxs::getBytes(f, m_cameras.cameras.data(), count);
      } else {
        afxs::seekBy(f, count);
      }
      countAt += afxs::kFieldDataOffset + uint64_t{count};
    }
  } catch (...) {
    m_cameras.cameras.clear();
  }
  closeFile(false);
  return m_cameras;
}

namespace {

// The fields of the file state a link remembers, as luio::FileStatus has them.
luio::FileStatus seenState(uint64_t device, uint64_t index, uint64_t size, int64_t modifiedNs) {
  luio::FileStatus st;
  st.device = device;
  st.index = index;
  st.size = size;
  st.modifiedNs = modifiedNs;
  return st;
}

// The results link block of a plane-subset record without results.
constexpr uint32_t kNoResultsBlock[2] = {4, 0};

// How far putBack got.
enum class PutBack { Failed, Unchained, Done };

// Puts the file back behind results records appended at its end, in an
// order that never leaves a link to a missing record: each link block of
// `linkBlocks` names no results again (the last first), the chain ends at
// `lastNextField` again (when the appends touched it), and only then, with
// nothing leading to them, are the bytes from `size` on cut off. Stops at
// the first failed write: Unchained when only the cut failed.
PutBack putBack(FILE* f, const uint32_t* linkBlocks, size_t count, bool chainTouched,
                uint32_t lastNextField, uint64_t size) {
  for (size_t i = count; i-- > 0;)
    if (luio::writeAt(f, linkBlocks[i], kNoResultsBlock, sizeof kNoResultsBlock) != 0)
      return PutBack::Failed;
  const uint32_t noNext = 0;
  if (chainTouched && luio::writeAt(f, lastNextField, &noNext, sizeof noNext) != 0)
    return PutBack::Failed;
  if (luio::truncate(f, static_cast<int64_t>(size)) != 0) return PutBack::Unchained;
  return PutBack::Done;
}

}  // namespace

FILE* LuAfxsUserLink::openForUpdateAsSeen(uint64_t& size) {
  FILE* f = openFile(0, true);  // exclusive: one writer at a time
  luio::FileStatus now;
  if (f != nullptr && luio::status(f, now) && fileIsAsSeen(nullptr) &&
      luio::sameState(now, seenState(m_seenDevice, m_seenIndex, m_seenSize, m_seenModified))) {
    size = now.size;
    return f;
  }
  if (f != nullptr) luio::relock(f, luio::LockMode::Shared);
  return nullptr;
}

bool LuAfxsUserLink::appendLinkedRecord(luafxs_records_en kind,
                                        const std::function<void(FILE*, uint32_t)>& writeBody,
                                        uint32_t linkBlockAt) {
  if (!m_fileExists || m_lastNextField == 0) return false;
  uint64_t sizeBefore = 0;
  FILE* f = openForUpdateAsSeen(sizeBefore);
  if (f == nullptr) {
    afxs::report(afxs::kErrUserNewRecord, afxs::kUserSource, m_filePath);
    return false;
  }
  bool chainTouched = false;
  bool recordTouched = false;
  try {
    afxs::seekEnd(f);
    const uint32_t recordOffset = afxs::offset32(f);
    afxs::requireRoom(recordOffset, afxs::kRecordHeaderSize);
    afxs::putU32(f, static_cast<uint32_t>(kind));
    afxs::putU32(f, 0);
    writeBody(f, recordOffset + afxs::kRecordHeaderSize);
    // The whole record reaches the system before anything leads to it.
    if (luio::flush(f) != 0) afxs::fail();
    chainTouched = true;
    afxs::patchU32(f, m_lastNextField, recordOffset);
    recordTouched = true;
    const uint32_t block[2] = {4, recordOffset + afxs::kResultsBodyOffset};
    // Both links are positioned writes, in the system once they return.
    afxs::patchBytes(f, linkBlockAt, block, sizeof block);
    m_lastNextField = recordOffset + afxs::kNextFieldOffset;
    rememberFile(f);
    if (m_seenSize > m_fileSize) m_fileSize = m_seenSize;
    m_fileModified = true;
    luio::relock(f, luio::LockMode::Shared);
    return true;
  } catch (...) {
    afxs::report(afxs::kErrUserNewRecord, afxs::kUserSource, m_filePath);
    const PutBack done =
        putBack(f, &linkBlockAt, recordTouched ? 1 : 0, chainTouched, m_lastNextField, sizeBefore);
    // Put back, the file is this link's own again (its time moved on).
    if (done == PutBack::Done) rememberFile(f);
    luio::relock(f, luio::LockMode::Shared);
    return false;
  }
}

LuAfxsUserLink::ResultsMark LuAfxsUserLink::resultsMark() const {
  ResultsMark mark;
  mark.lastNextField = m_lastNextField;
  mark.fileSize = m_fileSize;
  mark.seenSize = m_seenSize;
  return mark;
}

bool LuAfxsUserLink::takeBackResults(const ResultsMark& mark) {
  if (mark.linkBlocks.empty()) return true;
  if (!m_fileExists || mark.lastNextField == 0) return false;
  uint64_t size = 0;
  FILE* f = openForUpdateAsSeen(size);
  if (f == nullptr) return false;
  const PutBack done = putBack(f, mark.linkBlocks.data(), mark.linkBlocks.size(), true,
                               mark.lastNextField, mark.seenSize);
  if (done != PutBack::Failed) m_lastNextField = mark.lastNextField;  // nothing leads past it
  if (done == PutBack::Done) m_fileSize = mark.fileSize;
  rememberFile(f);
  m_fileModified = true;
  luio::relock(f, luio::LockMode::Shared);
  return done == PutBack::Done;
}

bool LuAfxsUserLink::fileIsAsSeen(FILE* file) const {
  if (!m_seen) return false;
  const luio::FileStatus seen = seenState(m_seenDevice, m_seenIndex, m_seenSize, m_seenModified);
  luio::FileStatus st;
  if (file != nullptr && (!luio::status(file, st) || !luio::sameState(st, seen))) return false;
  return luio::status(m_filePath, st) && luio::sameState(st, seen);
}

void LuAfxsUserLink::rememberFile(FILE* file) {
  luio::FileStatus st;
  m_seen = luio::status(file, st);
  m_seenDevice = st.device;
  m_seenIndex = st.index;
  m_seenSize = st.size;
  m_seenModified = st.modifiedNs;
}

// Intended: the file is deleted; but never a file another process holds
// locked (it is busy, not damaged), nor anything but a regular file.
void LuAfxsUserLink::remove() {
  closeFile(true);
  luio::deleteUnlessLocked(m_filePath);
}
