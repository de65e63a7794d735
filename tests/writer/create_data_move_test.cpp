// The setters that take the caller's vectors: the same arrays, mask and
// record as the copying setters, without a copy.
#include <luAnaf/luAnaf.h>

#include <vector>

#include "support/writer_support.h"

namespace lutest {
namespace {

class CreateDataMoveTest : public CreatedLinkTest {};

void expectSamePlane(const LuAfxsPlane& a, const LuAfxsPlane& b) {
  EXPECT_EQ(a.points, b.points);
  EXPECT_EQ(a.normals, b.normals);
  EXPECT_EQ(a.resPoints, b.resPoints);
  EXPECT_EQ(a.segments, b.segments);
  EXPECT_EQ(a.auxCtrlPos, b.auxCtrlPos);
  EXPECT_EQ(a.auxCtrlCounts, b.auxCtrlCounts);
  EXPECT_EQ(a.auxCtrlOffsets, b.auxCtrlOffsets);
  EXPECT_EQ(a.auxCtrlFirst, b.auxCtrlFirst);
  EXPECT_EQ(a.distances, b.distances);
}

TEST_F(CreateDataMoveTest, GivesWhatTheCopyingSettersGive) {
  const auto pts = pointsOf(4);
  const auto nrm = pointsOf(4, 7);
  const auto res = pointsOf(4, 9);
  const std::vector<int32_t> segs = {2, 4};
  const std::vector<uint32_t> pos = {5, 6, 7, 8, 9};
  const std::vector<uint32_t> counts = {2, 0, 2, 1};
  const std::vector<double> dist = {0.5, 1.5, 2.5, 3.5};

  LuAfxsCreateData copied(*link, 1, 2);
  copied.setPoints(raw(pts), pts.size());
  copied.setNormals(raw(nrm), nrm.size());
  copied.setResPoints(raw(res), res.size());
  copied.setSegments(segs.data(), segs.size());
  copied.setAuxCtrlPos(pos.data(), pos.size(), counts.data(), counts.size());
  copied.setDistances(dist.data(), dist.size());

  LuAfxsCreateData moved(*link, 1, 2);
  auto p = pts, n = nrm, r = res;
  auto s = segs;
  auto ap = pos, ac = counts;
  auto d = dist;
  const LuVec3* pointsMemory = p.data();
  moved.setPoints(std::move(p));
  moved.setNormals(std::move(n));
  moved.setResPoints(std::move(r));
  moved.setSegments(std::move(s));
  moved.setAuxCtrlPos(std::move(ap), std::move(ac));
  moved.setDistances(std::move(d));

  EXPECT_EQ(moved.state(), copied.state());
  EXPECT_EQ(moved.state(), static_cast<uint32_t>(LU_AFXS_MASK_ALL));
  expectSamePlane(moved.plane(), copied.plane());
  // Taken, not copied; the arguments come back empty.
  EXPECT_EQ(moved.plane().points.data(), pointsMemory);
  EXPECT_TRUE(p.empty() && n.empty() && r.empty() && s.empty() && ap.empty() && ac.empty() &&
              d.empty());
}

TEST_F(CreateDataMoveTest, WritesTheSameRecord) {
  const auto pts = pointsOf(3);
  {
    LuAfxsCreateData data(*link, 0, 1);
    data.setPoints(raw(pts), pts.size());
    ASSERT_TRUE(data.flush());
  }
  {
    LuAfxsCreateData data(*link, 0, 2);
    data.setPoints(std::vector<LuVec3>(pts));
    ASSERT_TRUE(data.flush());
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  std::vector<afxstest::Record> subsets;
  for (const auto& rec : file.records)
    if (rec.kind == LU_AFXS_REC_PLANE_SUBSET) subsets.push_back(rec);
  ASSERT_EQ(subsets.size(), 2u);
  ASSERT_EQ(subsets[0].fields.size(), subsets[1].fields.size());
  for (size_t i = 0; i < subsets[0].fields.size(); ++i) {
    EXPECT_EQ(subsets[0].fields[i].id, subsets[1].fields[i].id);
    EXPECT_EQ(subsets[0].fields[i].count, subsets[1].fields[i].count);
    EXPECT_EQ(subsets[0].fields[i].data, subsets[1].fields[i].data);
  }
}

TEST_F(CreateDataMoveTest, EmptyVectorsChangeNothing) {
  LuAfxsCreateData data(*link, 0, 1);
  data.setPoints(std::vector<LuVec3>{});
  data.setNormals(std::vector<LuVec3>{});
  data.setResPoints(std::vector<LuVec3>{});
  data.setSegments(std::vector<int32_t>{});
  data.setDistances(std::vector<double>{});
  data.setAuxCtrlPos(std::vector<uint32_t>{}, std::vector<uint32_t>{1});
  EXPECT_EQ(data.state(), 0u);
}

TEST_F(CreateDataMoveTest, RefusedAuxGroupsLeaveBothArguments) {
  LuAfxsCreateData data(*link, 0, 1);
  std::vector<uint32_t> pos = {1, 2};
  std::vector<uint32_t> counts = {2, 1};  // runs past the positions
  data.setAuxCtrlPos(std::move(pos), std::move(counts));
  EXPECT_EQ(data.state(), 0u);
  EXPECT_EQ(pos, (std::vector<uint32_t>{1, 2}));
  EXPECT_EQ(counts, (std::vector<uint32_t>{2, 1}));
  EXPECT_TRUE(data.plane().auxCtrlPos.empty());
}

TEST_F(CreateDataMoveTest, TheArgumentComesBackWithAnEarlierRecordsRoom) {
  std::vector<LuVec3> client = pointsOf(1000);
  {
    LuAfxsCreateData data(*link, 0, 1);
    data.setPoints(std::move(client));
    ASSERT_TRUE(data.flush());
  }
  // The next data object starts with the link's spare arrays, which it
  // hands to the client in exchange.
  client = pointsOf(10);
  LuAfxsCreateData data(*link, 0, 2);
  data.setPoints(std::move(client));
  EXPECT_TRUE(client.empty());
  EXPECT_GE(client.capacity(), 1000u);
}

}  // namespace
}  // namespace lutest
