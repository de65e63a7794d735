// BlendXSections: two subsets of one plane blended end to end.
#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <set>
#include <stdexcept>

#include "blend/blend_access.h"
#include "blend/blend_reference.h"
#include "blend/blend_scenes.h"
#include "blend/random_planes.h"

namespace {

namespace fs = std::filesystem;

const std::wstring kNoResVectors =
    L"LuAfxsUserDataSet::BlendXSections()- XSection ID= 12, No Res Vectors, cancel Blend";

class BlendDriverTest : public BlendTest {
protected:
  bool blendPair(const LuAfxsPlane& P, const LuAfxsPlane& Q) {
    std::vector<const LuAfxsPlane*> planes{&P, &Q};
    return BlendAccess::BlendXSections(planes, out, blended);
  }
  LuAfxsPlane out;
  bool blended = false;
};

TEST_F(BlendDriverTest, OnePlaneIsNotBlendedAndOutIsUntouched) {
  LuAfxsPlane P = planeOf(line(5, 0, 1), {5});
  out.planeId = 77;
  blended = true;
  std::vector<const LuAfxsPlane*> planes{&P};
  EXPECT_TRUE(BlendAccess::BlendXSections(planes, out, blended));
  EXPECT_FALSE(blended);
  EXPECT_EQ(out.planeId, 77u);
  EXPECT_TRUE(out.points.empty());
}

TEST_F(BlendDriverTest, EmptyGroupRaisesTheStandardOutOfRangeError) {
  std::vector<const LuAfxsPlane*> planes;
  EXPECT_THROW(BlendAccess::BlendXSections(planes, out, blended), std::out_of_range);
  try {
    BlendAccess::BlendXSections(planes, out, blended);
  } catch (const std::out_of_range& e) {
    EXPECT_STREQ(e.what(), "invalid vector<T> subscript");
  }
}

TEST_F(BlendDriverTest, PWithoutResultPointsIsNeverBlendedAndTheLogNamesTheCrossSection) {
  LuAfxsPlane P = planeOf(line(5, 0, 1), {5});
  P.resPoints.clear();
  const LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  BlendAccess::SetCurrentXSId(12);
  blended = true;
  EXPECT_TRUE(blendPair(P, Q));
  BlendAccess::SetCurrentXSId(0);
  EXPECT_FALSE(blended);
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].level, 0);
  EXPECT_EQ(logs()[0].source, L"LuAfxsUserIface");
  EXPECT_EQ(logs()[0].message, kNoResVectors);
}

TEST_F(BlendDriverTest, QWithoutResultPointsIsNotBlendedEither) {
  const LuAfxsPlane P = planeOf(line(5, 0, 1), {5});
  LuAfxsPlane Q = planeOf(line(5, 0, 1), {5});
  Q.resPoints.clear();
  EXPECT_TRUE(blendPair(P, Q));
  EXPECT_FALSE(blended);
  EXPECT_EQ(logs().size(), 1u);
}

TEST_F(BlendDriverTest, DisjointBoxesKeepTheCallersBlendedValue) {
  const LuAfxsPlane P = planeOf(line(5, 0, 1), {5});
  const LuAfxsPlane Q = planeOf(line(5, 50, 1), {5});
  blended = true;
  EXPECT_TRUE(blendPair(P, Q));
  EXPECT_TRUE(blended);
  blended = false;
  EXPECT_TRUE(blendPair(P, Q));
  EXPECT_FALSE(blended);
  EXPECT_TRUE(out.points.empty());
  EXPECT_TRUE(logs().empty());
}

TEST_F(BlendDriverTest, ScratchIsResetOnEntry) {
  BlendAccess::addStretch(1, 9, 0);
  BlendAccess::m_MapPointIndx2Category[1] = {1, 1};
  BlendAccess::m_BlendedQPointsVector = {true};
  const LuAfxsPlane P = planeOf(line(5, 0, 1), {5});
  std::vector<const LuAfxsPlane*> planes{&P};
  BlendAccess::BlendXSections(planes, out, blended);
  EXPECT_TRUE(BlendAccess::m_VectResultedSegmentsStart.empty());
  EXPECT_TRUE(BlendAccess::m_MapPointIndx2Category.empty());
  EXPECT_TRUE(BlendAccess::m_BlendedQPointsVector.empty());
}

