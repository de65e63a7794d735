// The user link: verifying, header parsing, the record scan, streams handed
// to the data objects, appending records and the cameras table.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

std::wstring systemText(int errnum) {
  std::string text = std::strerror(errnum);
  return std::wstring(text.begin(), text.end());
}

class UserLinkTest : public ReaderTest {
protected:
  // A small valid file: cameras, plane 1 with subsets 1 and 2, plane 2 with subset 1.
  AfxsFileBuilder smallFile() {
    AfxsFileBuilder b;
    b.addCameras({{1, 2, 3}, {4, 5, 6}});
    uint32_t p1 = b.addPlane(1);
    b.addSubset(p1, 1, {pointsBlock(0, {{1, 1, 1}})});
    b.addSubset(p1, 2, {pointsBlock(0, {{2, 2, 2}})});
    uint32_t p2 = b.addPlane(2);
    b.addSubset(p2, 1, {pointsBlock(0, {{3, 3, 3}})});
    return b;
  }
  AfxsFileBuilder withHeader(const std::string& header) {
    AfxsFileBuilder b;
    b.setHeaderText(header);
    uint32_t p = b.addPlane(1);
    b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
    return b;
  }
  void setModified(const std::wstring& file, int secondsFromNow) {
    auto t = std::filesystem::file_time_type::clock::now() + std::chrono::seconds(secondsFromNow);
    std::filesystem::last_write_time(std::filesystem::path(file), t);
  }
};

const char* const kGoodHeader =
    "Lumoravel_XS_COP\nVER 3\nFIRST_RECORD 0x00000000\nPOINT 1.5 2.5 3.5\n"
    "NORMAL 0 1 0\nNUM_PLANES 7\nDIST_BW_PLANES 0.25\nSTATE 0x0000000B\nHEADER_END\n";

TEST_F(UserLinkTest, ConstructorStoresPathAndTouchesNoFile) {
  LuAfxsUserLink link(wpath("absent.afxs").c_str());
  EXPECT_EQ(link.fileName(), wpath("absent.afxs"));
  EXPECT_FALSE(link.fileExists());
  EXPECT_FALSE(fs::exists(path("absent.afxs")));
}

TEST_F(UserLinkTest, NameAndNumberFormTheCrossSectionPath) {
  LuAfxsUserLink link(L"scan", size_t{7});
  EXPECT_EQ(link.fileName(), L"scan_XS7.afxs");
}

TEST_F(UserLinkTest, VerifyReadsHeaderFields) {
  ProbeUserLink link(writeBuilt(withHeader(kGoodHeader)).c_str());
  ASSERT_TRUE(link.verify(false));
  const LuAfxsHeader& h = link.getHeader();
  EXPECT_EQ(h.point[0], 1.5);
  EXPECT_EQ(h.point[2], 3.5);
  EXPECT_EQ(h.normal[1], 1.0);
  EXPECT_EQ(h.numPlanes, 7u);
  EXPECT_EQ(h.distBwPlanes, 0.25);
  EXPECT_EQ(link.state(), 0xBu);
  EXPECT_TRUE(link.updateSupported());
  EXPECT_EQ(link.file(), nullptr);  // closed after verify(false)
  EXPECT_TRUE(reports().empty());
}

