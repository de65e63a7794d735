// The luafxs tool never destroys or silently damages a file: outputs that
// are inputs, directories, FIFOs or read-only files are refused before
// anything is written; outputs appear whole or not at all (signals, a full
// disk); nothing damaged is written on request; unify says what it could not
// do; errors are errors; exports keep every column.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <csignal>
#include <fstream>
#include <map>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "luafxs_fixture.h"

namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using json = nlohmann::json;
using lutools::Outcome;
namespace fs = std::filesystem;

class SafetyTest : public lutools::LuafxsTest {
protected:
  // Runs the tool under a time limit, so that a tool that opened a FIFO
  // fails the test instead of hanging it.
  Outcome runLimited(const std::string& args) { return run(args, "timeout 60 "); }
  Outcome run(const std::string& args, const std::string& prefix = "") {
    return runWithStreamsIn(m_io, args, prefix);
  }
  void SetUp() override {
    LuafxsTest::SetUp();
    // The tool's own streams go beside the folder under test, not into it.
    m_io = m_dir.string() + ".io";
    fs::create_directories(m_io);
  }
  void TearDown() override {
    std::error_code ec;
    fs::remove_all(m_io, ec);
    LuafxsTest::TearDown();
  }

  // Every entry under the test folder: files with their bytes, links with
  // their targets, directories and FIFOs by kind.
  std::map<std::string, std::string> snapshot(const fs::path& root) const {
    std::map<std::string, std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
      fs::file_status s = e.symlink_status();
      std::string name = fs::relative(e.path(), root).string();
      if (fs::is_symlink(s))
        out[name] = "link:" + fs::read_symlink(e.path()).string();
      else if (fs::is_directory(s))
        out[name] = "dir";
      else if (fs::is_fifo(s))
        out[name] = "fifo";
      else
        out[name] =
            "file:" + lutest::readText(e.path()) +
            ((fs::status(e.path()).permissions() & fs::perms::owner_write) == fs::perms::none
                 ? ":read-only"
                 : "");
    }
    return out;
  }
  std::map<std::string, std::string> snapshot() const { return snapshot(m_dir); }
  // Entries whose name ends in ".tmp", anywhere under root.
  static std::vector<std::string> temporaries(const fs::path& root) {
    std::vector<std::string> out;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
      std::string name = e.path().filename().string();
      if (name.size() > 4 && name.substr(name.size() - 4) == ".tmp") out.push_back(name);
    }
    return out;
  }

  // A file of `planes` planes of `points` points each, with every field
  // group but aux: large enough that writing it takes a while.
  void writeBig(const std::string& name, uint32_t planes, size_t points, uint32_t subset) {
    LuAfxsCreateLink link(wpath(name).c_str());
    LuAfxsHeader header;
    header.version = 1;
    header.normal[2] = 1;
    header.numPlanes = planes;
    link.setHeader(header);
    ASSERT_TRUE(link.create(true));
    std::vector<double> xyz(points * 3), normals(points * 3, 0.0), distances(points, 0.1);
    for (uint32_t p = 0; p < planes; ++p) {
      for (size_t i = 0; i < points; ++i) {
        xyz[i * 3] = std::cos(i * 6.283 / points) * 50;
        xyz[i * 3 + 1] = std::sin(i * 6.283 / points) * 50;
        xyz[i * 3 + 2] = p;
        normals[i * 3] = 1;
      }
      int segments[1] = {static_cast<int>(points)};
      LuAfxsCreateData data(link, p, subset);
      data.setPoints(reinterpret_cast<const double(*)[3]>(xyz.data()), points);
      data.setNormals(reinterpret_cast<const double(*)[3]>(normals.data()), points);
      data.setSegments(segments, 1);
      data.setResPoints(reinterpret_cast<const double(*)[3]>(xyz.data()), points);
      data.setDistances(distances.data(), points);
      ASSERT_TRUE(data.flush());
    }
    link.release();
  }

  std::string pathText(const std::string& name) const { return path(name).string(); }

  // A closed mesh that slice cuts: a tetrahedron as ASCII PLY.
  void writeTetrahedron(const std::string& name) {
    std::ofstream(path(name))
        << "ply\nformat ascii 1.0\nelement vertex 4\nproperty double x\nproperty double y\n"
           "property double z\nelement face 4\nproperty list uchar int vertex_indices\n"
           "end_header\n0 0 0\n1 0 0\n0 1 0\n0 0 1\n3 0 2 1\n3 0 1 3\n3 0 3 2\n3 1 2 3\n";
  }

  fs::path m_io;
};

