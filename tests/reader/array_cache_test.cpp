// The array cache: off unless turned on, so that a client that destroyed
// every data set holds nothing more than before its first load; when on, a destroyed data set's
// large arrays serve the next load, which sees only its own file's values; the limit bounds what is
// kept and turns the cache off; arrays under 8 KiB are left to the allocator; a failed read never
// shows an array's earlier contents; loads on several threads share it.
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include <set>
#include <thread>
#include <vector>

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class ArrayCacheTest : public ReaderTest {
protected:
  void SetUp() override {
    ReaderTest::SetUp();
    m_limit = luAfxsArrayCacheLimit();
    m_enabled = luAfxsArrayCacheEnabled();
    luAfxsClearArrayCache();
    luAfxsSetArrayCacheEnabled(true);
  }
  void TearDown() override {
    luAfxsSetArrayCacheLimit(m_limit);
    luAfxsSetArrayCacheEnabled(m_enabled);
    luAfxsClearArrayCache();
    ReaderTest::TearDown();
  }

  // A file of `records` plane subsets (plane i, subset 1) of `points` points
  // each, every field group written; the planes are kept for comparison.
  std::wstring writeFile(const std::string& name, size_t records, size_t points, uint32_t seed) {
    std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
    for (size_t i = 0; i < records; ++i)
      planes.push_back(
          {randomPlane(static_cast<uint32_t>(i), 1, points, seed + uint32_t(i)), LU_AFXS_MASK_ALL});
    m_planes.clear();
    for (const auto& p : planes) m_planes.push_back(p.first);
    EXPECT_TRUE(writeWithWriter(wpath(name), LuAfxsHeader(), {}, planes));
    return wpath(name);
  }

  // Loads every field of `file` and checks each record against the planes
  // written last; returns the addresses of the loaded point arrays.
  std::set<const void*> loadAndCheck(const std::wstring& file) {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_TRUE(set.load(LU_AFXS_MASK_ALL));
    std::set<const void*> arrays;
    size_t i = 0;
    for (LuAfxsUserData* d : set) {
      const LuAfxsPlane& got = d->getPlaneData();
      const LuAfxsPlane& want = m_planes.at(i++);
      EXPECT_EQ(got.points, want.points);
      EXPECT_EQ(got.normals, want.normals);
      EXPECT_EQ(got.segments, want.segments);
      EXPECT_EQ(got.auxCtrlPos, want.auxCtrlPos);
      EXPECT_EQ(got.auxCtrlCounts, want.auxCtrlCounts);
      EXPECT_EQ(got.resPoints, want.resPoints);
      EXPECT_EQ(got.distances, want.distances);
      arrays.insert(got.points.data());
    }
    EXPECT_EQ(i, m_planes.size());
    return arrays;
  }

  size_t m_limit = 0;
  bool m_enabled = false;
  std::vector<LuAfxsPlane> m_planes;
};

// Without the switch: each test runs in a process of its own, so what it
// sees first is the library's default.
class ArrayCacheDefaultTest : public ArrayCacheTest {
protected:
  void SetUp() override {
    ReaderTest::SetUp();
    m_limit = luAfxsArrayCacheLimit();
    m_enabled = luAfxsArrayCacheEnabled();
  }
};

TEST_F(ArrayCacheDefaultTest, IsOffUnlessTurnedOnAndKeepsNothingOfADestroyedDataSet) {
  EXPECT_FALSE(luAfxsArrayCacheEnabled());
  std::wstring file = writeFile("a.afxs", 3, 5000, 1);
  loadAndCheck(file);
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
  loadAndCheck(file);
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
}

TEST_F(ArrayCacheTest, TurningItOffFreesEverythingAndKeepsTheLimit) {
  luAfxsSetArrayCacheLimit(10u << 20);
  std::wstring file = writeFile("a.afxs", 2, 5000, 5);
  loadAndCheck(file);
  ASSERT_GT(luAfxsArrayCacheBytes(), 0u);
  luAfxsSetArrayCacheEnabled(false);
  EXPECT_FALSE(luAfxsArrayCacheEnabled());
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
  EXPECT_EQ(luAfxsArrayCacheLimit(), 10u << 20);
  loadAndCheck(file);
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
}

TEST_F(ArrayCacheTest, ADestroyedDataSetsArraysServeTheNextLoad) {
  std::wstring file = writeFile("a.afxs", 3, 5000, 1);
  std::set<const void*> first = loadAndCheck(file);
  // Points, normals and result points (120,000 bytes each), distances and
  // aux positions and counts (40,000 and 20,000 bytes) of three records.
  EXPECT_GE(luAfxsArrayCacheBytes(), 3u * (3 * 120000 + 40000));
  std::set<const void*> second = loadAndCheck(file);
  EXPECT_EQ(first, second);
  EXPECT_GT(luAfxsArrayCacheBytes(), 0u);
}

TEST_F(ArrayCacheTest, AReusedArrayHoldsOnlyTheNewFilesValues) {
  std::wstring larger = writeFile("larger.afxs", 2, 7000, 10);
  loadAndCheck(larger);
  // Smaller records of other values take the larger arrays (under twice the
  // size): sizes and contents are the new file's alone.
  std::wstring smaller = writeFile("smaller.afxs", 2, 5000, 20);
  loadAndCheck(smaller);
}

