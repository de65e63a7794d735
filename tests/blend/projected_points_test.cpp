// BuildProjectedPoints: the stretches of P along Q and their coupling.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

using U = std::vector<uint32_t>;

class ProjectedPointsTest : public BlendTest {
protected:
  // P at x = 0.2 .. 19.2 and Q at x = 10 .. 29 on the x axis: they overlap
  // from P's point 10 on, each P point 0.2 past its Q point.
  void SetUp() override {
    BlendTest::SetUp();
    P = planeOf(line(20, 0.2, 1), {20});
    P.normals.assign(20, {0, 1, 0});
    Q = planeOf(line(20, 10, 1), {20}, 3, 2);
    Q.normals.assign(20, {0, 1, 0});
  }
  LuAfxsPlane P, Q;
};

TEST_F(ProjectedPointsTest, OverlappingContoursGiveOneCoupledStretch) {
  EXPECT_TRUE(BlendAccess::BuildProjectedPoints(&P, &Q));
  EXPECT_EQ(BlendAccess::m_VectResultedSegmentsStart, (U{10}));
  EXPECT_EQ(BlendAccess::m_VectResultedSegmentsEnd, (U{19}));
  EXPECT_EQ(BlendAccess::m_VectResultedSegmentsIndx, (U{0}));
  const auto& projected = BlendAccess::m_MapPointIndx2PrjctdPoint;
  ASSERT_EQ(projected.size(), 10u);
  for (int i = 10; i < 20; ++i) {
    EXPECT_EQ(projected.at(i).indx, uint32_t(i - 10));
    EXPECT_NEAR(projected.at(i).pnt.x, 0.2 + i, 1e-12);
    EXPECT_EQ(projected.at(i).pnt.y, 0.0);
  }
  std::vector<bool> flags(20, false);
  for (int i = 0; i < 10; ++i) flags[i] = true;
  EXPECT_EQ(BlendAccess::m_BlendedQPointsVector, flags);
}

TEST_F(ProjectedPointsTest, EmptySegmentsFieldGivesNoStretchAndFalse) {
  P.segments.clear();
  EXPECT_FALSE(BlendAccess::BuildProjectedPoints(&P, &Q));
  EXPECT_TRUE(BlendAccess::m_VectResultedSegmentsStart.empty());
  EXPECT_TRUE(BlendAccess::m_MapPointIndx2PrjctdPoint.empty());
}

TEST_F(ProjectedPointsTest, ScratchIsEmptiedAndQFlagsSizedBeforeTheSearch) {
  BlendAccess::project(3, {0, 0, 0}, 0);
  BlendAccess::addStretch(1, 2, 3);
  BlendAccess::m_VectQUsedSegmentsStart = {4};
  BlendAccess::m_VectQUsedSegmentsEnd = {5};
  BlendAccess::m_VectQUsedSegments_P_Insert_Index = {0};
  BlendAccess::m_VectQUsedSegments_P_Insert_SegIndex = {0};
  Q.segments.clear();  // nothing to find
  EXPECT_FALSE(BlendAccess::BuildProjectedPoints(&P, &Q));
  EXPECT_TRUE(BlendAccess::m_MapPointIndx2PrjctdPoint.empty());
  EXPECT_TRUE(BlendAccess::m_VectResultedSegmentsStart.empty());
  EXPECT_TRUE(BlendAccess::m_VectQUsedSegmentsStart.empty());
  EXPECT_TRUE(BlendAccess::m_VectQUsedSegments_P_Insert_SegIndex.empty());
  EXPECT_EQ(BlendAccess::m_BlendedQPointsVector, std::vector<bool>(20, false));
}

TEST_F(ProjectedPointsTest, DirectionOfAStretchIsMeasuredOnTheResultPoints) {
  // Q bends up at its point 4. Running the same way, P's point 4 projects
  // onto the edge 4-5 (the line x = 4); with P's result points reversed the
  // stretch counts as running against Q, and it projects onto the edge 4-3.
  std::vector<LuVec3> q = {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}, {4, 0, 0},
                           {4, 1, 0}, {4, 2, 0}, {4, 3, 0}, {4, 4, 0}};
  Q = planeOf(q, {9}, 3, 2);
  Q.normals.assign(9, {0, 1, 0});
  P = planeOf({{0.1, 0.1, 0}, {1.1, 0.1, 0}, {2.1, 0.1, 0}, {3.1, 0.1, 0}, {4.1, 0.1, 0}}, {5});
  P.normals.assign(5, {0, 1, 0});
  EXPECT_TRUE(BlendAccess::BuildProjectedPoints(&P, &Q));
  EXPECT_NEAR(BlendAccess::m_MapPointIndx2PrjctdPoint.at(4).pnt.x, 4.0, 1e-12);
  EXPECT_NEAR(BlendAccess::m_MapPointIndx2PrjctdPoint.at(4).pnt.y, 0.1, 1e-12);
  P.resPoints = {P.points.rbegin(), P.points.rend()};
  EXPECT_TRUE(BlendAccess::BuildProjectedPoints(&P, &Q));
  EXPECT_NEAR(BlendAccess::m_MapPointIndx2PrjctdPoint.at(4).pnt.x, 4.1, 1e-12);
  EXPECT_NEAR(BlendAccess::m_MapPointIndx2PrjctdPoint.at(4).pnt.y, 0.0, 1e-12);
}

}  // namespace
