// The unification drivers: registry updates, their log lines, the output
// file each call rewrites, and the exceptions that end a call.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/unify_scans.h"

namespace lutest {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

constexpr uint32_t kKeep = 0xFFFFFFFF;

class UnificationDriversTest : public UnifyTest {
protected:
  static RecordCounts arc(uint32_t planeId, uint32_t subsetId) {
    return countsOf(makeArcPlane(planeId, subsetId, {}), subsetId);
  }
  // Three scans a, b, c with subsets 1, 2, 3 and planes 0 and 1 each.
  std::vector<LuAfxsUserDataSet*> threeScans() {
    writeScan("a.afxs", 1, {0, 1});
    writeScan("b.afxs", 2, {0, 1});
    writeScan("c.afxs", 3, {0, 1});
    return {dataSet("a.afxs"), dataSet("b.afxs"), dataSet("c.afxs")};
  }
  static std::vector<LuAfxsUserDataSet*> entry(uint32_t id) {
    auto it = UnifyProbe::registry().find(id);
    return it == UnifyProbe::registry().end() ? std::vector<LuAfxsUserDataSet*>{} : it->second;
  }
  static bool hasEntry(uint32_t id) { return UnifyProbe::registry().count(id) != 0; }
  void writeBadFile(const std::string& name) { writeBytes(path(name), {'n', 'o', 't', '\n'}); }
};

// ---- UnifyMultipleDataSets ----------------------------------------------

TEST_F(UnificationDriversTest, UnifyRegistersDataSetsAndWritesEveryPlane) {
  LuAfxsUserDataSet::SetCurrentXSId(7);
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {10, 20, 30}, "out.afxs"));
  EXPECT_EQ(entry(7), sets);
  EXPECT_EQ(UnifyProbe::currentDataSets(), sets);
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(10u, 20u, 30u));
  EXPECT_THAT(readOutput("out.afxs").value(),
              ElementsAre(arc(0, 10), arc(0, 20), arc(0, 30), arc(1, 10), arc(1, 20), arc(1, 30)));
  EXPECT_TRUE(
      capture().logged(L"LuAfxsUserDataSet::UnifyMultipleDataSets()- NumberOfDataSets = 3,"));
}

TEST_F(UnificationDriversTest, UnifyTakesHeaderOfFirstDataSet) {
  auto sets = threeScans();
  ASSERT_TRUE(sets[0]->load(0));  // the client has read the file
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  const LuAfxsHeader expected = scanHeader(2);
  const LuAfxsHeader& header = UnifyProbe::xsHeader();
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(header.point[i], expected.point[i]);
    EXPECT_EQ(header.normal[i], expected.normal[i]);
  }
  EXPECT_EQ(header.numPlanes, 2u);
  EXPECT_EQ(header.distBwPlanes, expected.distBwPlanes);
}

TEST_F(UnificationDriversTest, HeaderIsTakenBeforeTheDataSetsAreLoaded) {
  auto sets = threeScans();
  UnifyProbe::xsHeader().distBwPlanes = 42.0;
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  // The first data set's link had not read its header yet.
  EXPECT_EQ(UnifyProbe::xsHeader().distBwPlanes, 0.0);
  EXPECT_EQ(UnifyProbe::xsHeader().point[0], 0.0);
  EXPECT_EQ(UnifyProbe::xsHeader().numPlanes, 0u);
}

TEST_F(UnificationDriversTest, UnifyWithExistingEntryReplacesItWholesale) {
  LuAfxsUserDataSet::SetCurrentXSId(3);
  auto sets = threeScans();
  EXPECT_FALSE(unify({sets[0], sets[1]}, {1, 2}, "first.afxs"));
  EXPECT_FALSE(unify({sets[2]}, {3}, "second.afxs"));
  EXPECT_EQ(entry(3), std::vector<LuAfxsUserDataSet*>{sets[2]});
  EXPECT_NE(UnifyProbe::registry()[3].data(), UnifyProbe::currentDataSets().data());
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(3u));
  EXPECT_THAT(readOutput("second.afxs").value(), ElementsAre(arc(0, 3), arc(1, 3)));
  EXPECT_THAT(m_destroyed, IsEmpty());  // replaced entries are not deleted
}

