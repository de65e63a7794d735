// The bytes the writer puts on disk: the field table, the header lines, the
// record chain, and a whole file compared byte for byte with a file written
// by an independent writer from the same content.
#include <luAnaf/luAnaf.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/writer_support.h"

// The format tables are internal to the library (hidden symbols); they are
// compiled in here to be checked directly.
#include "format/tables.cpp"

namespace lutest {
namespace {

class FormatBytesTest : public WriterTest {};

std::string headerText(uint32_t firstRecord, uint32_t state) {
  return LuStrFrmt::format(
      "Lumoravel_XS_COP\nVER 2\nFIRST_RECORD 0x%.8X\nPOINT 1.500000 -2.250000 3.000000\n"
      "NORMAL 0.000000 0.000000 1.000000\nNUM_PLANES 4\nDIST_BW_PLANES 0.500000\n"
      "STATE 0x%.8X\nHEADER_END\n",
      firstRecord, state);
}

void appendText(std::vector<uint8_t>& out, const std::string& text) {
  out.insert(out.end(), text.begin(), text.end());
}

void expectSameBytes(const std::vector<uint8_t>& written, const std::vector<uint8_t>& expected) {
  EXPECT_EQ(written.size(), expected.size());
  for (size_t i = 0; i < std::min(written.size(), expected.size()); ++i)
    if (written[i] != expected[i]) {
      ADD_FAILURE() << "first difference at byte " << i << ": " << int{written[i]} << " instead of "
                    << int{expected[i]};
      return;
    }
}

TEST(FieldTableTest, AuxFirstResultsLinkAndEndMarkMapToMaskZero) {
  EXPECT_EQ(afxs::fieldMaskBit(3), 0u);
  EXPECT_FALSE(afxs::fieldInTable(3));
  EXPECT_EQ(afxs::fieldMaskBit(4), 0u);
  EXPECT_TRUE(afxs::fieldInTable(4));
  EXPECT_EQ(afxs::fieldMaskBit(0xFFFFFFFF), 0u);
  EXPECT_TRUE(afxs::fieldInTable(0xFFFFFFFF));
}

TEST(FieldTableTest, DataFieldsMapToTheirMaskBits) {
  const std::vector<std::pair<uint32_t, uint32_t>> pairs{{0, 1}, {2, 2}, {1, 4},  {8, 8},
                                                         {9, 8}, {7, 8}, {5, 16}, {6, 32}};
  for (auto [id, bit] : pairs) EXPECT_EQ(afxs::fieldMaskBit(id), bit) << id;
}

TEST(HeaderTableTest, LinesAreKeywordAndFormat) {
  EXPECT_STREQ(afxs::headerLineFormat(afxs::kLineFirstRecord), "FIRST_RECORD 0x%.8X\n");
  EXPECT_STREQ(afxs::headerLineFormat(afxs::kLineNumPlanes), "NUM_PLANES %d\n");
  EXPECT_STREQ(afxs::headerLineFormat(afxs::kLineHeaderEnd), "HEADER_END\n");
  EXPECT_STREQ(afxs::headerKeyword(afxs::kLineIdentifier).keyword, "Lumoravel_XS_COP");
}

TEST_F(FormatBytesTest, OneSegmentEntryCountsAsSegments) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  LuAfxsPlane plane;
  plane.points = pointsOf(2);
  plane.segments = {2};
  {
    LuAfxsCreateData data(*link, 0, 1);
    data.Unify(&plane);
    EXPECT_EQ(data.state() & LU_AFXS_MASK_SEGMENTS, 2u);
    ASSERT_TRUE(data.flush());
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  const auto* block = file.subsetsOf(0).at(0)->field(afxs::kFieldSegments);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(block->count, 4u);
}

TEST_F(FormatBytesTest, EmptySegmentsVectorDoesNotCountAsSegments) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  LuAfxsPlane plane;
  plane.points = pointsOf(2);
  {
    LuAfxsCreateData data(*link, 0, 1);
    data.Unify(&plane);
    EXPECT_EQ(data.state(), 1u);
    ASSERT_TRUE(data.flush());
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.subsetsOf(0).at(0)->fieldIds(), (std::vector<uint32_t>{0, 4}));
}

TEST_F(FormatBytesTest, FileWithoutRecordsKeepsZeroFirstRecordAndEndsAfterTheHeader) {
  {
    auto link = makeLink();
    ASSERT_TRUE(link->create(false));
    link->release();
  }
  auto file = decode();
  EXPECT_EQ(file.firstRecord, 0u);
  EXPECT_EQ(bytes().size(), file.headerText.size());
  EXPECT_EQ(file.headerText, headerText(0, 0));
}

TEST_F(FormatBytesTest, CamerasRecordIsFirstAndFirstRecordHoldsTheHeaderLength) {
  {
    auto link = makeLink("out.afxs", {{1, 2, 3}, {4, 5, 6}});
    ASSERT_TRUE(link->create(true));
    link->release();
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.firstRecord, file.headerText.size());
  ASSERT_EQ(file.records.size(), 1u);
  const auto& cams = file.records[0];
  EXPECT_EQ(cams.kind, 0u);
  EXPECT_EQ(cams.next, 0u);
  ASSERT_EQ(cams.fieldIds(), (std::vector<uint32_t>{0}));
  EXPECT_EQ(cams.fields[0].count, 48u);
  EXPECT_EQ(afxstest::asPoints(cams.fields[0])[1].x, 4.0);
  EXPECT_EQ(cams.end, bytes().size());
}

TEST_F(FormatBytesTest, StateLineIsZeroUntilAFlushThenTheAndOfAllMasks) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  EXPECT_EQ(decode().state, 0u);
  ASSERT_TRUE(flushPlane(*link, 0, 1, 3, LU_AFXS_MASK_ALL));
  EXPECT_EQ(decode().state, 63u);
  ASSERT_TRUE(flushPlane(*link, 0, 2, 3, 7));
  EXPECT_EQ(decode().state, 7u);
  ASSERT_TRUE(flushPlane(*link, 1, 1, 3, 3 | LU_AFXS_MASK_DISTANCES));
  EXPECT_EQ(decode().state, 3u);
  EXPECT_EQ(decode().headerText, headerText(decode().firstRecord, 3));
}