TEST_F(UserLinkTest, VersionIsNeverStoredInHeader) {
  ProbeUserLink link(writeBuilt(withHeader(kGoodHeader)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getHeader().version, 0);
}

TEST_F(UserLinkTest, NegativeNumPlanesReadsBackAsUnsigned64) {
  std::string header = kGoodHeader;
  header.replace(header.find("NUM_PLANES 7"), 12, "NUM_PLANES -1");
  ProbeUserLink link(writeBuilt(withHeader(header)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getHeader().numPlanes, 0xFFFFFFFFFFFFFFFFull);
}

TEST_F(UserLinkTest, FirstRecordZeroMakesCreateAndVerifyFail) {
  {
    LuAfxsCreateLink writer(wpath("empty.afxs").c_str());
    ASSERT_TRUE(writer.create(false));
    writer.release();
  }
  ASSERT_TRUE(fs::exists(path("empty.afxs")));
  LuAfxsUserLink link(wpath("empty.afxs").c_str());
  EXPECT_FALSE(link.verify(false));
  EXPECT_FALSE(link.create(false));
  EXPECT_FALSE(link.fileExists());
  EXPECT_TRUE(reports().empty());  // no report for a file without records
}

TEST_F(UserLinkTest, IdentifierFollowedByTextOnSameLinePasses) {
  std::string header = kGoodHeader;
  header.replace(0, 16, "Lumoravel_XS_COP trailing words here");
  LuAfxsUserLink link(writeBuilt(withHeader(header)).c_str());
  EXPECT_TRUE(link.verify(false));
}

TEST_F(UserLinkTest, IdentifierWithOneMoreLetterFailsWithReport) {
  std::string header = kGoodHeader;
  header.replace(0, 16, "Lumoravel_XS_COPX");
  std::wstring file = writeBuilt(withHeader(header));
  LuAfxsUserLink link(file.c_str());
  EXPECT_FALSE(link.verify(false));
  expectOnlyReport(0xc41b0007, 283, file);
  EXPECT_FALSE(reports()[0].hasSystemText);
}

TEST_F(UserLinkTest, UnparsableKeywordValueFailsWithReport) {
  std::string header = kGoodHeader;
  header.replace(header.find("DIST_BW_PLANES 0.25"), 19, "DIST_BW_PLANES abc");
  std::wstring file = writeBuilt(withHeader(header));
  ProbeUserLink link(file.c_str());
  EXPECT_FALSE(link.verify(false));
  expectOnlyReport(0xc41b0007, 283, file);
  EXPECT_EQ(link.getHeader().numPlanes, 7u);  // values read before the failure stay
}

TEST_F(UserLinkTest, HeaderStreamThatCannotOpenReports) {
  ProbeUserLink link(wpath("missing.afxs").c_str());
  EXPECT_FALSE(link.readHeader());
  expectOnlyReport(0xc41b0007, 283, wpath("missing.afxs"));
}

TEST_F(UserLinkTest, HeaderWithoutVerLineGivesNoUpdateSupport) {
  std::string header = kGoodHeader;
  header.erase(header.find("VER 3\n"), 6);
  LuAfxsUserLink link(writeBuilt(withHeader(header)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_FALSE(link.updateSupported());
}

TEST_F(UserLinkTest, VerMinusOneGivesNoUpdateSupport) {
  std::string header = kGoodHeader;
  header.replace(header.find("VER 3"), 5, "VER -1");
  LuAfxsUserLink link(writeBuilt(withHeader(header)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_FALSE(link.updateSupported());
}

TEST_F(UserLinkTest, VerZeroGivesUpdateSupport) {
  std::string header = kGoodHeader;
  header.replace(header.find("VER 3"), 5, "VER 0");
  LuAfxsUserLink link(writeBuilt(withHeader(header)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_TRUE(link.updateSupported());
}

TEST_F(UserLinkTest, UnknownKeywordLineIsSkipped) {
  // Were the rest of the line read, its FIRST_RECORD would point nowhere.
  std::string header = kGoodHeader;
  header.insert(header.find("POINT"), "COMMENT FIRST_RECORD 0x0000FFFF NUM_PLANES 9\n");
  ProbeUserLink link(writeBuilt(withHeader(header)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getHeader().numPlanes, 7u);
  EXPECT_EQ(link.planeIndex().size(), 1u);
}

TEST_F(UserLinkTest, KeywordsInAnyOrderAndRepeatedLastWins) {
  std::string header =
      "Lumoravel_XS_COP\nSTATE 0x00000001\nNUM_PLANES 2\nFIRST_RECORD 0x00000000\n"
      "NUM_PLANES 5\nVER 1\nHEADER_END\n";
  ProbeUserLink link(writeBuilt(withHeader(header)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getHeader().numPlanes, 5u);
  EXPECT_EQ(link.state(), 1u);
}

TEST_F(UserLinkTest, HeaderWithoutHeaderEndReadsToEndThenScans) {
  std::string header = kGoodHeader;
  header.erase(header.find("HEADER_END\n"));
  AfxsFileBuilder b = withHeader(header);
  ProbeUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.firstRecord(), static_cast<int32_t>(b.headerSize()));
  EXPECT_EQ(link.planeIndex().count(1), 1u);
}

TEST_F(UserLinkTest, VerifyTwiceWithoutChangeReadsHeaderOnce) {
  AfxsFileBuilder b = withHeader(kGoodHeader);
  std::wstring file = writeBuilt(b);
  setModified(file, -100);
  ProbeUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(false));
  // Change the header but keep the modification time.
  auto before = fs::last_write_time(path("built.afxs"));
  std::vector<uint8_t> bytes = b.bytes();
  size_t at = std::string(bytes.begin(), bytes.end()).find("NUM_PLANES 7");
  bytes[at + 11] = '8';
  writeBytes(path("built.afxs"), bytes);
  fs::last_write_time(path("built.afxs"), before);
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getHeader().numPlanes, 7u);
}

TEST_F(UserLinkTest, TouchingFileBetweenVerifiesReadsItAgain) {
  AfxsFileBuilder b = withHeader(kGoodHeader);
  std::wstring file = writeBuilt(b);
  setModified(file, -100);
  ProbeUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(false));
  std::vector<uint8_t> bytes = b.bytes();
  size_t at = std::string(bytes.begin(), bytes.end()).find("NUM_PLANES 7");
  bytes[at + 11] = '8';
  writeBytes(path("built.afxs"), bytes);
  setModified(file, -50);
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getHeader().numPlanes, 8u);
}

TEST_F(UserLinkTest, VerifyOfMissingFileFails) {
  LuAfxsUserLink link(wpath("missing.afxs").c_str());
  EXPECT_FALSE(link.verify(false));
  EXPECT_FALSE(link.fileExists());
  EXPECT_TRUE(reports().empty());
}

TEST_F(UserLinkTest, WriteBitClearGivesNotWritable) {
  std::wstring file = writeBuilt(smallFile());
  setReadOnly(path("built.afxs"), true);
  LuAfxsUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_FALSE(link.fileWritable());
  setReadOnly(path("built.afxs"), false);
}

TEST_F(UserLinkTest, WriteBitSetGivesWritable) {
  LuAfxsUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_TRUE(link.fileWritable());
}

TEST_F(UserLinkTest, ScanIndexesCamerasPlanesAndLastRecord) {
  AfxsFileBuilder b;
  uint32_t cams = b.addCameras({{1, 2, 3}});
  uint32_t p1 = b.addPlane(4);
  uint32_t s1 = b.addSubset(p1, 1, {pointsBlock(0, {{1, 1, 1}})});
  ProbeUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.recordIndex().at(0), cams + 8);
  EXPECT_EQ(link.planeIndex().at(4), p1 + 12);
  EXPECT_EQ(link.lastNextField(), s1 + 4);
  EXPECT_EQ(link.fileSize(), b.bytes().size());
}

TEST_F(UserLinkTest, GetRecordOfOtherKindsReturnsNull) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getRecord(LU_AFXS_REC_PLANE), nullptr);
  EXPECT_EQ(link.getRecord(LU_AFXS_REC_PLANE_SUBSET), nullptr);
  EXPECT_EQ(link.getRecord(LU_AFXS_REC_RESULTS), nullptr);
  EXPECT_NE(link.getRecord(LU_AFXS_REC_CAMERAS), nullptr);
  link.closeFile(true);
}

TEST_F(UserLinkTest, GetPlaneRecordStandsOnFirstSubsetField) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(9);
  uint32_t s = b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
  ProbeUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  FILE* f = link.getPlaneRecord(9);
  ASSERT_NE(f, nullptr);
  uint32_t first = 0;
  ASSERT_EQ(std::fread(&first, 4, 1, f), 1u);
  EXPECT_EQ(first, s);
  EXPECT_EQ(link.getPlaneRecord(8), nullptr);
  link.closeFile(true);
}

TEST_F(UserLinkTest, DuplicatePlaneRecordsIndexHoldsFirst) {
  AfxsFileBuilder b;
  uint32_t first = b.addPlane(5);
  b.addSubset(first, 1, {pointsBlock(0, {{1, 1, 1}})});
  uint32_t second = b.addPlane(5);
  b.addSubset(second, 2, {pointsBlock(0, {{2, 2, 2}})});
  ProbeUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.planeIndex().at(5), first + 12);
}

