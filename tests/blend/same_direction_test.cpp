// CheckIsSameDirection: chords of both contours at a pair of points.
#include <gtest/gtest.h>

#include "blend/blend_access.h"

namespace {

class SameDirectionTest : public BlendTest {
protected:
  static bool same(const std::vector<LuVec3>& p, const std::vector<LuVec3>& q, unsigned pi,
                   unsigned qi) {
    return BlendAccess::CheckIsSameDirection(p, q, pi, qi);
  }
  static std::vector<LuVec3> reversed(std::vector<LuVec3> v) {
    std::reverse(v.begin(), v.end());
    return v;
  }
};

TEST_F(SameDirectionTest, ContoursRunningTheSameWayAreSame) {
  EXPECT_TRUE(same(line(10, 0, 1), line(10, 0.5, 1), 2, 3));
}

TEST_F(SameDirectionTest, ContoursRunningOppositeWaysAreNot) {
  EXPECT_FALSE(same(line(10, 0, 1), reversed(line(10, 0, 1)), 2, 3));
}

TEST_F(SameDirectionTest, LastPointUsesABackwardChord) {
  // Q's last point (index 9): chord from 6 to 9, still pointing to increasing index.
  EXPECT_TRUE(same(line(10, 0, 1), line(10, 0, 1), 0, 9));
  EXPECT_FALSE(same(line(10, 0, 1), reversed(line(10, 0, 1)), 0, 9));
}

TEST_F(SameDirectionTest, ChordSpansAtMostThreeSteps) {
  // Q bends back after three steps: a longer chord would point the other way.
  std::vector<LuVec3> q = {{0, 0, 0},   {1, 0, 0},   {2, 0, 0},   {3, 0, 0},  {-10, 0, 0},
                           {-11, 0, 0}, {-12, 0, 0}, {-13, 0, 0}, {-14, 0, 0}};
  EXPECT_TRUE(same(line(10, 0, 1), q, 0, 0));
}

TEST_F(SameDirectionTest, ChordSpansAtMostHalfOfThePointsAhead) {
  // Four points ahead of index 1 of six (m - 1 - 1 = 4): ahead = 2, chord 1..3.
  std::vector<LuVec3> q = {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {1, 0, 0}, {-50, 0, 0}, {-60, 0, 0}};
  EXPECT_TRUE(same(line(10, 0, 1), q, 0, 1));
}

TEST_F(SameDirectionTest, SecondToLastPointHasAZeroChordAndIsNotSame) {
  EXPECT_FALSE(same(line(10, 0, 1), line(10, 0, 1), 2, 8));
  EXPECT_TRUE(logs().empty());
}

TEST_F(SameDirectionTest, IndexOneAsTheLastPointHasAZeroChordAndIsNotSame) {
  EXPECT_FALSE(same(line(10, 0, 1), line(2, 0, 1), 2, 1));
  EXPECT_TRUE(logs().empty());
}

TEST_F(SameDirectionTest, OnePointContourLogsNoNeighborsAtLevelFive) {
  EXPECT_FALSE(same(line(10, 0, 1), line(1, 0, 1), 2, 0));
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].level, 5);
  EXPECT_EQ(logs()[0].source, L"LuAfxsUserIface");
  EXPECT_EQ(logs()[0].message,
            L"LuAfxsUserDataSet::CheckIsSameDirection()- No Neighbors to point  Q_Index = 0,");
}

TEST_F(SameDirectionTest, BothOnePointContoursLogQThenP) {
  EXPECT_FALSE(same(line(1, 0, 1), line(1, 0, 1), 0, 0));
  ASSERT_EQ(logs().size(), 2u);
  EXPECT_EQ(logs()[0].message,
            L"LuAfxsUserDataSet::CheckIsSameDirection()- No Neighbors to point  Q_Index = 0,");
  EXPECT_EQ(logs()[1].message,
            L"LuAfxsUserDataSet::CheckIsSameDirection()- No Neighbors to point  P_Index = 0,");
  EXPECT_NE(logs()[0].line, logs()[1].line);
}

TEST_F(SameDirectionTest, IndexPastTheContourReadsNothingAndIsNotSame) {
  EXPECT_FALSE(same(line(10, 0, 1), line(4, 0, 1), 2, 40));
  EXPECT_FALSE(same(line(10, 0, 1), {}, 2, 0));
}

}  // namespace