TEST_F(FormatBytesTest, TwoSubsetsOfOnePlaneAreChainedBehindOnePlaneRecord) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  ASSERT_TRUE(flushPlane(*link, 3, 1));
  ASSERT_TRUE(flushPlane(*link, 3, 2));
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  ASSERT_EQ(file.kinds(), (std::vector<uint32_t>{1, 2, 2}));
  const auto& plane = file.records[0];
  EXPECT_EQ(plane.planeId, 3u);
  EXPECT_EQ(plane.firstSubset, file.records[1].offset);
  EXPECT_EQ(file.records[1].nextSubset, file.records[2].offset);
  EXPECT_EQ(file.records[2].nextSubset, 0u);
  // The record chain runs through all three in file order.
  EXPECT_EQ(plane.next, file.records[1].offset);
  EXPECT_EQ(file.records[1].next, file.records[2].offset);
  EXPECT_EQ(file.records[2].next, 0u);
  EXPECT_EQ(file.records[2].end, bytes().size());
}

TEST_F(FormatBytesTest, EmptyVectorWithItsBitSetIsWrittenWithCountZero) {
  auto link = makeLink();
  ASSERT_TRUE(link->create(false));
  {
    LuAfxsCreateData data(*link, 0, 1);
    auto nrm = pointsOf(2);
    data.setNormals(raw(nrm), 2);
    LuAfxsPlane plane;  // its normals are empty
    plane.points = pointsOf(2);
    data.Unify(&plane);
    EXPECT_EQ(data.state(), 5u);
    ASSERT_TRUE(data.flush());
  }
  auto file = decode();
  ASSERT_TRUE(file.ok) << file.error;
  const auto* r = file.subsetsOf(0).at(0);
  ASSERT_EQ(r->fieldIds(), (std::vector<uint32_t>{0, 1, 4}));
  EXPECT_EQ(r->fields[1].count, 0u);
  EXPECT_EQ(r->fields[2].offset, r->fields[1].offset + 8);
}

