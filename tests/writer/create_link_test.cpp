// The create link: creating a file and its header, the life of the file
// between records, the plane links, copies and destruction.
#include <luAnaf/luAnaf.h>

#include <cstdio>
#include <string>
#include <vector>

#include "support/writer_support.h"

namespace lutest {
namespace {

class CreateLinkTest : public WriterTest {};

const std::string kSampleHeaderText =
    "Lumoravel_XS_COP\n"
    "VER 2\n"
    "FIRST_RECORD 0x00000000\n"
    "POINT 1.500000 -2.250000 3.000000\n"
    "NORMAL 0.000000 0.000000 1.000000\n"
    "NUM_PLANES 4\n"
    "DIST_BW_PLANES 0.500000\n"
    "STATE 0x00000000\n"
    "HEADER_END\n";

TEST_F(CreateLinkTest, NewLinkIsNotOkWithFullStateAndNoFile) {
  ProbeLink link(target().c_str());
  EXPECT_FALSE(link.isOK());
  EXPECT_EQ(link.getState(), 0xFFFFFFFFu);
  EXPECT_TRUE(link.deleteOnDestroy());
  EXPECT_EQ(link.file(), nullptr);
  EXPECT_EQ(link.getHeader().version, 0);
  EXPECT_EQ(link.getHeader().numPlanes, 0u);
  EXPECT_EQ(link.getHeader().distBwPlanes, 0.0);
  EXPECT_TRUE(link.getCameras().cameras.empty());
}

TEST_F(CreateLinkTest, PathIsTakenAsGiven) {
  LuAfxsCreateLink link(target().c_str());
  EXPECT_EQ(link.filePath(), target());
}

TEST_F(CreateLinkTest, NullOrEmptyPathGivesEmptyPath) {
  LuAfxsCreateLink nullPath(static_cast<const wchar_t*>(nullptr));
  LuAfxsCreateLink emptyPath(L"");
  EXPECT_EQ(nullPath.filePath(), L"");
  EXPECT_EQ(emptyPath.filePath(), L"");
}

TEST_F(CreateLinkTest, SeriesConstructorFormsTheCrossSectionFileName) {
  LuAfxsCreateLink link(wpath("scan").c_str(), 7);
  EXPECT_EQ(link.filePath(), wpath("scan_XS7.afxs"));
}

TEST_F(CreateLinkTest, SeriesConstructorPassesTheNumberAs32Bits) {
  LuAfxsCreateLink link(wpath("scan").c_str(), (uint64_t{1} << 32) + 7);
  EXPECT_EQ(link.filePath(), wpath("scan_XS7.afxs"));
}

TEST_F(CreateLinkTest, OverlongSeriesNameIsCutTo1023Characters) {
  std::wstring name(3000, L'a');
  LuAfxsCreateLink link(name.c_str(), 12);
  EXPECT_EQ(link.filePath(), std::wstring(1023, L'a'));
}

TEST_F(CreateLinkTest, SeriesNameThatJustFitsIsKeptWhole) {
  std::wstring name(1023 - 10, L'b');  // + "_XS7.afxs" = 1022 characters
  LuAfxsCreateLink link(name.c_str(), 7);
  EXPECT_EQ(link.filePath(), name + L"_XS7.afxs");
}

TEST_F(CreateLinkTest, NonAsciiPathIsCreated) {
  std::wstring file = m_dir.wstring() + L"/Gr\u00f6\u00dfe_\u65e5\u672c.afxs";
  fs::path onDisk = m_dir / fs::path(u8"Gr\u00f6\u00dfe_\u65e5\u672c.afxs");
  {
    LuAfxsCreateLink link(file.c_str());
    link.setHeader(sampleHeader());
    ASSERT_TRUE(link.create(false));
    link.release();
  }
  EXPECT_TRUE(fs::exists(onDisk));
  EXPECT_TRUE(reports().empty());
}

TEST_F(CreateLinkTest, VeryLongPathFailsToOpenWithoutHarm) {
  std::wstring file = m_dir.wstring() + L"/" + std::wstring(5000, L'x') + L".afxs";
  LuAfxsCreateLink link(file.c_str());
  EXPECT_FALSE(link.create(false));
  expectOneReport(0xc41b0003, 136, file);
}

TEST_F(CreateLinkTest, CreateWritesTheNineHeaderLines) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  EXPECT_TRUE(link->isOK());
  EXPECT_EQ(readText(path("out.afxs")), kSampleHeaderText);
  EXPECT_TRUE(reports().empty());
}

TEST_F(CreateLinkTest, CreateRemembersFirstRecordAndStateLineStarts) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  EXPECT_EQ(link->patchOffset(), kSampleHeaderText.find("FIRST_RECORD"));
  EXPECT_EQ(link->stateLineOffset(), kSampleHeaderText.find("STATE"));
}

