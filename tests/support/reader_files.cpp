#include "support/reader_files.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <random>

namespace lutest {

namespace {

template <typename T>
FieldBlock rawBlock(uint32_t id, const std::vector<T>& values) {
  FieldBlock b;
  b.id = id;
  b.data.resize(values.size() * sizeof(T));
  if (!values.empty()) std::memcpy(b.data.data(), values.data(), b.data.size());
  return b;
}

std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* fmt, ...) {
  char buffer[512];
  va_list args;
  va_start(args, fmt);
  std::vsnprintf(buffer, sizeof buffer, fmt, args);
  va_end(args);
  return buffer;
}

}  // namespace

FieldBlock pointsBlock(uint32_t id, const std::vector<LuVec3>& points) {
  return rawBlock(id, points);
}
FieldBlock u32Block(uint32_t id, const std::vector<uint32_t>& values) {
  return rawBlock(id, values);
}
FieldBlock i32Block(uint32_t id, const std::vector<int32_t>& values) {
  return rawBlock(id, values);
}
FieldBlock doublesBlock(uint32_t id, const std::vector<double>& values) {
  return rawBlock(id, values);
}
FieldBlock resultsLinkBlock(uint32_t bodyOffset) { return rawBlock<uint32_t>(4, {bodyOffset}); }
FieldBlock countOnlyBlock(uint32_t id, uint32_t count) {
  FieldBlock b;
  b.id = id;
  b.count = count;
  return b;
}

std::vector<FieldBlock> writerBlocks(const LuAfxsPlane& p, uint32_t mask) {
  std::vector<FieldBlock> out;
  if (mask & 1) out.push_back(pointsBlock(0, p.points));
  if (mask & 4) out.push_back(pointsBlock(1, p.normals));
  if (mask & 2) out.push_back(i32Block(2, p.segments));
  if (mask & 8) {
    out.push_back(u32Block(7, p.auxCtrlPos));
    out.push_back(u32Block(8, p.auxCtrlOffsets));
    out.push_back(u32Block(9, p.auxCtrlCounts));
    out.push_back(u32Block(3, p.auxCtrlFirst));
  }
  if (mask & 32) out.push_back(doublesBlock(6, p.distances));
  if (mask & 16) out.push_back(pointsBlock(5, p.resPoints));
  return out;
}

std::string headerText(int version, const double point[3], const double normal[3],
                       uint64_t numPlanes, double distBwPlanes, uint32_t firstRecord,
                       uint32_t state) {
  std::string s = "Lumoravel_XS_COP\n";
  s += format("VER %d\n", version);
  s += format("FIRST_RECORD 0x%.8X\n", firstRecord);
  s += format("POINT %f %f %f\n", point[0], point[1], point[2]);
  s += format("NORMAL %f %f %f\n", normal[0], normal[1], normal[2]);
  s += format("NUM_PLANES %d\n", static_cast<int>(static_cast<uint32_t>(numPlanes)));
  s += format("DIST_BW_PLANES %f\n", distBwPlanes);
  s += format("STATE 0x%.8X\n", state);
  s += "HEADER_END\n";
  return s;
}

AfxsFileBuilder::AfxsFileBuilder() {
  const double point[3] = {1, 2, 3};
  const double normal[3] = {0, 0, 1};
  setHeaderText(headerText(1, point, normal, 4, 0.5, 0, 0));
}

void AfxsFileBuilder::setHeaderText(const std::string& text) {
  m_bytes.assign(text.begin(), text.end());
  m_headerSize = static_cast<uint32_t>(m_bytes.size());
  size_t at = text.find("FIRST_RECORD 0x00000000");
  m_firstRecordPatch = at == std::string::npos ? at : at + std::strlen("FIRST_RECORD ");
  m_lastNextField = 0;
  m_anyRecord = false;
  m_planeLinks.clear();
  m_resultsLinkData.clear();
}

uint32_t AfxsFileBuilder::beginRecord(uint32_t kind) {
  uint32_t offset = static_cast<uint32_t>(m_bytes.size());
  appendU32(m_bytes, kind);
  uint32_t nextField = static_cast<uint32_t>(m_bytes.size());
  appendU32(m_bytes, 0);
  if (!m_anyRecord) {
    if (m_firstRecordPatch != std::string::npos) {
      std::string value = format("0x%.8X", offset);
      std::memcpy(m_bytes.data() + m_firstRecordPatch, value.data(), value.size());
    }
    m_anyRecord = true;
  } else {
    putU32At(m_bytes, m_lastNextField, offset);
  }
  m_lastNextField = nextField;
  return offset;
}

void AfxsFileBuilder::appendBlocks(const std::vector<FieldBlock>& blocks) {
  for (const FieldBlock& b : blocks) {
    appendU32(m_bytes, b.id);
    appendU32(m_bytes, b.count ? *b.count : static_cast<uint32_t>(b.data.size()));
    m_bytes.insert(m_bytes.end(), b.data.begin(), b.data.end());
  }
}

uint32_t AfxsFileBuilder::addCameras(const std::vector<LuVec3>& cameras) {
  return addCamerasBlocks({pointsBlock(0, cameras)});
}

