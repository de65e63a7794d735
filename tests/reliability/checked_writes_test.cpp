// Checked to the end: the last buffered bytes of a writer go out with a
// flush or a close, and a failure there is reported with the code of the
// operation it belongs to, turns the link not OK and makes the destructor
// delete the partial file.
#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class CheckedWritesTest : public ReaderTest {
protected:
  void TearDown() override {
    luIoFaultDisarm();
    ReaderTest::TearDown();
  }
  void expectWriterReport(uint32_t code, int line) {
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].code, code);
    EXPECT_EQ(reports()[0].line, line);
    EXPECT_EQ(reports()[0].source, L"LuAfxsCreateIface");
    EXPECT_EQ(reports()[0].path, wpath("out.afxs"));
  }
  bool flushPlane(LuAfxsCreateLink& link, uint32_t planeId) {
    const LuAfxsPlane p = randomPlane(planeId, 1, 16, planeId + 3);
    LuAfxsCreateData data(link, planeId, 1);
    data.setPoints(reinterpret_cast<const double(*)[3]>(p.points.data()), p.points.size());
    data.setSegments(p.segments.data(), p.segments.size());
    return data.flush();
  }
};

TEST_F(CheckedWritesTest, DataFlushReportsARecordThatCannotBeHandedToTheSystem) {
  {
    LuAfxsCreateLink link(wpath("out.afxs").c_str());
    ASSERT_TRUE(link.create(true));
    ASSERT_TRUE(flushPlane(link, 0));
    luIoFaultArm(LuIoOp::Flush, 1);
    EXPECT_FALSE(flushPlane(link, 1));
    EXPECT_TRUE(luIoFaultFired());
    luIoFaultDisarm();
    EXPECT_FALSE(link.isOK());
    expectWriterReport(0xc41b0013, 576);
    link.release();
  }
  EXPECT_FALSE(fs::exists(path("out.afxs")));
}

TEST_F(CheckedWritesTest, FailedCloseReportsTheStateLineCodeAndDeletesTheFile) {
  {
    LuAfxsCreateLink link(wpath("out.afxs").c_str());
    ASSERT_TRUE(link.create(true));
    ASSERT_TRUE(flushPlane(link, 0));
    link.release();
    luIoFaultArm(LuIoOp::Close, 1);
    link.closeFile(true);
    EXPECT_TRUE(luIoFaultFired());
    luIoFaultDisarm();
    EXPECT_FALSE(link.isOK());
    expectWriterReport(0xc41b0006, 406);
  }
  EXPECT_FALSE(fs::exists(path("out.afxs")));
}

TEST_F(CheckedWritesTest, CreateThatClosesChecksTheClose) {
  {
    LuAfxsCreateLink link(wpath("out.afxs").c_str());
    luIoFaultArm(LuIoOp::Close, 1);
    EXPECT_FALSE(link.create(false));
    EXPECT_TRUE(luIoFaultFired());
    luIoFaultDisarm();
    expectWriterReport(0xc41b0006, 406);
    link.release();
  }
  EXPECT_FALSE(fs::exists(path("out.afxs")));
}

TEST_F(CheckedWritesTest, CreateThatKeepsTheFileOpenFlushesItsHeader) {
  {
    LuAfxsCreateLink link(wpath("out.afxs").c_str());
    luIoFaultArm(LuIoOp::Flush, 1);
    EXPECT_FALSE(link.create(true));
    EXPECT_TRUE(luIoFaultFired());
    luIoFaultDisarm();
    expectWriterReport(0xc41b000a, 189);
  }
  EXPECT_FALSE(fs::exists(path("out.afxs")));
}

TEST_F(CheckedWritesTest, CamerasRecordIsHandedToTheSystemBeforeSuccess) {
  LuAfxsCreateLink link(wpath("out.afxs").c_str());
  ASSERT_TRUE(link.create(false));
  link.getCameras().cameras = {{1, 2, 3}};
  luIoFaultArm(LuIoOp::Flush, 1);
  EXPECT_FALSE(link.createCamerasRecord());
  EXPECT_TRUE(luIoFaultFired());
  luIoFaultDisarm();
  expectWriterReport(0xc41b0004, 233);
  EXPECT_FALSE(link.isOK());
}

// Every record a data object reports as written is in the file before the
// link is closed: another reader sees it while the writer keeps it open.
TEST_F(CheckedWritesTest, AFlushedRecordIsInTheFileWhileTheLinkKeepsItOpen) {
  LuAfxsCreateLink link(wpath("out.afxs").c_str());
  ASSERT_TRUE(link.create(true));
  ASSERT_TRUE(flushPlane(link, 0));
  const std::vector<uint8_t> bytes = readBytes(path("out.afxs"));
  const size_t before = bytes.size();
  ASSERT_TRUE(flushPlane(link, 1));
  EXPECT_GT(readBytes(path("out.afxs")).size(), before);
  link.release();
}

TEST_F(CheckedWritesTest, DriversOutputIsCheckedAsItCloses) {
  // The drivers close their output through the create link: a failed close
  // there is the link's failure, and the output does not survive it.
  LuAfxsCreateLink link(wpath("out.afxs").c_str());
  ASSERT_TRUE(link.create(true));
  ASSERT_TRUE(flushPlane(link, 0));
  link.release();
  luIoFaultArmSticky(LuIoOp::Close, 1);
  link.closeFile(true);
  luIoFaultDisarm();
  EXPECT_FALSE(link.isOK());
}

}  // namespace
}  // namespace lutest
