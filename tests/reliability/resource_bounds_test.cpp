// Resource bounds of reading: whatever a file claims (byte counts near 2^32,
// chains that lead back into themselves, many plane records sharing one
// subset chain), reading it ends and allocates at most a small multiple of
// the file's size. The allocations are counted by a replacement of the
// global operator new and delete in this program, which the library's own
// allocations reach as well (one process, one global allocator).
//
// The every-offset truncation sweep of the sample files lives in
// tests/reader/damaged_files_test.cpp (TruncatedSampleTest); this suite adds
// the allocation bound on top of the hostile files there.
#include <cstdlib>
#include <iostream>
#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <luAnaf/luAfxsFileCheck.h>
#include <luAnaf/luAnaf.h>

#include "support/quick_mode.h"
#include "support/reader_files.h"
#include "support/test_support.h"

// ---- Counting allocator ------------------------------------------------------

namespace {

size_t g_live = 0;
size_t g_peak = 0;

// On Windows the library is a DLL with its own operator new: blocks it
// allocates may be freed here and the other way round, so this program
// keeps the default allocator there and the tests skip (peak stays 0).
#if !defined(_WIN32)

// Every block carries its size in a header of one max-aligned slot.
constexpr size_t kSlot = alignof(std::max_align_t) < 16 ? 16 : alignof(std::max_align_t);
void* countedAlloc(size_t size) {
  void* raw = std::malloc(size + kSlot);
  if (raw == nullptr) return nullptr;
  *static_cast<size_t*>(raw) = size;
  g_live += size;
  if (g_live > g_peak) g_peak = g_live;
  return static_cast<char*>(raw) + kSlot;
}

void countedFree(void* p) noexcept {
  if (p == nullptr) return;
  void* raw = static_cast<char*>(p) - kSlot;
  g_live -= *static_cast<size_t*>(raw);
  std::free(raw);
}

void* countedNew(size_t size) {
  void* p = countedAlloc(size == 0 ? 1 : size);
  if (p == nullptr) throw std::bad_alloc();
  return p;
}
#endif

}  // namespace

