// RemoveNonLegitSegments: trimming of the stretches and erasure of the ones
// that do not hold up.
#include <gtest/gtest.h>

#include <random>

#include "blend/blend_access.h"
#include "blend/blend_reference.h"
#include "blend/random_planes.h"

namespace {

const std::wstring kNonCoherent =
    L"LuAfxsUserDataSet::RemoveNonLegitSegments()- Intersecting Segments Are Non Coherent Dot "
    L"Product is Negative";
const std::wstring kNoCouple =
    L"LuAfxsUserDataSet::RemoveNonLegitSegments()- Did not Found teh Couple of Start And End "
    L"Point For Blending Segments \n";

class RemoveNonLegitSegmentsTest : public BlendTest {
protected:
  // Q along the x axis, x = 0..n-1, normals +y.
  static LuAfxsPlane qLine(size_t n = 10) {
    LuAfxsPlane Q = planeOf(line(n, 0, 1), {static_cast<int32_t>(n)});
    Q.normals.assign(n, {0, 1, 0});
    return Q;
  }
  // P above Q's points at the given heights (x = index), normals +y.
  static LuAfxsPlane pAbove(const std::vector<double>& heights) {
    std::vector<LuVec3> pts;
    for (size_t i = 0; i < heights.size(); ++i) pts.push_back({double(i), heights[i], 0});
    LuAfxsPlane P = planeOf(pts, {static_cast<int32_t>(pts.size())});
    P.normals.assign(pts.size(), {0, 1, 0});
    return P;
  }
  bool run(const LuAfxsPlane& P, const LuAfxsPlane& Q) {
    std::vector<unsigned int> qs, qe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    return BlendAccess::RemoveNonLegitSegments(&P, &Q, qs, qe);
  }
  using U = std::vector<uint32_t>;
  U starts() { return BlendAccess::m_VectResultedSegmentsStart; }
  U ends() { return BlendAccess::m_VectResultedSegmentsEnd; }
};

TEST_F(RemoveNonLegitSegmentsTest, EndsThatDoNotFaceQAreTrimmedAway) {
  // Points 0, 1, 5, 6 are out of reach; 2..4 face Q from straight above.
  const LuAfxsPlane P = pAbove({5, 5, 1, 1, 1, 5, 5});
  BlendAccess::addStretch(0, 6, 0);
  EXPECT_TRUE(run(P, qLine()));
  EXPECT_EQ(starts(), (U{2}));
  EXPECT_EQ(ends(), (U{4}));
  EXPECT_TRUE(logs().empty());
}

TEST_F(RemoveNonLegitSegmentsTest, TrimmedSpanOfOneIsErasedAsNonCoherent) {
  const LuAfxsPlane P = pAbove({5, 5, 1, 1, 5, 5, 5});
  BlendAccess::addStretch(0, 6, 0);
  EXPECT_FALSE(run(P, qLine()));
  EXPECT_TRUE(starts().empty());
  EXPECT_TRUE(BlendAccess::m_VectResultedSegmentsIndx.empty());
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].level, 0);
  EXPECT_EQ(logs()[0].source, L"LuAfxsUserIface");
  EXPECT_EQ(logs()[0].message, kNonCoherent);
}

TEST_F(RemoveNonLegitSegmentsTest, NormalsTurningAwayEraseTheStretchAsNonCoherent) {
  LuAfxsPlane P = pAbove({1, 1, 1, 1, 1});
  P.normals.assign(5, {0, -1, 0});
  BlendAccess::addStretch(0, 4, 0);
  EXPECT_FALSE(run(P, qLine()));
  EXPECT_TRUE(starts().empty());
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].message, kNonCoherent);
}

