// The read-only inspection walk: what it finds in good files, each kind of
// damage it names (with its offset), and that it leaves every file as it was.
#include <luAnaf/luAfxsFileCheck.h>

#include <cstdio>
#include <random>
#include <string>

#if !defined(_WIN32)
#include <sys/stat.h>
#endif

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using lutest::appendU32;
using lutest::putU32At;
using lutest::readBytes;
using lutest::u32At;
using lutest::writeBytes;
using ::testing::ElementsAre;

// Builds small files byte by byte, independently of the library's writer, so
// that tests can make exactly the inconsistency they need.
class FileBuilder {
public:
  explicit FileBuilder(uint32_t state) {
    char line[64];
    std::snprintf(line, sizeof line, "STATE 0x%.8X\n", state);
    std::string text = std::string("Lumoravel_XS_COP\nVER 1\nFIRST_RECORD 0x00000000\n") +
                       "POINT 0.000000 0.000000 0.000000\nNORMAL 0.000000 0.000000 1.000000\n"
                       "NUM_PLANES 2\nDIST_BW_PLANES 1.000000\n" +
                       line + "HEADER_END\n";
    m_firstRecordDigits = text.find("0x00000000") + 2;
    m_bytes.assign(text.begin(), text.end());
  }

  uint32_t plane(uint32_t planeId) {
    uint32_t at = begin(LU_AFXS_REC_PLANE);
    appendU32(m_bytes, planeId);
    m_planeLink[planeId] = size();
    appendU32(m_bytes, 0);
    end(LU_AFXS_REC_PLANE);
    return at;
  }

  // fields: identifier -> raw data; the results link block is added last.
  uint32_t subset(uint32_t planeId, uint32_t subsetId,
                  const std::vector<std::pair<uint32_t, std::vector<uint8_t>>>& fields) {
    uint32_t at = begin(LU_AFXS_REC_PLANE_SUBSET);
    putU32At(m_bytes, m_planeLink.at(planeId), at);
    appendU32(m_bytes, subsetId);
    m_planeLink[planeId] = size();
    appendU32(m_bytes, 0);
    for (const auto& [id, data] : fields) {
      appendU32(m_bytes, id);
      appendU32(m_bytes, static_cast<uint32_t>(data.size()));
      m_bytes.insert(m_bytes.end(), data.begin(), data.end());
    }
    appendU32(m_bytes, 4);
    appendU32(m_bytes, 4);
    appendU32(m_bytes, 0);
    end(LU_AFXS_REC_PLANE_SUBSET);
    return at;
  }

  static std::vector<uint8_t> points(size_t n) {
    std::vector<uint8_t> out;
    std::vector<double> values;
    for (size_t i = 0; i < n; ++i) values.insert(values.end(), {double(i), 1.0, 0.0});
    lutest::appendDoubles(out, values);
    return out;
  }
  static std::vector<uint8_t> ints(const std::vector<uint32_t>& values) {
    std::vector<uint8_t> out;
    for (uint32_t v : values) appendU32(out, v);
    return out;
  }

  const std::vector<uint8_t>& bytes() const { return m_bytes; }

private:
  uint32_t size() const { return static_cast<uint32_t>(m_bytes.size()); }
  uint32_t begin(uint32_t kind) {
    uint32_t at = size();
    if (m_lastNext == 0) {
      char digits[9];
      std::snprintf(digits, sizeof digits, "%.8X", at);
      std::copy(digits, digits + 8, m_bytes.begin() + static_cast<long>(m_firstRecordDigits));
    } else {
      putU32At(m_bytes, m_lastNext, at);
    }
    appendU32(m_bytes, kind);
    m_lastNext = size();
    appendU32(m_bytes, 0);
    return at;
  }
  void end(uint32_t kind) {
    appendU32(m_bytes, 0xFFFFFFFF);
    appendU32(m_bytes, kind);
  }

  std::vector<uint8_t> m_bytes;
  size_t m_firstRecordDigits = 0;
  uint32_t m_lastNext = 0;
  std::map<uint32_t, uint32_t> m_planeLink;
};

