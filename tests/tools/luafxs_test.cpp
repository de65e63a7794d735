// The luafxs tool, run as a separate program on files the tests write:
// outputs, exit codes, JSON, SVG and PLY, and that looking never harms.
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "luafxs_fixture.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using json = nlohmann::json;
using lutools::LuafxsTest;
using lutools::Outcome;

// ---- Conventions -------------------------------------------------------------

class VerbHelpTest : public LuafxsTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(VerbHelpTest, HelpShowsAnExampleAndExitsZero) {
  Outcome r = run(std::string(GetParam()) + " --help");
  EXPECT_EQ(r.code, 0);
  EXPECT_THAT(r.out, HasSubstr("Example:"));
  EXPECT_THAT(r.out, HasSubstr(std::string("luafxs ") + GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Verbs, VerbHelpTest,
                         ::testing::Values("info", "dump", "validate", "unify", "remove", "plot",
                                           "view", "demo"));

TEST_F(LuafxsTest, VersionIsPrinted) {
  Outcome r = run("--version");
  EXPECT_EQ(r.code, 0);
  EXPECT_THAT(r.out, HasSubstr("luafxs 1.0.0"));
}

TEST_F(LuafxsTest, UnknownVerbIsAUsageError) { EXPECT_EQ(run("frobnicate").code, 2); }

TEST_F(LuafxsTest, MissingArgumentIsAUsageError) { EXPECT_EQ(run("dump").code, 2); }

TEST_F(LuafxsTest, MissingFileIsOneErrorLine) {
  Outcome r = run("info " + q("absent.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "luafxs: " + path("absent.afxs").string() + ": cannot be opened for reading\n");
  EXPECT_EQ(r.out, "");
}

TEST_F(LuafxsTest, OutputHasNoColourWhenNotATerminal) {
  writeFile("a.afxs", 2, 1);
  Outcome r = run("info " + q("a.afxs"));
  EXPECT_THAT(r.out, Not(HasSubstr("\x1b[")));
}

// ---- info ------------------------------------------------------------------

TEST_F(LuafxsTest, InfoPrintsHeaderCountsAndFields) {
  writeFile("a.afxs", 3, 5, true);
  Outcome r = run("info " + q("a.afxs"));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("version         3\n"));
  EXPECT_THAT(r.out, HasSubstr("normal          0.000000 0.000000 1.000000\n"));
  EXPECT_THAT(r.out, HasSubstr("cameras         1\n"));
  EXPECT_THAT(r.out, HasSubstr("1.000000 2.000000 3.000000"));
  EXPECT_THAT(r.out, HasSubstr("planes          3 in the file (numbers 0 to 2)\n"));
  EXPECT_THAT(r.out, HasSubstr("plane subsets   3\n"));
  EXPECT_THAT(r.out, HasSubstr("subset ids      5\n"));
  EXPECT_THAT(
      r.out, HasSubstr("fields, all     0x00000037 (points segments normals results distances)\n"));
}

TEST_F(LuafxsTest, InfoJsonIsTheDocumentedObject) {
  copySample("with_results.afxs", "s.afxs");
  Outcome r = run("info --json " + q("s.afxs"));
  ASSERT_EQ(r.code, 0) << r.err;
  json j = json::parse(r.out);
  EXPECT_EQ(j["size"], 7623);
  EXPECT_EQ(j["header"]["version"], 2);
  EXPECT_EQ(j["header"]["firstRecord"], 0xB3);
  EXPECT_EQ(j["header"]["numPlanes"], 3);
  EXPECT_EQ(j["header"]["distBwPlanes"], 0.5);
  EXPECT_EQ(j["header"]["state"], 3);
  EXPECT_EQ(j["cameras"].size(), 2u);
  EXPECT_EQ(j["cameras"][1][0], -1000.0);
  EXPECT_EQ(j["planes"], 4);
  EXPECT_EQ(j["planeIds"], json({0, 1, 2, 3}));
  EXPECT_EQ(j["planeSubsets"], 7);
  EXPECT_EQ(j["resultsRecords"], 1);
  EXPECT_EQ(j["subsetIds"], json({1, 2}));
  EXPECT_EQ(j["fields"]["all"], 51);
  EXPECT_EQ(j["fields"]["any"], 63);
  EXPECT_EQ(j["fields"]["allNames"], json({"points", "segments", "results", "distances"}));
  EXPECT_TRUE(j["problems"].empty());
}

// ---- validate --------------------------------------------------------------

TEST_F(LuafxsTest, ValidateCleanFileExitsZero) {
  writeFile("a.afxs", 2, 1);
  Outcome r = run("validate " + q("a.afxs"));
  EXPECT_EQ(r.code, 0);
  EXPECT_THAT(r.out, HasSubstr(": ok: "));
}

TEST_F(LuafxsTest, ValidateNamesTheOffsetOfALoopingChain) {
  writeDamaged("loop", "d.afxs");
  Outcome r = run("validate " + q("d.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.out, HasSubstr("at 0x000000FF: record chain loops back to the record at 0xB3"));
  EXPECT_THAT(r.out, HasSubstr("damaged: 1 problem"));
}

TEST_F(LuafxsTest, ValidateJsonListsTheProblems) {
  writeDamaged("count", "d.afxs");
  Outcome r = run("validate --json " + q("d.afxs"));
  EXPECT_EQ(r.code, 1);
  json j = json::parse(r.out);
  EXPECT_FALSE(j["clean"]);
  EXPECT_FALSE(j["loadable"]);
  ASSERT_FALSE(j["problems"].empty());
  EXPECT_EQ(j["problems"][0]["offset"], 0x113 + 20);
  EXPECT_THAT(j["problems"][0]["message"].get<std::string>(), HasSubstr("runs past the end"));
}

TEST_F(LuafxsTest, ValidateSurvivesRandomBytes) {
  std::vector<uint8_t> bytes = lutest::readBytes(lutest::dataFile("with_results.afxs"));
  uint32_t seed = 7;
  for (int round = 0; round < 20; ++round) {
    std::vector<uint8_t> copy = bytes;
    for (int k = 0; k < 6; ++k) {
      seed = seed * 1103515245u + 12345u;
      copy[(seed >> 8) % copy.size()] = static_cast<uint8_t>(seed >> 3);
    }
    lutest::writeBytes(path("r.afxs"), copy);
    Outcome r = run("validate " + q("r.afxs"));
    EXPECT_TRUE(r.code == 0 || r.code == 1) << "round " << round;
  }
}

// ---- dump ------------------------------------------------------------------

TEST_F(LuafxsTest, DumpXyzPrintsOnePointALine) {
  writeFile("a.afxs", 2, 1);
  Outcome r = run("dump " + q("a.afxs") + " --plane 1");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out, "0 0 2\n10 0 2\n10 10 2\n0 10 2\n");
}

TEST_F(LuafxsTest, DumpCsvHasAHeaderRowAndTheChosenFields) {
  writeFile("a.afxs", 1, 4, true);
  Outcome r = run("dump " + q("a.afxs") + " --format csv --fields points,segments,distances");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "plane,subset,index,segment,x,y,z,distance\n"
            "0,4,0,0,0,0,0,0\n0,4,1,0,10,0,0,0.25\n0,4,2,1,10,10,0,0.5\n0,4,3,1,0,10,0,0.75\n");
}

TEST_F(LuafxsTest, DumpJsonHoldsThePlanes) {
  writeFile("a.afxs", 2, 1, true);
  Outcome r = run("dump " + q("a.afxs") + " --format json --subset 1");
  ASSERT_EQ(r.code, 0) << r.err;
  json j = json::parse(r.out);
  ASSERT_EQ(j["planes"].size(), 2u);
  EXPECT_EQ(j["planes"][1]["plane"], 1);
  EXPECT_EQ(j["planes"][1]["segments"], json({2, 4}));
  EXPECT_EQ(j["planes"][1]["resPoints"][0], json({0.0, 0.0, 2.5}));
  EXPECT_EQ(j["planes"][0]["distances"][3], 0.75);
}

TEST_F(LuafxsTest, DumpToAFileWritesNothingToStandardOutput) {
  writeFile("a.afxs", 1, 1);
  Outcome r = run("dump " + q("a.afxs") + " -o " + q("out.xyz"));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(lutest::readText(path("out.xyz")), "0 0 0\n10 0 0\n10 10 0\n0 10 0\n");
}

TEST_F(LuafxsTest, DumpOfAnAbsentPlaneIsAnError) {
  writeFile("a.afxs", 1, 1);
  Outcome r = run("dump " + q("a.afxs") + " --plane 9");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("no plane subset matches"));
}

TEST_F(LuafxsTest, DumpUnknownFieldIsAUsageError) {
  writeFile("a.afxs", 1, 1);
  EXPECT_EQ(run("dump " + q("a.afxs") + " --fields colour").code, 2);
}

class PlyTest : public LuafxsTest, public ::testing::WithParamInterface<const char*> {};

// Read back by a small PLY reader of the tests' own (tests/tools/read_ply.py);
// an independent Debian reader (python3-open3d, pcl-tools) is not installed.
TEST_P(PlyTest, PlyIsReadBackByAnIndependentReader) {
  if (std::system("python3 -c 'import json, struct' >/dev/null 2>&1") != 0)
    GTEST_SKIP() << "python3 is not available";
  writeFile("a.afxs", 2, 3, true);
  Outcome r = run("dump " + q("a.afxs") + " " + GetParam() + " -o " + q("a.ply"));
  ASSERT_EQ(r.code, 0) << r.err;
  std::string command = std::string("python3 '") + LUAFXS_TOOLS_TEST_DIR + "/read_ply.py' " +
                        q("a.ply") + " > " + q("ply.json");
  ASSERT_EQ(std::system(command.c_str()), 0);
  json j = json::parse(lutest::readText(path("ply.json")));
  EXPECT_EQ(j["count"], 8);
  EXPECT_EQ(j["properties"], json({"x", "y", "z", "nx", "ny", "nz", "rx", "ry", "rz", "distance",
                                   "plane", "subset"}));
  EXPECT_EQ(j["vertices"][6],
            json({10.0, 10.0, 2.0, 0.0, 0.0, 1.0, 10.0, 10.0, 2.5, 0.5, 1.0, 3.0}));
}

INSTANTIATE_TEST_SUITE_P(Encodings, PlyTest,
                         ::testing::Values("--format ply", "--format ply-binary",
                                           "--format ply --binary"));

// ---- remove ----------------------------------------------------------------

TEST_F(LuafxsTest, RemoveRewritesTheFileWithoutTheGroupAndWarnsAboutResults) {
  writeFile("a.afxs", 2, 1, true);
  Outcome r = run("remove " + q("a.afxs") + " --fields normals");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr("warning: removing any field group rewrites the file without "
                               "result points and distances"));
  json j = json::parse(run("info --json " + q("a.afxs")).out);
  EXPECT_EQ(j["fields"]["any"], 3);
  EXPECT_EQ(j["planeSubsets"], 2);
}

TEST_F(LuafxsTest, RemoveRefusesAReadOnlyFile) {
  writeFile("a.afxs", 1, 1);
  std::vector<uint8_t> before = lutest::readBytes(path("a.afxs"));
  lutest::setReadOnly(path("a.afxs"), true);
  Outcome r = run("remove " + q("a.afxs") + " --fields normals");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("is read-only"));
  EXPECT_EQ(lutest::readBytes(path("a.afxs")), before);
  EXPECT_FALSE(lutest::fs::exists(path("a.afxs.tmp")));
}

