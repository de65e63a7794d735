// luAfxsUnifyFiles: what it writes, what it counts while the library runs,
// and what it refuses before anything is written.
#include <luAnaf/luAfxsUnify.h>

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/unify_scans.h"

namespace lutest {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kPlanes = 5;

std::string narrowForTest(const std::wstring& text) {
  return std::string(text.begin(), text.end());
}

class UnifyFilesTest : public UnifyTest {
protected:
  std::vector<uint32_t> planes(uint32_t count) const {
    std::vector<uint32_t> ids;
    for (uint32_t p = 0; p < count; ++p) ids.push_back(p);
    return ids;
  }
  // Two scans of kPlanes planes whose arcs overlap (subsets 1 and 2).
  void writeOverlappingScans(size_t points = 40) {
    ArcShape left;
    left.startDeg = 0;
    left.endDeg = 130;
    left.points = points;
    ArcShape right = left;
    right.startDeg = 120;
    right.endDeg = 250;
    writeScan("a.afxs", 1, planes(kPlanes), left);
    writeScan("b.afxs", 2, planes(kPlanes), right);
  }
  LuAfxsUnifySummary unifyFiles(const std::vector<std::string>& names,
                                const std::vector<uint32_t>& ids = {},
                                const std::string& output = "u.afxs") {
    std::vector<std::wstring> inputs;
    for (const std::string& name : names) inputs.push_back(wpath(name));
    return luAfxsUnifyFiles(inputs, ids, wpath(output), options);
  }
  LuAfxsInspection inspectOutput(const std::string& name = "u.afxs") {
    return luAfxsInspect(wpath(name), true);
  }
  size_t filesInFolder() const {
    size_t count = 0;
    for (const auto& entry : fs::directory_iterator(m_dir)) count += entry.is_regular_file();
    return count;
  }

