// Every failure of the writer: the code, line, source and path of its one
// report, what becomes of isOK, and that a partial file does not survive the
// link. Faults come from the I/O seam (luIoFaultArm) or the file system;
// offsets past 4 GiB are provoked with sparse files.
#include <luAnaf/luAnaf.h>

#include <fstream>
#include <string>
#include <vector>

#include "support/quick_mode.h"
#include "support/writer_support.h"

namespace lutest {
namespace {

constexpr uint64_t k4GiB = uint64_t{1} << 32;

class WriteErrorsTest : public WriterTest {
protected:
  // The first `n` bytes of the file.
  std::vector<uint8_t> prefix(size_t n) const {
    std::ifstream in(path("out.afxs"), std::ios::binary);
    std::vector<uint8_t> out(n);
    in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(n));
    out.resize(static_cast<size_t>(in.gcount()));
    return out;
  }
  // Releases and destroys the link; a link that failed still deletes its file.
  void releaseAndDestroy(std::unique_ptr<ProbeLink>& link) {
    link->release();
    link.reset();
  }
};

// ---- Faults from the I/O seam ----------------------------------------------

enum class Phase { Create, Flush, SecondFlush };

struct FaultCase {
  const char* name;
  bool cameras;
  Phase phase;
  LuIoOp op;
  uint64_t nth;
  uint32_t code;
  int line;
};

// The case's name: gtest would otherwise print the raw bytes, padding
// included, which valgrind rightly calls uninitialised.
void PrintTo(const FaultCase& c, std::ostream* out) { *out << c.name; }

class FaultTest : public WriteErrorsTest, public ::testing::WithParamInterface<FaultCase> {};

// The first flush of a new plane with points and segments (mask 3) on a file
// kept open makes these calls, in order:
//   writes 1-3 plane record header and FIRST_RECORD line, 4-7 its body,
//   8-10 subset record header and the plane record's next field, 11-12 its
//   head, 13 the plane's subset link, 14-19 points and segments blocks,
//   20-22 results link, 23-24 end mark, 25 the STATE line;
//   tells 1 room check, 2 the link's room check, 3 and 4 record offsets.
// Links are patched in place (one positioning and one write each, the
// stream staying at the end): the FIRST_RECORD line (write 3), the plane
// record's next field (write 10), the plane's subset link (write 13) and the
// STATE line (write 25) are also seeks 1 to 4.
// A second flush of the same plane patches the previous record's next field
// (seek 1), the plane's subset link (seek 2) and the STATE line (seek 3).
// create with cameras makes writes 1-9 header lines, 10-12 the cameras
// record header, 13-17 its body; tells 1-2 in the header, 3 the room check,
// 4 the record offset.
TEST_P(FaultTest, FailureIsReportedOnceAndThePartialFileDoesNotSurvive) {
  const FaultCase& c = GetParam();
  auto link = c.cameras ? makeLink("out.afxs", {{1, 2, 3}}) : makeLink();
  if (c.phase == Phase::Create) {
    armFault(c.op, c.nth);
    EXPECT_FALSE(link->create(true));
  } else {
    ASSERT_TRUE(link->create(true));
    if (c.phase == Phase::SecondFlush) {
      ASSERT_TRUE(flushPlane(*link, 0, 1));
    }
    armFault(c.op, c.nth);
    EXPECT_FALSE(flushPlane(*link, 0, 2));
  }
  EXPECT_TRUE(luIoFaultFired());
  luIoFaultDisarm();
  expectOneReport(c.code, c.line, target());
  EXPECT_FALSE(link->isOK());
  // Later records are refused without a further report.
  EXPECT_FALSE(flushPlane(*link, 1, 1));
  EXPECT_EQ(reports().size(), 1u);
  releaseAndDestroy(link);
  EXPECT_FALSE(exists());
}

INSTANTIATE_TEST_SUITE_P(
    Writer, FaultTest,
    ::testing::Values(
        FaultCase{"OpenFails", false, Phase::Create, LuIoOp::Open, 1, 0xc41b0003, 136},
        FaultCase{"FirstHeaderLine", false, Phase::Create, LuIoOp::Write, 1, 0xc41b000a, 189},
        FaultCase{"LastHeaderLine", false, Phase::Create, LuIoOp::Write, 9, 0xc41b000a, 189},
        FaultCase{"HeaderTell", false, Phase::Create, LuIoOp::Tell, 2, 0xc41b000a, 189},
        FaultCase{"CamerasRoomTell", true, Phase::Create, LuIoOp::Tell, 3, 0xc41b0004, 233},
        FaultCase{"CamerasRecordTell", true, Phase::Create, LuIoOp::Tell, 4, 0xc41b0012, 299},
        FaultCase{"CamerasRecordHeader", true, Phase::Create, LuIoOp::Write, 10, 0xc41b0012, 299},
        FaultCase{"CamerasFirstRecordLine", true, Phase::Create, LuIoOp::Write, 12, 0xc41b0012,
                  299},
        FaultCase{"CamerasFieldIdentifier", true, Phase::Create, LuIoOp::Write, 13, 0xc41b0004,
                  233},
        FaultCase{"CamerasData", true, Phase::Create, LuIoOp::Write, 15, 0xc41b0004, 233},
        FaultCase{"CamerasEndMark", true, Phase::Create, LuIoOp::Write, 17, 0xc41b0004, 233},
        FaultCase{"SecondFlushPatchSeek", false, Phase::SecondFlush, LuIoOp::Seek, 1, 0xc41b0012,
                  299},
        FaultCase{"SecondFlushSubsetLinkSeek", false, Phase::SecondFlush, LuIoOp::Seek, 2,
                  0xc41b0005, 367},
        FaultCase{"FlushRoomTell", false, Phase::Flush, LuIoOp::Tell, 1, 0xc41b0013, 576},
        FaultCase{"PlaneRoomTell", false, Phase::Flush, LuIoOp::Tell, 2, 0xc41b0005, 367},
        FaultCase{"PlaneRecordKind", false, Phase::Flush, LuIoOp::Write, 1, 0xc41b0012, 299},
        FaultCase{"FirstRecordLine", false, Phase::Flush, LuIoOp::Write, 3, 0xc41b0012, 299},
        FaultCase{"PatchSeek", false, Phase::Flush, LuIoOp::Seek, 1, 0xc41b0012, 299},
        FaultCase{"SubsetRecordPatchSeek", false, Phase::Flush, LuIoOp::Seek, 2, 0xc41b0012, 299},
        FaultCase{"PlaneNumber", false, Phase::Flush, LuIoOp::Write, 4, 0xc41b0005, 367},
        FaultCase{"PlaneEndMark", false, Phase::Flush, LuIoOp::Write, 7, 0xc41b0005, 367},
        FaultCase{"SubsetRecordKind", false, Phase::Flush, LuIoOp::Write, 8, 0xc41b0012, 299},
        FaultCase{"PreviousNextField", false, Phase::Flush, LuIoOp::Write, 10, 0xc41b0012, 299},
        FaultCase{"SubsetNumber", false, Phase::Flush, LuIoOp::Write, 11, 0xc41b0005, 367},
        FaultCase{"SubsetLinkSeek", false, Phase::Flush, LuIoOp::Seek, 3, 0xc41b0005, 367},
        FaultCase{"SubsetLinkPatch", false, Phase::Flush, LuIoOp::Write, 13, 0xc41b0005, 367},
        FaultCase{"PointsBlock", false, Phase::Flush, LuIoOp::Write, 14, 0xc41b0013, 576},
        FaultCase{"PointsData", false, Phase::Flush, LuIoOp::Write, 16, 0xc41b0013, 576},
        FaultCase{"ResultsLink", false, Phase::Flush, LuIoOp::Write, 20, 0xc41b0013, 576},
        FaultCase{"EndMark", false, Phase::Flush, LuIoOp::Write, 24, 0xc41b0013, 576},
        FaultCase{"StateLineWrite", false, Phase::Flush, LuIoOp::Write, 25, 0xc41b0006, 406},
        FaultCase{"StateLineSeek", false, Phase::Flush, LuIoOp::Seek, 4, 0xc41b0006, 406}),
    [](const auto& info) { return std::string(info.param.name); });

// Every single failed write, seek or tell of a whole file's writing is
// reported exactly once with a writer code, and the partial file is deleted.
class FaultSweepTest : public WriteErrorsTest, public ::testing::WithParamInterface<LuIoOp> {
protected:
  void writeWholeFile(ProbeLink& link) {
    if (!link.create(false)) return;
    for (uint32_t plane = 0; plane < 2; ++plane)
      for (uint32_t subset = 1; subset <= 2; ++subset)
        if (!flushPlane(link, plane, subset, 3, LU_AFXS_MASK_ALL)) return;
    link.closeFile(true);
  }
};

TEST_P(FaultSweepTest, EachFailedCallIsReportedOnceAndTheFileIsDeleted) {
  uint64_t calls = 0;
  {
    auto link = makeLink("out.afxs", {{1, 2, 3}});
    luIoResetCounts();
    writeWholeFile(*link);
    calls = luIoCallCount(GetParam());
    ASSERT_TRUE(link->isOK());
  }
  ASSERT_GT(calls, 10u);
  const std::vector<uint32_t> writerCodes{0xc41b000a, 0xc41b0004, 0xc41b0012,
                                          0xc41b0005, 0xc41b0006, 0xc41b0013};
  for (uint64_t n = 1; n <= calls; n += stride()) {
    SCOPED_TRACE("call " + std::to_string(n));
    capture().clear();
    auto link = makeLink("out.afxs", {{1, 2, 3}});
    armFault(GetParam(), n);
    writeWholeFile(*link);
    luIoFaultDisarm();
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_NE(std::find(writerCodes.begin(), writerCodes.end(), reports()[0].code),
              writerCodes.end());
    EXPECT_EQ(reports()[0].source, L"LuAfxsCreateIface");
    EXPECT_FALSE(link->isOK());
    releaseAndDestroy(link);
    EXPECT_FALSE(exists());
  }
}

INSTANTIATE_TEST_SUITE_P(Calls, FaultSweepTest,
                         ::testing::Values(LuIoOp::Write, LuIoOp::Seek, LuIoOp::Tell),
                         [](const auto& info) {
                           return std::string(info.param == LuIoOp::Write  ? "Write"
                                              : info.param == LuIoOp::Seek ? "Seek"
                                                                           : "Tell");
                         });

// A record body of more than 64 KiB goes out in one gathered write: each of
// its writes failed in turn is reported once and the file is deleted, as
// for a small body.
TEST_F(WriteErrorsTest, EachFailedWriteOfALargeRecordIsReportedOnce) {
  uint64_t calls = 0;
  {
    auto link = makeLink();
    ASSERT_TRUE(link->create(true));
    luIoResetCounts();
    ASSERT_TRUE(flushPlane(*link, 0, 1, 5000, LU_AFXS_MASK_ALL));
    calls = luIoCallCount(LuIoOp::Write);
    releaseAndDestroy(link);
  }
  ASSERT_GT(calls, 20u);
  for (uint64_t n = 1; n <= calls; ++n) {
    SCOPED_TRACE("write " + std::to_string(n));
    capture().clear();
    auto link = makeLink();
    ASSERT_TRUE(link->create(true));
    armFault(LuIoOp::Write, n);
    EXPECT_FALSE(flushPlane(*link, 0, 1, 5000, LU_AFXS_MASK_ALL));
    luIoFaultDisarm();
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_FALSE(link->isOK());
    releaseAndDestroy(link);
    EXPECT_FALSE(exists());
  }
}

// ---- The failed reopen -------------------------------------------------------

TEST_F(WriteErrorsTest, FailedReopenIsReportedAndLeavesOkAsItWas) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  armFault(LuIoOp::Open, 1);
  EXPECT_FALSE(flushPlane(*link, 0, 1));
  luIoFaultDisarm();
  expectOneReport(0xc41b0011, 262, target());
  EXPECT_TRUE(link->isOK());
  EXPECT_EQ(link->recordCount(), 0u);
  // The next record reopens the file and goes in.
  EXPECT_TRUE(flushPlane(*link, 0, 1));
  EXPECT_EQ(reports().size(), 1u);
  releaseAndDestroy(link);
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.kinds(), (std::vector<uint32_t>{1, 2}));
}