TEST_F(FormatBytesTest, SmallFileHasExactlyTheseBytes) {
  {
    auto link = makeLink("out.afxs", {{10, 20, 30}});
    ASSERT_TRUE(link->create(false));
    ASSERT_TRUE(flushPlane(*link, 5, 1, 2, LU_AFXS_MASK_POINTS | LU_AFXS_MASK_SEGMENTS));
    link->release();
  }
  const uint32_t h = static_cast<uint32_t>(headerText(0, 0).size());
  std::vector<uint8_t> expected;
  appendText(expected, headerText(h, 3));
  // Cameras record.
  for (uint32_t v : {0u, h + 48, 0u, 24u}) appendU32(expected, v);
  appendDoubles(expected, {10, 20, 30});
  for (uint32_t v : {0xFFFFFFFFu, 0u}) appendU32(expected, v);
  // Plane record of plane 5.
  for (uint32_t v : {1u, h + 72, 5u, h + 72, 0xFFFFFFFFu, 1u}) appendU32(expected, v);
  // Plane-subset record of subset 1: points (501, 501, 501), (502, 503, 504) ...
  for (uint32_t v : {2u, 0u, 1u, 0u, 0u, 48u}) appendU32(expected, v);
  appendDoubles(expected, {501, 501, 501, 502, 503, 504});
  // ... segments, results link, end mark.
  for (uint32_t v : {2u, 4u, 2u, 4u, 4u, 0u, 0xFFFFFFFFu, 2u}) appendU32(expected, v);
  expectSameBytes(bytes(), expected);
}

// ---- The sample file written by an independent writer ----------------------

std::vector<LuVec3> vec3s(const nlohmann::json& j) {
  std::vector<LuVec3> out;
  for (const auto& p : j)
    out.push_back({p[0].get<double>(), p[1].get<double>(), p[2].get<double>()});
  return out;
}

template <typename T>
std::vector<T> values(const nlohmann::json& j) {
  std::vector<T> out;
  for (const auto& v : j) out.push_back(v.get<T>());
  return out;
}

TEST_F(FormatBytesTest, SampleContentIsWrittenAsTheSampleBytes) {
  std::ifstream in(dataFile("all_fields.json"));
  const nlohmann::json sample = nlohmann::json::parse(in);

  LuAfxsHeader header;
  const std::string text = sample["header_text"].get<std::string>();
  header.version = std::stoi(text.substr(text.find("\nVER ") + 5));
  const auto& read = sample["header_as_read"];
  for (int i = 0; i < 3; ++i) {
    header.point[i] = read["point"][i].get<double>();
    header.normal[i] = read["normal"][i].get<double>();
  }
  header.numPlanes = read["numPlanes"].get<uint64_t>();
  header.distBwPlanes = read["distBwPlanes"].get<double>();
  LuAfxsCamerasTable cameras;
  cameras.cameras = vec3s(sample["cameras"]);

  {
    LuAfxsCreateLink link(target().c_str());
    link.setHeader(header);
    link.setCameras(cameras);
    ASSERT_TRUE(link.create(false));
    // The sample's records were flushed in the order a reader loads them.
    for (const auto& r : sample["records_in_load_order"]) {
      LuAfxsCreateData data(link, r["planeId"].get<uint32_t>(), r["subsetId"].get<uint32_t>());
      auto points = vec3s(r["points"]);
      auto normals = vec3s(r["normals"]);
      auto resPoints = vec3s(r["resPoints"]);
      auto segments = values<int>(r["segments"]);
      auto pos = values<uint32_t>(r["auxCtrlPos"]);
      auto counts = values<uint32_t>(r["auxCtrlCounts"]);
      auto distances = values<double>(r["distances"]);
      data.setPoints(raw(points), points.size());
      data.setNormals(raw(normals), normals.size());
      data.setSegments(segments.data(), segments.size());
      // auxCtrlFirst is derived here from the positions; the JSON leaves it
      // empty because a reader never loads it.
      data.setAuxCtrlPos(pos.data(), pos.size(), counts.data(), counts.size());
      data.setDistances(distances.data(), distances.size());
      data.setResPoints(raw(resPoints), resPoints.size());
      EXPECT_EQ(data.state(), r["fileState"].get<uint32_t>());
      ASSERT_TRUE(data.flush());
    }
    link.release();
  }
  std::vector<uint8_t> expected = readBytes(dataFile("all_fields.afxs"));
  ASSERT_EQ(expected.size(), sample["file_size"].get<size_t>());
  expectSameBytes(bytes(), expected);
  EXPECT_TRUE(reports().empty());
}

TEST_F(FormatBytesTest, DecoderReadsTheIndependentSample) {
  auto file = afxstest::decodeAfxs(readBytes(dataFile("all_fields.afxs")));
  ASSERT_TRUE(file.ok) << file.error;
  EXPECT_EQ(file.state, 3u);
  EXPECT_EQ(file.records.size(), 12u);
  EXPECT_EQ(file.subsetsOf(3).size(), 1u);
}

}  // namespace
}  // namespace lutest
