// The data set's results flush: the results of many records go out all or
// nothing, and a failure leaves the file with exactly the bytes it had.
#include <algorithm>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class ResultsBatchTest : public ReaderTest {
protected:
  static constexpr uint32_t kRecords = 4;

  void SetUp() override {
    ReaderTest::SetUp();
    std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
    for (uint32_t i = 0; i < kRecords; ++i) {
      m_planes.push_back(randomPlane(i, 1, 300 + 50 * i, 11 + i));
      planes.push_back({m_planes.back(), 1 | 2 | 4});
    }
    ASSERT_TRUE(writeWithWriter(wpath("scan.afxs"), LuAfxsHeader(), {}, planes));
    m_original = readBytes(path("scan.afxs"));
  }

  // Gives every record but those in `skip` the results of its plane.
  void attach(LuAfxsUserDataSet& set, const std::vector<uint32_t>& skip = {}) {
    for (LuAfxsUserData* data : set) {
      const uint32_t id = data->getPlaneData().planeId;
      if (std::find(skip.begin(), skip.end(), id) != skip.end()) continue;
      const LuAfxsPlane& p = m_planes[id];
      data->setResPoints(reinterpret_cast<const double(*)[3]>(p.resPoints.data()),
                         p.resPoints.size());
      data->setDistances(p.distances.data(), p.distances.size());
    }
  }

  size_t unflushed(LuAfxsUserDataSet& set) {
    size_t n = 0;
    for (LuAfxsUserData* data : set) n += data->hasUnflushedResults() ? 1 : 0;
    return n;
  }

  // Every record of the file on disk, loaded fresh, holds its plane's results.
  void expectResultsInFile(const std::vector<uint32_t>& without = {}) {
    LuAfxsUserLink link(wpath("scan.afxs").c_str());
    ProbeDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    ASSERT_EQ(set.size(), kRecords);
    for (LuAfxsUserData* data : set) {
      const LuAfxsPlane& loaded = data->getPlaneData();
      const LuAfxsPlane& p = m_planes[loaded.planeId];
      EXPECT_EQ(loaded.points, p.points);
      if (std::find(without.begin(), without.end(), loaded.planeId) != without.end()) {
        EXPECT_TRUE(loaded.resPoints.empty());
        continue;
      }
      EXPECT_EQ(loaded.resPoints, p.resPoints) << "plane " << loaded.planeId;
      EXPECT_EQ(loaded.distances, p.distances) << "plane " << loaded.planeId;
    }
  }

  std::vector<LuAfxsPlane> m_planes;
  std::vector<uint8_t> m_original;
};

TEST_F(ResultsBatchTest, EveryRecordGetsItsResults) {
  LuAfxsUserLink link(wpath("scan.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  attach(set);
  EXPECT_EQ(unflushed(set), kRecords);
  ASSERT_TRUE(set.flushResults());
  EXPECT_EQ(unflushed(set), 0u);
  set.closefile();
  expectResultsInFile();
}

TEST_F(ResultsBatchTest, RecordsWithoutNewResultsAreLeftAlone) {
  LuAfxsUserLink link(wpath("scan.afxs").c_str());
  ProbeDataSet set(link);
  ASSERT_TRUE(set.load(1));
  EXPECT_TRUE(set.flushResults());  // nothing due
  EXPECT_EQ(readBytes(path("scan.afxs")), m_original);
  attach(set, {2});
  ASSERT_TRUE(set.flushResults());
  set.closefile();
  expectResultsInFile({2});
}

// Each write of the batch failed in turn: the call fails, the file has the
// bytes it had before, every record still holds its results in memory, and
// a second call on the same set writes them all.
TEST_F(ResultsBatchTest, EachFailedWriteLeavesTheFileAsItWasAndARetryWritesAll) {
  uint64_t writes = 0;
  {
    LuAfxsUserLink link(wpath("scan.afxs").c_str());
    ProbeDataSet set(link);
    ASSERT_TRUE(set.load(1));
    attach(set);
    luIoResetCounts();
    ASSERT_TRUE(set.flushResults());
    writes = luIoCallCount(LuIoOp::Write);
    set.closefile();
  }
  ASSERT_GT(writes, 3 * kRecords);
  for (uint64_t n = 1; n <= writes; ++n) {
    SCOPED_TRACE("write " + std::to_string(n));
    writeBytes(path("scan.afxs"), m_original);
    LuAfxsUserLink link(wpath("scan.afxs").c_str());
    ProbeDataSet set(link);
    ASSERT_TRUE(set.load(1));
    attach(set);
    luIoResetCounts();
    luIoFaultArm(LuIoOp::Write, n);
    const bool flushed = set.flushResults();
    luIoFaultDisarm();
    ASSERT_FALSE(flushed);
    EXPECT_EQ(readBytes(path("scan.afxs")), m_original);
    EXPECT_EQ(unflushed(set), kRecords);
    ASSERT_TRUE(set.flushResults());
    set.closefile();
    expectResultsInFile();
  }
}

}  // namespace
}  // namespace lutest