#if !defined(_WIN32)
void* operator new(size_t size) { return countedNew(size); }
void* operator new[](size_t size) { return countedNew(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return countedAlloc(size == 0 ? 1 : size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return countedAlloc(size == 0 ? 1 : size);
}
void operator delete(void* p) noexcept { countedFree(p); }
void operator delete[](void* p) noexcept { countedFree(p); }
void operator delete(void* p, size_t) noexcept { countedFree(p); }
void operator delete[](void* p, size_t) noexcept { countedFree(p); }
void operator delete(void* p, const std::nothrow_t&) noexcept { countedFree(p); }
void operator delete[](void* p, const std::nothrow_t&) noexcept { countedFree(p); }
#endif  // !_WIN32

namespace lutest {
namespace {

// Peak of live bytes allocated while it lives, above what was live at its start.
class PeakMeter {
public:
  PeakMeter() : m_base(g_live) { g_peak = g_live; }
  size_t peak() const { return g_peak - m_base; }

private:
  size_t m_base;
};

constexpr size_t kFixedAllowance = 1u << 20;  // 1 MiB
constexpr size_t kFactor = 8;

enum class Reading { Load, Verify, Cameras, Inspect };
const char* nameOf(Reading r) {
  switch (r) {
    case Reading::Load:
      return "load";
    case Reading::Verify:
      return "verify";
    case Reading::Cameras:
      return "getCameras";
    case Reading::Inspect:
      return "inspect";
  }
  return "?";
}

struct Hostile {
  const char* name;
  AfxsFileBuilder (*build)();
  bool loads;  // whether a data-set load of all fields succeeds
};

std::ostream& operator<<(std::ostream& out, const Hostile& h) { return out << h.name; }

AfxsFileBuilder oneRecord(const std::vector<FieldBlock>& blocks) {
  AfxsFileBuilder b;
  uint32_t p = b.addPlane(1);
  b.addSubset(p, 1, blocks);
  return b;
}

AfxsFileBuilder countOf(uint32_t id, uint32_t count) {
  return oneRecord({pointsBlock(0, {{1, 2, 3}}), countOnlyBlock(id, count)});
}

AfxsFileBuilder sampleBuilder(const char* name) {
  AfxsFileBuilder b;
  b.bytes() = readBytes(dataFile(name));
  return b;
}

// Plane records, each followed by one subset record; then every plane's
// first-subset field is pointed at the first plane's subset record.
AfxsFileBuilder planesSharingOneChain(uint32_t planes, size_t pointsPerSubset) {
  AfxsFileBuilder b;
  std::vector<LuVec3> points(pointsPerSubset, LuVec3{1, 2, 3});
  std::vector<uint32_t> records;
  for (uint32_t i = 0; i < planes; ++i) records.push_back(b.addPlane(i));
  b.addSubset(records[0], 1, {pointsBlock(0, points)});
  const uint32_t first = u32At(b.bytes(), records[0] + 12);
  for (uint32_t i = 1; i < planes; ++i) b.patchU32(records[i] + 12, first);
  return b;
}

const Hostile kHostile[] = {
    {"SampleAllFields", [] { return sampleBuilder("all_fields.afxs"); }, true},
    {"SampleWithResults", [] { return sampleBuilder("with_results.afxs"); }, true},
    {"PointsCountNearTwoToThe32", [] { return countOf(0, 0xFFFFFFF0); }, false},
    {"NormalsCountNearTwoToThe32", [] { return countOf(1, 0xFFFFFFE8); }, false},
    {"SegmentsCountNearTwoToThe32", [] { return countOf(2, 0xFFFFFFFC); }, false},
    {"DistancesCountNearTwoToThe32", [] { return countOf(6, 0xFFFFFFF8); }, false},
    {"AuxPositionsCountNearTwoToThe32", [] { return countOf(7, 0xFFFFFFFC); }, false},
    {"AuxCountsCountNearTwoToThe32", [] { return countOf(9, 0xFFFFFFFC); }, false},
    {"SkippedAuxFirstCountNearTwoToThe32", [] { return countOf(3, 0xFFFFFFFC); }, false},
    {"CamerasCountNearTwoToThe32",
     [] {
       AfxsFileBuilder b;
       b.addCamerasBlocks({countOnlyBlock(0, 0xFFFFFFF0)});
       uint32_t p = b.addPlane(1);
       b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})});
       return b;
     },
     true},  // a damaged cameras record leaves an empty table; the planes still load
    {"ResultPointsCountNearTwoToThe32",
     [] {
       AfxsFileBuilder b;
       uint32_t p = b.addPlane(1);
       uint32_t r = b.addResults({countOnlyBlock(5, 0xFFFFFFF0)});
       b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})}, r + 8);
       return b;
     },
     false},
    {"RecordChainBackToTheFirstRecord",
     [] {
       AfxsFileBuilder b = oneRecord({pointsBlock(0, {{1, 2, 3}})});
       uint32_t last = b.addPlane(2);
       b.patchU32(last + 4, b.headerSize());
       return b;
     },
     false},
    {"RecordPointingAtItself",
     [] {
       AfxsFileBuilder b;
       uint32_t p = b.addPlane(1);
       b.patchU32(p + 4, p);
       return b;
     },
     false},
    {"SubsetChainPointingAtItself",
     [] {
       AfxsFileBuilder b;
       uint32_t p = b.addPlane(1);
       uint32_t s = b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})});
       b.patchU32(s + 12, s);
       return b;
     },
     false},
    {"SubsetChainLoopOfTwo",
     [] {
       AfxsFileBuilder b;
       uint32_t p = b.addPlane(1);
       b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})});
       uint32_t s2 = b.addSubset(p, 2, {pointsBlock(0, {{4, 5, 6}})});
       b.patchU32(s2 + 12, u32At(b.bytes(), p + 12));
       return b;
     },
     false},
    {"ResultsLinkBackToItsOwnRecord",
     [] {
       AfxsFileBuilder b;
       uint32_t p = b.addPlane(1);
       uint32_t s = b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})});
       b.patchU32(b.resultsLinkDataOf(s), AfxsFileBuilder::firstField(s));
       return b;
     },
     false},
    {"ResultsRecordLinkingBackToItself",
     [] {
       AfxsFileBuilder b;
       uint32_t p = b.addPlane(1);
       uint32_t r = b.addResults({doublesBlock(6, {0.5}), resultsLinkBlock(0)});
       b.addSubset(p, 1, {pointsBlock(0, {{1, 2, 3}})}, r + 8);
       // The results record's own link block names the results record again.
       b.patchU32(r + 8 + 8 + 8 + 8, r + 8);
       return b;
     },
     true},
    {"ThreeHundredPlanesSharingOneSubsetRecord", [] { return planesSharingOneChain(300, 1); },
     false},
    {"ThousandPlanesSharingOneLargeSubset", [] { return planesSharingOneChain(1000, 10000); },
     false},
};

