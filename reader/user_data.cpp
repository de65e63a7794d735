// LuAfxsUserData: the reading side's view of one plane-subset record, loaded
// field by field, with results written back as a results record.
#include <algorithm>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include <luAnaf/luAfxsCreate.h>
#include <luAnaf/luAfxsUser.h>

#include "format/coding.h"
#include "format/decoder.h"
#include "format/format.h"
#include "format/io_error.h"
#include "format/record_body.h"
#include "reader/array_cache.h"
#include "reader/reader_io.h"

namespace {

// Reads a block's data, whose byte count was checked, into a member array,
// sized from the array cache, with `read(data, size)` (which throws on a
// short read). An array whose read fails is left empty, so nothing stale
// from an earlier owner of its memory is ever seen.
template <typename T, typename Read>
void readArray(Read& read, std::vector<T>& v, uint32_t count) {
  afxs::sizeForOverwrite(v, count / sizeof(T));
  try {
    read(v.data(), count);
  } catch (...) {
    v.clear();
    throw;
  }
}

// The members' element sizes are the stored ones.
static_assert(sizeof(int32_t) == afxs::kIndexSize && sizeof(uint32_t) == afxs::kIndexSize);
static_assert(sizeof(double) == afxs::kDistanceSize);

// The body of one block to be read whose identifier and byte count have been
// read and checked: reads the data with `read` into its member of `plane`
// (the results link into `resultsOffset`).
template <typename Read>
void readFieldBody(Read& read, uint32_t id, uint32_t count, LuAfxsPlane& plane,
                   uint32_t& resultsOffset) {
  switch (id) {
    case afxs::kFieldResultsLink:
      return read(&resultsOffset, sizeof resultsOffset);
    case afxs::kFieldPoints:
      return readArray(read, plane.points, count);
    case afxs::kFieldNormals:
      return readArray(read, plane.normals, count);
    case afxs::kFieldSegments:
      return readArray(read, plane.segments, count);
    case afxs::kFieldResPoints:
      return readArray(read, plane.resPoints, count);
    case afxs::kFieldDistances:
      return readArray(read, plane.distances, count);
    case afxs::kFieldAuxPos:
      return readArray(read, plane.auxCtrlPos, count);
    case afxs::kFieldAuxOffsets:
      return readArray(read, plane.auxCtrlOffsets, count);
    case afxs::kFieldAuxCounts:
      return readArray(read, plane.auxCtrlCounts, count);
    default:
      afxs::fail();  // 3 (auxCtrlFirst) and unknown identifiers are never loaded
  }
}

// A stream read from where it stands onwards as a source of bytes: a read
// at the position the stream reached is a plain read, one further on moves
// the stream there first (as stepping over a block does).
class StreamOnwards final : public afxs::ByteSource {
public:
  StreamOnwards(FILE* stream, uint64_t at) : m_stream(stream), m_at(at) {}
  size_t readAt(uint64_t at, void* data, size_t size) override {
    if (at != m_at) {
      if (at < m_at || luio::seek(m_stream, static_cast<int64_t>(at - m_at), SEEK_CUR) != 0)
        return 0;
      m_at = at;
    }
    const size_t got = luio::read(data, 1, size, m_stream);
    m_at += got;
    return got;
  }

private:
  FILE* m_stream;
  uint64_t m_at;
};

// Checks the byte count of a block of a record of `kind` as a load of `mask`
// does; false (after `reporter` threw) never returns.
afxs::BlockUse checkedUse(uint32_t kind, uint32_t id, uint32_t count, uint64_t countAt,
                          uint32_t mask, uint64_t fileSize) {
  afxs::FailOnDamage reporter;
  const afxs::BlockUse use = afxs::blockUse(kind, id, mask);
  afxs::checkBlockCount(kind, use, id, count, countAt, fileSize, reporter);
  return use;
}

}  // namespace

