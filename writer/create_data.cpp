// LuAfxsCreateData: buffers one plane of one subset and writes it as one
// plane-subset record through its LuAfxsCreateLink.
#include <vector>

#include <luAnaf/luAfxsCreate.h>

#include "format/coding.h"
#include "format/format.h"
#include "format/io_error.h"
#include "format/plane_arrays.h"
#include "format/record_body.h"
#include "writer/record_bytes.h"

namespace {

using afxs::forEachArray;

// A double[3] array has the layout of LuVec3 (three binary64, 24 bytes), so
// the points are copied in one go, without first zero-filling the vector.
void copyPoints(std::vector<LuVec3>& out, const double (*points)[3], size_t count) {
  static_assert(sizeof(LuVec3) == sizeof(double[3]) && alignof(LuVec3) == alignof(double));
  const LuVec3* first = reinterpret_cast<const LuVec3*>(points);
  out.assign(first, first + count);
}

// Empties `from`'s array and keeps it in `to` when it has more room than
// what `to` holds already.
template <typename T>
void keepLarger(std::vector<T>& from, std::vector<T>& to) noexcept {
  from.clear();
  if (from.capacity() > to.capacity()) from.swap(to);
}

// Every array of `plane`, emptied, into the spare arrays (see
// LuAfxsCreateLink::SpareArrays).
void giveBack(LuAfxsPlane& plane, LuAfxsPlane& spare) noexcept {
  forEachArray(plane, spare, [](auto& from, auto& to) noexcept { keepLarger(from, to); });
}

// The spare arrays (empty, with their capacity) into a new data object's
// plane, whose arrays are empty.
void takeSpare(LuAfxsPlane& spare, LuAfxsPlane& plane) noexcept {
  forEachArray(plane, spare, [](auto& mine, auto& kept) noexcept { mine.swap(kept); });
}

// The caller's array becomes `mine`; the caller gets `mine`'s old one back,
// emptied, with its room. False (nothing changes) for an empty array.
template <typename T>
bool takeArray(std::vector<T>& mine, std::vector<T>& theirs) noexcept {
  if (theirs.empty()) return false;
  mine.swap(theirs);
  theirs.clear();
  return true;
}

}  // namespace

LuAfxsCreateData::LuAfxsCreateData(LuAfxsCreateLink& link, uint32_t planeId, uint32_t subsetId)
    : m_link(link) {
  takeSpare(link.m_spareArrays.plane, m_plane);
  m_plane.planeId = planeId;
  m_plane.subsetId = subsetId;
}

LuAfxsCreateData::~LuAfxsCreateData() {
  giveBack(m_plane, m_link.m_spareArrays.plane);
  try {
    m_link.closeFile(false);
  } catch (...) {
  }
}

void LuAfxsCreateData::setPoints(const double (*points)[3], size_t count) {
  if (count == 0 || points == nullptr) return;
  copyPoints(m_plane.points, points, count);
  m_mask |= LU_AFXS_MASK_POINTS;
}

void LuAfxsCreateData::setNormals(const double (*normals)[3], size_t count) {
  if (count == 0 || normals == nullptr) return;
  copyPoints(m_plane.normals, normals, count);
  m_mask |= LU_AFXS_MASK_NORMALS;
}

void LuAfxsCreateData::setSegments(const int* segments, size_t count) {
  if (count == 0 || segments == nullptr) return;
  m_plane.segments.assign(segments, segments + count);
  m_mask |= LU_AFXS_MASK_SEGMENTS;
}

void LuAfxsCreateData::setAuxCtrlPos(const uint32_t* positions, size_t positionCount,
                                     const uint32_t* counts, size_t groupCount) {
  if (positionCount == 0 || groupCount == 0 || positions == nullptr || counts == nullptr) return;
  // Every group must lie inside the positions, and every group start (which
  // is read as the group's first position) must be a position: otherwise
  // the input is rejected before anything is read past its end.
  // The check runs first, so a refused input leaves the arrays as they were.
  if (!auxGroupsFit(counts, groupCount, positionCount)) return;

  m_plane.auxCtrlPos.assign(positions, positions + positionCount);
  m_plane.auxCtrlCounts.assign(counts, counts + groupCount);
  deriveAuxGroups();
}

bool LuAfxsCreateData::auxGroupsFit(const uint32_t* counts, size_t groupCount,
                                    size_t positionCount) {
  if (groupCount == 0) return true;
  // The group starts only grow, so every start lies inside the positions
  // when the last one does; one sum (which the compiler vectorises) checks
  // them all.
  uint64_t lastStart = 0;
  for (size_t i = 0; i + 1 < groupCount; ++i) lastStart += counts[i];
  return lastStart < positionCount && lastStart + counts[groupCount - 1] <= positionCount;
}

void LuAfxsCreateData::deriveAuxGroups() {
  const size_t groupCount = m_plane.auxCtrlCounts.size();
  // Filled in place, so the spare arrays' room is reused.
  m_plane.auxCtrlOffsets.resize(groupCount);
  m_plane.auxCtrlFirst.resize(groupCount);
  const uint32_t* positions = m_plane.auxCtrlPos.data();
  const uint32_t* counts = m_plane.auxCtrlCounts.data();
  uint32_t* offsets = m_plane.auxCtrlOffsets.data();
  uint32_t* first = m_plane.auxCtrlFirst.data();
  // The stored offsets are an exclusive prefix sum computed in u32.
  uint32_t offset = 0;
  for (size_t i = 0; i < groupCount; ++i) {
    offsets[i] = offset;
    first[i] = positions[offset];
    offset += counts[i];
  }
  m_mask |= LU_AFXS_MASK_AUX;
}

