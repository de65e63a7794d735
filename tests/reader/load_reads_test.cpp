// How a load of arrays reads the file: each block with one positioned read
// straight into its array, the heads between blocks and records from the
// bytes that came with the read before, so that neither the reads nor the
// seeks grow with anything but the blocks; blocks of every size around the
// read-ahead load exactly; results flushed through the same link are seen
// by the next load; the array cache keeps arrays of 8 KiB and more.
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include <filesystem>
#include <vector>

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class LoadReadsTest : public ReaderTest {
protected:
  // A file of one record (plane i, subset 1) per entry of `points`, every
  // field group written; the planes are kept for comparison.
  std::wstring writeFile(const std::string& name, const std::vector<size_t>& points,
                         uint32_t mask = LU_AFXS_MASK_ALL) {
    std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
    for (size_t i = 0; i < points.size(); ++i)
      planes.push_back(
          {randomPlane(static_cast<uint32_t>(i), 1, points[i], 7 + uint32_t(i)), mask});
    m_planes.clear();
    for (const auto& p : planes) m_planes.push_back(p.first);
    EXPECT_TRUE(writeWithWriter(wpath(name), LuAfxsHeader(), {}, planes));
    return wpath(name);
  }

  // Loads the fields of `mask` and compares each record with the planes
  // written last.
  void loadAndCheck(const std::wstring& file, unsigned long mask) {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(mask));
    ASSERT_EQ(set.size(), m_planes.size());
    size_t i = 0;
    for (LuAfxsUserData* d : set) {
      const LuAfxsPlane& got = d->getPlaneData();
      const LuAfxsPlane& want = m_planes.at(i++);
      const std::vector<LuVec3> none;
      EXPECT_EQ(got.points, mask & LU_AFXS_MASK_POINTS ? want.points : none) << i;
      EXPECT_EQ(got.normals, mask & LU_AFXS_MASK_NORMALS ? want.normals : none) << i;
      EXPECT_EQ(got.resPoints, mask & LU_AFXS_MASK_RESPOINTS ? want.resPoints : none) << i;
      if (mask & LU_AFXS_MASK_SEGMENTS) {
        EXPECT_EQ(got.segments, want.segments) << i;
      }
      if (mask & LU_AFXS_MASK_AUX) {
        EXPECT_EQ(got.auxCtrlPos, want.auxCtrlPos) << i;
        EXPECT_EQ(got.auxCtrlCounts, want.auxCtrlCounts) << i;
      }
      if (mask & LU_AFXS_MASK_DISTANCES) {
        EXPECT_EQ(got.distances, want.distances) << i;
      }
    }
  }

  // Loads the points of `set`, flushes distances (`scale` times the point's
  // index and the record's) as each record's results; returns them.
  std::vector<std::vector<double>> flushDistances(LuAfxsUserDataSet& set, double scale) {
    std::vector<std::vector<double>> distances;
    EXPECT_TRUE(set.load(LU_AFXS_MASK_POINTS));
    for (LuAfxsUserData* d : set) {
      const size_t n = d->getPlaneData().points.size();
      std::vector<double> values(n);
      for (size_t k = 0; k < n; ++k) values[k] = scale * static_cast<double>(k + distances.size());
      d->setDistances(values.data(), n);
      EXPECT_TRUE(d->flush());
      distances.push_back(values);
    }
    return distances;
  }

  struct Calls {
    uint64_t reads = 0;
    uint64_t seeks = 0;
  };
  // The reads and seeks of a first load of `mask` (verify included).
  Calls countLoad(const std::wstring& file, unsigned long mask) {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    luIoResetCounts();
    EXPECT_TRUE(set.load(mask));
    return {luIoCallCount(LuIoOp::Read), luIoCallCount(LuIoOp::Seek)};
  }

  std::vector<LuAfxsPlane> m_planes;
};

// Records of 2,000 points: every array but the segments is larger than the
// read-ahead, so each costs a read of its own, and nothing else does.
TEST_F(LoadReadsTest, ReadsGrowByOnePerLargeBlockAndSeeksNotAtAll) {
  std::wstring few = writeFile("few.afxs", std::vector<size_t>(4, 2000));
  std::wstring many = writeFile("many.afxs", std::vector<size_t>(12, 2000));
  for (unsigned long mask : std::vector<unsigned long>{LU_AFXS_MASK_ALL, LU_AFXS_MASK_POINTS}) {
    const Calls a = countLoad(few, mask);
    const Calls b = countLoad(many, mask);
    // Blocks per record: points, normals, segments, three aux arrays, the
    // aux firsts (stepped over), the results link, result points,
    // distances; one read of the record chain per record.
    const uint64_t perRecord = (b.reads - a.reads) / 8;
    EXPECT_LE(perRecord, mask == LU_AFXS_MASK_ALL ? 10u : 9u) << "mask " << mask;
    EXPECT_EQ(b.seeks, a.seeks) << "mask " << mask;
  }
}

