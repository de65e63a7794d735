// luafxs plot: one plane of one or more files as an SVG.
#include <filesystem>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

int runPlot(const PlotArgs& args) {
  if (!isStandardOutput(args.output) && !outputAllowed(args.output, args.files)) return kExitBad;
  std::vector<std::unique_ptr<LoadedFile>> files;
  for (const std::string& path : args.files) {
    auto file = loadChecked(path, LU_AFXS_MASK_ALL, false);
    if (!file) return kExitBad;
    files.push_back(std::move(file));
  }
  int64_t plane = args.plane;
  if (plane < 0) {
    for (const auto& f : files)
      if (!f->planes.empty()) {
        plane = f->planes.front()->planeId;
        break;
      }
  }
  std::vector<PlotLayer> layers;
  for (const auto& f : files) {
    std::string name = std::filesystem::path(f->path).filename().string();
    for (const LuAfxsPlane* p : f->planes)
      if (static_cast<int64_t>(p->planeId) == plane && !p->points.empty())
        layers.push_back({fmt::format("{} subset {}", name, p->subsetId), p});
  }
  if (layers.empty()) {
    error(args.files.front(), plane < 0 ? "holds no planes to plot"
                                        : fmt::format("no file holds points of plane {}", plane));
    return kExitBad;
  }
  PlotOptions options;
  options.normals = args.normals;
  options.results = args.results;
  options.title = fmt::format("plane {}", plane);
  std::string svg = plotSvg(layers, files.front()->inspection.header.normal, options);
  return writeOutput(args.output, svg) ? kExitOk : kExitBad;
}

}  // namespace luafxs
