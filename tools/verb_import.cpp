// luafxs import: contours from what dump writes (csv with its header line,
// ASCII or binary PLY of either byte order, or xyz), into a new cross-section
// file, so that dump, import and dump again give the same text. Malformed
// input is refused with one message naming its line; nothing is written then.
#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <string_view>
#include <utility>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

struct ImportError {
  uint64_t line;
  std::string what;
};

// The pieces of `text` between separators, as views of it, into `cells`
// (whose room is reused from row to row).
void splitOn(std::string_view text, char separator, std::vector<std::string_view>& cells) {
  cells.clear();
  size_t from = 0;
  for (;;) {
    size_t at = text.find(separator, from);
    cells.push_back(text.substr(from, at == std::string_view::npos ? at : at - from));
    if (at == std::string_view::npos) return;
    from = at + 1;
  }
}

std::vector<std::string_view> splitOn(std::string_view text, char separator) {
  std::vector<std::string_view> cells;
  splitOn(text, separator, cells);
  return cells;
}

double number(std::string_view cell, uint64_t line, std::string_view column) {
  double v = 0;
  auto [end, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), v);
  if (cell.empty() || ec != std::errc() || end != cell.data() + cell.size())
    throw ImportError{line,
                      fmt::format("column {}: '{}' is not a number", column, quotedCell(cell))};
  if (!std::isfinite(v))
    throw ImportError{
        line, fmt::format("column {}: '{}' is not a finite number", column, quotedCell(cell))};
  return v;
}

uint64_t whole(std::string_view cell, uint64_t line, std::string_view column, uint64_t max) {
  uint64_t v = 0;
  auto [end, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), v);
  if (cell.empty() || ec != std::errc() || end != cell.data() + cell.size() || v > max)
    throw ImportError{line, fmt::format("column {}: '{}' is not a whole number from 0 to {}",
                                        column, quotedCell(cell), max)};
  return v;
}

// One plane subset as it is read, with the segment and aux cells per point.
struct ImportedPlane {
  LuAfxsPlane plane;
  std::vector<int64_t> segmentOfPoint;  // -1: none
  std::vector<uint32_t> auxCounts;
  std::vector<uint32_t> auxPositions;
  bool hasAux = false;
};

// The whole input, read to its end (a pipe as well as a file); a directory,
// a failed read or an input larger than the memory the system grants (an
// endless device named by mistake) is refused.
std::string readWhole(const std::string& path) {
  std::error_code ec;
  if (std::filesystem::is_directory(path, ec)) throw ImportError{0, "is a directory, not a file"};
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ImportError{0, "cannot be opened for reading"};
  const uintmax_t size = std::filesystem::file_size(path, ec);
  const size_t first = ec ? size_t{1} << 16 : static_cast<size_t>(size) + 1;
  std::string text;
  size_t got = 0;
  for (;;) {
    try {
      if (got == text.size()) text.resize(text.empty() ? first : 2 * text.size());
    } catch (const std::exception&) {  // bad_alloc, or length_error past max_size
      throw ImportError{0, fmt::format("is too large to be read into memory ({} bytes read)", got)};
    }
    in.read(text.data() + got, static_cast<std::streamsize>(text.size() - got));
    got += static_cast<size_t>(in.gcount());
    if (!in) break;
  }
  if (in.bad() || !in.eof()) throw ImportError{0, "cannot be read"};
  text.resize(got);
  return text;
}

// The lines of a text, as views of it: each must end in a line feed (a last
// line without one means the file was cut).
std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines = splitOn(text, '\n');
  if (!lines.back().empty())
    throw ImportError{lines.size(), "the last line has no line feed: the file was cut short"};
  lines.pop_back();
  return lines;
}

// Where each column that a row is read by stands among the header's
// columns (csv) or the vertex properties (PLY), the last of equal names;
// -1 for one that is absent.
struct RowColumns {
  size_t count = 0;
  int plane = -1, subset = -1, index = -1, x = -1, y = -1, z = -1, nx = -1, ny = -1, nz = -1;
  int rx = -1, ry = -1, rz = -1, distance = -1, segment = -1, auxCount = -1, auxPositions = -1;

