// The user data: lazy field loading, the field directory, results written
// back as a results record, and copying into a writer.
#include <sys/stat.h>
#include <chrono>
#include <cstring>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class UserDataTest : public ReaderTest {
protected:
  // One record of plane 3, subset 1, written by the writer with `mask`.
  std::wstring writeOne(uint32_t mask, const std::string& name = "one.afxs") {
    LuAfxsPlane p = randomPlane(3, 1, 6, 42);
    m_plane = p;
    EXPECT_TRUE(writeWithWriter(wpath(name), LuAfxsHeader(), {}, {{p, mask}}));
    return wpath(name);
  }
  // A built file with one plane-subset record of plane 1 subset 1 holding blocks.
  std::wstring buildOne(const std::vector<FieldBlock>& blocks, uint32_t endKind = 2) {
    AfxsFileBuilder b;
    uint32_t p = b.addPlane(1);
    m_record = b.addSubset(p, 1, blocks, 0, true, endKind);
    m_builder = b;
    return writeBuilt(b);
  }
  LuAfxsUserData& first(LuAfxsUserDataSet& set) { return **set.begin(); }

  LuAfxsPlane m_plane;
  AfxsFileBuilder m_builder;
  uint32_t m_record = 0;
};

const std::vector<LuVec3> kTwoPoints = {{1, 2, 3}, {4, 5, 6}};

