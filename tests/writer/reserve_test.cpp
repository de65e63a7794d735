// LuAfxsCreateLink::reserve: room reserved ahead changes neither the bytes
// nor the size of the file, what is not written goes back at the close, and
// a refused reservation changes nothing.
#include <luAnaf/luAnaf.h>

#include <cstdint>
#include <vector>

#include "support/writer_support.h"

namespace lutest {
namespace {

constexpr uint64_t kMiB = uint64_t{1} << 20;

class ReserveTest : public WriterTest {
protected:
  // Writes `records` records of 2,000 points with every group into `name`,
  // reserving `reserved` bytes after the create when it is not 0; returns
  // what reserve() answered (false when nothing was asked).
  bool writeFile(const std::string& name, uint64_t reserved, uint32_t records = 6) {
    auto link = makeLink(name);
    EXPECT_TRUE(link->create(true));
    const bool answer = reserved != 0 && link->reserve(reserved);
    for (uint32_t r = 0; r < records; ++r)
      EXPECT_TRUE(flushPlane(*link, r / 2, r % 2 + 1, 2000, LU_AFXS_MASK_ALL));
    link->release();
    link->closeFile(true);
    EXPECT_TRUE(link->isOK());
    return answer;
  }
  bool reservesHere() const { return reservesRoom(path("probe.afxs")); }
  uint64_t allocated(const std::string& name) const { return allocatedBytes(path(name)); }
};

TEST_F(ReserveTest, TheFileIsByteForByteTheSameWithAndWithoutIt) {
  writeFile("plain.afxs", 0);
  writeFile("reserved.afxs", 4 * kMiB);
  EXPECT_EQ(bytes("reserved.afxs"), bytes("plain.afxs"));
  EXPECT_TRUE(luAfxsInspect(wpath("reserved.afxs"), true).clean());
}

TEST_F(ReserveTest, RoomNotWrittenGoesBackAtTheClose) {
  const bool reserved = writeFile("reserved.afxs", 64 * kMiB, 2);
#if defined(_WIN32)
  EXPECT_FALSE(reserved);  // the platform has no such call: a hint only
#else
  if (!reserved) GTEST_SKIP() << "the file system of the test folder reserves nothing";
  // Two records of about 150 kB: what stays allocated is the file, not the
  // 64 MiB asked for.
  const uint64_t size = sizeOf("reserved.afxs");
  EXPECT_LT(size, kMiB);
  EXPECT_LE(allocated("reserved.afxs"), size + 64 * 1024);
#endif
}

TEST_F(ReserveTest, WhileTheLinkWritesTheRoomIsHeldAndTheSizeIsWhatWasWritten) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  if (!link->reserve(8 * kMiB)) GTEST_SKIP() << "nothing reserved here";
  ASSERT_TRUE(flushPlane(*link, 0, 1, 100, LU_AFXS_MASK_ALL));
  // The record is in the file; the size is the records', not the room's.
  const uint64_t size = sizeOf();
  EXPECT_LT(size, kMiB);
  EXPECT_GE(allocated("out.afxs"), 8 * kMiB);
  link->release();
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), size);
  EXPECT_LT(allocated("out.afxs"), kMiB);
}

TEST_F(ReserveTest, IsRefusedBeforeTheCreateAndWithoutKeepOpen) {
  auto early = makeLink("early.afxs");
  EXPECT_FALSE(early->reserve(kMiB));
  auto reopening = makeLink("reopening.afxs");
  ASSERT_TRUE(reopening->create(false));
  EXPECT_FALSE(reopening->reserve(kMiB));
  EXPECT_TRUE(flushPlane(*reopening, 0, 1));
  reopening->release();
}

TEST_F(ReserveTest, MoreThanHalfTheVolumesFreeRoomIsRefused) {
  // Five eighths of what is free: the volume could hold it, but a
  // reservation never takes more than half of it from other writers.
  const uint64_t free = fs::space(path("")).available;
  const uint64_t asked = free / 2 + free / 8;
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  EXPECT_FALSE(link->reserve(asked));
  EXPECT_LT(allocated("out.afxs"), kMiB);
  EXPECT_TRUE(flushPlane(*link, 0, 1));
  link->release();
}

TEST_F(ReserveTest, ARequestNoVolumeHoldsIsRefusedAndTheWriteGoesOn) {
  // No volume here has an exabyte left; nothing is reserved, and the file
  // is written as without the call.
  EXPECT_FALSE(writeFile("huge.afxs", uint64_t{1} << 60));
  writeFile("plain.afxs", 0);
  EXPECT_EQ(bytes("huge.afxs"), bytes("plain.afxs"));
  EXPECT_LT(allocated("huge.afxs"), 4 * kMiB);
}