TEST_F(UnificationDriversTest, UnifyKeepsEntriesOfOtherIds) {
  auto sets = threeScans();
  LuAfxsUserDataSet::SetCurrentXSId(1);
  EXPECT_FALSE(unify({sets[0]}, {1}, "one.afxs"));
  LuAfxsUserDataSet::SetCurrentXSId(2);
  EXPECT_FALSE(unify({sets[1]}, {2}, "two.afxs"));
  EXPECT_EQ(entry(1), std::vector<LuAfxsUserDataSet*>{sets[0]});
  EXPECT_EQ(entry(2), std::vector<LuAfxsUserDataSet*>{sets[1]});
}

TEST_F(UnificationDriversTest, UnifyWithFailingLoadWritesOutputWithoutPlanes) {
  writeScan("a.afxs", 1, {0});
  EXPECT_FALSE(unify({dataSet("a.afxs"), dataSet("missing.afxs")}, {1, 2}, "out.afxs"));
  EXPECT_EQ(capture().messages(5), std::vector<std::wstring>{L"AddDataSets2Unify: loading Failed"});
  EXPECT_THAT(readOutput("out.afxs").value(), IsEmpty());
}

TEST_F(UnificationDriversTest, UnifyWithEmptyListWritesOutputWithoutPlanesAndKeepsHeader) {
  writeScan("a.afxs", 1, {0});
  LuAfxsUserDataSet* first = dataSet("a.afxs");
  ASSERT_TRUE(first->load(0));
  EXPECT_FALSE(unify({first}, {1}, "first.afxs"));
  LuAfxsUserDataSet::SetCurrentXSId(4);
  EXPECT_FALSE(unify({}, {}, "out.afxs"));
  EXPECT_TRUE(hasEntry(4));
  EXPECT_THAT(entry(4), IsEmpty());
  EXPECT_EQ(UnifyProbe::xsHeader().point[0], scanHeader(1).point[0]);
  EXPECT_TRUE(loggedPrefix(5, L"LuAfxsUserDataSet::UnifyMultipleDataSets()- No DataSets"));
  EXPECT_THAT(readOutput("out.afxs").value(), IsEmpty());
}

TEST_F(UnificationDriversTest, UnifyWithFewerOutputIdsKeepsSubsetIdsOfTheRest) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {10}, "out.afxs"));
  EXPECT_TRUE(
      loggedPrefix(5, L"LuAfxsUserDataSet::PrepareVectorOfPlaneVecs()- NumberOfOutputIds = 1"));
  // The data set with an id fills positions 0 and 1 (its plane numbers); the
  // others follow their placeholders at positions 2 and 3.
  EXPECT_THAT(readOutput("out.afxs").value(),
              ElementsAre(arc(0, 10), arc(0, 2), arc(0, 3), arc(1, 10), arc(1, 2), arc(1, 3)));
}

TEST_F(UnificationDriversTest, OutOfRangePlaneNumberEndsUnifyWithoutOutputFile) {
  writeScan("a.afxs", 1, {0, 5});
  bool result = true;
  EXPECT_NO_THROW(result = unify({dataSet("a.afxs")}, {1}, "out.afxs"));
  EXPECT_FALSE(result);
  EXPECT_TRUE(capture().logged(
      L"LuAfxsUserDataSet::FillDataSetPlanesVector() Current iPlane > NumberOfPlanes, "
      L"iPlane = 5, NumberOfPlanes = 2 "));
  const auto failures = capture().messages(5);
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_THAT(failures[0],
              ::testing::StartsWith(L"LuAfxsUserDataSet::UnifyMultipleDataSets()- Exception: "));
  EXPECT_GT(failures[0].size(),
            std::wstring(L"LuAfxsUserDataSet::UnifyMultipleDataSets()- Exception: ").size());
  EXPECT_FALSE(exists("out.afxs"));
  EXPECT_TRUE(hasEntry(0));  // the registry was updated before the exception
}

