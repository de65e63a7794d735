// The writers behind luafxs dump (see text_export.h). Each formats into a
// buffer that goes out in chunks. Doubles take fmt's shortest round-trip
// form through formats compiled ahead: the same text fmt::format("{}") gives.
#include "text_export.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include <fmt/compile.h>
#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

// A field of a plane is printed only when it runs parallel to the points.
bool parallel(size_t size, const LuAfxsPlane& p) { return size == p.points.size() && size != 0; }

// The segment of each point, from the running counts; -1 where the counts
// do not cover a point.
std::vector<int64_t> segmentOfPoints(const LuAfxsPlane& p) {
  std::vector<int64_t> out(p.points.size(), -1);
  int64_t start = 0;
  for (size_t s = 0; s < p.segments.size(); ++s) {
    int64_t end = std::min<int64_t>(p.segments[s], static_cast<int64_t>(out.size()));
    for (int64_t i = std::max<int64_t>(start, 0); i < end; ++i)
      out[static_cast<size_t>(i)] = static_cast<int64_t>(s);
    start = std::max(start, end);
  }
  return out;
}

void append(TextBuffer& out, std::string_view text) {
  out.append(text.data(), text.data() + text.size());
}

template <typename T>
void appendBytes(TextBuffer& out, T value) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, &value, sizeof(T));
  out.append(bytes, bytes + sizeof(T));
}

bool put(std::FILE* out, const std::string& text) {
  return std::fwrite(text.data(), 1, text.size(), out) == text.size();
}

// A text buffer handed to its stream in chunks of about 1 MiB: the text of
// the whole output is never held, and each chunk is one write.
class ChunkedText {
public:
  explicit ChunkedText(std::FILE* file) : m_file(file) {}
  TextBuffer& buffer() { return m_buffer; }
  // Called after each row: writes the buffer out once it holds a chunk.
  void rowDone() {
    if (m_buffer.size() >= kChunk) drain();
  }
  // Writes what is left; false when any write failed.
  bool finish() {
    drain();
    return m_ok;
  }

private:
  static constexpr size_t kChunk = size_t{1} << 20;
  void drain() {
    if (m_ok && m_buffer.size() != 0)
      m_ok = std::fwrite(m_buffer.data(), 1, m_buffer.size(), m_file) == m_buffer.size();
    m_buffer.clear();
  }

  std::FILE* m_file;
  TextBuffer m_buffer;
  bool m_ok = true;
};

// ",x,y,z" of v, or ",,," when the plane lacks the field.
void appendVecCells(TextBuffer& out, bool has, const LuVec3& v) {
  if (has)
    fmt::format_to(fmt::appender(out), FMT_COMPILE(",{},{},{}"), v.x, v.y, v.z);
  else
    append(out, ",,,");
}

// ",count,positions" of point i's aux group, the positions space-separated.
void appendAuxCells(TextBuffer& out, const LuAfxsPlane& p, size_t i) {
  const uint64_t from = p.auxCtrlOffsets[i], count = p.auxCtrlCounts[i];
  fmt::format_to(fmt::appender(out), FMT_COMPILE(",{},"), count);
  for (uint64_t k = from; k < from + count && k < p.auxCtrlPos.size(); ++k) {
    if (k != from) out.push_back(' ');
    fmt::format_to(fmt::appender(out), FMT_COMPILE("{}"), p.auxCtrlPos[k]);
  }
}

std::string csvHeader(uint32_t mask) {
  std::string out = "plane,subset,index";
  if (mask & LU_AFXS_MASK_SEGMENTS) out += ",segment";
  out += ",x,y,z";
  if (mask & LU_AFXS_MASK_NORMALS) out += ",nx,ny,nz";
  if (mask & LU_AFXS_MASK_RESPOINTS) out += ",rx,ry,rz";
  if (mask & LU_AFXS_MASK_DISTANCES) out += ",distance";
  if (mask & LU_AFXS_MASK_AUX) out += ",auxCount,auxPositions";
  return out + "\n";
}