TEST_F(WriteErrorsTest, FailedReopenOfANotOkLinkIsNotReported) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  link->isOK(false);
  armFault(LuIoOp::Open, 1);
  EXPECT_FALSE(flushPlane(*link, 0, 1));
  EXPECT_FALSE(luIoFaultFired());
  EXPECT_TRUE(reports().empty());
}

TEST_F(WriteErrorsTest, RemovedFileFailsTheReopen) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  fs::remove(path("out.afxs"));
  EXPECT_FALSE(flushPlane(*link, 0, 1));
  expectOneReport(0xc41b0011, 262, target());
  EXPECT_TRUE(link->isOK());
}

TEST_F(WriteErrorsTest, FailedCamerasReopenReturnsFalseAndLeavesOk) {
  auto link = makeLink("out.afxs", {{1, 2, 3}});
  link->setCameras(LuAfxsCamerasTable{});
  ASSERT_TRUE(link->create(false));
  LuAfxsCamerasTable table;
  table.cameras = {{4, 5, 6}};
  link->setCameras(table);
  armFault(LuIoOp::Open, 1);
  EXPECT_FALSE(link->createCamerasRecord());
  expectOneReport(0xc41b0011, 262, target());
  EXPECT_TRUE(link->isOK());
}

// ---- Failures from the file system ----------------------------------------

