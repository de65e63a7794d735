// The last stage of a blend: signed distances of the blended plane, and the
// splice of the stretches of Q that the blend did not use, so that nothing Q
// alone covered is lost.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <type_traits>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "blend/blend_internal.h"
#include "format/format.h"

namespace {

// A splice list: four parallel lists, one entry per stretch of Q.
struct SpliceList {
  std::vector<unsigned int>* starts;
  std::vector<unsigned int>* ends;
  std::vector<unsigned int>* insertIndex;
  std::vector<int>* insertSegIndex;

  size_t size() const {
    return std::min({starts->size(), ends->size(), insertIndex->size(), insertSegIndex->size()});
  }
  // True when every stretch goes in front of the plane as its first segment,
  // as both builders of the blend arrange it.
  bool allInFront() const {
    for (size_t k = 0; k < size(); ++k) {
      if ((*insertIndex)[k] != 0 || (*insertSegIndex)[k] != 0) return false;
    }
    return true;
  }
};

// How many steps of the splice of Q's points first..last can still insert
// anything: the splice ends once no list of Q other than auxCtrlFirst has a
// value left to read (result points are read every second point when Q has
// auxCtrlFirst). On a stretch that lies within Q's lists this is the whole
// stretch, so valid input splices every point; a stretch reaching past Q's
// lists stops there instead of inserting auxCtrlFirst copies without end.
uint64_t spliceSteps(const LuAfxsPlane& Q, uint32_t first, uint32_t last) {
  if (first > last) return 0;
  const uint64_t count = static_cast<uint64_t>(last) - first + 1;
  auto readableSteps = [&](size_t size, uint64_t stride) -> uint64_t {
    if (size <= first) return 0;
    return (size - first + stride - 1) / stride;
  };
  const uint64_t resStride = Q.auxCtrlFirst.empty() ? 1 : 2;
  uint64_t steps = 0;
  steps = std::max(steps, readableSteps(Q.points.size(), 1));
  steps = std::max(steps, readableSteps(Q.normals.size(), 1));
  steps = std::max(steps, readableSteps(Q.distances.size(), 1));
  steps = std::max(steps, readableSteps(Q.resPoints.size(), resStride));
  steps = std::max(steps, readableSteps(Q.auxCtrlPos.size(), 1));
  return std::min(steps, count);
}

// How many values of one list of Q the splice of `steps` steps from `first`
// inserts: one per step, read at first + t * stride (stride 0 reads the same
// value every step); a read past Q's list inserts nothing.
uint64_t splicedCount(size_t size, uint32_t first, uint64_t steps, uint64_t stride) {
  if (first >= size) return 0;
  if (stride == 0) return steps;
  return std::min<uint64_t>(steps, (size - first + stride - 1) / stride);
}

// Writes those values, in order, from `at` on.
template <typename T>
void writeSpliced(T* at, const std::vector<T>& from, uint32_t first, uint64_t count,
                  uint64_t stride) {
  for (uint64_t t = 0; t < count; ++t) at[t] = from[first + t * stride];
}

// The stride of each list in the splice (see FillPlaneWithSegment).
struct Strides {
  uint64_t points, normals, distances, resPoints, auxFirst, auxPos;
  bool usePoints, useNormals, useDistances, useResPoints, useAuxFirst, useAuxPos;
};

Strides stridesOf(const LuAfxsPlane& Q) {
  Strides s{};
  s.points = s.normals = s.distances = s.auxPos = 1;
  s.resPoints = Q.auxCtrlFirst.empty() ? 1 : 2;
  s.auxFirst = 0;
  s.usePoints = !Q.points.empty();
  s.useNormals = !Q.normals.empty();
  s.useDistances = !Q.distances.empty();
  s.useResPoints = !Q.resPoints.empty();
  s.useAuxFirst = !Q.auxCtrlFirst.empty();
  s.useAuxPos = !Q.auxCtrlPos.empty();
  return s;
}

// One stretch in the order it ends up in the plane, front first.
struct Stretch {
  uint32_t first;
  uint32_t last;
};

// Puts every stretch in front of the target in one pass: the result equals
// splicing them one after the other at insert index 0 and segment position 0
// (the last spliced stretch ends up first), without moving the plane's
// values once per stretch. `ordered` lists the stretches front first.
void spliceAllInFront(LuAfxsPlane& target, const LuAfxsPlane& Q,
                      const std::vector<Stretch>& ordered) {
  const Strides st = stridesOf(Q);
  std::vector<uint64_t> steps;
  steps.reserve(ordered.size());
  for (const Stretch& s : ordered) {
    steps.push_back(spliceSteps(Q, s.first, s.last));
  }
  // Room is made in front of the plane's own values in one move (in place
  // when the list has the capacity), then the spliced values are written.
  auto rebuild = [&](auto& list, const auto& from, bool use, uint64_t stride) {
    if (!use) return;
    uint64_t added = 0;
    for (size_t k = 0; k < ordered.size(); ++k) {
      added += splicedCount(from.size(), ordered[k].first, steps[k], stride);
    }
    using Value = typename std::remove_reference_t<decltype(list)>::value_type;
    list.insert(list.begin(), static_cast<size_t>(added), Value{});
    Value* at = list.data();
    for (size_t k = 0; k < ordered.size(); ++k) {
      const uint64_t count = splicedCount(from.size(), ordered[k].first, steps[k], stride);
      writeSpliced(at, from, ordered[k].first, count, stride);
      at += count;
    }
  };
  rebuild(target.points, Q.points, st.usePoints, st.points);
  rebuild(target.normals, Q.normals, st.useNormals, st.normals);
  rebuild(target.distances, Q.distances, st.useDistances, st.distances);
  rebuild(target.resPoints, Q.resPoints, st.useResPoints, st.resPoints);
  rebuild(target.auxCtrlFirst, Q.auxCtrlFirst, st.useAuxFirst, st.auxFirst);
  rebuild(target.auxCtrlPos, Q.auxCtrlPos, st.useAuxPos, st.auxPos);

  // Each stretch becomes a segment; the running totals are taken modulo 2^32,
  // as the one-by-one insertions compute them.
  std::vector<int32_t> segments;
  segments.reserve(ordered.size() + target.segments.size());
  uint32_t total = 0;
  for (const Stretch& s : ordered) {
    total += s.last - s.first + 1u;
    segments.push_back(static_cast<int32_t>(total));
  }
  for (const int32_t entry : target.segments) {
    segments.push_back(static_cast<int32_t>(static_cast<uint32_t>(entry) + total));
  }
  target.segments.swap(segments);
}

}  // namespace