  explicit RowColumns(const std::vector<std::string_view>& names) : count(names.size()) {
    const std::pair<const char*, int*> known[] = {{"plane", &plane},
                                                  {"subset", &subset},
                                                  {"index", &index},
                                                  {"x", &x},
                                                  {"y", &y},
                                                  {"z", &z},
                                                  {"nx", &nx},
                                                  {"ny", &ny},
                                                  {"nz", &nz},
                                                  {"rx", &rx},
                                                  {"ry", &ry},
                                                  {"rz", &rz},
                                                  {"distance", &distance},
                                                  {"segment", &segment},
                                                  {"auxCount", &auxCount},
                                                  {"auxPositions", &auxPositions}};
    for (size_t i = 0; i < names.size(); ++i)
      for (const auto& [name, at] : known)
        if (names[i] == name) *at = static_cast<int>(i);
  }
};

// The plane subsets read so far, found by their ids; rows of one plane
// subset mostly follow each other, so the last one is looked at first.
class PlaneSubsets {
public:
  ImportedPlane& of(uint32_t planeId, uint32_t subsetId) {
    const std::pair<uint32_t, uint32_t> key(planeId, subsetId);
    if (m_last < m_planes.size() && m_lastKey == key) return m_planes[m_last];
    auto [it, added] = m_index.try_emplace(key, m_planes.size());
    if (added) {
      m_planes.emplace_back();
      m_planes.back().plane.planeId = planeId;
      m_planes.back().plane.subsetId = subsetId;
    }
    m_last = it->second;
    m_lastKey = key;
    return m_planes[m_last];
  }
  std::vector<ImportedPlane> take() { return std::move(m_planes); }

private:
  std::map<std::pair<uint32_t, uint32_t>, size_t> m_index;
  std::vector<ImportedPlane> m_planes;
  size_t m_last = SIZE_MAX;
  std::pair<uint32_t, uint32_t> m_lastKey;
};

void readCsvRow(const RowColumns& columns, const std::vector<std::string_view>& cells,
                uint64_t line, PlaneSubsets& planes) {
  if (cells.size() != columns.count)
    throw ImportError{
        line, fmt::format("{} columns where the header names {}", cells.size(), columns.count)};
  auto cell = [&](int at) { return cells[static_cast<size_t>(at)]; };
  auto id = [&](int at, const char* name) {
    return static_cast<uint32_t>(whole(cell(at), line, name, 0xFFFFFFFF));
  };
  const uint32_t planeId = id(columns.plane, "plane");
  const uint32_t subsetId = id(columns.subset, "subset");
  ImportedPlane& p = planes.of(planeId, subsetId);
  if (whole(cell(columns.index), line, "index", 0xFFFFFFFF) != p.plane.points.size())
    throw ImportError{line,
                      fmt::format("column index: {} where point {} of plane {} subset {} "
                                  "was expected",
                                  cell(columns.index), p.plane.points.size(), planeId, subsetId)};
  auto value = [&](int at, const char* name) { return number(cell(at), line, name); };
  auto vec = [&](int a, int b, int c, const char* na, const char* nb, const char* nc) {
    return LuVec3{value(a, na), value(b, nb), value(c, nc)};
  };
  auto present = [&](int at) { return at >= 0 && !cell(at).empty(); };
  p.plane.points.push_back(vec(columns.x, columns.y, columns.z, "x", "y", "z"));
  if (present(columns.nx))
    p.plane.normals.push_back(vec(columns.nx, columns.ny, columns.nz, "nx", "ny", "nz"));
  if (present(columns.rx))
    p.plane.resPoints.push_back(vec(columns.rx, columns.ry, columns.rz, "rx", "ry", "rz"));
  if (present(columns.distance)) p.plane.distances.push_back(value(columns.distance, "distance"));
  if (columns.segment >= 0)
    p.segmentOfPoint.push_back(
        present(columns.segment)
            ? static_cast<int64_t>(whole(cell(columns.segment), line, "segment", 0x7FFFFFFF))
            : -1);
  if (present(columns.auxCount)) {
    p.hasAux = true;
    const uint32_t count = id(columns.auxCount, "auxCount");
    const std::string_view list = cell(columns.auxPositions);
    const std::vector<std::string_view> positions =
        list.empty() ? std::vector<std::string_view>{} : splitOn(list, ' ');
    if (positions.size() != count)
      throw ImportError{line, fmt::format("column auxPositions: {} positions where auxCount is {}",
                                          positions.size(), count)};
    p.auxCounts.push_back(count);
    for (std::string_view position : positions)
      p.auxPositions.push_back(
          static_cast<uint32_t>(whole(position, line, "auxPositions", 0xFFFFFFFF)));
  }
}