TEST_F(UnificationDriversTest, EmptyGroupWithBlendingOnKeepsPlanesWrittenBeforeIt) {
  // Records of planes 0, 0 and 2: three slots, and no data set holds plane 1.
  ASSERT_TRUE(writeScanFile(
      wpath("a.afxs"), {makeArcPlane(0, 1, {}), makeArcPlane(0, 2, {}), makeArcPlane(2, 1, {})},
      scanHeader(3)));
  LuAfxsUserDataSet::SupportXSectionBlending(true);
  bool result = true;
  EXPECT_NO_THROW(result = unify({dataSet("a.afxs")}, {4}, "out.afxs"));
  EXPECT_FALSE(result);
  EXPECT_EQ(countLogged(5, L"LuAfxsUserDataSet::UnifyMultipleDataSets()- Exception: "), 1u);
  EXPECT_THAT(readOutput("out.afxs").value(), ElementsAre(arc(0, 4)));
}

// ---- AddDataSets2Unify ---------------------------------------------------

TEST_F(UnificationDriversTest, AddBeforeAnyUnifyReturnsFalseAndWritesNothing) {
  LuAfxsUserDataSet::SetCurrentXSId(9);
  writeScan("a.afxs", 1, {0});
  EXPECT_FALSE(add({dataSet("a.afxs")}, {1}, "out.afxs"));
  EXPECT_FALSE(exists("out.afxs"));
  EXPECT_FALSE(hasEntry(9));
  EXPECT_THAT(UnifyProbe::outputIds(), IsEmpty());
  EXPECT_TRUE(capture().logged(L"LuAfxsUserDataSet::AddDataSets2Unify()- NumberOfDataSets = 1,"));
}

TEST_F(UnificationDriversTest, AddAppendsDataSetsAndIdsAndRewritesWholeOutput) {
  auto sets = threeScans();
  EXPECT_FALSE(unify({sets[0], sets[1]}, {10, 20}, "out.afxs"));
  EXPECT_FALSE(add({sets[2]}, {30}, "out.afxs"));
  EXPECT_EQ(entry(0), sets);
  EXPECT_EQ(UnifyProbe::currentDataSets(), sets);
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(10u, 20u, 30u));
  EXPECT_THAT(readOutput("out.afxs").value(),
              ElementsAre(arc(0, 10), arc(0, 20), arc(0, 30), arc(1, 10), arc(1, 20), arc(1, 30)));
}

TEST_F(UnificationDriversTest, AddWithEmptyListRewritesOutputFromRegisteredDataSets) {
  auto sets = threeScans();
  EXPECT_FALSE(unify({sets[0], sets[1]}, {10, 20}, "first.afxs"));
  EXPECT_FALSE(add({}, {}, "again.afxs"));
  EXPECT_THAT(readOutput("again.afxs").value(),
              ElementsAre(arc(0, 10), arc(0, 20), arc(1, 10), arc(1, 20)));
  EXPECT_TRUE(capture().logged(L"LuAfxsUserDataSet::AddDataSets2Unify()- NumberOfDataSets = 0,"));
}

TEST_F(UnificationDriversTest, AddDoesNotTouchTheCrossSectionHeader) {
  auto sets = threeScans();
  EXPECT_FALSE(unify({sets[0]}, {1}, "out.afxs"));
  UnifyProbe::xsHeader().distBwPlanes = 42.0;
  EXPECT_FALSE(add({sets[1]}, {2}, "out.afxs"));
  EXPECT_EQ(UnifyProbe::xsHeader().distBwPlanes, 42.0);
}

