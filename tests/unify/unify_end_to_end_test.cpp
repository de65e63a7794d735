// A cross-section of three scans of 20 planes each, unified with real output
// ids and with kept subset ids, blending off and on; then a fourth scan is
// added and one is removed, the output read back after every call.
#include <map>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/unify_scans.h"

namespace lutest {
namespace {

using ::testing::IsEmpty;

constexpr uint32_t kKeep = 0xFFFFFFFF;
constexpr uint32_t kPlanes = 20;
constexpr uint32_t kXsId = 11;

class UnifyEndToEndTest : public UnifyTest {
protected:
  void SetUp() override {
    UnifyTest::SetUp();
    LuAfxsUserDataSet::SetCurrentXSId(kXsId);
    // Overlapping arcs around one circle: 0-130, 110-250, 230-370, 350-480 degrees.
    for (uint32_t s = 0; s < 4; ++s) {
      ArcShape arcShape;
      arcShape.startDeg = 120.0 * s;
      arcShape.endDeg = 120.0 * s + 130.0;
      arcShape.points = 40;
      m_shapes.push_back(arcShape);
    }
  }
  std::string scanName(uint32_t s) const { return "scan" + std::to_string(s + 1) + ".afxs"; }
  void writeScans(uint32_t count) {
    std::vector<uint32_t> planeIds;
    for (uint32_t p = 0; p < kPlanes; ++p) planeIds.push_back(p);
    for (uint32_t s = 0; s < count; ++s) writeScan(scanName(s), s + 1, planeIds, m_shapes[s]);
  }
  std::vector<LuAfxsUserDataSet*> openScans(uint32_t first, uint32_t count) {
    std::vector<LuAfxsUserDataSet*> sets;
    // Loaded first, as a client does to look at them: the cross-section's
    // header (its plane normal steers the blend) is taken before the drivers
    // load anything.
    for (uint32_t s = first; s < first + count; ++s) {
      sets.push_back(dataSet(scanName(s)));
      EXPECT_TRUE(sets.back()->load(LU_AFXS_MASK_ALL));
    }
    return sets;
  }
  // Every plane holds the records of the given scans (by index), in order,
  // under the given subset ids.
  std::vector<RecordCounts> unblended(const std::vector<uint32_t>& scans,
                                      const std::vector<uint32_t>& subsetIds) const {
    std::vector<RecordCounts> records;
    for (uint32_t p = 0; p < kPlanes; ++p) {
      for (size_t i = 0; i < scans.size(); ++i) {
        records.push_back(
            countsOf(makeArcPlane(p, subsetIds[i], m_shapes[scans[i]]), subsetIds[i]));
      }
    }
    return records;
  }
  std::wstring blendLine(uint32_t plane, uint32_t first, uint32_t second) const {
    return L"LuAfxsUserDataSet::UnifyMultiplePlanesBySubsetAndFlush()- LuAfxsCreateData:: "
           L"BlendXSections Succeeded iPlane = " +
           std::to_wstring(plane) + L", iSubset1 = " + std::to_wstring(first) + L", iSubset2 = " +
           std::to_wstring(second);
  }
  // With blending on: a plane whose blend succeeded holds one record under
  // the first subset id, with every per-point field parallel and at least
  // the first scan's points; any other plane holds every scan's record.
  // Returns the number of blended planes.
  uint32_t checkBlendedOutput(const std::vector<RecordCounts>& records,
                              const std::vector<uint32_t>& scans,
                              const std::vector<uint32_t>& subsetIds) {
    std::map<uint32_t, std::vector<RecordCounts>> byPlane;
    for (const RecordCounts& r : records) byPlane[r.planeId].push_back(r);
    uint32_t blended = 0;
    for (uint32_t p = 0; p < kPlanes; ++p) {
      SCOPED_TRACE("plane " + std::to_string(p));
      const auto& got = byPlane[p];
      if (capture().logged(blendLine(p, subsetIds[0], subsetIds[1]))) {
        ++blended;
        EXPECT_EQ(got.size(), 1u);
        if (got.size() != 1) continue;
        EXPECT_EQ(got[0].subsetId, subsetIds[0]);
        EXPECT_GE(got[0].points, m_shapes[scans[0]].points);
        EXPECT_EQ(got[0].normals, got[0].points);
        EXPECT_EQ(got[0].resPoints, got[0].points);
        EXPECT_EQ(got[0].distances, got[0].points);
        EXPECT_GE(got[0].segments, 2u);
        EXPECT_TRUE(exists("P" + std::to_string(p) + "_S" + std::to_string(subsetIds[0]) + "_Id" +
                           std::to_string(kXsId) + "_BLND_COP_BlendOnly.xyz"));
      } else {
        EXPECT_EQ(got.size(), scans.size());
        if (got.size() != scans.size()) continue;
        for (size_t i = 0; i < scans.size(); ++i) {
          EXPECT_EQ(got[i],
                    countsOf(makeArcPlane(p, subsetIds[i], m_shapes[scans[i]]), subsetIds[i]));
        }
      }
    }
    return blended;
  }