TEST_F(UserDataTest, LoadOfPointsReadsPointsOnlyAndKnowsTheFileHolds7) {
  LuAfxsUserLink link(writeOne(1 | 2 | 4).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  LuAfxsUserData& d = first(set);
  EXPECT_EQ(d.state(), 1u);
  EXPECT_EQ(d.fileState(), 7u);
  EXPECT_EQ(d.getPlaneData().points.size(), m_plane.points.size());
  EXPECT_TRUE(d.getPlaneData().normals.empty());
  EXPECT_TRUE(d.getPlaneData().segments.empty());
}

TEST_F(UserDataTest, SecondLoadReadsNormalsWithoutWalkingTheRecordAgain) {
  std::wstring file = writeOne(1 | 2 | 4);
  LuAfxsUserLink link(file.c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  // Break the record's end mark: a new walk would fail, a directory read does not.
  std::vector<uint8_t> bytes = readBytes(path("one.afxs"));
  putU32At(bytes, bytes.size() - 4, 9);
  auto before = fs::last_write_time(path("one.afxs"));
  writeBytes(path("one.afxs"), bytes);
  fs::last_write_time(path("one.afxs"), before);
  LuAfxsUserData& d = first(set);
  ASSERT_TRUE(d.load(4));
  EXPECT_EQ(d.state(), 5u);
  ASSERT_EQ(d.getPlaneData().normals.size(), m_plane.normals.size());
  EXPECT_EQ(d.getPlaneData().normals[5].y, m_plane.normals[5].y);
  set.closefile();
}

TEST_F(UserDataTest, LoadOfZeroReadsOnlyDirectoryResultsLinkAndFileState) {
  LuAfxsUserLink link(writeOne(63).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(0));
  LuAfxsUserData& d = first(set);
  EXPECT_EQ(d.state(), 0u);
  EXPECT_EQ(d.fileState(), 63u);
  EXPECT_TRUE(d.getPlaneData().points.empty());
  // 0, 1, 2, 7, 8, 9, 3, 6, 5 and the results link 4.
  EXPECT_EQ(ProbeUserData::fieldDirectoryOf(d).size(), 10u);
  EXPECT_EQ(ProbeUserData::resultsOffsetOf(d), 0u);
}

TEST_F(UserDataTest, ReleaseFreesTheFieldsAndALaterLoadReadsThemAgain) {
  LuAfxsUserLink link(writeOne(1 | 2 | 4).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1 | 4));
  LuAfxsUserData& d = first(set);
  d.release();
  EXPECT_EQ(d.state(), 0u);
  EXPECT_EQ(d.fileState(), 7u);
  EXPECT_EQ(d.getPlaneData().points.capacity(), 0u);
  EXPECT_EQ(d.getPlaneData().normals.capacity(), 0u);
  ASSERT_TRUE(d.load(1 | 4));
  EXPECT_EQ(d.state(), 5u);
  ASSERT_EQ(d.getPlaneData().points.size(), m_plane.points.size());
  EXPECT_EQ(d.getPlaneData().points[3].z, m_plane.points[3].z);
  ASSERT_EQ(d.getPlaneData().normals.size(), m_plane.normals.size());
  EXPECT_EQ(d.getPlaneData().normals[5].y, m_plane.normals[5].y);
  EXPECT_EQ(d.getPlaneData().planeId, 3u);
  EXPECT_EQ(d.getPlaneData().subsetId, 1u);
  set.closefile();
}

TEST_F(UserDataTest, EmptySegmentsBlockFailsEvenALoadOfPoints) {
  std::wstring file = buildOne({pointsBlock(0, kTwoPoints), i32Block(2, {})});
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  EXPECT_FALSE(data.load(1));
  EXPECT_EQ(data.state(), 0u);
  EXPECT_EQ(data.fileState(), 0u);
  link.remove();
}

TEST_F(UserDataTest, EmptyRequestedBlockFailsLoad) {
  std::wstring file = buildOne({pointsBlock(0, {})});
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  EXPECT_FALSE(data.load(1));
}

TEST_F(UserDataTest, EndMarkKindOtherThanPlaneSubsetFailsLoad) {
  std::wstring file = buildOne({pointsBlock(0, kTwoPoints)}, 3);
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  EXPECT_FALSE(data.load(1));
  EXPECT_FALSE(data.recordLoaded());
  // Fields loaded before the failure stay.
  EXPECT_EQ(data.getPlaneData().points.size(), 2u);
}

TEST_F(UserDataTest, AuxFirstIsSteppedOverAndNeverLoaded) {
  LuAfxsUserLink link(writeOne(1 | 8).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(63));
  LuAfxsUserData& d = first(set);
  EXPECT_EQ(d.state(), 9u);
  EXPECT_TRUE(d.getPlaneData().auxCtrlFirst.empty());
  EXPECT_EQ(d.getPlaneData().auxCtrlPos, m_plane.auxCtrlPos);
  EXPECT_EQ(d.getPlaneData().auxCtrlCounts, m_plane.auxCtrlCounts);
  EXPECT_EQ(d.getPlaneData().auxCtrlOffsets, m_plane.auxCtrlOffsets);
}

TEST_F(UserDataTest, UnknownIdentifierIsSteppedOverAsMaskZero) {
  std::wstring file = buildOne({u32Block(12, {7, 7}), pointsBlock(0, kTwoPoints)});
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  ASSERT_TRUE(data.load(63));
  EXPECT_EQ(data.fileState(), 1u);
  EXPECT_EQ(data.fieldDirectory().count(12), 1u);
}

TEST_F(UserDataTest, SkippedBlockWithZeroCountFailsLoad) {
  std::wstring file = buildOne({pointsBlock(0, kTwoPoints), doublesBlock(6, {})});
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  EXPECT_FALSE(data.load(1));
}

TEST_F(UserDataTest, CountThatIsNotWholeElementsFailsLoad) {
  FieldBlock odd = pointsBlock(0, kTwoPoints);
  odd.data.resize(40);
  std::wstring file = buildOne({odd});
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  EXPECT_FALSE(data.load(1));
}

TEST_F(UserDataTest, ResultsLinkWithCountOtherThanFourFailsLoad) {
  FieldBlock link8 = u32Block(4, {0, 0});
  std::wstring file = buildOne({pointsBlock(0, kTwoPoints), link8});
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(m_record), 1, 1);
  EXPECT_FALSE(data.load(0));
}

TEST_F(UserDataTest, ResultsRecordFieldsAreLoadedThroughTheResultsLink) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  uint32_t s = b.addSubset(p, 1, {pointsBlock(0, kTwoPoints)});
  uint32_t r = b.addResults({pointsBlock(5, {{7, 7, 7}, {8, 8, 8}}), doublesBlock(6, {0.5, 1.5})});
  b.patchU32(b.resultsLinkDataOf(s), r + 8);
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(s), 1, 1);
  ASSERT_TRUE(data.load(63));
  EXPECT_EQ(data.state(), 1u | 16u | 32u);
  EXPECT_EQ(data.fileState(), 1u | 16u | 32u);
  EXPECT_EQ(data.resultsOffset(), r + 8);
  EXPECT_EQ(data.getPlaneData().resPoints[1].x, 8);
  EXPECT_EQ(data.getPlaneData().distances[1], 1.5);
}

