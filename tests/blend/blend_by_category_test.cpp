// BlendByCategory and CalculateBlendPointsAndSet: the weight ramps.
#include <gtest/gtest.h>

#include <filesystem>

#include "blend/blend_access.h"

namespace {

namespace fs = std::filesystem;

// P along the x axis at y = 0, every point projected onto y = 1: a blended
// point's y is the Q weight it got, its x stays (the weights sum to 1).
class BlendByCategoryTest : public BlendTest {
protected:
  void SetUp() override {
    BlendTest::SetUp();
    P = planeOf(line(20, 0, 1), {20});
    out = P;
    for (int i = 0; i < 20; ++i) BlendAccess::project(i, {double(i), 1.0, 0}, i);
  }
  double qWeightAt(size_t i) const { return out.points[i].y; }
  double pWeightAt(size_t i) const { return 1.0 - out.points[i].y; }
  bool blend() { return BlendAccess::BlendByCategory(&P, &P, out); }

  LuAfxsPlane P;
  LuAfxsPlane out;
};

TEST_F(BlendByCategoryTest, FivePointsOfCategoriesTwoAndTwoGoToTheMidpoint) {
  BlendAccess::addStretch(3, 7, 0);
  BlendAccess::m_MapPointIndx2Category[3] = {2, 2};
  EXPECT_FALSE(blend());
  for (size_t i = 3; i <= 7; ++i) {
    EXPECT_DOUBLE_EQ(out.points[i].y, 0.5) << i;
    EXPECT_DOUBLE_EQ(out.points[i].x, double(i)) << i;
  }
  EXPECT_EQ(out.points[2].y, 0.0);
  EXPECT_EQ(out.points[8].y, 0.0);
}

TEST_F(BlendByCategoryTest, CategoriesOneAndThreeOverFourPointsRampPDownToZero) {
  BlendAccess::addStretch(4, 7, 0);
  BlendAccess::m_MapPointIndx2Category[4] = {1, 3};
  blend();
  EXPECT_DOUBLE_EQ(pWeightAt(4), 0.75);
  EXPECT_DOUBLE_EQ(pWeightAt(5), 0.5);
  EXPECT_DOUBLE_EQ(pWeightAt(6), 0.25);
  EXPECT_NEAR(pWeightAt(7), 0.0, 1e-15);
}

TEST_F(BlendByCategoryTest, CategoriesOneAndOneSplitAtTheMiddle) {
  // n = 5, L = 6, h = 1/12: s..s+2 from 1.0 down, s+3..s+5 from 0.5 up.
  BlendAccess::addStretch(2, 7, 0);
  BlendAccess::m_MapPointIndx2Category[2] = {1, 1};
  blend();
  const double h = 1.0 / 12.0;
  EXPECT_DOUBLE_EQ(pWeightAt(2), 1.0 - h);
  EXPECT_DOUBLE_EQ(pWeightAt(4), 1.0 - 3 * h);
  EXPECT_DOUBLE_EQ(pWeightAt(5), 0.5 + h);
  EXPECT_DOUBLE_EQ(pWeightAt(7), 0.5 + 3 * h);
}

TEST_F(BlendByCategoryTest, TwoStretchesWithTheSameStartShareTheFirstCategories) {
  BlendAccess::addStretch(2, 6, 0);
  BlendAccess::addStretch(2, 10, 0);
  BlendAccess::m_MapPointIndx2Category[2] = {2, 2};
  blend();
  for (size_t i = 2; i <= 10; ++i) EXPECT_DOUBLE_EQ(out.points[i].y, 0.5) << i;
}

TEST_F(BlendByCategoryTest, StretchWithoutCategoriesIsSkipped) {
  BlendAccess::addStretch(2, 6, 0);
  BlendAccess::addStretch(10, 14, 0);
  BlendAccess::m_MapPointIndx2Category[10] = {2, 2};
  blend();
  EXPECT_EQ(out.points[4].y, 0.0);
  EXPECT_DOUBLE_EQ(out.points[12].y, 0.5);
}

TEST_F(BlendByCategoryTest, CategoryOutsideOneToFourLeavesTheStretchUnblended) {
  BlendAccess::addStretch(2, 6, 0);
  BlendAccess::m_MapPointIndx2Category[2] = {5, 2};
  blend();
  EXPECT_EQ(out.points, P.points);
}

TEST_F(BlendByCategoryTest, PointsWithoutAProjectionKeepTheirValue) {
  BlendAccess::m_MapPointIndx2PrjctdPoint.erase(4);
  BlendAccess::addStretch(2, 6, 0);
  BlendAccess::m_MapPointIndx2Category[2] = {2, 2};
  blend();
  EXPECT_EQ(out.points[4].y, 0.0);
  EXPECT_DOUBLE_EQ(out.points[5].y, 0.5);
}

TEST_F(BlendByCategoryTest, NoCategoryAtAllDumpsNothing) {
  BlendAccess::addStretch(2, 6, 0);
  EXPECT_FALSE(blend());
  EXPECT_EQ(out.points, P.points);
  EXPECT_TRUE(fs::is_empty(m_dir));
}

TEST_F(BlendByCategoryTest, BlendedPlaneIsDumpedUnderItsBlendOnlyName) {
  BlendAccess::m_CurrXsId = 7;
  BlendAccess::addStretch(3, 7, 0);
  BlendAccess::m_MapPointIndx2Category[3] = {2, 2};
  blend();
  BlendAccess::m_CurrXsId = 0;
  const fs::path dump = path("P3_S1_Id7_BLND_COP_BlendOnly.xyz");
  ASSERT_TRUE(fs::exists(dump));
  const std::string text = lutest::readText(dump);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 20);
  EXPECT_NE(text.find(lutest::platformLines("3.000\t0.500\t0.000\n")), std::string::npos);
}

