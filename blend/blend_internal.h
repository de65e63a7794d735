// Shared pieces of the blending stages: the fixed source lines of their log
// messages, the one squared-distance formula every nearest-point search uses,
// and small readers that never step outside a vector.
#pragma once

#include <cfloat>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include <luAnaf/luAfxsRecords.h>
#include <luAnaf/luGeom.h>

namespace lublend {

// Source lines reported with the blending log messages. Fixed numbers, so the
// log reads the same whatever the build; never reuse one for another message.
constexpr int kLineNoNeighborsQ = 2411;  // CheckIsSameDirection, Q side
constexpr int kLineNoNeighborsP = 2425;  // CheckIsSameDirection, P side
constexpr int kLineNonCoherent = 2562;   // RemoveNonLegitSegments, negative dot product
constexpr int kLineNoCouple = 2571;      // RemoveNonLegitSegments, start or end not found
constexpr int kLineTooShort = 2580;      // RemoveNonLegitSegments, trimmed stretch too short
constexpr int kLineNoBlendArea = 3105;   // BuildNonBlendedAreaMapFromIntersectedQSegments
constexpr int kLineNoResVectors = 3390;  // BlendXSections

// The all-ones unsigned value: "no index".
constexpr uint32_t kNoIndex = 0xFFFFFFFFu;
// The start of every best-distance search: the largest finite double.
constexpr double kFarthest = DBL_MAX;
// Squared distance at which the nearest Q point of a segment still counts
// (inclusive): the limit of FindPPointNearestQPoint.
constexpr double kNearestLimit = 2.0;

// Squared Euclidean distance. Every nearest-point search of the blending uses
// this one formula, in this order of operations, so that the indexed searches
// and the plain scans compare the very same numbers.
inline double squaredDistance(const LuVec3& a, const LuVec3& b) {
  const double dx = a.x - b.x;
  const double dy = a.y - b.y;
  const double dz = a.z - b.z;
  return dx * dx + dy * dy + dz * dz;
}

// The plane normal of the cross-section being unified, as a vector.
inline LuVec3 headerNormal(const LuAfxsHeader& header) {
  return {header.normal[0], header.normal[1], header.normal[2]};
}

// True when index i can be read from a list of the given size.
inline bool readable(uint64_t i, size_t size) { return i < size; }

// The last readable index of [first, last] in a list of `size` entries, for
// scans that skip what lies past the list: min(last, size - 1). Only
// meaningful when size > 0.
inline uint32_t clampLast(uint32_t last, size_t size) {
  return static_cast<uint64_t>(last) < size ? last : static_cast<uint32_t>(size - 1);
}

// The plain ascending scan for the point of pts[first..last] nearest to x:
// strict comparison, so the lowest index wins a tie; the best starts at the
// largest finite double and the index at kNoIndex. Entries past the list are
// skipped. Returns false (outputs untouched) when no point beats the start.
bool scanNearest(const std::vector<LuVec3>& pts, uint32_t first, uint32_t last, const LuVec3& x,
                 uint32_t& index, double& d2);

// A bounding-volume hierarchy over consecutive points of one contour range,
// built in linear time from the index order (neighbouring points of a contour
// lie close together, so the boxes stay tight). Its answers are exactly those
// of the plain ascending scans with strict comparison: the lowest index wins
// a tie, and a box is skipped only when none of its points could win.
class ContourIndex {
public:
  // Indexes pts[first..last] (inclusive); entries past the list are left out.
  ContourIndex(const std::vector<LuVec3>& pts, uint32_t first, uint32_t last);

  // The same answer as scanNearest over the indexed range.
  bool nearest(const LuVec3& x, uint32_t& index, double& d2) const;
  // True when some indexed point lies at a squared distance strictly below limit2.
  bool anyCloserThan(const LuVec3& x, double limit2) const;

private:
  struct Box {
    LuVec3 lo, hi;
  };
  static constexpr uint32_t kLeafSize = 8;

  double lowerBound(const Box& box, const LuVec3& x) const;
  uint32_t leafFirst(size_t leaf) const {
    return m_first + static_cast<uint32_t>(leaf) * kLeafSize;
  }

  const std::vector<LuVec3>& m_pts;
  uint32_t m_first = 0;
  uint32_t m_count = 0;      // indexed points
  bool m_plainScan = false;  // non-finite coordinates: answer with the plain scan
  size_t m_leafBase = 0;     // number of leaf slots (a power of two); node 1 is the root
  std::vector<Box> m_boxes;  // heap order: children of n are 2n and 2n + 1
  std::vector<uint8_t> m_used;
};

// Answers FindPPointNearestQPoint(P, Q, ..., qSeg, pIndex, ..., false) for
// many P points against the same Q segments (the trimming walks make dozens
// of searches where a stretch end does not face Q): the first few searches
// of a segment are plain scans, later ones go through one contour index per
// segment. Same checks, same answers.
class SegmentNearest {
public:
  SegmentNearest(const std::vector<LuVec3>& pPoints, const std::vector<LuVec3>& qPoints,
                 const std::vector<unsigned int>& qStarts, const std::vector<unsigned int>& qEnds)
      : m_p(pPoints), m_q(qPoints), m_qStarts(qStarts), m_qEnds(qEnds) {}

  bool find(uint32_t qSeg, uint32_t pIndex, uint32_t& qIndex, double& d2);

private:
  // Plain scans of a segment before its index pays off.
  static constexpr uint32_t kScansBeforeIndex = 4;
  struct Segment {
    uint32_t scans = 0;
    std::unique_ptr<ContourIndex> index;
  };

  const std::vector<LuVec3>& m_p;
  const std::vector<LuVec3>& m_q;
  const std::vector<unsigned int>& m_qStarts;
  const std::vector<unsigned int>& m_qEnds;
  std::map<uint32_t, Segment> m_segments;
};

}  // namespace lublend