class InspectTest : public lutest::TempDirTest {
protected:
  // A copy of a sample file in the temporary folder.
  void copySample(const std::string& name = "all_fields.afxs") {
    m_bytes = readBytes(lutest::dataFile(name));
    save();
  }
  void save() { writeBytes(path("file.afxs"), m_bytes); }
  LuAfxsInspection inspect(bool deep = true) { return luAfxsInspect(wpath("file.afxs"), deep); }

  // The offsets of the sample's records, from a clean walk of it.
  const LuAfxsInspectRecord& recordOfKind(const LuAfxsInspection& in, uint32_t kind, int nth = 0) {
    for (const auto& r : in.records)
      if (r.kind == kind && nth-- == 0) return r;
    throw std::runtime_error("no such record");
  }

  // The one problem that mentions `text`, expecting exactly one.
  static const LuAfxsInspectProblem* problemWith(const LuAfxsInspection& in,
                                                 const std::string& text) {
    for (const auto& p : in.problems)
      if (p.message.find(text) != std::string::npos) return &p;
    return nullptr;
  }
  static std::string all(const LuAfxsInspection& in) {
    std::string out;
    for (const auto& p : in.problems) out += p.message + "\n";
    return out;
  }

  std::vector<uint8_t> m_bytes;
};

// ---- Good files ------------------------------------------------------------

TEST_F(InspectTest, SampleFileIsClean) {
  copySample();
  LuAfxsInspection in = inspect();
  EXPECT_TRUE(in.clean()) << all(in);
  EXPECT_TRUE(in.loadable());
  EXPECT_EQ(in.fileSize, 7495u);
}

TEST_F(InspectTest, HeaderValuesAreReadAsTheReaderReadsThem) {
  copySample();
  LuAfxsInspection in = inspect();
  EXPECT_TRUE(in.identifierOk);
  EXPECT_TRUE(in.headerEndSeen);
  EXPECT_EQ(in.headerSize, 0xB3u);
  EXPECT_EQ(in.version, 2);
  EXPECT_EQ(in.firstRecord, 0xB3);
  EXPECT_EQ(in.state, 3u);
  EXPECT_EQ(in.header.normal[2], 1.0);
  EXPECT_EQ(in.header.numPlanes, 3u);
  EXPECT_EQ(in.header.distBwPlanes, 0.5);
  ASSERT_EQ(in.headerLines.size(), 8u);
  EXPECT_EQ(in.headerLines[1].keyword, "FIRST_RECORD");
  EXPECT_EQ(in.headerLines[1].values, "0x000000B3");
  EXPECT_EQ(in.headerLines[1].offset, 0x17u);
}

TEST_F(InspectTest, CountsComeFromTheIndex) {
  copySample();
  LuAfxsInspection in = inspect(false);
  EXPECT_EQ(in.planes.size(), 4u);
  EXPECT_EQ(in.planeRecords, 4u);
  EXPECT_EQ(in.subsetRecords, 7u);
  EXPECT_EQ(in.loadedSubsets, 7u);
  EXPECT_EQ(in.resultsRecords, 0u);
  EXPECT_EQ(in.camerasRecords, 1u);
  EXPECT_EQ(in.cameras, 2u);
  EXPECT_THAT(in.subsetIds, ElementsAre(1u, 2u));
  EXPECT_EQ(in.stateAnd, 3u);
  EXPECT_EQ(in.stateUnion, 63u);
  EXPECT_EQ(in.expectedState, 3u);
}

TEST_F(InspectTest, RecordChainIsListedWithFieldBlocks) {
  copySample();
  LuAfxsInspection in = inspect();
  ASSERT_FALSE(in.records.empty());
  EXPECT_EQ(in.records[0].offset, 0xB3u);
  EXPECT_EQ(in.records[0].kind, 0u);
  EXPECT_EQ(in.records[1].kind, 1u);
  EXPECT_EQ(in.records[1].next, in.records[2].offset);
  const LuAfxsInspectRecord& subset = in.records[2];
  EXPECT_EQ(subset.kind, 2u);
  EXPECT_EQ(subset.plane, 0);
  EXPECT_EQ(subset.subsetId, 1u);
  std::vector<uint32_t> ids;
  for (const auto& f : subset.fields) ids.push_back(f.id);
  EXPECT_THAT(ids, ElementsAre(0u, 1u, 2u, 7u, 8u, 9u, 3u, 6u, 5u, 4u));
  EXPECT_EQ(subset.fields[0].offset, subset.offset + 16);
  EXPECT_EQ(subset.fields[0].count, 12u * 24);
  EXPECT_EQ(subset.end, in.records[3].offset);
  EXPECT_EQ(in.records.back().next, 0u);
  EXPECT_EQ(in.planes[0].subsets.size(), 2u);
}

