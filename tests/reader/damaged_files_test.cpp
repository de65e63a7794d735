// Damaged and hostile files: reading always ends, never reads outside a
// buffer, and never allocates more than the file could hold.
#include <random>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/quick_mode.h"
#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class DamagedFilesTest : public ReaderTest {
protected:
  // Loads a file with every field; the result of the data set's load.
  bool loadAll(const std::wstring& file) {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    bool ok = set.load(63);
    link.getCameras();
    return ok;
  }
  bool loadBytes(const std::vector<uint8_t>& bytes) {
    writeBytes(path("damaged.afxs"), bytes);
    return loadAll(wpath("damaged.afxs"));
  }
  // One record of plane 1 subset 1 holding `blocks`.
  AfxsFileBuilder oneRecord(const std::vector<FieldBlock>& blocks) {
    AfxsFileBuilder b;
    uint32_t p = b.addPlane(1);
    b.addSubset(p, 1, blocks);
    return b;
  }
};

class TruncatedSampleTest : public DamagedFilesTest,
                            public ::testing::WithParamInterface<const char*> {};

TEST_P(TruncatedSampleTest, LoadFailsAtEveryTruncationOffset) {
  std::vector<uint8_t> whole = readBytes(dataFile(GetParam()));
  ASSERT_TRUE(loadBytes(whole));
  for (size_t size = 0; size < whole.size(); size += stride()) {
    std::vector<uint8_t> cut(whole.begin(), whole.begin() + static_cast<long>(size));
    EXPECT_FALSE(loadBytes(cut)) << "truncated at " << size;
  }
}

INSTANTIATE_TEST_SUITE_P(Samples, TruncatedSampleTest,
                         ::testing::Values("all_fields.afxs", "with_results.afxs"),
                         [](const auto& info) {
                           std::string name = info.param;
                           return name.substr(0, name.find('.'));
                         });

TEST_F(DamagedFilesTest, LoopingRecordChainFailsWithScanReport) {
  AfxsFileBuilder b = oneRecord({pointsBlock(0, {{1, 2, 3}})});
  uint32_t last = b.addPlane(2);
  b.patchU32(last + 4, b.headerSize() + 0);  // back to the first record
  std::wstring file = writeBuilt(b);
  EXPECT_FALSE(loadAll(file));
  ASSERT_FALSE(reports().empty());
  expectReport(reports().back(), 0xc41b0009, 336, file);
}

TEST_F(DamagedFilesTest, SubsetRecordLinkedToItselfFailsLoad) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  uint32_t s = b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})});
  b.patchU32(s + 12, s);
  EXPECT_FALSE(loadAll(writeBuilt(b)));
}

TEST_F(DamagedFilesTest, PlanesSharingOneLongChainEndWithoutRunningAway) {
  // 300 plane records all leading into one chain of 300 subset records: a
  // walk per plane would make 90000 entries out of a file of a few KB.
  AfxsFileBuilder b;
  std::vector<uint32_t> planes;
  for (uint32_t i = 0; i < 300; ++i) planes.push_back(b.addPlane(i));
  for (uint32_t i = 0; i < 300; ++i) b.addSubset(planes[0], i, {});
  for (uint32_t i = 1; i < 300; ++i) b.patchU32(planes[i] + 12, u32At(b.bytes(), planes[0] + 12));
  EXPECT_FALSE(loadAll(writeBuilt(b)));
}

struct HugeCount {
  const char* name;
  uint32_t id;
  uint32_t count;
  uint32_t mask;
};

// Printed by name: gtest would otherwise print the raw bytes, padding
// included, which valgrind rightly calls uninitialised.
void PrintTo(const HugeCount& c, std::ostream* out) { *out << c.name; }

class HugeCountTest : public DamagedFilesTest, public ::testing::WithParamInterface<HugeCount> {};