TEST_F(UnificationDriversTest, AddWithInvalidUserLinkDeletesItsFileAndChangesNothing) {
  auto sets = threeScans();
  EXPECT_FALSE(unify({sets[0]}, {1}, "out.afxs"));
  writeBadFile("bad.afxs");
  LuAfxsUserLink bad(wpath("bad.afxs").c_str());
  EXPECT_FALSE(add({sets[1]}, {2}, "added.afxs", LU_AFXS_MASK_ALL, &bad));
  EXPECT_FALSE(exists("bad.afxs"));
  EXPECT_FALSE(exists("added.afxs"));
  EXPECT_EQ(entry(0), std::vector<LuAfxsUserDataSet*>{sets[0]});
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(1u));
}

TEST_F(UnificationDriversTest, AddEndedByOutOfRangePlaneNumberIsLoggedUnderItsName) {
  writeScan("a.afxs", 1, {0});
  writeScan("far.afxs", 2, {0, 9});
  EXPECT_FALSE(unify({dataSet("a.afxs")}, {1}, "out.afxs"));
  bool result = true;
  EXPECT_NO_THROW(result = add({dataSet("far.afxs")}, {2}, "added.afxs"));
  EXPECT_FALSE(result);
  EXPECT_EQ(countLogged(5, L"LuAfxsUserDataSet::AddDataSets2Unify()- Exception: "), 1u);
  EXPECT_FALSE(exists("added.afxs"));
}

// ---- RemoveDataSetsFromUnify ---------------------------------------------

TEST_F(UnificationDriversTest, RemoveMatchingNothingRewritesOutputAndSortsOutputIds) {
  auto sets = threeScans();
  EXPECT_FALSE(unify({sets[0], sets[1]}, {20, 10}, "out.afxs"));
  std::vector<uint32_t> ids{99};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  EXPECT_EQ(remaining, 2u);
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(10u, 20u));
  EXPECT_THAT(m_destroyed, IsEmpty());
  // The ids are paired by position again, now sorted: a's planes become 10.
  EXPECT_THAT(readOutput("after.afxs").value(),
              ElementsAre(arc(0, 10), arc(0, 20), arc(1, 10), arc(1, 20)));
  EXPECT_TRUE(capture().logged(
      L"LuAfxsUserDataSet::RemoveDataSetsFromUnify()- NumberOfDataSets to Remove  = 1,"));
}

TEST_F(UnificationDriversTest, TwoConsecutiveMatchingDataSetsAreBothRemoved) {
  LuAfxsUserDataSet::SetCurrentXSId(5);
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  std::vector<uint32_t> ids{1, 2};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  EXPECT_EQ(remaining, 1u);
  EXPECT_THAT(m_destroyed, ElementsAre("a.afxs", "b.afxs"));  // through the virtual destructor
  EXPECT_EQ(entry(5), std::vector<LuAfxsUserDataSet*>{sets[2]});
  EXPECT_EQ(UnifyProbe::currentDataSets(), std::vector<LuAfxsUserDataSet*>{sets[2]});
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(3u));
  EXPECT_THAT(readOutput("after.afxs").value(), ElementsAre(arc(0, 3), arc(1, 3)));
}

TEST_F(UnificationDriversTest, RemoveLeavesCallersListSortedAscending) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  std::vector<uint32_t> ids{5, 3, 4};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  EXPECT_THAT(ids, ElementsAre(3u, 4u, 5u));
  EXPECT_EQ(remaining, 2u);
  EXPECT_THAT(m_destroyed, ElementsAre("c.afxs"));
  EXPECT_THAT(readOutput("after.afxs").value(),
              ElementsAre(arc(0, 1), arc(0, 2), arc(1, 1), arc(1, 2)));
}

TEST_F(UnificationDriversTest, RemoveCancelsOneOccurrenceOfAnOutputIdPerRemovedId) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {1, 1, 2}, "out.afxs"));
  std::vector<uint32_t> ids{1};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  // Both data sets relabelled 1 go; of the ids only one 1 goes, and c is now
  // paired with the remaining 1.
  EXPECT_EQ(remaining, 1u);
  EXPECT_THAT(m_destroyed, ElementsAre("a.afxs", "b.afxs"));
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(1u, 2u));
  EXPECT_THAT(readOutput("after.afxs").value(), ElementsAre(arc(0, 1), arc(1, 1)));
}

