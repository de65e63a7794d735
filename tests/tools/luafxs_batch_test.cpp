// luafxs batch: jobs from a list file or a folder, run by worker processes;
// a failing job never stops the others; one summary, as text or JSON.
#include <algorithm>
#include <fstream>
#include <random>
#include <sstream>
#include <string>

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

class BatchTest : public LuafxsTest {
protected:
  void writeList(const std::string& name, const std::string& text) {
    std::ofstream(path(name)) << text;
  }
  // A folder of cross-sections: one subfolder each, two scans in it.
  void writeFolder(const std::string& folder, int sections) {
    for (int s = 0; s < sections; ++s) {
      const std::string sub = folder + "/xs" + std::to_string(s);
      lutest::fs::create_directories(path(sub));
      writeFile(sub + "/a.afxs", 3 + s, 1);
      writeFile(sub + "/b.afxs", 3 + s, 2);
    }
  }
  std::string p(const std::string& name) { return path(name).string(); }
};

TEST_F(BatchTest, AListRunsEveryJobAndSummarises) {
  writeFile("a.afxs", 2, 1);
  writeFile("b.afxs", 2, 2);
  writeList("jobs.txt",
            "# two unifications and a check\n"
            "unify -o " +
                p("u1.afxs") + " " + p("a.afxs") + " " + p("b.afxs") + "\n" + "\n" + "validate \"" +
                p("a.afxs") + "\"\n" + "unify -o " + p("u2.afxs") + " " + p("a.afxs") + ":7 " +
                p("b.afxs") + ":9\n");
  Outcome r = run("batch " + q("jobs.txt") + " -j 2");
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out,
              HasSubstr("batch: 3 jobs, 2 workers\nok                3\nfailed            0\n"));
  EXPECT_TRUE(lutest::fs::exists(path("u1.afxs")));
  EXPECT_TRUE(lutest::fs::exists(path("u2.afxs")));
}

TEST_F(BatchTest, OnATerminalTheProgressBarCountsJobsAndFailures) {
  writeFile("a.afxs", 2, 1);
  writeList("jobs.txt", "validate " + p("a.afxs") + "\nvalidate " + p("missing.afxs") + "\n");
  std::string screen;
  if (!runOnTerminal("batch " + q("jobs.txt") + " -j 1", screen))
    GTEST_SKIP() << "no script command to give the tool a terminal";
  EXPECT_THAT(screen, ::testing::StartsWith("\r[###############...............] 1/2 jobs, 0 failed"
                                            "\r[##############################] 2/2 jobs, 1 failed"
                                            "\r\n"));
}

TEST_F(BatchTest, AFailingJobNeverStopsTheOthers) {
  writeFile("a.afxs", 2, 1);
  writeList("jobs.txt", "validate " + p("missing.afxs") + "\n" + "unify -o " + p("u1.afxs") + " " +
                            p("a.afxs") + "\n" + "unify -o " + p("u2.afxs") + " " + p("a.afxs") +
                            "\n");
  Outcome r = run("batch " + q("jobs.txt") + " -j 1");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.out, HasSubstr("ok                2\nfailed            1\n"));
  EXPECT_THAT(r.err, HasSubstr("jobs.txt:1: job 1 (validate "));
  EXPECT_THAT(r.err, HasSubstr("ended with exit 1"));
  EXPECT_TRUE(lutest::fs::exists(path("u1.afxs")));
  EXPECT_TRUE(lutest::fs::exists(path("u2.afxs")));
}

TEST_F(BatchTest, AFolderGivesOneUnifyJobPerCrossSectionWithTheBytesOfUnify) {
  writeFolder("scans", 3);
  lutest::fs::create_directories(path("out"));
  Outcome r = run("batch " + q("scans") + " -o " + q("out") + " -j 2");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("batch: 3 jobs"));
  for (int s = 0; s < 3; ++s) {
    const std::string sub = "scans/xs" + std::to_string(s);
    ASSERT_EQ(
        run("unify -o " + q("single.afxs") + " " + q(sub + "/a.afxs") + " " + q(sub + "/b.afxs"))
            .code,
        0);
    EXPECT_EQ(lutest::readBytes(path("out/xs" + std::to_string(s) + ".afxs")),
              lutest::readBytes(path("single.afxs")))
        << s;
  }
}

