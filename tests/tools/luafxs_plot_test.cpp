// The pictures luafxs draws: the SVG of plot (fitted axes, markers, breaks,
// small multiples, colour by distance, zoom, the blended stretch) and the
// self-contained page of view.
#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "luafxs_fixture.h"

namespace {

using lutools::LuafxsTest;
using lutools::Outcome;
using ::testing::HasSubstr;
using ::testing::Not;

class PlotTest : public LuafxsTest {
protected:
  // One plane (0) of one subset: the points (x, y, 0) in one segment.
  void writeLine(const std::string& name, uint32_t subset, const std::vector<double>& xs,
                 const std::vector<double>& ys) {
    LuAfxsCreateLink link(wpath(name).c_str());
    LuAfxsHeader header;
    header.version = 1;
    header.normal[2] = 1;
    header.numPlanes = 1;
    header.distBwPlanes = 1;
    link.setHeader(header);
    LuAfxsCamerasTable cameras;
    cameras.cameras.push_back({0, 0, 10});
    link.setCameras(cameras);
    ASSERT_TRUE(link.create(true));
    std::vector<LuVec3> points;
    for (size_t i = 0; i < xs.size(); ++i) points.push_back({xs[i], ys[i], 0});
    int segments[1] = {static_cast<int>(points.size())};
    LuAfxsCreateData data(link, 0, subset);
    data.setPoints(reinterpret_cast<const double(*)[3]>(points.data()), points.size());
    data.setSegments(segments, 1);
    ASSERT_TRUE(data.flush());
    link.release();
  }

  // One plane per entry of `xs` (plane k: the points (x, 0, k) in one
  // segment), all of one subset.
  void writePlanes(const std::string& name, uint32_t subset,
                   const std::vector<std::vector<double>>& xs) {
    LuAfxsCreateLink link(wpath(name).c_str());
    LuAfxsHeader header;
    header.version = 1;
    header.normal[2] = 1;
    header.numPlanes = static_cast<uint32_t>(xs.size());
    header.distBwPlanes = 1;
    link.setHeader(header);
    ASSERT_TRUE(link.create(true));
    for (size_t k = 0; k < xs.size(); ++k) {
      std::vector<LuVec3> points;
      for (double x : xs[k]) points.push_back({x, 0, static_cast<double>(k)});
      int segments[1] = {static_cast<int>(points.size())};
      LuAfxsCreateData data(link, static_cast<uint32_t>(k), subset);
      data.setPoints(reinterpret_cast<const double(*)[3]>(points.data()), points.size());
      data.setSegments(segments, 1);
      ASSERT_TRUE(data.flush());
    }
    link.release();
  }

  // The planes of a viewer page's data: plane id -> whether each part carries a blend mask.
  std::map<uint32_t, std::vector<bool>> viewBlendParts(const std::string& files) {
    Outcome r = run("view " + files + " -o " + q("v.html"));
    EXPECT_EQ(r.code, 0) << r.err;
    std::string html = lutest::readText(path("v.html"));
    const std::string open = "<script id=\"luafxs-data\" type=\"application/json\">";
    size_t from = html.find(open) + open.size();
    nlohmann::json data =
        nlohmann::json::parse(html.substr(from, html.find("</script>", from) - from));
    std::map<uint32_t, std::vector<bool>> out;
    for (const nlohmann::json& plane : data["planes"])
      for (const nlohmann::json& part : plane["parts"])
        out[plane["id"].get<uint32_t>()].push_back(part.contains("blend"));
    return out;
  }

  static std::vector<double> range(double first, double last, double step) {
    std::vector<double> out;
    for (double x = first; x <= last + 1e-9; x += step) out.push_back(x);
    return out;
  }

  Outcome plot(const std::string& args) {
    Outcome r = run("plot " + args);
    EXPECT_EQ(r.code, 0) << r.err;
    return r;
  }
};

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// The numbers of the tick labels of the horizontal (text-anchor middle) or
// vertical (end) axis.
std::vector<double> tickValues(const std::string& svg, bool horizontal) {
  std::vector<double> out;
  std::regex re(std::string("class=\"tick-label\"[^>]*text-anchor=\"") +
                (horizontal ? "middle" : "end") + "\">([-0-9.e+]+)</text>");
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), re); it != std::sregex_iterator();
       ++it)
    out.push_back(std::stod((*it)[1]));
  return out;
}

