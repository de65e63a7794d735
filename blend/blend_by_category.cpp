// The weight ramps of the blend: every coupled P point of a stretch moves to
// a weighted mixture of itself and its projection onto Q, the weights running
// linearly along the stretch as the categories of its two ends say.
#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>
#include <string>

#include <luAnaf/luAfxsDataSet.h>

#include "blend/blend_internal.h"

namespace {

// The unit of a weight step: none, h = 1 / (2L) or f = 1 / L, L being the
// number of points of the stretch.
enum class Step { Zero, PlusH, MinusH, PlusF, MinusF };

// One call of the ramp: starting weights of P and Q and their steps.
struct Ramp {
  double pWeight;
  double qWeight;
  Step pStep;
  Step qStep;
};

// One cell of the table: a ramp over the whole stretch, or two ramps, the
// first over s..mid and the second over mid + 1..e.
struct Cell {
  Ramp first;
  bool split;
  Ramp second;
};

constexpr Ramp kNone{0.0, 0.0, Step::Zero, Step::Zero};

constexpr Cell whole(double p, double q, Step ps, Step qs) {
  return {{p, q, ps, qs}, false, kNone};
}
constexpr Cell halves(Ramp a, Ramp b) { return {a, true, b}; }

// The weight table, row = category of the start, column = category of the
// end (1 to 4). Deliberate and kept as it stands, asymmetries included: with
// 1/1 the first half ends near 0.75/0.25 and the second restarts at 0.5/0.5;
// 3/3 mirrors it; 2/3 and 4/2 ramp P up to 1.0 like the column of 1; only
// 1/3 and 3/1 run the full way with f.
using S = Step;
constexpr std::array<std::array<Cell, 4>, 4> kWeightTable{{
    {{halves({1.0, 0.0, S::MinusH, S::PlusH}, {0.5, 0.5, S::PlusH, S::MinusH}),
      whole(1.0, 0.0, S::MinusH, S::PlusH), whole(1.0, 0.0, S::MinusF, S::PlusF),
      whole(1.0, 0.0, S::MinusH, S::PlusH)}},
    {{whole(0.5, 0.5, S::PlusH, S::MinusH), whole(0.5, 0.5, S::Zero, S::Zero),
      whole(0.5, 0.5, S::PlusH, S::MinusH), whole(0.5, 0.5, S::Zero, S::Zero)}},
    {{whole(0.0, 1.0, S::PlusF, S::MinusF), whole(0.0, 1.0, S::PlusH, S::MinusH),
      halves({0.0, 1.0, S::PlusH, S::MinusH}, {0.5, 0.5, S::MinusH, S::PlusH}),
      whole(0.0, 1.0, S::PlusH, S::MinusH)}},
    {{whole(0.5, 0.5, S::PlusH, S::MinusH), whole(0.5, 0.5, S::PlusH, S::MinusH),
      whole(0.5, 0.5, S::MinusH, S::PlusH), whole(0.5, 0.5, S::Zero, S::Zero)}},
}};

double stepValue(Step step, double h, double f) {
  switch (step) {
    case Step::PlusH:
      return h;
    case Step::MinusH:
      return -h;
    case Step::PlusF:
      return f;
    case Step::MinusF:
      return -f;
    case Step::Zero:
      break;
  }
  return 0.0;
}

}  // namespace

// For i from first to last: add the steps to the weights first (so point
// `first` already carries one step), then, when i has a projection, set the
// output's point i to projection * qWeight + P's point i * pWeight. Points
// without a projection keep their value. Q is not used. Indices past P's or
// the output's points are not written (the walk ends there).
void LuAfxsUserDataSet::CalculateBlendPointsAndSet(const LuAfxsPlane* P, LuAfxsPlane& out,
                                                   const LuAfxsPlane* /*Q*/, unsigned int first,
                                                   unsigned int last, double pWeight,
                                                   double qWeight, double pStep, double qStep) {
  if (first > last) return;
  const size_t writable = std::min(P->points.size(), out.points.size());
  if (writable == 0) return;
  const uint64_t end = std::min<uint64_t>(last, writable - 1);
  // Indices ascend: one cursor walks the projection map alongside.
  auto& projected = m_MapPointIndx2PrjctdPoint;
  auto cursor = projected.lower_bound(static_cast<int32_t>(first));
  for (uint64_t i = first; i <= end; ++i) {
    pWeight += pStep;
    qWeight += qStep;
    const int32_t key = static_cast<int32_t>(i);
    while (cursor != projected.end() && cursor->first < key) ++cursor;
    if (cursor == projected.end() || cursor->first != key) continue;
    const LuVec3& pnt = cursor->second.pnt;
    const LuVec3& p = P->points[i];
    out.points[i] = {pnt.x * qWeight + p.x * pWeight, pnt.y * qWeight + p.y * pWeight,
                     pnt.z * qWeight + p.z * pWeight};
  }
}

// Blends every stretch that has categories by the weight table, then dumps
// the output plane ("_BlendOnly"). With no category at all it returns at once
// and dumps nothing. A category outside 1 to 4 leaves the stretch unblended.
// Always false (intended; callers ignore it).
bool LuAfxsUserDataSet::BlendByCategory(const LuAfxsPlane* P, const LuAfxsPlane* Q,
                                        LuAfxsPlane& out) {
  if (m_MapPointIndx2Category.empty()) return false;

  const size_t stretches =
      std::min(m_VectResultedSegmentsStart.size(), m_VectResultedSegmentsEnd.size());
  for (size_t k = 0; k < stretches; ++k) {
    const uint32_t s = m_VectResultedSegmentsStart[k];
    const uint32_t e = m_VectResultedSegmentsEnd[k];
    const uint32_t n = e - s;
    const double L = static_cast<double>(n) + 1.0;  // the number of points
    const double h = 1.0 / (2.0 * L);
    const double f = 1.0 / L;
    const uint32_t mid = s + n / 2u;

    const auto categories = m_MapPointIndx2Category.find(s);
    if (categories == m_MapPointIndx2Category.end()) continue;
    const uint32_t S = categories->second.startCategory;
    const uint32_t E = categories->second.endCategory;
    if (S < 1 || S > 4 || E < 1 || E > 4) continue;

    const Cell& cell = kWeightTable[S - 1][E - 1];
    auto apply = [&](const Ramp& ramp, uint32_t from, uint32_t to) {
      CalculateBlendPointsAndSet(P, out, Q, from, to, ramp.pWeight, ramp.qWeight,
                                 stepValue(ramp.pStep, h, f), stepValue(ramp.qStep, h, f));
    };
    if (cell.split) {
      apply(cell.first, s, mid);
      apply(cell.second, mid + 1u, e);
    } else {
      apply(cell.first, s, e);
    }
  }
  FlushPlanes2XYZ(&out, m_CurrXsId, false, false, L"_BlendOnly");
  return false;
}