uint32_t AfxsFileBuilder::addCamerasBlocks(const std::vector<FieldBlock>& blocks,
                                           uint32_t endKind) {
  uint32_t offset = beginRecord(0);
  appendBlocks(blocks);
  appendU32(m_bytes, 0xFFFFFFFF);
  appendU32(m_bytes, endKind);
  return offset;
}

uint32_t AfxsFileBuilder::addPlane(uint32_t planeId) {
  uint32_t offset = beginRecord(1);
  appendU32(m_bytes, planeId);
  m_planeLinks[offset] = static_cast<uint32_t>(m_bytes.size());
  appendU32(m_bytes, 0);
  appendU32(m_bytes, 0xFFFFFFFF);
  appendU32(m_bytes, 1);
  return offset;
}

uint32_t AfxsFileBuilder::addSubset(uint32_t planeRecord, uint32_t subsetId,
                                    const std::vector<FieldBlock>& blocks, uint32_t resultsLink,
                                    bool withResultsLink, uint32_t endKind) {
  uint32_t offset = beginRecord(2);
  appendU32(m_bytes, subsetId);
  uint32_t nextSubset = static_cast<uint32_t>(m_bytes.size());
  appendU32(m_bytes, 0);
  appendBlocks(blocks);
  if (withResultsLink) {
    appendU32(m_bytes, 4);
    appendU32(m_bytes, 4);
    m_resultsLinkData[offset] = static_cast<uint32_t>(m_bytes.size());
    appendU32(m_bytes, resultsLink);
  }
  appendU32(m_bytes, 0xFFFFFFFF);
  appendU32(m_bytes, endKind);
  auto link = m_planeLinks.find(planeRecord);
  if (link != m_planeLinks.end()) {
    putU32At(m_bytes, link->second, offset);
    link->second = nextSubset;
  }
  return offset;
}

uint32_t AfxsFileBuilder::addResults(const std::vector<FieldBlock>& blocks, uint32_t endKind) {
  uint32_t offset = beginRecord(3);
  appendBlocks(blocks);
  appendU32(m_bytes, 0xFFFFFFFF);
  appendU32(m_bytes, endKind);
  return offset;
}

uint32_t AfxsFileBuilder::addRaw(uint32_t kind, const std::vector<uint8_t>& body) {
  uint32_t offset = beginRecord(kind);
  m_bytes.insert(m_bytes.end(), body.begin(), body.end());
  return offset;
}

uint32_t AfxsFileBuilder::resultsLinkDataOf(uint32_t record) const {
  auto it = m_resultsLinkData.find(record);
  return it == m_resultsLinkData.end() ? 0 : it->second;
}

void AfxsFileBuilder::patchU32(uint32_t offset, uint32_t value) {
  putU32At(m_bytes, offset, value);
}

void AfxsFileBuilder::write(const fs::path& file) const { writeBytes(file, m_bytes); }

LuAfxsPlane randomPlane(uint32_t planeId, uint32_t subsetId, size_t points, uint32_t seed) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<double> coord(-1000, 1000);
  LuAfxsPlane p;
  p.planeId = planeId;
  p.subsetId = subsetId;
  for (size_t i = 0; i < points; ++i) {
    p.points.push_back({coord(rng), coord(rng), coord(rng)});
    p.normals.push_back({coord(rng), coord(rng), coord(rng)});
    p.resPoints.push_back({coord(rng), coord(rng), coord(rng)});
    p.distances.push_back(coord(rng));
    p.auxCtrlPos.push_back(static_cast<uint32_t>(rng()));
    p.auxCtrlCounts.push_back(1);
    p.auxCtrlOffsets.push_back(static_cast<uint32_t>(i));
    p.auxCtrlFirst.push_back(p.auxCtrlPos.back());
  }
  // Segments tile the points: running totals ending at the point count.
  size_t done = 0;
  while (done < points) {
    size_t len = 1 + rng() % (points - done);
    done += len;
    p.segments.push_back(static_cast<int32_t>(done));
  }
  return p;
}

bool writeWithWriter(const std::wstring& path, const LuAfxsHeader& header,
                     const std::vector<LuVec3>& cameras,
                     const std::vector<std::pair<LuAfxsPlane, uint32_t>>& planes) {
  LuAfxsCreateLink link(path.c_str());
  link.setHeader(header);
  LuAfxsCamerasTable table;
  table.cameras = cameras;
  link.setCameras(table);
  if (!link.create(true)) return false;
  for (const auto& [p, mask] : planes) {
    LuAfxsCreateData data(link, p.planeId, p.subsetId);
    auto pts = [](const std::vector<LuVec3>& v) {
      return reinterpret_cast<const double(*)[3]>(v.data());
    };
    if (mask & 1) data.setPoints(pts(p.points), p.points.size());
    if (mask & 2) data.setSegments(p.segments.data(), p.segments.size());
    if (mask & 4) data.setNormals(pts(p.normals), p.normals.size());
    if (mask & 8)
      data.setAuxCtrlPos(p.auxCtrlPos.data(), p.auxCtrlPos.size(), p.auxCtrlCounts.data(),
                         p.auxCtrlCounts.size());
    if (mask & 16) data.setResPoints(pts(p.resPoints), p.resPoints.size());
    if (mask & 32) data.setDistances(p.distances.data(), p.distances.size());
    if (!data.flush()) return false;
  }
  link.release();
  link.closeFile(true);
  return link.isOK();
}

}  // namespace lutest
