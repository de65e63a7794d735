// Comparing a measured plane with a nominal one: nearest points on the
// polylines, signed distances, the per-plane summary.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

#include <luAnaf/luAfxsSection.h>
#include <luAnaf/luAnaf.h>

namespace {

// A closed counter-clockwise square of side `size` centred on the origin,
// with outward normals at the corners' neighbours (mid-side points).
LuAfxsPlane square(double size, bool withNormals) {
  LuAfxsPlane p;
  double h = size / 2;
  p.points = {{-h, -h, 0}, {h, -h, 0}, {h, h, 0}, {-h, h, 0}, {-h, -h, 0}};
  p.segments = {5};
  if (withNormals) p.normals = {{0, -1, 0}, {1, 0, 0}, {0, 1, 0}, {-1, 0, 0}, {0, -1, 0}};
  return p;
}

LuAfxsPlane measuredAt(const std::vector<LuVec3>& points, const std::vector<LuVec3>& normals) {
  LuAfxsPlane p;
  p.points = points;
  p.normals = normals;
  p.segments = {static_cast<int32_t>(points.size())};
  return p;
}

TEST(ContourCompare, NearestPointLiesOnThePieceNotOnlyAtItsEnds) {
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt({{1.3, 0.25, 0}}, {{1, 0, 0}}), square(2, true), dev));
  ASSERT_EQ(dev.resultPoints.size(), 1u);
  EXPECT_NEAR(dev.resultPoints[0].x, 1, 1e-15);
  EXPECT_NEAR(dev.resultPoints[0].y, 0.25, 1e-15);
  EXPECT_NEAR(dev.distances[0], 0.3, 1e-12);
}

TEST(ContourCompare, PointsInsideAreNegativeAlongTheirOutwardNormal) {
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt({{0.8, 0, 0}, {0, -1.2, 0}}, {{1, 0, 0}, {0, -1, 0}}),
                                 square(2, false), dev));
  EXPECT_NEAR(dev.distances[0], -0.2, 1e-12);
  EXPECT_NEAR(dev.distances[1], 0.2, 1e-12);
  EXPECT_NEAR(dev.min, -0.2, 1e-12);
  EXPECT_NEAR(dev.max, 0.2, 1e-12);
  EXPECT_NEAR(dev.mean, 0, 1e-12);
  EXPECT_NEAR(dev.rms, 0.2, 1e-12);
}

TEST(ContourCompare, WithoutMeasuredNormalsTheNominalNormalSigns) {
  LuAfxsPlane side;
  side.points = {{-1, 1, 0}, {1, 1, 0}};
  side.normals = {{0, 1, 0}, {0, 1, 0}};
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt({{0.5, 0.9, 0}, {0.5, 1.1, 0}}, {}), side, dev));
  EXPECT_NEAR(dev.distances[0], -0.1, 1e-12);
  EXPECT_NEAR(dev.distances[1], 0.1, 1e-12);
}

TEST(ContourCompare, WithoutAnyNormalsTheDistanceIsUnsigned) {
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt({{0.5, 0.9, 0}}, {}), square(2, false), dev));
  EXPECT_NEAR(dev.distances[0], 0.1, 1e-12);
}

TEST(ContourCompare, AContourAgainstItselfIsZeroEverywhere) {
  LuAfxsPlane nominal = square(2, true);
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(nominal, nominal, dev));
  for (size_t i = 0; i < dev.distances.size(); ++i) {
    EXPECT_EQ(dev.distances[i], 0);
    EXPECT_EQ(dev.resultPoints[i], nominal.points[i]);
  }
}

TEST(ContourCompare, WorstPointHasTheLargestDeviation) {
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(
      measuredAt({{1.1, 0, 0}, {1.5, 0.5, 0}, {0.7, -0.2, 0}}, {{1, 0, 0}, {1, 0, 0}, {1, 0, 0}}),
      square(2, false), dev));
  EXPECT_EQ(dev.worstIndex, 1u);
  EXPECT_EQ(dev.count, 3u);
}

