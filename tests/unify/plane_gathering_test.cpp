// Plane gathering and per-plane unification: the two layouts of the plane
// lists, the walk position by position, and what reaches the output file.
#include <stdexcept>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/unify_scans.h"

namespace lutest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr uint32_t kKeep = 0xFFFFFFFF;

class PlaneGatheringTest : public UnifyTest {
protected:
  // A data set on the scan, loaded as PrepareVectorOfPlaneVecs loads it.
  LuAfxsUserDataSet* loadedSet(const std::string& name) {
    LuAfxsUserDataSet* set = dataSet(name);
    EXPECT_TRUE(set->load(0));
    return set;
  }
  // An output link created and released as FlushPlanesVectors does.
  std::unique_ptr<LuAfxsCreateLink> openOutput(const std::string& name) {
    auto link = std::make_unique<LuAfxsCreateLink>(wpath(name).c_str());
    link->setHeader(scanHeader(1));
    LuAfxsCamerasTable cameras;
    cameras.cameras.push_back(LuVec3{1, 2, 3});
    link->setCameras(cameras);
    EXPECT_TRUE(link->create(true));
    link->release();
    return link;
  }
  static RecordCounts arc(uint32_t planeId, uint32_t subsetId, const ArcShape& arcShape = {}) {
    return countsOf(makeArcPlane(planeId, subsetId, arcShape), subsetId);
  }
  std::vector<const LuAfxsPlane*> planesOf(LuAfxsUserDataSet& set) {
    std::vector<const LuAfxsPlane*> planes;
    for (const LuAfxsUserData* data : set) planes.push_back(&data->getPlaneData());
    return planes;
  }
  static std::wstring currentIPlaneLine(int planeId, int length) {
    return L"LuAfxsUserDataSet::FillDataSetPlanesVector() Current iPlane > NumberOfPlanes, "
           L"iPlane = " +
           std::to_wstring(planeId) + L", NumberOfPlanes = " + std::to_wstring(length) + L" ";
  }
};

// ---- FillDataSetPlanesVector --------------------------------------------

TEST_F(PlaneGatheringTest, RealOutputIdIndexesListByPlaneNumberAndRelabelsSubsets) {
  writeScan("a.afxs", 1, {0, 2});
  LuAfxsUserDataSet* set = loadedSet("a.afxs");
  UnifyProbe::PlaneList planes;
  std::vector<uint32_t> values;
  EXPECT_TRUE(UnifyProbe::FillDataSetPlanesVector(*set, planes, values, LU_AFXS_MASK_ALL, 3, 7));

  const auto own = planesOf(*set);
  ASSERT_EQ(own.size(), 2u);
  EXPECT_THAT(planes, ElementsAre(own[0], nullptr, own[1]));
  EXPECT_EQ(own[0]->subsetId, 7u);  // relabelled in the loaded data set itself
  EXPECT_EQ(own[1]->subsetId, 7u);
  const uint32_t state = (*set->begin())->state();
  EXPECT_EQ(state, 55u);  // points, segments, normals, result points, distances
  EXPECT_THAT(values, ElementsAre(state, kKeep, state));
}

TEST_F(PlaneGatheringTest, KeptIdsLayoutAppendsPlanesAfterPlaceholders) {
  writeScan("a.afxs", 4, {0, 1});
  LuAfxsUserDataSet* set = loadedSet("a.afxs");
  UnifyProbe::PlaneList planes;
  std::vector<uint32_t> values;
  UnifyProbe::FillDataSetPlanesVector(*set, planes, values, LU_AFXS_MASK_ALL, 3,
                                      static_cast<int>(kKeep));

  const auto own = planesOf(*set);
  EXPECT_THAT(planes, ElementsAre(nullptr, nullptr, nullptr, own[0], own[1]));
  EXPECT_EQ(own[0]->subsetId, 4u);
  EXPECT_EQ(own[1]->subsetId, 4u);
  EXPECT_THAT(values, ElementsAre(kKeep, kKeep, kKeep, 55u, 55u));
}

TEST_F(PlaneGatheringTest, RecordsAreLoadedWithTheLoadMode) {
  writeScan("a.afxs", 1, {0});
  LuAfxsUserDataSet* set = loadedSet("a.afxs");
  UnifyProbe::PlaneList planes;
  std::vector<uint32_t> values;
  UnifyProbe::FillDataSetPlanesVector(*set, planes, values, LU_AFXS_MASK_POINTS, 1, 2);
  ASSERT_EQ(planes.size(), 1u);
  EXPECT_EQ(planes[0]->points.size(), 16u);
  EXPECT_THAT(planes[0]->normals, IsEmpty());
  EXPECT_THAT(values, ElementsAre(LU_AFXS_MASK_POINTS));
}