// ---- unify -----------------------------------------------------------------

TEST_F(LuafxsTest, UnifyWritesThePlanesOfEveryInput) {
  writeFile("a.afxs", 3, 1);
  writeFile("b.afxs", 3, 2);
  Outcome r = run("unify -o " + q("u.afxs") + " " + q("a.afxs") + " " + q("b.afxs"));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("planes written    6\n"));
  EXPECT_THAT(r.out, HasSubstr("planes blended    0\n"));
  json j = json::parse(run("info --json " + q("u.afxs")).out);
  EXPECT_EQ(j["subsetIds"], json({1, 2}));
  EXPECT_EQ(j["header"]["version"], 3);
}

TEST_F(LuafxsTest, UnifyOnATerminalDrawsAProgressBarThatEndsFull) {
  writeFile("a.afxs", 3, 1);
  writeFile("b.afxs", 3, 2);
  std::string screen;
  if (!runOnTerminal("unify -o " + q("u.afxs") + " " + q("a.afxs") + " " + q("b.afxs"), screen))
    GTEST_SKIP() << "no script command to give the tool a terminal";
  EXPECT_EQ(screen,
            "\r[##########....................] 1/3 positions"
            "\r[####################..........] 2/3 positions"
            "\r[##############################] 3/3 positions\r\n");
}