// Recomputes the signed distance of every point of the plane to its result
// point: the length of point - result point, negative when that offset runs
// against the point's normal (a dot product of exactly 0 counts as positive).
// False, changing nothing, when points or result points are not as many as
// the distances. The second plane is not read. A point without a normal (the
// normals list shorter than the points) gets the positive length.
bool LuAfxsUserDataSet::UpdateDistanceVector(LuAfxsPlane* plane, const LuAfxsPlane* /*second*/) {
  const size_t n = plane->distances.size();
  if (plane->points.size() != n || plane->resPoints.size() != n) return false;
  for (size_t i = 0; i < n; ++i) {
    const LuVec3 d = plane->points[i] - plane->resPoints[i];
    const double length = std::sqrt(d.x * d.x + d.y * d.y + d.z * d.z);
    const double dot = i < plane->normals.size() ? d.dot(plane->normals[i]) : 0.0;
    plane->distances[i] = dot < 0.0 ? -length : length;
  }
  return true;
}

// Splices into the blended plane, in front of its points and segments, first
// the pairs of Q points that no P point was coupled with, then every Q
// segment that took no part in the blend (those end up first). The result is
// that of the two UpdatePlaneWithSegment passes, built in one linear pass;
// the static splice list keeps the first pass's stretches. Always true.
bool LuAfxsUserDataSet::CreateBlendedUnifyPlane(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                                LuAfxsPlane& blended) {
  m_VectQUsedSegmentsStart.clear();
  m_VectQUsedSegmentsEnd.clear();
  m_VectQUsedSegments_P_Insert_Index.clear();
  m_VectQUsedSegments_P_Insert_SegIndex.clear();

  const SpliceList firstPass{&m_VectQUsedSegmentsStart, &m_VectQUsedSegmentsEnd,
                             &m_VectQUsedSegments_P_Insert_Index,
                             &m_VectQUsedSegments_P_Insert_SegIndex};
  const bool haveFirst = BuildNonBlendedAreaMapFromIntersectedQSegments(P, Q) != 0;

  // The second pass's builder reads only Q and the stretch list, not the
  // plane, so both lists can be built before anything is spliced.
  std::vector<unsigned int> starts;
  std::vector<unsigned int> ends;
  std::vector<unsigned int> insertIndex;
  std::vector<int> insertSegIndex;
  const SpliceList secondPass{&starts, &ends, &insertIndex, &insertSegIndex};
  const bool haveSecond = BuildNonBlendedAreaMapFromNonIntersectedQSegments(
                              &blended, Q, starts, ends, insertIndex, insertSegIndex) != 0;

  if ((!haveFirst || firstPass.allInFront()) && (!haveSecond || secondPass.allInFront())) {
    // Every splice goes in front: the last spliced comes first.
    std::vector<Stretch> ordered;
    ordered.reserve((haveFirst ? firstPass.size() : 0) + (haveSecond ? secondPass.size() : 0));
    if (haveSecond) {
      for (size_t k = secondPass.size(); k-- > 0;) ordered.push_back({starts[k], ends[k]});
    }
    if (haveFirst) {
      for (size_t k = firstPass.size(); k-- > 0;) {
        ordered.push_back({m_VectQUsedSegmentsStart[k], m_VectQUsedSegmentsEnd[k]});
      }
    }
    spliceAllInFront(blended, *Q, ordered);
    return true;
  }

  // Only reachable with insert positions other than 0, which the builders
  // never make: splice one stretch at a time.
  if (haveFirst) {
    UpdatePlaneWithSegment(blended, Q, m_VectQUsedSegmentsStart, m_VectQUsedSegmentsEnd,
                           m_VectQUsedSegments_P_Insert_Index,
                           m_VectQUsedSegments_P_Insert_SegIndex);
  }
  if (haveSecond) UpdatePlaneWithSegment(blended, Q, starts, ends, insertIndex, insertSegIndex);
  return true;
}