TEST_F(ArrayCacheTest, AnArrayMoreThanTwiceTheSizeIsNotTaken) {
  loadAndCheck(writeFile("big.afxs", 1, 20000, 30));
  const size_t held = luAfxsArrayCacheBytes();
  ASSERT_GT(held, 0u);
  std::wstring small = writeFile("small.afxs", 1, 5000, 40);
  {
    LuAfxsUserLink link(small.c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    EXPECT_EQ(luAfxsArrayCacheBytes(), held);
  }
}

TEST_F(ArrayCacheTest, SmallArraysAreNotKept) {
  loadAndCheck(writeFile("small.afxs", 4, 50, 50));
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
}

// 400 points: 9,600 bytes of points, normals and result points, which are
// kept; the aux arrays (1,600 bytes) are not.
TEST_F(ArrayCacheTest, ArraysOfEightKiBAndMoreAreKept) {
  loadAndCheck(writeFile("eight.afxs", 2, 400, 55));
  const size_t points = 400 * sizeof(LuVec3);
  EXPECT_GE(luAfxsArrayCacheBytes(), 2 * 3 * points);
  EXPECT_LT(luAfxsArrayCacheBytes(), 2 * 3 * points + 2 * 3 * 1600);
}

TEST_F(ArrayCacheTest, TheCacheNeverHoldsMoreThanItsLimit) {
  luAfxsSetArrayCacheLimit(300000);
  EXPECT_EQ(luAfxsArrayCacheLimit(), 300000u);
  loadAndCheck(writeFile("a.afxs", 4, 5000, 60));
  EXPECT_GT(luAfxsArrayCacheBytes(), 0u);
  EXPECT_LE(luAfxsArrayCacheBytes(), 300000u);
}

TEST_F(ArrayCacheTest, ALoweredLimitFreesDownToIt) {
  loadAndCheck(writeFile("a.afxs", 4, 5000, 70));
  ASSERT_GT(luAfxsArrayCacheBytes(), 200000u);
  luAfxsSetArrayCacheLimit(200000);
  EXPECT_LE(luAfxsArrayCacheBytes(), 200000u);
}

TEST_F(ArrayCacheTest, LimitZeroTurnsTheCacheOffAndFreesEverything) {
  std::wstring file = writeFile("a.afxs", 2, 5000, 80);
  loadAndCheck(file);
  ASSERT_GT(luAfxsArrayCacheBytes(), 0u);
  luAfxsSetArrayCacheLimit(0);
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
  loadAndCheck(file);
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
}

TEST_F(ArrayCacheTest, ClearFreesEverythingAndKeepsTheLimit) {
  loadAndCheck(writeFile("a.afxs", 2, 5000, 90));
  ASSERT_GT(luAfxsArrayCacheBytes(), 0u);
  luAfxsClearArrayCache();
  EXPECT_EQ(luAfxsArrayCacheBytes(), 0u);
  EXPECT_EQ(luAfxsArrayCacheLimit(), m_limit);
}

// The data read of a field is the last read of its load: failing it leaves
// the field empty, although its array came from the cache with another
// record's values in it.
TEST_F(ArrayCacheTest, AFailedReadLeavesTheFieldEmpty) {
  std::wstring file = writeFile("a.afxs", 1, 5000, 100);
  uint64_t reads = 0;
  {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(0));
    luIoResetCounts();
    ASSERT_TRUE((*set.begin())->load(LU_AFXS_MASK_POINTS));
    reads = luIoCallCount(LuIoOp::Read);
    ASSERT_EQ((*set.begin())->getPlaneData().points, m_planes[0].points);
  }
  ASSERT_GT(luAfxsArrayCacheBytes(), 0u);
  LuAfxsUserLink link(file.c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(0));
  luIoFaultArm(LuIoOp::Read, reads);
  EXPECT_FALSE((*set.begin())->load(LU_AFXS_MASK_POINTS));
  EXPECT_TRUE(luIoFaultFired());
  luIoFaultDisarm();
  EXPECT_TRUE((*set.begin())->getPlaneData().points.empty());
  // The field loads in full on the next try.
  EXPECT_TRUE((*set.begin())->load(LU_AFXS_MASK_POINTS));
  EXPECT_EQ((*set.begin())->getPlaneData().points, m_planes[0].points);
}

TEST_F(ArrayCacheTest, LoadsOnSeveralThreadsShareTheCache) {
  std::vector<std::wstring> files;
  std::vector<std::vector<LuAfxsPlane>> planes;
  for (int t = 0; t < 4; ++t) {
    files.push_back(writeFile("t" + std::to_string(t) + ".afxs", 2, 4000 + 500 * t, 200 + t));
    planes.push_back(m_planes);
  }
  std::vector<int> failures(4, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 10; ++round) {
        LuAfxsUserLink link(files[t].c_str());
        LuAfxsUserDataSet set(link);
        if (!set.load(LU_AFXS_MASK_POINTS | LU_AFXS_MASK_DISTANCES)) {
          ++failures[t];
          continue;
        }
        size_t i = 0;
        for (LuAfxsUserData* d : set) {
          const LuAfxsPlane& want = planes[t][i++];
          if (d->getPlaneData().points != want.points ||
              d->getPlaneData().distances != want.distances)
            ++failures[t];
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, std::vector<int>(4, 0));
  EXPECT_LE(luAfxsArrayCacheBytes(), luAfxsArrayCacheLimit());
}

}  // namespace
}  // namespace lutest
