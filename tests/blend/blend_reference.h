// The literal forms of the blending steps that the library answers faster:
// plain ascending scans and one-stretch-at-a-time front insertions, written
// straight from the step lists. Tests compare the library against them on
// random inputs; the benchmark times them. Valid inputs only (indices within
// the lists), except for the read-skipping rule of the splice.
#pragma once

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

namespace blendref {

using Projection = LuAfxsUserDataSet::Vec3PNT_INDX;

inline double squaredDistance(const LuVec3& a, const LuVec3& b) {
  const double dx = a.x - b.x;
  const double dy = a.y - b.y;
  const double dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

struct Stretches {
  std::vector<uint32_t> start, end, indx;
};

// The stretch search of one P segment, with the plain proximity scan.
inline void buildMapIntersection(const LuAfxsPlane& P, const LuAfxsPlane& Q,
                                 const std::vector<uint32_t>& qStarts,
                                 const std::vector<uint32_t>& qEnds, uint32_t pFirst,
                                 uint32_t pLast, Stretches& out) {
  std::vector<LuVec3> pList;
  for (uint32_t i = pFirst; i < pLast; ++i) pList.push_back(P.resPoints[i]);
  const LuBBox BP(pList);
  for (uint32_t j = 0; j < qStarts.size(); ++j) {
    std::vector<LuVec3> qList;
    for (uint32_t m = qStarts[j]; m < qEnds[j]; ++m) qList.push_back(Q.resPoints[m]);
    const LuBBox BQ(qList);
    if (!BP.intersect(BQ)) continue;
    const LuBBox BX = BP.intersection(BQ);
    if (pFirst == pLast) continue;
    auto passes = [&](uint32_t i) {
      if (BX.inside(P.resPoints[i])) return true;
      for (uint32_t m = qStarts[j]; m < qEnds[j]; ++m) {
        if (squaredDistance(Q.resPoints[m], P.resPoints[i]) < 2.0) return true;
      }
      return false;
    };
    const uint32_t n = pLast - pFirst;
    bool haveFirst = false, haveLast = false;
    uint32_t first = 0, last = 0;
    for (uint32_t k = 0; k < n; ++k) {
      if (!haveFirst && passes(pFirst + k)) {
        first = pFirst + k;
        haveFirst = true;
      }
      if (!haveLast && passes(pLast - k)) {
        last = pLast - k;
        haveLast = true;
      }
      if (haveFirst && haveLast) break;
    }
    if (!haveFirst || !haveLast) continue;
    if (last - first < 3u) continue;
    out.start.push_back(first);
    out.end.push_back(last);
    out.indx.push_back(j);
  }
}

// The plain ascending nearest scan over [lo, hi]: best from DBL_MAX, index
// from all-ones, strict comparison; `coincidence` tells whether some new best
// fell below 0.01.
inline void scan(const std::vector<LuVec3>& q, uint32_t lo, uint32_t hi, const LuVec3& X,
                 uint32_t& index, double& best, bool& coincidence) {
  index = 0xFFFFFFFFu;
  best = DBL_MAX;
  coincidence = false;
  for (uint64_t m = lo; m <= hi; ++m) {
    const double d = squaredDistance(q[m], X);
    if (d < best) {
      best = d;
      index = static_cast<uint32_t>(m);
      if (d < 0.01) coincidence = true;
    }
  }
}

// The coupling of one stretch with the window and the plain full-segment scan.
inline void couple(const LuAfxsPlane& P, const LuAfxsPlane& Q, const LuVec3& N,
                   const std::vector<uint32_t>& qStarts, const std::vector<uint32_t>& qEnds,
                   uint32_t pFirst, uint32_t pLast, uint32_t qSeg, bool same,
                   std::map<int32_t, Projection>& projected, std::vector<bool>& flags) {
  const uint32_t a = qStarts[qSeg];
  const uint32_t b = qEnds[qSeg];
  const uint32_t nQ = static_cast<uint32_t>(Q.points.size());
  uint32_t h = 0xFFFFFFFFu;
  double best = DBL_MAX;
  bool coincidence = false;
  if (a <= b) scan(Q.points, a, b, P.points[pFirst], h, best, coincidence);
  if (pFirst > pLast) return;
  uint32_t r = 0;
  for (uint32_t i = pFirst; i <= pLast; ++i) {
    r = r + 1;
    const uint32_t w = std::min(r / 10u + 5u, 25u);
    const uint32_t lo = h > w ? h - w : 0u;
    const uint32_t hi = std::min(b, h + w);
    bool done = false;
    best = DBL_MAX;
    if (lo <= hi) {
      scan(Q.points, lo, hi, P.points[i], h, best, coincidence);
      if (coincidence) r = 0;
      done = best <= 2.0;
    }
    if (!done) {
      h = 0xFFFFFFFFu;
      best = DBL_MAX;
      if (a <= b) scan(Q.points, a, b, P.points[i], h, best, coincidence);
      r = 0;
    }
    if (best < 2.0) {
      const uint32_t nb = same ? (h < nQ - 1 ? h + 1 : h - 1) : (h == 0 ? 1 : h - 1);
      const LuVec3 A = Q.points[h];
      const LuVec3 B = Q.points[nb];
      const LuVec3 T = A + N;
      double t = -1.0, u = 0.0, v = 0.0;
      luMathPointTrianglePosition(P.points[i], A, B, T, t, u, v);
      const LuVec3 d = B - A;
      const LuVec3 proj{d.x * t + A.x, d.y * t + A.y, d.z * t + A.z};
      projected.emplace(static_cast<int32_t>(i), Projection{proj, h});
      flags[h] = true;
    }
    if (i == pLast) break;
  }
}

// A splice list as the assembly builds it.
struct Splice {
  std::vector<uint32_t> starts, ends, insertIndex;
  std::vector<int> insertSegIndex;
};

// The first pass's stretches: the two-point scan over the unused Q points.
inline Splice unusedPairs(const std::vector<bool>& used) {
  Splice out;
  bool inStretch = false;
  uint32_t s = 0, e = 0;
  for (uint32_t i = 0; i < used.size(); ++i) {
    bool emit = false;
    if (!inStretch) {
      if (used[i]) continue;
      s = i;
      inStretch = true;
      if (i + 1 == used.size() || used[i + 1]) {
        e = i;
        emit = true;
      }
    } else if (!used[i]) {
      e = i;
      emit = true;
    }
    if (emit) {
      const uint32_t lo = std::min(s, e), hi = std::max(s, e);
      if (hi > lo) {
        out.starts.push_back(lo);
        out.ends.push_back(hi);
        out.insertIndex.push_back(0);
        out.insertSegIndex.push_back(0);
      }
      inStretch = false;
    }
  }
  return out;
}

// One stretch spliced at `at` element by element, then made a segment at
// position 0 (the blend's insert values), entries behind grown by its count.
inline void spliceFront(LuAfxsPlane& target, const LuAfxsPlane& Q, uint32_t at, uint32_t first,
                        uint32_t last) {
  if (first <= last) {
    uint64_t rPoints = first, rNormals = first, rDist = first, rRes = first, rAuxFirst = first,
             rAuxPos = first;
    size_t wPoints = at, wNormals = at, wDist = at, wRes = at, wAuxFirst = at, wAuxPos = at;
    for (uint64_t t = 0; t < static_cast<uint64_t>(last) - first + 1; ++t) {
      if (!Q.points.empty()) {
        if (rPoints < Q.points.size())
          target.points.insert(target.points.begin() + wPoints++, Q.points[rPoints]);
        ++rPoints;
      }
      if (!Q.normals.empty()) {
        if (rNormals < Q.normals.size())
          target.normals.insert(target.normals.begin() + wNormals++, Q.normals[rNormals]);
        ++rNormals;
      }
      if (!Q.distances.empty()) {
        if (rDist < Q.distances.size())
          target.distances.insert(target.distances.begin() + wDist++, Q.distances[rDist]);
        ++rDist;
      }
      if (!Q.resPoints.empty()) {
        if (rRes < Q.resPoints.size())
          target.resPoints.insert(target.resPoints.begin() + wRes++, Q.resPoints[rRes]);
        ++rRes;
      }
      if (!Q.auxCtrlFirst.empty()) {
        if (rAuxFirst < Q.auxCtrlFirst.size())
          target.auxCtrlFirst.insert(target.auxCtrlFirst.begin() + wAuxFirst++,
                                     Q.auxCtrlFirst[rAuxFirst]);
        ++rRes;
      }
      if (!Q.auxCtrlPos.empty()) {
        if (rAuxPos < Q.auxCtrlPos.size())
          target.auxCtrlPos.insert(target.auxCtrlPos.begin() + wAuxPos++, Q.auxCtrlPos[rAuxPos]);
        ++rAuxPos;
      }
    }
  }
  const uint32_t count = last - first + 1u;
  target.segments.insert(target.segments.begin(), static_cast<int32_t>(count));
  for (size_t j = 1; j < target.segments.size(); ++j) {
    target.segments[j] = static_cast<int32_t>(static_cast<uint32_t>(target.segments[j]) + count);
  }
}

// The assembly as two passes of one-by-one front splices.
inline void assemble(LuAfxsPlane& blended, const LuAfxsPlane& Q, const std::vector<bool>& used,
                     bool haveStretches, const std::vector<uint32_t>& blendedQSegments) {
  if (haveStretches) {
    const Splice first = unusedPairs(used);
    for (size_t k = 0; k < first.starts.size(); ++k) {
      spliceFront(blended, Q, 0, first.starts[k], first.ends[k]);
    }
  }
  uint32_t previousEnd = 0;
  for (size_t j = 0; j < Q.segments.size(); ++j) {
    const uint32_t end = static_cast<uint32_t>(Q.segments[j]) - 1u;
    const uint32_t start = j == 0 ? 0u : previousEnd + 1u;
    previousEnd = end;
    if (std::find(blendedQSegments.begin(), blendedQSegments.end(), j) != blendedQSegments.end())
      continue;
    spliceFront(blended, Q, 0, start, end);
  }
}

// The plain nearest scan of FindPPointNearestQPoint: true when the best
// squared distance is at most 2.0.
inline bool nearestWithinReach(const LuAfxsPlane& P, const LuAfxsPlane& Q,
                               const std::vector<uint32_t>& qStarts,
                               const std::vector<uint32_t>& qEnds, uint32_t q, uint32_t i,
                               uint32_t& qIndex, double& d2) {
  if (qStarts[q] > qEnds[q]) return false;
  uint32_t index = 0;
  double best = 0;
  bool coincidence = false;
  scan(Q.points, qStarts[q], qEnds[q], P.points[i], index, best, coincidence);
  if (!(best <= 2.0)) return false;
  qIndex = index;
  d2 = best;
  return true;
}

// The trimming and erasure of the stretches, every search a plain scan.
// Returns the messages' kinds in order: 'N' non coherent, 'F' not found.
inline std::string removeNonLegit(const LuAfxsPlane& P, const LuAfxsPlane& Q,
                                  const std::vector<uint32_t>& qStarts,
                                  const std::vector<uint32_t>& qEnds, Stretches& st) {
  std::string log;
  auto faces = [&](uint32_t i, uint32_t q, bool& found, uint32_t& qIndex) {
    double d2 = 0;
    found = nearestWithinReach(P, Q, qStarts, qEnds, q, i, qIndex, d2);
    if (!found) return false;
    const LuVec3 D = P.points[i] - Q.points[qIndex];
    const double len = D.length();
    bool angleOk = false;
    if (len != 0.0) {
      const LuVec3 u{D.x / len, D.y / len, D.z / len};
      angleOk = luAcos(std::fabs(Q.normals[qIndex].dot(u))) * 180.0 / 3.141592653589793 <= 20.0;
    }
    return (angleOk && d2 <= 2.0) || d2 <= 0.09;
  };
  for (size_t k = 0; k < st.start.size();) {
    const uint32_t s = st.start[k], e = st.end[k], q = st.indx[k];
    bool F1 = false, F2 = false, found = false;
    uint32_t qIndex = 0, lastQ = 0;
    uint32_t j = e;
    for (; j > s; --j) {
      const bool f = faces(j, q, found, qIndex);
      F1 = found;
      if (f) {
        st.end[k] = j;
        break;
      }
    }
    uint32_t i = s;
    for (; i < e; ++i) {
      const bool f = faces(i, q, found, qIndex);
      F2 = found;
      if (found) lastQ = qIndex;
      if (f) {
        st.start[k] = i;
        break;
      }
    }
    char erase = 0;
    if (s < e && F2 && Q.normals[lastQ].dot(P.normals[i]) < 0.0) {
      erase = 'N';
    } else if (!F1 || !F2) {
      erase = 'F';
    } else if (j - i < 2u) {
      erase = 'N';
    }
    if (!erase) {
      ++k;
      continue;
    }
    log.push_back(erase);
    st.start.erase(st.start.begin() + k);
    st.end.erase(st.end.begin() + k);
    st.indx.erase(st.indx.begin() + k);
  }
  return log;
}

// The whole blend of P and Q into `out` with the literal steps above in
// place of the library's indexed searches and linear assembly; the stages
// that have no faster form (categories, weights, distances) are the
// library's, reached through the access class A. Returns whether blended.
template <class A>
bool literalBlend(const LuAfxsPlane& P, const LuAfxsPlane& Q, LuAfxsPlane& out) {
  A::m_VectResultedSegmentsStart.clear();
  A::m_VectResultedSegmentsEnd.clear();
  A::m_VectResultedSegmentsIndx.clear();
  A::m_MapPointIndx2PrjctdPoint.clear();
  A::m_MapPointIndx2Category.clear();
  A::m_BlendedQPointsVector.assign(Q.points.size(), false);
  if (P.resPoints.empty() || Q.resPoints.empty()) return false;
  if (!LuBBox(P.resPoints).intersect(LuBBox(Q.resPoints))) return false;
  std::vector<unsigned int> qs, qe, ps, pe;
  A::GetPlaneSegments(&Q, qs, qe);
  A::GetPlaneSegments(&P, ps, pe);
  Stretches stretches;
  for (size_t i = 0; i < ps.size(); ++i)
    buildMapIntersection(P, Q, qs, qe, ps[i], pe[i], stretches);
  removeNonLegit(P, Q, qs, qe, stretches);
  if (stretches.start.empty()) return false;
  A::m_VectResultedSegmentsStart = stretches.start;
  A::m_VectResultedSegmentsEnd = stretches.end;
  A::m_VectResultedSegmentsIndx = stretches.indx;
  const LuVec3 normal{A::m_XSHeader.normal[0], A::m_XSHeader.normal[1], A::m_XSHeader.normal[2]};
  bool same = false;
  for (size_t k = 0; k < stretches.start.size(); ++k) {
    const uint32_t s = stretches.start[k], e = stretches.end[k], q = stretches.indx[k];
    for (uint32_t i = s; i <= e; ++i) {
      uint32_t qIndex = 0;
      double d2 = 0;
      if (nearestWithinReach(P, Q, qs, qe, q, i, qIndex, d2)) {
        same = A::CheckIsSameDirection(P.resPoints, Q.resPoints, i, qIndex);
        break;
      }
    }
    couple(P, Q, normal, qs, qe, s, e, q, same, A::m_MapPointIndx2PrjctdPoint,
           A::m_BlendedQPointsVector);
  }
  out = P;
  A::CategorizBlendPoints(&P, &Q);
  A::BlendByCategory(&P, &Q, out);
  A::UpdateDistanceVector(&out, &P);
  assemble(out, Q, A::m_BlendedQPointsVector, true, A::m_VectResultedSegmentsIndx);
  return true;
}

}  // namespace blendref
