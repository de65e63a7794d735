// The data set as a container: loading every record in chain order, the
// queries the unification code uses, and removing field groups.
#include <algorithm>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class UserDataSetTest : public ReaderTest {
protected:
  // Planes 2 and 1 (written in that order) with the given subsets each, all
  // written by the writer with `mask`.
  std::wstring writeFile(uint32_t mask, const std::vector<uint32_t>& subsets = {1, 2},
                         const std::string& name = "set.afxs") {
    std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
    uint32_t seed = 1;
    for (uint32_t plane : {2u, 1u})
      for (uint32_t subset : subsets)
        planes.push_back({randomPlane(plane, subset, 4, seed++), mask});
    m_planes = planes;
    LuAfxsHeader h;
    h.version = 5;
    h.point[0] = 1.25;
    h.normal[2] = 1;
    h.numPlanes = 2;
    h.distBwPlanes = 0.75;
    EXPECT_TRUE(writeWithWriter(wpath(name), h, {{1, 2, 3}}, planes));
    return wpath(name);
  }
  std::vector<std::pair<uint32_t, uint32_t>> ids(const LuAfxsUserDataSet& set) {
    std::vector<std::pair<uint32_t, uint32_t>> out;
    for (const LuAfxsUserData* d : set)
      out.push_back({d->getPlaneData().planeId, d->getPlaneData().subsetId});
    return out;
  }
  std::vector<std::pair<LuAfxsPlane, uint32_t>> m_planes;
};

using Ids = std::vector<std::pair<uint32_t, uint32_t>>;

TEST_F(UserDataSetTest, LoadWalksPlanesInAscendingOrderAndSubsetsInChainOrder) {
  LuAfxsUserLink link(writeFile(3, {3, 1}).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(3));
  EXPECT_TRUE(set.loaded());
  EXPECT_EQ(ids(set), (Ids{{1, 3}, {1, 1}, {2, 3}, {2, 1}}));
  for (const LuAfxsUserData* d : set) EXPECT_EQ(d->state(), 3u);
}

TEST_F(UserDataSetTest, SuccessfulLoadKeepsFileOpenUntilClosefile) {
  ProbeUserLink link(writeFile(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  EXPECT_NE(link.file(), nullptr);
  set.closefile();
  EXPECT_EQ(link.file(), nullptr);
}

TEST_F(UserDataSetTest, LoadOnMissingFileReturnsFalse) {
  LuAfxsUserLink link(wpath("missing.afxs").c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.load(63));
  EXPECT_TRUE(set.empty());
  EXPECT_FALSE(fs::exists(path("missing.afxs")));
}

TEST_F(UserDataSetTest, LoadOfFileWithoutRecordsDeletesIt) {
  {
    LuAfxsCreateLink writer(wpath("empty.afxs").c_str());
    ASSERT_TRUE(writer.create(false));
    writer.release();
  }
  ASSERT_TRUE(fs::exists(path("empty.afxs")));
  LuAfxsUserLink link(wpath("empty.afxs").c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.load(63));
  EXPECT_FALSE(fs::exists(path("empty.afxs")));
}

TEST_F(UserDataSetTest, LoadOfFileWithBadHeaderDeletesIt) {
  writeBytes(path("bad.afxs"), {'n', 'o', 't', ' ', 'a', 'f', 'x', 's', '\n'});
  LuAfxsUserLink link(wpath("bad.afxs").c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.load(63));
  EXPECT_FALSE(fs::exists(path("bad.afxs")));
  expectOnlyReport(0xc41b0007, 283, wpath("bad.afxs"));
}

TEST_F(UserDataSetTest, SubsetChainLeadingToOtherKindFailsAndLeavesSetEmpty) {
  AfxsFileBuilder b;
  uint32_t p1 = b.addPlane(1);
  b.addSubset(p1, 1, {pointsBlock(0, {{1, 1, 1}})});
  uint32_t p2 = b.addPlane(2);
  uint32_t s = b.addSubset(p2, 1, {pointsBlock(0, {{1, 1, 1}})});
  b.patchU32(s + 12, p1);  // next subset of plane 2 is a plane record
  ProbeUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.load(1));
  EXPECT_TRUE(set.empty());
  EXPECT_EQ(link.file(), nullptr);
  EXPECT_TRUE(fs::exists(path("built.afxs")));  // only a failed verify deletes
}

TEST_F(UserDataSetTest, LoopingSubsetChainFailsLoad) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  uint32_t s1 = b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
  uint32_t s2 = b.addSubset(p, 2, {pointsBlock(0, {{1, 1, 1}})});
  b.patchU32(s2 + 12, s1);
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.load(1));
  EXPECT_TRUE(set.empty());
}