class ResourceBoundsTest : public ReaderTest, public ::testing::WithParamInterface<Hostile> {
protected:
  // Writes the file afresh (a failed first load deletes it) and measures
  // the peak of one reading of it.
  size_t peakOf(const std::vector<uint8_t>& bytes, Reading reading, bool* loaded = nullptr) {
    const fs::path file = path("hostile.afxs");
    writeBytes(file, bytes);
    const std::wstring wfile = file.wstring();
    size_t peak = 0;
    {
      LuAfxsUserLink link(wfile.c_str());
      LuAfxsUserDataSet set(link);
      PeakMeter meter;
      switch (reading) {
        case Reading::Load: {
          bool ok = set.load(LU_AFXS_MASK_ALL);
          if (loaded != nullptr) *loaded = ok;
          break;
        }
        case Reading::Verify:
          link.verify(false);
          break;
        case Reading::Cameras:
          link.verify(false);
          link.getCameras();
          break;
        case Reading::Inspect: {
          LuAfxsInspection inspection = luAfxsInspect(wfile, true);
          EXPECT_TRUE(inspection.opened);
          EXPECT_EQ(inspection.loadable(), GetParam().loads);
          break;
        }
      }
      peak = meter.peak();
    }
    return peak;
  }
};

TEST_P(ResourceBoundsTest, ReadingEndsAndAllocatesAtMostASmallMultipleOfTheFile) {
  const std::vector<uint8_t> bytes = GetParam().build().bytes();
  {
    // The meter sees the library's allocations (a dynamic library's calls
    // reach this program's operator new on every platform we build for
    // except Windows, where a DLL keeps its own).
    PeakMeter meter;
    LuAfxsInspection missing = luAfxsInspect(path("missing.afxs").wstring(), true);
    if (meter.peak() == 0) GTEST_SKIP() << "the library's allocations are not seen here";
  }
  const size_t bound = kFactor * bytes.size() + kFixedAllowance;
  std::cout << "[ peak ] " << GetParam().name << " (" << bytes.size() << " bytes):";
  for (Reading r : {Reading::Load, Reading::Verify, Reading::Cameras, Reading::Inspect}) {
    bool loaded = false;
    const size_t peak = peakOf(bytes, r, &loaded);
    if (r == Reading::Load) {
      EXPECT_EQ(loaded, GetParam().loads);
    }
    EXPECT_LE(peak, bound) << nameOf(r) << " allocated " << peak << " bytes for a file of "
                           << bytes.size();
    std::cout << " " << nameOf(r) << " " << peak << " (" << (peak * 100 / bytes.size()) << "%)";
  }
  std::cout << "\n";
}

INSTANTIATE_TEST_SUITE_P(Files, ResourceBoundsTest, ::testing::ValuesIn(kHostile),
                         [](const auto& info) { return std::string(info.param.name); });

// Every prefix of a file that holds every kind of record and block, read
// with the allocation bound: a truncated file never claims more memory than
// the whole one would.
TEST_F(ReaderTest, TruncatedFilesStayWithinTheBound) {
  AfxsFileBuilder b;
  b.addCameras({{1, 2, 3}, {4, 5, 6}});
  uint32_t p = b.addPlane(1);
  const LuAfxsPlane plane = randomPlane(1, 1, 40, 9);
  uint32_t r = b.addResults({doublesBlock(6, {0.5, 0.25})});
  b.addSubset(p, 1, writerBlocks(plane, LU_AFXS_MASK_ALL & ~LU_AFXS_MASK_DISTANCES), r + 8);
  const std::vector<uint8_t> whole = b.bytes();
  const fs::path file = path("cut.afxs");
  for (size_t size = 0; size <= whole.size(); size += stride()) {
    SCOPED_TRACE("truncated at " + std::to_string(size));
    writeBytes(file, std::vector<uint8_t>(whole.begin(), whole.begin() + static_cast<long>(size)));
    PeakMeter meter;
    {
      LuAfxsUserLink link(file.wstring().c_str());
      LuAfxsUserDataSet set(link);
      EXPECT_EQ(set.load(LU_AFXS_MASK_ALL), size == whole.size());
      link.getCameras();
    }
    if (fs::exists(file)) luAfxsInspect(file.wstring(), true);
    EXPECT_LE(meter.peak(), kFactor * whole.size() + kFixedAllowance);
  }
}

}  // namespace
}  // namespace lutest