TEST_F(UserLinkTest, ChainThatRunsBackwardsIsFollowed) {
  AfxsFileBuilder b;
  uint32_t p1 = b.addPlane(1);
  uint32_t s1 = b.addSubset(p1, 1, {pointsBlock(0, std::vector<LuVec3>(300, {1, 2, 3}))});
  uint32_t p2 = b.addPlane(2);
  uint32_t s2 = b.addSubset(p2, 1, {pointsBlock(0, {{3, 3, 3}})});
  // Chain p2 -> s2 -> p1 -> s1: later records first, across scan windows.
  b.patchU32(s1 + 4, 0);
  b.patchU32(s2 + 4, p1);
  std::string text(b.bytes().begin(), b.bytes().begin() + b.headerSize());
  char value[16];
  std::snprintf(value, sizeof value, "0x%.8X", p2);
  size_t at = text.find("FIRST_RECORD ") + 13;
  std::copy(value, value + 10, b.bytes().begin() + static_cast<long>(at));
  ProbeUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.planeIndex().at(1), p1 + 12);
  EXPECT_EQ(link.planeIndex().at(2), p2 + 12);
  EXPECT_EQ(link.lastNextField(), s1 + 4);
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(1));
  EXPECT_EQ(set.size(), 2u);
}

TEST_F(UserLinkTest, ChainPastEndOfFileReportsScanFailure) {
  AfxsFileBuilder b = smallFile();
  b.patchU32(b.headerSize() + 4, 0x00FFFFF0);  // cameras record's next field
  std::wstring file = writeBuilt(b);
  ProbeUserLink link(file.c_str());
  EXPECT_FALSE(link.verify(false));
  EXPECT_FALSE(link.fileExists());
  EXPECT_EQ(link.file(), nullptr);
  expectOnlyReport(0xc41b0009, 336, file);
}

