// luafxs import: contours from what dump writes (csv with its header line,
// ASCII or binary PLY, or xyz), into a new cross-section file, so that dump, import
// and dump again give the same text. Malformed input is refused with one
// message naming its line; nothing is written then.
#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <utility>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

struct ImportError {
  uint64_t line;
  std::string what;
};

std::vector<std::string> splitOn(const std::string& text, char separator) {
  std::vector<std::string> cells;
  size_t from = 0;
  for (;;) {
    size_t at = text.find(separator, from);
    cells.push_back(text.substr(from, at == std::string::npos ? std::string::npos : at - from));
    if (at == std::string::npos) return cells;
    from = at + 1;
  }
}

double number(const std::string& cell, uint64_t line, const std::string& column) {
  double v = 0;
  auto [end, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), v);
  if (cell.empty() || ec != std::errc() || end != cell.data() + cell.size())
    throw ImportError{line, fmt::format("column {}: '{}' is not a number", column, cell)};
  if (!std::isfinite(v))
    throw ImportError{line, fmt::format("column {}: '{}' is not a finite number", column, cell)};
  return v;
}

uint64_t whole(const std::string& cell, uint64_t line, const std::string& column, uint64_t max) {
  uint64_t v = 0;
  auto [end, ec] = std::from_chars(cell.data(), cell.data() + cell.size(), v);
  if (cell.empty() || ec != std::errc() || end != cell.data() + cell.size() || v > max)
    throw ImportError{
        line, fmt::format("column {}: '{}' is not a whole number from 0 to {}", column, cell, max)};
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

std::string readWhole(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw ImportError{0, "cannot be opened for reading"};
  std::stringstream buffer;
  buffer << in.rdbuf();
  return buffer.str();
}

// The lines of a text: each must end in a line feed (a last line without one
// means the file was cut).
std::vector<std::string> linesOf(const std::string& text) {
  std::vector<std::string> lines = splitOn(text, '\n');
  if (!lines.back().empty())
    throw ImportError{lines.size(), "the last line has no line feed: the file was cut short"};
  lines.pop_back();
  return lines;
}

void readCsvRow(const std::vector<std::string>& columns, const std::vector<std::string>& cells,
                uint64_t line, std::map<std::pair<uint32_t, uint32_t>, size_t>& index,
                std::vector<ImportedPlane>& planes) {
  if (cells.size() != columns.size())
    throw ImportError{
        line, fmt::format("{} columns where the header names {}", cells.size(), columns.size())};
  std::map<std::string, const std::string*> cell;
  for (size_t i = 0; i < columns.size(); ++i) cell[columns[i]] = &cells[i];
  uint32_t planeId = static_cast<uint32_t>(whole(*cell["plane"], line, "plane", 0xFFFFFFFF));
  uint32_t subsetId = static_cast<uint32_t>(whole(*cell["subset"], line, "subset", 0xFFFFFFFF));
  auto [it, added] = index.emplace(std::make_pair(planeId, subsetId), planes.size());
  if (added) {
    planes.emplace_back();
    planes.back().plane.planeId = planeId;
    planes.back().plane.subsetId = subsetId;
  }
  ImportedPlane& p = planes[it->second];
  if (whole(*cell["index"], line, "index", 0xFFFFFFFF) != p.plane.points.size())
    throw ImportError{line, fmt::format("column index: {} where point {} of plane {} subset {} "
                                        "was expected",
                                        *cell["index"], p.plane.points.size(), planeId, subsetId)};
  auto vec = [&](const char* a, const char* b, const char* c) {
    return LuVec3{number(*cell[a], line, a), number(*cell[b], line, b), number(*cell[c], line, c)};
  };
  auto present = [&](const char* a) { return cell.count(a) && !cell[a]->empty(); };
  p.plane.points.push_back(vec("x", "y", "z"));
  if (present("nx")) p.plane.normals.push_back(vec("nx", "ny", "nz"));
  if (present("rx")) p.plane.resPoints.push_back(vec("rx", "ry", "rz"));
  if (present("distance")) p.plane.distances.push_back(number(*cell["distance"], line, "distance"));
  if (cell.count("segment"))
    p.segmentOfPoint.push_back(
        present("segment")
            ? static_cast<int64_t>(whole(*cell["segment"], line, "segment", 0x7FFFFFFF))
            : -1);
  if (present("auxCount")) {
    p.hasAux = true;
    uint32_t count = static_cast<uint32_t>(whole(*cell["auxCount"], line, "auxCount", 0xFFFFFFFF));
    std::vector<std::string> positions = cell["auxPositions"]->empty()
                                             ? std::vector<std::string>{}
                                             : splitOn(*cell["auxPositions"], ' ');
    if (positions.size() != count)
      throw ImportError{line, fmt::format("column auxPositions: {} positions where auxCount is {}",
                                          positions.size(), count)};
    p.auxCounts.push_back(count);
    for (const std::string& s : positions)
      p.auxPositions.push_back(static_cast<uint32_t>(whole(s, line, "auxPositions", 0xFFFFFFFF)));
  }
}

std::vector<ImportedPlane> readCsv(const std::vector<std::string>& lines) {
  if (lines.empty()) throw ImportError{1, "no header line"};
  std::vector<std::string> columns = splitOn(lines[0], ',');
  for (const char* needed : {"plane", "subset", "index", "x", "y", "z"})
    if (std::find(columns.begin(), columns.end(), needed) == columns.end())
      throw ImportError{1, fmt::format("the header names no column '{}'", needed)};
  std::map<std::pair<uint32_t, uint32_t>, size_t> index;
  std::vector<ImportedPlane> planes;
  for (size_t i = 1; i < lines.size(); ++i)
    readCsvRow(columns, splitOn(lines[i], ','), i + 1, index, planes);
  return planes;
}

// A PLY as dump writes it: vertex properties x y z [nx ny nz] [rx ry rz]
// [distance] plane subset, doubles and ints, ASCII or binary little-endian.
std::vector<ImportedPlane> readPly(const std::string& text) {
  size_t headerEnd = text.find("end_header\n");
  if (headerEnd == std::string::npos) throw ImportError{1, "a PLY header without end_header"};
  std::vector<std::string> header = linesOf(text.substr(0, headerEnd));
  bool binary = false;
  uint64_t count = 0;
  std::vector<std::string> names;
  for (size_t i = 0; i < header.size(); ++i) {
    std::vector<std::string> w = splitOn(header[i], ' ');
    if (w[0] == "format") {
      if (w.size() < 2 || (w[1] != "ascii" && w[1] != "binary_little_endian"))
        throw ImportError{i + 1, "only ascii and binary_little_endian PLY are read"};
      binary = w[1] != "ascii";
    } else if (w[0] == "element") {
      if (w.size() != 3 || w[1] != "vertex")
        throw ImportError{i + 1, "only the vertex element is read"};
      count = whole(w[2], i + 1, "element vertex", 0xFFFFFFFFFFull);
    } else if (w[0] == "property") {
      bool isInt = w.size() == 3 && w[1] == "int";
      if (w.size() != 3 || (w[1] != "double" && !isInt) ||
          isInt != (w[2] == "plane" || w[2] == "subset"))
        throw ImportError{i + 1, "a property dump does not write"};
      names.push_back(w[2]);
    }
  }
  const size_t nd = names.size() - 2;
  if (names.size() < 5 || names[nd] != "plane" || names[nd + 1] != "subset")
    throw ImportError{header.size(), "the vertex properties do not end in plane and subset"};
  std::vector<std::string> columns = {"plane", "subset", "index"};
  columns.insert(columns.end(), names.begin(), names.begin() + static_cast<long>(nd));
  std::map<std::pair<uint32_t, uint32_t>, size_t> index;
  std::vector<ImportedPlane> planes;
  std::vector<uint64_t> nextIndex;
  const char* body = text.data() + headerEnd + 11;
  const size_t bodySize = text.size() - headerEnd - 11;
  std::vector<std::string> lines =
      binary ? std::vector<std::string>{} : linesOf(std::string(body, bodySize));
  const uint64_t firstLine = header.size() + 2;
  if (binary ? bodySize != count * (nd * 8 + 8) : lines.size() != count)
    throw ImportError{binary ? 0 : firstLine + lines.size(),
                      fmt::format("{} vertices where the header names {}",
                                  binary ? bodySize / (nd * 8 + 8) : lines.size(), count)};
  for (uint64_t v = 0; v < count; ++v) {
    std::vector<std::string> cells;
    if (binary) {
      const char* row = body + v * (nd * 8 + 8);
      for (size_t k = 0; k < nd; ++k) {
        double d;
        std::memcpy(&d, row + 8 * k, 8);
        cells.push_back(fmt::format("{}", d));
      }
      for (size_t k = 0; k < 2; ++k) {
        int32_t id;
        std::memcpy(&id, row + 8 * nd + 4 * k, 4);
        cells.push_back(std::to_string(static_cast<uint32_t>(id)));
      }
    } else {
      cells = splitOn(lines[v], ' ');
      if (cells.size() != nd + 2)
        throw ImportError{firstLine + v,
                          fmt::format("{} values where {} were expected", cells.size(), nd + 2)};
      // dump writes an int: -1 stands for 4294967295.
      for (size_t k = nd; k < nd + 2; ++k)
        if (cells[k].size() > 1 && cells[k][0] == '-')
          cells[k] =
              std::to_string(static_cast<uint32_t>(std::strtol(cells[k].c_str(), nullptr, 10)));
    }
    std::vector<std::string> row = {cells[nd], cells[nd + 1], ""};
    row.insert(row.end(), cells.begin(), cells.begin() + static_cast<long>(nd));
    // The index column counts the points of each plane subset.
    auto key =
        std::make_pair(static_cast<uint32_t>(whole(row[0], firstLine + v, "plane", 0xFFFFFFFF)),
                       static_cast<uint32_t>(whole(row[1], firstLine + v, "subset", 0xFFFFFFFF)));
    auto it = index.find(key);
    row[2] = std::to_string(it == index.end() ? 0 : planes[it->second].plane.points.size());
    readCsvRow(columns, row, binary ? 0 : firstLine + v, index, planes);
  }
  return planes;
}

std::vector<ImportedPlane> readXyz(const std::vector<std::string>& lines) {
  std::vector<ImportedPlane> planes(1);
  planes[0].plane.subsetId = 1;
  for (size_t i = 0; i < lines.size(); ++i) {
    std::vector<std::string> cells = splitOn(lines[i], ' ');
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
      std::vector<std::string> lines = linesOf(text);
      bool csv = !lines.empty() && lines[0].rfind("plane,", 0) == 0;
      planes = csv ? readCsv(lines) : readXyz(lines);
    }
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
