// The SVG writer shared by plot and demo: planes projected onto two axes
// orthogonal to the header's normal, one panel per plane.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "luafxs.h"
#include "plot_geometry.h"

namespace luafxs {

namespace {

constexpr const char* kPalette[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e",
                                    "#9467bd", "#8c564b", "#e377c2", "#17becf"};
constexpr const char* kBlendColour = "#f2b600";
constexpr double kLegendWidth = 230, kMargin = 80, kTitleHeight = 50, kAxisHeight = 70;
constexpr size_t kAutoMarkerLimit = 4000;  // points in view up to which markers are drawn

const char* colourOf(size_t layer) { return kPalette[layer % std::size(kPalette)]; }

std::string escape(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

// A tick step of 1, 2 or 5 times a power of ten giving about `want` ticks.
double niceStep(double span, int want) {
  if (!(span > 0) || !std::isfinite(span)) return 1;
  double raw = span / want;
  double power = std::pow(10.0, std::floor(std::log10(raw)));
  double f = raw / power;
  return (f < 1.5 ? 1 : f < 3.5 ? 2 : f < 7.5 ? 5 : 10) * power;
}

std::string vecText(const LuVec3& v) {
  auto r = [](double x) { return std::fabs(x) < 5e-7 ? 0.0 : x; };
  return fmt::format("({:.3g}, {:.3g}, {:.3g})", r(v.x), r(v.y), r(v.z));
}

// A colour on a dark-blue to yellow scale for t in [0, 1].
std::string rampColour(double t) {
  static constexpr double kStops[5][3] = {
      {68, 1, 84}, {59, 82, 139}, {33, 145, 140}, {94, 201, 98}, {253, 231, 37}};
  t = std::clamp(std::isfinite(t) ? t : 0.0, 0.0, 1.0) * 4;
  int i = std::min(static_cast<int>(t), 3);
  double f = t - i;
  auto mix = [&](int k) {
    return static_cast<int>(std::lround(kStops[i][k] + (kStops[i + 1][k] - kStops[i][k]) * f));
  };
  return fmt::format("#{:02x}{:02x}{:02x}", mix(0), mix(1), mix(2));
}

// A marker shape per layer, centred on (x, y), as path data.
std::string markerPath(size_t layer, double x, double y, double r) {
  switch (layer % 4) {
    case 0:  // circle
      return fmt::format(
          "M{:.2f},{:.2f}m{:.2f},0a{:.2f},{:.2f} 0 1,0 {:.2f},0a{:.2f},{:.2f} 0 1,0 "
          "{:.2f},0",
          x, y, -r, r, r, 2 * r, r, r, -2 * r);
    case 1:  // square
      return fmt::format("M{:.2f},{:.2f}h{:.2f}v{:.2f}h{:.2f}z", x - r, y - r, 2 * r, 2 * r,
                         -2 * r);
    case 2:  // triangle
      return fmt::format("M{:.2f},{:.2f}L{:.2f},{:.2f}L{:.2f},{:.2f}z", x, y - r * 1.2, x + r * 1.1,
                         y + r * 0.8, x - r * 1.1, y + r * 0.8);
    default:  // diamond
      return fmt::format("M{:.2f},{:.2f}L{:.2f},{:.2f}L{:.2f},{:.2f}L{:.2f},{:.2f}z", x,
                         y - r * 1.3, x + r * 1.3, y, x, y + r * 1.3, x - r * 1.3, y);
  }
}

// Where a panel is drawn and what part of the plane it shows.
struct Viewport {
  double left, top, width, height;  // the plot area on the page
  double offU, offV, scale;         // plane coordinates at the lower left, pixels per unit
  double X(double u) const { return left + (u - offU) * scale; }
  double Y(double v) const { return top + height - (v - offV) * scale; }
  bool inside(double x, double y) const {
    return x >= left - 1 && x <= left + width + 1 && y >= top - 1 && y <= top + height + 1;
  }
};

// Equal scales on both axes, the box centred in the plot area.
Viewport fit(const Box& box, double left, double top, double width, double height) {
  double spanU = std::max(box.u1 - box.u0, 1e-9), spanV = std::max(box.v1 - box.v0, 1e-9);
  double scale = std::min(width / spanU, height / spanV);
  return {left,
          top,
          width,
          height,
          box.u0 - (width / scale - spanU) / 2,
          box.v0 - (height / scale - spanV) / 2,
          scale};
}

// What is drawn of one layer: its points on the page.
struct DrawnLayer {
  const PlotLayer* layer;
  size_t index;  // colour and marker
  std::vector<Point2> plane;
  std::vector<char> blended;
};

struct DistanceRange {
  double low = INFINITY, high = -INFINITY;
  bool empty() const { return !(low <= high); }
  double at(double d) const { return high > low ? (d - low) / (high - low) : 0.5; }
};

class SvgPlot {
public:
  SvgPlot(const std::vector<PlotPanel>& panels, const double normal[3], const PlotOptions& options)
      : m_panels(panels), m_frame(frameFor(normal)), m_options(options) {}

  std::string render() {
    prepare();
    size_t count = std::max<size_t>(m_panels.size(), 1);
    size_t columns = static_cast<size_t>(std::ceil(std::sqrt(static_cast<double>(count))));
    size_t rows = (count + columns - 1) / columns;
    // Equal scales: the plot area takes the shape of the data, within limits.
    double cellW = count == 1 ? 880 - kMargin : 420, tallest = count == 1 ? 600 : 330;
    double aspect = (m_box.v1 - m_box.v0) / std::max(m_box.u1 - m_box.u0, 1e-300);
    double cellH = std::clamp(cellW * aspect, tallest / 3, tallest);
    m_width = kMargin + static_cast<double>(columns) * (cellW + kMargin) + kLegendWidth - kMargin;
    m_height = kTitleHeight + static_cast<double>(rows) * (cellH + kAxisHeight);
    begin();
    for (size_t i = 0; i < m_panels.size(); ++i) {
      double left = kMargin + static_cast<double>(i % columns) * (cellW + kMargin);
      double top = kTitleHeight + static_cast<double>(i / columns) * (cellH + kAxisHeight);
      panel(i, fit(m_box, left, top, cellW, cellH));
    }
    legend();
    if (m_options.colorByDistance) colourBar();
    m_out += "</svg>\n";
    return m_out;
  }

private:
  void prepare() {
    Box data;
    for (const PlotPanel& p : m_panels) {
      std::vector<DrawnLayer> drawn;
      for (size_t i = 0; i < p.layers.size(); ++i) {
        drawn.push_back({&p.layers[i], i, projectAll(p.layers[i].plane->points, m_frame), {}});
        for (const Point2& q : drawn.back().plane) data.grow(q);
        if (m_options.results)
          for (const LuVec3& r : p.layers[i].plane->resPoints) data.grow(m_frame.project(r));
        for (double d : p.layers[i].plane->distances)
          if (std::isfinite(d))
            m_range.low = std::min(m_range.low, d), m_range.high = std::max(m_range.high, d);
      }
      m_drawn.push_back(std::move(drawn));
    }
    if (m_options.markBlend) markBlend();
    if (data.empty()) data = {-1, -1, 1, 1};
    m_box = data.padded(0.05);
    if (m_options.zoomOverlap) zoomToOverlap();
    if (m_options.hasBox)
      m_box = {std::min(m_options.box[0], m_options.box[2]),
               std::min(m_options.box[1], m_options.box[3]),
               std::max(m_options.box[0], m_options.box[2]),
               std::max(m_options.box[1], m_options.box[3])};
  }

  // The blended stretch of every panel, by the rule view shares (blendMarks).
  void markBlend() {
    std::vector<std::vector<BlendLayer>> panels;
    for (const std::vector<DrawnLayer>& drawn : m_drawn) {
      panels.emplace_back();
      for (const DrawnLayer& d : drawn) panels.back().push_back({&d.plane, d.layer->file});
    }
    const size_t files = drawingFiles(panels);
    for (size_t i = 0; i < m_drawn.size(); ++i) {
      std::vector<std::vector<char>> marks = blendMarks(panels[i], files);
      for (size_t k = 0; k < marks.size(); ++k) {
        m_anyBlend |= std::find(marks[k].begin(), marks[k].end(), 1) != marks[k].end();
        m_drawn[i][k].blended = std::move(marks[k]);
      }
    }
  }

  void zoomToOverlap() {
    Box overlap;
    for (const auto& drawn : m_drawn)
      if (drawn.size() >= 2) overlap.grow(overlapBox(drawn[0].plane, drawn[1].plane));
    if (!overlap.empty()) m_box = overlap.padded(0.08);
  }

  void begin() {
    m_out = fmt::format(
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
        "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} "
        "{1}\" font-family=\"sans-serif\" font-size=\"12\">\n"
        "<rect class=\"background\" x=\"0\" y=\"0\" width=\"{0}\" height=\"{1}\" "
        "fill=\"white\"/>\n",
        m_width, m_height);
    if (!m_options.title.empty())
      m_out += fmt::format("<text class=\"title\" x=\"{}\" y=\"28\" font-size=\"16\">{}</text>\n",
                           kMargin, escape(m_options.title));
  }

  void panel(size_t index, const Viewport& view) {
    m_out += fmt::format("<g class=\"panel\" data-plane=\"{}\">\n", escape(m_panels[index].title));
    m_out += fmt::format(
        "<clipPath id=\"clip-{0}\"><rect x=\"{1}\" y=\"{2}\" width=\"{3}\" height=\"{4}\"/>"
        "</clipPath>\n",
        index, view.left, view.top, view.width, view.height);
    if (m_panels.size() > 1)
      m_out += fmt::format("<text class=\"panel-title\" x=\"{}\" y=\"{}\">{}</text>\n", view.left,
                           view.top - 8, escape(m_panels[index].title));
    axes(view);
    m_out += fmt::format("<g class=\"drawing\" clip-path=\"url(#clip-{})\">\n", index);
    const std::vector<DrawnLayer>& drawn = m_drawn[index];
    for (const DrawnLayer& d : drawn) blendBand(d, view);
    bool markers = markersWanted(drawn, view);
    m_drawnCount = drawn.size();
    for (size_t i = 0; i < drawn.size(); ++i) layer(drawn[i], drawn.size(), view, markers);
    m_out += "</g>\n</g>\n";
  }

  void axes(const Viewport& view) {
    m_out += fmt::format(
        "<g class=\"axes\" stroke=\"#444\" fill=\"none\">\n<rect x=\"{}\" y=\"{}\" width=\"{}\" "
        "height=\"{}\"/>\n",
        view.left, view.top, view.width, view.height);
    double lastU = view.offU + view.width / view.scale,
           lastV = view.offV + view.height / view.scale;
    int want = view.width > 500 ? 8 : 5;
    double stepU = niceStep(lastU - view.offU, want), stepV = niceStep(lastV - view.offV, want);
    std::string labels;
    double bottom = view.top + view.height;
    for (double a = std::ceil(view.offU / stepU) * stepU; a <= lastU + stepU * 1e-9; a += stepU) {
      double x = view.X(a);
      m_out +=
          fmt::format("<line class=\"tick\" x1=\"{:.2f}\" y1=\"{}\" x2=\"{:.2f}\" y2=\"{}\"/>\n", x,
                      bottom, x, bottom + 6);
      labels += fmt::format(
          "<text class=\"tick-label\" x=\"{:.2f}\" y=\"{}\" text-anchor=\"middle\">{:g}</text>\n",
          x, bottom + 20, std::fabs(a) < stepU * 1e-9 ? 0.0 : a);
    }
    for (double b = std::ceil(view.offV / stepV) * stepV; b <= lastV + stepV * 1e-9; b += stepV) {
      double y = view.Y(b);
      m_out +=
          fmt::format("<line class=\"tick\" x1=\"{}\" y1=\"{:.2f}\" x2=\"{}\" y2=\"{:.2f}\"/>\n",
                      view.left - 6, y, view.left, y);
      labels += fmt::format(
          "<text class=\"tick-label\" x=\"{}\" y=\"{:.2f}\" text-anchor=\"end\">{:g}</text>\n",
          view.left - 9, y + 4, std::fabs(b) < stepV * 1e-9 ? 0.0 : b);
    }
    m_out += "</g>\n" + labels;
    m_out += fmt::format(
        "<text class=\"axis-label\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">u along {} "
        "(file units)</text>\n",
        view.left + view.width / 2, bottom + 40, vecText(m_frame.u));
    m_out += fmt::format(
        "<text class=\"axis-label\" transform=\"translate({} {}) rotate(-90)\" "
        "text-anchor=\"middle\">v along {} (file units)</text>\n",
        view.left - 58, view.top + view.height / 2, vecText(m_frame.v));
  }

  bool markersWanted(const std::vector<DrawnLayer>& drawn, const Viewport& view) const {
    if (m_options.markers == "on") return true;
    if (m_options.markers == "off") return false;
    size_t inView = 0;
    for (const DrawnLayer& d : drawn)
      for (const Point2& p : d.plane) inView += view.inside(view.X(p.u), view.Y(p.v)) ? 1 : 0;
    return inView <= kAutoMarkerLimit;
  }

  // Consecutive blended points of one segment as a wide band under the layers.
  void blendBand(const DrawnLayer& d, const Viewport& view) {
    if (d.blended.empty()) return;
    m_out += fmt::format(
        "<g class=\"blended\" stroke=\"{0}\" fill=\"{0}\" stroke-opacity=\"0.55\" "
        "stroke-width=\"9\" stroke-linecap=\"round\" stroke-linejoin=\"round\">\n",
        kBlendColour);
    for (auto [first, end] : segmentRuns(*d.layer->plane)) {
      size_t k = first;
      while (k < end) {
        if (!d.blended[k]) {
          ++k;
          continue;
        }
        size_t stop = k;
        while (stop < end && d.blended[stop]) ++stop;
        m_out += "<polyline class=\"blended-run\" fill=\"none\" points=\"";
        for (size_t j = k == first ? k : k - 1; j < std::min(stop + 1, end); ++j)
          m_out += fmt::format("{:.2f},{:.2f} ", view.X(d.plane[j].u), view.Y(d.plane[j].v));
        m_out += "\"/>\n";
        k = stop;
      }
    }
    m_out += "</g>\n";
  }

  void layer(const DrawnLayer& d, size_t layers, const Viewport& view, bool markers) {
    const LuAfxsPlane& p = *d.layer->plane;
    const char* colour = colourOf(d.index);
    // Lower layers are drawn wider, so that layers on top of each other
    // show as a line inside a halo.
    double width = 1.3 + 2.2 * static_cast<double>(layers - 1 - d.index) /
                             static_cast<double>(std::max<size_t>(layers - 1, 1));
    m_out += fmt::format(
        "<g class=\"layer\" id=\"layer-{}\" stroke=\"{}\" fill=\"none\" stroke-opacity=\"0.8\">\n",
        d.index, colour);
    std::vector<std::pair<size_t, size_t>> runs = segmentRuns(p);
    for (size_t s = 0; s < runs.size(); ++s) {
      if (runs[s].second - runs[s].first < 2) continue;
      m_out += fmt::format(
          "<polyline class=\"segment\" data-segment=\"{}\" stroke-width=\"{:.2f}\" "
          "stroke-linejoin=\"round\" points=\"",
          s, width);
      for (size_t k = runs[s].first; k < runs[s].second; ++k)
        m_out += fmt::format("{}{:.2f},{:.2f}", k == runs[s].first ? "" : " ", view.X(d.plane[k].u),
                             view.Y(d.plane[k].v));
      m_out += "\"/>\n";
    }
    if (m_options.normals) normals(p, view);
    if (m_options.results && !p.resPoints.empty()) results(p, colour, view);
    pointMarkers(d, runs, view, markers);
    m_out += "</g>\n";
  }

  void normals(const LuAfxsPlane& p, const Viewport& view) {
    if (p.normals.size() != p.points.size()) return;
    double length = std::max(m_box.u1 - m_box.u0, m_box.v1 - m_box.v0) * 0.025;
    m_out += "<g class=\"normals\" stroke-width=\"0.7\">\n";
    for (size_t k = 0; k < p.points.size(); ++k) {
      const LuVec3& a = p.points[k];
      double l = std::sqrt(p.normals[k].x * p.normals[k].x + p.normals[k].y * p.normals[k].y +
                           p.normals[k].z * p.normals[k].z);
      if (!(l > 1e-300)) continue;
      LuVec3 b = {a.x + p.normals[k].x / l * length, a.y + p.normals[k].y / l * length,
                  a.z + p.normals[k].z / l * length};
      Point2 pa = m_frame.project(a), pb = m_frame.project(b);
      m_out += fmt::format("<line x1=\"{:.2f}\" y1=\"{:.2f}\" x2=\"{:.2f}\" y2=\"{:.2f}\"/>\n",
                           view.X(pa.u), view.Y(pa.v), view.X(pb.u), view.Y(pb.v));
    }
    m_out += "</g>\n";
  }

  void results(const LuAfxsPlane& p, const char* colour, const Viewport& view) {
    m_out += fmt::format("<g class=\"results\" fill=\"{}\" stroke=\"none\">\n", colour);
    for (const LuVec3& r : p.resPoints) {
      Point2 q = m_frame.project(r);
      m_out += fmt::format("<circle cx=\"{:.2f}\" cy=\"{:.2f}\" r=\"1.6\"/>\n", view.X(q.u),
                           view.Y(q.v));
    }
    m_out += "</g>\n";
  }

  // Markers at the points in view: every point when markers are wanted (in
  // the distance's colour with --color-by distance), and always the points
  // of one-point segments, which a line cannot show.
  void pointMarkers(const DrawnLayer& d, const std::vector<std::pair<size_t, size_t>>& runs,
                    const Viewport& view, bool markers) {
    const LuAfxsPlane& p = *d.layer->plane;
    bool byDistance = m_options.colorByDistance && p.distances.size() == p.points.size();
    if (!markers && !byDistance) {
      for (auto [first, end] : runs)
        if (end - first == 1) marker(d, first, view, "marker lone", colourOf(d.index));
      return;
    }
    for (size_t k = 0; k < d.plane.size(); ++k) {
      std::string fill = byDistance ? rampColour(m_range.at(p.distances[k])) : colourOf(d.index);
      marker(d, k, view, byDistance ? "marker by-distance" : "marker", fill);
    }
  }

  void marker(const DrawnLayer& d, size_t k, const Viewport& view, const char* cls,
              const std::string& fill) {
    double x = view.X(d.plane[k].u), y = view.Y(d.plane[k].v);
    if (!view.inside(x, y)) return;
    // Lower layers get larger markers, so that coinciding points show both.
    size_t layers = std::max<size_t>(m_drawnCount, 1);
    double r = 2.0 + 1.8 * static_cast<double>(layers - 1 - std::min(d.index, layers - 1)) /
                         static_cast<double>(std::max<size_t>(layers - 1, 1));
    m_out += fmt::format("<path class=\"{}\" fill=\"{}\" stroke-width=\"0.6\" d=\"{}\"/>\n", cls,
                         fill, markerPath(d.index, x, y, r));
  }

  void legend() {
    double left = m_width - kLegendWidth + 15;
    m_out += "<g class=\"legend\">\n";
    double y = kTitleHeight + 10;
    std::vector<std::string> seen;
    for (const auto& drawn : m_drawn)
      for (const DrawnLayer& d : drawn) {
        if (std::find(seen.begin(), seen.end(), d.layer->label) != seen.end()) continue;
        seen.push_back(d.layer->label);
        const char* colour = colourOf(d.index);
        m_out += fmt::format(
            "<line x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\" stroke=\"{3}\" "
            "stroke-width=\"3\"/>\n"
            "<path fill=\"{3}\" d=\"{4}\"/>\n"
            "<text class=\"legend-entry\" x=\"{5}\" y=\"{6}\">{7}</text>\n",
            left, y, left + 25, colour, markerPath(d.index, left + 12.5, y, 3.5), left + 31, y + 4,
            escape(d.layer->label));
        y += 22;
      }
    if (m_anyBlend)
      m_out += fmt::format(
          "<line x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\" stroke=\"{3}\" stroke-width=\"9\" "
          "stroke-opacity=\"0.55\"/>\n<text class=\"legend-entry\" x=\"{4}\" y=\"{5}\">blended "
          "stretch</text>\n",
          left, y, left + 25, kBlendColour, left + 31, y + 4);
    m_legendBottom = y + 22;
    m_out += "</g>\n";
  }

  void colourBar() {
    if (m_range.empty()) return;
    double left = m_width - kLegendWidth + 15, top = m_legendBottom + 20, height = 200;
    m_out +=
        "<g class=\"colorbar\">\n<defs><linearGradient id=\"distance-ramp\" x1=\"0\" y1=\"1\" "
        "x2=\"0\" y2=\"0\">\n";
    for (int i = 0; i <= 8; ++i)
      m_out += fmt::format("<stop offset=\"{:.3f}\" stop-color=\"{}\"/>\n", i / 8.0,
                           rampColour(i / 8.0));
    m_out += "</linearGradient></defs>\n";
    m_out += fmt::format(
        "<text x=\"{}\" y=\"{}\">distance</text>\n<rect x=\"{}\" y=\"{}\" width=\"16\" "
        "height=\"{}\" fill=\"url(#distance-ramp)\" stroke=\"#444\"/>\n",
        left, top - 6, left, top, height);
    for (int i = 0; i <= 4; ++i) {
      double value = m_range.low + (m_range.high - m_range.low) * i / 4.0;
      double y = top + height - height * i / 4.0;
      m_out += fmt::format(
          "<line x1=\"{0}\" y1=\"{1:.2f}\" x2=\"{2}\" y2=\"{1:.2f}\" stroke=\"#444\"/>\n"
          "<text class=\"colorbar-label\" x=\"{3}\" y=\"{4:.2f}\">{5:.4g}</text>\n",
          left + 16, y, left + 21, left + 25, y + 4, value);
    }
    m_out += "</g>\n";
  }

  const std::vector<PlotPanel>& m_panels;
  Frame m_frame;
  PlotOptions m_options;
  std::vector<std::vector<DrawnLayer>> m_drawn;
  Box m_box;
  DistanceRange m_range;
  bool m_anyBlend = false;
  size_t m_drawnCount = 1;  // layers of the panel being drawn
  double m_width = 0, m_height = 0, m_legendBottom = 0;
  std::string m_out;
};

}  // namespace

std::string plotPanelsSvg(const std::vector<PlotPanel>& panels, const double normal[3],
                          const PlotOptions& options) {
  return SvgPlot(panels, normal, options).render();
}

std::string plotSvg(const std::vector<PlotLayer>& layers, const double normal[3],
                    const PlotOptions& options) {
  return plotPanelsSvg({PlotPanel{options.title, layers}}, normal, options);
}

}  // namespace luafxs