TEST_F(UserLinkTest, LoopingChainEndsAsScanFailure) {
  AfxsFileBuilder b = smallFile();
  uint32_t last = b.addPlane(3);
  b.patchU32(last + 4, b.headerSize());  // back to the first record
  std::wstring file = writeBuilt(b);
  LuAfxsUserLink link(file.c_str());
  EXPECT_FALSE(link.verify(false));
  expectOnlyReport(0xc41b0009, 336, file);
}

TEST_F(UserLinkTest, SelfLinkedRecordEndsAsScanFailure) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  b.patchU32(p + 4, p);
  std::wstring file = writeBuilt(b);
  LuAfxsUserLink link(file.c_str());
  EXPECT_FALSE(link.verify(false));
  expectOnlyReport(0xc41b0009, 336, file);
}

TEST_F(UserLinkTest, FailedOpenDuringScanReportsOpenAndScanErrors) {
  std::wstring file = writeBuilt(smallFile());
  LuAfxsUserLink link(file.c_str());
  luIoFaultArm(LuIoOp::Open, 1);
  EXPECT_FALSE(link.verify(false));
  luIoFaultDisarm();
  ASSERT_EQ(reports().size(), 2u);
  expectReport(reports()[0], 0xc41b0008, 454, file);
  EXPECT_TRUE(reports()[0].hasSystemText);
  EXPECT_EQ(reports()[0].systemText, systemText(EIO));
  expectReport(reports()[1], 0xc41b0009, 336, file);
  EXPECT_FALSE(reports()[1].hasSystemText);
}

TEST_F(UserLinkTest, FailedSeekInOpenFileReportsWithSystemText) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(false));
  luIoFaultArm(LuIoOp::Seek, 1);
  EXPECT_EQ(link.openFile(0, false), nullptr);
  luIoFaultDisarm();
  expectOnlyReport(0xc41b0008, 454, link.fileName());
  EXPECT_EQ(reports()[0].systemText, systemText(EIO));
  EXPECT_EQ(link.file(), nullptr);
}