// ---- Outputs are never inputs, directories, FIFOs or read-only files ---------------

struct BadOutput {
  const char* name;
  const char* reason;
};

constexpr BadOutput kBadOutputs[] = {
    {"input", "is an input of this command"},
    {"symlink", "is an input of this command"},
    {"hardlink", "is an input of this command"},
    {"emptydir", "is a directory"},
    {"fulldir", "is a directory"},
    {"fifo", "is not a regular file"},
    {"readonly", "is read-only"},
};

struct WritingCase {
  const char* verb;
  BadOutput bad;
};
void PrintTo(const WritingCase& c, std::ostream* os) { *os << c.verb << " " << c.bad.name; }

class BadOutputTest : public SafetyTest, public ::testing::WithParamInterface<WritingCase> {
protected:
  // Makes `name` (relative to the test folder) the bad output of the case.
  void makeBad(const std::string& name, const std::string& input) {
    std::string kind = GetParam().bad.name;
    if (kind == "symlink") fs::create_symlink(path(input), path(name));
    if (kind == "hardlink") fs::create_hard_link(path(input), path(name));
    if (kind == "emptydir") fs::create_directory(path(name));
    if (kind == "fulldir") {
      fs::create_directory(path(name));
      lutest::writeBytes(path(name) / "keep.txt", {'k', 'e', 'e', 'p'});
    }
    if (kind == "fifo") {
      ASSERT_EQ(::mkfifo(path(name).c_str(), 0644), 0);
    }
    if (kind == "readonly") {
      lutest::writeBytes(path(name), {'o', 'l', 'd'});
      lutest::setReadOnly(path(name), true);
    }
  }
};

TEST_P(BadOutputTest, IsRefusedBeforeAnythingIsWritten) {
  const std::string verb = GetParam().verb, kind = GetParam().bad.name;
  writeFile("in.afxs", 3, 1, true);
  writeFile("in2.afxs", 3, 2, true);
  writeTetrahedron("mesh.ply");
  std::ofstream(path("in.xyz")) << "0 0 0\n1 0 0\n1 1 0\n";
  // The input the bad output is, or links to: the one a verb reads.
  const std::string input = verb == "slice" ? "mesh.ply" : verb == "import" ? "in.xyz" : "in.afxs";
  std::string output = kind == "input" ? input : "out";
  std::string args;
  if (verb == "dump") args = "dump " + q("in.afxs") + " -o " + q(output);
  if (verb == "plot") args = "plot " + q("in.afxs") + " " + q("in2.afxs") + " -o " + q(output);
  if (verb == "view") args = "view " + q("in.afxs") + " " + q("in2.afxs") + " -o " + q(output);
  if (verb == "unify") args = "unify -o " + q(output) + " " + q("in2.afxs") + " " + q("in.afxs");
  if (verb == "remove") args = "remove " + q(output) + " --fields normals";
  if (verb == "compare")
    args = "compare " + q("in.afxs") + " " + q("in2.afxs") + " -o " + q(output);
  if (verb == "slice") args = "slice " + q("mesh.ply") + " --planes 3 -o " + q(output);
  if (verb == "import") args = "import " + q("in.xyz") + " -o " + q(output);
  if (verb == "demo") {
    // The last of the demo's outputs is the bad one: nothing may be written before it.
    fs::create_directory(path("demo"));
    output = "demo/view.html";
    args = "demo " + q("demo");
  }
  if (kind != "input") makeBad(output, input);
  auto before = snapshot();
  Outcome r = runLimited(args);
  EXPECT_EQ(r.code, 1) << r.out << r.err;
  EXPECT_EQ(r.err, "luafxs: " + pathText(output) + ": " + GetParam().bad.reason + "\n");
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(snapshot(), before);
  EXPECT_TRUE(temporaries(m_dir).empty());
}