TEST_F(UserDataTest, ResultsRecordWithWrongEndKindFailsLoad) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  uint32_t s = b.addSubset(p, 1, {pointsBlock(0, kTwoPoints)});
  uint32_t r = b.addResults({doublesBlock(6, {0.5, 1.5})}, 2);
  b.patchU32(b.resultsLinkDataOf(s), r + 8);
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserData data(link, AfxsFileBuilder::firstField(s), 1, 1);
  EXPECT_FALSE(data.load(1));
}

TEST_F(UserDataTest, SetDistancesWithZeroCountChangesNothing) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  LuAfxsUserData& d = first(set);
  double values[3] = {1, 2, 3};
  d.setDistances(values, 0);
  EXPECT_EQ(d.state(), 1u);
  EXPECT_TRUE(d.getPlaneData().distances.empty());
}

TEST_F(UserDataTest, SetDistancesAddsBit32) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  LuAfxsUserData& d = first(set);
  double values[3] = {1, 2, 3};
  d.setDistances(values, 3);
  EXPECT_EQ(d.state(), 33u);
  EXPECT_EQ(d.fileState(), 1u);
  EXPECT_EQ(d.getPlaneData().distances, (std::vector<double>{1, 2, 3}));
}

TEST_F(UserDataTest, ValuesSetAreNeverOverwrittenByLoad) {
  LuAfxsUserLink link(writeOne(1 | 32).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  LuAfxsUserData& d = first(set);
  double values[2] = {-1, -2};
  d.setDistances(values, 2);
  ASSERT_TRUE(d.load(32));
  EXPECT_EQ(d.getPlaneData().distances, (std::vector<double>{-1, -2}));
}

TEST_F(UserDataTest, FlushAppendsResultsRecordAndPatchesTheResultsLink) {
  std::wstring file = writeOne(1 | 2);
  size_t oldSize = fs::file_size(path("one.afxs"));
  LuAfxsUserLink link(file.c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(3));
  LuAfxsUserData& d = first(set);
  uint32_t linkCount = ProbeUserData::fieldDirectoryOf(d).at(4);
  double res[2][3] = {{1, 2, 3}, {4, 5, 6}};
  double dist[2] = {0.25, 0.75};
  d.setResPoints(res, 2);
  d.setDistances(dist, 2);
  ASSERT_TRUE(d.flush());
  set.closefile();
  std::vector<uint8_t> bytes = readBytes(path("one.afxs"));
  uint32_t rec = static_cast<uint32_t>(oldSize);
  EXPECT_EQ(u32At(bytes, rec), 3u);
  EXPECT_EQ(u32At(bytes, rec + 8), 5u);
  EXPECT_EQ(u32At(bytes, rec + 12), 48u);
  EXPECT_EQ(u32At(bytes, rec + 16 + 48), 6u);
  EXPECT_EQ(u32At(bytes, rec + 16 + 48 + 4), 16u);
  EXPECT_EQ(u32At(bytes, bytes.size() - 8), 0xFFFFFFFFu);
  EXPECT_EQ(u32At(bytes, bytes.size() - 4), 3u);
  EXPECT_EQ(bytes.size(), rec + 8 + 8 + 48 + 8 + 16 + 8u);
  EXPECT_EQ(u32At(bytes, linkCount), 4u);
  EXPECT_EQ(u32At(bytes, linkCount + 4), rec + 8);
  EXPECT_EQ(ProbeUserData::resultsOffsetOf(d), rec + 8);
}

TEST_F(UserDataTest, NewDataObjectLoadsFlushedResults) {
  std::wstring file = writeOne(1 | 2);
  {
    LuAfxsUserLink link(file.c_str());
    ProbeDataSet set(link);
    ASSERT_TRUE(set.load(3));
    double res[1][3] = {{9, 8, 7}};
    double dist[1] = {0.125};
    first(set).setResPoints(res, 1);
    first(set).setDistances(dist, 1);
    ASSERT_TRUE(first(set).flush());
  }
  LuAfxsUserLink link(file.c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(63));
  LuAfxsUserData& d = first(set);
  EXPECT_EQ(d.state(), 1u | 2u | 16u | 32u);
  EXPECT_EQ(d.fileState(), 1u | 2u | 16u | 32u);
  ASSERT_EQ(d.getPlaneData().resPoints.size(), 1u);
  EXPECT_EQ(d.getPlaneData().resPoints[0].z, 7);
  EXPECT_EQ(d.getPlaneData().distances, (std::vector<double>{0.125}));
}

TEST_F(UserDataTest, FlushOnRecordThatHasResultsWritesNothing) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  uint32_t s = b.addSubset(p, 1, {pointsBlock(0, kTwoPoints)});
  uint32_t r = b.addResults({doublesBlock(6, {0.5, 1.5})});
  b.patchU32(b.resultsLinkDataOf(s), r + 8);
  std::wstring file = writeBuilt(b);
  LuAfxsUserLink link(file.c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  double dist[2] = {1, 1};
  first(set).setDistances(dist, 2);
  EXPECT_FALSE(first(set).flush());
  set.closefile();
  EXPECT_EQ(readBytes(path("built.afxs")), b.bytes());
}

TEST_F(UserDataTest, SecondFlushAfterSuccessReturnsFalse) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  double dist[1] = {1};
  first(set).setDistances(dist, 1);
  ASSERT_TRUE(first(set).flush());
  size_t size = fs::file_size(path("one.afxs"));
  EXPECT_FALSE(first(set).flush());
  set.closefile();
  EXPECT_EQ(fs::file_size(path("one.afxs")), size);
}