TEST_F(CreateLinkTest, SetHeaderCopiesAllFiveFields) {
  LuAfxsCreateLink link(target().c_str());
  link.setHeader(sampleHeader());
  const LuAfxsHeader& h = link.getHeader();
  EXPECT_EQ(h.version, 2);
  EXPECT_EQ(h.point[1], -2.25);
  EXPECT_EQ(h.normal[2], 1.0);
  EXPECT_EQ(h.numPlanes, 4u);
  EXPECT_EQ(h.distBwPlanes, 0.5);
}

TEST_F(CreateLinkTest, NumPlanesIsWrittenAsItsLow32BitsSigned) {
  auto link = makeLink();
  LuAfxsHeader h = sampleHeader();
  h.numPlanes = 0x180000005ull;  // low 32 bits 0x80000005
  link->setHeader(h);
  ASSERT_TRUE(link->create(false));
  EXPECT_NE(readText(path("out.afxs")).find("\nNUM_PLANES -2147483643\n"), std::string::npos);
}

TEST_F(CreateLinkTest, HeaderLineOverEightyBytesIsCutAtEightyBytes) {
  auto link = makeLink();
  LuAfxsHeader h = sampleHeader();
  h.point[0] = 1e300;
  link->setHeader(h);
  ASSERT_TRUE(link->create(false));
  std::string full = LuStrFrmt::format("POINT %f %f %f\n", h.point[0], h.point[1], h.point[2]);
  ASSERT_GT(full.size(), 80u);
  std::string text = readText(path("out.afxs"));
  size_t at = text.find("POINT ");
  ASSERT_NE(at, std::string::npos);
  // The cut line has no line feed: NORMAL follows its 80th byte directly.
  EXPECT_EQ(text.substr(at, 80), full.substr(0, 80));
  EXPECT_EQ(text.substr(at + 80, 7), "NORMAL ");
  EXPECT_TRUE(reports().empty());
}

TEST_F(CreateLinkTest, CreateOverWritableFileReplacesIt) {
  writeBytes(path("out.afxs"), std::vector<uint8_t>(5000, 0xAB));
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  EXPECT_EQ(readText(path("out.afxs")), kSampleHeaderText);
}

TEST_F(CreateLinkTest, CreateOverReadOnlyFileFailsAndLeavesItUntouched) {
  std::vector<uint8_t> old(300, 0x5A);
  writeBytes(path("out.afxs"), old);
  setReadOnly(path("out.afxs"), true);
  {
    auto link = makeLink();
    EXPECT_FALSE(link->create(false));
    EXPECT_FALSE(link->isOK());
    expectOneReport(0xc41b0001, 120, target());
  }
  ASSERT_TRUE(exists());
  EXPECT_EQ(bytes(), old);
}

TEST_F(CreateLinkTest, CreateWithoutKeepOpenClosesTheFileAfterTheHeader) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  EXPECT_EQ(link->file(), nullptr);
}

TEST_F(CreateLinkTest, EachRecordReopensAndEachFlushClosesAgain) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  for (uint32_t plane = 0; plane < 3; ++plane) {
    luIoResetCounts();
    ASSERT_TRUE(flushPlane(*link, plane, 1));
    EXPECT_EQ(luIoCallCount(LuIoOp::Open), 1u);
    EXPECT_EQ(link->file(), nullptr);
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.records.size(), 6u);  // reopening kept what was written
}

TEST_F(CreateLinkTest, KeepOpenKeepsTheFileOpenBetweenRecords) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  FILE* f = link->file();
  ASSERT_NE(f, nullptr);
  luIoResetCounts();
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  ASSERT_TRUE(flushPlane(*link, 1, 1));
  EXPECT_EQ(luIoCallCount(LuIoOp::Open), 0u);
  EXPECT_EQ(link->file(), f);
  link->closeFile(true);
  EXPECT_EQ(link->file(), nullptr);
}

TEST_F(CreateLinkTest, CloseFileWithoutCloseKeepsAKeptFileOpen) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  link->closeFile(false);
  EXPECT_NE(link->file(), nullptr);
}