TEST_F(InspectTest, ResultsRecordIsFollowedFromItsLink) {
  copySample("with_results.afxs");
  LuAfxsInspection in = inspect();
  EXPECT_TRUE(in.clean()) << all(in);
  EXPECT_EQ(in.resultsRecords, 1u);
  const LuAfxsInspectRecord& results = recordOfKind(in, LU_AFXS_REC_RESULTS);
  const LuAfxsInspectRecord& last = in.records[in.planes.back().subsets.back()];
  EXPECT_EQ(last.resultsLink, results.offset + 8);
  EXPECT_EQ(last.resultsMask, 48u);
  EXPECT_EQ(in.stateAnd, 51u);
}

TEST_F(InspectTest, BuiltFileWithTwoPlanesIsClean) {
  FileBuilder b(3);
  b.plane(0);
  b.subset(0, 1, {{0, FileBuilder::points(3)}, {2, FileBuilder::ints({1, 3})}});
  b.plane(1);
  b.subset(1, 1, {{0, FileBuilder::points(2)}, {2, FileBuilder::ints({2})}});
  m_bytes = b.bytes();
  save();
  LuAfxsInspection in = inspect();
  EXPECT_TRUE(in.clean()) << all(in);
  EXPECT_EQ(in.loadedSubsets, 2u);
}

// ---- Damage ----------------------------------------------------------------

TEST_F(InspectTest, MissingFileIsNotOpened) {
  LuAfxsInspection in = luAfxsInspect(wpath("absent.afxs"));
  EXPECT_FALSE(in.opened);
  EXPECT_FALSE(in.loadable());
  ASSERT_EQ(in.problems.size(), 1u);
}

TEST_F(InspectTest, BadIdentifierLineIsNamed) {
  copySample();
  m_bytes[3] = 'X';
  save();
  LuAfxsInspection in = inspect();
  ASSERT_NE(problemWith(in, "bad identifier line"), nullptr) << all(in);
  EXPECT_TRUE(problemWith(in, "bad identifier line")->breaksLoad);
  EXPECT_EQ(problemWith(in, "bad identifier line")->offset, 0u);
}

TEST_F(InspectTest, IdentifierWithOneMoreLetterIsBad) {
  copySample();
  m_bytes.insert(m_bytes.begin() + 16, 'X');
  save();
  EXPECT_NE(problemWith(inspect(), "bad identifier line"), nullptr);
}

TEST_F(InspectTest, UnreadableHeaderValueBreaksLoad) {
  copySample();
  std::string text(m_bytes.begin(), m_bytes.end());
  size_t at = text.find("NUM_PLANES 3");
  m_bytes[at + 11] = 'x';
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "NUM_PLANES");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_EQ(p->offset, at);
}

TEST_F(InspectTest, FirstRecordZeroBreaksLoad) {
  copySample();
  std::string text(m_bytes.begin(), m_bytes.end());
  size_t at = text.find("0x000000B3");
  m_bytes[at + 8] = '0';
  m_bytes[at + 9] = '0';
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "FIRST_RECORD is 0");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
}

TEST_F(InspectTest, RecordChainThatLoopsIsNamed) {
  copySample();
  LuAfxsInspection clean = inspect();
  const LuAfxsInspectRecord& last = clean.records.back();
  putU32At(m_bytes, last.offset + 4, clean.records[1].offset);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "loops back");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_EQ(p->offset, last.offset + 4);
}

TEST_F(InspectTest, RecordChainThatLeavesTheFileIsNamed) {
  copySample();
  LuAfxsInspection clean = inspect();
  putU32At(m_bytes, clean.records[3].offset + 4, 0x7FFFFFF0);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "leaves the file");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_EQ(p->offset, clean.records[3].offset + 4);
}