TEST_F(BlendDriverTest, NoStretchFoundGivesTrueWithoutBlending) {
  // Boxes touch, but no P segment runs alongside Q for four points.
  const LuAfxsPlane P = planeOf(line(5, 0, 1), {5});
  const LuAfxsPlane Q = planeOf(line(5, 4, 1), {5});
  blended = true;
  EXPECT_TRUE(blendPair(P, Q));
  EXPECT_FALSE(blended);
  EXPECT_TRUE(out.points.empty());
}

TEST_F(BlendDriverTest, ThirdPlaneOfTheGroupIsIgnored) {
  const blendscene::Pair arcs = blendscene::overlappingArcs(300, true);
  const LuAfxsPlane third = blendscene::arc(300, 50, 0, 3, 0.0, 5, 9);
  std::vector<const LuAfxsPlane*> three{&arcs.P, &arcs.Q, &third};
  LuAfxsPlane withThird;
  bool blendedWithThird = false;
  EXPECT_TRUE(BlendAccess::BlendXSections(three, withThird, blendedWithThird));
  EXPECT_TRUE(blendPair(arcs.P, arcs.Q));
  EXPECT_TRUE(blendedWithThird);
  EXPECT_EQ(withThird.points, out.points);
  EXPECT_EQ(withThird.segments, out.segments);
}

TEST_F(BlendDriverTest, BlendingWithoutTheDumpDirectoryRunsTheSameAndWritesNoFile) {
  const blendscene::Pair arcs = blendscene::overlappingArcs(300, true);
  EXPECT_TRUE(blendPair(arcs.P, arcs.Q));
  ASSERT_TRUE(fs::exists(path("P3_S1_Id0_BLND_COP_BlendOnly.xyz")));
  const LuAfxsPlane withDir = out;

  const fs::path missing = path("absent");
  LuAfxsUserDataSet::SetXYZDumpDirectory(missing.wstring().c_str());
  out = LuAfxsPlane();
  EXPECT_TRUE(blendPair(arcs.P, arcs.Q));
  EXPECT_FALSE(fs::exists(missing));
  EXPECT_EQ(out.points, withDir.points);
  EXPECT_EQ(out.distances, withDir.distances);
  EXPECT_EQ(out.segments, withDir.segments);
}

// End to end on two arcs of one circle, a third of each over the other.
class BlendArcsTest : public BlendDriverTest, public ::testing::WithParamInterface<bool> {
protected:
  void SetUp() override {
    BlendDriverTest::SetUp();
    arcs = blendscene::overlappingArcs(900, GetParam());
    ASSERT_TRUE(blendPair(arcs.P, arcs.Q));
    ASSERT_TRUE(blended);
    offset = out.points.size() - arcs.P.points.size();
  }
  blendscene::Pair arcs;
  size_t offset = 0;
};

TEST_P(BlendArcsTest, EveryBlendedPointLiesBetweenPAndItsFootPointOnQ) {
  const auto& projected = BlendAccess::m_MapPointIndx2PrjctdPoint;
  ASSERT_GT(projected.size(), 200u);  // about a third of P
  size_t moved = 0;
  for (size_t i = 0; i < arcs.P.points.size(); ++i) {
    const LuVec3 p = arcs.P.points[i];
    const LuVec3 b = out.points[offset + i];
    const auto entry = projected.find(int32_t(i));
    if (entry == projected.end()) {
      EXPECT_EQ(b, p) << i;
      continue;
    }
    const LuVec3 foot = entry->second.pnt;
    const LuVec3 d = foot - p;
    if (d.length() < 1e-12) continue;
    const double t = (b - p).dot(d) / d.dot(d);
    EXPECT_GE(t, -1e-9) << i;
    EXPECT_LE(t, 1.0 + 1e-9) << i;
    EXPECT_LT(((p + d * t) - b).length(), 1e-9) << i;
    if (t > 1e-6) ++moved;
  }
  EXPECT_GT(moved, 100u);
}

TEST_P(BlendArcsTest, FootPointsLieOnTheLineOfAQEdgeAtTheirQPoint) {
  const std::vector<LuVec3>& q = arcs.Q.points;
  auto offLine = [](const LuVec3& x, const LuVec3& a, const LuVec3& b) {
    const LuVec3 d = b - a;
    const double t = (x - a).dot(d) / d.dot(d);
    return ((a + d * t) - x).length();
  };
  for (const auto& [i, entry] : BlendAccess::m_MapPointIndx2PrjctdPoint) {
    const uint32_t h = entry.indx;
    const LuVec3 foot = entry.pnt;
    double best = 1e300;
    if (h + 1 < q.size()) best = std::min(best, offLine(foot, q[h], q[h + 1]));
    if (h > 0) best = std::min(best, offLine(foot, q[h - 1], q[h]));
    EXPECT_LT(best, 1e-9) << i;
    // A foot point is never farther from its Q point than P's point is.
    EXPECT_LE((foot - q[h]).length(), (arcs.P.points[i] - q[h]).length() + 1e-12) << i;
  }
}

