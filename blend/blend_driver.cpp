// The blend driver: two subsets of one plane, P and Q, blended end to end.
#include <stdexcept>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "blend/blend_internal.h"
#include "format/format.h"

namespace {

// Checked access to a plane of the group: a position past the group raises
// the standard out-of-range error, with the same text on every platform.
const LuAfxsPlane* planeAt(const std::vector<const LuAfxsPlane*>& planes, size_t position) {
  if (position >= planes.size()) throw std::out_of_range("invalid vector<T> subscript");
  return planes[position];
}

// Gives every per-point list of the output the capacity of P's list plus
// Q's, the most the assembly can splice in. Capacity only: copy-assigning P
// afterwards reuses the storage, and no value changes.
void reserveForSplice(LuAfxsPlane& out, const LuAfxsPlane& P, const LuAfxsPlane& Q) {
  auto reserve = [](auto& list, size_t own, size_t spliced) { list.reserve(own + spliced); };
  reserve(out.points, P.points.size(), Q.points.size());
  reserve(out.normals, P.normals.size(), Q.points.size());
  reserve(out.distances, P.distances.size(), Q.points.size());
  reserve(out.resPoints, P.resPoints.size(), Q.points.size());
}

}  // namespace

// Blends the first two planes of the group (P = entry 0, Q = entry 1; any
// further entry is ignored) into `out`. True with `blended` false tells the
// caller to unify without blending: a single plane (out untouched), no result
// points on either side (logged), or no blend stretch found. With disjoint
// boxes of the result points the call returns at once and `blended` keeps
// whatever the caller gave it. An empty group raises std::out_of_range (the
// drivers catch it at their boundary). A null P or Q (which the gathering
// never hands over) counts as a plane without result points. The result of
// the call is that of CreateBlendedUnifyPlane.
bool LuAfxsUserDataSet::BlendXSections(std::vector<const LuAfxsPlane*>& planes, LuAfxsPlane& out,
                                       bool& blended) {
  m_VectResultedSegmentsStart.clear();
  m_VectResultedSegmentsEnd.clear();
  m_VectResultedSegmentsIndx.clear();
  m_MapPointIndx2Category.clear();
  m_BlendedQPointsVector.clear();

  if (planes.size() == 1) {
    blended = false;
    return true;
  }
  const LuAfxsPlane* P = planeAt(planes, 0);
  const LuAfxsPlane* Q = planeAt(planes, 1);

  if (P == nullptr || Q == nullptr || P->resPoints.empty() || Q->resPoints.empty()) {
    blended = false;
    writeLogF(0, lublend::kLineNoResVectors, afxs::kUserSource, luEnvBuildDate(),
              L"LuAfxsUserDataSet::BlendXSections()- XSection ID= %d, No Res Vectors, cancel "
              L"Blend",
              static_cast<int>(m_CurrXsId));
    return true;
  }

  const LuBBox pBox(P->resPoints);
  const LuBBox qBox(Q->resPoints);
  if (!pBox.intersect(qBox)) return true;

  blended = BuildProjectedPoints(P, Q);
  if (!blended) return true;

  // Room for the parts of Q that the assembly splices in front, so that it
  // can move P's values back in place instead of reallocating every list.
  reserveForSplice(out, *P, *Q);
  out = *P;
  CategorizBlendPoints(P, Q);
  BlendByCategory(P, Q, out);
  UpdateDistanceVector(&out, P);
  return CreateBlendedUnifyPlane(P, Q, out);
}