TEST_F(LuafxsTest, UnifyWritesUnderTheGivenIds) {
  writeFile("a.afxs", 2, 1);
  writeFile("b.afxs", 2, 2);
  Outcome r = run("unify -o " + q("u.afxs") + " " + q("a.afxs") + ":7 " + q("b.afxs") + ":9");
  EXPECT_EQ(r.code, 0) << r.err;
  json j = json::parse(run("info --json " + q("u.afxs")).out);
  EXPECT_EQ(j["subsetIds"], json({7, 9}));
  EXPECT_EQ(j["planeSubsets"], 4);
}

TEST_F(LuafxsTest, UnifyRefusesADamagedInputBeforeAnyDriverRuns) {
  writeFile("a.afxs", 2, 1);
  writeDamaged("loop", "d.afxs");
  std::vector<uint8_t> before = lutest::readBytes(path("d.afxs"));
  Outcome r = run("unify -o " + q("u.afxs") + " " + q("a.afxs") + " " + q("d.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("record chain loops back"));
  EXPECT_FALSE(lutest::fs::exists(path("u.afxs")));
  EXPECT_EQ(lutest::readBytes(path("d.afxs")), before);
}

TEST_F(LuafxsTest, UnifyRefusesAReadOnlyOutput) {
  writeFile("a.afxs", 1, 1);
  writeFile("u.afxs", 2, 5);
  std::vector<uint8_t> before = lutest::readBytes(path("u.afxs"));
  lutest::setReadOnly(path("u.afxs"), true);
  Outcome r = run("unify -o " + q("u.afxs") + " " + q("a.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("is read-only"));
  EXPECT_EQ(lutest::readBytes(path("u.afxs")), before);
}

TEST_F(LuafxsTest, UnifyWithBlendingBlendsOverlappingPlanes) {
  ASSERT_EQ(run("demo " + q("demo")).code, 0);
  Outcome r = run("unify --blend -o " + q("u.afxs") + " " + q("demo/scan_a.afxs") + ":1 " +
                  q("demo/scan_b.afxs") + ":2");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("planes written    40\nplanes blended    40\n"));
}

TEST_F(LuafxsTest, UnifyHelpSaysWhyThereIsNoAddOrRemove) {
  Outcome r = run("unify --help");
  EXPECT_THAT(r.out, HasSubstr("lives in the memory of the process"));
}

// ---- plot ------------------------------------------------------------------

// The elements of one tag name in an SVG text, with their attributes.
// With a class, only the elements of that class.
std::vector<std::string> elements(const std::string& svg, const std::string& tag,
                                  const std::string& cls = "") {
  std::vector<std::string> out;
  std::regex re("<" + tag + "\\b[^>]*>");
  for (auto it = std::sregex_iterator(svg.begin(), svg.end(), re); it != std::sregex_iterator();
       ++it)
    if (cls.empty() || it->str().find("class=\"" + cls + "\"") != std::string::npos)
      out.push_back(it->str());
  return out;
}

TEST_F(LuafxsTest, PlotDrawsEachSegmentAsAPolylineWithALegend) {
  writeFile("a.afxs", 2, 1, true);
  Outcome r = run("plot " + q("a.afxs") + " --plane 1 --normals --results");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out.rfind("<?xml", 0), 0u);
  EXPECT_THAT(r.out, HasSubstr("</svg>"));
  std::vector<std::string> lines = elements(r.out, "polyline");
  ASSERT_EQ(lines.size(), 2u);
  // Two points per segment, on a plot seen along z: x goes right, y goes up.
  std::smatch m;
  ASSERT_TRUE(std::regex_search(
      lines[0], m, std::regex("points=\"([-0-9.]+),([-0-9.]+) ([-0-9.]+),([-0-9.]+)\"")));
  EXPECT_LT(std::stod(m[1]), std::stod(m[3]));
  EXPECT_DOUBLE_EQ(std::stod(m[2]), std::stod(m[4]));
  EXPECT_EQ(elements(r.out, "circle").size(), 4u);
  EXPECT_THAT(r.out, HasSubstr("a.afxs subset 1</text>"));
  EXPECT_GE(elements(r.out, "line", "tick").size(), 6u);
}

TEST_F(LuafxsTest, PlotOfSeveralFilesGivesEachItsLayer) {
  writeFile("a.afxs", 1, 1, false, 10);
  writeFile("b.afxs", 1, 2, false, 20);
  Outcome r = run("plot " + q("a.afxs") + " " + q("b.afxs") + " -o " + q("p.svg"));
  ASSERT_EQ(r.code, 0) << r.err;
  std::string svg = lutest::readText(path("p.svg"));
  EXPECT_EQ(elements(svg, "g", "layer").size(), 2u);
  EXPECT_THAT(svg, HasSubstr("b.afxs subset 2</text>"));
}

// ---- demo ------------------------------------------------------------------

TEST_F(LuafxsTest, DemoWritesTwoScansTheirUnionAndTwoPlots) {
  Outcome r = run("demo " + q("demo"));
  ASSERT_EQ(r.code, 0) << r.out << r.err;
  for (const char* name :
       {"scan_a.afxs", "scan_b.afxs", "unified.afxs", "plane_before.svg", "plane_after.svg"})
    EXPECT_TRUE(lutest::fs::exists(path("demo") / name)) << name;
  EXPECT_THAT(r.out, HasSubstr("planes blended    40\n"));
  EXPECT_EQ(run("validate " + q("demo/unified.afxs")).code, 0);
  json j = json::parse(run("info --json " + q("demo/unified.afxs")).out);
  EXPECT_EQ(j["planes"], 40);
  EXPECT_EQ(j["planeSubsets"], 40);
  std::string before = lutest::readText(path("demo/plane_before.svg"));
  EXPECT_EQ(elements(before, "g", "layer").size(), 2u);
}

// ---- Looking never harms ---------------------------------------------------

struct HarmCase {
  const char* verb;
  const char* damage;
};

class NoHarmTest : public LuafxsTest, public ::testing::WithParamInterface<HarmCase> {};

TEST_P(NoHarmTest, DamagedFileStaysByteForByte) {
  writeDamaged(GetParam().damage, "d.afxs");
  std::vector<uint8_t> before = lutest::readBytes(path("d.afxs"));
  std::string verb = GetParam().verb;
  std::string args = verb == "unify"    ? "unify -o " + q("u.afxs") + " " + q("d.afxs")
                     : verb == "remove" ? "remove " + q("d.afxs") + " --fields normals"
                                        : verb + " " + q("d.afxs");
  Outcome r = run(args);
  EXPECT_EQ(r.code, 1) << r.out << r.err;
  ASSERT_TRUE(lutest::fs::exists(path("d.afxs")));
  EXPECT_EQ(lutest::readBytes(path("d.afxs")), before);
  EXPECT_THAT(r.err, HasSubstr("luafxs: " + path("d.afxs").string() + ": "));
}

std::vector<HarmCase> harmCases() {
  std::vector<HarmCase> out;
  for (const char* verb : {"info", "validate", "dump", "plot", "unify", "remove"})
    for (const char* damage : {"identifier", "loop", "truncated", "count", "empty"})
      out.push_back({verb, damage});
  return out;
}

INSTANTIATE_TEST_SUITE_P(VerbsAndDamage, NoHarmTest, ::testing::ValuesIn(harmCases()),
                         [](const ::testing::TestParamInfo<HarmCase>& info) {
                           return std::string(info.param.verb) + "_" + info.param.damage;
                         });

}  // namespace