void appendCsvPlane(ChunkedText& text, const LuAfxsPlane& p, uint32_t mask) {
  TextBuffer& out = text.buffer();
  const bool segments = mask & LU_AFXS_MASK_SEGMENTS, normals = mask & LU_AFXS_MASK_NORMALS;
  const bool results = mask & LU_AFXS_MASK_RESPOINTS, distances = mask & LU_AFXS_MASK_DISTANCES;
  const bool aux = mask & LU_AFXS_MASK_AUX;
  const std::vector<int64_t> seg = segments ? segmentOfPoints(p) : std::vector<int64_t>{};
  const bool hasA =
      parallel(p.auxCtrlCounts.size(), p) && p.auxCtrlOffsets.size() == p.auxCtrlCounts.size();
  const bool hasN = parallel(p.normals.size(), p), hasR = parallel(p.resPoints.size(), p);
  const bool hasD = parallel(p.distances.size(), p);
  for (size_t i = 0; i < p.points.size(); ++i) {
    const LuVec3& v = p.points[i];
    fmt::format_to(fmt::appender(out), FMT_COMPILE("{},{},{}"), p.planeId, p.subsetId, i);
    if (segments) {
      if (seg[i] < 0)
        out.push_back(',');
      else
        fmt::format_to(fmt::appender(out), FMT_COMPILE(",{}"), seg[i]);
    }
    fmt::format_to(fmt::appender(out), FMT_COMPILE(",{},{},{}"), v.x, v.y, v.z);
    if (normals) appendVecCells(out, hasN, hasN ? p.normals[i] : v);
    if (results) appendVecCells(out, hasR, hasR ? p.resPoints[i] : v);
    if (distances) {
      if (hasD)
        fmt::format_to(fmt::appender(out), FMT_COMPILE(",{}"), p.distances[i]);
      else
        out.push_back(',');
    }
    if (aux) {
      if (hasA)
        appendAuxCells(out, p, i);
      else
        append(out, ",,");
    }
    out.push_back('\n');
    text.rowDone();
  }
}

// Which optional PLY properties the file gets: those some plane holds.
struct PlyColumns {
  bool normals = false, results = false, distances = false;
  size_t count = 0;
};

PlyColumns plyColumns(const std::vector<const LuAfxsPlane*>& planes, uint32_t mask) {
  PlyColumns c;
  for (const LuAfxsPlane* p : planes) {
    c.count += p->points.size();
    c.normals |= (mask & LU_AFXS_MASK_NORMALS) && parallel(p->normals.size(), *p);
    c.results |= (mask & LU_AFXS_MASK_RESPOINTS) && parallel(p->resPoints.size(), *p);
    c.distances |= (mask & LU_AFXS_MASK_DISTANCES) && parallel(p->distances.size(), *p);
  }
  return c;
}

std::string plyHeader(const PlyColumns& c, bool binary) {
  std::string out = fmt::format(
      "ply\nformat {} 1.0\ncomment written by luafxs dump\nelement vertex {}\n"
      "property double x\nproperty double y\nproperty double z\n",
      binary ? "binary_little_endian" : "ascii", c.count);
  if (c.normals) out += "property double nx\nproperty double ny\nproperty double nz\n";
  if (c.results) out += "property double rx\nproperty double ry\nproperty double rz\n";
  if (c.distances) out += "property double distance\n";
  // int, not uint: some readers (Open3D among them) drop uint properties.
  out += "property int plane\nproperty int subset\nend_header\n";
  return out;
}

// The values of point i of a vertex row, in property order; returns how many.
size_t plyValues(const LuAfxsPlane& p, size_t i, const PlyColumns& c, double (&values)[10]) {
  size_t n = 0;
  auto put = [&](const LuVec3& v) {
    values[n++] = v.x;
    values[n++] = v.y;
    values[n++] = v.z;
  };
  put(p.points[i]);
  if (c.normals) put(parallel(p.normals.size(), p) ? p.normals[i] : LuVec3{0, 0, 0});
  if (c.results) put(parallel(p.resPoints.size(), p) ? p.resPoints[i] : p.points[i]);
  if (c.distances) values[n++] = parallel(p.distances.size(), p) ? p.distances[i] : 0.0;
  return n;
}

