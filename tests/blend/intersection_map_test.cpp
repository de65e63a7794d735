// BuildMapIntersection: the blend stretches of one P segment.
#include <gtest/gtest.h>

#include <random>

#include "blend/blend_access.h"
#include "blend/blend_reference.h"
#include "blend/random_planes.h"

namespace {

class IntersectionMapTest : public BlendTest {
protected:
  void build(const LuAfxsPlane& P, const LuAfxsPlane& Q, unsigned pFirst, unsigned pLast) {
    std::vector<unsigned int> qs, qe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    LuVec3 normal{0, 0, 1};
    EXPECT_TRUE(BlendAccess::BuildMapIntersection(&P, &Q, normal, qs, qe, pFirst, pLast));
  }
  using U = std::vector<uint32_t>;
  U starts() { return BlendAccess::m_VectResultedSegmentsStart; }
  U ends() { return BlendAccess::m_VectResultedSegmentsEnd; }
  U indx() { return BlendAccess::m_VectResultedSegmentsIndx; }
};

TEST_F(IntersectionMapTest, StretchOfFourPointsIsBuilt) {
  // P on Q's line: the front point lies in the overlap box, the back point
  // (outside the box, which leaves P's last point out) is within reach of Q.
  const LuAfxsPlane P = planeOf(line(4, 0.5, 1), {4});
  const LuAfxsPlane Q = planeOf(line(10, 0, 1), {10});
  build(P, Q, 0, 3);
  EXPECT_EQ(starts(), (U{0}));
  EXPECT_EQ(ends(), (U{3}));
  EXPECT_EQ(indx(), (U{0}));
}

TEST_F(IntersectionMapTest, StretchOfThreePointsIsNot) {
  const LuAfxsPlane P = planeOf(line(3, 0.5, 1), {3});
  const LuAfxsPlane Q = planeOf(line(10, 0, 1), {10});
  build(P, Q, 0, 2);
  EXPECT_TRUE(starts().empty());
}

TEST_F(IntersectionMapTest, PSegmentOfOnePointNeverYieldsAStretch) {
  const LuAfxsPlane P = planeOf(line(8, 0.5, 1), {8});
  const LuAfxsPlane Q = planeOf(line(10, 0, 1), {10});
  build(P, Q, 4, 4);
  EXPECT_TRUE(starts().empty());
}

TEST_F(IntersectionMapTest, StretchEndsAreTheFirstPassingPointsFromEitherSide) {
  // P runs from far left along Q and on to far right: x = -8.5, -6.5, ..., 13.5.
  const LuAfxsPlane P = planeOf(line(12, -8.5, 2), {12});
  const LuAfxsPlane Q = planeOf(line(9, 0, 1), {9});  // x 0..8
  build(P, Q, 0, 11);
  // The overlap box spans x 0..7 (Q's last point is left out). Point 4
  // (x -0.5) and point 8 (x 7.5) lie outside it but within reach of Q.
  EXPECT_EQ(starts(), (U{4}));
  EXPECT_EQ(ends(), (U{8}));
}

TEST_F(IntersectionMapTest, LastPointOfThePSegmentIsLeftOutOfItsBox) {
  // Only P's last point lies on Q: without it P's box misses Q's box.
  std::vector<LuVec3> p = line(5, 0, 1, 10.0);
  p[4] = {2.0, 0.0, 0.0};
  const LuAfxsPlane P = planeOf(p, {5});
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  build(P, Q, 0, 4);
  EXPECT_TRUE(starts().empty());
}

TEST_F(IntersectionMapTest, OnePSegmentYieldsOneStretchPerQSegmentAlongIt) {
  const LuAfxsPlane P = planeOf(line(20, 0.25, 1), {20});
  const LuAfxsPlane Q = planeOf(line(20, 0, 1), {10, 20});
  build(P, Q, 0, 19);
  // Against segment 0 (x 0..9; its box and reach leave x 9 out) P runs up to
  // x 9.25, within reach of x 8; against segment 1 from x 9.25 on.
  EXPECT_EQ(indx(), (U{0, 1}));
  EXPECT_EQ(starts(), (U{0, 9}));
  EXPECT_EQ(ends(), (U{9, 19}));
}

TEST_F(IntersectionMapTest, StretchesAreAppendedToTheOnesAlreadyThere) {
  BlendAccess::addStretch(100, 200, 7);
  const LuAfxsPlane P = planeOf(line(4, 0.5, 1), {4});
  const LuAfxsPlane Q = planeOf(line(10, 0, 1), {10});
  build(P, Q, 0, 3);
  EXPECT_EQ(starts(), (U{100, 0}));
}

TEST_F(IntersectionMapTest, SegmentsReachingPastTheResultPointsAreCutThere) {
  const LuAfxsPlane P = planeOf(line(4, 0.5, 1), {4});
  const LuAfxsPlane Q = planeOf(line(10, 0, 1), {40});
  build(P, Q, 0, 30);  // P's segment reaches past its points too
  EXPECT_EQ(starts(), (U{0}));
  EXPECT_EQ(ends(), (U{3}));
}

// The reach test answers through a contour hierarchy; it must find exactly
// the stretches the plain scan finds.
TEST_F(IntersectionMapTest, MatchesThePlainScanOnRandomContours) {
  std::mt19937 random(2024);
  for (int round = 0; round < 300; ++round) {
    BlendAccess::resetScratch();
    LuAfxsPlane P = blendrandom::walk(random, 40 + round % 60, 0.5, 1 + round % 3);
    LuAfxsPlane Q = blendrandom::walk(random, 40 + round % 90, 0.5, 1 + round % 4, {1.0, 0.5, 0});
    std::vector<unsigned int> qs, qe, ps, pe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    BlendAccess::GetPlaneSegments(&P, ps, pe);
    blendref::Stretches expected;
    LuVec3 normal{0, 0, 1};
    for (size_t i = 0; i < ps.size(); ++i) {
      blendref::buildMapIntersection(P, Q, qs, qe, ps[i], pe[i], expected);
      BlendAccess::BuildMapIntersection(&P, &Q, normal, qs, qe, ps[i], pe[i]);
    }
    ASSERT_EQ(starts(), expected.start) << "round " << round;
    ASSERT_EQ(ends(), expected.end) << "round " << round;
    ASSERT_EQ(indx(), expected.indx) << "round " << round;
  }
}

}  // namespace