TEST_P(HugeCountTest, FailsLoadWithoutAllocating) {
  const HugeCount& c = GetParam();
  AfxsFileBuilder b = oneRecord({pointsBlock(0, {{1, 2, 3}}), countOnlyBlock(c.id, c.count)});
  std::wstring file = writeBuilt(b);
  LuAfxsUserLink link(file.c_str());
  LuAfxsUserDataSet set(link);
  EXPECT_FALSE(set.load(c.mask));
  EXPECT_TRUE(set.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Counts, HugeCountTest,
    ::testing::Values(HugeCount{"LoadedPointsNearTwoToThe32", 0, 0xFFFFFFF0, 63},
                      HugeCount{"LoadedNormalsNearTwoToThe32", 1, 0xFFFFFFE8, 63},
                      HugeCount{"LoadedDistancesPastEnd", 6, 0x00100000, 63},
                      HugeCount{"SkippedNearTwoToThe32", 1, 0xFFFFFFE8, 1},
                      HugeCount{"SkippedJustBelowTwoToThe31", 1, 0x7FFFFFF8, 1},
                      HugeCount{"SkippedAuxFirstPastEnd", 3, 0x00010000, 63},
                      HugeCount{"SkippedUnknownPastEnd", 42, 0x00010000, 63},
                      HugeCount{"SkippedByOneByte", 9, 5, 1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(DamagedFilesTest, CamerasCountNotMultipleOf24GivesEmptyTableAndLoadStillWorks) {
  std::vector<uint8_t> bytes = readBytes(dataFile("all_fields.afxs"));
  uint32_t first = 0xB3;  // FIRST_RECORD of the sample: its cameras record
  ASSERT_EQ(u32At(bytes, first), 0u);
  ASSERT_EQ(u32At(bytes, first + 12), 48u);
  putU32At(bytes, first + 12, 47);
  writeBytes(path("cams.afxs"), bytes);
  LuAfxsUserLink link(wpath("cams.afxs").c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(63));
  EXPECT_TRUE(link.getCameras().cameras.empty());
  EXPECT_EQ(set.size(), 7u);
}

TEST_F(DamagedFilesTest, FirstRecordPastEndFailsWithScanReport) {
  AfxsFileBuilder b = oneRecord({pointsBlock(0, {{1, 2, 3}})});
  std::string text(b.bytes().begin(), b.bytes().end());
  size_t at = text.find("FIRST_RECORD 0x");
  std::string past = "7FFFFFF0";
  std::copy(past.begin(), past.end(), b.bytes().begin() + static_cast<long>(at + 15));
  std::wstring file = writeBuilt(b);
  EXPECT_FALSE(loadAll(file));
  ASSERT_FALSE(reports().empty());
  expectReport(reports().back(), 0xc41b0009, 336, file);
}

TEST_F(DamagedFilesTest, ResultsLinkPastEndFailsLoad) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})}, 0x00FFFF00);
  EXPECT_FALSE(loadAll(writeBuilt(b)));
}

TEST_F(DamagedFilesTest, ResultsLinkToPlaneSubsetRecordFailsLoad) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  uint32_t s = b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})});
  // The results "record" is the record itself: its end mark says 2, not 3.
  b.patchU32(b.resultsLinkDataOf(s), s + 16);
  EXPECT_FALSE(loadAll(writeBuilt(b)));
}

TEST_F(DamagedFilesTest, RandomlyCorruptedSamplesAlwaysFinishLoading) {
  std::vector<uint8_t> whole = readBytes(dataFile("with_results.afxs"));
  std::mt19937 rng(1234);
  int loaded = 0;
  const int rounds = quickMode() ? 400 / 7 : 400;
  for (int round = 0; round < rounds; ++round) {
    std::vector<uint8_t> bytes = whole;
    int flips = 1 + static_cast<int>(rng() % 4);
    for (int i = 0; i < flips; ++i) {
      size_t at = rng() % bytes.size();
      // Counts and offsets are the interesting targets: sometimes write a big u32.
      if (rng() % 2 == 0 && at + 4 <= bytes.size())
        putU32At(bytes, at, static_cast<uint32_t>(rng()));
      else
        bytes[at] = static_cast<uint8_t>(rng());
    }
    if (loadBytes(bytes)) ++loaded;
  }
  // Some corruptions hit only doubles and still load; most do not.
  EXPECT_GT(loaded, 0);
  EXPECT_LT(loaded, rounds);
}

TEST_F(DamagedFilesTest, ReadFaultAtEveryReadOfALoadFailsCleanly) {
  std::vector<uint8_t> whole = readBytes(dataFile("with_results.afxs"));
  writeBytes(path("faults.afxs"), whole);
  for (uint64_t nth = 1;; nth += stride()) {
    writeBytes(path("faults.afxs"), whole);
    LuAfxsUserLink link(wpath("faults.afxs").c_str());
    LuAfxsUserDataSet set(link);
    luIoFaultArm(LuIoOp::Read, nth);
    bool ok = set.load(63);
    bool fired = luIoFaultFired();
    luIoFaultDisarm();
    if (!fired) {
      EXPECT_TRUE(ok);
      break;
    }
    EXPECT_FALSE(ok) << "read " << nth;
    EXPECT_TRUE(set.empty());
    ASSERT_LT(nth, 10000u);
  }
}

}  // namespace
}  // namespace lutest
