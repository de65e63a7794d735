// The viewer page: the loaded planes projected onto the drawing axes and
// embedded as base64 typed arrays in the page kept in tools/view/.
#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>

#include <fmt/format.h>

#include "luafxs.h"
#include "plot_geometry.h"
#include "view_page.h"

namespace luafxs {

namespace {

std::string base64(const void* data, size_t size) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  const auto* bytes = static_cast<const unsigned char*>(data);
  std::string out;
  out.reserve((size + 2) / 3 * 4);
  for (size_t i = 0; i < size; i += 3) {
    uint32_t chunk = static_cast<uint32_t>(bytes[i]) << 16;
    if (i + 1 < size) chunk |= static_cast<uint32_t>(bytes[i + 1]) << 8;
    if (i + 2 < size) chunk |= bytes[i + 2];
    out += kDigits[(chunk >> 18) & 63];
    out += kDigits[(chunk >> 12) & 63];
    out += i + 1 < size ? kDigits[(chunk >> 6) & 63] : '=';
    out += i + 2 < size ? kDigits[chunk & 63] : '=';
  }
  return out;
}

// Little-endian on every platform the tool is built for.
template <typename T>
std::string encoded(const std::vector<T>& values) {
  return base64(values.data(), values.size() * sizeof(T));
}

std::vector<float> relative(const std::vector<Point2>& points, const Point2& origin) {
  std::vector<float> out;
  out.reserve(points.size() * 2);
  for (const Point2& p : points) {
    out.push_back(static_cast<float>(p.u - origin.u));
    out.push_back(static_cast<float>(p.v - origin.v));
  }
  return out;
}

// The normals' directions in the drawing's plane, of unit length there.
std::vector<float> normalDirections(const LuAfxsPlane& p, const Frame& frame) {
  std::vector<float> out;
  if (p.normals.size() != p.points.size()) return out;
  for (const LuVec3& n : p.normals) {
    Point2 d = frame.project(n);
    double l = std::hypot(d.u, d.v);
    out.push_back(l > 1e-300 ? static_cast<float>(d.u / l) : 0.f);
    out.push_back(l > 1e-300 ? static_cast<float>(d.v / l) : 0.f);
  }
  return out;
}

struct LayerKey {
  size_t file;
  uint32_t subset;
  bool operator<(const LayerKey& o) const {
    return file != o.file ? file < o.file : subset < o.subset;
  }
};

class ViewData {
public:
  ViewData(const std::vector<const LoadedFile*>& files)
      : m_files(files), m_frame(frameFor(files.front()->inspection.header.normal)) {}

  nlohmann::json build() {
    collect();
    nlohmann::json out;
    out["files"] = nlohmann::json::array();
    for (const LoadedFile* f : m_files)
      out["files"].push_back(std::filesystem::path(f->path).filename().string());
    LuVec3 o = origin3();
    auto vec = [](const LuVec3& v) { return nlohmann::json::array({v.x, v.y, v.z}); };
    out["frame"] = {
        {"u", vec(m_frame.u)}, {"v", vec(m_frame.v)}, {"n", vec(m_frame.n)}, {"origin", vec(o)}};
    out["layers"] = nlohmann::json::array();
    for (const auto& [key, index] : m_layerIndex) {
      (void)index;
      out["layers"].push_back(
          {{"file", key.file},
           {"subset", key.subset},
           {"label", fmt::format("{} subset {}",
                                 std::filesystem::path(m_files[key.file]->path).filename().string(),
                                 key.subset)}});
    }
    out["planes"] = nlohmann::json::array();
    for (const auto& [id, parts] : m_planes) out["planes"].push_back(plane(id, parts));
    return out;
  }

private:
  struct Part {
    size_t layer;
    size_t file;
    const LuAfxsPlane* plane;
    std::vector<Point2> points;
  };

  void collect() {
    for (size_t f = 0; f < m_files.size(); ++f)
      for (const LuAfxsPlane* p : m_files[f]->planes) m_layerIndex.insert({{f, p->subsetId}, 0});
    size_t next = 0;
    for (auto& [key, index] : m_layerIndex) index = next++;
    for (size_t f = 0; f < m_files.size(); ++f)
      for (const LuAfxsPlane* p : m_files[f]->planes) {
        if (p->points.empty()) continue;
        Part part{m_layerIndex[{f, p->subsetId}], f, p, projectAll(p->points, m_frame)};
        for (const Point2& q : part.points) m_extent.grow(q);
        if (m_planes.empty()) m_depth0 = m_frame.depth(p->points.front());
        m_planes[p->planeId].push_back(std::move(part));
      }
    m_origin = m_extent.empty()
                   ? Point2{0, 0}
                   : Point2{(m_extent.u0 + m_extent.u1) / 2, (m_extent.v0 + m_extent.v1) / 2};
    for (auto& [id, parts] : m_planes)
      std::stable_sort(parts.begin(), parts.end(),
                       [](const Part& a, const Part& b) { return a.layer < b.layer; });
    std::vector<std::vector<BlendLayer>> planes;
    for (const auto& [id, parts] : m_planes) planes.push_back(blendLayers(parts));
    m_blendFiles = drawingFiles(planes);
  }