TEST_F(InspectTest, ByteCountBeyondTheFileIsNamed) {
  copySample();
  const LuAfxsInspectRecord subset = recordOfKind(inspect(), LU_AFXS_REC_PLANE_SUBSET);
  putU32At(m_bytes, subset.fields[0].offset + 4, 0x00FFFFF0);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "runs past the end of the file (7495 bytes)");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_EQ(p->offset, subset.fields[0].offset + 4);
}

TEST_F(InspectTest, ZeroByteCountIsNamed) {
  FileBuilder b(3);
  b.plane(0);
  b.subset(0, 1, {{0, FileBuilder::points(3)}, {2, {}}});
  m_bytes = b.bytes();
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "zero byte count");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_FALSE(in.loadable());
}

TEST_F(InspectTest, WrongEndMarkIsNamed) {
  copySample();
  const LuAfxsInspectRecord subset = recordOfKind(inspect(), LU_AFXS_REC_PLANE_SUBSET);
  putU32At(m_bytes, subset.end - 4, 7);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "wrong end mark");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_EQ(p->offset, subset.end - 4u);
}

TEST_F(InspectTest, SubsetChainLeadingToAnotherKindIsNamed) {
  copySample();
  LuAfxsInspection clean = inspect();
  const LuAfxsInspectRecord plane = recordOfKind(clean, LU_AFXS_REC_PLANE, 1);
  putU32At(m_bytes, plane.offset + 12, clean.records[0].offset);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "leads to a cameras record");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
  EXPECT_EQ(p->offset, plane.offset + 12);
}

TEST_F(InspectTest, SubsetChainThatLoopsIsNamed) {
  copySample();
  LuAfxsInspection clean = inspect();
  const LuAfxsInspectRecord& second = clean.records[clean.planes[0].subsets[1]];
  putU32At(m_bytes, second.offset + 12, clean.records[clean.planes[0].subsets[0]].offset);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "subset chain of plane 0 loops back");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_TRUE(p->breaksLoad);
}

TEST_F(InspectTest, SegmentsThatDoNotTileThePointsAreNamed) {
  copySample();
  const LuAfxsInspectRecord subset = recordOfKind(inspect(), LU_AFXS_REC_PLANE_SUBSET);
  // The last running total (12) becomes 11: one point belongs to no segment.
  putU32At(m_bytes, subset.fields[2].offset + 12, 11);
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "do not tile");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_FALSE(p->breaksLoad);
  EXPECT_TRUE(in.loadable());
  EXPECT_EQ(p->offset, subset.fields[2].offset);
}

TEST_F(InspectTest, ShallowWalkDoesNotReadSegments) {
  copySample();
  const LuAfxsInspectRecord subset = recordOfKind(inspect(), LU_AFXS_REC_PLANE_SUBSET);
  putU32At(m_bytes, subset.fields[2].offset + 12, 11);
  save();
  EXPECT_TRUE(inspect(false).clean());
}

TEST_F(InspectTest, FieldVectorsOfDifferentLengthsAreNamed) {
  FileBuilder b(5);
  b.plane(0);
  b.subset(0, 1, {{0, FileBuilder::points(3)}, {1, FileBuilder::points(2)}});
  m_bytes = b.bytes();
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "points (3) and normals (2) differ in length");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_FALSE(p->breaksLoad);
}

TEST_F(InspectTest, AuxGroupsThatDoNotAddUpAreNamed) {
  FileBuilder b(9);
  b.plane(0);
  b.subset(0, 1,
           {{0, FileBuilder::points(2)},
            {7, FileBuilder::ints({5, 6, 7})},
            {8, FileBuilder::ints({0, 1})},
            {9, FileBuilder::ints({1, 1})},
            {3, FileBuilder::ints({5, 6})}});
  m_bytes = b.bytes();
  save();
  EXPECT_NE(problemWith(inspect(), "aux groups hold 2 positions together but auxCtrlPos has 3"),
            nullptr);
}

TEST_F(InspectTest, StateLineThatIsNotTheAndOfTheMasksIsNamed) {
  copySample();
  std::string text(m_bytes.begin(), m_bytes.end());
  m_bytes[text.find("STATE 0x00000003") + 15] = '7';
  save();
  LuAfxsInspection in = inspect();
  const auto* p = problemWith(in, "STATE line says 0x00000007");
  ASSERT_NE(p, nullptr) << all(in);
  EXPECT_FALSE(p->breaksLoad);
}