TEST_F(PlaneGatheringTest, PlaneIdBeyondListIsLoggedAndAppendedWithKeptIds) {
  writeScan("a.afxs", 1, {5});
  LuAfxsUserDataSet* set = loadedSet("a.afxs");
  UnifyProbe::PlaneList planes;
  std::vector<uint32_t> values;
  UnifyProbe::FillDataSetPlanesVector(*set, planes, values, LU_AFXS_MASK_ALL, 1,
                                      static_cast<int>(kKeep));
  EXPECT_EQ(capture().messages(0), std::vector<std::wstring>{currentIPlaneLine(5, 1)});
  EXPECT_THAT(planes, ElementsAre(nullptr, planesOf(*set)[0]));  // nothing padded
}

TEST_F(PlaneGatheringTest, PlaneIdBeyondListWithRealIdIsLoggedThenThrowsOutOfRange) {
  writeScan("a.afxs", 1, {0, 5});
  LuAfxsUserDataSet* set = loadedSet("a.afxs");
  UnifyProbe::PlaneList planes;
  std::vector<uint32_t> values;
  EXPECT_THROW(UnifyProbe::FillDataSetPlanesVector(*set, planes, values, LU_AFXS_MASK_ALL, 2, 3),
               std::out_of_range);
  EXPECT_TRUE(capture().logged(currentIPlaneLine(5, 2)));
}

TEST_F(PlaneGatheringTest, PlaneIdEqualToListLengthThrowsWithoutCurrentIPlaneLine) {
  writeScan("a.afxs", 1, {0, 2});
  LuAfxsUserDataSet* set = loadedSet("a.afxs");
  UnifyProbe::PlaneList planes;
  std::vector<uint32_t> values;
  EXPECT_THROW(UnifyProbe::FillDataSetPlanesVector(*set, planes, values, LU_AFXS_MASK_ALL, 2, 3),
               std::out_of_range);
  EXPECT_FALSE(loggedPrefix(0, L"LuAfxsUserDataSet::FillDataSetPlanesVector()"));
}

// ---- PrepareVectorOfPlaneVecs -------------------------------------------

TEST_F(PlaneGatheringTest, PrepareStopsAtDataSetThatFailsToLoad) {
  writeScan("a.afxs", 1, {0});
  std::vector<LuAfxsUserDataSet*> sets{dataSet("a.afxs"), dataSet("missing.afxs")};
  std::vector<uint32_t> ids{1, 2};
  UnifyProbe::PlaneLists lists;
  EXPECT_FALSE(UnifyProbe::PrepareVectorOfPlaneVecs(lists, sets, ids, LU_AFXS_MASK_ALL));
  EXPECT_THAT(lists, IsEmpty());
  EXPECT_EQ(capture().messages(5), std::vector<std::wstring>{L"AddDataSets2Unify: loading Failed"});
}

TEST_F(PlaneGatheringTest, PrepareGivesEveryListTheLargestRecordCountOfPlaceholders) {
  writeScan("a.afxs", 1, {0, 1, 2});
  writeScan("b.afxs", 2, {0});
  std::vector<LuAfxsUserDataSet*> sets{dataSet("a.afxs"), dataSet("b.afxs")};
  std::vector<uint32_t> ids{kKeep, kKeep};
  UnifyProbe::PlaneLists lists;
  EXPECT_TRUE(UnifyProbe::PrepareVectorOfPlaneVecs(lists, sets, ids, LU_AFXS_MASK_ALL));
  ASSERT_EQ(lists.size(), 2u);
  EXPECT_EQ(lists[0]->size(), 6u);
  EXPECT_EQ(lists[1]->size(), 4u);
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ((*lists[0])[i], nullptr);
    EXPECT_EQ((*lists[1])[i], nullptr);
  }
  EXPECT_EQ((*lists[1])[3]->subsetId, 2u);
  for (auto* list : lists) delete list;
}

