// Updates that cannot half-happen: a results flush that fails at any I/O
// call puts the file back byte for byte; a remove that fails at any I/O
// call leaves the original byte for byte; a link refuses to update a file
// that changed underneath it.
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/quick_mode.h"
#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class SafeUpdateTest : public ReaderTest {
protected:
  void TearDown() override {
    luIoFaultDisarm();
    ReaderTest::TearDown();
  }

  // Two planes of one subset, points, segments and distances (the latter for
  // a remove to take away), and a cameras record.
  void writeSample() {
    ASSERT_TRUE(writeWithWriter(
        wpath("data.afxs"), LuAfxsHeader(), {{1, 2, 3}},
        {{randomPlane(0, 1, 40, 11), 1 | 2 | 32}, {randomPlane(1, 1, 30, 12), 1 | 2 | 32}}));
  }

  // Another link of this process appends results to record `index` of the
  // sample, and the file's bytes afterwards.
  std::vector<uint8_t> flushThroughAnotherLink(size_t index) {
    LuAfxsUserLink other(wpath("data.afxs").c_str());
    LuAfxsUserDataSet otherSet(other);
    EXPECT_TRUE(otherSet.load(LU_AFXS_MASK_ALL));
    const double dist[1] = {9};
    LuAfxsUserData* d = *std::next(otherSet.begin(), static_cast<long>(index));
    d->setDistances(dist, 1);
    EXPECT_TRUE(d->flush());
    otherSet.closefile();
    return readBytes(path("data.afxs"));
  }

  // The points, distances and result points of every record, as a fresh
  // link on a copy reads them; nullopt when the file does not load.
  std::optional<std::string> contents(const std::string& name) {
    fs::remove(path("probe.afxs"));
    fs::copy_file(path(name), path("probe.afxs"));
    LuAfxsUserLink link(wpath("probe.afxs").c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(LU_AFXS_MASK_ALL)) return std::nullopt;
    std::string out;
    for (const LuAfxsUserData* d : set) {
      const LuAfxsPlane& p = d->getPlaneData();
      out += std::to_string(p.planeId) + ":" + std::to_string(p.points.size()) + "," +
             std::to_string(p.distances.size()) + "," + std::to_string(p.resPoints.size()) + ";";
      out.append(reinterpret_cast<const char*>(p.resPoints.data()),
                 p.resPoints.size() * sizeof(LuVec3));
    }
    return out;
  }

  // Loads the sample, attaches results to the first record and flushes it
  // with the nth I/O call failing (0: none). The I/O calls of the flush.
  std::pair<bool, uint64_t> flushResults(uint64_t failing) {
    LuAfxsUserLink link(wpath("data.afxs").c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_TRUE(set.load(LU_AFXS_MASK_ALL));
    LuAfxsUserData* d = *set.begin();
    const std::vector<LuVec3> res{{1, 1, 1}, {2, 2, 2}, {3, 3, 3}};
    d->setResPoints(reinterpret_cast<const double(*)[3]>(res.data()), res.size());
    luIoResetCounts();
    if (failing != 0) luIoFaultArm(LuIoOp::Any, failing);
    const bool flushed = d->flush();
    luIoFaultDisarm();
    const uint64_t calls = luIoCallCount(LuIoOp::Any);
    return {flushed, calls};
  }

  std::pair<bool, uint64_t> removeDistances(uint64_t failing) {
    LuAfxsUserLink link(wpath("data.afxs").c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_TRUE(set.load(0));
    luIoResetCounts();
    if (failing != 0) luIoFaultArm(LuIoOp::Any, failing);
    const bool removed = set.remove(LU_AFXS_MASK_DISTANCES);
    luIoFaultDisarm();
    return {removed, luIoCallCount(LuIoOp::Any)};
  }
};

TEST_F(SafeUpdateTest, ResultsFlushFailingAtAnyCallPutsTheFileBackByteForByte) {
  writeSample();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const std::optional<std::string> loaded = contents("data.afxs");
  ASSERT_TRUE(loaded.has_value());
  const auto [cleanOk, calls] = flushResults(0);
  ASSERT_TRUE(cleanOk);
  ASSERT_GT(calls, 5u);
  for (uint64_t n = 1; n <= calls; n += stride()) {
    SCOPED_TRACE("call " + std::to_string(n) + " of " + std::to_string(calls));
    fs::remove(path("data.afxs"));
    writeBytes(path("data.afxs"), before);
    capture().clear();
    const bool flushed = flushResults(n).first;
    if (flushed) {
      // Only a failing close of the link's own stream after the flush (its
      // bytes were in the system already) is got over.
      EXPECT_NE(contents("data.afxs"), loaded);
      continue;
    }
    EXPECT_TRUE(readBytes(path("data.afxs")) == before) << "file changed";
    EXPECT_EQ(contents("data.afxs"), loaded);
  }
}

TEST_F(SafeUpdateTest, ResultsFlushOnABrokenDeviceStillLoadsAsBefore) {
  writeSample();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const std::optional<std::string> loaded = contents("data.afxs");
  const uint64_t calls = flushResults(0).second;
  for (uint64_t n = 1; n <= calls; n += stride()) {
    SCOPED_TRACE("every call from " + std::to_string(n));
    fs::remove(path("data.afxs"));
    writeBytes(path("data.afxs"), before);
    LuAfxsUserLink link(wpath("data.afxs").c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    const double dist[2] = {0.5, 0.25};
    (*set.begin())->setDistances(dist, 2);
    luIoFaultArmSticky(LuIoOp::Any, n);
    const bool flushed = (*set.begin())->flush();
    set.closefile();
    luIoFaultDisarm();
    if (!flushed) {
      EXPECT_EQ(contents("data.afxs"), loaded);
    }
  }
}

TEST_F(SafeUpdateTest, ResultsFlushFailingAfterTheChainWasLinkedUndoesTheLink) {
  writeSample();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  auto flushDistances = [&](uint64_t failingWrite) {
    LuAfxsUserLink link(wpath("data.afxs").c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_TRUE(set.load(LU_AFXS_MASK_ALL));
    const double dist[1] = {0.5};
    (*set.begin())->setDistances(dist, 1);
    luIoResetCounts();
    if (failingWrite != 0) luIoFaultArm(LuIoOp::Write, failingWrite);
    const bool flushed = (*set.begin())->flush();
    luIoFaultDisarm();
    return std::make_pair(flushed, luIoCallCount(LuIoOp::Write));
  };
  // The last write of a flush is the results link, after the chain link.
  const auto [cleanOk, writes] = flushDistances(0);
  ASSERT_TRUE(cleanOk);
  fs::remove(path("data.afxs"));
  writeBytes(path("data.afxs"), before);
  capture().clear();
  EXPECT_FALSE(flushDistances(writes).first);
  EXPECT_TRUE(readBytes(path("data.afxs")) == before);
  ASSERT_FALSE(reports().empty());
  EXPECT_EQ(reports().back().code, 0xc41b0014u);
}

TEST_F(SafeUpdateTest, RemoveFailingAtAnyCallLeavesTheOriginalByteForByte) {
  writeSample();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const auto [cleanOk, calls] = removeDistances(0);
  ASSERT_TRUE(cleanOk);
  const std::optional<std::string> rewritten = contents("data.afxs");
  ASSERT_TRUE(rewritten.has_value());
  for (uint64_t n = 1; n <= calls; n += stride()) {
    SCOPED_TRACE("call " + std::to_string(n) + " of " + std::to_string(calls));
    fs::remove(path("data.afxs"));
    fs::remove(path("data.afxs.tmp"));
    writeBytes(path("data.afxs"), before);
    if (removeDistances(n).first) {
      // Got over the fault (a read whose stream is then refilled, a sync of
      // the folder after the move): the outcome is the clean one.
      EXPECT_EQ(contents("data.afxs"), rewritten);
      continue;
    }
    EXPECT_TRUE(readBytes(path("data.afxs")) == before) << "original changed";
  }
}

TEST_F(SafeUpdateTest, RemoveDoesNotReplaceTheOriginalWhenTheRewriteIsNotDurable) {
  writeSample();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  for (LuIoOp op : {LuIoOp::Sync, LuIoOp::Close, LuIoOp::Flush}) {
    SCOPED_TRACE(static_cast<int>(op));
    LuAfxsUserLink link(wpath("data.afxs").c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(0));
    luIoFaultArm(op, 1);
    EXPECT_FALSE(set.remove(LU_AFXS_MASK_DISTANCES));
    EXPECT_TRUE(luIoFaultFired());
    luIoFaultDisarm();
    set.closefile();
    EXPECT_TRUE(readBytes(path("data.afxs")) == before);
    // The failed rewrite is deleted by its own link.
    EXPECT_FALSE(fs::exists(path("data.afxs.tmp")));
  }
}

TEST_F(SafeUpdateTest, FlushRefusesAFileChangedUnderneathItsLink) {
  writeSample();
  LuAfxsUserLink first(wpath("data.afxs").c_str());
  LuAfxsUserDataSet firstSet(first);
  ASSERT_TRUE(firstSet.load(LU_AFXS_MASK_ALL));
  firstSet.closefile();
  const std::vector<uint8_t> changed = flushThroughAnotherLink(1);
  const double dist[1] = {1};
  (*firstSet.begin())->setDistances(dist, 1);
  EXPECT_FALSE((*firstSet.begin())->flush());
  firstSet.closefile();
  EXPECT_TRUE(readBytes(path("data.afxs")) == changed);
  ASSERT_FALSE(reports().empty());
  EXPECT_EQ(reports().back().code, 0xc41b0014u);
  EXPECT_EQ(reports().back().line, 493);
}

TEST_F(SafeUpdateTest, FlushRefusesAFileReplacedUnderneathItsLink) {
  writeSample();
  LuAfxsUserLink first(wpath("data.afxs").c_str());
  LuAfxsUserDataSet firstSet(first);
  ASSERT_TRUE(firstSet.load(LU_AFXS_MASK_ALL));
  firstSet.closefile();
  {
    LuAfxsUserLink other(wpath("data.afxs").c_str());
    LuAfxsUserDataSet otherSet(other);
    ASSERT_TRUE(otherSet.remove(LU_AFXS_MASK_DISTANCES));
  }
  const std::vector<uint8_t> replaced = readBytes(path("data.afxs"));
  const double dist[1] = {1};
  (*firstSet.begin())->setDistances(dist, 1);
  EXPECT_FALSE((*firstSet.begin())->flush());
  firstSet.closefile();
  EXPECT_TRUE(readBytes(path("data.afxs")) == replaced);
}

TEST_F(SafeUpdateTest, RemoveRefusesAFileChangedUnderneathItsLink) {
  writeSample();
  LuAfxsUserLink first(wpath("data.afxs").c_str());
  LuAfxsUserDataSet firstSet(first);
  ASSERT_TRUE(firstSet.load(LU_AFXS_MASK_ALL));
  const std::vector<uint8_t> changed = flushThroughAnotherLink(0);
  EXPECT_FALSE(firstSet.remove(LU_AFXS_MASK_DISTANCES));
  firstSet.closefile();
  EXPECT_TRUE(readBytes(path("data.afxs")) == changed);
  EXPECT_FALSE(fs::exists(path("data.afxs.tmp")));
}

TEST_F(SafeUpdateTest, LinksOfOneProcessNeverLockEachOtherOut) {
  writeSample();
  LuAfxsUserLink reader(wpath("data.afxs").c_str());
  LuAfxsUserDataSet readerSet(reader);
  ASSERT_TRUE(readerSet.load(LU_AFXS_MASK_ALL));  // keeps the file open, shared
  LuAfxsUserLink writer(wpath("data.afxs").c_str());
  LuAfxsUserDataSet writerSet(writer);
  ASSERT_TRUE(writerSet.load(LU_AFXS_MASK_ALL));
  const double dist[1] = {1};
  (*writerSet.begin())->setDistances(dist, 1);
  EXPECT_TRUE((*writerSet.begin())->flush());
  EXPECT_TRUE(reports().empty());
  // And the reader reads on while the writer still holds the file open.
  LuAfxsUserLink third(wpath("data.afxs").c_str());
  EXPECT_TRUE(third.verify(false));
}

TEST_F(SafeUpdateTest, VerifyReadsAgainAFileReplacedWithinTheSameSecond) {
  writeSample();
  ProbeUserLink link(wpath("data.afxs").c_str());
  ASSERT_TRUE(link.verify(false));
  ASSERT_EQ(link.planeIndex().size(), 2u);
  const auto time = fs::last_write_time(path("data.afxs"));
  ASSERT_TRUE(writeWithWriter(wpath("other.afxs"), LuAfxsHeader(), {},
                              {{randomPlane(0, 1, 10, 1), 1},
                               {randomPlane(1, 1, 10, 2), 1},
                               {randomPlane(2, 1, 10, 3), 1}}));
  fs::last_write_time(path("other.afxs"), time);
  fs::rename(path("other.afxs"), path("data.afxs"));
  ASSERT_TRUE(link.verify(false));
  EXPECT_EQ(link.planeIndex().size(), 3u);
}

}  // namespace
}  // namespace lutest