TEST_F(InspectTest, RecordOutsideAnyPlaneIsNamed) {
  copySample();
  LuAfxsInspection clean = inspect();
  const LuAfxsInspectRecord plane = recordOfKind(clean, LU_AFXS_REC_PLANE, 3);
  putU32At(m_bytes, plane.offset + 12, 0);
  save();
  LuAfxsInspection in = inspect();
  EXPECT_NE(problemWith(in, "is not reached from any plane"), nullptr) << all(in);
  EXPECT_TRUE(in.loadable());
  EXPECT_EQ(in.loadedSubsets, 6u);
}

// ---- Never harms, never crashes --------------------------------------------

TEST_F(InspectTest, InspectionLeavesTheFileByteForByte) {
  copySample();
  m_bytes[0x200] ^= 0x5A;
  save();
  inspect();
  EXPECT_EQ(readBytes(path("file.afxs")), m_bytes);
  EXPECT_TRUE(reports().empty());
  EXPECT_TRUE(logs().empty());
}

TEST_F(InspectTest, TruncationAtAnyLengthEndsWithAProblem) {
  copySample();
  const std::vector<uint8_t> whole = m_bytes;
  for (size_t length = 0; length < whole.size(); length += 5) {
    m_bytes.assign(whole.begin(), whole.begin() + static_cast<long>(length));
    save();
    LuAfxsInspection in = inspect();
    EXPECT_FALSE(in.clean()) << "length " << length;
  }
}