void LuAfxsCreateData::setResPoints(const double (*points)[3], size_t count) {
  if (count == 0 || points == nullptr) return;
  copyPoints(m_plane.resPoints, points, count);
  m_mask |= LU_AFXS_MASK_RESPOINTS;
}

void LuAfxsCreateData::setDistances(const double* values, size_t count) {
  if (count == 0 || values == nullptr) return;
  m_plane.distances.assign(values, values + count);
  m_mask |= LU_AFXS_MASK_DISTANCES;
}

void LuAfxsCreateData::setPoints(std::vector<LuVec3>&& points) {
  if (takeArray(m_plane.points, points)) m_mask |= LU_AFXS_MASK_POINTS;
}

void LuAfxsCreateData::setNormals(std::vector<LuVec3>&& normals) {
  if (takeArray(m_plane.normals, normals)) m_mask |= LU_AFXS_MASK_NORMALS;
}

void LuAfxsCreateData::setSegments(std::vector<int32_t>&& segments) {
  if (takeArray(m_plane.segments, segments)) m_mask |= LU_AFXS_MASK_SEGMENTS;
}

void LuAfxsCreateData::setAuxCtrlPos(std::vector<uint32_t>&& positions,
                                     std::vector<uint32_t>&& counts) {
  if (positions.empty() || counts.empty()) return;
  if (!auxGroupsFit(counts.data(), counts.size(), positions.size())) return;
  takeArray(m_plane.auxCtrlPos, positions);
  takeArray(m_plane.auxCtrlCounts, counts);
  deriveAuxGroups();
}

void LuAfxsCreateData::setResPoints(std::vector<LuVec3>&& points) {
  if (takeArray(m_plane.resPoints, points)) m_mask |= LU_AFXS_MASK_RESPOINTS;
}

void LuAfxsCreateData::setDistances(std::vector<double>&& values) {
  if (takeArray(m_plane.distances, values)) m_mask |= LU_AFXS_MASK_DISTANCES;
}

bool LuAfxsCreateData::flush() { return flushFrom(m_plane); }

bool LuAfxsCreateData::flushFrom(const LuAfxsPlane& p) {
  if (!m_link.isOK() || m_mask == 0) return false;
  if (!m_link.reopenForRecord() || !m_link.seekEndForRecord()) return false;

  const uint64_t body = afxs::subsetBodyBytes(p, m_mask);

  FILE* f = nullptr;
  try {
    // Field blocks that would end past u32 offsets are refused before the
    // record is appended, so the records before it stay intact. When even
    // the record's head does not fit, the link refuses it itself.
    const int64_t end = m_link.seekAppendPosition();
    const uint64_t head = afxs::kSubsetRecordHead +
                          (m_link.m_planeLinks.count(p.planeId) != 0 ? 0 : afxs::kPlaneRecordSize);
    if (static_cast<uint64_t>(end) + head <= afxs::kMaxFileOffset + 1)
      afxs::requireRoom(end + static_cast<int64_t>(head), body);
    m_link.reserveAhead(static_cast<uint64_t>(end), head + body);
  } catch (...) {
    afxs::report(afxs::kErrDataFlush, afxs::kCreateSource, m_link.filePath());
    m_link.isOK(false);
    return false;
  }

  f = m_link.createPlaneSubsetRecord(p.planeId, p.subsetId);
  if (f == nullptr) return false;
  try {
    afxs::RecordBody record;
    if (m_mask & LU_AFXS_MASK_POINTS) record.block(afxs::kFieldPoints, p.points);
    if (m_mask & LU_AFXS_MASK_NORMALS) record.block(afxs::kFieldNormals, p.normals);
    if (m_mask & LU_AFXS_MASK_SEGMENTS) record.block(afxs::kFieldSegments, p.segments);
    if (m_mask & LU_AFXS_MASK_AUX) {
      record.block(afxs::kFieldAuxPos, p.auxCtrlPos);
      record.block(afxs::kFieldAuxOffsets, p.auxCtrlOffsets);
      record.block(afxs::kFieldAuxCounts, p.auxCtrlCounts);
      record.block(afxs::kFieldAuxFirst, p.auxCtrlFirst);
    }
    if (m_mask & LU_AFXS_MASK_DISTANCES) record.block(afxs::kFieldDistances, p.distances);
    if (m_mask & LU_AFXS_MASK_RESPOINTS) record.block(afxs::kFieldResPoints, p.resPoints);
    record.word(afxs::kFieldResultsLink);
    record.word(4);
    record.word(0);
    record.word(afxs::kEndMark);
    record.word(LU_AFXS_REC_PLANE_SUBSET);
    record.write(f);
  } catch (...) {
    afxs::report(afxs::kErrDataFlush, afxs::kCreateSource, m_link.filePath());
    m_link.isOK(false);
    return false;
  }
  m_link.updateState(m_mask);
  m_link.closeFile(!m_link.isOK());
  // A file kept open has the record handed to the system before success is
  // reported (a closed one was checked as it closed).
  if (m_link.isOK() && m_link.m_file != nullptr && luio::flush(m_link.m_file) != 0) {
    afxs::report(afxs::kErrDataFlush, afxs::kCreateSource, m_link.filePath());
    m_link.isOK(false);
  }
  return m_link.isOK();
}

bool LuAfxsCreateData::Unify(const LuAfxsPlane* plane) {
  if (plane == nullptr) return false;
  m_plane = *plane;
  unifyMaskOf(*plane);
  return true;
}

// Intended: the aux group is never added here; aux data travel only through
// setAuxCtrlPos, so a unified plane is written without its aux blocks unless
// that bit was already set.
uint32_t LuAfxsCreateData::unifyMaskOf(const LuAfxsPlane& plane) {
  m_mask |= afxs::unifiedGroups(plane);
  return m_mask;
}