TEST_P(BlendArcsTest, UncoveredPartOfQIsSplicedAsSegmentsWithConsistentTotals) {
  // The spliced part: pairs of unused Q points, then P's own segment.
  ASSERT_GT(offset, 500u);  // most of the two thirds of Q that P does not cover
  const std::vector<bool>& used = BlendAccess::m_BlendedQPointsVector;
  std::set<uint32_t> spliced;
  for (size_t k = 0; k < offset; ++k) {
    const LuVec3 q = out.points[k];
    const auto at = std::find(arcs.Q.points.begin(), arcs.Q.points.end(), q);
    ASSERT_NE(at, arcs.Q.points.end()) << k;
    const uint32_t qIndex = uint32_t(at - arcs.Q.points.begin());
    EXPECT_FALSE(used[qIndex]) << qIndex;
    spliced.insert(qIndex);
  }
  EXPECT_EQ(spliced.size(), offset);
  size_t unused = 0;
  for (bool flag : used) unused += flag ? 0 : 1;
  EXPECT_LE(unused - offset, 2u);  // a run of odd length loses its last point
  ASSERT_EQ(out.segments.size(), offset / 2 + 1);
  for (size_t j = 0; j < out.segments.size(); ++j) {
    const int32_t previous = j == 0 ? 0 : out.segments[j - 1];
    EXPECT_EQ(out.segments[j] - previous, j + 1 < out.segments.size() ? 2 : 900) << j;
  }
  EXPECT_EQ(size_t(out.segments.back()), out.points.size());
}

TEST_P(BlendArcsTest, PointsNormalsResultPointsAndDistancesStayIndexParallel) {
  EXPECT_EQ(out.normals.size(), out.points.size());
  EXPECT_EQ(out.resPoints.size(), out.points.size());
  EXPECT_EQ(out.distances.size(), out.points.size());
  for (size_t k = 0; k < out.points.size(); ++k) {
    const auto at = std::find(arcs.Q.points.begin(), arcs.Q.points.end(), out.points[k]);
    if (k < offset) {
      const size_t q = size_t(at - arcs.Q.points.begin());
      EXPECT_EQ(out.normals[k], arcs.Q.normals[q]);
      EXPECT_EQ(out.resPoints[k], arcs.Q.resPoints[q]);
      EXPECT_EQ(out.distances[k], arcs.Q.distances[q]);
    } else {
      const size_t i = k - offset;
      EXPECT_EQ(out.normals[k], arcs.P.normals[i]);
      EXPECT_EQ(out.resPoints[k], arcs.P.resPoints[i]);
      const LuVec3 d = out.points[k] - out.resPoints[k];
      const double expected = d.dot(out.normals[k]) < 0 ? -d.length() : d.length();
      EXPECT_NEAR(out.distances[k], expected, 1e-12) << k;
    }
  }
}

TEST_P(BlendArcsTest, BlendedPlaneKeepsPsIdentifiers) {
  EXPECT_EQ(out.planeId, arcs.P.planeId);
  EXPECT_EQ(out.subsetId, arcs.P.subsetId);
}

INSTANTIATE_TEST_SUITE_P(SameAndOppositeWays, BlendArcsTest, ::testing::Values(true, false),
                         [](const auto& info) { return info.param ? "SameWay" : "OppositeWays"; });