// An index (a load of no field data) of records holding only large arrays
// (16 KB and more) reads small windows around the heads, not the arrays it
// steps over, and seeks no more for more records; the fields loaded
// afterwards come without a seek, each array read once.
TEST_F(LoadReadsTest, AnIndexStepsOverLargeArraysAndTheFieldsLoadedLaterDoNotSeek) {
  const uint32_t large = LU_AFXS_MASK_ALL & ~(LU_AFXS_MASK_AUX | LU_AFXS_MASK_SEGMENTS);
  std::wstring few = writeFile("index_few.afxs", std::vector<size_t>(4, 2000), large);
  std::wstring many = writeFile("index_many.afxs", std::vector<size_t>(12, 2000), large);
  const Calls a = countLoad(few, 0);
  const Calls b = countLoad(many, 0);
  EXPECT_EQ(b.seeks, a.seeks);

  const uint64_t fileSize = std::filesystem::file_size(std::filesystem::path(many));
  LuAfxsUserLink link(many.c_str());
  LuAfxsUserDataSet set(link);
  luIoResetCounts();
  ASSERT_TRUE(set.load(0));
  const uint64_t indexBytes = luIoBytesRead();
  EXPECT_LT(indexBytes, fileSize / 4) << "of " << fileSize;

  luIoResetCounts();
  size_t i = 0;
  for (LuAfxsUserData* d : set) {
    ASSERT_TRUE(d->load(LU_AFXS_MASK_ALL));
    const LuAfxsPlane& want = m_planes.at(i++);
    EXPECT_EQ(d->getPlaneData().points, want.points) << i;
    EXPECT_EQ(d->getPlaneData().normals, want.normals) << i;
    EXPECT_EQ(d->getPlaneData().resPoints, want.resPoints) << i;
    EXPECT_EQ(d->getPlaneData().distances, want.distances) << i;
  }
  EXPECT_EQ(luIoCallCount(LuIoOp::Seek), 0u);
  EXPECT_LT(luIoBytesRead(), fileSize + fileSize / 8);
  // In the file's order each array's read brings the next block's head:
  // the first head and the four arrays cost a read each.
  EXPECT_LE(luIoCallCount(LuIoOp::Read), 5u * m_planes.size());
}

// Blocks just under, at and over the read-ahead and the window (512 and 4,096
// bytes), and records of one point, load exactly; so do the fields alone.
TEST_F(LoadReadsTest, BlocksOfEverySizeAroundTheReadAheadLoadExactly) {
  std::vector<size_t> points = {1, 2, 20, 21, 22, 42, 43, 170, 171, 172, 341, 342, 1000, 1};
  std::wstring file = writeFile("sizes.afxs", points);
  for (unsigned long mask :
       std::vector<unsigned long>{LU_AFXS_MASK_ALL, LU_AFXS_MASK_POINTS, LU_AFXS_MASK_AUX,
                                  LU_AFXS_MASK_NORMALS | LU_AFXS_MASK_DISTANCES})
    loadAndCheck(file, mask);
}

// Results flushed through a link are in the file for the next load on the
// same link, whose stream was open for writing.
TEST_F(LoadReadsTest, TheNextLoadOnTheSameLinkSeesFlushedResults) {
  std::wstring file = writeFile("results.afxs", {300, 5000, 40});
  LuAfxsUserLink link(file.c_str());
  std::vector<std::vector<double>> distances;
  {
    LuAfxsUserDataSet set(link);
    distances = flushDistances(set, 0.5);
  }
  LuAfxsUserDataSet again(link);
  ASSERT_TRUE(again.load(LU_AFXS_MASK_ALL));
  size_t i = 0;
  for (LuAfxsUserData* d : again) {
    EXPECT_EQ(d->getPlaneData().distances, distances.at(i));
    EXPECT_EQ(d->getPlaneData().points, m_planes.at(i).points);
    ++i;
  }
  EXPECT_EQ(i, distances.size());
}

// The same after an index: through the link that flushed the results while
// its stream is still open for writing (the reads go through the stream),
// through it again once it was closed, and through a new link (positioned
// reads). Each time the fields loaded after the index are read from the
// first block of each identifier, as documented (so the distances are the
// plane-subset record's own, not the results').
TEST_F(LoadReadsTest, AnIndexAndTheFieldsAfterItReadAsDocumentedAfterAResultsFlush) {
  std::wstring file = writeFile("results_index.afxs", {300, 5000, 40});
  LuAfxsUserLink link(file.c_str());
  auto indexThenFields = [this](LuAfxsUserLink& through, const char* how) {
    LuAfxsUserDataSet set(through);
    ASSERT_TRUE(set.load(0)) << how;
    size_t i = 0;
    for (LuAfxsUserData* d : set) {
      ASSERT_TRUE(d->load(LU_AFXS_MASK_ALL)) << how;
      EXPECT_EQ(d->getPlaneData().distances, m_planes.at(i).distances) << how << " " << i;
      EXPECT_EQ(d->getPlaneData().points, m_planes.at(i).points) << how << " " << i;
      EXPECT_EQ(d->getPlaneData().normals, m_planes.at(i).normals) << how << " " << i;
      ++i;
    }
    EXPECT_EQ(i, m_planes.size()) << how;
  };
  {
    LuAfxsUserDataSet flushing(link);
    flushDistances(flushing, 0.25);
    luIoResetCounts();
    indexThenFields(link, "open for writing");
    EXPECT_GT(luIoCallCount(LuIoOp::Seek), 0u);
  }
  indexThenFields(link, "closed and opened again");
  LuAfxsUserLink fresh(file.c_str());
  indexThenFields(fresh, "a new link");
}

// A read that fails in the middle of a record's blocks fails the load and
// leaves nothing behind; the next load succeeds.
TEST_F(LoadReadsTest, AFailedBlockReadFailsTheLoad) {
  std::wstring file = writeFile("fail.afxs", {2000, 2000, 2000});
  const Calls all = countLoad(file, LU_AFXS_MASK_ALL);
  for (uint64_t nth : {all.reads - 1, all.reads - 5, all.reads / 2}) {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    luIoFaultArm(LuIoOp::Read, nth);
    EXPECT_FALSE(set.load(LU_AFXS_MASK_ALL)) << nth;
    EXPECT_TRUE(luIoFaultFired());
    luIoFaultDisarm();
    EXPECT_TRUE(set.empty());
  }
  loadAndCheck(file, LU_AFXS_MASK_ALL);
}

}  // namespace
}  // namespace lutest