TEST_F(ReserveTest, ALinkKeptOpenReservesAheadOnItsOwnOnceTheFilePassesAMebibyte) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  // Under a mebibyte nothing is reserved.
  ASSERT_TRUE(flushPlane(*link, 0, 1, 2000, LU_AFXS_MASK_ALL));
  EXPECT_LE(allocated("out.afxs"), sizeOf() + 64 * 1024);
  for (uint32_t r = 1; r < 12; ++r)
    ASSERT_TRUE(flushPlane(*link, r / 2, r % 2 + 1, 2000, LU_AFXS_MASK_ALL));
  const uint64_t size = sizeOf();
  ASSERT_GT(size, kMiB);
#if defined(_WIN32)
  EXPECT_LE(allocated("out.afxs"), size + 64 * 1024);  // the platform reserves nothing
#else
  if (!reservesHere()) GTEST_SKIP() << "the file system of the test folder reserves nothing";
  // At least a mebibyte ahead, at most as much again as the file holds.
  EXPECT_GE(allocated("out.afxs"), size + kMiB - 64 * 1024);
  EXPECT_LE(allocated("out.afxs"), 2 * size + kMiB);
#endif
  link->release();
  link->closeFile(true);
  EXPECT_EQ(sizeOf(), size);
  EXPECT_LE(allocated("out.afxs"), size + 64 * 1024);
  EXPECT_TRUE(luAfxsInspect(wpath("out.afxs"), true).clean());
}

TEST_F(ReserveTest, ReservingAheadLeavesTheBytesAsALinkThatReopensWritesThem) {
  // A link without keepOpen closes the file after every record and never
  // reserves; the bytes are the same either way.
  writeFile("ahead.afxs", 0, 12);
  auto reopening = makeLink("reopening.afxs");
  ASSERT_TRUE(reopening->create(false));
  for (uint32_t r = 0; r < 12; ++r) {
    ASSERT_TRUE(flushPlane(*reopening, r / 2, r % 2 + 1, 2000, LU_AFXS_MASK_ALL));
    EXPECT_LE(allocated("reopening.afxs"), sizeOf("reopening.afxs") + 64 * 1024);
  }
  reopening->release();
  reopening.reset();
  EXPECT_EQ(bytes("ahead.afxs"), bytes("reopening.afxs"));
}

TEST_F(ReserveTest, ARewriteOfALargeFileHoldsNoRoomBehindItsEnd) {
  // The removal rewrites the file through a link kept open, which reserves
  // ahead as the rewrite passes a mebibyte and gives the room back before
  // the rewrite goes to the device.
  writeFile("large.afxs", 0, 20);
  {
    LuAfxsUserLink link(wpath("large.afxs").c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.remove(LU_AFXS_MASK_NORMALS));
  }
  const uint64_t size = sizeOf("large.afxs");
  EXPECT_GT(size, kMiB);
  EXPECT_LE(allocated("large.afxs"), size + 64 * 1024);
  const LuAfxsInspection inspection = luAfxsInspect(wpath("large.afxs"), true);
  EXPECT_TRUE(inspection.clean());
}

TEST_F(ReserveTest, AGrowingFileAsksForRoomAFewTimesNotOncePerRecord) {
  // 20 records of about 160 kB: past the first mebibyte the link asks for
  // as much again as the file holds, so 3.2 MB take two or three calls
  // (one where the system refuses the first: it then stops asking).
  luIoResetCounts();
  writeFile("growing.afxs", 0, 20);
  ASSERT_GT(sizeOf("growing.afxs"), 3 * kMiB);
  const uint64_t calls = luIoCallCount(LuIoOp::Reserve);
  EXPECT_GE(calls, 1u);
  EXPECT_LE(calls, 3u);
}

TEST_F(ReserveTest, AfterTheFirstRefusalTheLinkAsksNoMore) {
  writeFile("plain.afxs", 0, 20);
  luIoFaultArm(LuIoOp::Reserve, 1);
  writeFile("refused.afxs", 0, 20);
  EXPECT_TRUE(luIoFaultFired());
  EXPECT_EQ(luIoCallCount(LuIoOp::Reserve), 1u);
  luIoFaultDisarm();
  // A refusal is no failure: the file is whole, byte for byte, and holds
  // no room behind its end.
  EXPECT_EQ(bytes("refused.afxs"), bytes("plain.afxs"));
  EXPECT_LE(allocated("refused.afxs"), sizeOf("refused.afxs") + 64 * 1024);
  EXPECT_TRUE(luAfxsInspect(wpath("refused.afxs"), true).clean());
}

TEST_F(ReserveTest, AFailedLinkReservesNothing) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(true));
  link->isOK(false);
  EXPECT_FALSE(link->reserve(kMiB));
  EXPECT_LT(allocated("out.afxs"), kMiB);
}

}  // namespace
}  // namespace lutest