std::vector<WritingCase> writingCases() {
  std::vector<WritingCase> out;
  for (const char* verb :
       {"dump", "plot", "view", "unify", "remove", "demo", "compare", "slice", "import"})
    for (const BadOutput& bad : kBadOutputs) {
      std::string kind = bad.name;
      // remove's output is its input; links to it are valid targets (tested below).
      if (std::string(verb) == "remove" &&
          (kind == "input" || kind == "symlink" || kind == "hardlink"))
        continue;
      if (std::string(verb) == "demo" &&
          (kind == "input" || kind == "symlink" || kind == "hardlink"))
        continue;
      out.push_back({verb, bad});
    }
  return out;
}

INSTANTIATE_TEST_SUITE_P(Verbs, BadOutputTest, ::testing::ValuesIn(writingCases()),
                         [](const ::testing::TestParamInfo<WritingCase>& info) {
                           return std::string(info.param.verb) + "_" + info.param.bad.name;
                         });

TEST_F(SafetyTest, UnifyRefusesAnOutputThatIsAnInputThroughASymlinkGivenAsInput) {
  writeFile("a.afxs", 2, 1);
  writeFile("b.afxs", 2, 2);
  fs::create_symlink(path("a.afxs"), path("alias.afxs"));
  auto before = snapshot();
  Outcome r = run("unify -o " + q("a.afxs") + " " + q("alias.afxs") + " " + q("b.afxs"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "luafxs: " + pathText("a.afxs") + ": is an input of this command\n");
  EXPECT_EQ(snapshot(), before);
}

TEST_F(SafetyTest, AnOutputInAMissingDirectoryIsRefused) {
  writeFile("a.afxs", 1, 1);
  Outcome r = run("dump " + q("a.afxs") + " -o " + q("absent/out.xyz"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "luafxs: " + pathText("absent/out.xyz") + ": its directory does not exist\n");
}

TEST_F(SafetyTest, AnOutputThroughASymlinkReplacesTheTargetAndKeepsTheLink) {
  writeFile("a.afxs", 1, 1);
  fs::create_directory(path("sub"));
  lutest::writeBytes(path("sub/out.xyz"), {'o', 'l', 'd'});
  fs::create_symlink("sub/out.xyz", path("link.xyz"));
  Outcome r = run("dump " + q("a.afxs") + " -o " + q("link.xyz"));
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(fs::is_symlink(path("link.xyz")));
  EXPECT_EQ(lutest::readText(path("sub/out.xyz")), "0 0 0\n10 0 0\n10 10 0\n0 10 0\n");
  EXPECT_TRUE(temporaries(m_dir).empty());
}

// ---- remove ---------------------------------------------------------------------------

TEST_F(SafetyTest, RemoveRefusesPointsAndNamesWhatMayBeRemoved) {
  writeFile("a.afxs", 2, 1, true);
  for (const char* fields : {"points", "all", "normals,points"}) {
    auto before = snapshot();
    Outcome r = run("remove " + q("a.afxs") + " --fields " + fields);
    EXPECT_EQ(r.code, 2) << fields;
    EXPECT_THAT(r.err, StartsWith("luafxs: --fields: points may not be removed"));
    EXPECT_THAT(r.err, HasSubstr("normals,segments,aux,results,distances"));
    EXPECT_EQ(snapshot(), before);
  }
  EXPECT_EQ(run("validate " + q("a.afxs")).code, 0);
}

TEST_F(SafetyTest, RemoveHelpNamesTheGroupsThatMayBeRemoved) {
  Outcome r = run("remove --help");
  EXPECT_THAT(r.out, HasSubstr("points may not be removed"));
}

TEST_F(SafetyTest, RemoveThroughASymlinkRewritesTheTargetAndKeepsTheLink) {
  fs::create_directory(path("sub"));
  writeFile("sub/a.afxs", 2, 1, true);
  fs::create_symlink("sub/a.afxs", path("link.afxs"));
  Outcome r = run("remove " + q("link.afxs") + " --fields normals");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(fs::is_symlink(path("link.afxs")));
  json j = json::parse(run("info --json " + q("sub/a.afxs")).out);
  EXPECT_EQ(j["fields"]["any"], 3);
  EXPECT_EQ(run("validate " + q("sub/a.afxs")).code, 0);
  EXPECT_TRUE(temporaries(m_dir).empty());
}

TEST_F(SafetyTest, RemoveOnAHardLinkLeavesTheOtherNameWhole) {
  writeFile("a.afxs", 2, 1, true);
  fs::create_hard_link(path("a.afxs"), path("b.afxs"));
  std::string before = lutest::readText(path("a.afxs"));
  Outcome r = run("remove " + q("b.afxs") + " --fields normals");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(lutest::readText(path("a.afxs")), before);
  EXPECT_NE(lutest::readText(path("b.afxs")), before);
  EXPECT_EQ(run("validate " + q("b.afxs")).code, 0);
}

TEST_F(SafetyTest, RemoveKeepsThePermissionBitsOfTheFile) {
  writeFile("a.afxs", 2, 1, true);
  fs::permissions(path("a.afxs"), fs::perms(0640));
  ASSERT_EQ(run("remove " + q("a.afxs") + " --fields normals").code, 0);
  EXPECT_EQ(fs::status(path("a.afxs")).permissions() & fs::perms::all, fs::perms(0640));
}

// ---- validate: results that do not match their points ----------------------------------

TEST_F(SafetyTest, ValidateAndInfoReportResultsOfTheWrongLength) {
  writeFile("a.afxs", 1, 1);
  {
    LuAfxsUserLink link(wpath("a.afxs").c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    double res[3][3] = {{0, 0, 0}, {1, 1, 1}, {2, 2, 2}};
    double distances[5] = {1, 2, 3, 4, 5};
    (*set.begin())->setResPoints(res, 3);
    (*set.begin())->setDistances(distances, 5);
    ASSERT_TRUE((*set.begin())->flush());
  }
  Outcome v = run("validate " + q("a.afxs"));
  EXPECT_EQ(v.code, 1);
  EXPECT_THAT(v.out, HasSubstr("points (4) and resPoints (3) differ in length"));
  EXPECT_THAT(v.out, HasSubstr("points (4) and distances (5) differ in length"));
  Outcome i = run("info " + q("a.afxs"));
  EXPECT_EQ(i.code, 1);
  EXPECT_THAT(i.err, HasSubstr("points (4) and resPoints (3) differ in length"));
}

// ---- info and validate agree; JSON is always an object of one schema --------------------

TEST_F(SafetyTest, InfoAndValidateReportTheSameProblemsAndRecords) {
  writeFile("a.afxs", 2, 1);
  // Segments that do not tile the points: seen only by the deep walk.
  LuAfxsInspection in = luAfxsInspect(wpath("a.afxs"));
  for (const LuAfxsInspectRecord& r : in.records)
    if (r.kind == LU_AFXS_REC_PLANE_SUBSET) {
      std::vector<uint8_t> bytes = lutest::readBytes(path("a.afxs"));
      for (const LuAfxsInspectField& f : r.fields)
        if (f.id == 2) lutest::putU32At(bytes, f.offset + 12, 3);
      lutest::writeBytes(path("a.afxs"), bytes);
      break;
    }
  Outcome info = run("info --json " + q("a.afxs"));
  Outcome validate = run("validate --json " + q("a.afxs"));
  EXPECT_EQ(info.code, 1);
  EXPECT_EQ(validate.code, 1);
  json i = json::parse(info.out), v = json::parse(validate.out);
  ASSERT_FALSE(v["problems"].empty());
  for (const char* key : {"file", "opened", "error", "size", "clean", "loadable", "records",
                          "planeSubsets", "problems"})
    EXPECT_EQ(i[key], v[key]) << key;
  EXPECT_TRUE(v["records"].is_object());
  EXPECT_EQ(v["records"]["total"], 5);
  EXPECT_EQ(v["records"]["planeSubset"], 2);
}

TEST_F(SafetyTest, JsonIsAnObjectEvenOnFailure) {
  fs::create_directory(path("dir"));
  for (std::string verb : {"info", "validate"})
    for (std::string target : {"absent.afxs", "dir"}) {
      Outcome r = run(verb + " --json " + q(target));
      EXPECT_EQ(r.code, 1) << verb << " " << target;
      json j = json::parse(r.out);
      ASSERT_TRUE(j.is_object()) << verb << " " << target;
      EXPECT_EQ(j["opened"], false);
      EXPECT_TRUE(j["error"].is_string());
      EXPECT_TRUE(j["records"].is_object());
      EXPECT_EQ(j["records"]["total"], 0);
    }
  writeDamaged("loop", "d.afxs");
  Outcome r = run("dump --format json " + q("d.afxs"));
  EXPECT_EQ(r.code, 1);
  json j = json::parse(r.out);
  EXPECT_TRUE(j["error"].is_string());
  EXPECT_TRUE(j["planes"].empty());
}

TEST_F(SafetyTest, InfoOnADirectoryOrAFifoSaysSo) {
  fs::create_directory(path("dir"));
  Outcome r = run("info " + q("dir"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(r.err, "luafxs: " + pathText("dir") + ": is a directory, not a file\n");
  EXPECT_THAT(r.out, Not(HasSubstr("9223372036854775807")));
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0644), 0);
  r = runLimited("info " + q("fifo"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("is not a regular file"));
}

// ---- unify says what it did and what it could not -------------------------------------

TEST_F(SafetyTest, BlendingWithoutResultPointsWarnsAndFailsUnderStrict) {
  writeFile("a.afxs", 2, 1);
  writeFile("b.afxs", 2, 2);
  std::string args = "-o " + q("u.afxs") + " " + q("a.afxs") + ":1 " + q("b.afxs") + ":2";
  Outcome r = run("unify --blend " + args);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr(pathText("a.afxs") + ": holds no result points"));
  EXPECT_THAT(r.err, HasSubstr("warning: blending was asked for, but no plane was blended"));
  EXPECT_THAT(r.out, HasSubstr("planes blended    0\n"));
  EXPECT_THAT(r.out, Not(HasSubstr("warning:")));
  EXPECT_EQ(run("unify --strict --blend " + args).code, 1);
  EXPECT_EQ(run("unify --strict " + args).code, 0);
}

TEST_F(SafetyTest, ALoadModeWithoutResultPointsWarnsWhenBlending) {
  ASSERT_EQ(run("demo " + q("demo")).code, 0);
  Outcome r = run("unify --blend --load-mode 15 -o " + q("u.afxs") + " " + q("demo/scan_a.afxs") +
                  ":1 " + q("demo/scan_b.afxs") + ":2");
  EXPECT_THAT(r.err, HasSubstr("--load-mode 15 leaves out result points (16)"));
}

TEST_F(SafetyTest, AnInvalidLoadModeIsAUsageError) {
  writeFile("a.afxs", 1, 1);
  for (const char* mode : {"999", "0", "64", "62"}) {
    Outcome r =
        run(std::string("unify --load-mode ") + mode + " -o " + q("u.afxs") + " " + q("a.afxs"));
    EXPECT_EQ(r.code, 2) << mode;
    EXPECT_THAT(r.err, StartsWith("luafxs: --load-mode: ")) << mode;
  }
  EXPECT_FALSE(fs::exists(path("u.afxs")));
}

TEST_F(SafetyTest, BlendingWithoutIdsIsRefusedWithAClearMessage) {
  writeFile("a.afxs", 2, 1, true);
  writeFile("b.afxs", 2, 2, true);
  Outcome r = run("unify --blend -o " + q("u.afxs") + " " + q("a.afxs") + " " + q("b.afxs") + ":2");
  EXPECT_EQ(r.code, 2);
  EXPECT_EQ(r.err, "luafxs: " + pathText("a.afxs") +
                       ": with --blend every input needs :ID, the subset id its planes are "
                       "written under (e.g. left.afxs:1 right.afxs:2)\n");
  EXPECT_THAT(r.err, Not(HasSubstr("Exception")));
  EXPECT_FALSE(fs::exists(path("u.afxs")));
}

TEST_F(SafetyTest, AThirdInputLeftOutOfBlendedPlanesIsNamed) {
  ASSERT_EQ(run("demo " + q("demo")).code, 0);
  std::string args = "-o " + q("u.afxs") + " " + q("demo/scan_a.afxs") + ":1 " +
                     q("demo/scan_b.afxs") + ":2 " + q("demo/unified.afxs") + ":3";
  Outcome r = run("unify --blend " + args);
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.err, HasSubstr("warning: " + pathText("demo/unified.afxs") +
                               ": left out of 40 blended planes"));
  EXPECT_THAT(r.out, HasSubstr("warnings          1\n"));
  EXPECT_EQ(run("unify --strict --blend " + args).code, 1);
}

// ---- Errors that are errors ------------------------------------------------------------

TEST_F(SafetyTest, AnUnknownVerbIsNamed) {
  Outcome r = run("infoo x");
  EXPECT_EQ(r.code, 2);
  EXPECT_THAT(r.err, StartsWith("luafxs: unknown verb 'infoo' (verbs: info, validate, dump"));
  EXPECT_EQ(r.err.find('\n'), r.err.size() - 1);
}

TEST_F(SafetyTest, ParseErrorsCarryThePrefix) {
  for (const char* args : {"dump", "dump a.afxs --format svg", "unify", "info --colour a"}) {
    Outcome r = run(args);
    EXPECT_EQ(r.code, 2) << args;
    EXPECT_THAT(r.err, StartsWith("luafxs: ")) << args;
  }
}

TEST_F(SafetyTest, NegativeOrOutOfRangePlanesAndSubsetsAreRefused) {
  writeFile("a.afxs", 2, 1);
  for (const char* args : {"dump A --plane -1", "dump A --subset -3", "dump A --plane 4294967296",
                           "plot A --plane -1"}) {
    std::string line = args;
    line.replace(line.find('A'), 1, q("a.afxs"));
    Outcome r = run(line);
    EXPECT_EQ(r.code, 2) << args;
    EXPECT_THAT(r.err, StartsWith("luafxs: ")) << args;
    EXPECT_EQ(r.out, "") << args;
  }
}

TEST_F(SafetyTest, AFullStandardOutputIsAnError) {
  writeFile("a.afxs", 2, 1);
  std::string command = std::string("'") + LUAFXS_PATH + "' info " + q("a.afxs") +
                        " >/dev/full 2>'" + (m_io / "err.txt").string() + "'";
  int status = std::system(command.c_str());
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(lutest::readText(m_io / "err.txt"),
            "luafxs: standard output: write failed (No space left on device)\n");
}

TEST_F(SafetyTest, AClosedPipeIsAnError) {
  writeBig("big.afxs", 4, 20000, 1);
  std::string code = (m_io / "code.txt").string(), err = (m_io / "err.txt").string();
  std::string command = "{ '" + std::string(LUAFXS_PATH) + "' dump " + q("big.afxs") + " 2>'" +
                        err + "'; echo $? >'" + code + "'; } | head -c 10 >/dev/null";
  ASSERT_EQ(std::system(command.c_str()), 0);
  EXPECT_EQ(lutest::readText(code), "1\n");
  EXPECT_EQ(lutest::readText(err), "luafxs: standard output: write failed (Broken pipe)\n");
}

TEST_F(SafetyTest, DumpFieldsWithoutPointsAddThem) {
  writeFile("a.afxs", 1, 1);
  Outcome r = run("dump " + q("a.afxs") + " --fields normals --format csv");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_EQ(r.out,
            "plane,subset,index,x,y,z,nx,ny,nz\n0,1,0,0,0,0,0,0,1\n0,1,1,10,0,0,0,0,1\n"
            "0,1,2,10,10,0,0,0,1\n0,1,3,0,10,0,0,0,1\n");
}

// ---- Exports every consumer keeps whole ------------------------------------------------

TEST_F(SafetyTest, PlyPlaneAndSubsetAreInt) {
  writeFile("a.afxs", 1, 1);
  for (const char* format : {"ply", "ply-binary"}) {
    ASSERT_EQ(run("dump " + q("a.afxs") + " --format " + format + " -o " + q("a.ply")).code, 0);
    std::string text = lutest::readText(path("a.ply"));
    EXPECT_THAT(text, HasSubstr("property int plane\nproperty int subset\nend_header\n"));
    EXPECT_THAT(text.substr(0, text.find("end_header")), Not(HasSubstr("uint")));
  }
}

TEST_F(SafetyTest, CsvCarriesTheAuxGroupOfEachPoint) {
  ASSERT_EQ(run("demo " + q("demo")).code, 0);
  Outcome r = run("dump " + q("demo/scan_a.afxs") + " --plane 0 --format csv --fields aux");
  ASSERT_EQ(r.code, 0) << r.err;
  std::string header = r.out.substr(0, r.out.find('\n'));
  EXPECT_EQ(header, "plane,subset,index,x,y,z,auxCount,auxPositions");
  std::string second = r.out.substr(r.out.find('\n') + 1);
  second = second.substr(second.find('\n') + 1);
  second = second.substr(0, second.find('\n'));
  EXPECT_THAT(second, StartsWith("0,1,1,"));
  EXPECT_THAT(second, testing::EndsWith(",1,1"));
}

// ---- Outputs appear whole or not at all: signals ---------------------------------------

class SignalTest : public SafetyTest {
protected:
  // Starts unify, delivers `signal` after `delay`, and tells how it ended.
  int unifyAndSignal(int signal, std::chrono::milliseconds delay) {
    pid_t pid = fork();
    if (pid == 0) {
      int null = ::open("/dev/null", O_WRONLY);
      ::dup2(null, 1);
      ::dup2(null, 2);
      std::string out = pathText("u.afxs"), a = pathText("a.afxs"), b = pathText("b.afxs");
      ::execl(LUAFXS_PATH, "luafxs", "unify", "-o", out.c_str(), a.c_str(), b.c_str(), nullptr);
      ::_exit(127);
    }
    std::this_thread::sleep_for(delay);
    ::kill(pid, signal);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return status;
  }
};

TEST_F(SignalTest, AnInterruptedUnifyLeavesThePreviousOutputAndNoTemporary) {
  writeBig("a.afxs", 60, 20000, 1);
  writeBig("b.afxs", 60, 20000, 2);
  std::string inputs = lutest::readText(path("a.afxs")) + lutest::readText(path("b.afxs"));
  const std::string previous = "the previous output\n";
  int interrupted = 0;
  const std::pair<int, int> moments[] = {{SIGINT, 5},   {SIGINT, 50},  {SIGINT, 150},
                                         {SIGINT, 400}, {SIGINT, 800}, {SIGTERM, 300},
                                         {SIGHUP, 300}};
  for (auto [signal, ms] : moments) {
    lutest::writeBytes(path("u.afxs"), std::vector<uint8_t>(previous.begin(), previous.end()));
    int status = unifyAndSignal(signal, std::chrono::milliseconds(ms));
    const bool untouched = lutest::readText(path("u.afxs")) == previous;
    if (WIFSIGNALED(status)) {
      EXPECT_EQ(WTERMSIG(status), signal) << ms << " ms";
      // A signal that comes after the rename finds the output whole already.
      if (untouched)
        ++interrupted;
      else
        EXPECT_EQ(run("validate " + q("u.afxs")).code, 0) << ms << " ms: neither old nor whole";
    } else {
      // Finished before the signal: the output is whole.
      EXPECT_EQ(WEXITSTATUS(status), 0) << ms << " ms";
      EXPECT_EQ(run("validate " + q("u.afxs")).code, 0) << ms << " ms";
    }
    EXPECT_TRUE(temporaries(m_dir).empty()) << ms << " ms";
  }
  // The early moments come long before unify of two 96 MB inputs can end.
  EXPECT_GE(interrupted, 2) << "the inputs are too small to interrupt unify while it runs";
  EXPECT_TRUE(lutest::readText(path("a.afxs")) + lutest::readText(path("b.afxs")) == inputs)
      << "an input changed";
}

// ---- Outputs appear whole or not at all: a full disk -----------------------------------

class FullDiskTest : public SafetyTest {
protected:
  // Mounts a tmpfs of `size` at mnt; false (and the test skips) where that is not permitted.
  bool mount(const std::string& size) {
    fs::create_directory(path("mnt"));
    std::string command = "mount -t tmpfs -o size=" + size + " tmpfs " + q("mnt") + " 2>/dev/null";
    if (::geteuid() != 0 || std::system(command.c_str()) != 0) return false;
    m_mounted = true;
    return true;
  }
  // Fills the tmpfs up to about `left` free bytes.
  void fill(size_t left) {
    std::FILE* f = std::fopen(path("mnt/filler").c_str(), "wb");
    std::vector<char> block(4096, 'f');
    while (std::fwrite(block.data(), 1, block.size(), f) == block.size() && std::fflush(f) == 0) {
    }
    std::fclose(f);
    fs::resize_file(path("mnt/filler"), fs::file_size(path("mnt/filler")) - left);
  }
  void TearDown() override {
    if (m_mounted) std::system(("umount " + q("mnt")).c_str());
    SafetyTest::TearDown();
  }
  void writePrevious(const std::string& name) { lutest::writeBytes(path(name), {'o', 'l', 'd'}); }
  bool m_mounted = false;
};

#define MOUNT_OR_SKIP(size) \
  if (!mount(size)) GTEST_SKIP() << "mounting a tmpfs is not permitted here"

TEST_F(FullDiskTest, DumpLeavesThePreviousOutput) {
  MOUNT_OR_SKIP("256k");
  writeBig("a.afxs", 4, 5000, 1);
  writePrevious("mnt/out.csv");
  auto before = snapshot();
  Outcome r = run("dump " + q("a.afxs") + " --format csv -o " + q("mnt/out.csv"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("No space left on device"));
  EXPECT_EQ(snapshot(), before);
}

// Every format is written in chunks as it is formatted: a chunk that does
// not fit ends the dump and leaves the previous output.
TEST_F(FullDiskTest, DumpInEveryFormatLeavesThePreviousOutput) {
  MOUNT_OR_SKIP("256k");
  writeBig("a.afxs", 4, 5000, 1);
  for (const char* format : {"xyz", "ply", "ply-binary", "json"}) {
    writePrevious("mnt/out.txt");
    auto before = snapshot();
    Outcome r = run("dump " + q("a.afxs") + " --format " + format + " -o " + q("mnt/out.txt"));
    EXPECT_EQ(r.code, 1) << format;
    EXPECT_THAT(r.err, HasSubstr("No space left on device")) << format;
    EXPECT_EQ(snapshot(), before) << format;
  }
}

TEST_F(FullDiskTest, PlotLeavesThePreviousOutput) {
  MOUNT_OR_SKIP("256k");
  writeBig("a.afxs", 1, 5000, 1);
  writePrevious("mnt/out.svg");
  fill(8192);
  auto before = snapshot();
  Outcome r = run("plot " + q("a.afxs") + " -o " + q("mnt/out.svg"));
  EXPECT_EQ(r.code, 1);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(FullDiskTest, ViewLeavesThePreviousOutput) {
  MOUNT_OR_SKIP("256k");
  writeBig("a.afxs", 1, 20000, 1);
  writePrevious("mnt/view.html");
  auto before = snapshot();
  Outcome r = run("view " + q("a.afxs") + " -o " + q("mnt/view.html"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("No space left on device"));
  EXPECT_EQ(snapshot(), before);
}

TEST_F(FullDiskTest, UnifyLeavesThePreviousOutput) {
  MOUNT_OR_SKIP("256k");
  writeBig("a.afxs", 4, 2000, 1);
  writeBig("b.afxs", 4, 2000, 2);
  writePrevious("mnt/u.afxs");
  auto before = snapshot();
  Outcome r = run("unify -o " + q("mnt/u.afxs") + " " + q("a.afxs") + " " + q("b.afxs"));
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_EQ(snapshot(), before);
  // The library's many failures are one block on standard error: the count and the first five.
  EXPECT_EQ(r.out, "");
  EXPECT_THAT(r.err, HasSubstr("failures reported by the library (the first 5):\n"));
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 7) << r.err;
}

TEST_F(FullDiskTest, RemoveLeavesTheFileWhole) {
  MOUNT_OR_SKIP("1m");
  writeBig("mnt/a.afxs", 4, 2500, 1);  // about 800 kB: no room for its rewrite
  auto before = snapshot();
  Outcome r = run("remove " + q("mnt/a.afxs") + " --fields normals");
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_THAT(r.err, HasSubstr("it is left as it was"));
  EXPECT_EQ(snapshot(), before);
}

TEST_F(FullDiskTest, DemoLeavesNoPartOfAnOutput) {
  MOUNT_OR_SKIP("256k");
  fs::create_directory(path("mnt/demo"));
  auto before = snapshot();
  Outcome r = run("demo " + q("mnt/demo"));
  EXPECT_EQ(r.code, 1) << r.out;
  EXPECT_EQ(snapshot(), before);
}

}  // namespace