TEST_F(UserDataSetTest, FailingRecordMakesLoadFailAndLeavesSetEmpty) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
  b.addSubset(p, 2, {pointsBlock(0, {{1, 1, 1}})}, 0, true, 7);
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.load(1));
  EXPECT_TRUE(set.empty());
}

TEST_F(UserDataSetTest, EmptyPlaneIndexLoadsAsEmptySet) {
  AfxsFileBuilder b;
  b.addCameras({{1, 2, 3}});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  EXPECT_TRUE(set.load(63));
  EXPECT_TRUE(set.empty());
  EXPECT_TRUE(set.loaded());
}

TEST_F(UserDataSetTest, PlaneWithoutSubsetsAddsNothing) {
  AfxsFileBuilder b;
  b.addPlane(4);
  uint32_t p = b.addPlane(5);
  b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  EXPECT_EQ(ids(set), (Ids{{5, 1}}));
}

TEST_F(UserDataSetTest, DuplicatePlaneRecordLoadsOnlyTheFirstChain) {
  AfxsFileBuilder b;
  uint32_t first = b.addPlane(5);
  b.addSubset(first, 1, {pointsBlock(0, {{1, 1, 1}})});
  uint32_t second = b.addPlane(5);
  b.addSubset(second, 2, {pointsBlock(0, {{2, 2, 2}})});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  EXPECT_EQ(ids(set), (Ids{{5, 1}}));
}