TEST_F(PlaneGatheringTest, PrepareTreatsMissingOutputIdsAsKeptIds) {
  writeScan("a.afxs", 1, {0});
  writeScan("b.afxs", 2, {0});
  std::vector<LuAfxsUserDataSet*> sets{dataSet("a.afxs"), dataSet("b.afxs")};
  std::vector<uint32_t> ids{5};
  UnifyProbe::PlaneLists lists;
  EXPECT_TRUE(UnifyProbe::PrepareVectorOfPlaneVecs(lists, sets, ids, LU_AFXS_MASK_ALL));
  ASSERT_EQ(lists.size(), 2u);
  ASSERT_EQ(lists[0]->size(), 1u);
  EXPECT_EQ((*lists[0])[0]->subsetId, 5u);
  ASSERT_EQ(lists[1]->size(), 2u);
  EXPECT_EQ((*lists[1])[0], nullptr);
  EXPECT_EQ((*lists[1])[1]->subsetId, 2u);
  EXPECT_TRUE(loggedPrefix(5,
                           L"LuAfxsUserDataSet::PrepareVectorOfPlaneVecs()- NumberOfOutputIds = 1 "
                           L"< NumberOfDataSets = 2"));
  for (auto* list : lists) delete list;
}

// ---- The walk and the writing -------------------------------------------

TEST_F(PlaneGatheringTest, WalkStopsSilentlyAtPlanesOfDifferentIds) {
  const LuAfxsPlane a0 = makeArcPlane(0, 1, {}), a1 = makeArcPlane(1, 1, {}),
                    a2 = makeArcPlane(2, 1, {});
  const LuAfxsPlane b0 = makeArcPlane(0, 2, {}), b3 = makeArcPlane(3, 2, {}),
                    b2 = makeArcPlane(2, 2, {});
  UnifyProbe::PlaneList la{&a0, &a1, &a2}, lb{&b0, &b3, &b2};
  UnifyProbe::PlaneLists lists{&la, &lb};
  auto link = openOutput("out.afxs");
  EXPECT_FALSE(UnifyProbe::UnifyMultiplePlanesBySubsetAndFlush(lists, *link));
  link->closeFile(true);
  EXPECT_THAT(capture().messages(5), IsEmpty());
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 1), arc(0, 2)));
}

TEST_F(PlaneGatheringTest, WalkWritesPositionsInOrderAndDataSetsInOrderWithinOne) {
  const LuAfxsPlane a0 = makeArcPlane(0, 1, {}), a1 = makeArcPlane(1, 1, {});
  const LuAfxsPlane b1 = makeArcPlane(1, 2, {});
  UnifyProbe::PlaneList la{&a0, &a1}, lb{nullptr, &b1};
  UnifyProbe::PlaneLists lists{&lb, &la};
  auto link = openOutput("out.afxs");
  EXPECT_FALSE(UnifyProbe::UnifyMultiplePlanesBySubsetAndFlush(lists, *link));  // always false
  link->closeFile(true);
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 1), arc(1, 2), arc(1, 1)));
}

TEST_F(PlaneGatheringTest, XSectionsUnifyWithBlendingOffWritesEveryPlaneOfTheGroup) {
  const LuAfxsPlane a = makeArcPlane(3, 1, {}), b = makeArcPlane(3, 2, {}),
                    c = makeArcPlane(3, 3, {});
  UnifyProbe::PlaneList group{&a, &b, &c};
  auto link = openOutput("out.afxs");
  EXPECT_TRUE(UnifyProbe::XSectionsUnify(group, *link));
  link->closeFile(true);
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(3, 1), arc(3, 2), arc(3, 3)));
}

TEST_F(PlaneGatheringTest, WalkWithBlendingOnWritesWhatEachPositionBlendedAloneWrites) {
  // A large blend first, then a smaller one: the walk reuses the blended
  // plane of the first position for the second.
  auto arcOf = [](uint32_t plane, uint32_t subset, double start, size_t points) {
    ArcShape arcShape;
    arcShape.startDeg = start;
    arcShape.endDeg = start + 130.0;
    arcShape.points = points;
    return makeArcPlane(plane, subset, arcShape);
  };
  const LuAfxsPlane p0 = arcOf(0, 1, 0, 80), q0 = arcOf(0, 2, 120, 80);
  const LuAfxsPlane p1 = arcOf(1, 1, 0, 40), q1 = arcOf(1, 2, 120, 40);
  LuAfxsUserDataSet::SupportXSectionBlending(true);

  UnifyProbe::PlaneList first{&p0, &p1}, second{&q0, &q1};
  UnifyProbe::PlaneLists lists{&first, &second};
  auto walked = openOutput("walked.afxs");
  EXPECT_FALSE(UnifyProbe::UnifyMultiplePlanesBySubsetAndFlush(lists, *walked));
  walked->closeFile(true);
  EXPECT_EQ(countLogged(0,
                        L"LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush()- "
                        L"LuAfxsCreateData:: BlendXSections Succeeded"),
            2u);

  auto alone = openOutput("alone.afxs");
  UnifyProbe::PlaneList group0{&p0, &q0}, group1{&p1, &q1};
  EXPECT_TRUE(UnifyProbe::XSectionsUnify(group0, *alone));
  EXPECT_TRUE(UnifyProbe::XSectionsUnify(group1, *alone));
  alone->closeFile(true);
  EXPECT_EQ(readBytes(path("walked.afxs")), readBytes(path("alone.afxs")));
  EXPECT_EQ(readOutput("walked.afxs").value().size(), 2u);
}