// The owner-write bit decides, whoever runs the tests (root included).
TEST_F(WriteErrorsTest, ReadOnlyTargetFailsAndSurvivesTheLinkByteForByte) {
  std::vector<uint8_t> old{'k', 'e', 'e', 'p', 0, 1, 2, 3};
  writeBytes(path("out.afxs"), old);
  setReadOnly(path("out.afxs"), true);
  auto link = makeLink();
  EXPECT_FALSE(link->create(true));
  expectOneReport(0xc41b0001, 120, target());
  EXPECT_FALSE(link->isOK());
  EXPECT_EQ(link->file(), nullptr);
  link.reset();
  ASSERT_TRUE(exists());
  EXPECT_EQ(bytes(), old);
}

TEST_F(WriteErrorsTest, TargetThatCannotBeDeletedFails) {
  // A directory with something in it passes the write test but cannot be removed.
  fs::create_directory(path("out.afxs"));
  writeBytes(path("out.afxs") / "inside", {1});
  auto link = makeLink();
  EXPECT_FALSE(link->create(true));
  expectOneReport(0xc41b0002, 127, target());
  EXPECT_FALSE(link->isOK());
  link.reset();
  EXPECT_TRUE(fs::exists(path("out.afxs") / "inside"));
}

TEST_F(WriteErrorsTest, TargetInAMissingFolderCannotBeOpened) {
  auto link = std::make_unique<ProbeLink>(wpath("missing/out.afxs").c_str());
  EXPECT_FALSE(link->create(true));
  expectOneReport(0xc41b0003, 136, wpath("missing/out.afxs"));
  EXPECT_FALSE(link->isOK());
}