LuAfxsUserData::LuAfxsUserData(LuAfxsUserLink& link, long recordOffset, unsigned long planeId,
                               unsigned long subsetId)
    : m_link(&link), m_recordOffset(static_cast<int32_t>(recordOffset)) {
  m_plane.planeId = static_cast<uint32_t>(planeId);
  m_plane.subsetId = static_cast<uint32_t>(subsetId);
}

// The loaded arrays go to the array cache, for the next load to reuse.
LuAfxsUserData::~LuAfxsUserData() { afxs::recycleArrays(m_plane); }

// The first call walks the record (and its results record) once and builds
// the field directory; later calls read only the fields still missing, each
// straight from its directory entry. Nothing is reported here and the file
// is not closed: the data set does that.
bool LuAfxsUserData::load(unsigned long mask) {
  try {
    if (!m_recordLoaded) {
      m_resultsOffset = 0;
      m_fileState = 0;
      m_state = 0;
      m_loadedFields.clear();
      if (m_recordOffset != 0)
        loadRecordFrom(static_cast<long>(m_recordOffset), LU_AFXS_REC_PLANE_SUBSET, mask);
      if (m_resultsOffset != 0)
        loadRecordFrom(static_cast<long>(m_resultsOffset), LU_AFXS_REC_RESULTS, mask);
      m_recordLoaded = true;
      return true;
    }
    // The missing fields in the order of the file. While the link's stream
    // is open for reading only, each comes with positioned reads: its array
    // straight into the member, with the next block's head in the same
    // read; else through the stream.
    std::vector<std::pair<uint32_t, uint32_t>> missing;  // offset, id
    for (const auto& [id, offset] : m_fieldDirectory) {
      if ((afxs::fieldMaskBit(id) & mask) != 0 && m_loadedFields.count(id) == 0)
        missing.emplace_back(offset, id);
    }
    std::sort(missing.begin(), missing.end());
    std::optional<afxs::PositionedSource> positioned;
    for (const auto& [offset, id] : missing) {
      const uint32_t bit = afxs::fieldMaskBit(id);
      FILE* open = afxs::readOnlyStream(m_link->m_file, m_link->m_fileOpenForWrite);
      if (open != nullptr) {
        if (!positioned || positioned->stream() != open) positioned.emplace(open);
        loadFieldData(*positioned, offset, static_cast<long>(id));
      } else {
        FILE* f = m_link->openFile(static_cast<long>(offset), false);
        if (!f) afxs::fail();
        loadFieldData(f, static_cast<long>(id));
      }
      m_state |= bit;
      m_loadedFields.insert(id);
    }
    return true;
  } catch (...) {
    m_recordLoaded = false;
    return false;
  }
}

void LuAfxsUserData::release() {
  afxs::recycleArrays(m_plane);
  m_state = 0;
  m_loadedFields.clear();
}

// Walks the record at `offset` from the data set's window while the set
// walks the file, else from the link's stream: with positioned reads
// straight into the arrays while the stream is open for reading only, else
// through the stream from `offset` on.
void LuAfxsUserData::loadRecordFrom(long offset, long kind, unsigned long mask) {
  if (m_recordSource != nullptr) {
    if (offset < 0) afxs::fail();
    return loadRecordData(*m_recordSource, static_cast<uint64_t>(offset), kind,
                          static_cast<long>(mask));
  }
  FILE* open = afxs::readOnlyStream(m_link->m_file, m_link->m_fileOpenForWrite);
  if (open != nullptr && offset >= 0) {
    afxs::PositionedSource source(open);
    return loadRecordData(source, static_cast<uint64_t>(offset), kind, static_cast<long>(mask));
  }
  FILE* f = m_link->openFile(offset, false);
  if (!f) afxs::fail();
  loadRecordData(f, kind, static_cast<long>(mask));
}