TEST_F(UnificationDriversTest, RemoveMatchesKeptSubsetIdsWithPlaceholderIds) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {kKeep, kKeep, kKeep}, "out.afxs"));
  std::vector<uint32_t> ids{2};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  EXPECT_EQ(remaining, 2u);
  EXPECT_THAT(m_destroyed, ElementsAre("b.afxs"));
  EXPECT_THAT(UnifyProbe::outputIds(), ElementsAre(kKeep, kKeep, kKeep));
  EXPECT_THAT(readOutput("after.afxs").value(),
              ElementsAre(arc(0, 1), arc(0, 3), arc(1, 1), arc(1, 3)));
}

TEST_F(UnificationDriversTest, RemoveWithoutEntryReturnsFalseAndChangesNothing) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  LuAfxsUserDataSet::SetCurrentXSId(8);
  std::vector<uint32_t> ids{3, 1};
  uint32_t remaining = 77;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  EXPECT_EQ(remaining, 77u);
  EXPECT_THAT(ids, ElementsAre(3u, 1u));
  EXPECT_FALSE(exists("after.afxs"));
  EXPECT_EQ(entry(0), sets);
  EXPECT_THAT(m_destroyed, IsEmpty());
}

TEST_F(UnificationDriversTest, RemoveWithInvalidUserLinkDeletesItsFileAndChangesNothing) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  writeBadFile("bad.afxs");
  LuAfxsUserLink bad(wpath("bad.afxs").c_str());
  std::vector<uint32_t> ids{1};
  uint32_t remaining = 77;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs", LU_AFXS_MASK_ALL, &bad));
  EXPECT_FALSE(exists("bad.afxs"));
  EXPECT_FALSE(exists("after.afxs"));
  EXPECT_EQ(remaining, 77u);
  EXPECT_EQ(entry(0), sets);
  EXPECT_THAT(m_destroyed, IsEmpty());
}

TEST_F(UnificationDriversTest, RemoveEndedByOutOfRangePlaneNumberIsLoggedUnderItsName) {
  writeScan("far.afxs", 2, {0, 9});
  writeScan("a.afxs", 1, {0, 1});
  // far keeps its subset ids at first; sorting the ids pairs it with 1.
  EXPECT_FALSE(unify({dataSet("far.afxs"), dataSet("a.afxs")}, {kKeep, 1}, "out.afxs"));
  EXPECT_THAT(capture().messages(5), IsEmpty());
  std::vector<uint32_t> ids{99};
  uint32_t remaining = 0;
  bool result = true;
  EXPECT_NO_THROW(result = removeIds(ids, remaining, "after.afxs"));
  EXPECT_FALSE(result);
  EXPECT_EQ(remaining, 2u);
  EXPECT_EQ(countLogged(5, L"LuAfxsUserDataSet::RemoveDataSetsFromUnify()- Exception: "), 1u);
  EXPECT_FALSE(exists("after.afxs"));
}

TEST_F(UnificationDriversTest, RemovingEveryDataSetLeavesOutputWithoutPlanes) {
  auto sets = threeScans();
  EXPECT_FALSE(unify(sets, {1, 2, 3}, "out.afxs"));
  std::vector<uint32_t> ids{3, 2, 1};
  uint32_t remaining = 77;
  EXPECT_FALSE(removeIds(ids, remaining, "after.afxs"));
  EXPECT_EQ(remaining, 0u);
  EXPECT_THAT(m_destroyed, UnorderedElementsAre("a.afxs", "b.afxs", "c.afxs"));
  EXPECT_TRUE(hasEntry(0));
  EXPECT_THAT(entry(0), IsEmpty());
  EXPECT_THAT(UnifyProbe::outputIds(), IsEmpty());
  EXPECT_THAT(readOutput("after.afxs").value(), IsEmpty());
}

}  // namespace
}  // namespace lutest
