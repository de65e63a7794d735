// Round trips: the checked-in samples read field by field against their JSON,
// files built byte by byte for every field mask, and random planes written by
// the writer and read back.
#include <random>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include <nlohmann/json.hpp>

#include "support/quick_mode.h"
#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

using nlohmann::json;

std::vector<LuVec3> vec3s(const json& j) {
  std::vector<LuVec3> out;
  for (const json& p : j)
    out.push_back({p[0].get<double>(), p[1].get<double>(), p[2].get<double>()});
  return out;
}

template <typename T>
std::vector<T> values(const json& j) {
  return j.get<std::vector<T>>();
}

void expectSameVec3s(const std::vector<LuVec3>& got, const std::vector<LuVec3>& want,
                     const char* what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) {
    EXPECT_EQ(got[i].x, want[i].x) << what << "[" << i << "]";
    EXPECT_EQ(got[i].y, want[i].y) << what << "[" << i << "]";
    EXPECT_EQ(got[i].z, want[i].z) << what << "[" << i << "]";
  }
}

// Every field of a loaded plane against the plane it was written from, for
// the groups in mask; groups outside mask must be empty.
void expectPlaneFields(const LuAfxsPlane& got, const LuAfxsPlane& want, uint32_t mask) {
  EXPECT_EQ(got.planeId, want.planeId);
  EXPECT_EQ(got.subsetId, want.subsetId);
  const std::vector<LuVec3> none;
  expectSameVec3s(got.points, (mask & 1) ? want.points : none, "points");
  expectSameVec3s(got.normals, (mask & 4) ? want.normals : none, "normals");
  expectSameVec3s(got.resPoints, (mask & 16) ? want.resPoints : none, "resPoints");
  EXPECT_EQ(got.segments, (mask & 2) ? want.segments : std::vector<int32_t>{});
  EXPECT_EQ(got.auxCtrlPos, (mask & 8) ? want.auxCtrlPos : std::vector<uint32_t>{});
  EXPECT_EQ(got.auxCtrlCounts, (mask & 8) ? want.auxCtrlCounts : std::vector<uint32_t>{});
  EXPECT_EQ(got.auxCtrlOffsets, (mask & 8) ? want.auxCtrlOffsets : std::vector<uint32_t>{});
  EXPECT_TRUE(got.auxCtrlFirst.empty());  // never loaded
  EXPECT_EQ(got.distances, (mask & 32) ? want.distances : std::vector<double>{});
}

class SampleFileTest : public ReaderTest, public ::testing::WithParamInterface<const char*> {
protected:
  json expected() {
    std::string name = GetParam();
    return json::parse(readText(dataFile(name.substr(0, name.find('.')) + ".json")));
  }
};