// ---- Offsets past 4 GiB, with sparse files ---------------------------------

TEST_F(WriteErrorsTest, CamerasRecordPast4GiBIsRefusedAndTheFileKept) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  const std::vector<uint8_t> header = bytes();
  resizeTo(k4GiB - 47);  // the record needs 48 bytes
  LuAfxsCamerasTable table;
  table.cameras = {{1, 2, 3}};
  link->setCameras(table);
  EXPECT_FALSE(link->createCamerasRecord());
  expectOneReport(0xc41b0004, 233, target());
  EXPECT_FALSE(link->isOK());
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), k4GiB - 47);
  EXPECT_EQ(prefix(header.size()), header);
}

TEST_F(WriteErrorsTest, PlaneRecordPast4GiBIsRefusedAndEarlierRecordsStayIntact) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  const std::vector<uint8_t> before = bytes();
  resizeTo(k4GiB - 39);  // a new plane needs 24 + 16 bytes of records
  EXPECT_FALSE(flushPlane(*link, 1, 1));
  expectOneReport(0xc41b0005, 367, target());
  EXPECT_FALSE(link->isOK());
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), k4GiB - 39);
  EXPECT_EQ(prefix(before.size()), before);
  releaseAndDestroy(link);
  EXPECT_FALSE(exists());
}