  LuAfxsUnifyOptions options;
};

TEST(UnifyTextsTest, AFailureAndASkipReadAsTheFrontEndsPrintThem) {
  LuAfxsUnifyFailure report{0xc41b0014, 493, L"/d/scan.afxs", L"LuAfxsUserLink"};
  EXPECT_EQ(luAfxsUnifyFailureText(report),
            L"error 0xC41B0014 (LuAfxsUserLink line 493) on /d/scan.afxs");
  LuAfxsUnifyFailure ended{0, 0, L"", L"the driver ended early"};
  EXPECT_EQ(luAfxsUnifyFailureText(ended), L"the driver ended early");
  EXPECT_EQ(luAfxsUnifySkipText(LuAfxsUnifySkip{7, 3, L"no input covers it"}),
            L"position 7 (plane 3) left out: no input covers it");
  EXPECT_EQ(luAfxsUnifySkipText(LuAfxsUnifySkip{7, -1, L"no input covers it"}),
            L"position 7 left out: no input covers it");
}

TEST_F(UnifyFilesTest, WritesEveryPlaneAndCountsWhatItWrote) {
  writeOverlappingScans();
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"});
  ASSERT_TRUE(s.written()) << luAfxsUnifyStatusName(s.status);
  EXPECT_EQ(s.planesWritten, 2 * kPlanes);
  EXPECT_EQ(s.planesBlended, 0u);
  EXPECT_THAT(s.skipped, IsEmpty());
  EXPECT_THAT(s.failures, IsEmpty());
  EXPECT_EQ(s.planesWritten, inspectOutput().loadedSubsets);
  EXPECT_TRUE(inspectOutput().clean());
}

#if !defined(_WIN32)
// Without blending the output's size is known before its first record: its
// room is reserved then, and what was not written goes back at the close.
TEST_F(UnifyFilesTest, WithoutBlendingTheOutputsRoomIsReservedAheadAndGivenBackAtTheEnd) {
  if (!reservesRoom(path("probe.afxs")))
    GTEST_SKIP() << "the test folder's file system reserves nothing";
  writeOverlappingScans(4000);
  const uint64_t inputs = fs::file_size(path("a.afxs")) + fs::file_size(path("b.afxs"));
  // After the first position (two of ten records written) the output being
  // written holds room for all of it.
  uint64_t heldAfterFirst = 0;
  options.progress = [&](uint64_t done, uint64_t) {
    if (done != 1) return;
    for (const auto& entry : fs::directory_iterator(m_dir)) {
      const std::string name = entry.path().filename().string();
      if (name != "a.afxs" && name != "b.afxs")
        heldAfterFirst = std::max(heldAfterFirst, allocatedBytes(entry.path()));
    }
  };
  ASSERT_TRUE(unifyFiles({"a.afxs", "b.afxs"}).written());
  const uint64_t size = fs::file_size(path("u.afxs"));
  EXPECT_GT(size, inputs * 9 / 10);
  EXPECT_GE(heldAfterFirst, size);
  EXPECT_LE(allocatedBytes(path("u.afxs")), size + 64 * 1024);
}
#endif

TEST_F(UnifyFilesTest, DefaultIdsAreTheSubsetIdsOfSingleSubsetInputs) {
  writeOverlappingScans();
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"});
  EXPECT_THAT(s.outputIds, ElementsAre(1u, 2u));
  EXPECT_THAT(inspectOutput().subsetIds, ElementsAre(1u, 2u));
}

TEST_F(UnifyFilesTest, BlendingCountsEveryBlendedPlane) {
  writeOverlappingScans();
  options.blend = true;
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"}, {1, 2});
  ASSERT_TRUE(s.written()) << luAfxsUnifyStatusName(s.status);
  EXPECT_EQ(s.planesBlended, kPlanes);
  EXPECT_EQ(s.planesWritten, kPlanes);
  EXPECT_EQ(inspectOutput().loadedSubsets, kPlanes);
  EXPECT_THAT(s.warnings, IsEmpty());
}

TEST_F(UnifyFilesTest, BlendingWithoutResultPointsWarnsThatNothingWasBlended) {
  ArcShape bare;
  bare.results = false;
  writeScan("a.afxs", 1, planes(2), bare);
  writeScan("b.afxs", 2, planes(2), bare);
  options.blend = true;
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"}, {1, 2});
  ASSERT_TRUE(s.written());
  EXPECT_EQ(s.planesBlended, 0u);
  ASSERT_FALSE(s.warnings.empty());
  EXPECT_EQ(s.warnings.back().kind, LuAfxsUnifyWarningKind::NothingBlended);
}

TEST_F(UnifyFilesTest, TheOutputCarriesTheFirstInputsVersion) {
  LuAfxsHeader header = scanHeader(1);
  header.version = 7;
  ASSERT_TRUE(writeScanFile(wpath("a.afxs"), {makeArcPlane(0, 1, {})}, header));
  writeScan("b.afxs", 2, planes(1));
  ASSERT_TRUE(unifyFiles({"a.afxs", "b.afxs"}).written());
  LuAfxsInspection out = inspectOutput();
  EXPECT_TRUE(out.hasVersion);
  EXPECT_EQ(out.version, 7);
}

TEST_F(UnifyFilesTest, PlanesOfDifferentNumbersAtOnePositionSkipTheRestWithAReason) {
  writeScan("a.afxs", 1, {0, 1});
  writeScan("b.afxs", 2, {0, 2});
  LuAfxsUnifySummary s =
      unifyFiles({"a.afxs", "b.afxs"}, {kLuAfxsKeepSubsetIds, kLuAfxsKeepSubsetIds});
  ASSERT_TRUE(s.written()) << luAfxsUnifyStatusName(s.status) << " " << narrowForTest(s.message);
  // Kept ids: two empty slots, then the planes in record order.
  EXPECT_EQ(s.planesWritten, 2u);
  ASSERT_EQ(s.skipped.size(), 1u);
  EXPECT_EQ(s.skipped[0].position, 3u);
  EXPECT_EQ(s.skipped[0].planeId, 1);
  EXPECT_THAT(s.skipped[0].reason, HasSubstr(L"different numbers"));
  EXPECT_EQ(inspectOutput().loadedSubsets, 2u);
}

TEST_F(UnifyFilesTest, ReportsAreCountedWithTheirCodesAndNothingIsWritten) {
  writeScan("a.afxs", 1, planes(3));
  writeScan("b.afxs", 2, planes(3));
  luIoFaultArmSticky(LuIoOp::Write, 4);
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"});
  luIoFaultDisarm();
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::Incomplete);
  ASSERT_FALSE(s.failures.empty());
  EXPECT_EQ(s.failures.front().code & 0xFFFFFF00u, 0xC41B0000u);
  EXPECT_FALSE(exists("u.afxs"));
  EXPECT_EQ(filesInFolder(), 2u) << "a temporary was left behind";
}

