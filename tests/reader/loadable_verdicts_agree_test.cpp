// The inspection and the reader decode the same bytes the same way: over
// every damaged file of the test corpus (the fuzz corpus, and every
// truncation and many single-word changes of the sample files), "the
// inspection says loadable" holds exactly when a data-set load of every
// field succeeds.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <locale>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>

#include "support/quick_mode.h"
#include "support/reader_files.h"
#include "support/test_support.h"

namespace lutest {
namespace {

class InspectionAgreesTest : public ReaderTest {
protected:
  // Both verdicts on `bytes`, each from a fresh copy (a failed load deletes
  // its file). Counts the files seen and the loadable ones.
  void expectAgreement(const std::vector<uint8_t>& bytes, const std::string& name) {
    const fs::path file = path("case.afxs");
    writeBytes(file, bytes);
    const bool loadable = luAfxsInspect(file.wstring(), true).loadable();
    writeBytes(file, bytes);
    bool loads = false;
    {
      LuAfxsUserLink link(file.wstring().c_str());
      LuAfxsUserDataSet set(link);
      loads = set.load(LU_AFXS_MASK_ALL);
    }
    EXPECT_EQ(loadable, loads) << name << ": the inspection says "
                               << (loadable ? "loadable" : "not loadable") << ", the reader "
                               << (loads ? "loads it" : "fails");
    expectIndexAgreement(bytes, name);
    ++m_files;
    if (loads) ++m_loadable;
    capture().clear();
  }

  // An index (a load of no field, read through the data set's windows)
  // decides like a load whose mask names no field (read from the stream).
  void expectIndexAgreement(const std::vector<uint8_t>& bytes, const std::string& name) {
    const fs::path file = path("case.afxs");
    bool verdicts[2] = {false, false};
    const unsigned long masks[2] = {0, 64};
    for (int i = 0; i < 2; ++i) {
      writeBytes(file, bytes);
      LuAfxsUserLink link(file.wstring().c_str());
      LuAfxsUserDataSet set(link);
      verdicts[i] = set.load(masks[i]);
    }
    EXPECT_EQ(verdicts[0], verdicts[1])
        << name << ": the index " << (verdicts[0] ? "loads" : "fails") << ", the stream walk "
        << (verdicts[1] ? "loads" : "fails");
  }

  static std::vector<fs::path> filesUnder(const fs::path& folder) {
    std::vector<fs::path> out;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
      if (entry.is_regular_file()) out.push_back(entry.path());
    std::sort(out.begin(), out.end());
    return out;
  }

  size_t m_files = 0;
  size_t m_loadable = 0;
};

TEST_F(InspectionAgreesTest, OnEveryFileOfTheFuzzCorpus) {
  const fs::path corpus = dataFile("../../fuzz/corpus");
  ASSERT_TRUE(fs::is_directory(corpus)) << corpus;
  const std::vector<fs::path> files = filesUnder(corpus);
  ASSERT_GT(files.size(), 100u);
  for (size_t i = 0; i < files.size(); i += stride())
    expectAgreement(readBytes(files[i]), files[i].lexically_relative(corpus).string());
  // Both verdicts occur: the corpus holds loadable and damaged files.
  EXPECT_GT(m_loadable, 0u);
  EXPECT_LT(m_loadable, m_files);
}

TEST_F(InspectionAgreesTest, OnEveryTruncationOfTheSamples) {
  for (const char* sample : {"all_fields.afxs", "with_results.afxs"}) {
    const std::vector<uint8_t> bytes = readBytes(dataFile(sample));
    // Every cut inside the header and the first records, then every 5th.
    for (size_t size = 0; size < bytes.size(); size += size < 1024 ? stride() : 5 * stride())
      expectAgreement({bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(size)},
                      std::string(sample) + " cut to " + std::to_string(size));
  }
  EXPECT_GT(m_files, 100u);
}

// Words of the samples' records set to values that mean something to a
// decoder: 0, small counts, kinds, offsets just past the end, all ones.
TEST_F(InspectionAgreesTest, OnSingleWordChangesOfTheSamples) {
  std::mt19937 random(20261124);
  for (const char* sample : {"all_fields.afxs", "with_results.afxs"}) {
    const std::vector<uint8_t> bytes = readBytes(dataFile(sample));
    const size_t headerEnd = std::string(bytes.begin(), bytes.end()).find("HEADER_END") + 11;
    ASSERT_LT(headerEnd, bytes.size());
    const uint32_t size = static_cast<uint32_t>(bytes.size());
    const std::vector<uint32_t> values{
        0,  1,  2,  3,        4,    5,        6,          7,          8,         9,
        10, 12, 24, size - 8, size, size + 4, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
    for (size_t at = headerEnd; at + 4 <= bytes.size(); at += 4 * stride()) {
      const uint32_t value = values[random() % values.size()];
      std::vector<uint8_t> changed = bytes;
      std::memcpy(changed.data() + at, &value, sizeof value);
      expectAgreement(changed, std::string(sample) + ": word at " + std::to_string(at) + " = " +
                                   std::to_string(value));
    }
  }
  EXPECT_GT(m_loadable, 0u);
  EXPECT_LT(m_loadable, m_files);
}

// Files where the two used to disagree, each with its verdict.
TEST_F(InspectionAgreesTest, ASteppedOverBlockOfAnyNonZeroCountLoads) {
  // Field 3 is written but never loaded: its count need not be whole elements.
  AfxsFileBuilder b;
  const uint32_t p = b.addPlane(1);
  b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}}), FieldBlock{3, {1, 2, 3, 4, 5, 6}, {}}});
  expectAgreement(b.bytes(), "field 3 of 6 bytes");
  EXPECT_EQ(m_loadable, 1u);
}