TEST_F(UserLinkTest, OpenFileOnNotExistingLinkReturnsNullSilently) {
  ProbeUserLink link(wpath("missing.afxs").c_str());
  EXPECT_EQ(link.openFile(0, false), nullptr);
  EXPECT_TRUE(reports().empty());
}

TEST_F(UserLinkTest, ReadRequestReusesStreamOpenForWriting) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(true));
  link.closeFile(true);
  FILE* w = link.openFile(0, true);
  ASSERT_NE(w, nullptr);
  EXPECT_EQ(link.openFile(10, false), w);
  EXPECT_TRUE(link.openForWrite());
  link.closeFile(true);
}

TEST_F(UserLinkTest, WriteRequestReopensReadOnlyStream) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(true));
  ASSERT_NE(link.file(), nullptr);
  EXPECT_FALSE(link.openForWrite());
  ASSERT_NE(link.openFile(0, true), nullptr);
  EXPECT_TRUE(link.openForWrite());
  link.closeFile(true);
}

TEST_F(UserLinkTest, KeepOpenLeavesStreamOpenUntilForcedClose) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(true));
  EXPECT_NE(link.file(), nullptr);
  link.closeFile(false);
  EXPECT_NE(link.file(), nullptr);
  link.closeFile(true);
  EXPECT_EQ(link.file(), nullptr);
}

TEST_F(UserLinkTest, CreateNewRecordAppendsAndLinksIt) {
  AfxsFileBuilder b = smallFile();
  std::wstring file = writeBuilt(b);
  ProbeUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(false));
  uint32_t oldLast = link.lastNextField();
  FILE* f = link.createNewRecord(LU_AFXS_REC_RESULTS);
  ASSERT_NE(f, nullptr);
  link.closeFile(true);
  std::vector<uint8_t> bytes = readBytes(path("built.afxs"));
  uint32_t at = static_cast<uint32_t>(b.bytes().size());
  ASSERT_EQ(bytes.size(), at + 8u);
  EXPECT_EQ(u32At(bytes, at), 3u);
  EXPECT_EQ(u32At(bytes, at + 4), 0u);
  EXPECT_EQ(u32At(bytes, oldLast), at);
  EXPECT_EQ(link.lastNextField(), at + 4);
}

TEST_F(UserLinkTest, CreateNewRecordWithoutScanReturnsNullSilently) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  EXPECT_EQ(link.createNewRecord(LU_AFXS_REC_RESULTS), nullptr);
  EXPECT_TRUE(reports().empty());
}

TEST_F(UserLinkTest, FailedLinkWriteOfNewRecordReports) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(false));
  luIoFaultArm(LuIoOp::Write, 3);  // kind, next, then the 4-byte link
  EXPECT_EQ(link.createNewRecord(LU_AFXS_REC_RESULTS), nullptr);
  luIoFaultDisarm();
  expectOnlyReport(0xc41b0014, 493, link.fileName());
  link.closeFile(true);
}

TEST_F(UserLinkTest, FailedOpenForNewRecordReportsOpenAndRecordErrors) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(false));
  luIoFaultArm(LuIoOp::Open, 1);
  EXPECT_EQ(link.createNewRecord(LU_AFXS_REC_RESULTS), nullptr);
  luIoFaultDisarm();
  ASSERT_EQ(reports().size(), 2u);
  expectReport(reports()[0], 0xc41b0008, 454, link.fileName());
  expectReport(reports()[1], 0xc41b0014, 493, link.fileName());
}

TEST_F(UserLinkTest, CamerasAreReadFromFirstCamerasRecord) {
  AfxsFileBuilder b = smallFile();
  b.addCameras({{9, 9, 9}});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  const auto& cams = link.getCameras().cameras;
  ASSERT_EQ(cams.size(), 2u);
  EXPECT_EQ(cams[1].x, 4);
  EXPECT_EQ(cams[1].z, 6);
}

TEST_F(UserLinkTest, NoCamerasRecordGivesEmptyTable) {
  LuAfxsUserLink link(writeBuilt(withHeader(kGoodHeader)).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_TRUE(link.getCameras().cameras.empty());
}

TEST_F(UserLinkTest, CamerasSkipUnknownBlocks) {
  AfxsFileBuilder b;
  b.addCamerasBlocks({u32Block(7, {1, 2}), pointsBlock(0, {{1, 2, 3}})});
  uint32_t p = b.addPlane(1);
  b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.getCameras().cameras.size(), 1u);
}