// The page coordinates of each polyline of a class.
std::vector<std::vector<std::pair<double, double>>> polylines(const std::string& svg,
                                                              const std::string& cls) {
  std::vector<std::vector<std::pair<double, double>>> out;
  std::regex line("<polyline class=\"" + cls + "\"[^>]*points=\"([^\"]*)\"");
  std::regex pair("([-0-9.]+),([-0-9.]+)");
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), line); it != std::sregex_iterator();
       ++it) {
    std::string points = (*it)[1];
    out.emplace_back();
    for (auto p = std::sregex_iterator(points.begin(), points.end(), pair);
         p != std::sregex_iterator(); ++p)
      out.back().push_back({std::stod((*p)[1]), std::stod((*p)[2])});
  }
  return out;
}

// ---- Axes ----------------------------------------------------------------------

TEST_F(PlotTest, AxesAreFittedToTheDataNotToAFixedRange) {
  writeLine("a.afxs", 1, range(-5, 10, 1), std::vector<double>(16, 2.0));
  std::string svg = plot(q("a.afxs")).out;
  std::vector<double> u = tickValues(svg, true);
  ASSERT_FALSE(u.empty());
  EXPECT_GE(*std::min_element(u.begin(), u.end()), -6.5);
  EXPECT_LE(*std::max_element(u.begin(), u.end()), 11.5);
  EXPECT_LE(*std::min_element(u.begin(), u.end()), -4);
  EXPECT_GE(*std::max_element(u.begin(), u.end()), 9);
}

TEST_F(PlotTest, BothAxesHaveTheSameScale) {
  writeFile("sq.afxs", 1, 1, false, 10);  // segments (0,0)-(10,0) and (10,10)-(0,10)
  auto lines = polylines(plot(q("sq.afxs")).out, "segment");
  ASSERT_EQ(lines.size(), 2u);
  double across = lines[0][1].first - lines[0][0].first;  // 10 units along u
  double up = lines[0][0].second - lines[1][0].second;    // 10 units along v
  EXPECT_GT(across, 100);
  EXPECT_NEAR(across, up, 0.05);
}

TEST_F(PlotTest, BoundingBoxShowsOnlyThatWindow) {
  writeLine("a.afxs", 1, range(0, 20, 1), std::vector<double>(21, 0.0));
  std::vector<double> u = tickValues(plot(q("a.afxs") + " --bbox 2,-1,4,1").out, true);
  ASSERT_FALSE(u.empty());
  EXPECT_GE(*std::min_element(u.begin(), u.end()), 1.5);
  EXPECT_LE(*std::max_element(u.begin(), u.end()), 4.5);
}

TEST_F(PlotTest, ABadBoundingBoxIsAUsageError) {
  writeLine("a.afxs", 1, range(0, 3, 1), std::vector<double>(4, 0.0));
  for (const char* box : {"1,2,3", "1,2,x,4", "1,1,1,1"}) {
    Outcome r = run("plot " + q("a.afxs") + " --bbox " + box);
    EXPECT_EQ(r.code, 2) << box;
    EXPECT_THAT(r.err, HasSubstr("--bbox"));
  }
}

TEST_F(PlotTest, ZoomToOverlapShowsWhereTheFirstTwoLayersMeet) {
  writeLine("a.afxs", 1, range(0, 50, 1), std::vector<double>(51, 0.0));
  writeLine("b.afxs", 2, range(45.5, 100, 1), std::vector<double>(55, 0.0));
  std::vector<double> whole = tickValues(plot(q("a.afxs") + " " + q("b.afxs")).out, true);
  std::vector<double> u =
      tickValues(plot(q("a.afxs") + " " + q("b.afxs") + " --zoom overlap").out, true);
  ASSERT_FALSE(u.empty());
  EXPECT_LE(*std::min_element(whole.begin(), whole.end()), 0);
  EXPECT_GE(*std::min_element(u.begin(), u.end()), 38);
  EXPECT_LE(*std::max_element(u.begin(), u.end()), 57);
}