// The columns a row is read by: x y z always, and every group whole (nx ny
// nz, rx ry rz, auxCount auxPositions) or not at all.
void checkColumns(const std::vector<std::string_view>& columns, uint64_t line) {
  auto has = [&](const char* name) {
    return std::find(columns.begin(), columns.end(), name) != columns.end();
  };
  for (const char* needed : {"x", "y", "z"})
    if (!has(needed))
      throw ImportError{line, fmt::format("the header names no column '{}'", needed)};
  const std::vector<std::vector<const char*>> groups = {
      {"nx", "ny", "nz"}, {"rx", "ry", "rz"}, {"auxCount", "auxPositions"}};
  for (const auto& group : groups)
    for (const char* name : group)
      if (has(group.front()) != has(name))
        throw ImportError{
            line, fmt::format("the header names '{}' without '{}'",
                              has(name) ? name : group.front(), has(name) ? group.front() : name)};
}

std::vector<ImportedPlane> readCsv(const std::vector<std::string_view>& lines) {
  if (lines.empty()) throw ImportError{1, "no header line"};
  const std::vector<std::string_view> names = splitOn(lines[0], ',');
  for (const char* needed : {"plane", "subset", "index"})
    if (std::find(names.begin(), names.end(), needed) == names.end())
      throw ImportError{1, fmt::format("the header names no column '{}'", needed)};
  checkColumns(names, 1);
  const RowColumns columns(names);
  PlaneSubsets planes;
  std::vector<std::string_view> cells;
  for (size_t i = 1; i < lines.size(); ++i) {
    splitOn(lines[i], ',', cells);
    readCsvRow(columns, cells, i + 1, planes);
  }
  return planes.take();
}

// ---- PLY ------------------------------------------------------------------------

