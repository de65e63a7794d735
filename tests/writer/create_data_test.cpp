// The create data buffer: what each setter keeps, the mask, Unify, and the
// record that flush writes.
#include <luAnaf/luAnaf.h>

#include <vector>

#include "support/writer_support.h"

namespace lutest {
namespace {

class CreateDataTest : public CreatedLinkTest {
protected:
  // The one plane-subset record of the file.
  afxstest::Record onlySubsetRecord() {
    auto file = decode();
    EXPECT_TRUE(file.ok) << file.error;
    for (const auto& r : file.records)
      if (r.kind == LU_AFXS_REC_PLANE_SUBSET) return r;
    ADD_FAILURE() << "no plane-subset record";
    return {};
  }
};

TEST_F(CreateDataTest, NewDataHoldsItsIdsAndNoMask) {
  LuAfxsCreateData data(*link, 7, 3);
  EXPECT_EQ(data.state(), 0u);
  EXPECT_EQ(data.plane().planeId, 7u);
  EXPECT_EQ(data.plane().subsetId, 3u);
  EXPECT_TRUE(data.plane().points.empty());
}

TEST_F(CreateDataTest, NothingSetFlushesToNothing) {
  {
    LuAfxsCreateData data(*link, 0, 1);
    EXPECT_FALSE(data.flush());
  }
  EXPECT_EQ(link->recordCount(), 0u);
  auto file = decode();
  EXPECT_EQ(file.firstRecord, 0u);
  EXPECT_EQ(bytes().size(), file.headerText.size());
  EXPECT_TRUE(reports().empty());
}

TEST_F(CreateDataTest, SetPointsWithZeroCountLeavesTheMask) {
  LuAfxsCreateData data(*link, 0, 1);
  auto pts = pointsOf(2);
  data.setPoints(raw(pts), 0);
  EXPECT_EQ(data.state(), 0u);
  data.setPoints(raw(pts), 2);
  data.setPoints(raw(pts), 0);
  EXPECT_EQ(data.state(), 1u);
  EXPECT_EQ(data.plane().points.size(), 2u);
}

TEST_F(CreateDataTest, NullInputChangesNothing) {
  LuAfxsCreateData data(*link, 0, 1);
  data.setPoints(nullptr, 3);
  data.setNormals(nullptr, 3);
  data.setSegments(nullptr, 3);
  data.setResPoints(nullptr, 3);
  data.setDistances(nullptr, 3);
  const uint32_t counts[1] = {1};
  data.setAuxCtrlPos(nullptr, 1, counts, 1);
  EXPECT_EQ(data.state(), 0u);
  EXPECT_TRUE(data.plane().points.empty());
}

struct SetterCase {
  const char* name;
  uint32_t bit;
};

// Printed by name: gtest would otherwise print the raw bytes, padding
// included, which valgrind rightly calls uninitialised.
void PrintTo(const SetterCase& c, std::ostream* out) { *out << c.name; }

class SetterBitTest : public CreateDataTest, public ::testing::WithParamInterface<SetterCase> {};

TEST_P(SetterBitTest, SetterReplacesItsVectorAndSetsOnlyItsBit) {
  LuAfxsCreateData data(*link, 0, 1);
  auto first = pointsOf(4);
  auto second = pointsOf(2, 9);
  std::vector<int> segs1{4}, segs2{1, 2};
  std::vector<double> d1{1, 2, 3, 4}, d2{5, 6};
  auto apply = [&](bool again) {
    switch (GetParam().bit) {
      case LU_AFXS_MASK_POINTS:
        data.setPoints(raw(again ? second : first), again ? 2 : 4);
        return data.plane().points.size();
      case LU_AFXS_MASK_NORMALS:
        data.setNormals(raw(again ? second : first), again ? 2 : 4);
        return data.plane().normals.size();
      case LU_AFXS_MASK_SEGMENTS:
        data.setSegments(again ? segs2.data() : segs1.data(), again ? 2 : 1);
        return data.plane().segments.size();
      case LU_AFXS_MASK_RESPOINTS:
        data.setResPoints(raw(again ? second : first), again ? 2 : 4);
        return data.plane().resPoints.size();
      default:
        data.setDistances(again ? d2.data() : d1.data(), again ? 2 : 4);
        return data.plane().distances.size();
    }
  };
  size_t firstSize = apply(false);
  EXPECT_EQ(data.state(), GetParam().bit);
  size_t secondSize = apply(true);
  EXPECT_EQ(data.state(), GetParam().bit);
  EXPECT_NE(firstSize, secondSize);
  EXPECT_EQ(secondSize, GetParam().bit == LU_AFXS_MASK_SEGMENTS ? 2u : 2u);
}

INSTANTIATE_TEST_SUITE_P(Setters, SetterBitTest,
                         ::testing::Values(SetterCase{"Points", LU_AFXS_MASK_POINTS},
                                           SetterCase{"Normals", LU_AFXS_MASK_NORMALS},
                                           SetterCase{"Segments", LU_AFXS_MASK_SEGMENTS},
                                           SetterCase{"ResPoints", LU_AFXS_MASK_RESPOINTS},
                                           SetterCase{"Distances", LU_AFXS_MASK_DISTANCES}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(CreateDataTest, AuxGroupsOfTwoAndThreeGiveOffsetsAndFirstPositions) {
  LuAfxsCreateData data(*link, 0, 1);
  const uint32_t pos[5] = {40, 41, 42, 43, 44};
  const uint32_t counts[2] = {2, 3};
  data.setAuxCtrlPos(pos, 5, counts, 2);
  EXPECT_EQ(data.state(), 8u);
  EXPECT_EQ(data.plane().auxCtrlPos, (std::vector<uint32_t>{40, 41, 42, 43, 44}));
  EXPECT_EQ(data.plane().auxCtrlCounts, (std::vector<uint32_t>{2, 3}));
  EXPECT_EQ(data.plane().auxCtrlOffsets, (std::vector<uint32_t>{0, 2}));
  EXPECT_EQ(data.plane().auxCtrlFirst, (std::vector<uint32_t>{40, 42}));
}

TEST_F(CreateDataTest, AuxWithZeroCountChangesNothing) {
  LuAfxsCreateData data(*link, 0, 1);
  const uint32_t pos[2] = {1, 2};
  const uint32_t counts[2] = {1, 1};
  data.setAuxCtrlPos(pos, 0, counts, 2);
  data.setAuxCtrlPos(pos, 2, counts, 0);
  EXPECT_EQ(data.state(), 0u);
  EXPECT_TRUE(data.plane().auxCtrlPos.empty());
}

struct AuxReject {
  const char* name;
  std::vector<uint32_t> counts;
  size_t positionCount;
};

class AuxRejectTest : public CreateDataTest, public ::testing::WithParamInterface<AuxReject> {};

// Chosen: groups that would run past the positions are rejected whole, so the
// input is never read outside its bounds.
TEST_P(AuxRejectTest, GroupsRunningPastThePositionsAreRejected) {
  LuAfxsCreateData data(*link, 0, 1);
  const uint32_t good[2] = {1, 1};
  const uint32_t goodPos[2] = {7, 8};
  data.setAuxCtrlPos(goodPos, 2, good, 2);
  // Exactly positionCount readable values: any read past them would be seen
  // by the sanitizers of the checked builds.
  std::vector<uint32_t> pos(GetParam().positionCount, 5);
  data.setAuxCtrlPos(pos.data(), pos.size(), GetParam().counts.data(), GetParam().counts.size());
  EXPECT_EQ(data.state(), 8u);
  EXPECT_EQ(data.plane().auxCtrlPos, (std::vector<uint32_t>{7, 8}));
  EXPECT_EQ(data.plane().auxCtrlCounts, (std::vector<uint32_t>{1, 1}));
  EXPECT_EQ(data.plane().auxCtrlOffsets, (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(data.plane().auxCtrlFirst, (std::vector<uint32_t>{7, 8}));
}

INSTANTIATE_TEST_SUITE_P(Inputs, AuxRejectTest,
                         ::testing::Values(AuxReject{"SumPastEnd", {2, 3}, 4},
                                           AuxReject{"EmptyGroupAtTheEnd", {2, 3, 0}, 5},
                                           AuxReject{"HugeCount", {1, 0xFFFFFFFFu}, 3},
                                           AuxReject{
                                               "CountsWrappingIn32Bits", {0xFFFFFFFFu, 2, 1}, 4}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(CreateDataTest, FewerGroupsThanPositionsAreKept) {
  LuAfxsCreateData data(*link, 0, 1);
  const uint32_t pos[4] = {1, 2, 3, 4};
  const uint32_t counts[1] = {2};
  data.setAuxCtrlPos(pos, 4, counts, 1);
  EXPECT_EQ(data.state(), 8u);
  EXPECT_EQ(data.plane().auxCtrlPos.size(), 4u);
  EXPECT_EQ(data.plane().auxCtrlFirst, (std::vector<uint32_t>{1}));
}

TEST_F(CreateDataTest, AuxOnlyIsAValidMask) {
  {
    LuAfxsCreateData data(*link, 2, 1);
    const uint32_t pos[3] = {5, 6, 7};
    const uint32_t counts[2] = {1, 2};
    data.setAuxCtrlPos(pos, 3, counts, 2);
    EXPECT_TRUE(data.flush());
  }
  auto r = onlySubsetRecord();
  EXPECT_EQ(r.fieldIds(), (std::vector<uint32_t>{7, 8, 9, 3, 4}));
  EXPECT_EQ(afxstest::asU32(*r.field(7)), (std::vector<uint32_t>{5, 6, 7}));
  EXPECT_EQ(afxstest::asU32(*r.field(8)), (std::vector<uint32_t>{0, 1}));
  EXPECT_EQ(afxstest::asU32(*r.field(9)), (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(afxstest::asU32(*r.field(3)), (std::vector<uint32_t>{5, 6}));
  EXPECT_EQ(decode().state, 8u);
}

TEST_F(CreateDataTest, FlushWritesEveryFieldInItsOrder) {
  {
    LuAfxsCreateData data(*link, 1, 2);
    auto pts = pointsOf(3);
    auto nrm = pointsOf(3, 0.5);
    auto res = pointsOf(3, 0.25);
    int segs[2] = {1, 3};
    uint32_t pos[3] = {9, 8, 7}, counts[3] = {1, 1, 1};
    double dist[3] = {0.1, 0.2, 0.3};
    data.setResPoints(raw(res), 3);
    data.setDistances(dist, 3);
    data.setAuxCtrlPos(pos, 3, counts, 3);
    data.setSegments(segs, 2);
    data.setNormals(raw(nrm), 3);
    data.setPoints(raw(pts), 3);
    EXPECT_EQ(data.state(), 63u);
    EXPECT_TRUE(data.flush());
  }
  auto r = onlySubsetRecord();
  EXPECT_EQ(r.subsetId, 2u);
  EXPECT_EQ(r.fieldIds(), (std::vector<uint32_t>{0, 1, 2, 7, 8, 9, 3, 6, 5, 4}));
  EXPECT_EQ(r.field(0)->count, 72u);
  EXPECT_EQ(afxstest::asPoints(*r.field(1))[2].z, 6.5);
  EXPECT_EQ(afxstest::asI32(*r.field(2)), (std::vector<int32_t>{1, 3}));
  EXPECT_EQ(afxstest::asDoubles(*r.field(6)), (std::vector<double>{0.1, 0.2, 0.3}));
  EXPECT_EQ(afxstest::asPoints(*r.field(5))[1].y, 2.25);
  EXPECT_EQ(r.field(4)->count, 4u);
  EXPECT_EQ(afxstest::asU32(*r.field(4)), (std::vector<uint32_t>{0}));
  EXPECT_EQ(r.endKind, 2u);
  EXPECT_EQ(decode().state, 63u);
}

TEST_F(CreateDataTest, PointsAndSegmentsOnlyAndTheStateToThree) {
  ASSERT_TRUE(flushPlane(*link, 0, 1, 4, LU_AFXS_MASK_ALL));
  EXPECT_EQ(link->getState(), 63u);
  ASSERT_TRUE(flushPlane(*link, 1, 1, 4, LU_AFXS_MASK_POINTS | LU_AFXS_MASK_SEGMENTS));
  EXPECT_EQ(link->getState(), 3u);
  EXPECT_LE(decode().state, 3u);
  EXPECT_EQ(decode().state, 3u);
}

TEST_F(CreateDataTest, UnifyCopiesIdsAndVectorsAndOrsTheMask) {
  LuAfxsPlane plane;
  plane.planeId = 11;
  plane.subsetId = 12;
  plane.points = pointsOf(2);
  plane.segments = {2};
  plane.distances = {1.0, 2.0};
  LuAfxsCreateData data(*link, 0, 1);
  auto nrm = pointsOf(5);
  data.setNormals(raw(nrm), 5);
  EXPECT_TRUE(data.Unify(&plane));
  EXPECT_EQ(data.plane().planeId, 11u);
  EXPECT_EQ(data.plane().subsetId, 12u);
  EXPECT_TRUE(data.plane().normals.empty());  // replaced by the plane's empty vector
  EXPECT_EQ(data.state(), 1u | 2u | 4u | 32u);
}

TEST_F(CreateDataTest, UnifiedPlaneIsWrittenUnderItsOwnIds) {
  LuAfxsPlane plane;
  plane.planeId = 30;
  plane.subsetId = 31;
  plane.points = pointsOf(2);
  plane.resPoints = pointsOf(2, 1);
  {
    LuAfxsCreateData data(*link, 0, 1);
    data.Unify(&plane);
    EXPECT_EQ(data.state(), 17u);
    ASSERT_TRUE(data.flush());
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  ASSERT_NE(file.planeRecord(30), nullptr);
  EXPECT_EQ(file.planeRecord(0), nullptr);
  auto subs = file.subsetsOf(30);
  ASSERT_EQ(subs.size(), 1u);
  EXPECT_EQ(subs[0]->subsetId, 31u);
  EXPECT_EQ(subs[0]->fieldIds(), (std::vector<uint32_t>{0, 5, 4}));
}

TEST_F(CreateDataTest, UnifyOfAnAuxOnlyPlaneLeavesTheMaskAndFlushesNothing) {
  LuAfxsPlane plane;
  plane.auxCtrlPos = {1, 2};
  plane.auxCtrlCounts = {1, 1};
  plane.auxCtrlOffsets = {0, 1};
  plane.auxCtrlFirst = {1, 2};
  LuAfxsCreateData data(*link, 0, 1);
  EXPECT_TRUE(data.Unify(&plane));
  EXPECT_EQ(data.state(), 0u);
  EXPECT_FALSE(data.flush());
  EXPECT_EQ(link->recordCount(), 0u);
}

TEST_F(CreateDataTest, UnifyKeepsAnAuxBitSetBefore) {
  LuAfxsCreateData data(*link, 0, 1);
  const uint32_t pos[1] = {4}, counts[1] = {1};
  data.setAuxCtrlPos(pos, 1, counts, 1);
  LuAfxsPlane plane;
  plane.points = pointsOf(1);
  plane.auxCtrlPos = {6, 7};
  data.Unify(&plane);
  EXPECT_EQ(data.state(), 9u);
  ASSERT_TRUE(data.flush());
  auto r = onlySubsetRecord();
  // The unified plane's aux vectors are written, even though only one came with it.
  EXPECT_EQ(r.fieldIds(), (std::vector<uint32_t>{0, 7, 8, 9, 3, 4}));
  EXPECT_EQ(afxstest::asU32(*r.field(7)), (std::vector<uint32_t>{6, 7}));
  EXPECT_EQ(r.field(8)->count, 0u);
}

TEST_F(CreateDataTest, UnifyOfNullChangesNothing) {
  LuAfxsCreateData data(*link, 3, 4);
  EXPECT_FALSE(data.Unify(nullptr));
  EXPECT_EQ(data.state(), 0u);
  EXPECT_EQ(data.plane().planeId, 3u);
}

TEST_F(CreateDataTest, SecondFlushAppendsAnotherRecordWithTheSameIds) {
  {
    LuAfxsCreateData data(*link, 6, 1);
    auto pts = pointsOf(2);
    data.setPoints(raw(pts), 2);
    ASSERT_TRUE(data.flush());
    ASSERT_TRUE(data.flush());
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.kinds(), (std::vector<uint32_t>{1, 2, 2}));
  auto subs = file.subsetsOf(6);
  ASSERT_EQ(subs.size(), 2u);
  EXPECT_EQ(subs[0]->subsetId, 1u);
  EXPECT_EQ(subs[1]->subsetId, 1u);
}

TEST_F(CreateDataTest, DestroyingDataRewritesADirtyState) {
  link.reset();
  link = makeLink();
  ASSERT_TRUE(link->create(true));
  {
    LuAfxsCreateData data(*link, 0, 1);
    link->updateState(0x21);
  }
  EXPECT_FALSE(link->stateDirty());
  EXPECT_NE(link->file(), nullptr);  // kept open
  link->closeFile(true);
  EXPECT_EQ(decode().state, 0x21u);
}

TEST_F(CreateDataTest, FlushOnALinkThatIsNotOkReturnsFalseSilently) {
  link->isOK(false);
  LuAfxsCreateData data(*link, 0, 1);
  auto pts = pointsOf(1);
  data.setPoints(raw(pts), 1);
  EXPECT_FALSE(data.flush());
  EXPECT_TRUE(reports().empty());
  EXPECT_EQ(link->recordCount(), 0u);
}

TEST_F(CreateDataTest, CopyKeepsPlaneMaskAndLink) {
  LuAfxsCreateData data(*link, 5, 6);
  auto pts = pointsOf(2);
  data.setPoints(raw(pts), 2);
  LuAfxsCreateData copy(data);
  EXPECT_EQ(copy.state(), 1u);
  EXPECT_EQ(copy.plane().planeId, 5u);
  EXPECT_TRUE(copy.flush());
  EXPECT_EQ(link->recordCount(), 2u);
}

}  // namespace
}  // namespace lutest