TEST_F(BatchTest, AFolderCanBeValidated) {
  writeFolder("scans", 2);
  writeDamaged("truncated", "scans/xs1/c.afxs");
  Outcome r = run("batch --validate " + q("scans") + " -j 2");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.out, HasSubstr("batch: 5 jobs"));
  EXPECT_THAT(r.out, HasSubstr("failed            1\n"));
}

TEST_F(BatchTest, TheJsonSummaryHoldsEveryJob) {
  writeFile("a.afxs", 2, 1);
  writeList("jobs.txt", "validate " + p("a.afxs") + "\nvalidate " + p("none.afxs") + "\n");
  Outcome r = run("batch --json -j 2 " + q("jobs.txt"));
  EXPECT_EQ(r.code, 1);
  json j = json::parse(r.out);
  EXPECT_EQ(j["jobs"], 2);
  EXPECT_EQ(j["ok"], 1);
  EXPECT_EQ(j["failed"], 1);
  EXPECT_EQ(j["workers"], 2);
  ASSERT_EQ(j["results"].size(), 2u);
  EXPECT_EQ(j["results"][0]["exit"], 0);
  EXPECT_EQ(j["results"][1]["exit"], 1);
  EXPECT_EQ(j["results"][1]["args"][0], "validate");
  EXPECT_THAT(j["results"][1]["stderr"].get<std::string>(), HasSubstr("none.afxs"));
}

