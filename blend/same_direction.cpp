// The direction test between the two contours at a pair of points.
#include <algorithm>
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>
#include <luAnaf/luEnv.h>

#include "blend/blend_internal.h"
#include "format/format.h"

namespace {

// The most steps a chord spans.
constexpr uint32_t kMaxChordSteps = 3;

// The chord of a contour at one point, always pointing towards increasing
// index: forward over at most 3 steps and half of the points ahead, or, at the
// last point (or beyond), backward the same way. At index 0 of a one-point
// contour the chord is empty and the message is logged. All arithmetic is
// unsigned 32-bit, as intended. A chord end past the list (an index beyond
// the contour, or no points at all) gives an empty chord: nothing is read
// outside the list and the contours then count as running opposite ways.
LuVec3 chordAt(const std::vector<LuVec3>& pts, uint32_t index, const wchar_t* message, int line) {
  const uint32_t m = static_cast<uint32_t>(pts.size());
  uint32_t from = index;
  uint32_t to = index;
  if (index >= m - 1u) {
    uint32_t back = 0;
    if (index != 0) {
      back = std::min(index / 2u, kMaxChordSteps);
    } else {
      writeLogF(5, line, afxs::kUserSource, luEnvBuildDate(), message, static_cast<int>(index));
    }
    from = index - back;
  } else {
    const uint32_t ahead = std::min((m - 1u - index) / 2u, kMaxChordSteps);
    to = index + ahead;
  }
  if (!lublend::readable(from, pts.size()) || !lublend::readable(to, pts.size())) {
    return {0.0, 0.0, 0.0};
  }
  return pts[to] - pts[from];
}

}  // namespace

// True when the chords of the two contours at the two points make a strictly
// positive dot product. A chord of length zero (no room on either side) gives
// 0, so the contours then count as running opposite ways.
bool LuAfxsUserDataSet::CheckIsSameDirection(const std::vector<LuVec3>& pPoints,
                                             const std::vector<LuVec3>& qPoints,
                                             unsigned int pIndex, unsigned int qIndex) {
  const LuVec3 qChord =
      chordAt(qPoints, qIndex,
              L"LuAfxsUserDataSet::CheckIsSameDirection()- No Neighbors to point  Q_Index = %d,",
              lublend::kLineNoNeighborsQ);
  const LuVec3 pChord =
      chordAt(pPoints, pIndex,
              L"LuAfxsUserDataSet::CheckIsSameDirection()- No Neighbors to point  P_Index = %d,",
              lublend::kLineNoNeighborsP);
  return pChord.dot(qChord) > 0.0;
}