// The scalar types a PLY property may have (both spellings of each).
enum class PlyType { Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

struct PlyTypeName {
  const char* name;
  const char* alias;
  PlyType type;
  size_t size;
};

constexpr PlyTypeName kPlyTypes[] = {
    {"char", "int8", PlyType::Int8, 1},        {"uchar", "uint8", PlyType::UInt8, 1},
    {"short", "int16", PlyType::Int16, 2},     {"ushort", "uint16", PlyType::UInt16, 2},
    {"int", "int32", PlyType::Int32, 4},       {"uint", "uint32", PlyType::UInt32, 4},
    {"float", "float32", PlyType::Float32, 4}, {"double", "float64", PlyType::Float64, 8},
};

struct PlyProperty {
  std::string name;
  PlyType type;
  size_t size;  // bytes in a binary row
};

enum class PlyFormat { Ascii, BinaryLittleEndian, BinaryBigEndian };

// The header of a PLY with one element, vertex, of scalar properties.
struct PlyHeader {
  PlyFormat format = PlyFormat::Ascii;
  uint64_t count = 0;
  std::vector<PlyProperty> properties;
  uint64_t lines = 0;  // before end_header
};

PlyFormat plyFormat(const std::vector<std::string_view>& w, uint64_t line) {
  if (w.size() >= 2 && w[1] == "ascii") return PlyFormat::Ascii;
  if (w.size() >= 2 && w[1] == "binary_little_endian") return PlyFormat::BinaryLittleEndian;
  if (w.size() >= 2 && w[1] == "binary_big_endian") return PlyFormat::BinaryBigEndian;
  throw ImportError{line, "only ascii, binary_little_endian and binary_big_endian PLY are read"};
}

PlyProperty plyProperty(const std::vector<std::string_view>& w, uint64_t line) {
  if (w.size() != 3) throw ImportError{line, "only scalar vertex properties are read"};
  for (const PlyTypeName& t : kPlyTypes)
    if (w[1] == t.name || w[1] == t.alias) {
      bool integer = t.type != PlyType::Float32 && t.type != PlyType::Float64;
      if ((w[2] == "plane" || w[2] == "subset") && !integer)
        throw ImportError{line, fmt::format("property {} must be of an integer type", w[2])};
      return {std::string(w[2]), t.type, t.size};
    }
  throw ImportError{line, fmt::format("'{}' is not a PLY scalar type", quotedCell(w[1]))};
}

std::vector<std::string_view> propertyNames(const PlyHeader& h) {
  std::vector<std::string_view> names;
  for (const PlyProperty& p : h.properties) names.push_back(p.name);
  return names;
}

PlyHeader readPlyHeader(std::string_view headerText) {
  PlyHeader h;
  const std::vector<std::string_view> lines = linesOf(headerText);
  h.lines = lines.size();
  std::vector<std::string_view> w;
  for (size_t i = 0; i < lines.size(); ++i) {
    splitOn(lines[i], ' ', w);
    if (w[0] == "format") {
      h.format = plyFormat(w, i + 1);
    } else if (w[0] == "element") {
      if (w.size() != 3 || w[1] != "vertex")
        throw ImportError{i + 1, "only the vertex element is read"};
      h.count = whole(w[2], i + 1, "element vertex", 0xFFFFFFFFFFull);
    } else if (w[0] == "property") {
      h.properties.push_back(plyProperty(w, i + 1));
    }
  }
  const size_t n = h.properties.size();
  if (n < 5 || h.properties[n - 2].name != "plane" || h.properties[n - 1].name != "subset")
    throw ImportError{h.lines, "the vertex properties do not end in plane and subset"};
  checkColumns(propertyNames(h), h.lines);
  return h;
}

// ASCII rows go through the csv reader as its cells.
std::vector<ImportedPlane> readAsciiPly(const PlyHeader& h, std::string_view body) {
  const size_t nd = h.properties.size() - 2;
  std::vector<std::string_view> names = {"plane", "subset", "index"};
  for (size_t k = 0; k < nd; ++k) names.push_back(h.properties[k].name);
  const RowColumns columns(names);
  const std::vector<std::string_view> lines = linesOf(body);
  const uint64_t firstLine = h.lines + 2;
  if (lines.size() != h.count)
    throw ImportError{firstLine + lines.size(),
                      fmt::format("{} vertices where the header names {}", lines.size(), h.count)};
  PlaneSubsets planes;
  std::vector<std::string_view> cells;
  std::vector<std::string_view> row(nd + 3);
  std::string ids[2];
  std::string index;
  for (uint64_t v = 0; v < h.count; ++v) {
    splitOn(lines[v], ' ', cells);
    if (cells.size() != nd + 2)
      throw ImportError{firstLine + v,
                        fmt::format("{} values where {} were expected", cells.size(), nd + 2)};
    // dump writes an int: -1 stands for 4294967295. Any other cell is left
    // for the column's own check.
    for (size_t k = 0; k < 2; ++k) {
      std::string_view cell = cells[nd + k];
      int32_t negative = 0;
      const char* end = cell.data() + cell.size();
      const auto [at, ec] = std::from_chars(cell.data(), end, negative);
      if (cell.size() > 1 && cell[0] == '-' && ec == std::errc() && at == end) {
        ids[k] = std::to_string(static_cast<uint32_t>(negative));
        cell = ids[k];
      }
      row[k] = cell;
    }
    // The index column counts the points of each plane subset (the row's
    // plane subset is the one it goes to next, found from the last one).
    const uint64_t line = firstLine + v;
    const ImportedPlane& next =
        planes.of(static_cast<uint32_t>(whole(row[0], line, "plane", 0xFFFFFFFF)),
                  static_cast<uint32_t>(whole(row[1], line, "subset", 0xFFFFFFFF)));
    index = std::to_string(next.plane.points.size());
    row[2] = index;
    std::copy(cells.begin(), cells.begin() + static_cast<long>(nd), row.begin() + 3);
    readCsvRow(columns, row, line, planes);
  }
  return planes.take();
}

template <typename T>
T loadScalar(const char* at, bool swap) {
  char bytes[sizeof(T)];
  std::memcpy(bytes, at, sizeof(T));
  if (swap) std::reverse(bytes, bytes + sizeof(T));
  T value;
  std::memcpy(&value, bytes, sizeof(T));
  return value;
}

// Every PLY scalar is exact as a double.
double loadPlyValue(const char* at, PlyType type, bool swap) {
  switch (type) {
    case PlyType::Int8:
      return loadScalar<int8_t>(at, swap);
    case PlyType::UInt8:
      return loadScalar<uint8_t>(at, swap);
    case PlyType::Int16:
      return loadScalar<int16_t>(at, swap);
    case PlyType::UInt16:
      return loadScalar<uint16_t>(at, swap);
    case PlyType::Int32:
      return loadScalar<int32_t>(at, swap);
    case PlyType::UInt32:
      return loadScalar<uint32_t>(at, swap);
    case PlyType::Float32:
      return loadScalar<float>(at, swap);
    case PlyType::Float64:
      return loadScalar<double>(at, swap);
  }
  return 0;
}

// One binary vertex row's values, checked, onto its plane subset.
class BinaryPlyRows {
public:
  // The header has passed checkColumns.
  explicit BinaryPlyRows(const PlyHeader& h)
      : m_header(h), m_columns(propertyNames(h)), m_values(h.properties.size()) {}