// The first pass: stretches of Q points that no P point was coupled with.
// The scan is required exactly as it stands, deliberately: a stretch starts
// only where two unused Q points follow each other and closes at once at the
// second, so a run of unused points yields stretches of two points each
// (k, k + 1, then k + 2, k + 3, ...) and a lone unused point, or the last of
// a run of odd length, yields nothing. Returns the number of stretches.
unsigned LuAfxsUserDataSet::BuildNonBlendedAreaMapFromIntersectedQSegments(
    const LuAfxsPlane* /*P*/, const LuAfxsPlane* /*Q*/) {
  if (m_VectResultedSegmentsStart.empty()) {
    writeLogF(
        0, lublend::kLineNoBlendArea, afxs::kUserSource, luEnvBuildDate(),
        L"LuAfxsUserDataSet::BuildNonBlendedAreaMapFromIntersectedQSegments()- No Blend Area");
    return 0;
  }

  auto emit = [](uint32_t s, uint32_t e) {
    const uint32_t lo = std::min(s, e);
    const uint32_t hi = std::max(s, e);
    if (hi > lo) {
      m_VectQUsedSegmentsStart.push_back(lo);
      m_VectQUsedSegmentsEnd.push_back(hi);
      m_VectQUsedSegments_P_Insert_Index.push_back(0);
      m_VectQUsedSegments_P_Insert_SegIndex.push_back(0);
    }
  };

  const std::vector<bool>& used = m_BlendedQPointsVector;
  const size_t count = used.size();
  bool inStretch = false;
  uint32_t s = 0;
  for (size_t i = 0; i < count; ++i) {
    if (!inStretch) {
      if (used[i]) continue;
      s = static_cast<uint32_t>(i);
      inStretch = true;
      if (i + 1 == count || used[i + 1]) {
        emit(s, static_cast<uint32_t>(i));
        inStretch = false;
      }
    } else if (!used[i]) {
      emit(s, static_cast<uint32_t>(i));
      inStretch = false;
    }
  }
  return static_cast<unsigned>(m_VectQUsedSegmentsStart.size());
}

// The second pass: every Q segment that no stretch overlapped, whole. The
// blended plane is not read. Returns the number of entries of `starts`.
unsigned LuAfxsUserDataSet::BuildNonBlendedAreaMapFromNonIntersectedQSegments(
    const LuAfxsPlane* /*blended*/, const LuAfxsPlane* Q, std::vector<unsigned int>& starts,
    std::vector<unsigned int>& ends, std::vector<unsigned int>& insertIndex,
    std::vector<int>& insertSegIndex) {
  std::vector<unsigned int> segStarts;
  std::vector<unsigned int> segEnds;
  const size_t segments = GetPlaneSegments(Q, segStarts, segEnds);
  std::vector<bool> blendedSegment(segments, false);
  for (const uint32_t j : m_VectResultedSegmentsIndx) {
    if (j < segments) blendedSegment[j] = true;
  }
  for (size_t j = 0; j < segments; ++j) {
    if (blendedSegment[j]) continue;
    starts.push_back(segStarts[j]);
    ends.push_back(segEnds[j]);
    insertIndex.push_back(0);
    insertSegIndex.push_back(0);
  }
  return static_cast<unsigned>(starts.size());
}