  std::vector<ArcShape> m_shapes;
};

TEST_F(UnifyEndToEndTest, RealOutputIdsWithBlendingOffWriteEveryScanUnderItsId) {
  writeScans(3);
  EXPECT_FALSE(unify(openScans(0, 3), {10, 20, 30}, "xs.afxs"));
  EXPECT_EQ(readOutput("xs.afxs").value(), unblended({0, 1, 2}, {10, 20, 30}));
  EXPECT_THAT(capture().messages(5), IsEmpty());
}

TEST_F(UnifyEndToEndTest, KeptIdsWithBlendingOffWriteEveryScanUnderItsOwnSubset) {
  writeScans(3);
  EXPECT_FALSE(unify(openScans(0, 3), {kKeep, kKeep, kKeep}, "xs.afxs"));
  EXPECT_EQ(readOutput("xs.afxs").value(), unblended({0, 1, 2}, {1, 2, 3}));
  EXPECT_THAT(capture().messages(5), IsEmpty());
}

TEST_F(UnifyEndToEndTest, RealOutputIdsWithBlendingOnBlendTheFirstTwoScansOfEachPlane) {
  writeScans(3);
  LuAfxsUserDataSet::SupportXSectionBlending(true);
  EXPECT_FALSE(unify(openScans(0, 3), {10, 20, 30}, "xs.afxs"));
  const uint32_t blended =
      checkBlendedOutput(readOutput("xs.afxs").value(), {0, 1, 2}, {10, 20, 30});
  EXPECT_EQ(blended, kPlanes);  // the first two arcs overlap on every plane
}

TEST_F(UnifyEndToEndTest, KeptIdsWithBlendingOnWriteNoPlane) {
  writeScans(3);
  LuAfxsUserDataSet::SupportXSectionBlending(true);
  EXPECT_FALSE(unify(openScans(0, 3), {kKeep, kKeep, kKeep}, "xs.afxs"));
  EXPECT_EQ(countLogged(5, L"LuAfxsUserDataSet::UnifyMultipleDataSets()- Exception: "), 1u);
  EXPECT_THAT(readOutput("xs.afxs").value(), IsEmpty());
}

TEST_F(UnifyEndToEndTest, AddingAndRemovingScansRewritesTheOutputEachTime) {
  writeScans(4);
  EXPECT_FALSE(unify(openScans(0, 3), {10, 20, 30}, "xs.afxs"));
  EXPECT_EQ(readOutput("xs.afxs").value(), unblended({0, 1, 2}, {10, 20, 30}));

  EXPECT_FALSE(add(openScans(3, 1), {40}, "xs.afxs"));
  EXPECT_EQ(readOutput("xs.afxs").value(), unblended({0, 1, 2, 3}, {10, 20, 30, 40}));

  std::vector<uint32_t> ids{20};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "xs.afxs"));
  EXPECT_EQ(remaining, 3u);
  EXPECT_EQ(m_destroyed, std::vector<std::string>{"scan2.afxs"});
  EXPECT_EQ(readOutput("xs.afxs").value(), unblended({0, 2, 3}, {10, 30, 40}));
  EXPECT_THAT(capture().messages(5), IsEmpty());
}

TEST_F(UnifyEndToEndTest, AddingAndRemovingScansWithBlendingOnBlendsTheFirstTwoRegistered) {
  writeScans(4);
  LuAfxsUserDataSet::SupportXSectionBlending(true);
  EXPECT_FALSE(unify(openScans(0, 3), {10, 20, 30}, "xs.afxs"));
  checkBlendedOutput(readOutput("xs.afxs").value(), {0, 1, 2}, {10, 20, 30});

  capture().clear();
  EXPECT_FALSE(add(openScans(3, 1), {40}, "xs.afxs"));
  checkBlendedOutput(readOutput("xs.afxs").value(), {0, 1, 2, 3}, {10, 20, 30, 40});

  capture().clear();
  std::vector<uint32_t> ids{10};
  uint32_t remaining = 0;
  EXPECT_FALSE(removeIds(ids, remaining, "xs.afxs"));
  EXPECT_EQ(remaining, 3u);
  // scan2 and scan3 are now first and second: 110-250 and 230-370 overlap.
  const uint32_t blended =
      checkBlendedOutput(readOutput("xs.afxs").value(), {1, 2, 3}, {20, 30, 40});
  EXPECT_EQ(blended, kPlanes);
}

}  // namespace
}  // namespace lutest
