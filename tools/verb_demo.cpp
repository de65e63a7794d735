// luafxs demo: two synthetic scans of a tapered, twisted wing section (an
// airfoil-like closed contour over 40 planes), each covering about 60% of
// the contour from its own side; both are written, unified with blending,
// and plotted before and after.
#include <chrono>
#include <cmath>
#include <filesystem>
#include <random>
#include <utility>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

namespace fs = std::filesystem;

constexpr int kPlanes = 40;
constexpr double kPlaneStep = 2.5;
constexpr int kPointsPerContour = 300;
constexpr double kPi = 3.14159265358979323846;

// A cambered airfoil contour (4-digit series shape), walked counter-clockwise
// from the trailing edge over the upper side: s in [0, 1).
LuVec3 contour(double s, int plane) {
  double chord = 120.0 - 0.8 * plane;  // taper
  double twist = 0.25 * plane * kPi / 180.0;
  double theta = 2 * kPi * (s - std::floor(s));
  double x = (1 + std::cos(theta)) / 2;
  double t = 0.12, m = 0.02, p = 0.4;
  double yt = 5 * t *
              (0.2969 * std::sqrt(x) - 0.1260 * x - 0.3516 * x * x + 0.2843 * x * x * x -
               0.1036 * x * x * x * x);
  double yc = x < p ? m / (p * p) * (2 * p * x - x * x)
                    : m / ((1 - p) * (1 - p)) * ((1 - 2 * p) + 2 * p * x - x * x);
  double y = theta <= kPi ? yc + yt : yc - yt;
  // Chord from the quarter point, then the twist about it.
  double u = (x - 0.25) * chord, v = y * chord;
  return {u * std::cos(twist) - v * std::sin(twist), u * std::sin(twist) + v * std::cos(twist),
          plane * kPlaneStep};
}

// Outward normal of the counter-clockwise contour at s.
LuVec3 outward(double s, int plane) {
  const double h = 1e-5;
  LuVec3 a = contour(s - h, plane), b = contour(s + h, plane);
  double tx = b.x - a.x, ty = b.y - a.y, l = std::hypot(tx, ty);
  if (l == 0) return {1, 0, 0};
  return {ty / l, -tx / l, 0};
}

struct Scan {
  std::string name;
  uint32_t subset;
  double from;   // start of the covered stretch, in contour fractions
  double phase;  // sampling offset, so that the two scans never share a point
  LuVec3 camera;
};

// Writes one scan on `path` (the temporary of an output file).
uint64_t writeScan(const std::wstring& path, const Scan& scan, std::mt19937& random) {
  std::normal_distribution<double> noise(0.0, 0.01);
  LuAfxsCreateLink link(path.c_str());
  LuAfxsHeader header;
  header.version = 1;
  header.normal[2] = 1;
  header.numPlanes = kPlanes;
  header.distBwPlanes = kPlaneStep;
  link.setHeader(header);
  LuAfxsCamerasTable cameras;
  cameras.cameras.push_back(scan.camera);
  link.setCameras(cameras);
  if (!link.create(true)) return 0;
  const int n = kPointsPerContour * 6 / 10;  // 60% of the contour
  uint64_t total = 0;
  for (int plane = 0; plane < kPlanes; ++plane) {
    std::vector<LuVec3> points, normals, results;
    std::vector<double> distances;
    std::vector<uint32_t> positions, counts;
    for (int i = 0; i < n; ++i) {
      double s = scan.from + (i + scan.phase) / kPointsPerContour;
      LuVec3 p = contour(s, plane), nn = outward(s, plane);
      p = {p.x + noise(random), p.y + noise(random), p.z};
      double d = 0.05 + 0.03 * std::sin(2 * kPi * s * 3) + noise(random) * 0.5;
      points.push_back(p);
      normals.push_back(nn);
      results.push_back({p.x + nn.x * d, p.y + nn.y * d, p.z});
      distances.push_back(d);
      positions.push_back(static_cast<uint32_t>(i));
      counts.push_back(1);
    }
    int segments[1] = {n};
    LuAfxsCreateData data(link, static_cast<uint32_t>(plane), scan.subset);
    const size_t count = points.size();
    data.setPoints(std::move(points));
    data.setNormals(std::move(normals));
    data.setSegments(segments, 1);
    data.setAuxCtrlPos(std::move(positions), std::move(counts));
    data.setResPoints(std::move(results));
    data.setDistances(std::move(distances));
    if (!data.flush()) return 0;
    total += count;
  }
  link.release();
  link.closeFile(true);
  return total;
}

