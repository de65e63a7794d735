// luafxs slice and compare: meshes in the three formats, the family in the
// header, partial scans, results appended or written into a new file, and
// the refusals that keep every file whole.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

#include <luAnaf/luAnaf.h>

#include "luafxs_fixture.h"

namespace {

using lutools::LuafxsTest;
using lutools::mutated;
using lutools::mutationCount;
using lutools::mutationRandom;

const double kCube[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                            {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
const int kCubeFaces[12][3] = {{0, 2, 1}, {0, 3, 2}, {4, 5, 6}, {4, 6, 7}, {0, 1, 5}, {0, 5, 4},
                               {1, 2, 6}, {1, 6, 5}, {2, 3, 7}, {2, 7, 6}, {3, 0, 4}, {3, 4, 7}};

struct Loaded {
  LuAfxsHeader header;
  std::vector<LuAfxsPlane> planes;
};

class SectionVerbs : public LuafxsTest {
protected:
  // The unit cube scaled by `scale` about its centre.
  void writeStl(const std::string& name, double scale = 1) {
    std::ofstream out(path(name));
    out << "solid cube\n";
    for (const auto& f : kCubeFaces) {
      out << " facet normal 0 0 0\n  outer loop\n";
      for (int v : f) {
        out << "   vertex";
        for (int k = 0; k < 3; ++k) out << ' ' << 0.5 + (kCube[v][k] - 0.5) * scale;
        out << '\n';
      }
      out << "  endloop\n endfacet\n";
    }
    out << "endsolid cube\n";
  }
  void writePly(const std::string& name) {
    std::ofstream out(path(name));
    out << "ply\nformat ascii 1.0\nelement vertex 8\nproperty double x\nproperty double y\n"
           "property double z\nelement face 12\nproperty list uchar int vertex_indices\n"
           "end_header\n";
    for (const auto& v : kCube) out << v[0] << ' ' << v[1] << ' ' << v[2] << '\n';
    for (const auto& f : kCubeFaces) out << "3 " << f[0] << ' ' << f[1] << ' ' << f[2] << '\n';
  }
  void writeObj(const std::string& name) {
    std::ofstream out(path(name));
    for (const auto& v : kCube) out << "v " << v[0] << ' ' << v[1] << ' ' << v[2] << '\n';
    for (const auto& f : kCubeFaces)
      out << "f " << f[0] + 1 << ' ' << f[1] + 1 << ' ' << f[2] + 1 << '\n';
  }
  Loaded load(const std::string& name) {
    Loaded r;
    LuAfxsUserLink link(wpath(name).c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_TRUE(set.load(LU_AFXS_MASK_ALL));
    r.header = link.getHeader();
    for (LuAfxsUserData* d : set) r.planes.push_back(d->getPlaneData());
    set.closefile();
    return r;
  }

  // Runs `command(input)` (whose output is "out.afxs") on `count` inputs,
  // each a seed changed at random (`mutated`), and checks what the tool
  // promises of any input: it ends with 0 or 1, never a crash or a hang
  // (each run is stopped after two minutes); on 0 its output validates, on
  // 1 it wrote nothing and said why in one printable line, which holds
  // `refusal` when that is not empty. Returns how many runs wrote a file.
  int checkMutatedRuns(const std::vector<std::pair<std::string, std::string>>& seeds,
                       const std::vector<std::string>& tokens, int count,
                       const std::function<std::string(const std::string&)>& command,
                       const std::string& refusal = {}) {
    std::mt19937 random = mutationRandom();
    int written = 0;
    for (int i = 0; i < count; ++i) {
      const auto& [extension, original] = seeds[random() % seeds.size()];
      const std::string input = "mutated." + extension;
      std::ofstream(path(input), std::ios::binary | std::ios::trunc)
          << mutated(original, random, tokens);
      SCOPED_TRACE("input " + std::to_string(i) + " from a ." + extension + " seed");
      const lutools::Outcome r = runWithStreamsIn(m_dir, command(input), "timeout 120 ");
      EXPECT_TRUE(r.code == 0 || r.code == 1) << "exit " << r.code << ": " << r.err;
      if (r.code == 0) {
        ++written;
        const lutools::Outcome check = run("validate " + q("out.afxs"));
        EXPECT_EQ(check.code, 0) << check.out << check.err;
        std::filesystem::remove(path("out.afxs"));
        continue;
      }
      EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
      EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
      if (!refusal.empty()) {
        EXPECT_NE(r.err.find(refusal), std::string::npos) << r.err;
      }
      EXPECT_TRUE(lutools::printableLines(r.err)) << r.err;
      if (HasFailure()) break;
    }
    return written;
  }
};

TEST_F(SectionVerbs, SliceWritesOneClosedLoopPerPlaneWithTheFamilyInTheHeader) {
  writeStl("cube.stl");
  auto r = run("slice " + q("cube.stl") + " --planes 4 -o " + q("cube.afxs"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("4 planes cut"), std::string::npos) << r.out;
  Loaded f = load("cube.afxs");
  EXPECT_EQ(f.header.numPlanes, 4u);
  EXPECT_DOUBLE_EQ(f.header.distBwPlanes, 0.25);
  EXPECT_DOUBLE_EQ(f.header.normal[2], 1);
  EXPECT_DOUBLE_EQ(f.header.point[2], 0.125);
  ASSERT_EQ(f.planes.size(), 4u);
  for (const LuAfxsPlane& p : f.planes) {
    ASSERT_EQ(p.segments.size(), 1u);
    EXPECT_EQ(p.points.front(), p.points.back());
    EXPECT_EQ(p.normals.size(), p.points.size());
    EXPECT_EQ(p.subsetId, 1u);
  }
}

TEST_F(SectionVerbs, StlPlyAndObjOfOneMeshGiveTheSameContours) {
  writeStl("cube.stl");
  writePly("cube.ply");
  writeObj("cube.obj");
  std::vector<std::string> dumps;
  for (std::string mesh : {"cube.stl", "cube.ply", "cube.obj"}) {
    ASSERT_EQ(run("slice " + q(mesh) + " --spacing 0.3 --subset 7 -o " + q(mesh + ".afxs")).code,
              0);
    auto d = run("dump " + q(mesh + ".afxs") + " --format csv");
    ASSERT_EQ(d.code, 0);
    dumps.push_back(d.out);
  }
  EXPECT_EQ(dumps[0], dumps[1]);
  EXPECT_EQ(dumps[0], dumps[2]);
  EXPECT_NE(dumps[0].find(",7,"), std::string::npos);
}

TEST_F(SectionVerbs, SliceNeedsExactlyOneOfPlanesAndSpacing) {
  writeStl("cube.stl");
  EXPECT_EQ(run("slice " + q("cube.stl") + " -o " + q("a.afxs")).code, 2);
  EXPECT_EQ(run("slice " + q("cube.stl") + " --planes 3 --spacing 0.1 -o " + q("a.afxs")).code, 2);
  EXPECT_FALSE(std::filesystem::exists(path("a.afxs")));
}

TEST_F(SectionVerbs, SliceRefusesANormalWithoutDirectionAndAnOriginWithoutPlace) {
  writeStl("cube.stl");
  auto r = run("slice " + q("cube.stl") + " --planes 3 --normal 0,0,0 -o " + q("a.afxs"));
  EXPECT_EQ(r.code, 2);
  EXPECT_NE(r.err.find("--normal: 0,0,0 gives no direction"), std::string::npos) << r.err;
  r = run("slice " + q("cube.stl") + " --planes 3 --normal 1e308,1e308,0 -o " + q("a.afxs"));
  EXPECT_EQ(r.code, 2) << r.err;
  r = run("slice " + q("cube.stl") + " --planes 3 --origin 0,inf,0 -o " + q("a.afxs"));
  EXPECT_EQ(r.code, 2) << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("a.afxs")));
}

TEST_F(SectionVerbs, SliceRefusesToWriteOverItsMesh) {
  writeStl("cube.stl");
  std::string before = lutest::readText(path("cube.stl"));
  auto r = run("slice " + q("cube.stl") + " --planes 3 -o " + q("cube.stl"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(lutest::readText(path("cube.stl")), before);
}

TEST_F(SectionVerbs, UnreadableMeshFailsWithOneMessageAndNoOutput) {
  std::ofstream(path("bad.ply")) << "ply\nformat ascii 1.0\nelement vertex 3\nend_header\n1 2\n";
  auto r = run("slice " + q("bad.ply") + " --planes 3 -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("bad.ply"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

TEST_F(SectionVerbs, ViewSplitWritesTwoPartialScansUnderTwoSubsets) {
  writeStl("cube.stl");
  auto r = run("slice " + q("cube.stl") + " --planes 2 --view-split 180 -o " + q("scan.afxs"));
  ASSERT_EQ(r.code, 0) << r.err;
  Loaded a = load("scan-1.afxs"), b = load("scan-2.afxs");
  ASSERT_EQ(a.planes.size(), 2u);
  ASSERT_EQ(b.planes.size(), 2u);
  EXPECT_EQ(a.planes[0].subsetId, 1u);
  EXPECT_EQ(b.planes[0].subsetId, 2u);
  // Each scan sees part of the loop: open polylines.
  EXPECT_NE(a.planes[0].points.front(), a.planes[0].points.back());
  EXPECT_FALSE(std::filesystem::exists(path("scan.afxs")));
}

TEST_F(SectionVerbs, CompareAppendsSignedDeviationsToTheMeasuredFileOnce) {
  writeStl("nominal.stl");
  writeStl("big.stl", 1.1);
  ASSERT_EQ(run("slice " + q("nominal.stl") + " --planes 4 -o " + q("nominal.afxs")).code, 0);
  ASSERT_EQ(
      run("slice " + q("big.stl") + " --planes 4 -o " + q("big.afxs") + " --origin 0,0,0.125").code,
      0);
  auto r = run("compare " + q("big.afxs") + " " + q("nominal.afxs"));
  ASSERT_EQ(r.code, 0) << r.err;
  Loaded m = load("big.afxs");
  ASSERT_FALSE(m.planes.empty());
  for (const LuAfxsPlane& p : m.planes) {
    ASSERT_EQ(p.distances.size(), p.points.size());
    for (double d : p.distances) EXPECT_NEAR(d, 0.05, 1e-6);  // 32-bit mesh coordinates
  }
  auto again = run("compare " + q("big.afxs") + " " + q("nominal.afxs"));
  EXPECT_EQ(again.code, 1);
  EXPECT_NE(again.err.find("already holds results"), std::string::npos) << again.err;
}

TEST_F(SectionVerbs, CompareWithOutputLeavesTheMeasuredFileAndPrintsJson) {
  writeStl("nominal.stl");
  writeStl("small.stl", 0.9);
  ASSERT_EQ(run("slice " + q("nominal.stl") + " --planes 4 -o " + q("nominal.afxs")).code, 0);
  ASSERT_EQ(run("slice " + q("small.stl") + " --planes 4 -o " + q("small.afxs")).code, 0);
  std::string before = lutest::readText(path("small.afxs"));
  auto r = run("compare " + q("small.afxs") + " " + q("nominal.afxs") + " -o " + q("dev.afxs") +
               " --json");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(lutest::readText(path("small.afxs")), before);
  auto j = nlohmann::json::parse(r.out);
  ASSERT_FALSE(j["planes"].empty());
  for (const auto& plane : j["planes"]) {
    // Inside everywhere: 0.05 in along the normal, or 0 at a corner whose
    // nearest nominal side runs along that normal.
    EXPECT_NEAR(plane["min"].get<double>(), -0.05, 1e-6);
    EXPECT_LE(plane["max"].get<double>(), 1e-6);
    EXPECT_TRUE(plane.contains("worst"));
  }
  Loaded d = load("dev.afxs");
  for (const LuAfxsPlane& p : d.planes) EXPECT_EQ(p.resPoints.size(), p.points.size());
  EXPECT_EQ(run("validate " + q("dev.afxs")).code, 0);
}

TEST_F(SectionVerbs, CompareRefusesAnOutputThatIsAnInput) {
  writeStl("nominal.stl");
  ASSERT_EQ(run("slice " + q("nominal.stl") + " --planes 2 -o " + q("nominal.afxs")).code, 0);
  std::string before = lutest::readText(path("nominal.afxs"));
  auto r =
      run("compare " + q("nominal.afxs") + " " + q("nominal.afxs") + " -o " + q("nominal.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(lutest::readText(path("nominal.afxs")), before);
}

// dump, import, dump: the same text, for each dump format import reads.
class ImportRoundTrip : public SectionVerbs, public ::testing::WithParamInterface<const char*> {};

TEST_P(ImportRoundTrip, DumpImportDumpGivesTheSameText) {
  writeFile("in.afxs", 3, 4, true);
  std::string format = GetParam();
  ASSERT_EQ(run("dump " + q("in.afxs") + " --format " + format + " -o " + q("a.txt")).code, 0);
  auto r = run("import " + q("a.txt") + " -o " + q("back.afxs"));
  ASSERT_EQ(r.code, 0) << r.err;
  ASSERT_EQ(run("dump " + q("back.afxs") + " --format " + format + " -o " + q("b.txt")).code, 0);
  EXPECT_EQ(lutest::readText(path("a.txt")), lutest::readText(path("b.txt")));
  EXPECT_EQ(run("validate " + q("back.afxs")).code, 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, ImportRoundTrip,
                         ::testing::Values("csv", "xyz", "ply", "ply-binary"));

TEST_F(SectionVerbs, ImportKeepsAuxGroupsResultsAndSegmentBreaks) {
  writeFile("in.afxs", 2, 9, true);
  ASSERT_EQ(run("dump " + q("in.afxs") + " --format csv -o " + q("a.csv")).code, 0);
  ASSERT_EQ(run("import " + q("a.csv") + " -o " + q("back.afxs")).code, 0);
  Loaded f = load("back.afxs");
  ASSERT_EQ(f.planes.size(), 2u);
  EXPECT_EQ(f.planes[0].subsetId, 9u);
  EXPECT_EQ(f.planes[0].segments, (std::vector<int32_t>{2, 4}));
  EXPECT_EQ(f.planes[1].distances.size(), 4u);
  EXPECT_EQ(f.planes[1].resPoints.size(), 4u);
}

// Binary PLY of either byte order with float or double coordinates: every
// value comes back exactly as the file holds it.
struct BinaryPly {
  const char* name;
  bool bigEndian;
  bool doubles;
};

void PrintTo(const BinaryPly& c, std::ostream* os) { *os << c.name; }

class ImportBinaryPly : public SectionVerbs, public ::testing::WithParamInterface<BinaryPly> {
protected:
  // The value as the file holds it: a float keeps what a float can.
  double held(double v) const {
    return GetParam().doubles ? v : static_cast<double>(static_cast<float>(v));
  }

  template <typename T>
  void put(std::string& out, T value) const {
    char bytes[sizeof(T)];
    std::memcpy(bytes, &value, sizeof(T));
    if (GetParam().bigEndian) std::reverse(bytes, bytes + sizeof(T));
    out.append(bytes, sizeof(T));
  }
  void putCoordinate(std::string& out, double v) const {
    if (GetParam().doubles)
      put(out, v);
    else
      put(out, static_cast<float>(v));
  }
};

TEST_P(ImportBinaryPly, ReadsEveryValueExactly) {
  const std::string type = GetParam().doubles ? "double" : "float";
  std::string text =
      "ply\nformat " +
      std::string(GetParam().bigEndian ? "binary_big_endian" : "binary_little_endian") +
      " 1.0\ncomment three plane subsets\nelement vertex 5\n";
  for (const char* name : {"x", "y", "z", "nx", "ny", "nz", "distance"})
    text += "property " + type + " " + name + "\n";
  text += "property int plane\nproperty ushort subset\nend_header\n";
  // plane, subset, then x y z nx ny nz distance of each vertex.
  const int32_t ids[5][2] = {{0, 3}, {0, 3}, {7, 3}, {7, 3}, {-1, 65535}};
  const double values[5][7] = {{0.1, -123.456789, 1e-7, 0.6, 0.8, 0, 0.0123},
                               {1.0 / 3, 2.5e5 + 0.123, -0.0, 0, 0, 1, -7.75},
                               {3.14159265358979, 2.718281828459045, 42, 1, 0, 0, 1e-30},
                               {-1e10, 1e-300, 5, 0, 1, 0, 0},
                               {9.87654321, -9.87654321, 0.5, 0, 0, -1, 123456.789}};
  for (size_t v = 0; v < 5; ++v) {
    for (double d : values[v]) putCoordinate(text, d);
    put(text, ids[v][0]);
    put(text, static_cast<uint16_t>(ids[v][1]));
  }
  std::ofstream(path("in.ply"), std::ios::binary) << text;
  auto r = run("import " + q("in.ply") + " -o " + q("out.afxs"));
  ASSERT_EQ(r.code, 0) << r.err;
  Loaded f = load("out.afxs");
  ASSERT_EQ(f.planes.size(), 3u);
  const uint32_t planeIds[3] = {0, 7, 4294967295u}, subsetIds[3] = {3, 3, 65535};
  const size_t firstVertex[4] = {0, 2, 4, 5};
  for (size_t k = 0; k < 3; ++k) {
    const LuAfxsPlane& p = f.planes[k];
    EXPECT_EQ(p.planeId, planeIds[k]);
    EXPECT_EQ(p.subsetId, subsetIds[k]);
    ASSERT_EQ(p.points.size(), firstVertex[k + 1] - firstVertex[k]);
    ASSERT_EQ(p.normals.size(), p.points.size());
    ASSERT_EQ(p.distances.size(), p.points.size());
    for (size_t i = 0; i < p.points.size(); ++i) {
      const double* v = values[firstVertex[k] + i];
      EXPECT_EQ(p.points[i].x, held(v[0]));
      EXPECT_EQ(p.points[i].y, held(v[1]));
      EXPECT_EQ(p.points[i].z, held(v[2]));
      EXPECT_EQ(p.normals[i].x, held(v[3]));
      EXPECT_EQ(p.normals[i].y, held(v[4]));
      EXPECT_EQ(p.normals[i].z, held(v[5]));
      EXPECT_EQ(p.distances[i], held(v[6]));
    }
  }
}

TEST_P(ImportBinaryPly, RefusesANonFiniteValueAndWritesNothing) {
  const std::string type = GetParam().doubles ? "double" : "float";
  std::string text =
      "ply\nformat " +
      std::string(GetParam().bigEndian ? "binary_big_endian" : "binary_little_endian") +
      " 1.0\nelement vertex 2\nproperty " + type + " x\nproperty " + type + " y\nproperty " + type +
      " z\nproperty int plane\nproperty int subset\nend_header\n";
  std::string rows;
  for (size_t v = 0; v < 2; ++v) {
    putCoordinate(rows, 1.0);
    putCoordinate(rows, v == 1 ? INFINITY : 2.0);
    putCoordinate(rows, 3.0);
    put(rows, int32_t{0});
    put(rows, int32_t{1});
  }
  std::ofstream(path("in.ply"), std::ios::binary) << text + rows;
  auto r = run("import " + q("in.ply") + " -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("vertex 1: property y: inf is not a finite number"), std::string::npos)
      << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

INSTANTIATE_TEST_SUITE_P(Encodings, ImportBinaryPly,
                         ::testing::Values(BinaryPly{"LittleEndianFloat", false, false},
                                           BinaryPly{"LittleEndianDouble", false, true},
                                           BinaryPly{"BigEndianFloat", true, false},
                                           BinaryPly{"BigEndianDouble", true, true}),
                         [](const ::testing::TestParamInfo<BinaryPly>& info) {
                           return info.param.name;
                         });

// A cell holding control characters and bytes that are no UTF-8 is quoted
// with those bytes as \xNN: the message never sends an escape sequence to
// the terminal.
TEST_F(SectionVerbs, ImportQuotesTheBytesOfABrokenCellPrintably) {
  std::ofstream(path("in.xyz"), std::ios::binary) << "1 2 3\n4 \x1b[2J\xff"
                                                     "5 6\n";
  auto r = run("import " + q("in.xyz") + " -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("line 2: column y: '\\x1b[2J\\xff5' is not a number; nothing was written"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.err.find('\x1b'), std::string::npos);
  EXPECT_EQ(r.err.find('\xff'), std::string::npos);
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// Well-formed UTF-8 stays as it is; a cell of a megabyte is cut in the
// message, at a character's start.
TEST_F(SectionVerbs, ImportKeepsUtf8AndCutsALongCellInItsMessage) {
  std::string longCell(1 << 20, '7');
  longCell.replace(63, 2, "\xc3\xa9");  // an e with an acute accent across the cut
  std::ofstream(path("in.xyz"), std::ios::binary) << "1 \xc3\xa9 3\n"
                                                  << "1 2 " << longCell << "\n";
  auto r = run("import " + q("in.xyz") + " -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("line 1: column y: '\xc3\xa9' is not a number"), std::string::npos) << r.err;
  std::ofstream(path("in.xyz"), std::ios::binary) << "1 2 " << longCell << "\n";
  r = run("import " + q("in.xyz") + " -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("column z: '" + std::string(63, '7') + "...' is not a number"),
            std::string::npos)
      << r.err;
  EXPECT_LT(r.err.size(), 300u);
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// A binary PLY of four vertices with plane and subset, as dump writes one.
std::string binaryPlyOfFourVertices(bool bigEndian) {
  std::string ply = std::string("ply\nformat binary_") + (bigEndian ? "big" : "little") +
                    "_endian 1.0\nelement vertex 4\nproperty double x\nproperty double y\n"
                    "property double z\nproperty int plane\nproperty int subset\nend_header\n";
  auto put = [&](const void* value, size_t size) {
    std::string bytes(static_cast<const char*>(value), size);
    if (bigEndian) std::reverse(bytes.begin(), bytes.end());
    ply += bytes;
  };
  for (int v = 0; v < 4; ++v) {
    const double xyz[3] = {1.0 * v, 2.0 * v, 3};
    const int32_t ids[2] = {v / 2, 1};
    for (double d : xyz) put(&d, sizeof d);
    for (int32_t i : ids) put(&i, sizeof i);
  }
  return ply;
}

// Inputs of every kind that import reads, each changed at random: the tool
// never crashes and never hangs, a refusal is one printable message with
// nothing written, and what it does write validates. 120 inputs here (a
// fixed seed); LUANAF_MUTATIONS=N (and LUANAF_MUTATION_SEED) runs more by
// hand.
TEST_F(SectionVerbs, ImportOfMutatedInputsNeverCrashesAndWritesOnlyValidFiles) {
  writeFile("in.afxs", 3, 2, true);
  std::vector<std::pair<std::string, std::string>> seeds;  // extension, bytes
  for (const char* format : {"csv", "ply", "xyz"}) {
    const std::string name = std::string("seed.") + format;
    ASSERT_EQ(run("dump " + q("in.afxs") + " --format " + format + " -o " + q(name)).code, 0);
    seeds.emplace_back(format, lutest::readText(path(name)));
  }
  seeds.emplace_back("ply", binaryPlyOfFourVertices(false));
  seeds.emplace_back("ply", binaryPlyOfFourVertices(true));
  const std::vector<std::string> tokens = {"0",
                                           "-1",
                                           "4294967296",
                                           "99999999999999999999",
                                           "1e308",
                                           "1e-400",
                                           "nan",
                                           "inf",
                                           "\n",
                                           ",",
                                           " ",
                                           std::string(1, '\0'),
                                           "\xff\xff\xff\xff",
                                           "element vertex 1000000000\n",
                                           "property list uchar int vertex_indices\n",
                                           "end_header\n",
                                           "format ascii 1.0\n"};
  const int written = checkMutatedRuns(
      seeds, tokens, mutationCount(120),
      [&](const std::string& in) { return "import " + q(in) + " -o " + q("out.afxs"); },
      "nothing was written");
  RecordProperty("imports_written", written);
}

// The mesh reader is not written for hostile input: a PLY header without
// its end_header line would keep it reading for ever, so it is refused
// before the reader sees it.
TEST_F(SectionVerbs, SliceRefusesAPlyHeaderWithoutItsEnd) {
  std::ofstream(path("cut.ply")) << "ply\nformat ascii 1.0\nelement vertex 8\nproperty double x\n"
                                    "property double y\nproperty double z\nend_heade\n0 0 0\n";
  auto r = runWithStreamsIn(m_dir, "slice " + q("cut.ply") + " --planes 3 -o " + q("out.afxs"),
                            "timeout 60 ");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.err.find("cannot be read as a mesh (a PLY header without its end_header line)"),
            std::string::npos)
      << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// A face that lists 253 vertices of 8 stops this system's assimp on an
// assertion as it cuts polygons into triangles; the reader runs apart from
// the tool, which refuses the file in one line whatever the reader does.
TEST_F(SectionVerbs, SliceRefusesAMeshThatStopsItsReaderInOneLine) {
  std::ofstream out(path("odd.ply"), std::ios::binary);
  out << "ply\nformat ascii 1.0\nelement vertex 8\nproperty double x\nproperty double y\n"
         "property double z\nelement face 12\nproperty list uchar int vertex_indices\n"
         "end_header\n";
  for (const auto& v : kCube) out << v[0] << ' ' << v[1] << ' ' << v[2] << '\n';
  for (size_t f = 0; f < 12; ++f)
    out << (f == 2 ? "\xfd" : "3") << ' ' << kCubeFaces[f][0] << ' ' << kCubeFaces[f][1] << ' '
        << kCubeFaces[f][2] << '\n';
  out.close();
  auto r = runWithStreamsIn(m_dir, "slice " + q("odd.ply") + " --planes 3 -o " + q("out.afxs"),
                            "timeout 60 ");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.err.find("luafxs: " + path("odd.ply").string() + ": cannot be read as a mesh"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// The mesh reader's CPU time is bounded: a single face of 30,000 vertices,
// which assimp cuts into triangles for seconds, is refused after the
// second that --read-seconds allows, in one line and with nothing written.
TEST_F(SectionVerbs, SliceStopsAMeshReaderThatSpendsMoreThanItsCpuTime) {
  const int n = 30000;
  std::ofstream out(path("polygon.ply"));
  out << "ply\nformat ascii 1.0\nelement vertex " << n
      << "\nproperty float x\nproperty float y\nproperty float z\nelement face 1\n"
         "property list uint int vertex_indices\nend_header\n";
  for (int i = 0; i < n; ++i) {
    const double a = 2 * M_PI * i / n;
    out << std::cos(a) << ' ' << std::sin(a) << ' ' << (i % 2) * 0.01 << '\n';
  }
  out << n;
  for (int i = 0; i < n; ++i) out << ' ' << i;
  out << '\n';
  out.close();
  auto r = runWithStreamsIn(
      m_dir, "slice " + q("polygon.ply") + " --planes 3 --read-seconds 1 -o " + q("out.afxs"),
      "timeout 60 ");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.err.find("cannot be read as a mesh (the mesh reader spent more than 1 s of CPU "
                       "time on it and was stopped; --read-seconds allows more)"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// Where the tool cannot start the process its mesh reader runs in (a
// container's process limit, say), it reads the mesh itself and cuts it as
// usual. A pids cgroup that allows one process makes every fork fail, for
// root too; the test is skipped where no such group can be made.
TEST_F(SectionVerbs, SliceReadsTheMeshItselfWhereNoProcessCanBeStarted) {
  std::filesystem::path group;
  for (const char* root : {"/sys/fs/cgroup/pids", "/sys/fs/cgroup"}) {
    const std::filesystem::path candidate =
        std::filesystem::path(root) / ("luanaf-test-" + std::to_string(::getpid()));
    std::error_code ec;
    if (!std::filesystem::create_directory(candidate, ec)) continue;
    if (std::ofstream(candidate / "pids.max") << "1" << std::flush) {
      group = candidate;
      break;
    }
    std::filesystem::remove(candidate, ec);
  }
  if (group.empty()) GTEST_SKIP() << "no pids cgroup can be made here";
  // A shell that moves itself into the group, then runs its command.
  const std::string enter = "sh -c 'echo $$ >" + (group / "cgroup.procs").string() + " && ";
  auto removeGroup = [&] {
    std::error_code ec;
    for (int tries = 0; tries < 100 && !std::filesystem::remove(group, ec); ++tries)
      ::usleep(10000);
  };
  if (std::system((enter + "true' 2>/dev/null").c_str()) != 0) {
    removeGroup();
    GTEST_SKIP() << "no process can be moved into a pids cgroup here";
  }
  // In the group even the shell can start nothing.
  const int forked = std::system((enter + "/bin/true && /bin/true' 2>/dev/null").c_str());
  writeObj("cube.obj");
  // A sanitizer build's leak check starts a process as the tool ends, which
  // the group forbids: it is left out for this run.
  const lutools::Outcome r = runWithStreamsIn(
      m_dir, "slice " + q("cube.obj") + " --planes 4 -o " + q("cube.afxs"),
      enter +
          "export ASAN_OPTIONS=\"${ASAN_OPTIONS:+$ASAN_OPTIONS:}detect_leaks=0\" && exec \"$0\" "
          "\"$@\"' ");
  removeGroup();
  ASSERT_NE(forked, 0) << "a process was started in a group that allows one";
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("4 planes cut"), std::string::npos) << r.out;
  const Loaded f = load("cube.afxs");
  ASSERT_EQ(f.planes.size(), 4u);
  for (const LuAfxsPlane& p : f.planes) EXPECT_EQ(p.points.front(), p.points.back());
}

// Meshes of every kind that slice reads, each changed at random: the same
// promises as for import. 60 inputs here; LUANAF_MUTATIONS=N runs more.
TEST_F(SectionVerbs, SliceOfMutatedMeshesNeverCrashesAndWritesOnlyValidFiles) {
  writeStl("cube.stl");
  writePly("cube.ply");
  writeObj("cube.obj");
  std::string binaryStl(80, '\0');
  const uint32_t triangles = 12;
  binaryStl.append(reinterpret_cast<const char*>(&triangles), 4);
  for (const auto& f : kCubeFaces) {
    float values[12] = {};
    for (int k = 0; k < 3; ++k)
      for (int c = 0; c < 3; ++c) values[3 + 3 * k + c] = static_cast<float>(kCube[f[k]][c]);
    binaryStl.append(reinterpret_cast<const char*>(values), sizeof values);
    binaryStl.append(2, '\0');
  }
  const std::vector<std::pair<std::string, std::string>> seeds = {
      {"stl", lutest::readText(path("cube.stl"))},
      {"ply", lutest::readText(path("cube.ply"))},
      {"obj", lutest::readText(path("cube.obj"))},
      {"stl", binaryStl}};
  const std::vector<std::string> tokens = {"0",
                                           "-1",
                                           "4294967295",
                                           "1e308",
                                           "nan",
                                           "inf",
                                           "\n",
                                           " ",
                                           std::string(1, '\0'),
                                           "\xff\xff\xff\x7f",
                                           "f 1 2 3\n",
                                           "v 1 2 3\n",
                                           "element vertex 1000000000\n",
                                           "3 0 1 2\n",
                                           "255 "};
  const int written = checkMutatedRuns(
      seeds, tokens, mutationCount(60),
      [&](const std::string& in) { return "slice " + q(in) + " --planes 3 -o " + q("out.afxs"); });
  RecordProperty("slices_written", written);
}

// A directory is not read as an empty input: it is refused as the other verbs refuse it.
TEST_F(SectionVerbs, ImportRefusesAFolder) {
  std::filesystem::create_directory(path("folder"));
  auto r = run("import " + q("folder") + " -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find("is a directory, not a file; nothing was written"), std::string::npos)
      << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// An endless input is read until the system grants no more memory, then
// refused in one line. A sanitizer build cannot start under the bound on
// its address space that the test sets.
TEST_F(SectionVerbs, ImportRefusesAnInputLargerThanTheMemoryGranted) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "a sanitizer build needs more address space than the test allows";
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
  GTEST_SKIP() << "a sanitizer build needs more address space than the test allows";
#endif
#endif
  auto r = runWithStreamsIn(m_dir, "import /dev/zero -o " + q("out.afxs"),
                            "ulimit -v 600000 && timeout 120 ");
  EXPECT_EQ(r.code, 1) << r.err;
  EXPECT_NE(r.err.find("luafxs: /dev/zero: is too large to be read into memory ("),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("bytes read); nothing was written"), std::string::npos) << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

// A pipe has no size to read up front: it is read to its end.
TEST_F(SectionVerbs, ImportReadsAPipeToItsEnd) {
  const std::string fifo = path("points.fifo").string();
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  auto r = runWithStreamsIn(
      m_dir, "import " + q("points.fifo") + " -o " + q("out.afxs"),
      "(printf '1 2 3\\n4 5 6\\n7 8 9\\n' >" + q("points.fifo") + " &); timeout 60 ");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_NE(r.out.find("1 plane subsets, 3 points"), std::string::npos) << r.out;
}

struct Malformed {
  const char* name;
  const char* text;
  const char* message;
};

class ImportRefuses : public SectionVerbs, public ::testing::WithParamInterface<Malformed> {};

TEST_P(ImportRefuses, MalformedInputWithItsLineAndWritesNothing) {
  std::ofstream(path("in.csv"), std::ios::binary) << GetParam().text;
  auto r = run("import " + q("in.csv") + " -o " + q("out.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_FALSE(std::filesystem::exists(path("out.afxs")));
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ImportRefuses,
    ::testing::Values(
        Malformed{"ColumnCount", "plane,subset,index,x,y,z\n0,1,0,1,2\n", "line 2: 5 columns"},
        Malformed{"NotANumber", "plane,subset,index,x,y,z\n0,1,0,1,2,abc\n", "line 2: column z"},
        Malformed{"NaN", "plane,subset,index,x,y,z\n0,1,0,1,2,3\n0,1,1,nan,2,3\n",
                  "line 3: column x: 'nan' is not a finite number"},
        Malformed{"PlaneNotInteger", "plane,subset,index,x,y,z\n1.5,1,0,1,2,3\n",
                  "line 2: column plane"},
        Malformed{"CutShort", "plane,subset,index,x,y,z\n0,1,0,1,2,3\n0,1,1,1,2", "line 3:"},
        Malformed{"XyzColumns", "1 2 3\n4 5\n", "line 2: 2 values"},
        Malformed{"PlyCutShort",
                  "ply\nformat ascii 1.0\nelement vertex 2\nproperty double x\nproperty double "
                  "y\nproperty double z\nproperty int plane\nproperty int subset\nend_header\n1 2 "
                  "3 0 1\n",
                  "1 vertices where the header names 2"},
        Malformed{"CsvHalfAGroup", "plane,subset,index,x,y,z,nx\n0,1,0,1,2,3,0\n",
                  "line 1: the header names 'nx' without 'ny'"},
        Malformed{"PlyPlaneNotInteger",
                  "ply\nformat binary_little_endian 1.0\nelement vertex 0\nproperty double x\n"
                  "property double y\nproperty double z\nproperty float plane\nproperty int "
                  "subset\nend_header\n",
                  "line 7: property plane must be of an integer type"},
        Malformed{"PlyBinaryCutShort",
                  "ply\nformat binary_big_endian 1.0\nelement vertex 2\nproperty uchar x\n"
                  "property uchar y\nproperty uchar z\nproperty uchar plane\nproperty uchar "
                  "subset\nend_header\n12345678",
                  "1 vertices where the header names 2"},
        Malformed{"PlyNotANumber",
                  "ply\nformat ascii 1.0\nelement vertex 1\nproperty double x\nproperty double "
                  "y\nproperty double z\nproperty int plane\nproperty int subset\nend_header\n1 x "
                  "3 0 1\n",
                  "line 10: column y"},
        // dump writes plane 4294967295 as -1; "-1x" is no such number.
        Malformed{"PlyNegativePlaneWithATail",
                  "ply\nformat ascii 1.0\nelement vertex 1\nproperty double x\nproperty double "
                  "y\nproperty double z\nproperty int plane\nproperty int subset\nend_header\n1 2 "
                  "3 -1x 1\n",
                  "line 10: column plane"},
        // A file without records cannot be read, so none is written.
        Malformed{"CsvHeaderOnly", "plane,subset,index,x,y,z\n", "no points; nothing was written"},
        Malformed{"PlyNoVertices",
                  "ply\nformat ascii 1.0\nelement vertex 0\nproperty double x\nproperty double "
                  "y\nproperty double z\nproperty int plane\nproperty int subset\nend_header\n",
                  "no points; nothing was written"}),
    [](const ::testing::TestParamInfo<Malformed>& info) { return info.param.name; });

}  // namespace