// slice and compare jobs run as the verbs run on their own: the same files.
TEST_F(BatchTest, SliceAndCompareJobsWriteWhatTheVerbsWrite) {
  std::ofstream mesh(path("cube.obj"));
  const int corners[8][3] = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                             {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  const int faces[12][3] = {{1, 3, 2}, {1, 4, 3}, {5, 6, 7}, {5, 7, 8}, {1, 2, 6}, {1, 6, 5},
                            {2, 3, 7}, {2, 7, 6}, {3, 4, 8}, {3, 8, 7}, {4, 1, 5}, {4, 5, 8}};
  for (const auto& c : corners) mesh << "v " << c[0] << ' ' << c[1] << ' ' << c[2] << '\n';
  for (const auto& f : faces) mesh << "f " << f[0] << ' ' << f[1] << ' ' << f[2] << '\n';
  mesh.close();
  writeFile("measured.afxs", 3, 1);
  writeFile("nominal.afxs", 3, 1, false, 11);
  writeList("jobs.txt", "slice " + p("cube.obj") + " -o " + p("cut.afxs") + " --planes 4\n" +
                            "compare " + p("measured.afxs") + " " + p("nominal.afxs") + " -o " +
                            p("deviation.afxs") + "\n");
  Outcome r = run("batch " + q("jobs.txt") + " -j 2");
  ASSERT_EQ(r.code, 0) << r.err;
  EXPECT_THAT(r.out, HasSubstr("batch: 2 jobs, 2 workers\nok                2\n"));
  ASSERT_EQ(run("slice " + q("cube.obj") + " -o " + q("cut-alone.afxs") + " --planes 4").code, 0);
  ASSERT_EQ(run("compare " + q("measured.afxs") + " " + q("nominal.afxs") + " -o " +
                q("deviation-alone.afxs"))
                .code,
            0);
  EXPECT_EQ(lutest::readText(path("cut.afxs")), lutest::readText(path("cut-alone.afxs")));
  EXPECT_EQ(lutest::readText(path("deviation.afxs")),
            lutest::readText(path("deviation-alone.afxs")));
}

// A job is checked for too few arguments as the verb counts them: an option
// and its value in one word are two.
TEST_F(BatchTest, OptionsWithTheirValuesInOneWordAreTwoArguments) {
  writeFile("a.afxs", 2, 1);
  writeList("jobs.txt", "unify --output=" + p("u1.afxs") + " " + p("a.afxs") + "\nunify -o" +
                            p("u2.afxs") + " " + p("a.afxs") + "\n");
  Outcome r = run("batch " + q("jobs.txt"));
  EXPECT_EQ(r.code, 0) << r.err;
  EXPECT_TRUE(lutest::fs::exists(path("u1.afxs")));
  EXPECT_TRUE(lutest::fs::exists(path("u2.afxs")));
}

// A list whose line runs on past a mebibyte (a binary or an endless file
// named by mistake) is refused, not read into memory without end.
TEST_F(BatchTest, AListWithALinePastAMebibyteRunsNothing) {
  writeFile("a.afxs", 2, 1);
  writeList("jobs.txt", "unify -o " + p("u1.afxs") + " " + p("a.afxs") + "\n" +
                            std::string((size_t{1} << 20) + 1, 'x'));
  Outcome r = run("batch " + q("jobs.txt"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("jobs.txt: line 2: longer than 1048576 bytes, which no job is"));
  EXPECT_FALSE(lutest::fs::exists(path("u1.afxs")));
}

// A list that fails to be read is refused, not run as far as it was read:
// /proc/self/mem fails its first read (EIO).
TEST_F(BatchTest, AListThatCannotBeReadRunsNothing) {
  Outcome r = run("batch /proc/self/mem");
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("luafxs: /proc/self/mem: cannot be read"));
  EXPECT_THAT(r.out, Not(HasSubstr("batch:")));
}

TEST_F(BatchTest, ASliceJobWithoutItsFamilyRefusesTheList) {
  writeList("jobs.txt", "slice mesh.ply -o cut.afxs\n");
  Outcome r = run("batch " + q("jobs.txt"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(r.err, HasSubstr("line 1: too few arguments (usage: slice MESH -o OUT (--planes N "
                               "| --spacing D)"));
}

// Lists of validate jobs changed at random: batch ends with 0 or 1, never
// a crash or a hang, and what it says on standard error is printable lines
// of its own. (validate writes nothing, so no mutated path can lead a job
// to write elsewhere.) 60 lists here; LUANAF_MUTATIONS=N runs more.
TEST_F(BatchTest, MutatedListsNeverCrashTheBatch) {
  writeFile("a.afxs", 2, 1);
  writeFile("b c.afxs", 2, 2);
  const std::string seed = "# checks\nvalidate " + p("a.afxs") + "\nvalidate \"" + p("b c.afxs") +
                           "\" --json\n\n  validate " + p("a.afxs") + "   # again\n";
  const std::vector<std::string> tokens = {"\"",     "#",
                                           "\n",     "\t",
                                           " ",      "\r",
                                           "--json", "validate",
                                           "x",      std::string(1, '\0'),
                                           "\xff",   "\x1b[2J",
                                           "\"\"",   "validate \"\n"};
  std::mt19937 random = lutools::mutationRandom();
  const int count = lutools::mutationCount(60);
  for (int i = 0; i < count; ++i) {
    std::ofstream(path("jobs.txt"), std::ios::binary | std::ios::trunc)
        << lutools::mutated(seed, random, tokens);
    SCOPED_TRACE("list " + std::to_string(i));
    const Outcome r = runWithStreamsIn(m_dir, "batch " + q("jobs.txt") + " -j 2", "timeout 120 ");
    ASSERT_TRUE(r.code == 0 || r.code == 1) << "exit " << r.code << ": " << r.err;
    EXPECT_TRUE(lutools::printableLines(r.err)) << r.err;
    std::istringstream lines(r.err);
    for (std::string line; std::getline(lines, line);) {
      EXPECT_EQ(line.rfind("luafxs: ", 0), 0u) << r.err;
    }
    if (r.code == 0) {
      EXPECT_THAT(r.out, HasSubstr("failed            0\n"));
    }
    if (HasFailure()) break;
  }
}

TEST_F(BatchTest, AnUnknownVerbInTheListRunsNothing) {
  writeFile("a.afxs", 2, 1);
  writeList("jobs.txt", "unify -o " + p("u.afxs") + " " + p("a.afxs") + "\nremove " + p("a.afxs") +
                            " --fields normals\n");
  Outcome r = run("batch " + q("jobs.txt"));
  EXPECT_EQ(r.code, 1);
  EXPECT_THAT(
      r.err,
      HasSubstr(
          "line 2: 'remove' is no batch verb (batch verbs: unify, validate, slice, compare)"));
  EXPECT_FALSE(lutest::fs::exists(path("u.afxs")));
}

TEST_F(BatchTest, NoWorkersIsAUsageError) {
  writeList("jobs.txt", "");
  EXPECT_EQ(run("batch " + q("jobs.txt") + " -j 0").code, 2);
}

}  // namespace