TEST_F(InspectionAgreesTest, SubsetChainsLongerThanTheFileCouldHoldAreRefusedByBoth) {
  // Records without a results link are 24 bytes: more of them than the
  // smallest written record (36 bytes) allows for in the file.
  AfxsFileBuilder b;
  const uint32_t p = b.addPlane(1);
  for (uint32_t subset = 1; subset <= 40; ++subset) b.addSubset(p, subset, {}, 0, false);
  expectAgreement(b.bytes(), "40 records of 24 bytes");
  EXPECT_EQ(m_loadable, 0u);
}

// Ten plane-subset records, each stepping over a block that runs from its
// head to one end mark shared by all of them, behind `padding` bytes: the
// bodies overlap, and a load walks ten times the padding.
AfxsFileBuilder nestedRecords(size_t padding) {
  AfxsFileBuilder b;
  const uint32_t p = b.addPlane(1);
  std::vector<uint32_t> records;
  for (uint32_t subset = 1; subset <= 10; ++subset)
    records.push_back(b.addSubset(p, subset, {countOnlyBlock(3, 0)}, 0, false));
  b.bytes().resize(b.bytes().size() + padding, 0);
  const uint32_t endMark = static_cast<uint32_t>(b.bytes().size());
  b.bytes().resize(endMark + 8);
  b.patchU32(endMark, 0xFFFFFFFF);
  b.patchU32(endMark + 4, LU_AFXS_REC_PLANE_SUBSET);
  // Each block's count leads from behind its count word to the shared end mark.
  for (uint32_t r : records) b.patchU32(r + 20, endMark - (r + 24));
  return b;
}

TEST_F(InspectionAgreesTest, OverlappingRecordsLoadWithinTheBodyBudgetAndFailPastIt) {
  expectAgreement(nestedRecords(0).bytes(), "ten nested records");
  EXPECT_EQ(m_loadable, 1u);
  // Ten times 4,000 bytes walked in a file of about 4,500: past 4 x its size.
  expectAgreement(nestedRecords(4000).bytes(), "ten nested records over 4,000 bytes");
  EXPECT_EQ(m_loadable, 1u);
  EXPECT_EQ(m_files, 2u);
}

// A client's global locale with a decimal comma and thousands grouping: both
// read the header's numbers as the writer's C-locale printf wrote them.
struct CommaNumbers : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
  char do_thousands_sep() const override { return '.'; }
  std::string do_grouping() const override { return "\3"; }
};

TEST_F(InspectionAgreesTest, TheHeaderIsReadInTheClassicLocaleWhateverTheGlobalOne) {
  const fs::path file = path("sample.afxs");
  writeBytes(file, readBytes(dataFile("all_fields.afxs")));
  const std::locale previous =
      std::locale::global(std::locale(std::locale::classic(), new CommaNumbers));
  const LuAfxsInspection in = luAfxsInspect(file.wstring(), true);
  LuAfxsUserLink link(file.wstring().c_str());
  const bool verified = link.verify(false);
  std::locale::global(previous);
  ASSERT_TRUE(verified);
  EXPECT_TRUE(in.loadable());
  EXPECT_EQ(in.header.distBwPlanes, link.getHeader().distBwPlanes);
  EXPECT_EQ(in.header.point[1], link.getHeader().point[1]);
  EXPECT_EQ(in.header.numPlanes, link.getHeader().numPlanes);
}

}  // namespace
}  // namespace lutest