TEST(ContourCompare, SegmentsAreNotJoinedAcrossTheirBreak) {
  LuAfxsPlane nominal;
  nominal.points = {{0, 0, 0}, {1, 0, 0}, {3, 0, 0}, {4, 0, 0}};
  nominal.segments = {2, 4};
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt({{2, 0.1, 0}}, {}), nominal, dev));
  // Nearest is an end of a piece (1, 0) or (3, 0), not the gap between them.
  EXPECT_NEAR(dev.distances[0], std::sqrt(1.01), 1e-12);
  EXPECT_EQ(dev.resultPoints[0], (LuVec3{1, 0, 0}));  // equal distances: the lower piece
}

TEST(ContourCompare, EmptyNominalIsRefused) {
  LuAfxsPlaneDeviation dev;
  EXPECT_FALSE(luAfxsComparePlane(measuredAt({{0, 0, 0}}, {}), LuAfxsPlane{}, dev));
}

// The grid's answer equals a search over every piece, for points near and
// far, on a long random polyline.
TEST(ContourCompare, GridFindsTheSameNearestPointAsAFullSearch) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> step(-1, 1), far(-200, 200);
  LuAfxsPlane nominal;
  LuVec3 p{0, 0, 0};
  for (int i = 0; i < 3000; ++i) {
    p = p + LuVec3{step(random), step(random), 0.01 * step(random)};
    nominal.points.push_back(p);
  }
  nominal.segments = {1000, 1001, 3000};
  std::vector<LuVec3> queries;
  for (int i = 0; i < 500; ++i)
    queries.push_back(i % 2 ? LuVec3{far(random), far(random), far(random) * 0.1}
                            : nominal.points[static_cast<size_t>(i) * 5] +
                                  LuVec3{step(random), step(random), step(random)});
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt(queries, {}), nominal, dev));
  for (size_t q = 0; q < queries.size(); ++q) {
    double best = INFINITY;
    size_t first = 0;
    for (int32_t end : nominal.segments) {
      for (size_t i = first; i < static_cast<size_t>(end); ++i) {
        LuVec3 a = nominal.points[i],
               b = i + 1 < static_cast<size_t>(end) ? nominal.points[i + 1] : a;
        LuVec3 ab = b - a;
        double l2 = ab.dot(ab);
        double t = l2 > 0 ? std::clamp((queries[q] - a).dot(ab) / l2, 0.0, 1.0) : 0.0;
        best = std::min(best, (queries[q] - (a + ab * t)).length());
      }
      first = static_cast<size_t>(end);
    }
    EXPECT_NEAR(dev.distances[q], best, 1e-9) << q;
  }
}

// The nearest point on every piece of `nominal`, measured the way the
// compare measures one piece, the lowest (squared distance, piece number)
// winning. Pieces are numbered polyline by polyline; a polyline of one point
// is one piece from the point to itself. `segments` must be increasing and
// end at the last point.
struct BruteNearest {
  uint32_t piece = UINT32_MAX;
  LuVec3 point{0, 0, 0};
  double distance2 = INFINITY;
  bool tied = false;  // another piece is as near with another nearest point
};

BruteNearest bruteNearest(const LuAfxsPlane& nominal, const LuVec3& q) {
  BruteNearest best;
  uint32_t piece = 0;
  size_t first = 0;
  auto measure = [&](const LuVec3& a, const LuVec3& b) {
    LuVec3 ab = b - a;
    double l2 = ab.dot(ab);
    double t = l2 > 0 ? std::clamp((q - a).dot(ab) / l2, 0.0, 1.0) : 0.0;
    LuVec3 p = t == 1.0 ? b : a + ab * t;
    double d2 = (q - p).dot(q - p);
    if (d2 < best.distance2)
      best = {piece, p, d2, false};
    else if (d2 == best.distance2 && p != best.point)
      best.tied = true;
    ++piece;
  };
  for (int32_t e : nominal.segments) {
    const size_t end = static_cast<size_t>(e);
    if (end - first == 1) measure(nominal.points[first], nominal.points[first]);
    for (size_t i = first; i + 1 < end; ++i) measure(nominal.points[i], nominal.points[i + 1]);
    first = end;
  }
  return best;
}