TEST_F(PlaneGatheringTest, FlushPlaneToFileLinkWritesPlaneUnderItsOwnIds) {
  ArcShape arcShape;
  arcShape.normals = false;
  arcShape.results = false;
  const LuAfxsPlane plane = makeArcPlane(4, 9, arcShape);
  auto link = openOutput("out.afxs");
  EXPECT_TRUE(UnifyProbe::FlushPlaneToFileLink(&plane, *link));
  link->closeFile(true);
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(4, 9, arcShape)));
}

TEST_F(PlaneGatheringTest, FlushPlaneToFileLinkSkipsPlaneWithOnlyAuxPositions) {
  ArcShape arcShape;
  arcShape.auxOnly = true;
  const LuAfxsPlane plane = makeArcPlane(4, 9, arcShape);
  auto link = openOutput("out.afxs");
  EXPECT_TRUE(UnifyProbe::FlushPlaneToFileLink(&plane, *link));
  link->closeFile(true);
  EXPECT_THAT(readOutput("out.afxs").value(), IsEmpty());
}

TEST_F(PlaneGatheringTest, FailedFlushIsLoggedAndNextPlaneIsStillTried) {
  const LuAfxsPlane first = makeArcPlane(1, 2, {}), second = makeArcPlane(3, 4, {});
  auto link = openOutput("out.afxs");
  luIoFaultArm(LuIoOp::Write, 1);
  EXPECT_FALSE(UnifyProbe::FlushPlaneToFileLink(&first, *link));
  EXPECT_FALSE(UnifyProbe::FlushPlaneToFileLink(&second, *link));  // the link stays failed
  luIoFaultDisarm();
  EXPECT_EQ(capture().messages(5),
            (std::vector<std::wstring>{
                L"LuAfxsUserDataSet::FlushPlaneToFileLink()- LuAfxsCreateData:: Flush Failed "
                L"iPlane = 1, iSubset = 2",
                L"LuAfxsUserDataSet::FlushPlaneToFileLink()- LuAfxsCreateData:: Flush Failed "
                L"iPlane = 3, iSubset = 4"}));
}

TEST_F(PlaneGatheringTest, FlushPlanesVectorsCreatesAndClosesOutputWithoutLists) {
  UnifyProbe::PlaneLists lists;
  LuAfxsCreateLink link(wpath("out.afxs").c_str());
  link.setHeader(scanHeader(1));
  LuAfxsCamerasTable cameras;
  cameras.cameras.push_back(LuVec3{1, 2, 3});
  link.setCameras(cameras);
  UnifyProbe::FlushPlanesVectors(lists, link, false);
  EXPECT_THAT(readOutput("out.afxs").value(), IsEmpty());
}

// ---- Through the driver, read back --------------------------------------