// Walks the field blocks of one record from the stream's position up to the
// end mark. The stream's position is asked once; each block's place follows
// from the counts read.
void LuAfxsUserData::loadRecordData(FILE* stream, long kind, long mask) {
  const uint64_t at = static_cast<uint64_t>(afxs::position(stream));
  StreamOnwards source(stream, at);
  loadRecordData(source, at, kind, mask);
}

// Walks the field blocks of one record from `at` up to the end mark, whose
// kind must match. Intended: a block with a byte count of 0 is damage,
// whether it is loaded or stepped over. Each block's identifier and the
// word behind it (its byte count, or the record kind behind the end mark)
// come in one read.
void LuAfxsUserData::loadRecordData(afxs::ByteSource& source, uint64_t at, long kind, long mask) {
  const uint64_t fileSize = m_link->m_fileSize;
  uint32_t words[2] = {0, 0};
  size_t got = source.readAt(at, words, sizeof words);
  if (got < 4) afxs::fail();
  afxs::FailOnDamage reporter;
  while (words[0] != afxs::kEndMark) {
    const uint32_t id = words[0];
    const uint64_t countAt = at + afxs::kFieldCountOffset;
    if (countAt > afxs::kMaxFileOffset) afxs::fail();
    const uint32_t countWord = static_cast<uint32_t>(countAt);
    // An identifier already present keeps its first position.
    m_fieldDirectory.emplace(id, countWord);
    if (got < sizeof words) afxs::fail();  // no count behind the identifier
    const uint32_t count = words[1];
    if (m_bodyBudget != nullptr && !m_bodyBudget->charge(count)) afxs::fail();
    const afxs::BlockUse use = checkedUse(static_cast<uint32_t>(kind), id, count, countAt,
                                          static_cast<uint32_t>(mask), fileSize);
    const uint64_t dataAt = countAt + 4;
    auto read = [&source, dataAt](void* data, size_t size) {
      if (!source.readExactly(dataAt, data, size)) afxs::fail();
    };
    if (use == afxs::BlockUse::ResultsLink) {
      readFieldBody(read, id, count, m_plane, m_resultsOffset);
    } else {
      m_fileState |= afxs::fieldMaskBit(id);  // 0 for identifiers the table lacks
      if (use == afxs::BlockUse::Read) {
        readFieldBody(read, id, count, m_plane, m_resultsOffset);
        m_state |= afxs::fieldMaskBit(id);
        m_loadedFields.insert(id);
      }
    }
    at = dataAt + count;
    got = source.readAt(at, words, sizeof words);
    if (got < 4) afxs::fail();
  }
  if (got < sizeof words) afxs::fail();
  afxs::checkEndMark(at + afxs::kFieldCountOffset, words[1], static_cast<uint32_t>(kind), reporter);
}

// Reads one block's byte count and data into its member. A count that is not
// a whole number of elements is refused as damage (reading it would write past
// the vector), as is any count running past the end of the file.
void LuAfxsUserData::loadFieldData(FILE* stream, long id) {
  const uint32_t countAt = afxs::offset32(stream);
  StreamOnwards source(stream, countAt);
  loadFieldData(source, countAt, id);
}

void LuAfxsUserData::loadFieldData(afxs::ByteSource& source, uint64_t countAt, long id) {
  uint32_t count = 0;
  if (!source.u32At(countAt, count)) afxs::fail();
  const uint32_t field = static_cast<uint32_t>(id);
  // Only fields of the directory that the mask asks for come here.
  checkedUse(LU_AFXS_REC_PLANE_SUBSET, field, count, countAt, LU_AFXS_MASK_ALL, m_link->m_fileSize);
  auto read = [&source, countAt](void* data, size_t size) {
    if (!source.readExactly(countAt + 4, data, size)) afxs::fail();
  };
  readFieldBody(read, field, count, m_plane, m_resultsOffset);
}