// Planes that valid files never hold: every stage must stay inside the lists.
TEST_F(BlendDriverTest, MalformedPlanesBlendWithoutReadingOutsideTheirLists) {
  const blendscene::Pair arcs = blendscene::overlappingArcs(200, true);
  std::vector<LuAfxsPlane> Ps, Qs;
  {  // segments reaching past the points
    LuAfxsPlane P = arcs.P, Q = arcs.Q;
    P.segments = {120, 260};
    Q.segments = {250};
    Ps.push_back(P);
    Qs.push_back(Q);
  }
  {  // a segment entry of 0 in both
    LuAfxsPlane P = arcs.P, Q = arcs.Q;
    P.segments = {0, 200};
    Q.segments = {100, 0, 200};
    Ps.push_back(P);
    Qs.push_back(Q);
  }
  {  // short Q lists: normals, distances and result points end early
    LuAfxsPlane P = arcs.P, Q = arcs.Q;
    Q.normals.resize(30);
    Q.distances.resize(10);
    Q.resPoints.resize(150);
    Q.auxCtrlFirst = {1, 2, 3};
    Q.auxCtrlPos.assign(5, 9);
    Ps.push_back(P);
    Qs.push_back(Q);
  }
  {  // short P lists
    LuAfxsPlane P = arcs.P, Q = arcs.Q;
    P.normals.resize(20);
    P.points.resize(150);
    Ps.push_back(P);
    Qs.push_back(Q);
  }
  {  // decreasing running totals
    LuAfxsPlane P = arcs.P, Q = arcs.Q;
    P.segments = {150, 60, 200};
    Q.segments = {180, 20, 200};
    Ps.push_back(P);
    Qs.push_back(Q);
  }
  for (size_t c = 0; c < Ps.size(); ++c) {
    out = LuAfxsPlane();
    blended = false;
    EXPECT_TRUE(blendPair(Ps[c], Qs[c])) << "case " << c;
  }
}

TEST_F(BlendDriverTest, StretchEndWithoutProjectionIsCategorisedAsQNotAtABoundary) {
  // The end of the stretch has no coupled point: its category comes from P alone.
  const LuAfxsPlane P = planeOf(line(20, 0, 1), {20});
  const LuAfxsPlane Q = planeOf(line(20, 0, 1), {20});
  BlendAccess::addStretch(0, 19, 0);
  for (int i = 0; i < 19; ++i) BlendAccess::project(i, {double(i), 1, 0}, uint32_t(i));
  BlendAccess::CategorizBlendPoints(&P, &Q);
  EXPECT_EQ(BlendAccess::m_MapPointIndx2Category.at(0).startCategory, 2u);
  EXPECT_EQ(BlendAccess::m_MapPointIndx2Category.at(0).endCategory, 3u);
}

}  // namespace

namespace {

void expectSamePlane(const LuAfxsPlane& a, const LuAfxsPlane& b, const std::string& where) {
  EXPECT_EQ(a.points, b.points) << where;
  EXPECT_EQ(a.normals, b.normals) << where;
  EXPECT_EQ(a.resPoints, b.resPoints) << where;
  EXPECT_EQ(a.distances, b.distances) << where;
  EXPECT_EQ(a.segments, b.segments) << where;
  EXPECT_EQ(a.auxCtrlFirst, b.auxCtrlFirst) << where;
}

// The whole blend against its literal form (plain scans, one-by-one splices).
TEST_F(BlendDriverTest, BlendEqualsTheLiteralBlendOnOverlappingArcs) {
  for (bool sameWay : {true, false}) {
    const blendscene::Pair arcs = blendscene::overlappingArcs(1500, sameWay);
    LuAfxsPlane literal;
    ASSERT_TRUE(blendref::literalBlend<BlendAccess>(arcs.P, arcs.Q, literal));
    const auto literalMap = BlendAccess::m_MapPointIndx2PrjctdPoint;
    out = LuAfxsPlane();
    ASSERT_TRUE(blendPair(arcs.P, arcs.Q));
    ASSERT_TRUE(blended);
    expectSamePlane(out, literal, sameWay ? "same way" : "opposite ways");
    EXPECT_EQ(BlendAccess::m_MapPointIndx2PrjctdPoint.size(), literalMap.size());
  }
}

TEST_F(BlendDriverTest, BlendEqualsTheLiteralBlendOnRandomContours) {
  std::mt19937 random(31);
  int blendedCount = 0;
  for (int round = 0; round < 150; ++round) {
    LuAfxsPlane P = blendrandom::walk(random, 60 + round % 80, 0.5, 1 + round % 3);
    LuAfxsPlane Q = blendrandom::walk(random, 60 + round % 90, 0.5, 1 + round % 4, {0.1, 0.1, 0});
    for (size_t i = 0; i < Q.points.size(); ++i) Q.distances.push_back(double(i));
    for (size_t i = 0; i < P.points.size(); ++i) P.distances.push_back(-double(i));
    LuAfxsPlane literal;
    const bool literalBlended = blendref::literalBlend<BlendAccess>(P, Q, literal);
    out = LuAfxsPlane();
    blended = false;
    ASSERT_TRUE(blendPair(P, Q));
    ASSERT_EQ(blended, literalBlended) << "round " << round;
    if (!blended) continue;
    ++blendedCount;
    expectSamePlane(out, literal, "round " + std::to_string(round));
  }
  EXPECT_GT(blendedCount, 30);
}

}  // namespace
