// Helpers of the writer suites: a link that exposes its protected state, a
// fixture with verbs for writing small files, faults and sparse growth.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>
#include "platform/lu_io_fault.h"

#include "support/afxs_decoder.h"
#include "support/test_support.h"

namespace lutest {

// The create link with its protected members reachable from tests.
class ProbeLink : public LuAfxsCreateLink {
public:
  using LuAfxsCreateLink::createNewRecord;
  using LuAfxsCreateLink::createPlaneSubsetRecord;
  using LuAfxsCreateLink::LuAfxsCreateLink;
  using LuAfxsCreateLink::updateState;
  FILE* file() const { return m_file; }
  void forgetFile() { m_file = nullptr; }
  bool deleteOnDestroy() const { return m_deleteOnDestroy; }
  bool stateDirty() const { return m_stateDirty; }
  uint64_t recordCount() const { return m_recordCount; }
  uint32_t patchOffset() const { return m_patchOffset; }
  uint32_t stateLineOffset() const { return m_stateLineOffset; }
  const std::map<uint32_t, uint32_t>& planeLinks() const { return m_planeLinks; }
};

inline LuAfxsHeader sampleHeader() {
  LuAfxsHeader h;
  h.version = 2;
  h.point[0] = 1.5;
  h.point[1] = -2.25;
  h.point[2] = 3;
  h.normal[0] = 0;
  h.normal[1] = 0;
  h.normal[2] = 1;
  h.numPlanes = 4;
  h.distBwPlanes = 0.5;
  return h;
}

// n points (i, 2i, 3i) + offset.
inline std::vector<LuVec3> pointsOf(size_t n, double offset = 0) {
  std::vector<LuVec3> out;
  for (size_t i = 0; i < n; ++i) {
    double d = static_cast<double>(i);
    out.push_back({d + offset, 2 * d + offset, 3 * d + offset});
  }
  return out;
}

inline const double (*raw(const std::vector<LuVec3>& v))[3] {
  return reinterpret_cast<const double(*)[3]>(v.data());
}

class WriterTest : public TempDirTest {
protected:
  std::wstring target(const std::string& name = "out.afxs") const { return wpath(name); }

  // A link on `name` with the sample header (and the cameras, if any).
  std::unique_ptr<ProbeLink> makeLink(const std::string& name = "out.afxs",
                                      std::vector<LuVec3> cameras = {}) {
    auto link = std::make_unique<ProbeLink>(target(name).c_str());
    link->setHeader(sampleHeader());
    LuAfxsCamerasTable table;
    table.cameras = std::move(cameras);
    link->setCameras(table);
    return link;
  }

  // Flushes one record with points (and segments covering them) and the
  // field groups of `mask`.
  bool flushPlane(LuAfxsCreateLink& link, uint32_t planeId, uint32_t subsetId, size_t n = 3,
                  uint32_t mask = LU_AFXS_MASK_POINTS | LU_AFXS_MASK_SEGMENTS) {
    LuAfxsCreateData data(link, planeId, subsetId);
    auto pts = pointsOf(n, planeId * 100.0 + subsetId);
    if (mask & LU_AFXS_MASK_POINTS) data.setPoints(raw(pts), pts.size());
    if (mask & LU_AFXS_MASK_NORMALS) data.setNormals(raw(pts), pts.size());
    int segs[1] = {static_cast<int>(n)};
    if (mask & LU_AFXS_MASK_SEGMENTS) data.setSegments(segs, 1);
    std::vector<uint32_t> pos(n), counts(n, 1);
    for (size_t i = 0; i < n; ++i) pos[i] = static_cast<uint32_t>(10 + i);
    if (mask & LU_AFXS_MASK_AUX) data.setAuxCtrlPos(pos.data(), n, counts.data(), n);
    std::vector<double> dist(n, 0.25);
    if (mask & LU_AFXS_MASK_DISTANCES) data.setDistances(dist.data(), n);
    if (mask & LU_AFXS_MASK_RESPOINTS) data.setResPoints(raw(pts), pts.size());
    return data.flush();
  }

  std::vector<uint8_t> bytes(const std::string& name = "out.afxs") const {
    return readBytes(path(name));
  }
  afxstest::DecodedFile decode(const std::string& name = "out.afxs") const {
    return afxstest::decodeAfxs(bytes(name));
  }
  bool exists(const std::string& name = "out.afxs") const { return fs::exists(path(name)); }
  uint64_t sizeOf(const std::string& name = "out.afxs") const { return fs::file_size(path(name)); }
  // Grows (sparsely) or cuts a closed file to `size` bytes.
  void resizeTo(uint64_t size, const std::string& name = "out.afxs") const {
    fs::resize_file(path(name), size);
  }
  void armFault(LuIoOp op, uint64_t nth) { luIoFaultArm(op, nth); }

  // The one captured report, checked for the writer's source and path.
  void expectOneReport(uint32_t code, int line, const std::wstring& file) const {
    ASSERT_EQ(reports().size(), 1u);
    const LuErrorReport& r = reports()[0];
    EXPECT_EQ(r.code, code) << std::hex << r.code;
    EXPECT_EQ(r.line, line);
    EXPECT_EQ(r.source, L"LuAfxsCreateIface");
    EXPECT_EQ(r.severity, 5);
    EXPECT_EQ(r.path, file);
    EXPECT_FALSE(r.hasSystemText);
    EXPECT_EQ(r.buildDate, luEnvBuildDate());
  }
};

// A writer test with a created link on "out.afxs", ready for data.
class CreatedLinkTest : public WriterTest {
protected:
  void SetUp() override {
    WriterTest::SetUp();
    link = makeLink();
    ASSERT_TRUE(link->create(false));
  }
  void TearDown() override {
    link.reset();
    WriterTest::TearDown();
  }
  std::unique_ptr<ProbeLink> link;
};

}  // namespace lutest