// Splices each stretch of the list into the target, one after the other,
// and makes it one segment of the target with consistent running totals:
// segment position q >= 1 puts the new total at q after segments[q - 1];
// q = -1 at the end after the last total; any other value (0 or below -1) in
// front after a total of 0. The entries behind it grow by the stretch's
// count (unsigned 32-bit, so a stretch whose end lies before its start adds
// the wrapped count, as intended). Bounds: a position past the segments list
// goes to its end; -1 on an empty list starts from 0; a stretch past the
// list sizes stops at the shortest of the four lists.
void LuAfxsUserDataSet::UpdatePlaneWithSegment(LuAfxsPlane& target, const LuAfxsPlane* Q,
                                               std::vector<unsigned int>& starts,
                                               std::vector<unsigned int>& ends,
                                               std::vector<unsigned int>& insertIndex,
                                               std::vector<int>& insertSegIndex) {
  const SpliceList list{&starts, &ends, &insertIndex, &insertSegIndex};
  for (size_t k = 0; k < list.size(); ++k) {
    FillPlaneWithSegment(target, Q, insertIndex[k], starts[k], ends[k]);
    const uint32_t count = ends[k] - starts[k] + 1u;

    std::vector<int32_t>& segments = target.segments;
    const int q = insertSegIndex[k];
    size_t position = 0;
    uint32_t previous = 0;
    if (q >= 1) {
      position = std::min(static_cast<size_t>(q), segments.size());
      previous = position > 0 ? static_cast<uint32_t>(segments[position - 1]) : 0u;
    } else if (q == -1) {
      position = segments.size();
      previous = segments.empty() ? 0u : static_cast<uint32_t>(segments.back());
    }
    segments.insert(segments.begin() + static_cast<ptrdiff_t>(position),
                    static_cast<int32_t>(previous + count));
    for (size_t j = position + 1; j < segments.size(); ++j) {
      segments[j] = static_cast<int32_t>(static_cast<uint32_t>(segments[j]) + count);
    }
  }
}

// Inserts Q's values of points first..last into the target's lists at `at`,
// one step per point, each list of Q that has values feeding the same list of
// the target. Required as it stands, a deliberate quirk: when Q has
// auxCtrlFirst values, every inserted point gets Q's auxCtrlFirst value of
// the stretch's first point (that read position never moves), and the result
// points taken from Q skip every second one (their read position moves one
// more). segments, auxCtrlOffsets and auxCtrlCounts are not touched.
// Bounds, which the blend never reaches: a read past one of Q's lists inserts
// nothing into that list (its write position stays); an insert position past
// a target list appends at its end; the splice ends at the first step where
// no list but auxCtrlFirst has a value left to read.
void LuAfxsUserDataSet::FillPlaneWithSegment(LuAfxsPlane& target, const LuAfxsPlane* Q,
                                             unsigned int at, unsigned int first,
                                             unsigned int last) {
  if (first > last) return;
  const uint64_t steps = spliceSteps(*Q, first, last);

  // One read position per list of Q, one write position per list of the target.
  struct Cursor {
    uint64_t read;
    size_t write;
  };
  auto startAt = [&](size_t targetSize) { return Cursor{first, std::min<size_t>(at, targetSize)}; };
  Cursor points = startAt(target.points.size());
  Cursor normals = startAt(target.normals.size());
  Cursor distances = startAt(target.distances.size());
  Cursor resPoints = startAt(target.resPoints.size());
  Cursor auxFirst = startAt(target.auxCtrlFirst.size());
  Cursor auxPos = startAt(target.auxCtrlPos.size());

  auto spliceOne = [](auto& to, const auto& from, Cursor& c) {
    if (lublend::readable(c.read, from.size())) {
      to.insert(to.begin() + static_cast<ptrdiff_t>(c.write), from[c.read]);
      ++c.write;
    }
    ++c.read;
  };

  for (uint64_t t = 0; t < steps; ++t) {
    if (!Q->points.empty()) spliceOne(target.points, Q->points, points);
    if (!Q->normals.empty()) spliceOne(target.normals, Q->normals, normals);
    if (!Q->distances.empty()) spliceOne(target.distances, Q->distances, distances);
    if (!Q->resPoints.empty()) spliceOne(target.resPoints, Q->resPoints, resPoints);
    if (!Q->auxCtrlFirst.empty()) {
      spliceOne(target.auxCtrlFirst, Q->auxCtrlFirst, auxFirst);
      --auxFirst.read;  // stays at the stretch's first point
      ++resPoints.read;
    }
    if (!Q->auxCtrlPos.empty()) spliceOne(target.auxCtrlPos, Q->auxCtrlPos, auxPos);
  }
}