// ---- Layers, segments, markers ------------------------------------------------

TEST_F(PlotTest, SegmentBreaksAreGapsNeverDashes) {
  writeFile("a.afxs", 1, 1, true);
  writeFile("b.afxs", 1, 2, true, 12);
  writeFile("c.afxs", 1, 3, true, 14);
  std::string svg = plot(q("a.afxs") + " " + q("b.afxs") + " " + q("c.afxs") + " --results").out;
  EXPECT_THAT(svg, Not(HasSubstr("dasharray")));
  EXPECT_EQ(polylines(svg, "segment").size(), 6u);  // two segments per layer
}

TEST_F(PlotTest, LayersOnTopOfEachOtherStayDistinguishable) {
  writeFile("a.afxs", 1, 1);
  writeFile("b.afxs", 1, 2);
  std::string svg = plot(q("a.afxs") + " " + q("b.afxs") + " --markers on").out;
  // The lower layer is drawn wider and with other markers than the upper one.
  std::smatch m0, m1;
  ASSERT_TRUE(
      std::regex_search(svg, m0, std::regex("id=\"layer-0\"[^]*?stroke-width=\"([0-9.]+)\"")));
  ASSERT_TRUE(
      std::regex_search(svg, m1, std::regex("id=\"layer-1\"[^]*?stroke-width=\"([0-9.]+)\"")));
  EXPECT_GT(std::stod(m0[1]), std::stod(m1[1]));
  EXPECT_THAT(svg, HasSubstr("stroke-opacity=\"0.8\""));
  std::regex shape("class=\"marker\" [^>]*d=\"M[-0-9.]+,[-0-9.]+([a-zA-Z])");
  std::vector<std::string> kinds;
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), shape); it != std::sregex_iterator();
       ++it)
    if (std::find(kinds.begin(), kinds.end(), (*it)[1]) == kinds.end()) kinds.push_back((*it)[1]);
  EXPECT_EQ(kinds.size(), 2u);
}

TEST_F(PlotTest, MarkersFollowTheOption) {
  writeFile("a.afxs", 1, 1);
  EXPECT_EQ(count(plot(q("a.afxs") + " --markers on").out, "class=\"marker\""), 4u);
  EXPECT_EQ(count(plot(q("a.afxs") + " --markers off").out, "class=\"marker"), 0u);
  EXPECT_EQ(count(plot(q("a.afxs")).out, "class=\"marker\""), 4u);  // few points: auto draws them
  EXPECT_EQ(run("plot " + q("a.afxs") + " --markers some").code, 2);
}

TEST_F(PlotTest, AutoMarkersStopWhenThePlaneIsCrowded) {
  writeLine("a.afxs", 1, range(0, 5000, 1), std::vector<double>(5001, 0.0));
  EXPECT_EQ(count(plot(q("a.afxs")).out, "class=\"marker"), 0u);
  EXPECT_GT(count(plot(q("a.afxs") + " --bbox 0,-5,10,5").out, "class=\"marker\""), 5u);
}

TEST_F(PlotTest, AOnePointSegmentIsStillDrawn) {
  {
    // Segments 2 and 3: the last point alone. (The file is complete once
    // the link and the data are gone.)
    LuAfxsCreateLink link(wpath("b.afxs").c_str());
    LuAfxsHeader header;
    header.version = 1;
    header.normal[2] = 1;
    header.numPlanes = 1;
    link.setHeader(header);
    LuAfxsCamerasTable cameras;
    cameras.cameras.push_back({0, 0, 10});
    link.setCameras(cameras);
    ASSERT_TRUE(link.create(true));
    double points[3][3] = {{0, 0, 0}, {1, 0, 0}, {5, 0, 0}};
    int segments[2] = {2, 3};
    LuAfxsCreateData data(link, 0, 1);
    data.setPoints(points, 3);
    data.setSegments(segments, 2);
    ASSERT_TRUE(data.flush());
    link.release();
  }
  std::string svg = plot(q("b.afxs") + " --markers off").out;
  EXPECT_EQ(polylines(svg, "segment").size(), 1u);
  EXPECT_EQ(count(svg, "class=\"marker lone\""), 1u);
}