// Each of the files loaded once, for the plots and the viewer.
std::vector<std::unique_ptr<LoadedFile>> loadAll(const std::vector<std::string>& paths) {
  std::vector<std::unique_ptr<LoadedFile>> files;
  for (const std::string& path : paths) {
    auto file = loadChecked(path, LU_AFXS_MASK_ALL, false);
    if (!file) return {};
    files.push_back(std::move(file));
  }
  return files;
}

// The plane of the first `count` files, each file's layers under its index.
bool plotFiles(const std::vector<std::unique_ptr<LoadedFile>>& files, size_t count, int plane,
               const std::string& title, const std::string& out) {
  std::vector<PlotLayer> layers;
  for (size_t f = 0; f < count; ++f)
    for (const LuAfxsPlane* p : files[f]->planes)
      if (p->planeId == static_cast<uint32_t>(plane))
        layers.push_back(
            {fmt::format("{} subset {}", fs::path(files[f]->path).filename().string(), p->subsetId),
             p, f});
  if (layers.empty()) return false;
  PlotOptions options;
  options.title = title;
  return writeOutput(out, plotSvg(layers, files.front()->inspection.header.normal, options));
}

bool viewFiles(const std::vector<std::unique_ptr<LoadedFile>>& files, const std::string& out) {
  std::vector<const LoadedFile*> loaded;
  for (const auto& file : files) loaded.push_back(file.get());
  return writeOutput(out, viewHtml(loaded));
}

}  // namespace

int runDemo(const DemoArgs& args) {
  auto started = std::chrono::steady_clock::now();
  std::error_code ec;
  fs::create_directories(args.dir, ec);
  if (!fs::is_directory(args.dir, ec)) {
    error(args.dir, "cannot be created as a folder");
    return kExitBad;
  }
  const fs::path dir(args.dir);
  const Scan scans[2] = {
      {"scan_a.afxs", 1, 0.05, 0.0, {0, 250, 50}},
      {"scan_b.afxs", 2, 0.55, 0.5, {0, -250, 50}},
  };
  const std::string unified = (dir / "unified.afxs").string();
  const int plane = kPlanes / 2;
  const std::string before = (dir / "plane_before.svg").string();
  const std::string after = (dir / "plane_after.svg").string();
  const std::string view = (dir / "view.html").string();
  // Every output is checked before anything is written.
  for (const std::string& out : {(dir / scans[0].name).string(), (dir / scans[1].name).string(),
                                 unified, before, after, view})
    if (!outputAllowed(out, {})) return kExitBad;
  std::mt19937 random(20261122);
  std::vector<std::string> inputs;
  uint64_t points = 0;
  for (const Scan& scan : scans) {
    std::string path = (dir / scan.name).string();
    LuAfxsOutputFile file(widen(path));
    uint64_t written = file.ok() ? writeScan(file.tempPath(), scan, random) : 0;
    if (written == 0) {
      error(path, "the scan could not be written");
      return kExitBad;
    }
    if (!commitOutput(file, path)) return kExitBad;
    points += written;
    inputs.push_back(path);
  }
  UnifySummary summary;
  UnifyOptions how{true, 1, LU_AFXS_MASK_ALL, true, stderrIsTerminal()};
  if (!unifyFiles(inputs, {scans[0].subset, scans[1].subset}, unified, how, summary)) {
    printFailures(unified, summary.failures);
    return kExitBad;
  }
  const std::vector<std::unique_ptr<LoadedFile>> files = loadAll({inputs[0], inputs[1], unified});
  bool plotted =
      files.size() == 3 &&
      plotFiles(files, 2, plane, fmt::format("plane {}: the two scans", plane), before) &&
      plotFiles(files, 3, plane,
                fmt::format("plane {}: unified with blending (the blended stretch marked)", plane),
                after) &&
      viewFiles(files, view);
  double ms =
      std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - started).count();
  fmt::print("luafxs demo in {}\n", args.dir);
  for (const std::string& path : inputs)
    fmt::print("  wrote    {} ({} bytes)\n", path, fs::file_size(path, ec));
  fmt::print("  unified  {} ({} bytes)\n", unified, fs::file_size(unified, ec));
  if (plotted) fmt::print("  plotted  {} and {}\n  viewer   {}\n", before, after, view);
  fmt::print("planes            {} per scan\n", kPlanes);
  fmt::print("points            {} in the two scans ({} per plane and scan)\n", points,
             kPointsPerContour * 6 / 10);
  fmt::print("planes written    {}\n", summary.planesWritten);
  fmt::print("planes blended    {}\n", summary.planesBlended);
  fmt::print("positions skipped {}\n", summary.positionsSkipped);
  fmt::print("failures          {}\n", summary.failures.size());
  printFailures(unified, summary.failures);
  fmt::print("time              {:.0f} ms\n", ms);
  return plotted && summary.failures.empty() ? kExitOk : kExitBad;
}

}  // namespace luafxs
