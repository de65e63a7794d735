// Boundary tests and the categories of the two ends of every stretch.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

using Categories = LuAfxsUserDataSet::UINT_UINT_CATEGOR;

class BlendCategoriesTest : public BlendTest {
protected:
  static LuAfxsPlane straight(size_t n, std::vector<int32_t> segments, bool reversed = false) {
    std::vector<LuVec3> pts = line(n, 0, 1);
    if (reversed) std::reverse(pts.begin(), pts.end());
    return planeOf(pts, segments);
  }
  static Categories categoriesOf(uint32_t s) { return BlendAccess::m_MapPointIndx2Category.at(s); }
  static void expectCategories(uint32_t s, uint32_t start, uint32_t end) {
    ASSERT_EQ(BlendAccess::m_MapPointIndx2Category.count(s), 1u);
    EXPECT_EQ(categoriesOf(s).startCategory, start);
    EXPECT_EQ(categoriesOf(s).endCategory, end);
  }
};

TEST_F(BlendCategoriesTest, PointWithinToleranceOfItsSegmentStartIsAStartPoint) {
  const LuAfxsPlane plane = straight(40, {20, 40});
  EXPECT_TRUE(BlendAccess::IsPointIsStartSegment(&plane, 3, 10));
  EXPECT_TRUE(BlendAccess::IsPointIsStartSegment(&plane, 10, 10));
  EXPECT_FALSE(BlendAccess::IsPointIsStartSegment(&plane, 11, 10));
  EXPECT_TRUE(BlendAccess::IsPointIsStartSegment(&plane, 30, 10));
  EXPECT_FALSE(BlendAccess::IsPointIsStartSegment(&plane, 31, 10));
  EXPECT_FALSE(BlendAccess::IsPointIsStartSegment(&plane, 40, 10));  // past every segment
}

TEST_F(BlendCategoriesTest, EndTestOfAShortSegmentWrapsAndNeverReportsAnEnd) {
  const LuAfxsPlane plane = straight(8, {8});  // segment 0..7
  EXPECT_FALSE(BlendAccess::IsPointIsEndSegment(&plane, 7, 10));
  EXPECT_TRUE(BlendAccess::IsPointIsEndSegment(&plane, 7, 3));
  EXPECT_TRUE(BlendAccess::IsPointIsEndSegment(&plane, 4, 3));
  EXPECT_FALSE(BlendAccess::IsPointIsEndSegment(&plane, 3, 3));
}

TEST_F(BlendCategoriesTest, EndTestLooksAtTheSegmentHoldingThePoint) {
  const LuAfxsPlane plane = straight(40, {20, 40});
  EXPECT_TRUE(BlendAccess::IsPointIsEndSegment(&plane, 15, 10));
  EXPECT_FALSE(BlendAccess::IsPointIsEndSegment(&plane, 20, 10));
  EXPECT_TRUE(BlendAccess::IsPointIsEndSegment(&plane, 29, 10));
}

TEST_F(BlendCategoriesTest, BothContoursEndingAtBothEndsAreCategoryTwo) {
  const LuAfxsPlane P = straight(20, {20});
  const LuAfxsPlane Q = straight(20, {20});
  BlendAccess::addStretch(0, 19, 0);
  BlendAccess::project(0, {0, 0, 0}, 0);
  BlendAccess::project(19, {19, 0, 0}, 19);
  EXPECT_FALSE(BlendAccess::CategorizBlendPoints(&P, &Q));
  expectCategories(0, 2, 2);
}

TEST_F(BlendCategoriesTest, OppositeDirectionSwapsTheQTests) {
  // Q runs the other way: P's start meets Q's end (index 19) and P's end Q's start.
  const LuAfxsPlane P = straight(20, {20});
  const LuAfxsPlane Q = straight(20, {20}, true);
  BlendAccess::addStretch(0, 19, 0);
  BlendAccess::project(0, {0, 0, 0}, 19);
  BlendAccess::project(19, {19, 0, 0}, 0);
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(0, 2, 2);
}

