// Trimming of the blend stretches to the points that really face Q, and the
// erasure of stretches that do not hold up.
#include <cmath>
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "blend/blend_internal.h"
#include "format/format.h"

namespace {

constexpr double kFacingAngleDegrees = 20.0;  // at most, with kFacingDistance
constexpr double kFacingDistance = 2.0;       // squared, at most
constexpr double kContactDistance = 0.09;     // squared, at most, whatever the angle
constexpr double kPi = 3.141592653589793;
// A trimmed stretch keeps at least three points: j1 - i2 >= 2 (unsigned).
constexpr uint32_t kMinTrimmedSpan = 2;

constexpr const wchar_t* kNonCoherent =
    L"LuAfxsUserDataSet::RemoveNonLegitSegments()- Intersecting Segments Are Non Coherent Dot "
    L"Product is Negative";
// The line feed at the end is part of the message.
constexpr const wchar_t* kNoCouple =
    L"LuAfxsUserDataSet::RemoveNonLegitSegments()- Did not Found teh Couple of Start And End "
    L"Point For Blending Segments \n";

// The result of one facing test: whether the nearest-point search found a Q
// point (and which), and whether P's point faces it.
struct Facing {
  bool found = false;
  bool faces = false;
  uint32_t qIndex = 0;
};

// One trimming walk: the index where it stopped, whether the last
// nearest-point search it made found a Q point (false when it made none), and
// the Q index of that search.
struct TrimWalk {
  uint32_t stop = 0;
  bool lastFound = false;
  uint32_t lastQIndex = 0;
};

// Whether P's point faces the Q point found for it: the offset runs along Q's
// normal within 20 degrees and the squared distance is at most 2.0, or the
// squared distance is at most 0.09 whatever the angle. A zero offset has no
// angle and passes by its distance; so does a Q point without a normal.
bool facesQ(const LuAfxsPlane* P, const LuAfxsPlane* Q, uint32_t i, uint32_t qIndex, double d2) {
  const LuVec3 D = P->points[i] - Q->points[qIndex];
  const double length = D.length();
  bool withinAngle = false;
  if (length != 0.0 && lublend::readable(qIndex, Q->normals.size())) {
    const LuVec3 u{D.x / length, D.y / length, D.z / length};
    const double angle = luAcos(std::fabs(Q->normals[qIndex].dot(u))) * 180.0 / kPi;
    withinAngle = angle <= kFacingAngleDegrees;
  }
  return (withinAngle && d2 <= kFacingDistance) || d2 <= kContactDistance;
}

void logErase(const wchar_t* message, int line) {
  writeLogF(0, line, afxs::kUserSource, luEnvBuildDate(), message);
}

}  // namespace

// Walks the stretches in order, trims each to the points that face Q, and
// erases (from all three stretch lists at once) those whose trimmed ends do
// not hold up; see the three messages below. Works on contour points and
// normals. True when no stretch was erased, also when there was none.
// F1/F2 record that the last search of a walk found a Q point, not that the
// point faced Q (intended: such a stretch still counts as found). The
// "Non Coherent" text is logged for two different reasons, deliberately.
// Reads are bounded: P and Q points come only from successful nearest-point
// searches (which check their indices); a P or Q normal that is missing
// skips the dot-product test (the stretch is judged by the other tests).
bool LuAfxsUserDataSet::RemoveNonLegitSegments(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                               std::vector<unsigned int>& qStarts,
                                               std::vector<unsigned int>& qEnds) {
  // The nearest-point search of FindPPointNearestQPoint on contour points;
  // one searcher serves all stretches, so that the many searches of a long
  // walk go through an index of the segment.
  lublend::SegmentNearest nearest(P->points, Q->points, qStarts, qEnds);

  auto facingTest = [&](uint32_t i, uint32_t q) {
    Facing result;
    double d2 = 0.0;
    uint32_t qIndex = 0;
    result.found = nearest.find(q, i, qIndex, d2);
    if (result.found) {
      result.qIndex = qIndex;
      result.faces = facesQ(P, Q, i, qIndex, d2);
    }
    return result;
  };

  // Trim the end: from e down to s + 1, stop at the first point facing Q.
  // Stops at s when it runs out, stays at e when s >= e.
  auto trimEnd = [&](size_t k, uint32_t s, uint32_t e, uint32_t q) {
    TrimWalk walk;
    uint32_t j = e;
    for (; j > s; --j) {
      const Facing f = facingTest(j, q);
      walk.lastFound = f.found;
      if (f.found) walk.lastQIndex = f.qIndex;
      if (f.faces) {
        if (j != e) m_VectResultedSegmentsEnd[k] = j;
        break;
      }
    }
    walk.stop = j;
    return walk;
  };

  // Trim the start: from s up to e - 1, stop at the first point facing Q.
  // Stops at e when it runs out, stays at s when s >= e.
  auto trimStart = [&](size_t k, uint32_t s, uint32_t e, uint32_t q) {
    TrimWalk walk;
    uint32_t i = s;
    for (; i < e; ++i) {
      const Facing f = facingTest(i, q);
      walk.lastFound = f.found;
      if (f.found) walk.lastQIndex = f.qIndex;
      if (f.faces) {
        if (i != s) m_VectResultedSegmentsStart[k] = i;
        break;
      }
    }
    walk.stop = i;
    return walk;
  };

  auto normalsTurnAway = [&](uint32_t qIndex, uint32_t pIndex) {
    if (!lublend::readable(qIndex, Q->normals.size()) ||
        !lublend::readable(pIndex, P->normals.size())) {
      return false;
    }
    return Q->normals[qIndex].dot(P->normals[pIndex]) < 0.0;
  };

  auto eraseStretch = [](size_t k) {
    m_VectResultedSegmentsStart.erase(m_VectResultedSegmentsStart.begin() + k);
    m_VectResultedSegmentsEnd.erase(m_VectResultedSegmentsEnd.begin() + k);
    m_VectResultedSegmentsIndx.erase(m_VectResultedSegmentsIndx.begin() + k);
  };

  bool noneErased = true;
  size_t k = 0;
  while (k < m_VectResultedSegmentsStart.size() && k < m_VectResultedSegmentsEnd.size() &&
         k < m_VectResultedSegmentsIndx.size()) {
    const uint32_t s = m_VectResultedSegmentsStart[k];
    const uint32_t e = m_VectResultedSegmentsEnd[k];
    const uint32_t q = m_VectResultedSegmentsIndx[k];

    const TrimWalk endWalk = trimEnd(k, s, e, q);
    const TrimWalk startWalk = trimStart(k, s, e, q);
    const bool F1 = endWalk.lastFound;
    const bool F2 = startWalk.lastFound;
    const uint32_t j1 = endWalk.stop;
    const uint32_t i2 = startWalk.stop;

    const wchar_t* reason = nullptr;
    int line = 0;
    if (s < e && F2 && normalsTurnAway(startWalk.lastQIndex, i2)) {
      reason = kNonCoherent;
      line = lublend::kLineNonCoherent;
    } else if (!F1 || !F2) {
      reason = kNoCouple;
      line = lublend::kLineNoCouple;
    } else if (j1 - i2 < kMinTrimmedSpan) {
      reason = kNonCoherent;  // the same text, deliberately
      line = lublend::kLineTooShort;
    }
    if (reason == nullptr) {
      ++k;
      continue;
    }
    logErase(reason, line);
    eraseStretch(k);
    noneErased = false;
  }
  return noneErased;
}