TEST_F(PlaneGatheringTest, KeptIdsWithBlendingOffWritePlanesFromPositionSlotCountOn) {
  writeScan("a.afxs", 1, {0, 1, 2});
  writeScan("b.afxs", 2, {0, 1});
  EXPECT_FALSE(unify({dataSet("a.afxs"), dataSet("b.afxs")}, {kKeep, kKeep}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(),
              ElementsAre(arc(0, 1), arc(0, 2), arc(1, 1), arc(1, 2), arc(2, 1)));
  EXPECT_THAT(capture().messages(5), IsEmpty());
}

TEST_F(PlaneGatheringTest, KeptIdsWithBlendingOnWriteNoPlane) {
  writeScan("a.afxs", 1, {0, 1, 2});
  writeScan("b.afxs", 2, {0, 1});
  LuAfxsUserDataSet::SupportXSectionBlending(true);
  bool result = true;
  EXPECT_NO_THROW(result =
                      unify({dataSet("a.afxs"), dataSet("b.afxs")}, {kKeep, kKeep}, "out.afxs"));
  EXPECT_FALSE(result);
  // Position 0 is an empty group: the blend's checked access ends the call.
  EXPECT_EQ(countLogged(5, L"LuAfxsUserDataSet::UnifyMultipleDataSets()- Exception: "), 1u);
  EXPECT_THAT(readOutput("out.afxs").value(), IsEmpty());
}

TEST_F(PlaneGatheringTest, DataSetWithFewerRecordsDropsOutOfLaterPositions) {
  writeScan("a.afxs", 1, {0, 1, 2, 3});
  writeScan("b.afxs", 2, {0, 1});
  EXPECT_FALSE(unify({dataSet("a.afxs"), dataSet("b.afxs")}, {10, 20}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(),
              ElementsAre(arc(0, 10), arc(0, 20), arc(1, 10), arc(1, 20), arc(2, 10), arc(3, 10)));
}

TEST_F(PlaneGatheringTest, DifferentPlaneIdsAtOnePositionStopTheOutputThere) {
  writeScan("a.afxs", 1, {0, 1, 2, 3});
  writeScan("b.afxs", 2, {0, 2, 3});
  EXPECT_FALSE(unify({dataSet("a.afxs"), dataSet("b.afxs")}, {kKeep, kKeep}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 1), arc(0, 2)));
  EXPECT_THAT(capture().messages(5), IsEmpty());
}

TEST_F(PlaneGatheringTest, PositionWithOnePlaneAndBlendingOnWritesThatPlaneUnchanged) {
  writeScan("a.afxs", 1, {0, 1});
  LuAfxsUserDataSet::SupportXSectionBlending(true);
  EXPECT_FALSE(unify({dataSet("a.afxs")}, {6}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 6), arc(1, 6)));

  LuAfxsUserLink link(wpath("out.afxs").c_str());
  LuAfxsUserDataSet out(link);
  ASSERT_TRUE(out.load(LU_AFXS_MASK_ALL));
  const LuAfxsPlane expected = makeArcPlane(1, 6, {});
  const LuAfxsPlane& written = (*std::next(out.begin()))->getPlaneData();
  EXPECT_EQ(written.points, expected.points);
  EXPECT_EQ(written.normals, expected.normals);
  EXPECT_EQ(written.segments, expected.segments);
  EXPECT_EQ(written.resPoints, expected.resPoints);
  EXPECT_EQ(written.distances, expected.distances);
  EXPECT_FALSE(loggedPrefix(0,
                            L"LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush()- "
                            L"LuAfxsCreateData:: BlendXSections Succeeded"));
}

TEST_F(PlaneGatheringTest, PlaneWithOnlyAuxPositionsIsNotWritten) {
  ArcShape auxOnly;
  auxOnly.auxOnly = true;
  ASSERT_TRUE(
      writeScanFile(wpath("a.afxs"),
                    {makeArcPlane(0, 1, {}), makeArcPlane(1, 1, auxOnly), makeArcPlane(2, 1, {})},
                    scanHeader(3)));
  EXPECT_FALSE(unify({dataSet("a.afxs")}, {1}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 1), arc(2, 1)));
}

TEST_F(PlaneGatheringTest, AuxPositionsOfWrittenPlanesAreDropped) {
  ArcShape withAux;
  withAux.aux = true;
  writeScan("a.afxs", 1, {0}, withAux);
  EXPECT_FALSE(unify({dataSet("a.afxs")}, {1}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 1, withAux)));
}

TEST_F(PlaneGatheringTest, LaterRecordOfTheSamePlaneWinsWithRealOutputId) {
  ArcShape small, large;
  small.points = 8;
  large.points = 12;
  ASSERT_TRUE(writeScanFile(
      wpath("a.afxs"),
      {makeArcPlane(0, 1, small), makeArcPlane(0, 2, large), makeArcPlane(1, 1, small)},
      scanHeader(2)));
  EXPECT_FALSE(unify({dataSet("a.afxs")}, {5}, "out.afxs"));
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 5, large), arc(1, 5, small)));
}

}  // namespace
}  // namespace lutest