// ---- Several planes, colour by distance ---------------------------------------

TEST_F(PlotTest, PlaneListDrawsOnePanelPerPlane) {
  writeFile("a.afxs", 4, 1);
  EXPECT_EQ(count(plot(q("a.afxs") + " --planes 0-2").out, "class=\"panel\""), 3u);
  std::string two = plot(q("a.afxs") + " --planes 3,1").out;
  EXPECT_EQ(count(two, "class=\"panel\""), 2u);
  EXPECT_THAT(two, HasSubstr("data-plane=\"plane 3\""));
  EXPECT_EQ(count(plot(q("a.afxs") + " --plane 2").out, "class=\"panel\""), 1u);
}

TEST_F(PlotTest, ABadPlaneListIsAUsageError) {
  writeFile("a.afxs", 2, 1);
  EXPECT_EQ(run("plot " + q("a.afxs") + " --planes x").code, 2);
  EXPECT_EQ(run("plot " + q("a.afxs") + " --planes 3-1").code, 2);
  // Every character counts: a number with a tail is no number.
  EXPECT_EQ(run("plot " + q("a.afxs") + " --planes 0-1-2").code, 2);
  EXPECT_EQ(run("plot " + q("a.afxs") + " --planes 1x").code, 2);
  EXPECT_EQ(run("plot " + q("a.afxs") + " --planes 0,7").code, 1);  // no such plane
}

TEST_F(PlotTest, BlanksAroundThePlanesOfAListAreAllowed) {
  writeFile("a.afxs", 4, 1);
  EXPECT_EQ(count(plot(q("a.afxs") + " --planes '0, 1 - 2'").out, "class=\"panel\""), 3u);
}

TEST_F(PlotTest, ColourByDistanceColoursEachPointAndAddsAColourBar) {
  writeFile("a.afxs", 1, 1, true);  // distances 0, 0.25, 0.5, 0.75
  std::string svg = plot(q("a.afxs") + " --color-by distance").out;
  EXPECT_EQ(count(svg, "class=\"colorbar\""), 1u);
  EXPECT_EQ(count(svg, "class=\"marker by-distance\""), 4u);
  std::regex fill("class=\"marker by-distance\" fill=\"(#[0-9a-f]{6})\"");
  std::vector<std::string> colours;
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), fill); it != std::sregex_iterator();
       ++it)
    colours.push_back((*it)[1]);
  ASSERT_EQ(colours.size(), 4u);
  EXPECT_NE(colours.front(), colours.back());
  EXPECT_THAT(svg, HasSubstr(">0.75</text>"));
  EXPECT_EQ(count(plot(q("a.afxs")).out, "colorbar"), 0u);
}

// ---- The blended stretch -------------------------------------------------------

TEST_F(PlotTest, TheUnifiedFilesNewPointsAreMarkedAsTheBlendedStretch) {
  writeLine("a.afxs", 1, range(0, 10, 1), std::vector<double>(11, 0.0));
  writeLine("b.afxs", 2, range(14, 24, 1), std::vector<double>(11, 0.0));
  std::vector<double> xs = range(0, 24, 1);  // 11, 12, 13 are new
  writeLine("u.afxs", 1, xs, std::vector<double>(xs.size(), 0.0));
  std::string svg = plot(q("a.afxs") + " " + q("b.afxs") + " " + q("u.afxs")).out;
  auto runs = polylines(svg, "blended-run");
  ASSERT_EQ(runs.size(), 1u);
  EXPECT_EQ(runs[0].size(), 5u);  // 10 to 14: the new points and the ends they join
  EXPECT_THAT(svg, HasSubstr(">blended stretch</text>"));
  // Without the inputs, or with unrelated files, nothing is marked.
  EXPECT_EQ(polylines(plot(q("u.afxs")).out, "blended-run").size(), 0u);
  writeLine("far.afxs", 3, range(100, 110, 1), std::vector<double>(11, 0.0));
  EXPECT_EQ(polylines(plot(q("far.afxs") + " " + q("u.afxs")).out, "blended-run").size(), 0u);
}

