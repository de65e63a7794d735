// The bytes of a plane-subset record's body as LuAfxsCreateData writes it:
// the blocks of the groups in `mask` that `plane` holds, the results link
// and the end mark. Shared by the flush (which checks the record fits under
// 4 GiB) and by writers that reserve their output's room ahead.
#pragma once

#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsRecords.h>

#include "format/format.h"

namespace afxs {

template <typename T>
uint64_t blockBytes(const std::vector<T>& values) {
  return kFieldHeaderSize + static_cast<uint64_t>(values.size()) * sizeof(T);
}

// The groups that a unified plane is written with: each of points,
// normals, segments, result points and distances that `plane` holds.
// Intended: never the aux group; aux data travel only through setAuxCtrlPos.
inline uint32_t unifiedGroups(const LuAfxsPlane& plane) {
  uint32_t mask = 0;
  if (!plane.points.empty()) mask |= LU_AFXS_MASK_POINTS;
  if (!plane.normals.empty()) mask |= LU_AFXS_MASK_NORMALS;
  if (!plane.segments.empty()) mask |= LU_AFXS_MASK_SEGMENTS;
  if (!plane.resPoints.empty()) mask |= LU_AFXS_MASK_RESPOINTS;
  if (!plane.distances.empty()) mask |= LU_AFXS_MASK_DISTANCES;
  return mask;
}

inline uint64_t subsetBodyBytes(const LuAfxsPlane& p, uint32_t mask) {
  uint64_t body = kResultsLinkBlockSize + kEndMarkSize;
  if (mask & LU_AFXS_MASK_POINTS) body += blockBytes(p.points);
  if (mask & LU_AFXS_MASK_NORMALS) body += blockBytes(p.normals);
  if (mask & LU_AFXS_MASK_SEGMENTS) body += blockBytes(p.segments);
  if (mask & LU_AFXS_MASK_AUX)
    body += blockBytes(p.auxCtrlPos) + blockBytes(p.auxCtrlOffsets) + blockBytes(p.auxCtrlCounts) +
            blockBytes(p.auxCtrlFirst);
  if (mask & LU_AFXS_MASK_DISTANCES) body += blockBytes(p.distances);
  if (mask & LU_AFXS_MASK_RESPOINTS) body += blockBytes(p.resPoints);
  return body;
}

}  // namespace afxs