TEST_F(UnifyFilesTest, ADamagedInputIsRefusedAndKeptAsItWas) {
  writeScan("a.afxs", 1, planes(2));
  writeScan("b.afxs", 2, planes(2));
  std::vector<uint8_t> bytes = readBytes(path("b.afxs"));
  bytes.resize(bytes.size() - 9);
  writeBytes(path("b.afxs"), bytes);
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"});
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::InputRefused);
  EXPECT_EQ(s.problemPath, wpath("b.afxs"));
  EXPECT_FALSE(s.inputProblems.empty());
  EXPECT_EQ(readBytes(path("b.afxs")), bytes);
  EXPECT_FALSE(exists("u.afxs"));
}

TEST_F(UnifyFilesTest, AMissingInputIsRefusedWithENOENT) {
  writeScan("a.afxs", 1, planes(2));
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "none.afxs"});
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::InputRefused);
  EXPECT_EQ(s.errnum, ENOENT);
}

TEST_F(UnifyFilesTest, BlendingRefusesAPlaneNoInputHas) {
  writeScan("a.afxs", 1, {0, 0, 2});
  writeScan("b.afxs", 2, {0});
  options.blend = true;
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"}, {1, 2});
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::NotUnifiable);
  EXPECT_THAT(s.message, HasSubstr(L"no input has plane 1"));
  EXPECT_FALSE(exists("u.afxs"));
}

TEST_F(UnifyFilesTest, APlaneBeyondTheSlotsIsRefusedUnderARealId) {
  writeScan("a.afxs", 1, {5});
  writeScan("b.afxs", 2, {5});
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"});
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::NotUnifiable);
  EXPECT_THAT(s.message, HasSubstr(L"beyond"));
  EXPECT_FALSE(exists("u.afxs"));
}

TEST_F(UnifyFilesTest, BlendingNeedsARealIdForEveryInput) {
  writeOverlappingScans();
  options.blend = true;
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"}, {1, kLuAfxsKeepSubsetIds});
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::BadArguments);
  EXPECT_THAT(s.message, HasSubstr(L"real output id"));
}

TEST_F(UnifyFilesTest, AnInputIsNeverTheOutput) {
  writeOverlappingScans();
  std::vector<uint8_t> before = readBytes(path("b.afxs"));
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"}, {}, "b.afxs");
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::OutputRefused);
  EXPECT_NE(s.errnum, 0);
  EXPECT_EQ(readBytes(path("b.afxs")), before);
}

TEST_F(UnifyFilesTest, ProgressIsToldAfterEveryPosition) {
  writeOverlappingScans();
  std::vector<std::pair<uint64_t, uint64_t>> told;
  options.progress = [&](uint64_t done, uint64_t all) { told.emplace_back(done, all); };
  ASSERT_TRUE(unifyFiles({"a.afxs", "b.afxs"}).written());
  ASSERT_EQ(told.size(), kPlanes);
  EXPECT_EQ(told.back(), std::make_pair(uint64_t{kPlanes}, uint64_t{kPlanes}));
}

TEST_F(UnifyFilesTest, ACancelledCallLeavesTheOldOutput) {
  writeOverlappingScans();
  writeScan("u.afxs", 9, planes(1));
  std::vector<uint8_t> before = readBytes(path("u.afxs"));
  options.keepGoing = [] { return false; };
  LuAfxsUnifySummary s = unifyFiles({"a.afxs", "b.afxs"});
  EXPECT_EQ(s.status, LuAfxsUnifyStatus::Cancelled);
  EXPECT_EQ(readBytes(path("u.afxs")), before);
  EXPECT_EQ(filesInFolder(), 3u) << "a temporary was left behind";
}

TEST_F(UnifyFilesTest, TheRegistryEntryIsClearedAfterwards) {
  writeOverlappingScans();
  options.xsId = 42;
  ASSERT_TRUE(unifyFiles({"a.afxs", "b.afxs"}).written());
  EXPECT_EQ(UnifyProbe::registry().count(42), 0u);
}

}  // namespace
}  // namespace lutest
