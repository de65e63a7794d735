// FindPPointNearestQPoint: the nearest Q point of one segment, within reach.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

class NearestPointTest : public BlendTest {
protected:
  bool find(const LuAfxsPlane& P, const LuAfxsPlane& Q, unsigned qSeg, unsigned pIndex,
            bool useRes = false) {
    std::vector<unsigned int> qs, qe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    LuVec3 normal{0, 0, 1};
    return BlendAccess::FindPPointNearestQPoint(&P, &Q, normal, qs, qe, qSeg, pIndex, qIndex, d2,
                                                useRes);
  }
  unsigned qIndex = 999;
  double d2 = -1.0;
};

TEST_F(NearestPointTest, FindsTheNearestPointOfTheSegmentAndItsSquaredDistance) {
  const LuAfxsPlane P = planeOf({{2.2, 0.5, 0}}, {1});
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  ASSERT_TRUE(find(P, Q, 0, 0));
  EXPECT_EQ(qIndex, 2u);
  EXPECT_DOUBLE_EQ(d2, 0.2 * 0.2 + 0.25);
}

TEST_F(NearestPointTest, TwoPointsAtTheSameSmallestDistanceGiveTheLowerIndex) {
  const LuAfxsPlane P = planeOf({{1.5, 0.0, 0}}, {1});
  const LuAfxsPlane Q = planeOf(line(4, 0, 1), {4});
  ASSERT_TRUE(find(P, Q, 0, 0));
  EXPECT_EQ(qIndex, 1u);
}

TEST_F(NearestPointTest, SquaredDistanceOfExactlyTwoIsAccepted) {
  const LuAfxsPlane P = planeOf({{1.0, 1.0, 0}}, {1});
  const LuAfxsPlane Q = planeOf({{0, 0, 0}}, {1});
  ASSERT_TRUE(find(P, Q, 0, 0));
  EXPECT_EQ(d2, 2.0);
}

TEST_F(NearestPointTest, SquaredDistanceJustAboveTwoFailsAndLeavesOutputs) {
  const LuAfxsPlane P = planeOf({{std::sqrt(2.0000001), 0.0, 0}}, {1});
  const LuAfxsPlane Q = planeOf({{0, 0, 0}}, {1});
  EXPECT_FALSE(find(P, Q, 0, 0));
  EXPECT_EQ(qIndex, 999u);
  EXPECT_EQ(d2, -1.0);
}

TEST_F(NearestPointTest, SearchStaysWithinTheGivenSegment) {
  const LuAfxsPlane P = planeOf({{0.1, 0, 0}}, {1});
  const LuAfxsPlane Q = planeOf(line(6, 0, 0.5), {2, 6});
  ASSERT_TRUE(find(P, Q, 1, 0));
  EXPECT_EQ(qIndex, 2u);
}

TEST_F(NearestPointTest, ResultPointsAreUsedWhenAskedFor) {
  LuAfxsPlane P = planeOf({{0, 0, 0}}, {1});
  P.resPoints = {{3.0, 0, 0}};
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  ASSERT_TRUE(find(P, Q, 0, 0, true));
  EXPECT_EQ(qIndex, 3u);
  ASSERT_TRUE(find(P, Q, 0, 0, false));
  EXPECT_EQ(qIndex, 0u);
}

TEST_F(NearestPointTest, SegmentWhoseStartExceedsItsEndFails) {
  const LuAfxsPlane P = planeOf({{0, 0, 0}}, {1});
  const LuAfxsPlane Q = planeOf(line(4, 0, 1), {3, 2});  // segment 1 runs 3..1
  EXPECT_FALSE(find(P, Q, 1, 0));
}

TEST_F(NearestPointTest, IndicesPastTheListsAreNotRead) {
  const LuAfxsPlane P = planeOf({{0, 0, 0}}, {1});
  const LuAfxsPlane Q = planeOf(line(2, 5, 1), {9});  // segment reaches past the points
  EXPECT_FALSE(find(P, Q, 0, 0));                     // nearest readable point is too far
  EXPECT_FALSE(find(P, Q, 0, 7));                     // P index past P
  EXPECT_FALSE(find(P, Q, 4, 0));                     // segment number past the ranges
  const LuAfxsPlane nearQ = planeOf(line(2, 0.5, 1), {9});
  ASSERT_TRUE(find(P, nearQ, 0, 0));
  EXPECT_EQ(qIndex, 0u);
}

}  // namespace