TEST_P(SampleFileTest, LoadsEveryFieldAsItsJsonSays) {
  json want = expected();
  fs::copy_file(dataFile(GetParam()), path("sample.afxs"));
  EXPECT_EQ(fs::file_size(path("sample.afxs")), want["file_size"].get<uint64_t>());
  std::string text = readText(path("sample.afxs"));
  EXPECT_EQ(text.substr(0, want["header_text"].get<std::string>().size()),
            want["header_text"].get<std::string>());

  LuAfxsUserLink link(wpath("sample.afxs").c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(63));
  const LuAfxsHeader& h = link.getHeader();
  const json& hw = want["header_as_read"];
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(h.point[i], hw["point"][i].get<double>());
    EXPECT_EQ(h.normal[i], hw["normal"][i].get<double>());
  }
  EXPECT_EQ(h.numPlanes, hw["numPlanes"].get<uint64_t>());
  EXPECT_EQ(h.distBwPlanes, hw["distBwPlanes"].get<double>());
  expectSameVec3s(link.getCameras().cameras, vec3s(want["cameras"]), "cameras");

  const json& records = want["records_in_load_order"];
  ASSERT_EQ(set.size(), records.size());
  size_t i = 0;
  for (const LuAfxsUserData* d : set) {
    const json& r = records[i++];
    const LuAfxsPlane& p = d->getPlaneData();
    SCOPED_TRACE("record " + std::to_string(i - 1));
    EXPECT_EQ(p.planeId, r["planeId"].get<uint32_t>());
    EXPECT_EQ(p.subsetId, r["subsetId"].get<uint32_t>());
    expectSameVec3s(p.points, vec3s(r["points"]), "points");
    expectSameVec3s(p.normals, vec3s(r["normals"]), "normals");
    expectSameVec3s(p.resPoints, vec3s(r["resPoints"]), "resPoints");
    EXPECT_EQ(p.segments, values<int32_t>(r["segments"]));
    EXPECT_EQ(p.auxCtrlFirst, values<uint32_t>(r["auxCtrlFirst"]));
    EXPECT_EQ(p.auxCtrlOffsets, values<uint32_t>(r["auxCtrlOffsets"]));
    EXPECT_EQ(p.auxCtrlCounts, values<uint32_t>(r["auxCtrlCounts"]));
    EXPECT_EQ(p.auxCtrlPos, values<uint32_t>(r["auxCtrlPos"]));
    EXPECT_EQ(p.distances, values<double>(r["distances"]));
    EXPECT_EQ(d->state(), r["state"].get<uint32_t>());
    EXPECT_EQ(d->fileState(), r["fileState"].get<uint32_t>());
  }
}

