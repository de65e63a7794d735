// Comparing a measured plane with a nominal one: nearest points on the
// polylines, signed distances, the per-plane summary.
#include <gtest/gtest.h>

#include <cmath>
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

}  // namespace