// ---- view ----------------------------------------------------------------------

TEST_F(PlotTest, ViewMarksTheBlendedStretchOnTheLastFileOnlyAsPlotDoes) {
  // Plane 1 is in the inputs only: b's points there that a lacks are not a
  // blended stretch, since b is an input, not the unified file.
  std::vector<double> left = range(0, 10, 1), right = range(14, 24, 1), wider = range(0, 13, 1);
  writePlanes("a.afxs", 1, {left, left});
  writePlanes("b.afxs", 2, {right, wider});
  writePlanes("u.afxs", 1, {range(0, 24, 1)});
  std::map<uint32_t, std::vector<bool>> parts =
      viewBlendParts(q("a.afxs") + " " + q("b.afxs") + " " + q("u.afxs"));
  EXPECT_EQ(parts[0], (std::vector<bool>{false, false, true}));
  EXPECT_EQ(parts[1], (std::vector<bool>{false, false}));
  // plot draws plane 1 the same way: nothing marked.
  std::string svg = plot(q("a.afxs") + " " + q("b.afxs") + " " + q("u.afxs") + " --planes 0,1").out;
  EXPECT_EQ(count(svg, "class=\"blended-run\""), 1u);
}

TEST_F(PlotTest, ViewWritesOneSelfContainedPage) {
  writeFile("a.afxs", 3, 1, true);
  writeFile("b.afxs", 3, 2, true, 12);
  Outcome r = run("view " + q("a.afxs") + " " + q("b.afxs") + " -o " + q("v.html"));
  ASSERT_EQ(r.code, 0) << r.err;
  std::string html = lutest::readText(path("v.html"));
  EXPECT_EQ(html.rfind("<!DOCTYPE html>", 0), 0u);
  EXPECT_THAT(html, Not(HasSubstr("<script src")));
  EXPECT_THAT(html, Not(HasSubstr("<link")));
  EXPECT_THAT(html, Not(HasSubstr("http://")));
  EXPECT_THAT(html, Not(HasSubstr("https://")));
  EXPECT_THAT(html, HasSubstr("<canvas id=\"plot\""));
  EXPECT_THAT(html, Not(HasSubstr("@@DATA@@")));
  EXPECT_THAT(html, HasSubstr("\"label\":\"b.afxs subset 2\""));
  std::smatch m;
  ASSERT_TRUE(std::regex_search(html, m, std::regex("\"pts\":\"([A-Za-z0-9+/=]+)\"")));
  EXPECT_EQ(m[1].length(), 44u);  // 4 points of 2 float32s, in base64
}

TEST_F(PlotTest, ViewNeverOverwritesAnInput) {
  writeFile("a.afxs", 1, 1);
  std::vector<uint8_t> before = lutest::readBytes(path("a.afxs"));
  Outcome r = run("view " + q("a.afxs") + " -o " + q("a.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("is an input of this command"));
  EXPECT_EQ(lutest::readBytes(path("a.afxs")), before);
}

TEST_F(PlotTest, ViewKeepsAFileNameOutOfTheScriptElement) {
  writeFile("a<!--<script>.afxs", 1, 1);
  ASSERT_EQ(run("view " + q("a<!--<script>.afxs") + " -o " + q("v.html")).code, 0);
  std::string html = lutest::readText(path("v.html"));
  EXPECT_THAT(html, Not(HasSubstr("a<!--<script>")));
  EXPECT_THAT(html, HasSubstr("a\\u003c!--\\u003cscript>.afxs subset 1"));
}

TEST_F(PlotTest, DemoWritesTheViewerBesideItsPlots) {
  ASSERT_EQ(run("demo " + q("demo")).code, 0);
  std::string html = lutest::readText(path("demo/view.html"));
  EXPECT_THAT(html, HasSubstr("unified.afxs subset 1"));
  EXPECT_THAT(html, HasSubstr("\"blend\":\""));
  std::string after = lutest::readText(path("demo/plane_after.svg"));
  EXPECT_GT(polylines(after, "blended-run").size(), 0u);
}

}  // namespace