TEST_F(CreateLinkTest, DestroyingWithoutReleaseDeletesACompleteFile) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.kinds(), (std::vector<uint32_t>{1, 2}));
  EXPECT_TRUE(link->isOK());
  link.reset();
  EXPECT_FALSE(exists());
  EXPECT_TRUE(reports().empty());
}

TEST_F(CreateLinkTest, ReleasedLinkLeavesItsFile) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  link->release();
  EXPECT_FALSE(link->deleteOnDestroy());
  link.reset();
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.state, 3u);
}

// Intended: a link that never created its file still removes what is at its
// path when destroyed (its ok flag is false).
TEST_F(CreateLinkTest, DestroyingAnUncreatedLinkDeletesAFileAtItsPath) {
  writeBytes(path("out.afxs"), {1, 2, 3});
  { LuAfxsCreateLink link(target().c_str()); }
  EXPECT_FALSE(exists());
}

TEST_F(CreateLinkTest, SetStateAloneNeverReachesTheFile) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  link->setState(0x15);
  EXPECT_EQ(link->getState(), 0x15u);
  EXPECT_FALSE(link->stateDirty());
  link->closeFile(true);
  link->release();
  link.reset();
  EXPECT_EQ(decode().state, 0u);
}

TEST_F(CreateLinkTest, StateSetBeforeAFlushIsAndedWithTheRecordMask) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  link->setState(0x1);
  ASSERT_TRUE(flushPlane(*link, 0, 1));  // mask 3
  EXPECT_EQ(link->getState(), 1u);
  EXPECT_EQ(decode().state, 1u);
}

TEST_F(CreateLinkTest, UpdateStateAndsAndMarksDirty) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  link->updateState(0x2B);
  EXPECT_EQ(link->getState(), 0x2Bu);
  EXPECT_TRUE(link->stateDirty());
  link->updateState(0x0F);
  EXPECT_EQ(link->getState(), 0x0Bu);
  link->closeFile(true);
  EXPECT_FALSE(link->stateDirty());
  EXPECT_EQ(decode().state, 0x0Bu);
}

TEST_F(CreateLinkTest, PlaneSeenBeforeGetsNoSecondPlaneRecord) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 4, 1));
  ASSERT_TRUE(flushPlane(*link, 5, 1));
  ASSERT_TRUE(flushPlane(*link, 4, 2));
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.kinds(), (std::vector<uint32_t>{1, 2, 1, 2, 2}));
  auto subsets = file.subsetsOf(4);
  ASSERT_EQ(subsets.size(), 2u);
  EXPECT_EQ(subsets[0]->subsetId, 1u);
  EXPECT_EQ(subsets[1]->subsetId, 2u);
  EXPECT_EQ(subsets[0]->nextSubset, file.records[4].offset);
  EXPECT_EQ(subsets[1]->nextSubset, 0u);
}

// Intended: the plane links survive a second create. A plane seen in the
// first file gets no plane record in the second, and the stale offset of its
// link is overwritten there with the new subset record's offset (here past
// the end of the new record's head, which leaves a gap before its fields).
TEST_F(CreateLinkTest, SecondCreateKeepsTheOldPlaneLinks) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  const uint32_t stale = link->planeLinks().at(0);
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 2));
  std::vector<uint8_t> b = bytes();
  const uint32_t first = static_cast<uint32_t>(kSampleHeaderText.size());
  EXPECT_EQ(decode().firstRecord, first);
  EXPECT_EQ(u32At(b, first), uint32_t{LU_AFXS_REC_PLANE_SUBSET});  // no plane record
  EXPECT_EQ(u32At(b, first + 8), 2u);
  EXPECT_EQ(u32At(b, stale), first);
  EXPECT_GT(stale, first + 16);
  EXPECT_EQ(u32At(b, stale + 4), 0u);  // the points block follows the stale link
  EXPECT_EQ(u32At(b, stale + 8), 72u);
  EXPECT_EQ(link->planeLinks().at(0), first + 12);
}

// Links are patched in place while the stream appends. Records of a few
// bytes and of more than a megabyte take turns, so that some links still lie
// in what the stream holds back and others long since in the file; kept open
// or reopened per record, every link, the FIRST_RECORD and STATE lines and
// every record's points come out right.
class LargeRecordsTest : public WriterTest, public ::testing::WithParamInterface<bool> {};

