// The SVG writer shared by plot and demo: planes projected onto two axes
// orthogonal to the header's normal.
#include <algorithm>
#include <cmath>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

constexpr const char* kPalette[] = {"#1f77b4", "#d62728", "#2ca02c", "#ff7f0e",
                                    "#9467bd", "#8c564b", "#e377c2", "#17becf"};
constexpr double kWidth = 960, kHeight = 720;
constexpr double kLeft = 80, kRight = 230, kTop = 50, kBottom = 70;

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

LuVec3 unit(LuVec3 v) {
  double l = std::sqrt(v.x * v.x + v.y * v.y + v.z * v.z);
  return l > 1e-300 ? LuVec3{v.x / l, v.y / l, v.z / l} : LuVec3{0, 0, 0};
}
double dotOf(const LuVec3& a, const LuVec3& b) { return a.x * b.x + a.y * b.y + a.z * b.z; }

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

}  // namespace

std::string plotSvg(const std::vector<PlotLayer>& layers, const double normal[3],
                    const PlotOptions& options) {
  LuVec3 n = unit({normal[0], normal[1], normal[2]});
  if (n.x == 0 && n.y == 0 && n.z == 0) n = {0, 0, 1};
  // u: the coordinate axis least aligned with the normal, made orthogonal to it.
  LuVec3 e = std::fabs(n.x) <= std::fabs(n.y) && std::fabs(n.x) <= std::fabs(n.z) ? LuVec3{1, 0, 0}
             : std::fabs(n.y) <= std::fabs(n.z)                                   ? LuVec3{0, 1, 0}
                                                                                  : LuVec3{0, 0, 1};
  double d = dotOf(n, e);
  LuVec3 u = unit({e.x - n.x * d, e.y - n.y * d, e.z - n.z * d});
  LuVec3 v = {n.y * u.z - n.z * u.y, n.z * u.x - n.x * u.z, n.x * u.y - n.y * u.x};

  double minU = INFINITY, maxU = -INFINITY, minV = INFINITY, maxV = -INFINITY;
  auto grow = [&](const LuVec3& p) {
    double a = dotOf(p, u), b = dotOf(p, v);
    if (!std::isfinite(a) || !std::isfinite(b)) return;
    minU = std::min(minU, a), maxU = std::max(maxU, a);
    minV = std::min(minV, b), maxV = std::max(maxV, b);
  };
  for (const PlotLayer& l : layers) {
    for (const LuVec3& p : l.plane->points) grow(p);
    if (options.results)
      for (const LuVec3& p : l.plane->resPoints) grow(p);
  }
  if (minU > maxU) minU = -1, maxU = 1, minV = -1, maxV = 1;
  double spanU = std::max(maxU - minU, 1e-9), spanV = std::max(maxV - minV, 1e-9);
  minU -= spanU * 0.05, maxU += spanU * 0.05, minV -= spanV * 0.05, maxV += spanV * 0.05;
  spanU = maxU - minU, spanV = maxV - minV;
  const double plotW = kWidth - kLeft - kRight, plotH = kHeight - kTop - kBottom;
  double scale = std::min(plotW / spanU, plotH / spanV);
  // Equal scales on both axes; centre the drawing in the plot area.
  double offU = minU - (plotW / scale - spanU) / 2, offV = minV - (plotH / scale - spanV) / 2;
  auto X = [&](double a) { return kLeft + (a - offU) * scale; };
  auto Y = [&](double b) { return kTop + plotH - (b - offV) * scale; };

  std::string out = fmt::format(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} "
      "{1}\" font-family=\"sans-serif\" font-size=\"12\">\n"
      "<rect class=\"background\" x=\"0\" y=\"0\" width=\"{0}\" height=\"{1}\" fill=\"white\"/>\n",
      kWidth, kHeight);
  if (!options.title.empty())
    out += fmt::format("<text class=\"title\" x=\"{}\" y=\"28\" font-size=\"16\">{}</text>\n",
                       kLeft, escape(options.title));
  // Axes with ticks.
  out += fmt::format(
      "<g class=\"axes\" stroke=\"#444\" fill=\"none\">\n<rect x=\"{}\" y=\"{}\" width=\"{}\" "
      "height=\"{}\"/>\n",
      kLeft, kTop, plotW, plotH);
  double lastU = offU + plotW / scale, lastV = offV + plotH / scale;
  double stepU = niceStep(lastU - offU, 8), stepV = niceStep(lastV - offV, 8);
  std::string labels;
  for (double a = std::ceil(offU / stepU) * stepU; a <= lastU + stepU * 1e-9; a += stepU) {
    double x = X(a);
    out += fmt::format("<line class=\"tick\" x1=\"{:.2f}\" y1=\"{}\" x2=\"{:.2f}\" y2=\"{}\"/>\n",
                       x, kTop + plotH, x, kTop + plotH + 6);
    labels += fmt::format(
        "<text class=\"tick-label\" x=\"{:.2f}\" y=\"{}\" text-anchor=\"middle\">{:g}</text>\n", x,
        kTop + plotH + 20, std::fabs(a) < stepU * 1e-9 ? 0.0 : a);
  }
  for (double b = std::ceil(offV / stepV) * stepV; b <= lastV + stepV * 1e-9; b += stepV) {
    double y = Y(b);
    out += fmt::format("<line class=\"tick\" x1=\"{}\" y1=\"{:.2f}\" x2=\"{}\" y2=\"{:.2f}\"/>\n",
                       kLeft - 6, y, kLeft, y);
    labels += fmt::format(
        "<text class=\"tick-label\" x=\"{}\" y=\"{:.2f}\" text-anchor=\"end\">{:g}</text>\n",
        kLeft - 9, y + 4, std::fabs(b) < stepV * 1e-9 ? 0.0 : b);
  }
  out += "</g>\n" + labels;
  out += fmt::format(
      "<text class=\"axis-label\" x=\"{}\" y=\"{}\" text-anchor=\"middle\">u along {} "
      "(file units)</text>\n",
      kLeft + plotW / 2, kHeight - 20, vecText(u));
  out += fmt::format(
      "<text class=\"axis-label\" transform=\"translate(22 {}) rotate(-90)\" "
      "text-anchor=\"middle\">v along {} (file units)</text>\n",
      kTop + plotH / 2, vecText(v));

  // The layers.
  double normalLength = std::max(spanU, spanV) * 0.025;
  for (size_t i = 0; i < layers.size(); ++i) {
    const LuAfxsPlane& p = *layers[i].plane;
    const char* colour = kPalette[i % std::size(kPalette)];
    out +=
        fmt::format("<g class=\"layer\" id=\"layer-{}\" stroke=\"{}\" fill=\"none\">\n", i, colour);
    // Segments from the running counts; without usable counts, one line.
    std::vector<std::pair<size_t, size_t>> runs;
    size_t start = 0;
    for (int32_t end : p.segments) {
      if (end < 0 || static_cast<size_t>(end) > p.points.size() || static_cast<size_t>(end) < start)
        break;
      if (static_cast<size_t>(end) > start) runs.push_back({start, static_cast<size_t>(end)});
      start = static_cast<size_t>(end);
    }
    if (start < p.points.size()) runs.push_back({start, p.points.size()});
    for (size_t s = 0; s < runs.size(); ++s) {
      out += fmt::format(
          "<polyline class=\"segment\" data-segment=\"{}\" stroke-width=\"1.5\" points=\"", s);
      for (size_t k = runs[s].first; k < runs[s].second; ++k)
        out += fmt::format("{}{:.2f},{:.2f}", k == runs[s].first ? "" : " ",
                           X(dotOf(p.points[k], u)), Y(dotOf(p.points[k], v)));
      out += "\"/>\n";
    }
    if (options.normals && p.normals.size() == p.points.size()) {
      out += "<g class=\"normals\" stroke-width=\"0.7\">\n";
      for (size_t k = 0; k < p.points.size(); ++k) {
        LuVec3 a = p.points[k], nn = unit(p.normals[k]);
        LuVec3 b = {a.x + nn.x * normalLength, a.y + nn.y * normalLength,
                    a.z + nn.z * normalLength};
        out += fmt::format("<line x1=\"{:.2f}\" y1=\"{:.2f}\" x2=\"{:.2f}\" y2=\"{:.2f}\"/>\n",
                           X(dotOf(a, u)), Y(dotOf(a, v)), X(dotOf(b, u)), Y(dotOf(b, v)));
      }
      out += "</g>\n";
    }
    if (options.results && !p.resPoints.empty()) {
      out += fmt::format("<g class=\"results\" fill=\"{}\" stroke=\"none\">\n", colour);
      for (const LuVec3& r : p.resPoints)
        out += fmt::format("<circle cx=\"{:.2f}\" cy=\"{:.2f}\" r=\"1.6\"/>\n", X(dotOf(r, u)),
                           Y(dotOf(r, v)));
      out += "</g>\n";
    }
    out += "</g>\n";
  }
  // Legend.
  out += "<g class=\"legend\">\n";
  for (size_t i = 0; i < layers.size(); ++i) {
    double y = kTop + 10 + 22 * static_cast<double>(i);
    out += fmt::format(
        "<line x1=\"{0}\" y1=\"{1}\" x2=\"{2}\" y2=\"{1}\" stroke=\"{3}\" stroke-width=\"3\"/>\n"
        "<text class=\"legend-entry\" x=\"{4}\" y=\"{5}\">{6}</text>\n",
        kWidth - kRight + 15, y, kWidth - kRight + 40, kPalette[i % std::size(kPalette)],
        kWidth - kRight + 46, y + 4, escape(layers[i].label));
  }
  out += "</g>\n</svg>\n";
  return out;
}

}  // namespace luafxs