// The promise the tool relies on: a file the inspection calls loadable loads,
// so that a load, which deletes a file it cannot verify, is never handed one
// that it would delete.
TEST_F(InspectTest, LoadableFilesLoadAfterRandomDamage) {
  copySample("with_results.afxs");
  const std::vector<uint8_t> whole = m_bytes;
  std::mt19937 random(777);
  int loadable = 0;
  for (int round = 0; round < 300; ++round) {
    m_bytes = whole;
    for (int k = 0; k < 2; ++k) {
      size_t at = random() % m_bytes.size();
      m_bytes[at] = static_cast<uint8_t>(random());
    }
    save();
    LuAfxsInspection in = inspect();
    if (!in.loadable()) continue;
    ++loadable;
    LuAfxsUserLink link(wpath("file.afxs").c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_TRUE(set.load(LU_AFXS_MASK_ALL)) << "round " << round << "\n" << all(in);
    EXPECT_EQ(set.size(), in.loadedSubsets) << "round " << round;
  }
  EXPECT_GT(loadable, 0);
}

TEST_F(InspectTest, DamageThatBreaksLoadIsWhatTheReaderRejects) {
  copySample("with_results.afxs");
  const std::vector<uint8_t> whole = m_bytes;
  std::mt19937 random(4242);
  for (int round = 0; round < 200; ++round) {
    m_bytes = whole;
    size_t at = random() % m_bytes.size();
    m_bytes[at] = static_cast<uint8_t>(random());
    save();
    LuAfxsInspection in = inspect();
    LuAfxsUserLink link(wpath("file.afxs").c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_EQ(set.load(LU_AFXS_MASK_ALL), in.loadable())
        << "round " << round << " byte " << at << "\n"
        << all(in);
  }
}

TEST_F(InspectTest, RandomDamageNeverCrashes) {
  copySample("with_results.afxs");
  const std::vector<uint8_t> whole = m_bytes;
  std::mt19937 random(12345);
  for (int round = 0; round < 300; ++round) {
    m_bytes = whole;
    for (int k = 0; k < 4; ++k) {
      size_t at = random() % m_bytes.size();
      m_bytes[at] = static_cast<uint8_t>(random());
    }
    save();
    LuAfxsInspection in = inspect();
    for (const auto& p : in.problems) EXPECT_LE(p.offset, whole.size() + 0xFFFFFFFFull);
  }
}

}  // namespace

// ---- Results that do not match their record's points -------------------------------

class ResultsLengthTest : public InspectTest {
protected:
  // A file of one plane subset of `points` points, and then a results record
  // of `results` result points and `distances` distances appended by an updater.
  // With ownResults, the plane-subset record holds matching ones of its own.
  void writeWithResults(size_t points, size_t results, size_t distances, bool ownResults = false) {
    {
      LuAfxsCreateLink link(wpath("file.afxs").c_str());
      LuAfxsHeader header;
      header.normal[2] = 1;
      link.setHeader(header);
      ASSERT_TRUE(link.create(true));
      std::vector<double> xyz(points * 3, 1.0);
      int segments[1] = {static_cast<int>(points)};
      LuAfxsCreateData data(link, 0, 1);
      data.setPoints(reinterpret_cast<const double(*)[3]>(xyz.data()), points);
      data.setSegments(segments, 1);
      std::vector<double> own(points, 0.25);
      if (ownResults) {
        data.setResPoints(reinterpret_cast<const double(*)[3]>(xyz.data()), points);
        data.setDistances(own.data(), points);
      }
      ASSERT_TRUE(data.flush());
      link.release();
    }
    LuAfxsUserLink link(wpath("file.afxs").c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    std::vector<double> res(results * 3, 2.0), dist(distances, 0.5);
    LuAfxsUserData* data = *set.begin();
    data->setResPoints(reinterpret_cast<const double(*)[3]>(res.data()), results);
    data->setDistances(dist.data(), distances);
    ASSERT_TRUE(data->flush());
  }
};

TEST_F(ResultsLengthTest, MatchingResultsAreClean) {
  writeWithResults(6, 6, 6);
  LuAfxsInspection in = inspect();
  EXPECT_TRUE(in.clean()) << all(in);
}

TEST_F(ResultsLengthTest, ResultPointsAndDistancesOfOtherLengthsAreNamedWithTheirOffsets) {
  writeWithResults(6, 3, 5);
  LuAfxsInspection in = inspect();
  const auto* res = problemWith(in, "points (6) and resPoints (3) differ in length");
  const auto* dist = problemWith(in, "points (6) and distances (5) differ in length");
  ASSERT_NE(res, nullptr) << all(in);
  ASSERT_NE(dist, nullptr) << all(in);
  EXPECT_FALSE(res->breaksLoad);
  const LuAfxsInspectRecord& subset = recordOfKind(in, LU_AFXS_REC_PLANE_SUBSET);
  ASSERT_EQ(subset.resultsFields.size(), 2u);
  EXPECT_EQ(res->offset, subset.resultsFields[0].offset);
  EXPECT_EQ(dist->offset, subset.resultsFields[1].offset);
}

// A load reads the results record's vectors over the record's own: those
// count, even when the record's own ones match.
TEST_F(ResultsLengthTest, AResultsRecordOverMatchingOwnResultsIsStillChecked) {
  writeWithResults(6, 3, 5, true);
  LuAfxsInspection in = inspect();
  EXPECT_NE(problemWith(in, "points (6) and resPoints (3) differ in length"), nullptr) << all(in);
  EXPECT_NE(problemWith(in, "points (6) and distances (5) differ in length"), nullptr) << all(in);
  LuAfxsUserLink link(wpath("file.afxs").c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
  EXPECT_EQ((*set.begin())->getPlaneData().resPoints.size(), 3u);
}

// ---- Paths that are no files ---------------------------------------------------------

TEST_F(InspectTest, ADirectoryIsNotOpened) {
  lutest::fs::create_directory(path("dir"));
  LuAfxsInspection in = luAfxsInspect(wpath("dir"));
  EXPECT_FALSE(in.opened);
  EXPECT_EQ(in.fileSize, 0u);
  ASSERT_EQ(in.problems.size(), 1u);
  EXPECT_EQ(in.problems[0].message, "is a directory, not a file");
}

#if !defined(_WIN32)
TEST_F(InspectTest, AFifoIsNotOpened) {
  // Opening a FIFO for reading would wait for a writer.
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0644), 0);
  LuAfxsInspection in = luAfxsInspect(wpath("fifo"));
  EXPECT_FALSE(in.opened);
  ASSERT_EQ(in.problems.size(), 1u);
  EXPECT_THAT(in.problems[0].message, ::testing::HasSubstr("is not a regular file"));
}
#endif
