// MapBlendPointsToCouplePoints: each P point of a stretch paired with its
// nearest Q point and projected onto the Q edge that runs on from there.
#include <gtest/gtest.h>

#include <random>

#include "blend/blend_access.h"
#include "blend/blend_reference.h"
#include "blend/random_planes.h"

namespace {

class PointCouplingTest : public BlendTest {
protected:
  void couple(const LuAfxsPlane& P, const LuAfxsPlane& Q, unsigned pFirst, unsigned pLast,
              unsigned qSeg, bool same) {
    std::vector<unsigned int> qs, qe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    if (BlendAccess::m_BlendedQPointsVector.size() != Q.points.size())
      BlendAccess::m_BlendedQPointsVector.assign(Q.points.size(), false);
    LuVec3 normal{0, 0, 1};
    EXPECT_TRUE(BlendAccess::MapBlendPointsToCouplePoints(&P, &Q, normal, qs, qe, pFirst, pLast,
                                                          qSeg, same));
  }
  static const auto& projected() { return BlendAccess::m_MapPointIndx2PrjctdPoint; }
  static bool has(int p) { return projected().count(p) == 1; }
  static LuVec3 pnt(int p) { return projected().at(p).pnt; }
  static uint32_t indx(int p) { return projected().at(p).indx; }
};

TEST_F(PointCouplingTest, PointIsProjectedOntoTheQEdgeAlongItsDirection) {
  const LuAfxsPlane P = planeOf({{1.3, 0.7, 0}}, {1});
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  couple(P, Q, 0, 0, 0, true);
  ASSERT_TRUE(has(0));
  EXPECT_EQ(indx(0), 1u);
  EXPECT_NEAR(pnt(0).x, 1.3, 1e-12);
  EXPECT_EQ(pnt(0).y, 0.0);
  EXPECT_TRUE(BlendAccess::m_BlendedQPointsVector[1]);
  EXPECT_FALSE(BlendAccess::m_BlendedQPointsVector[2]);
}

TEST_F(PointCouplingTest, NeighbourFollowsTheDirectionOnABentQ) {
  // Q bends at point 1: the edge 1-2 runs along y, the edge 0-1 along x.
  const LuAfxsPlane Q = planeOf({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}, {3});
  const LuAfxsPlane P = planeOf({{1.2, 0.3, 0}}, {1});
  couple(P, Q, 0, 0, 0, true);
  EXPECT_NEAR(pnt(0).x, 1.0, 1e-12);  // onto the edge 1-2
  EXPECT_NEAR(pnt(0).y, 0.3, 1e-12);
  BlendAccess::m_MapPointIndx2PrjctdPoint.clear();
  couple(P, Q, 0, 0, 0, false);
  EXPECT_NEAR(pnt(0).x, 1.2, 1e-12);  // onto the edge 0-1 (its line)
  EXPECT_NEAR(pnt(0).y, 0.0, 1e-12);
}

TEST_F(PointCouplingTest, LastPointOfQWithTheSameDirectionTakesThePointBefore) {
  const LuAfxsPlane Q = planeOf({{0, 0, 0}, {1, 0, 0}, {2, 1, 0}}, {3});
  const LuAfxsPlane P = planeOf({{2.0, 1.5, 0}}, {1});
  couple(P, Q, 0, 0, 0, true);
  ASSERT_TRUE(has(0));
  EXPECT_EQ(indx(0), 2u);
  // Foot point of (2, 1.5) on the line through (2, 1) and (1, 0): t = -0.25.
  EXPECT_NEAR(pnt(0).x, 2.25, 1e-12);
  EXPECT_NEAR(pnt(0).y, 1.25, 1e-12);
}

TEST_F(PointCouplingTest, FirstPointOfQAgainstTheDirectionTakesPointOne) {
  const LuAfxsPlane Q = planeOf({{0, 0, 0}, {0, 1, 0}, {5, 5, 0}}, {3});
  const LuAfxsPlane P = planeOf({{0.2, -0.5, 0}}, {1});
  couple(P, Q, 0, 0, 0, false);
  EXPECT_EQ(indx(0), 0u);
  EXPECT_NEAR(pnt(0).x, 0.0, 1e-12);
  EXPECT_NEAR(pnt(0).y, -0.5, 1e-12);
}

TEST_F(PointCouplingTest, SquaredDistanceOfExactlyTwoEndsTheSearchButIsNotCoupled) {
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  const LuAfxsPlane P = planeOf({{2.0, 0.5, 0}, {2.0, std::sqrt(2.0), 0}, {1.0, 1.0, 1.0}}, {3});
  couple(P, Q, 0, 2, 0, true);
  EXPECT_TRUE(has(0));
  EXPECT_FALSE(has(1));  // exactly 2.0: not below the limit
  EXPECT_FALSE(has(2));  // squared 2.0 as well
}

TEST_F(PointCouplingTest, PointsWithoutANearQPointGetNoEntry) {
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  const LuAfxsPlane P = planeOf({{2, 0.1, 0}, {2, 8, 0}, {3, 0.1, 0}}, {3});
  couple(P, Q, 0, 2, 0, true);
  EXPECT_TRUE(has(0));
  EXPECT_FALSE(has(1));
  EXPECT_TRUE(has(2));
}

TEST_F(PointCouplingTest, EarlierStretchKeepsItsCouplingOfSharedPoints) {
  const LuAfxsPlane Q = planeOf(line(20, 0, 1), {10, 20});
  const LuAfxsPlane P = planeOf(line(20, 0.2, 1, 0.1), {20});
  couple(P, Q, 0, 9, 0, true);
  const uint32_t before = indx(9);
  couple(P, Q, 5, 15, 1, true);
  EXPECT_EQ(indx(9), before);
  EXPECT_EQ(indx(12), 12u);
}

TEST_F(PointCouplingTest, SegmentWhoseStartExceedsItsEndCouplesNothing) {
  const LuAfxsPlane Q = planeOf(line(6, 0, 1), {4, 2});  // segment 1 runs 4..1
  const LuAfxsPlane P = planeOf(line(4, 0, 1), {4});
  couple(P, Q, 0, 3, 1, true);
  EXPECT_TRUE(projected().empty());
}

TEST_F(PointCouplingTest, FarJumpAlongQFallsBackToTheWholeSegment) {
  const LuAfxsPlane Q = planeOf(line(100, 0, 1), {100});
  const LuAfxsPlane P = planeOf({{0.1, 0.1, 0}, {60.2, 0.1, 0}, {61.2, 0.1, 0}}, {3});
  couple(P, Q, 0, 2, 0, true);
  EXPECT_EQ(indx(0), 0u);
  EXPECT_EQ(indx(1), 60u);
  EXPECT_EQ(indx(2), 61u);
}

TEST_F(PointCouplingTest, WindowMayReachIntoTheSegmentBefore) {
  // Segment 1 starts at Q point 10; P's first point is nearest to 10 (the
  // hint), its second lies on Q point 7 of segment 0, inside the window.
  const LuAfxsPlane Q = planeOf(line(20, 0, 1), {10, 20});
  const LuAfxsPlane P = planeOf({{10, 0.1, 0}, {7, 0.1, 0}}, {2});
  couple(P, Q, 0, 1, 1, true);
  EXPECT_EQ(indx(0), 10u);
  EXPECT_EQ(indx(1), 7u);
}

TEST_F(PointCouplingTest, WindowIsClampedToTheSegmentEnd) {
  // Segment 0 ends at Q point 9; point 11 of the next segment is nearer to
  // P's second point but lies past the window's upper clamp.
  const LuAfxsPlane Q = planeOf(line(20, 0, 1), {10, 20});
  const LuAfxsPlane P = planeOf({{8, 0.1, 0}, {9.9, 0, 0}}, {2});
  couple(P, Q, 0, 1, 0, true);
  EXPECT_EQ(indx(1), 9u);
}

// The full-segment fall-back answers through a contour hierarchy; the
// coupling must equal the plain scans point for point.
TEST_F(PointCouplingTest, MatchesThePlainScansOnRandomContours) {
  std::mt19937 random(77);
  size_t coupled = 0;
  for (int round = 0; round < 300; ++round) {
    BlendAccess::resetScratch();
    const LuAfxsPlane P = blendrandom::walk(random, 30 + round % 70, 0.7, 1);
    const LuAfxsPlane Q =
        blendrandom::walk(random, 50 + round % 120, 0.7, 1 + round % 3, {0.3, 0.2, 0});
    std::vector<unsigned int> qs, qe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    const uint32_t qSeg = static_cast<uint32_t>(round % qs.size());
    const bool same = round % 2 == 0;
    const uint32_t pLast = static_cast<uint32_t>(P.points.size() - 1);

    std::map<int32_t, blendref::Projection> expected;
    std::vector<bool> expectedFlags(Q.points.size(), false);
    blendref::couple(P, Q, {0, 0, 1}, qs, qe, 0, pLast, qSeg, same, expected, expectedFlags);
    couple(P, Q, 0, pLast, qSeg, same);

    ASSERT_EQ(projected().size(), expected.size()) << "round " << round;
    for (const auto& [key, value] : expected) {
      ASSERT_EQ(projected().at(key).indx, value.indx) << "round " << round << " point " << key;
      ASSERT_EQ(projected().at(key).pnt, value.pnt) << "round " << round << " point " << key;
    }
    ASSERT_EQ(BlendAccess::m_BlendedQPointsVector, expectedFlags) << "round " << round;
    coupled += expected.size();
  }
  EXPECT_GT(coupled, 1000u);
}

}  // namespace