  void add(const char* row, uint64_t vertex, bool swap) {
    for (size_t k = 0; k < m_values.size(); ++k) {
      const PlyProperty& p = m_header.properties[k];
      m_values[k] = loadPlyValue(row, p.type, swap);
      if (!std::isfinite(m_values[k]))
        throw ImportError{0, fmt::format("vertex {}: property {}: {} is not a finite number",
                                         vertex, p.name, m_values[k])};
      row += p.size;
    }
    LuAfxsPlane& p = m_planes.of(idOf(m_columns.plane), idOf(m_columns.subset)).plane;
    p.points.push_back(vec(m_columns.x, m_columns.y, m_columns.z));
    if (m_columns.nx >= 0) p.normals.push_back(vec(m_columns.nx, m_columns.ny, m_columns.nz));
    if (m_columns.rx >= 0) p.resPoints.push_back(vec(m_columns.rx, m_columns.ry, m_columns.rz));
    if (m_columns.distance >= 0) p.distances.push_back(m_values[m_columns.distance]);
  }

  std::vector<ImportedPlane> take() { return m_planes.take(); }

private:
  // A signed id wraps as dump's int does: -1 stands for 4294967295.
  uint32_t idOf(int k) const {
    return static_cast<uint32_t>(static_cast<int64_t>(m_values[static_cast<size_t>(k)]));
  }
  LuVec3 vec(int a, int b, int c) const {
    return {m_values[static_cast<size_t>(a)], m_values[static_cast<size_t>(b)],
            m_values[static_cast<size_t>(c)]};
  }
  const PlyHeader& m_header;
  RowColumns m_columns;
  std::vector<double> m_values;
  PlaneSubsets m_planes;
};

std::vector<ImportedPlane> readBinaryPly(const PlyHeader& h, const char* body, size_t size) {
  size_t rowSize = 0;
  for (const PlyProperty& p : h.properties) rowSize += p.size;
  if (size % rowSize != 0 || size / rowSize != h.count)
    throw ImportError{
        0, fmt::format("{} vertices where the header names {}", size / rowSize, h.count)};
  const bool swap =
      (h.format == PlyFormat::BinaryBigEndian) != (std::endian::native == std::endian::big);
  BinaryPlyRows rows(h);
  for (uint64_t v = 0; v < h.count; ++v) rows.add(body + v * rowSize, v, swap);
  return rows.take();
}

// A PLY of one vertex element: x y z and any of nx ny nz, rx ry rz,
// distance (as dump writes them), then plane and subset; ASCII, or binary
// of either byte order with any PLY scalar types.
std::vector<ImportedPlane> readPly(std::string_view text) {
  const std::string_view mark = "end_header\n";
  size_t headerEnd = text.find(mark);
  if (headerEnd == std::string_view::npos) throw ImportError{1, "a PLY header without end_header"};
  PlyHeader h = readPlyHeader(text.substr(0, headerEnd));
  const size_t bodyAt = headerEnd + mark.size();
  if (h.format == PlyFormat::Ascii) return readAsciiPly(h, text.substr(bodyAt));
  return readBinaryPly(h, text.data() + bodyAt, text.size() - bodyAt);
}

std::vector<ImportedPlane> readXyz(const std::vector<std::string_view>& lines) {
  std::vector<ImportedPlane> planes(1);
  planes[0].plane.subsetId = 1;
  std::vector<std::string_view> cells;
  for (size_t i = 0; i < lines.size(); ++i) {
    splitOn(lines[i], ' ', cells);
    if (cells.size() != 3)
      throw ImportError{i + 1, fmt::format("{} values where x y z was expected", cells.size())};
    planes[0].plane.points.push_back(
        {number(cells[0], i + 1, "x"), number(cells[1], i + 1, "y"), number(cells[2], i + 1, "z")});
  }
  if (planes[0].plane.points.empty()) throw ImportError{1, "no points"};
  return planes;
}

// Segments as running counts from the segment of each point; every field
// must run parallel to the points or be absent.
void finish(ImportedPlane& p) {
  const size_t n = p.plane.points.size();
  for (size_t i = 0; i < p.segmentOfPoint.size(); ++i)
    if (p.segmentOfPoint[i] >= 0 && (i + 1 == n || p.segmentOfPoint[i + 1] != p.segmentOfPoint[i]))
      p.plane.segments.push_back(static_cast<int32_t>(i + 1));
  auto check = [&](size_t size, const char* what) {
    if (size != 0 && size != n)
      throw ImportError{0, fmt::format("plane {} subset {}: {} for {} of its {} points",
                                       p.plane.planeId, p.plane.subsetId, what, size, n)};
  };
  check(p.plane.normals.size(), "normals");
  check(p.plane.resPoints.size(), "result points");
  check(p.plane.distances.size(), "distances");
  if (p.hasAux) check(p.auxCounts.size(), "aux groups");
}

bool writeImported(const std::wstring& path, std::vector<ImportedPlane>& planes) {
  LuAfxsCreateLink link(path.c_str());
  LuAfxsHeader header;
  header.version = 1;
  header.normal[2] = 1;
  link.setHeader(header);
  if (!link.create(true)) return false;
  // The planes' arrays are handed over to the records, not copied: they are
  // not used again once written.
  for (ImportedPlane& ip : planes) {
    LuAfxsPlane& p = ip.plane;
    LuAfxsCreateData data(link, p.planeId, p.subsetId);
    data.setPoints(std::move(p.points));
    data.setNormals(std::move(p.normals));
    data.setSegments(std::move(p.segments));
    data.setAuxCtrlPos(std::move(ip.auxPositions), std::move(ip.auxCounts));
    data.setResPoints(std::move(p.resPoints));
    data.setDistances(std::move(p.distances));
    if (!data.flush()) return false;
  }
  link.release();
  link.closeFile(true);
  return link.isOK();
}

}  // namespace

