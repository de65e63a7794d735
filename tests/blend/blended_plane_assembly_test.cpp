// The assembly of the blended plane: signed distances and the splice of the
// parts of Q that the blend did not use.
#include <gtest/gtest.h>

#include <random>

#include "blend/blend_access.h"
#include "blend/blend_reference.h"

namespace {

using U = std::vector<uint32_t>;
using Segs = std::vector<int32_t>;

const std::wstring kNoBlendArea =
    L"LuAfxsUserDataSet::BuildNonBlendedAreaMapFromIntersectedQSegments()- No Blend Area";

// Q's points are (100 + i, 0, 0), so a spliced point tells its Q index.
LuAfxsPlane qPlane(size_t n, Segs segments) {
  LuAfxsPlane Q = planeOf(line(n, 100, 1), segments, 3, 2);
  Q.normals.assign(n, {0, 1, 0});
  for (size_t i = 0; i < n; ++i) Q.distances.push_back(1000.0 + double(i));
  return Q;
}
std::vector<double> xs(const std::vector<LuVec3>& pts) {
  std::vector<double> out;
  for (const LuVec3& p : pts) out.push_back(p.x);
  return out;
}

class BlendedPlaneAssemblyTest : public BlendTest {
protected:
  void SetUp() override {
    BlendTest::SetUp();
    blended = planeOf(line(5, 0, 1), {5}, 3, 1);
    blended.normals.assign(5, {0, 1, 0});
    blended.distances.assign(5, 0.0);
  }
  // Marks every Q point used except those in [from, to].
  static void unusedRange(size_t n, size_t from, size_t to) {
    BlendAccess::m_BlendedQPointsVector.assign(n, true);
    for (size_t i = from; i <= to; ++i) BlendAccess::m_BlendedQPointsVector[i] = false;
  }
  LuAfxsPlane blended;
};

TEST_F(BlendedPlaneAssemblyTest, DistancesAreSignedLengthsAlongTheNormals) {
  LuAfxsPlane plane = planeOf({{0, 0, 0}, {1, 1, 0}, {2, 0, 0}}, {3});
  plane.resPoints = {{0, 3, 0}, {1, 0, 0}, {2, 0, 4}};
  plane.normals = {{0, 1, 0}, {0, 1, 0}, {0, 1, 0}};
  plane.distances = {9, 9, 9};
  EXPECT_TRUE(BlendAccess::UpdateDistanceVector(&plane, nullptr));
  EXPECT_EQ(plane.distances, (std::vector<double>{-3.0, 1.0, 4.0}));  // the last: dot = 0
}

TEST_F(BlendedPlaneAssemblyTest, PointOnThePlaneOfItsNormalGetsAPositiveDistance) {
  LuAfxsPlane plane = planeOf({{1, 0, 0}}, {1});
  plane.resPoints = {{0, 0, 0}};
  plane.normals = {{0, 0, 1}};
  plane.distances = {-7};
  BlendAccess::UpdateDistanceVector(&plane, nullptr);
  EXPECT_EQ(plane.distances[0], 1.0);
}

TEST_F(BlendedPlaneAssemblyTest, PlaneWithoutDistancesIsLeftAsItWas) {
  LuAfxsPlane plane = planeOf(line(3, 0, 1), {3});
  EXPECT_FALSE(BlendAccess::UpdateDistanceVector(&plane, nullptr));
  EXPECT_TRUE(plane.distances.empty());
}

TEST_F(BlendedPlaneAssemblyTest, FewerResultPointsThanPointsLeaveTheDistances) {
  LuAfxsPlane plane = planeOf(line(3, 0, 1), {3});
  plane.resPoints.pop_back();
  plane.distances = {5, 6, 7};
  EXPECT_FALSE(BlendAccess::UpdateDistanceVector(&plane, nullptr));
  EXPECT_EQ(plane.distances, (std::vector<double>{5, 6, 7}));
}

TEST_F(BlendedPlaneAssemblyTest, EmptyPlaneUpdatesTrivially) {
  LuAfxsPlane plane;
  EXPECT_TRUE(BlendAccess::UpdateDistanceVector(&plane, nullptr));
}

TEST_F(BlendedPlaneAssemblyTest, UnusedPointsThreeToEightAreSplicedAsThreePairsInReverse) {
  const LuAfxsPlane Q = qPlane(12, {12});
  BlendAccess::addStretch(0, 4, 0);  // Q's only segment took part
  unusedRange(12, 3, 8);
  EXPECT_TRUE(BlendAccess::CreateBlendedUnifyPlane(&blended, &Q, blended));
  EXPECT_EQ(BlendAccess::m_VectQUsedSegmentsStart, (U{3, 5, 7}));
  EXPECT_EQ(BlendAccess::m_VectQUsedSegmentsEnd, (U{4, 6, 8}));
  EXPECT_EQ(BlendAccess::m_VectQUsedSegments_P_Insert_Index, (U{0, 0, 0}));
  EXPECT_EQ(BlendAccess::m_VectQUsedSegments_P_Insert_SegIndex, (std::vector<int>{0, 0, 0}));
  EXPECT_EQ(xs(blended.points), (std::vector<double>{107, 108, 105, 106, 103, 104, 0, 1, 2, 3, 4}));
  EXPECT_EQ(blended.segments, (Segs{2, 4, 6, 11}));
  EXPECT_EQ(blended.distances.size(), 11u);
  EXPECT_EQ(blended.distances[0], 1007.0);
  EXPECT_EQ(blended.normals.size(), 11u);
  EXPECT_EQ(xs(blended.resPoints), xs(blended.points));
}

TEST_F(BlendedPlaneAssemblyTest, LoneUnusedPointAndTheLastOfAnOddRunYieldNothing) {
  BlendAccess::addStretch(0, 4, 0);
  BlendAccess::m_BlendedQPointsVector = {true, false, true, false, false, false, true, false};
  EXPECT_EQ(BlendAccess::BuildNonBlendedAreaMapFromIntersectedQSegments(nullptr, nullptr), 1u);
  EXPECT_EQ(BlendAccess::m_VectQUsedSegmentsStart, (U{3}));
  EXPECT_EQ(BlendAccess::m_VectQUsedSegmentsEnd, (U{4}));
}

TEST_F(BlendedPlaneAssemblyTest, NoBlendAreaIsLoggedAndTheSecondPassStillRuns) {
  const LuAfxsPlane Q = qPlane(6, {2, 6});
  unusedRange(6, 0, 5);
  EXPECT_TRUE(BlendAccess::CreateBlendedUnifyPlane(&blended, &Q, blended));
  ASSERT_EQ(logs().size(), 1u);
  EXPECT_EQ(logs()[0].level, 0);
  EXPECT_EQ(logs()[0].message, kNoBlendArea);
  EXPECT_TRUE(BlendAccess::m_VectQUsedSegmentsStart.empty());
  // Both Q segments, the second first, then P.
  EXPECT_EQ(xs(blended.points), (std::vector<double>{102, 103, 104, 105, 100, 101, 0, 1, 2, 3, 4}));
  EXPECT_EQ(blended.segments, (Segs{4, 6, 11}));
}

TEST_F(BlendedPlaneAssemblyTest, EveryQSegmentInTheBlendLeavesTheSecondPassEmpty) {
  const LuAfxsPlane Q = qPlane(6, {2, 6});
  BlendAccess::addStretch(0, 4, 1);
  BlendAccess::addStretch(0, 4, 0);
  U starts, ends, insertIndex;
  std::vector<int> insertSegIndex;
  EXPECT_EQ(BlendAccess::BuildNonBlendedAreaMapFromNonIntersectedQSegments(
                &blended, &Q, starts, ends, insertIndex, insertSegIndex),
            0u);
  BlendAccess::m_BlendedQPointsVector.assign(6, true);
  BlendAccess::CreateBlendedUnifyPlane(&blended, &Q, blended);
  EXPECT_EQ(blended.points.size(), 5u);
  EXPECT_EQ(blended.segments, (Segs{5}));
}

TEST_F(BlendedPlaneAssemblyTest, SecondPassStretchesComeBeforeTheFirstPassOnes) {
  const LuAfxsPlane Q = qPlane(10, {6, 10});
  BlendAccess::addStretch(0, 4, 0);  // segment 0 blended, segment 1 not
  BlendAccess::m_BlendedQPointsVector = {true, false, false, true, true,
                                         true, true,  true,  true, true};
  BlendAccess::CreateBlendedUnifyPlane(&blended, &Q, blended);
  EXPECT_EQ(xs(blended.points), (std::vector<double>{106, 107, 108, 109, 101, 102, 0, 1, 2, 3, 4}));
  EXPECT_EQ(blended.segments, (Segs{4, 6, 11}));
}

TEST_F(BlendedPlaneAssemblyTest, SpliceWithAuxFirstRepeatsTheFirstValueAndSkipsResultPoints) {
  LuAfxsPlane Q = qPlane(10, {10});
  Q.auxCtrlFirst = {50, 51, 52, 53, 54, 55, 56, 57, 58, 59};
  Q.auxCtrlPos = {60, 61, 62, 63, 64, 65, 66, 67, 68, 69};
  LuAfxsPlane target;
  BlendAccess::FillPlaneWithSegment(target, &Q, 0, 2, 4);
  EXPECT_EQ(xs(target.points), (std::vector<double>{102, 103, 104}));
  EXPECT_EQ(target.auxCtrlFirst, (U{52, 52, 52}));
  EXPECT_EQ(xs(target.resPoints), (std::vector<double>{102, 104, 106}));
  EXPECT_EQ(target.auxCtrlPos, (U{62, 63, 64}));
  EXPECT_EQ(target.distances, (std::vector<double>{1002, 1003, 1004}));
  EXPECT_TRUE(target.segments.empty());
}

TEST_F(BlendedPlaneAssemblyTest, SpliceGoesAtTheInsertIndexOfEachList) {
  const LuAfxsPlane Q = qPlane(10, {10});
  BlendAccess::FillPlaneWithSegment(blended, &Q, 2, 7, 8);
  EXPECT_EQ(xs(blended.points), (std::vector<double>{0, 1, 107, 108, 2, 3, 4}));
  EXPECT_EQ(blended.distances, (std::vector<double>{0, 0, 1007, 1008, 0, 0, 0}));
}

TEST_F(BlendedPlaneAssemblyTest, SpliceWithFirstAfterLastDoesNothing) {
  const LuAfxsPlane Q = qPlane(10, {10});
  BlendAccess::FillPlaneWithSegment(blended, &Q, 0, 5, 4);
  EXPECT_EQ(blended.points.size(), 5u);
}

TEST_F(BlendedPlaneAssemblyTest, SegmentPositionDecidesWhereTheNewTotalGoes) {
  const LuAfxsPlane Q = qPlane(10, {10});
  LuAfxsPlane target = planeOf(line(9, 0, 1), {3, 6, 9});
  U starts{0, 0, 0, 0}, ends{1, 2, 3, 4}, insertIndex{0, 0, 0, 0};
  std::vector<int> segIndex{2, -1, 0, -5};
  BlendAccess::UpdatePlaneWithSegment(target, &Q, starts, ends, insertIndex, segIndex);
  // +2 at position 2 after 6: {3, 6, 8, 11}; +3 at the end: {.., 14};
  // +4 in front: {4, 7, 10, 12, 15, 18}; +5 in front: {5, 9, 12, 15, 17, 20, 23}.
  EXPECT_EQ(target.segments, (Segs{5, 9, 12, 15, 17, 20, 23}));
  EXPECT_EQ(target.points.size(), 9u + 2 + 3 + 4 + 5);
}

TEST_F(BlendedPlaneAssemblyTest, OutOfRangeSplicesReadAndWriteNothingOutside) {
  const LuAfxsPlane Q = qPlane(4, {4});
  LuAfxsPlane target = planeOf(line(2, 0, 1), {2});
  U starts{2}, ends{9}, insertIndex{50};
  std::vector<int> segIndex{7};
  BlendAccess::UpdatePlaneWithSegment(target, &Q, starts, ends, insertIndex, segIndex);
  // Q points 2 and 3 exist; the insert index past the target appends.
  EXPECT_EQ(xs(target.points), (std::vector<double>{0, 1, 102, 103}));
  EXPECT_EQ(target.segments, (Segs{2, 10}));  // the stretch's nominal count, 8
}

// The linear assembly against the literal one-by-one front splices.
TEST_F(BlendedPlaneAssemblyTest, LinearAssemblyEqualsFrontSplicesOnRandomPlanes) {
  std::mt19937 random(99);
  for (int round = 0; round < 200; ++round) {
    BlendAccess::resetScratch();
    const size_t n = 2 + random() % 80;
    LuAfxsPlane Q = qPlane(n, {});
    std::uniform_int_distribution<size_t> cut(1, n);
    std::vector<int32_t> segments;
    for (size_t c = 0; c < 1 + random() % 4; ++c) segments.push_back(int32_t(cut(random)));
    std::sort(segments.begin(), segments.end());
    segments.erase(std::unique(segments.begin(), segments.end()), segments.end());
    if (segments.back() != int32_t(n)) segments.push_back(int32_t(n));
    Q.segments = segments;
    if (round % 3 == 0) {
      for (size_t i = 0; i < n; ++i) Q.auxCtrlFirst.push_back(uint32_t(500 + i));
    }
    if (round % 4 == 0) {
      for (size_t i = 0; i < n; ++i) Q.auxCtrlPos.push_back(uint32_t(700 + i));
    }
    if (round % 5 == 0) Q.normals.clear();
    BlendAccess::m_BlendedQPointsVector.clear();
    for (size_t i = 0; i < n; ++i) BlendAccess::m_BlendedQPointsVector.push_back(random() % 3 == 0);
    const bool haveStretches = round % 7 != 0;
    if (haveStretches) {
      for (size_t j = 0; j < segments.size(); ++j) {
        if (random() % 2) BlendAccess::addStretch(0, 3, uint32_t(j));
      }
      if (BlendAccess::m_VectResultedSegmentsStart.empty()) BlendAccess::addStretch(0, 3, 99);
    }
    LuAfxsPlane P = planeOf(line(7, 0, 1), {3, 7}, 3, 1);
    P.auxCtrlFirst = {1, 2, 3, 4, 5, 6, 7};
    P.distances.assign(7, 0.5);

    LuAfxsPlane expected = P;
    blendref::assemble(expected, Q, BlendAccess::m_BlendedQPointsVector, haveStretches,
                       BlendAccess::m_VectResultedSegmentsIndx);
    LuAfxsPlane fast = P;
    BlendAccess::CreateBlendedUnifyPlane(&P, &Q, fast);

    ASSERT_EQ(fast.points, expected.points) << "round " << round;
    ASSERT_EQ(fast.normals, expected.normals) << "round " << round;
    ASSERT_EQ(fast.resPoints, expected.resPoints) << "round " << round;
    ASSERT_EQ(fast.distances, expected.distances) << "round " << round;
    ASSERT_EQ(fast.auxCtrlFirst, expected.auxCtrlFirst) << "round " << round;
    ASSERT_EQ(fast.auxCtrlPos, expected.auxCtrlPos) << "round " << round;
    ASSERT_EQ(fast.segments, expected.segments) << "round " << round;

    // The library's own one-stretch-at-a-time splice gives the same plane.
    LuAfxsPlane literal = P;
    if (haveStretches) {
      U starts = BlendAccess::m_VectQUsedSegmentsStart, ends = BlendAccess::m_VectQUsedSegmentsEnd,
        index = BlendAccess::m_VectQUsedSegments_P_Insert_Index;
      std::vector<int> segIndex = BlendAccess::m_VectQUsedSegments_P_Insert_SegIndex;
      BlendAccess::UpdatePlaneWithSegment(literal, &Q, starts, ends, index, segIndex);
    }
    U starts, ends, index;
    std::vector<int> segIndex;
    BlendAccess::BuildNonBlendedAreaMapFromNonIntersectedQSegments(&literal, &Q, starts, ends,
                                                                   index, segIndex);
    BlendAccess::UpdatePlaneWithSegment(literal, &Q, starts, ends, index, segIndex);
    ASSERT_EQ(literal.points, fast.points) << "round " << round;
    ASSERT_EQ(literal.resPoints, fast.resPoints) << "round " << round;
    ASSERT_EQ(literal.auxCtrlFirst, fast.auxCtrlFirst) << "round " << round;
    ASSERT_EQ(literal.segments, fast.segments) << "round " << round;
  }
}

}  // namespace