TEST_F(UserDataSetTest, SecondLoadAddsNormalsWithoutWalkingTheFile) {
  LuAfxsUserLink link(writeFile(1 | 4).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  set.closefile();
  // Break the first plane's subset chain: a new walk would fail.
  std::vector<uint8_t> bytes = readBytes(path("set.afxs"));
  auto before = fs::last_write_time(path("set.afxs"));
  for (size_t at = 0; at + 4 <= bytes.size(); ++at) {
    // Every plane record: kind 1 followed by the end mark 24 bytes later.
    if (u32At(bytes, at) == 1 && u32At(bytes, at + 16) == 0xFFFFFFFF && u32At(bytes, at + 20) == 1)
      putU32At(bytes, at + 12, 3);
  }
  writeBytes(path("set.afxs"), bytes);
  fs::last_write_time(path("set.afxs"), before);
  ASSERT_TRUE(set.load(4));
  EXPECT_EQ(set.size(), 4u);
  for (const LuAfxsUserData* d : set) {
    EXPECT_EQ(d->state(), 5u);
    EXPECT_EQ(d->getPlaneData().normals.size(), 4u);
  }
  set.closefile();
}

TEST_F(UserDataSetTest, FailingReloadClearsTheSet) {
  LuAfxsUserLink link(writeFile(1 | 4).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  set.closefile();
  fs::remove(path("set.afxs"));
  EXPECT_FALSE(set.load(4));  // the normals' open fails
  EXPECT_TRUE(set.empty());
  ASSERT_FALSE(reports().empty());
  expectReport(reports()[0], 0xc41b0008, 454, link.fileName());
}

TEST_F(UserDataSetTest, FindReturnsFirstMatchOrEnd) {
  LuAfxsUserLink link(writeFile(1, {1, 2}).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  auto it = set.find(2, 2);
  ASSERT_NE(it, set.end());
  EXPECT_EQ((*it)->getPlaneData().planeId, 2u);
  EXPECT_EQ((*it)->getPlaneData().subsetId, 2u);
  EXPECT_EQ(set.find(7, 2), set.end());
  EXPECT_EQ(set.find(1, 3), set.end());
}

TEST_F(UserDataSetTest, SubsetIdsAreAppendedOnceInOrderOfFirstAppearance) {
  AfxsFileBuilder b;
  uint32_t p1 = b.addPlane(1);
  b.addSubset(p1, 3, {pointsBlock(0, {{1, 1, 1}})});
  b.addSubset(p1, 1, {pointsBlock(0, {{1, 1, 1}})});
  uint32_t p2 = b.addPlane(2);
  b.addSubset(p2, 3, {pointsBlock(0, {{1, 1, 1}})});
  b.addSubset(p2, 2, {pointsBlock(0, {{1, 1, 1}})});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  std::vector<unsigned int> out;
  EXPECT_EQ(set.getSubsetsIds(out), 3u);
  EXPECT_EQ(out, (std::vector<unsigned int>{3, 1, 2}));
  std::vector<unsigned int> withEarlier = {2, 9};
  EXPECT_EQ(set.getSubsetsIds(withEarlier), 4u);
  EXPECT_EQ(withEarlier, (std::vector<unsigned int>{2, 9, 3, 1}));
}

TEST_F(UserDataSetTest, CurrentSubsetPlanesLoadsAndAppendsMatchingPlanes) {
  LuAfxsUserLink link(writeFile(1 | 4, {1, 2}).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  std::vector<const LuAfxsPlane*> planes = {nullptr};
  EXPECT_EQ(set.getCurrentSubsetsPlanes(&planes, 2, 4), 3u);
  ASSERT_EQ(planes.size(), 3u);
  EXPECT_EQ(planes[1]->planeId, 1u);
  EXPECT_EQ(planes[1]->subsetId, 2u);
  EXPECT_EQ(planes[2]->planeId, 2u);
  EXPECT_EQ(planes[1]->normals.size(), 4u);
  // Entries of other subsets were loaded too.
  EXPECT_EQ((*set.find(1, 1))->state(), 5u);
}

TEST_F(UserDataSetTest, HeaderIsACopyOfTheLinksHeaderFields) {
  LuAfxsUserLink link(writeFile(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  LuAfxsHeader h = set.getHeader();
  EXPECT_EQ(h.version, 0);  // the link never keeps VER
  EXPECT_EQ(h.point[0], 1.25);
  EXPECT_EQ(h.normal[2], 1.0);
  EXPECT_EQ(h.numPlanes, 2u);
  EXPECT_EQ(h.distBwPlanes, 0.75);
}

TEST_F(UserDataSetTest, ClearDeletesEntriesAndClosesUnlessKeptOpen) {
  ProbeUserLink link(writeFile(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  set.clear(true);
  EXPECT_TRUE(set.empty());
  EXPECT_NE(link.file(), nullptr);
  set.clear(false);
  EXPECT_EQ(link.file(), nullptr);
}

// A data object that counts the heap deletes it goes through.
class CountedUserData : public ProbeUserData {
public:
  using ProbeUserData::ProbeUserData;
  static void operator delete(void* object) {
    ++deletes;
    ::operator delete(object);
  }
  static inline int deletes = 0;
};

TEST_F(UserDataSetTest, ClearDeletesAnEntryPushedFromElsewhereAndDestroysTheLoadedOnes) {
  ProbeUserLink link(writeFile(1).c_str());
  CountedUserData::deletes = 0;
  {
    ProbeDataSet set(link);
    ASSERT_TRUE(set.load(1));
    set.push_back(new CountedUserData(link, 0, 7, 7));
    EXPECT_EQ(set.size(), 5u);
    EXPECT_NE(set.find(7, 7), set.end());
    set.clear(false);
    EXPECT_EQ(CountedUserData::deletes, 1);
    // A load after a clear makes its objects anew.
    ASSERT_TRUE(set.load(1));
    EXPECT_EQ(ids(set), (Ids{{1, 1}, {1, 2}, {2, 1}, {2, 2}}));
    set.push_back(new CountedUserData(link, 0, 8, 8));
  }
  EXPECT_EQ(CountedUserData::deletes, 2);
}

TEST_F(UserDataSetTest, ManyRecordsLoadInChainOrderAndIndexOnly) {
  // More records than fit the first block of the set's storage.
  std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
  uint32_t seed = 1;
  for (uint32_t plane = 0; plane < 150; ++plane)
    for (uint32_t subset : {2u, 1u}) planes.push_back({randomPlane(plane, subset, 2, seed++), 1});
  LuAfxsHeader h;
  h.numPlanes = 150;
  ASSERT_TRUE(writeWithWriter(wpath("many.afxs"), h, {}, planes));
  LuAfxsUserLink link(wpath("many.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(0));
  ASSERT_EQ(set.size(), 300u);
  Ids expected;
  for (const auto& entry : planes) expected.push_back({entry.first.planeId, entry.first.subsetId});
  EXPECT_EQ(ids(set), expected);
  for (const LuAfxsUserData* d : set) {
    EXPECT_EQ(d->state(), 0u);
    EXPECT_EQ(d->fileState(), 1u);
    EXPECT_TRUE(d->getPlaneData().points.empty());
  }
  ASSERT_TRUE(set.load(1));
  auto it = set.find(149, 1);
  ASSERT_NE(it, set.end());
  EXPECT_EQ((*it)->getPlaneData().points.size(), 2u);
  EXPECT_EQ((*it)->getPlaneData().points[1].x, planes.back().first.points[1].x);
}

TEST_F(UserDataSetTest, RemoveOfAbsentGroupLeavesFileAsItWas) {
  writeFile(1 | 2 | 16);
  std::vector<uint8_t> before = readBytes(path("set.afxs"));
  LuAfxsUserLink link(wpath("set.afxs").c_str());
  ProbeDataSet set(link);
  EXPECT_TRUE(set.remove(32));
  set.closefile();
  EXPECT_EQ(readBytes(path("set.afxs")), before);
  EXPECT_FALSE(fs::exists(path("set.afxs.tmp")));
}

TEST_F(UserDataSetTest, RemoveOfDistancesRewritesFileWithoutResultPoints) {
  writeFile(1 | 2 | 16 | 32);
  LuAfxsUserLink link(wpath("set.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.remove(32));
  set.clear(false);
  EXPECT_FALSE(fs::exists(path("set.afxs.tmp")));
  LuAfxsUserLink again(wpath("set.afxs").c_str());
  ProbeDataSet reread(again);
  ASSERT_TRUE(reread.load(63));
  ASSERT_EQ(reread.size(), 4u);
  for (const LuAfxsUserData* d : reread) {
    EXPECT_EQ(d->fileState(), 3u);
    const auto& want = std::find_if(m_planes.begin(), m_planes.end(), [&](const auto& p) {
                         return p.first.planeId == d->getPlaneData().planeId &&
                                p.first.subsetId == d->getPlaneData().subsetId;
                       })->first;
    EXPECT_EQ(d->getPlaneData().points.size(), want.points.size());
    EXPECT_EQ(d->getPlaneData().points[3].x, want.points[3].x);
    EXPECT_EQ(d->getPlaneData().segments, want.segments);
  }
  EXPECT_EQ(again.getCameras().cameras.size(), 1u);
}

TEST_F(UserDataSetTest, RemoveWritesVersionZero) {
  writeFile(1 | 4);
  ASSERT_NE(readText(path("set.afxs")).find("VER 5\n"), std::string::npos);
  LuAfxsUserLink link(wpath("set.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.remove(4));
  set.clear(false);
  std::string text = readText(path("set.afxs"));
  EXPECT_NE(text.find("VER 0\n"), std::string::npos);
  EXPECT_NE(text.find("NUM_PLANES 2\n"), std::string::npos);
  EXPECT_NE(text.find("DIST_BW_PLANES 0.750000\n"), std::string::npos);
}

TEST_F(UserDataSetTest, RemoveKeepsListDescribingTheOldFile) {
  writeFile(1 | 4);
  LuAfxsUserLink link(wpath("set.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.remove(4));
  EXPECT_EQ(set.size(), 4u);
  EXPECT_EQ((*set.begin())->fileState(), 5u);
}

TEST_F(UserDataSetTest, RemoveFailingDuringCopyLeavesOriginalByteForByte) {
  writeFile(1 | 2 | 4 | 8);
  std::vector<uint8_t> before = readBytes(path("set.afxs"));
  LuAfxsUserLink link(wpath("set.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(63));
  // The header and cameras record are written; a later write of a copied
  // record fails.
  luIoFaultArmSticky(LuIoOp::Write, 30);
  EXPECT_FALSE(set.remove(4));
  EXPECT_TRUE(luIoFaultFired());
  luIoFaultDisarm();
  set.clear(false);
  EXPECT_EQ(readBytes(path("set.afxs")), before);
}

TEST_F(UserDataSetTest, RemoveFailingToCreateTemporaryFileLeavesOriginal) {
  writeFile(1 | 4);
  std::vector<uint8_t> before = readBytes(path("set.afxs"));
  writeBytes(path("set.afxs.tmp"), {1, 2, 3});
  setReadOnly(path("set.afxs.tmp"), true);
  LuAfxsUserLink link(wpath("set.afxs").c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.remove(4));
  set.clear(false);
  EXPECT_EQ(readBytes(path("set.afxs")), before);
  setReadOnly(path("set.afxs.tmp"), false);
}

TEST_F(UserDataSetTest, RemoveOnMissingFileFails) {
  LuAfxsUserLink link(wpath("missing.afxs").c_str());
  ProbeDataSet set(link);
  EXPECT_FALSE(set.remove(4));
}

TEST_F(UserDataSetTest, ShallowCopySharesEntries) {
  LuAfxsUserLink link(writeFile(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  ProbeDataSet copy(set);
  EXPECT_EQ(copy.size(), 4u);
  EXPECT_EQ(*copy.begin(), *set.begin());
  EXPECT_EQ(copy.link(), &link);
  set.forgetEntries();  // only one of the two may delete them
}

}  // namespace
}  // namespace lutest