int runImport(const ImportArgs& args) {
  if (!outputAllowed(args.output, {args.input})) return kExitBad;
  std::vector<ImportedPlane> planes;
  try {
    std::string text = readWhole(args.input);
    if (text.rfind("ply\n", 0) == 0) {
      planes = readPly(text);
    } else {
      const std::vector<std::string_view> lines = linesOf(text);
      bool csv = !lines.empty() && lines[0].rfind("plane,", 0) == 0;
      planes = csv ? readCsv(lines) : readXyz(lines);
    }
    // A file without records cannot be read: a header with no rows under
    // it (csv, or PLY with no vertices) is refused as an empty xyz is.
    if (planes.empty()) throw ImportError{0, "no points"};
    for (ImportedPlane& p : planes) finish(p);
  } catch (const ImportError& e) {
    error(args.input, e.line > 0 ? fmt::format("line {}: {}; nothing was written", e.line, e.what)
                                 : e.what + "; nothing was written");
    return kExitBad;
  }
  LuAfxsOutputFile file(widen(args.output));
  if (!file.ok()) {
    error(args.output, describe(file.creationProblem()) + "; nothing was written");
    return kExitBad;
  }
  file.addCompanion(file.tempPath() + L".tmp");
  uint64_t points = 0;
  for (const ImportedPlane& p : planes) points += p.plane.points.size();
  if (!writeImported(file.tempPath(), planes)) {
    error(args.output, "the contours could not be written; nothing was written");
    return kExitBad;
  }
  if (!commitOutput(file, args.output)) return kExitBad;
  fmt::print("wrote {}: {} plane subsets, {} points\n", args.output, planes.size(), points);
  return kExitOk;
}

}  // namespace luafxs