TEST_F(RemoveNonLegitSegmentsTest, TheTwoNonCoherentCasesReportDifferentLines) {
  LuAfxsPlane turned = pAbove({1, 1, 1, 1, 1});
  turned.normals.assign(5, {0, -1, 0});
  BlendAccess::addStretch(0, 4, 0);
  run(turned, qLine());
  BlendAccess::addStretch(0, 6, 0);
  run(pAbove({5, 5, 1, 1, 5, 5, 5}), qLine());
  ASSERT_EQ(logs().size(), 2u);
  EXPECT_EQ(logs()[0].message, logs()[1].message);
  EXPECT_NE(logs()[0].line, logs()[1].line);
}

TEST_F(RemoveNonLegitSegmentsTest, StretchWithItsLastIndexBeforeItsFirstIsErasedAsNotFound) {
  BlendAccess::addStretch(5, 2, 0);
  EXPECT_FALSE(run(pAbove({1, 1, 1, 1, 1, 1, 1}), qLine()));
  EXPECT_TRUE(starts().empty());
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].level, 0);
  EXPECT_EQ(logs()[0].message, kNoCouple);
}

TEST_F(RemoveNonLegitSegmentsTest, StretchWithoutAnyQPointInReachIsErasedAsNotFound) {
  BlendAccess::addStretch(0, 4, 0);
  EXPECT_FALSE(run(pAbove({5, 5, 5, 5, 5}), qLine()));
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].message, kNoCouple);
}

TEST_F(RemoveNonLegitSegmentsTest, NearButNotFacingPointsStillCountAsFoundAndKeepTheStretch) {
  // Q points 4 apart; every P point is within reach of one (squared 1.25) at
  // 63 degrees off its normal: found, never facing. Both walks run out; the
  // unsigned j1 - i2 = s - e wraps, so the stretch stays as it was.
  LuAfxsPlane Q = planeOf(line(6, 0, 4), {6});
  Q.normals.assign(6, {0, 1, 0});
  std::vector<LuVec3> p = line(5, 1, 4, 0.5);
  LuAfxsPlane P = planeOf(p, {5});
  P.normals.assign(5, {0, 1, 0});
  BlendAccess::addStretch(0, 4, 0);
  EXPECT_TRUE(run(P, Q));
  EXPECT_EQ(starts(), (U{0}));
  EXPECT_EQ(ends(), (U{4}));
}

TEST_F(RemoveNonLegitSegmentsTest, ContactDistanceFacesWhateverTheAngle) {
  // End points sit beside their Q point along x at squared distance 0.09.
  std::vector<LuVec3> p = {{0.3, 0, 0}, {1, 1, 0}, {2, 1, 0}, {3, 1, 0}, {3.7, 0, 0}};
  LuAfxsPlane P = planeOf(p, {5});
  P.normals.assign(5, {0, 1, 0});
  BlendAccess::addStretch(0, 4, 0);
  EXPECT_TRUE(run(P, qLine()));
  EXPECT_EQ(starts(), (U{0}));
  EXPECT_EQ(ends(), (U{4}));
}

TEST_F(RemoveNonLegitSegmentsTest, AngleOfTwentyDegreesFacesAndTwentyOneDoesNot) {
  const double rad20 = 20.0 * 3.141592653589793 / 180.0 - 1e-9;
  const double rad21 = 21.0 * 3.141592653589793 / 180.0;
  // End point offsets of length 1 at the given angle from Q's normal.
  std::vector<LuVec3> p = {{std::sin(rad20), std::cos(rad20), 0},
                           {1, 1, 0},
                           {2, 1, 0},
                           {3, 1, 0},
                           {4 + std::sin(rad21), std::cos(rad21), 0}};
  LuAfxsPlane P = planeOf(p, {5});
  P.normals.assign(5, {0, 1, 0});
  BlendAccess::addStretch(0, 4, 0);
  EXPECT_TRUE(run(P, qLine()));
  EXPECT_EQ(starts(), (U{0}));
  EXPECT_EQ(ends(), (U{3}));
}

