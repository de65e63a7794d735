// luafxs plot: one or more planes of one or more files as an SVG.
#include <charconv>
#include <cmath>
#include <filesystem>
#include <sstream>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

// `text` as a whole number, every character of it but blanks around it.
bool wholeNumber(const std::string& text, long long& value) {
  const size_t from = text.find_first_not_of(' ');
  if (from == std::string::npos) return false;
  const char* end = text.data() + text.find_last_not_of(' ') + 1;
  const auto [at, ec] = std::from_chars(text.data() + from, end, value);
  return ec == std::errc() && at == end;
}

// "3,5,10-12" as plane numbers in the order given; false on a bad list.
bool parsePlaneList(const std::string& list, std::vector<int64_t>& planes) {
  std::stringstream in(list);
  std::string item;
  while (std::getline(in, item, ',')) {
    if (item.empty()) continue;
    const size_t dash = item.find('-', 1);
    long long first = 0, last = 0;
    if (!wholeNumber(item.substr(0, dash), first)) return false;
    if (dash == std::string::npos) {
      last = first;
    } else if (!wholeNumber(item.substr(dash + 1), last)) {
      return false;
    }
    if (first < 0 || last < first || last - first > 10000 || last > 4294967295LL) return false;
    for (long long p = first; p <= last; ++p) planes.push_back(p);
  }
  return !planes.empty();
}

bool parseBox(const std::string& text, double box[4]) {
  std::stringstream in(text);
  std::string item;
  int n = 0;
  while (std::getline(in, item, ',')) {
    if (n == 4) return false;
    try {
      size_t used = 0;
      box[n++] = std::stod(item, &used);
      if (used != item.size() || !std::isfinite(box[n - 1])) return false;
    } catch (const std::exception&) {
      return false;
    }
  }
  return n == 4 && box[0] != box[2] && box[1] != box[3];
}

PlotPanel panelOf(const std::vector<std::unique_ptr<LoadedFile>>& files, int64_t plane) {
  PlotPanel panel{fmt::format("plane {}", plane), {}};
  for (size_t f = 0; f < files.size(); ++f) {
    std::string name = std::filesystem::path(files[f]->path).filename().string();
    for (const LuAfxsPlane* p : files[f]->planes)
      if (static_cast<int64_t>(p->planeId) == plane && !p->points.empty())
        panel.layers.push_back({fmt::format("{} subset {}", name, p->subsetId), p, f});
  }
  return panel;
}

}  // namespace

int runPlot(const PlotArgs& args) {
  PlotOptions options;
  options.normals = args.normals;
  options.results = args.results;
  options.markers = args.markers;
  options.zoomOverlap = args.zoom == "overlap";
  options.colorByDistance = args.colorBy == "distance";
  if (!args.bbox.empty() && !(options.hasBox = parseBox(args.bbox, options.box))) {
    error("", fmt::format("--bbox: '{}' is not U0,V0,U1,V1 (run 'luafxs plot --help')", args.bbox));
    return kExitUsage;
  }
  std::vector<int64_t> planes;
  if (!args.planes.empty() && !parsePlaneList(args.planes, planes)) {
    error("", fmt::format("--planes: '{}' is not a list such as 3,5,10-12 (run 'luafxs plot "
                          "--help')",
                          args.planes));
    return kExitUsage;
  }
  if (!isStandardOutput(args.output) && !outputAllowed(args.output, args.files)) return kExitBad;
  std::vector<std::unique_ptr<LoadedFile>> files;
  for (const std::string& path : args.files) {
    auto file = loadChecked(path, LU_AFXS_MASK_ALL, false);
    if (!file) return kExitBad;
    files.push_back(std::move(file));
  }
  if (planes.empty()) {
    int64_t plane = args.plane;
    for (size_t f = 0; plane < 0 && f < files.size(); ++f)
      if (!files[f]->planes.empty()) plane = files[f]->planes.front()->planeId;
    if (plane < 0) {
      error(args.files.front(), "holds no planes to plot");
      return kExitBad;
    }
    planes.push_back(plane);
  }
  std::vector<PlotPanel> panels;
  for (int64_t plane : planes) {
    panels.push_back(panelOf(files, plane));
    if (panels.back().layers.empty()) {
      error(args.files.front(), fmt::format("no file holds points of plane {}", plane));
      return kExitBad;
    }
  }
  options.title = panels.size() == 1 ? panels.front().title : fmt::format("planes {}", args.planes);
  std::string svg = plotPanelsSvg(panels, files.front()->inspection.header.normal, options);
  return writeOutput(args.output, svg) ? kExitOk : kExitBad;
}

}  // namespace luafxs