void LuAfxsUserData::setDistances(const double* values, size_t count) {
  if (count == 0) return;
  afxs::sizeForOverwrite(m_plane.distances, count);
  std::memcpy(m_plane.distances.data(), values, count * sizeof(double));
  m_state |= LU_AFXS_MASK_DISTANCES;
  m_loadedFields.insert(afxs::kFieldDistances);
}

void LuAfxsUserData::setResPoints(const double (*points)[3], size_t count) {
  if (count == 0) return;
  afxs::sizeForOverwrite(m_plane.resPoints, count);
  std::memcpy(m_plane.resPoints.data(), points, count * sizeof(LuVec3));
  m_state |= LU_AFXS_MASK_RESPOINTS;
  m_loadedFields.insert(afxs::kFieldResPoints);
}

// Appends one results record and has the link name it from field 4 of the
// plane-subset record, in an order that cannot half-happen: on a failure
// the file is as it was (the link reports 0xc41b0014).
bool LuAfxsUserData::flush() {
  if (!m_recordLoaded && !load(0)) return false;
  if (m_resultsOffset != 0) return false;
  if ((m_state & (LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES)) == 0) return false;
  auto link = m_fieldDirectory.find(afxs::kFieldResultsLink);
  if (link == m_fieldDirectory.end()) return false;
  uint32_t body = 0;
  auto writeBody = [this, &body](FILE* f, uint32_t at) {
    body = at;
    // A body that would end past u32 offsets is refused before it is written.
    uint64_t bytes = afxs::kEndMarkSize;
    afxs::RecordBody record;
    if (m_state & LU_AFXS_MASK_RESPOINTS) {
      bytes += afxs::kFieldHeaderSize + m_plane.resPoints.size() * afxs::kPointSize;
      record.block(afxs::kFieldResPoints, m_plane.resPoints);
    }
    if (m_state & LU_AFXS_MASK_DISTANCES) {
      bytes += afxs::kFieldHeaderSize + m_plane.distances.size() * afxs::kDistanceSize;
      record.block(afxs::kFieldDistances, m_plane.distances);
    }
    afxs::requireRoom(at, bytes);
    record.word(afxs::kEndMark);
    record.word(LU_AFXS_REC_RESULTS);
    // The blocks go out in one gathered write.
    record.write(f);
  };
  if (!m_link->appendLinkedRecord(LU_AFXS_REC_RESULTS, writeBody, link->second)) return false;
  m_resultsOffset = body;
  return true;
}

bool LuAfxsUserData::hasUnflushedResults() const {
  return m_recordLoaded && m_resultsOffset == 0 &&
         (m_state & (LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES)) != 0;
}

uint32_t LuAfxsUserData::resultsLinkBlock() const {
  auto link = m_fieldDirectory.find(afxs::kFieldResultsLink);
  return link == m_fieldDirectory.end() ? 0 : link->second;
}

// Result points and distances (bits 16 and 32) are deliberately never copied:
// a rewritten file carries none.
bool LuAfxsUserData::copy(LuAfxsCreateLink& link, unsigned long mask) {
  if (!load(mask)) return false;
  LuAfxsCreateData data(link, m_plane.planeId, m_plane.subsetId);
  const LuAfxsPlane& p = m_plane;
  if (mask & LU_AFXS_MASK_POINTS)
    data.setPoints(reinterpret_cast<const double(*)[3]>(p.points.data()), p.points.size());
  if (mask & LU_AFXS_MASK_SEGMENTS) data.setSegments(p.segments.data(), p.segments.size());
  if (mask & LU_AFXS_MASK_NORMALS)
    data.setNormals(reinterpret_cast<const double(*)[3]>(p.normals.data()), p.normals.size());
  if (mask & LU_AFXS_MASK_AUX)
    data.setAuxCtrlPos(p.auxCtrlPos.data(), p.auxCtrlPos.size(), p.auxCtrlCounts.data(),
                       p.auxCtrlCounts.size());
  // Nothing to write is success.
  return data.state() != 0 ? data.flush() : true;
}