TEST_F(RemoveNonLegitSegmentsTest, ZeroOffsetFacesByItsDistance) {
  std::vector<LuVec3> p = line(5, 0, 1);  // on Q's points
  LuAfxsPlane P = planeOf(p, {5});
  P.normals.assign(5, {0, 1, 0});
  BlendAccess::addStretch(0, 4, 0);
  EXPECT_TRUE(run(P, qLine()));
  EXPECT_EQ(starts(), (U{0}));
  EXPECT_EQ(ends(), (U{4}));
}

TEST_F(RemoveNonLegitSegmentsTest, ErasureKeepsTheListsParallelAndGoesOnWithTheNext) {
  const LuAfxsPlane P = pAbove({5, 5, 5, 5, 1, 1, 1, 1, 1});
  BlendAccess::addStretch(0, 3, 0);  // out of reach: erased
  BlendAccess::addStretch(4, 8, 1);  // kept, against Q segment 1
  BlendAccess::addStretch(0, 2, 0);  // out of reach: erased
  LuAfxsPlane Q = planeOf(line(10, 0, 1), {3, 10});
  Q.normals.assign(10, {0, 1, 0});
  EXPECT_FALSE(run(P, Q));
  EXPECT_EQ(starts(), (U{4}));
  EXPECT_EQ(ends(), (U{8}));
  EXPECT_EQ(BlendAccess::m_VectResultedSegmentsIndx, (U{1}));
  EXPECT_EQ(logs().size(), 2u);
}

TEST_F(RemoveNonLegitSegmentsTest, NoStretchAtAllIsTrue) {
  EXPECT_TRUE(run(pAbove({1, 1}), qLine()));
  EXPECT_TRUE(logs().empty());
}

}  // namespace

namespace {

// Long stretch ends that do not face Q make the trimming walks search dozens
// of times; those searches go through an index of the segment after the
// first few plain scans. The outcome must equal plain scans throughout.
TEST_F(RemoveNonLegitSegmentsTest, MatchesPlainScansOnRandomContours) {
  std::mt19937 random(5);
  size_t trimmed = 0;
  for (int round = 0; round < 300; ++round) {
    BlendAccess::resetScratch();
    capture().clear();
    LuAfxsPlane P = blendrandom::walk(random, 40 + round % 50, 0.6, 1);
    LuAfxsPlane Q = blendrandom::walk(random, 60 + round % 70, 0.6, 1 + round % 3, {0.2, 0.1, 0});
    for (auto& n : Q.normals) n = {double(int(random() % 3) - 1), double(int(random() % 3) - 1), 0};
    std::vector<unsigned int> qs, qe;
    BlendAccess::GetPlaneSegments(&Q, qs, qe);
    blendref::Stretches expected;
    for (int k = 0; k < 3; ++k) {
      const uint32_t s = uint32_t(random() % P.points.size());
      const uint32_t e = uint32_t(random() % P.points.size());
      const uint32_t q = uint32_t(random() % qs.size());
      expected.start.push_back(s);
      expected.end.push_back(e);
      expected.indx.push_back(q);
      BlendAccess::addStretch(s, e, q);
    }
    const std::string kinds = blendref::removeNonLegit(P, Q, qs, qe, expected);
    const bool noneErased = BlendAccess::RemoveNonLegitSegments(&P, &Q, qs, qe);
    ASSERT_EQ(starts(), expected.start) << "round " << round;
    ASSERT_EQ(ends(), expected.end) << "round " << round;
    ASSERT_EQ(BlendAccess::m_VectResultedSegmentsIndx, expected.indx) << "round " << round;
    ASSERT_EQ(noneErased, kinds.empty()) << "round " << round;
    ASSERT_EQ(logs().size(), kinds.size()) << "round " << round;
    for (size_t m = 0; m < kinds.size(); ++m) {
      EXPECT_EQ(logs()[m].message, kinds[m] == 'N' ? kNonCoherent : kNoCouple) << round;
    }
    trimmed += expected.start.size();
  }
  EXPECT_GT(trimmed, 50u);
}

}  // namespace