TEST_F(UserDataTest, FlushWithNothingAttachedReturnsFalse) {
  LuAfxsUserLink link(writeOne(1 | 16).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  EXPECT_FALSE(first(set).flush());
}

TEST_F(UserDataTest, FlushRecordsTheNewModificationTimeOnClose) {
  std::wstring file = writeOne(1);
  auto old = fs::file_time_type::clock::now() - std::chrono::seconds(100);
  fs::last_write_time(path("one.afxs"), old);
  ProbeUserLink link(file.c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  double dist[1] = {1};
  first(set).setDistances(dist, 1);
  ASSERT_TRUE(first(set).flush());
  EXPECT_TRUE(link.fileModified());
  set.closefile();
  EXPECT_FALSE(link.fileModified());
  struct stat st;
  ASSERT_EQ(::stat(path("one.afxs").string().c_str(), &st), 0);
  EXPECT_EQ(link.fileTime(), static_cast<int64_t>(st.st_mtime));
  EXPECT_NE(link.fileTime(), std::chrono::duration_cast<std::chrono::seconds>(
                                 std::chrono::system_clock::now().time_since_epoch())
                                     .count() -
                                 100);
}

TEST_F(UserDataTest, FailedFlushWriteReportsNewRecordError) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  double dist[1] = {1};
  first(set).setDistances(dist, 1);
  luIoFaultArm(LuIoOp::Write, 1);
  EXPECT_FALSE(first(set).flush());
  luIoFaultDisarm();
  expectOnlyReport(0xc41b0014, 493, link.fileName());
}

// A results record of 5000 points goes out in one gathered write; each of its
// writes failed in turn fails the flush, and the file still loads with
// exactly its old contents.
TEST_F(UserDataTest, EachFailedWriteOfALargeResultsFlushKeepsTheFile) {
  const LuAfxsPlane plane = randomPlane(3, 1, 5000, 7);
  const std::wstring file = wpath("big.afxs");
  auto attachAndFlush = [&](uint64_t failingWrite) {
    LuAfxsUserLink link(file.c_str());
    ProbeDataSet set(link);
    EXPECT_TRUE(set.load(1));
    first(set).setResPoints(reinterpret_cast<const double(*)[3]>(plane.resPoints.data()),
                            plane.resPoints.size());
    first(set).setDistances(plane.distances.data(), plane.distances.size());
    luIoResetCounts();
    if (failingWrite != 0) luIoFaultArm(LuIoOp::Write, failingWrite);
    const bool flushed = first(set).flush();
    luIoFaultDisarm();
    return std::make_pair(flushed, luIoCallCount(LuIoOp::Write));
  };
  ASSERT_TRUE(writeWithWriter(file, LuAfxsHeader(), {}, {{plane, 1 | 2}}));
  const auto [cleanOk, writes] = attachAndFlush(0);
  ASSERT_TRUE(cleanOk);
  ASSERT_GT(writes, 5u);
  for (uint64_t n = 1; n <= writes; ++n) {
    SCOPED_TRACE("write " + std::to_string(n));
    ASSERT_TRUE(writeWithWriter(file, LuAfxsHeader(), {}, {{plane, 1 | 2}}));
    EXPECT_FALSE(attachAndFlush(n).first);
    LuAfxsUserLink link(file.c_str());
    ProbeDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    ASSERT_EQ(set.size(), 1u);
    EXPECT_EQ(first(set).fileState(), 3u);
    EXPECT_EQ(first(set).getPlaneData().points, plane.points);
    EXPECT_EQ(first(set).getPlaneData().segments, plane.segments);
  }
}

TEST_F(UserDataTest, CopyOfPointsAndResultPointsWritesPointsOnly) {
  LuAfxsUserLink link(writeOne(63).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(0));
  {
    LuAfxsCreateLink out(wpath("copy.afxs").c_str());
    ASSERT_TRUE(out.create(true));
    ASSERT_TRUE(first(set).copy(out, 1 | 16));
    out.release();
  }
  set.closefile();
  LuAfxsUserLink copyLink(wpath("copy.afxs").c_str());
  ProbeDataSet copySet(copyLink);
  ASSERT_TRUE(copySet.load(63));
  ASSERT_EQ(copySet.size(), 1u);
  LuAfxsUserData& d = first(copySet);
  EXPECT_EQ(d.fileState(), 1u);
  EXPECT_EQ(d.getPlaneData().planeId, 3u);
  EXPECT_EQ(d.getPlaneData().subsetId, 1u);
  EXPECT_EQ(d.getPlaneData().points.size(), m_plane.points.size());
  EXPECT_EQ(d.getPlaneData().points[2].y, m_plane.points[2].y);
}

TEST_F(UserDataTest, CopyNeverCopiesResultsEvenWhenAsked) {
  LuAfxsUserLink link(writeOne(1 | 16 | 32).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(63));
  {
    LuAfxsCreateLink out(wpath("copy.afxs").c_str());
    ASSERT_TRUE(out.create(true));
    ASSERT_TRUE(first(set).copy(out, 63));
    out.release();
  }
  LuAfxsUserLink copyLink(wpath("copy.afxs").c_str());
  ProbeDataSet copySet(copyLink);
  ASSERT_TRUE(copySet.load(63));
  EXPECT_EQ(first(copySet).fileState(), 1u);
}

TEST_F(UserDataTest, CopyWithNothingToWriteSucceedsAndWritesNoRecord) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  LuAfxsCreateLink out(wpath("copy.afxs").c_str());
  ASSERT_TRUE(out.create(true));
  EXPECT_TRUE(first(set).copy(out, 16 | 32));
  out.closeFile(true);
  std::string text = readText(path("copy.afxs"));
  EXPECT_NE(text.find("FIRST_RECORD 0x00000000"), std::string::npos);
}