TEST_F(BlendCategoriesTest, QAtABoundaryWhilePRunsOnIsCategoryOne) {
  const LuAfxsPlane P = straight(60, {60});
  const LuAfxsPlane Q = straight(40, {40});
  BlendAccess::addStretch(20, 45, 0);
  BlendAccess::project(20, {20, 0, 0}, 0);   // Q starts here, P runs on
  BlendAccess::project(45, {45, 0, 0}, 39);  // Q ends here, P runs on
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(20, 1, 1);
}

TEST_F(BlendCategoriesTest, PAtABoundaryWhileQRunsOnIsCategoryThree) {
  const LuAfxsPlane P = straight(30, {30});
  const LuAfxsPlane Q = straight(80, {80});
  BlendAccess::addStretch(0, 29, 0);
  BlendAccess::project(0, {0, 0, 0}, 20);
  BlendAccess::project(29, {29, 0, 0}, 49);
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(0, 3, 3);
}

TEST_F(BlendCategoriesTest, NeitherAtABoundaryIsCategoryFour) {
  const LuAfxsPlane P = straight(60, {60});
  const LuAfxsPlane Q = straight(80, {80});
  BlendAccess::addStretch(20, 40, 0);
  BlendAccess::project(20, {20, 0, 0}, 30);
  BlendAccess::project(40, {40, 0, 0}, 50);
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(20, 4, 4);
}

TEST_F(BlendCategoriesTest, PEndOfAStretchUsesToleranceThree) {
  // P's segment ends at 39: its point 35 would be an end with 10, not with 3.
  const LuAfxsPlane P = straight(40, {40});
  const LuAfxsPlane Q = straight(80, {80});
  BlendAccess::addStretch(20, 35, 0);
  BlendAccess::project(20, {20, 0, 0}, 30);
  BlendAccess::project(35, {35, 0, 0}, 45);
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(20, 4, 4);
  BlendAccess::m_VectResultedSegmentsEnd[0] = 36;
  BlendAccess::project(36, {36, 0, 0}, 46);
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(20, 4, 3);
}

TEST_F(BlendCategoriesTest, EndWithoutAProjectionCountsAsQNotAtABoundary) {
  const LuAfxsPlane P = straight(20, {20});
  const LuAfxsPlane Q = straight(20, {20});
  BlendAccess::addStretch(0, 19, 0);
  BlendAccess::project(19, {19, 0, 0}, 19);  // no entry for the start
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(0, 3, 2);
  BlendAccess::m_MapPointIndx2PrjctdPoint.clear();
  BlendAccess::addStretch(5, 12, 0);  // P at its start boundary only
  BlendAccess::CategorizBlendPoints(&P, &Q);
  expectCategories(0, 3, 3);
  expectCategories(5, 3, 4);
}

TEST_F(BlendCategoriesTest, SecondStretchWithTheSameStartKeepsTheFirstCategories) {
  const LuAfxsPlane P = straight(60, {60});
  const LuAfxsPlane Q = straight(40, {40});
  BlendAccess::addStretch(20, 45, 0);
  BlendAccess::addStretch(20, 30, 0);
  BlendAccess::project(20, {20, 0, 0}, 0);
  BlendAccess::project(45, {45, 0, 0}, 39);
  BlendAccess::project(30, {30, 0, 0}, 20);
  BlendAccess::CategorizBlendPoints(&P, &Q);
  EXPECT_EQ(BlendAccess::m_MapPointIndx2Category.size(), 1u);
  expectCategories(20, 1, 1);
}

TEST_F(BlendCategoriesTest, NoStretchLeavesTheMapEmptyAndIsFalse) {
  BlendAccess::m_MapPointIndx2Category[3] = {1, 1};
  const LuAfxsPlane P = straight(20, {20});
  EXPECT_FALSE(BlendAccess::CategorizBlendPoints(&P, &P));
  EXPECT_TRUE(BlendAccess::m_MapPointIndx2Category.empty());
}

}  // namespace