// A random walk on the integer lattice in z = 0, in polylines of 1 to 40
// points: repeated points (pieces of no length), polylines of one point,
// pieces on top of each other and many points at equal distances from the
// half-integer queries.
LuAfxsPlane latticeWalk(std::mt19937& random, int points) {
  std::uniform_int_distribution<int> step(-1, 1), length(1, 40);
  LuAfxsPlane p;
  LuVec3 at{0, 0, 0};
  int next = length(random);
  for (int i = 0; i < points; ++i) {
    at = at + LuVec3{static_cast<double>(step(random)), static_cast<double>(step(random)), 0};
    p.points.push_back(at);
    if (--next == 0 || i + 1 == points) {
      p.segments.push_back(static_cast<int32_t>(p.points.size()));
      next = length(random);
    }
  }
  return p;
}

// Queries on the half-integer lattice near the walk, at random points in
// space, and in sequence along a shifted copy of the walk (as a measured
// contour runs along its nominal one).
std::vector<LuVec3> queriesAround(const LuAfxsPlane& nominal, std::mt19937& random, int count) {
  std::uniform_int_distribution<int> pick(0, static_cast<int>(nominal.points.size()) - 1),
      half(-4, 4);
  std::uniform_real_distribution<double> far(-300, 300), near(-2, 2);
  std::vector<LuVec3> queries;
  for (int i = 0; i < count; ++i) {
    const LuVec3& p = nominal.points[static_cast<size_t>(pick(random))];
    switch (i % 4) {
      case 0:
        queries.push_back(p + LuVec3{half(random) * 0.5, half(random) * 0.5, 0});
        break;
      case 1:
        queries.push_back({far(random), far(random), far(random) * 0.01});
        break;
      default:
        queries.push_back(nominal.points[static_cast<size_t>(i) % nominal.points.size()] +
                          LuVec3{0.25, near(random) * 0.1, near(random) * 0.01});
    }
  }
  return queries;
}

// Every answer of the grid is the one a search over every piece gives, to
// the bit: the nearest point, its distance and, on equal distances, the
// piece of lowest number.
TEST(ContourCompare, GridMatchesAFullSearchBitForBitWithTiesAndEmptyPieces) {
  std::mt19937 random(11);
  for (int round = 0; round < 6; ++round) {
    LuAfxsPlane nominal = latticeWalk(random, round < 3 ? 400 : 4000);
    std::vector<LuVec3> queries = queriesAround(nominal, random, 3000);
    LuAfxsPlaneDeviation dev;
    ASSERT_TRUE(luAfxsComparePlane(measuredAt(queries, {}), nominal, dev));
    size_t ties = 0;
    for (size_t q = 0; q < queries.size(); ++q) {
      BruteNearest want = bruteNearest(nominal, queries[q]);
      ASSERT_EQ(dev.resultPoints[q], want.point) << "round " << round << " query " << q;
      ASSERT_EQ(dev.distances[q], std::sqrt(want.distance2)) << "round " << round << " query " << q;
      ties += want.tied ? 1 : 0;
    }
    EXPECT_GT(ties, 0u);
  }
}

// A tie between two pieces at the same distance with different nearest
// points goes to the lower piece whichever piece the last query ended on.
TEST(ContourCompare, TieGoesToTheLowerPieceWhateverTheQueryBefore) {
  LuAfxsPlane nominal;
  nominal.points = {{0, 0, 0}, {0, 10, 0}, {2, 10, 0}, {2, 0, 0}};
  nominal.segments = {2, 4};
  // The last query ends on the second polyline; the next one lies midway.
  LuAfxsPlaneDeviation dev;
  ASSERT_TRUE(luAfxsComparePlane(measuredAt({{2.1, 5, 0}, {1, 5, 0}, {1.9, 5, 0}, {1, 7, 0}}, {}),
                                 nominal, dev));
  EXPECT_EQ(dev.resultPoints[1], (LuVec3{0, 5, 0}));
  EXPECT_EQ(dev.resultPoints[3], (LuVec3{0, 7, 0}));
  EXPECT_EQ(dev.resultPoints[2], (LuVec3{2, 5, 0}));
}

}  // namespace