TEST_F(UserDataTest, CopyOfAuxGroupRebuildsOffsetsAndFirstPositions) {
  LuAfxsUserLink link(writeOne(1 | 8).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(63));
  {
    LuAfxsCreateLink out(wpath("copy.afxs").c_str());
    ASSERT_TRUE(out.create(true));
    ASSERT_TRUE(first(set).copy(out, 8));
    out.release();
  }
  LuAfxsUserLink copyLink(wpath("copy.afxs").c_str());
  ProbeDataSet copySet(copyLink);
  ASSERT_TRUE(copySet.load(63));
  EXPECT_EQ(first(copySet).fileState(), 8u);
  EXPECT_EQ(first(copySet).getPlaneData().auxCtrlOffsets, m_plane.auxCtrlOffsets);
  EXPECT_EQ(first(copySet).getPlaneData().auxCtrlPos, m_plane.auxCtrlPos);
}

TEST_F(UserDataTest, CopyConstructorSharesTheLink) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  ProbeUserData copy(first(set));
  EXPECT_EQ(copy.state(), 1u);
  EXPECT_EQ(copy.getPlaneData().points.size(), m_plane.points.size());
  EXPECT_TRUE(copy.load(2));
  EXPECT_EQ(copy.state(), 1u);  // the record has no segments
}

TEST_F(UserDataTest, RecordOffsetZeroLoadsAsEmptyRecord) {
  LuAfxsUserLink link(writeOne(1).c_str());
  ASSERT_TRUE(link.verify(false));
  ProbeUserData data(link, 0, 1, 1);
  EXPECT_TRUE(data.load(63));
  EXPECT_TRUE(data.recordLoaded());
  EXPECT_EQ(data.fileState(), 0u);
}

}  // namespace
}  // namespace lutest