TEST_P(LargeRecordsTest, EveryLinkIsRightWhetherOrNotTheStreamStillHoldsIt) {
  const bool keepOpen = GetParam();
  const size_t big = 70000;  // 1.68 MB of points
  struct Flush {
    uint32_t plane, subset;
    size_t n;
  };
  const std::vector<Flush> flushes{{0, 1, big}, {0, 2, 3},   {1, 1, 3}, {0, 3, big},
                                   {2, 1, big}, {1, 2, big}, {2, 2, 3}, {1, 3, 3}};
  auto link = makeLink();
  ASSERT_TRUE(link->create(keepOpen));
  for (const Flush& f : flushes) ASSERT_TRUE(flushPlane(*link, f.plane, f.subset, f.n));
  link->closeFile(true);
  link->release();
  link.reset();

  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.state, uint32_t{LU_AFXS_MASK_POINTS | LU_AFXS_MASK_SEGMENTS});
  EXPECT_EQ(file.kinds(), (std::vector<uint32_t>{1, 2, 2, 1, 2, 2, 1, 2, 2, 2, 2}));
  for (uint32_t plane = 0; plane < 3; ++plane) {
    SCOPED_TRACE("plane " + std::to_string(plane));
    std::vector<const Flush*> expected;
    for (const Flush& f : flushes)
      if (f.plane == plane) expected.push_back(&f);
    auto subsets = file.subsetsOf(plane);
    ASSERT_EQ(subsets.size(), expected.size());
    for (size_t i = 0; i < subsets.size(); ++i) {
      EXPECT_EQ(subsets[i]->subsetId, expected[i]->subset);
      const auto* points = subsets[i]->field(0);
      ASSERT_NE(points, nullptr);
      EXPECT_EQ(afxstest::asPoints(*points),
                pointsOf(expected[i]->n, plane * 100.0 + expected[i]->subset));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Writer, LargeRecordsTest, ::testing::Bool(), [](const auto& info) {
  return std::string(info.param ? "KeptOpen" : "ReopenedPerRecord");
});

TEST_F(CreateLinkTest, AKeptFileStaysAtItsEndAfterEachFlush) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  for (uint32_t subset = 1; subset <= 3; ++subset) {
    ASSERT_TRUE(flushPlane(*link, 0, subset, 1000 * subset));
    ASSERT_NE(link->file(), nullptr);
    ASSERT_EQ(std::fflush(link->file()), 0);
    EXPECT_EQ(static_cast<uint64_t>(std::ftell(link->file())), sizeOf());
  }
}

TEST_F(CreateLinkTest, CopySharesTheOpenFile) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  {
    ProbeLink copy(*link);
    EXPECT_EQ(copy.file(), link->file());
    EXPECT_TRUE(copy.isOK());
    EXPECT_EQ(copy.filePath(), link->filePath());
    // Only one of the two may close the shared stream.
    copy.forgetFile();
    copy.release();
  }
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  link->release();
}

TEST_F(CreateLinkTest, CopyAssignmentCopiesPlaneLinks) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 9, 1));
  ProbeLink copy(target("other.afxs").c_str());
  copy = *link;
  EXPECT_EQ(copy.planeLinks(), link->planeLinks());
  EXPECT_EQ(copy.recordCount(), 2u);
  copy.release();
  link->release();
}

TEST_F(CreateLinkTest, SetCamerasCopiesTheTable) {
  LuAfxsCreateLink link(target().c_str());
  LuAfxsCamerasTable table;
  table.cameras = {{1, 2, 3}, {4, 5, 6}};
  link.setCameras(table);
  table.cameras.clear();
  ASSERT_EQ(link.getCameras().cameras.size(), 2u);
  EXPECT_EQ(link.getCameras().cameras[1].y, 5.0);
}

TEST_F(CreateLinkTest, EmptyCamerasTableGivesFalseWithoutReport) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  EXPECT_FALSE(link->createCamerasRecord());
  EXPECT_TRUE(link->isOK());
  EXPECT_TRUE(reports().empty());
}

TEST_F(CreateLinkTest, CamerasRecordCanBeAppendedAgain) {
  auto link = makeLink("out.afxs", {{1, 2, 3}});
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  ASSERT_TRUE(link->createCamerasRecord());
  link->closeFile(true);
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.kinds(), (std::vector<uint32_t>{0, 1, 2, 0}));
}

TEST_F(CreateLinkTest, RecordsOnALinkThatIsNotOkAreRefusedSilently) {
  auto link = makeLink();
  EXPECT_EQ(link->createNewRecord(LU_AFXS_REC_PLANE), nullptr);
  EXPECT_EQ(link->createPlaneSubsetRecord(0, 1), nullptr);
  EXPECT_TRUE(reports().empty());
}

}  // namespace
}  // namespace lutest