TEST_P(SampleFileTest, PartialLoadKnowsWhatTheFileHolds) {
  json want = expected();
  fs::copy_file(dataFile(GetParam()), path("sample.afxs"));
  LuAfxsUserLink link(wpath("sample.afxs").c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(2));
  size_t i = 0;
  for (const LuAfxsUserData* d : set) {
    const json& r = want["records_in_load_order"][i++];
    EXPECT_EQ(d->fileState(), r["fileState"].get<uint32_t>());
    EXPECT_EQ(d->state(), r["fileState"].get<uint32_t>() & 2u);
    EXPECT_TRUE(d->getPlaneData().points.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Samples, SampleFileTest,
                         ::testing::Values("all_fields.afxs", "with_results.afxs"),
                         [](const auto& info) {
                           std::string name = info.param;
                           return name.substr(0, name.find('.'));
                         });

TEST_F(ReaderTest, FlushingResultsIntoSampleGivesTheSampleWithResults) {
  json want = json::parse(readText(dataFile("with_results.json")));
  fs::copy_file(dataFile("all_fields.afxs"), path("sample.afxs"));
  {
    LuAfxsUserLink link(wpath("sample.afxs").c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(63));
    auto it = set.find(3, 1);
    ASSERT_NE(it, set.end());
    const json& r = want["records_in_load_order"].back();
    std::vector<LuVec3> res = vec3s(r["resPoints"]);
    std::vector<double> dist = values<double>(r["distances"]);
    (*it)->setResPoints(reinterpret_cast<const double(*)[3]>(res.data()), res.size());
    (*it)->setDistances(dist.data(), dist.size());
    ASSERT_TRUE((*it)->flush());
  }
  EXPECT_EQ(readBytes(path("sample.afxs")), readBytes(dataFile("with_results.afxs")));
}

// Files built byte by byte (independent of the writer) for every field mask.
class BuiltMaskTest : public ReaderTest, public ::testing::WithParamInterface<uint32_t> {};

TEST_P(BuiltMaskTest, LoadsExactlyTheFieldsOfTheMask) {
  uint32_t mask = GetParam();
  LuAfxsPlane a = randomPlane(4, 2, 5, mask);
  LuAfxsPlane b = randomPlane(4, 7, 3, mask + 100);
  AfxsFileBuilder file;
  uint32_t plane = file.addPlane(4);
  file.addSubset(plane, 2, writerBlocks(a, mask));
  file.addSubset(plane, 7, writerBlocks(b, mask));
  LuAfxsUserLink link(writeBuilt(file).c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(63));
  ASSERT_EQ(set.size(), 2u);
  for (const LuAfxsUserData* d : set) {
    EXPECT_EQ(d->state(), mask);
    EXPECT_EQ(d->fileState(), mask);
  }
  expectPlaneFields((*set.begin())->getPlaneData(), a, mask);
  expectPlaneFields((*std::next(set.begin()))->getPlaneData(), b, mask);
}

INSTANTIATE_TEST_SUITE_P(AllMasks, BuiltMaskTest, ::testing::Range(0u, 64u));

TEST_F(ReaderTest, LargePlanesSurviveWriterAndReader) {
  std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
  for (uint32_t plane = 0; plane < 4; ++plane)
    for (uint32_t subset = 1; subset <= 2; ++subset)
      planes.push_back({randomPlane(plane, subset, 700 + 300 * plane, plane * 10 + subset), 63u});
  ASSERT_TRUE(writeWithWriter(wpath("large.afxs"), LuAfxsHeader(), {{1, 2, 3}}, planes));
  LuAfxsUserLink link(wpath("large.afxs").c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(63));
  ASSERT_EQ(set.size(), planes.size());
  size_t i = 0;
  for (const LuAfxsUserData* d : set) {
    EXPECT_EQ(d->state(), 63u);
    expectPlaneFields(d->getPlaneData(), planes[i++].first, 63);
  }
}

// Random planes with random masks through the writer and back.
TEST_F(ReaderTest, RandomPlanesSurviveWriterAndReader) {
  std::mt19937 rng(20260422);
  const int rounds = quickMode() ? 1000 / 7 : 1000;
  for (int round = 0; round < rounds; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
    uint32_t planeCount = 1 + rng() % 3;
    for (uint32_t plane = 0; plane < planeCount; ++plane) {
      uint32_t subsets = 1 + rng() % 2;
      for (uint32_t subset = 1; subset <= subsets; ++subset) {
        uint32_t mask = 1 + rng() % 63;
        planes.push_back({randomPlane(plane * 3, subset, 1 + rng() % 6, rng()), mask});
      }
    }
    std::vector<LuVec3> cameras;
    for (uint32_t i = rng() % 3; i > 0; --i) cameras.push_back({double(rng()), 1, 2});
    LuAfxsHeader header;
    header.point[1] = double(rng() % 1000) / 8;
    header.normal[2] = 1;
    header.numPlanes = rng() % 100;
    header.distBwPlanes = double(rng() % 100) / 4;
    ASSERT_TRUE(writeWithWriter(wpath("random.afxs"), header, cameras, planes));

    LuAfxsUserLink link(wpath("random.afxs").c_str());
    LuAfxsUserDataSet set(link);
    uint32_t loadMask = rng() % 64;
    ASSERT_TRUE(set.load(loadMask));
    ASSERT_EQ(set.size(), planes.size());
    // Planes come in ascending plane order, subsets in the order written:
    // the writer's order here.
    size_t i = 0;
    for (LuAfxsUserData* d : set) {
      const auto& [want, mask] = planes[i++];
      EXPECT_EQ(d->fileState(), mask);
      EXPECT_EQ(d->state(), mask & loadMask);
      expectPlaneFields(d->getPlaneData(), want, mask & loadMask);
      ASSERT_TRUE(d->load(63));
      EXPECT_EQ(d->state(), mask);
      expectPlaneFields(d->getPlaneData(), want, mask);
    }
    EXPECT_EQ(link.getHeader().point[1], header.point[1]);
    EXPECT_EQ(link.getHeader().numPlanes, header.numPlanes);
    EXPECT_EQ(link.getHeader().distBwPlanes, header.distBwPlanes);
    expectSameVec3s(link.getCameras().cameras, cameras, "cameras");
    if (HasFailure()) break;
  }
}

}  // namespace
}  // namespace lutest