void appendPlyPlane(ChunkedText& text, const LuAfxsPlane& p, const PlyColumns& c, bool binary) {
  TextBuffer& out = text.buffer();
  double values[10];
  for (size_t i = 0; i < p.points.size(); ++i) {
    const size_t n = plyValues(p, i, c, values);
    if (binary) {
      for (size_t k = 0; k < n; ++k) appendBytes(out, values[k]);
      appendBytes(out, static_cast<uint32_t>(p.planeId));
      appendBytes(out, static_cast<uint32_t>(p.subsetId));
    } else {
      for (size_t k = 0; k < n; ++k)
        fmt::format_to(fmt::appender(out), FMT_COMPILE("{} "), values[k]);
      fmt::format_to(fmt::appender(out), FMT_COMPILE("{} {}\n"), static_cast<int32_t>(p.planeId),
                     static_cast<int32_t>(p.subsetId));
    }
    text.rowDone();
  }
}

nlohmann::json pointsJson(const std::vector<LuVec3>& v) {
  nlohmann::json out = nlohmann::json::array();
  for (const LuVec3& p : v) out.push_back({p.x, p.y, p.z});
  return out;
}

nlohmann::json planeJson(const LuAfxsPlane& p, uint32_t mask) {
  nlohmann::json plane = {{"plane", p.planeId}, {"subset", p.subsetId}};
  if (mask & LU_AFXS_MASK_POINTS) plane["points"] = pointsJson(p.points);
  if (mask & LU_AFXS_MASK_NORMALS) plane["normals"] = pointsJson(p.normals);
  if (mask & LU_AFXS_MASK_SEGMENTS) plane["segments"] = p.segments;
  if (mask & LU_AFXS_MASK_AUX) {
    plane["auxCtrlOffsets"] = p.auxCtrlOffsets;
    plane["auxCtrlCounts"] = p.auxCtrlCounts;
    plane["auxCtrlPos"] = p.auxCtrlPos;
  }
  if (mask & LU_AFXS_MASK_RESPOINTS) plane["resPoints"] = pointsJson(p.resPoints);
  if (mask & LU_AFXS_MASK_DISTANCES) plane["distances"] = p.distances;
  return plane;
}

}  // namespace

bool writeXyz(std::FILE* file, const std::vector<const LuAfxsPlane*>& planes) {
  ChunkedText text(file);
  for (const LuAfxsPlane* p : planes) {
    for (const LuVec3& v : p->points) {
      fmt::format_to(fmt::appender(text.buffer()), FMT_COMPILE("{} {} {}\n"), v.x, v.y, v.z);
      text.rowDone();
    }
  }
  return text.finish();
}

bool writeCsv(std::FILE* file, const std::vector<const LuAfxsPlane*>& planes, uint32_t mask) {
  ChunkedText text(file);
  append(text.buffer(), csvHeader(mask));
  for (const LuAfxsPlane* p : planes) appendCsvPlane(text, *p, mask);
  return text.finish();
}

bool writePly(std::FILE* file, const std::vector<const LuAfxsPlane*>& planes, uint32_t mask,
              bool binary) {
  ChunkedText text(file);
  const PlyColumns columns = plyColumns(planes, mask);
  append(text.buffer(), plyHeader(columns, binary));
  for (const LuAfxsPlane* p : planes) appendPlyPlane(text, *p, columns, binary);
  return text.finish();
}

bool writeJson(std::FILE* out, const std::string& file, size_t count,
               const std::function<const LuAfxsPlane*(size_t)>& planeAt, uint32_t mask) {
  // One plane a line: readable, and still one JSON document.
  bool ok = put(out, fmt::format("{{\"file\": {}, \"fields\": {}, \"planes\": [",
                                 nlohmann::json(file).dump(), maskNameList(mask).dump()));
  for (size_t i = 0; i < count && ok; ++i) {
    const LuAfxsPlane* plane = planeAt(i);
    ok = plane != nullptr && put(out, (i == 0 ? "\n" : ",\n") + planeJson(*plane, mask).dump());
  }
  return ok && put(out, "\n]}\n");
}

}  // namespace luafxs