struct DamagedCameras {
  const char* name;
  std::vector<FieldBlock> blocks;
  uint32_t endKind;
};

// Printed by name: gtest would otherwise print the raw bytes, padding
// included, which valgrind rightly calls uninitialised.
void PrintTo(const DamagedCameras& c, std::ostream* out) { *out << c.name; }

class DamagedCamerasTest : public UserLinkTest,
                           public ::testing::WithParamInterface<DamagedCameras> {};

TEST_P(DamagedCamerasTest, GiveEmptyTableWithoutReport) {
  AfxsFileBuilder b;
  b.addCamerasBlocks(GetParam().blocks, GetParam().endKind);
  uint32_t p = b.addPlane(1);
  b.addSubset(p, 1, {pointsBlock(0, {{1, 1, 1}})});
  LuAfxsUserLink link(writeBuilt(b).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_TRUE(link.getCameras().cameras.empty());
  EXPECT_TRUE(reports().empty());
}

FieldBlock cameraBytes(size_t n) {
  FieldBlock b;
  b.id = 0;
  b.data.assign(n, 0x11);
  return b;
}

INSTANTIATE_TEST_SUITE_P(
    Cameras, DamagedCamerasTest,
    ::testing::Values(DamagedCameras{"CountNotMultipleOf24", {cameraBytes(25)}, 0},
                      DamagedCameras{"CountNearTwoToThe32", {countOnlyBlock(0, 0xFFFFFFF0)}, 0},
                      DamagedCameras{"ZeroCount", {countOnlyBlock(0, 0)}, 0},
                      DamagedCameras{"SkippedBlockPastEnd", {countOnlyBlock(5, 0x7FFFFFF0)}, 0},
                      DamagedCameras{"WrongKindAfterEndMark", {cameraBytes(24)}, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(UserLinkTest, CopyConstructorCopiesPathOnly) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserLink copy(link);
  EXPECT_EQ(copy.fileName(), link.fileName());
  EXPECT_FALSE(copy.fileExists());
  EXPECT_EQ(copy.file(), nullptr);
  EXPECT_TRUE(copy.planeIndex().empty());
  link.closeFile(true);
}

TEST_F(UserLinkTest, AssignmentSharesTheOpenStream) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(true));
  ProbeUserLink other(L"elsewhere");
  other = link;
  EXPECT_EQ(other.file(), link.file());
  EXPECT_EQ(other.planeIndex(), link.planeIndex());
  EXPECT_TRUE(other.fileExists());
  link.closeFile(true);
  // The other link's stream is now stale; forget it without closing twice.
  other = ProbeUserLink(L"elsewhere");
}

TEST_F(UserLinkTest, SetFilePathChangesOnlyThePath) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(false));
  EXPECT_TRUE(link.setFilePath(wpath("other.afxs")));
  EXPECT_EQ(link.fileName(), wpath("other.afxs"));
  EXPECT_TRUE(link.fileExists());
  EXPECT_FALSE(link.planeIndex().empty());
}

TEST_F(UserLinkTest, RemoveClosesAndDeletesTheFile) {
  ProbeUserLink link(writeBuilt(smallFile()).c_str());
  ASSERT_TRUE(link.verify(true));
  link.remove();
  EXPECT_EQ(link.file(), nullptr);
  EXPECT_FALSE(fs::exists(path("built.afxs")));
}

TEST_F(UserLinkTest, ClosingWithoutOwnModificationKeepsRememberedTime) {
  std::wstring file = writeBuilt(smallFile());
  setModified(file, -100);
  ProbeUserLink link(file.c_str());
  ASSERT_TRUE(link.verify(false));
  int64_t before = link.fileTime();
  ASSERT_NE(link.createNewRecord(LU_AFXS_REC_RESULTS), nullptr);
  setModified(file, -10);
  // A new record alone does not mark the file modified: only a results flush does.
  link.closeFile(true);
  EXPECT_EQ(link.fileTime(), before);
}

}  // namespace
}  // namespace lutest