TEST_F(BlendByCategoryTest, StepsAreAppliedBeforeTheFirstPointIsSet) {
  BlendAccess::CalculateBlendPointsAndSet(&P, out, &P, 2, 4, 1.0, 0.0, -0.1, 0.1);
  EXPECT_DOUBLE_EQ(out.points[2].y, 0.1);
  EXPECT_DOUBLE_EQ(out.points[3].y, 0.2);
  EXPECT_DOUBLE_EQ(out.points[4].y, 0.30000000000000004);
  EXPECT_EQ(out.points[5].y, 0.0);
}

TEST_F(BlendByCategoryTest, RampWithFirstAfterLastDoesNothing) {
  BlendAccess::CalculateBlendPointsAndSet(&P, out, &P, 5, 4, 0.5, 0.5, 0, 0);
  EXPECT_EQ(out.points, P.points);
}

TEST_F(BlendByCategoryTest, RampPastThePointsStopsAtTheirEnd) {
  BlendAccess::CalculateBlendPointsAndSet(&P, out, &P, 18, 0xFFFFFFF0u, 0.5, 0.5, 0, 0);
  EXPECT_DOUBLE_EQ(out.points[19].y, 0.5);
  EXPECT_EQ(out.points.size(), 20u);
}

// The table, cell by cell, as the weights of P and Q start and step.
struct Expected {
  uint32_t start, end;
  // first ramp: pWeight, qWeight, pStep, qStep in units of h (kind 'h') or f ('f')
  double p0, q0, ps, qs;
  char unit;
  bool split;
  double p1, q1, ps1, qs1;
};

// Printed by its range: gtest would otherwise print the raw bytes, padding
// included, which valgrind rightly calls uninitialised.
void PrintTo(const Expected& e, std::ostream* out) { *out << e.start << ".." << e.end; }

class WeightTableTest : public BlendByCategoryTest,
                        public ::testing::WithParamInterface<Expected> {};

TEST_P(WeightTableTest, CellRampsTheWeightsAsTabled) {
  const Expected e = GetParam();
  const uint32_t s = 4, last = 9;  // n = 5, L = 6
  BlendAccess::addStretch(s, last, 0);
  BlendAccess::m_MapPointIndx2Category[s] = {e.start, e.end};
  blend();
  const double L = 6.0, h = 1.0 / (2.0 * L), f = 1.0 / L;
  const double unit = e.unit == 'f' ? f : h;
  const uint32_t mid = s + 5 / 2;
  double pw = e.p0, qw = e.q0;
  for (uint32_t i = s; i <= last; ++i) {
    if (e.split && i == mid + 1) {
      pw = e.p1;
      qw = e.q1;
    }
    const bool second = e.split && i > mid;
    pw += (second ? e.ps1 : e.ps) * unit;
    qw += (second ? e.qs1 : e.qs) * unit;
    EXPECT_NEAR(out.points[i].y, qw, 1e-12) << "point " << i;
    EXPECT_NEAR(out.points[i].x, double(i) * (pw + qw), 1e-12) << "point " << i;
  }
}

INSTANTIATE_TEST_SUITE_P(
    AllCells, WeightTableTest,
    ::testing::Values(Expected{1, 1, 1.0, 0.0, -1, 1, 'h', true, 0.5, 0.5, 1, -1},
                      Expected{1, 2, 1.0, 0.0, -1, 1, 'h', false, 0, 0, 0, 0},
                      Expected{1, 3, 1.0, 0.0, -1, 1, 'f', false, 0, 0, 0, 0},
                      Expected{1, 4, 1.0, 0.0, -1, 1, 'h', false, 0, 0, 0, 0},
                      Expected{2, 1, 0.5, 0.5, 1, -1, 'h', false, 0, 0, 0, 0},
                      Expected{2, 2, 0.5, 0.5, 0, 0, 'h', false, 0, 0, 0, 0},
                      Expected{2, 3, 0.5, 0.5, 1, -1, 'h', false, 0, 0, 0, 0},
                      Expected{2, 4, 0.5, 0.5, 0, 0, 'h', false, 0, 0, 0, 0},
                      Expected{3, 1, 0.0, 1.0, 1, -1, 'f', false, 0, 0, 0, 0},
                      Expected{3, 2, 0.0, 1.0, 1, -1, 'h', false, 0, 0, 0, 0},
                      Expected{3, 3, 0.0, 1.0, 1, -1, 'h', true, 0.5, 0.5, -1, 1},
                      Expected{3, 4, 0.0, 1.0, 1, -1, 'h', false, 0, 0, 0, 0},
                      Expected{4, 1, 0.5, 0.5, 1, -1, 'h', false, 0, 0, 0, 0},
                      Expected{4, 2, 0.5, 0.5, 1, -1, 'h', false, 0, 0, 0, 0},
                      Expected{4, 3, 0.5, 0.5, -1, 1, 'h', false, 0, 0, 0, 0},
                      Expected{4, 4, 0.5, 0.5, 0, 0, 'h', false, 0, 0, 0, 0}));

}  // namespace