  static std::vector<BlendLayer> blendLayers(const std::vector<Part>& parts) {
    std::vector<BlendLayer> layers;
    for (const Part& part : parts) layers.push_back({&part.points, part.file});
    return layers;
  }

  LuVec3 origin3() const {
    return {m_origin.u * m_frame.u.x + m_origin.v * m_frame.v.x + m_depth0 * m_frame.n.x,
            m_origin.u * m_frame.u.y + m_origin.v * m_frame.v.y + m_depth0 * m_frame.n.y,
            m_origin.u * m_frame.u.z + m_origin.v * m_frame.v.z + m_depth0 * m_frame.n.z};
  }

  nlohmann::json plane(uint32_t id, const std::vector<Part>& parts) {
    nlohmann::json out = {{"id", id}, {"parts", nlohmann::json::array()}};
    double depth = 0;
    size_t counted = 0;
    std::vector<std::vector<char>> marks = blendMarks(blendLayers(parts), m_blendFiles);
    for (size_t i = 0; i < parts.size(); ++i) {
      const Part& part = parts[i];
      nlohmann::json j = encodePart(part);
      const std::vector<char>& blended = marks[i];
      if (std::find(blended.begin(), blended.end(), 1) != blended.end())
        j["blend"] = encoded(std::vector<uint8_t>(blended.begin(), blended.end()));
      out["parts"].push_back(std::move(j));
      for (const LuVec3& p : part.plane->points) depth += m_frame.depth(p), ++counted;
    }
    out["depth"] = counted ? depth / static_cast<double>(counted) - m_depth0 : 0.0;
    Box overlap = parts.size() >= 2 && parts[0].layer != parts[1].layer
                      ? overlapBox(parts[0].points, parts[1].points)
                      : Box{};
    if (overlap.empty())
      out["overlap"] = nullptr;
    else
      out["overlap"] = {overlap.u0 - m_origin.u, overlap.v0 - m_origin.v, overlap.u1 - m_origin.u,
                        overlap.v1 - m_origin.v};
    return out;
  }

  nlohmann::json encodePart(const Part& part) {
    const LuAfxsPlane& p = *part.plane;
    nlohmann::json j = {{"layer", part.layer}, {"pts", encoded(relative(part.points, m_origin))}};
    std::vector<float> w;
    for (const LuVec3& q : p.points) w.push_back(static_cast<float>(m_frame.depth(q) - m_depth0));
    j["w"] = encoded(w);
    if (!p.segments.empty()) j["seg"] = encoded(p.segments);
    std::vector<float> normals = normalDirections(p, m_frame);
    if (!normals.empty()) j["nrm"] = encoded(normals);
    if (!p.resPoints.empty())
      j["res"] = encoded(relative(projectAll(p.resPoints, m_frame), m_origin));
    if (p.distances.size() == p.points.size()) {
      std::vector<float> d(p.distances.begin(), p.distances.end());
      j["dist"] = encoded(d);
    }
    return j;
  }

  const std::vector<const LoadedFile*>& m_files;
  Frame m_frame;
  std::map<LayerKey, size_t> m_layerIndex;
  std::map<uint32_t, std::vector<Part>> m_planes;
  Box m_extent;
  Point2 m_origin;
  double m_depth0 = 0;
  size_t m_blendFiles = 0;  // the drawing's files, as blendMarks counts them
};

// JSON inside a script element holds no "<" (which could end the element or
// open a comment): in JSON it can only be inside a string, where \u003c is
// the same character.
std::string scriptSafe(const std::string& text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) out += c == '<' ? std::string("\\u003c") : std::string(1, c);
  return out;
}

}  // namespace

std::string viewHtml(const std::vector<const LoadedFile*>& files) {
  std::string data = scriptSafe(ViewData(files).build().dump());
  std::string page = kViewPage;
  const std::string mark = "@@DATA@@";
  size_t at = page.find(mark);
  if (at != std::string::npos) page.replace(at, mark.size(), data);
  return page;
}

}  // namespace luafxs