// A link that closes its file between records reopens it with "r+b" and
// seeks to its end before anything else: a failed seek there is the record
// append's failure (0xc41b0012), not the room check's that would follow it.
TEST_F(WriteErrorsTest, FailedSeekToTheEndAfterAReopenIsTheRecordError) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  ASSERT_EQ(link->file(), nullptr);
  armFault(LuIoOp::Seek, 1);
  EXPECT_FALSE(flushPlane(*link, 0, 2));
  EXPECT_TRUE(luIoFaultFired());
  luIoFaultDisarm();
  expectOneReport(0xc41b0012, 299, target());
  EXPECT_FALSE(link->isOK());
  EXPECT_FALSE(flushPlane(*link, 1, 1));
  EXPECT_EQ(reports().size(), 1u);
}

// The same for the first record of a new plane and for the cameras record.
TEST_F(WriteErrorsTest, FailedSeekToTheEndBeforeANewPlaneIsTheRecordError) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  armFault(LuIoOp::Seek, 1);
  EXPECT_EQ(link->createPlaneSubsetRecord(7, 1), nullptr);
  EXPECT_TRUE(luIoFaultFired());
  luIoFaultDisarm();
  expectOneReport(0xc41b0012, 299, target());
  EXPECT_FALSE(link->isOK());
}

TEST_F(WriteErrorsTest, FieldBlocksPast4GiBAreRefusedBeforeTheRecordIsLinked) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 0, 1));
  const std::vector<uint8_t> before = bytes();
  // A second subset of plane 0 needs 16 bytes of head and 8 + 72, 8 + 4,
  // 12 and 8 bytes of field blocks: 128 bytes.
  resizeTo(k4GiB - 127);
  EXPECT_FALSE(flushPlane(*link, 0, 2));
  expectOneReport(0xc41b0013, 576, target());
  EXPECT_FALSE(link->isOK());
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), k4GiB - 127);
  EXPECT_EQ(prefix(before.size()), before);
}

TEST_F(WriteErrorsTest, RecordHeaderPast4GiBIsRefused) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  const std::vector<uint8_t> header = bytes();
  resizeTo(k4GiB - 7);
  EXPECT_EQ(link->createNewRecord(LU_AFXS_REC_PLANE), nullptr);
  expectOneReport(0xc41b0012, 299, target());
  EXPECT_FALSE(link->isOK());
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), k4GiB - 7);
  EXPECT_EQ(prefix(header.size()), header);
}

TEST_F(WriteErrorsTest, RecordEndingExactlyAt4GiBIsWritten) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  // Plane record 24 + subset head 16 + points 8 + 72 + segments 8 + 4 +
  // results link 12 + end mark 8 = 152 bytes.
  resizeTo(k4GiB - 152);
  EXPECT_TRUE(flushPlane(*link, 0, 1));
  EXPECT_TRUE(reports().empty());
  EXPECT_EQ(sizeOf(), k4GiB);
  // Nothing more fits.
  EXPECT_FALSE(flushPlane(*link, 0, 2));
  expectOneReport(0xc41b0005, 367, target());
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), k4GiB);
}

}  // namespace
}  // namespace lutest
