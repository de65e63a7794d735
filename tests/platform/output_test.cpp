// Outputs of the front-ends: the check before anything is written, the
// temporary beside the final name, commit and discard, symlinks, and the
// removal of live temporaries from a signal handler.
#include <cerrno>
#include <csignal>
#include <cstdio>

#if !defined(_WIN32)
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "support/test_support.h"

using namespace lutest;

namespace {

class OutputTest : public TempDirTest {
protected:
  // Every entry of the folder whose name ends in ".tmp".
  std::vector<std::string> temporaries() const {
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(m_dir)) {
      std::string name = e.path().filename().string();
      if (name.size() > 4 && name.substr(name.size() - 4) == ".tmp") out.push_back(name);
    }
    return out;
  }
  void writeText(const std::string& name, const std::string& text) {
    writeBytes(path(name), std::vector<uint8_t>(text.begin(), text.end()));
  }
  // Writes text into the output's temporary, as a front-end would.
  static void fill(const LuAfxsOutputFile& out, const std::string& text) {
    std::FILE* f = std::fopen(fs::path(out.tempPath()).string().c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }
  LuAfxsOutputProblem check(const std::string& output, const std::vector<std::string>& inputs) {
    std::vector<std::wstring> wide;
    for (const std::string& i : inputs) wide.push_back(wpath(i));
    LuAfxsOutputProblem problem;
    bool ok = luAfxsCheckOutput(wpath(output), wide, problem);
    EXPECT_EQ(ok, problem.errnum == 0);
    return problem;
  }
};

// ---- luAfxsCheckOutput -------------------------------------------------------------

TEST_F(OutputTest, ANewFileAndAWritableFileMayBeWritten) {
  writeText("in.afxs", "input");
  writeText("old.txt", "old");
  EXPECT_EQ(check("new.txt", {"in.afxs"}).errnum, 0);
  EXPECT_EQ(check("old.txt", {"in.afxs"}).errnum, 0);
}

TEST_F(OutputTest, AnInputIsRefused) {
  writeText("in.afxs", "input");
  LuAfxsOutputProblem p = check("in.afxs", {"other.afxs", "in.afxs"});
  EXPECT_EQ(p.errnum, EEXIST);
  EXPECT_EQ(p.reason, L"is an input of this command");
}

TEST_F(OutputTest, ADirectoryIsRefusedEmptyOrFull) {
  fs::create_directory(path("empty"));
  fs::create_directory(path("full"));
  writeText("full/x", "x");
  EXPECT_EQ(check("empty", {}).errnum, EISDIR);
  LuAfxsOutputProblem p = check("full", {});
  EXPECT_EQ(p.errnum, EISDIR);
  EXPECT_EQ(p.reason, L"is a directory");
}

TEST_F(OutputTest, AReadOnlyFileIsRefused) {
  writeText("ro.txt", "keep");
  setReadOnly(path("ro.txt"), true);
  LuAfxsOutputProblem p = check("ro.txt", {});
  EXPECT_EQ(p.errnum, EACCES);
  EXPECT_EQ(p.reason, L"is read-only");
  setReadOnly(path("ro.txt"), false);
}

TEST_F(OutputTest, AMissingDirectoryIsRefused) {
  LuAfxsOutputProblem p = check("absent/out.txt", {});
  EXPECT_EQ(p.errnum, ENOENT);
  EXPECT_EQ(p.reason, L"its directory does not exist");
}

TEST_F(OutputTest, AnEmptyPathIsRefused) {
  LuAfxsOutputProblem p;
  EXPECT_FALSE(luAfxsCheckOutput(L"", {}, p));
  EXPECT_EQ(p.errnum, EINVAL);
}

#if !defined(_WIN32)
TEST_F(OutputTest, AnInputIsRefusedThroughASymlinkAndAHardLink) {
  writeText("in.afxs", "input");
  fs::create_symlink("in.afxs", path("link.afxs"));
  fs::create_hard_link(path("in.afxs"), path("hard.afxs"));
  EXPECT_EQ(check("link.afxs", {"in.afxs"}).errnum, EEXIST);
  EXPECT_EQ(check("hard.afxs", {"in.afxs"}).errnum, EEXIST);
  EXPECT_EQ(check("in.afxs", {"link.afxs"}).errnum, EEXIST);
}

TEST_F(OutputTest, AFifoIsRefused) {
  ASSERT_EQ(::mkfifo(path("fifo").c_str(), 0644), 0);
  LuAfxsOutputProblem p = check("fifo", {});
  EXPECT_EQ(p.errnum, EINVAL);
  EXPECT_EQ(p.reason, L"is not a regular file");
  EXPECT_EQ(check("/dev/null", {}).errnum, EINVAL);
}

TEST_F(OutputTest, ADanglingLinkIsCheckedByItsTargetsDirectory) {
  fs::create_symlink("absent/target.txt", path("dangling"));
  EXPECT_EQ(check("dangling", {}).errnum, ENOENT);
  fs::create_symlink("target.txt", path("fine"));
  EXPECT_EQ(check("fine", {}).errnum, 0);
}

// ---- luAfxsResolveOutput ------------------------------------------------------------

TEST_F(OutputTest, ResolveFollowsAChainOfRelativeAndAbsoluteLinks) {
  fs::create_directory(path("sub"));
  writeText("sub/target.txt", "t");
  fs::create_symlink("target.txt", path("sub/one"));
  fs::create_symlink(path("sub/one"), path("two"));
  fs::create_symlink("sub/absent.txt", path("dangling"));
  EXPECT_EQ(fs::path(luAfxsResolveOutput(wpath("two"))), path("sub/target.txt"));
  EXPECT_EQ(fs::path(luAfxsResolveOutput(wpath("dangling"))), path("sub/absent.txt"));
  EXPECT_EQ(luAfxsResolveOutput(wpath("plain.txt")), wpath("plain.txt"));
}
#endif

// ---- LuAfxsOutputFile ---------------------------------------------------------------

TEST_F(OutputTest, TheTemporaryLiesBesideTheFinalNameUntilCommit) {
  writeText("out.txt", "old");
  {
    LuAfxsOutputFile out(wpath("out.txt"));
    ASSERT_TRUE(out.ok());
    fs::path temp(out.tempPath());
    EXPECT_EQ(temp.parent_path(), m_dir);
    EXPECT_EQ(temp.filename().string().rfind(".out.txt.", 0), 0u);
    EXPECT_TRUE(fs::exists(temp));
    fill(out, "new");
    EXPECT_EQ(readText(path("out.txt")), "old");
    LuAfxsOutputProblem p;
    ASSERT_TRUE(out.commit(p));
    EXPECT_TRUE(out.committed());
    EXPECT_FALSE(fs::exists(temp));
  }
  EXPECT_EQ(readText(path("out.txt")), "new");
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(OutputTest, WithoutCommitTheTemporaryGoesAndTheFinalFileStays) {
  writeText("out.txt", "old");
  {
    LuAfxsOutputFile out(wpath("out.txt"));
    fill(out, "half");
  }
  EXPECT_EQ(readText(path("out.txt")), "old");
  EXPECT_TRUE(temporaries().empty());
  { LuAfxsOutputFile out(wpath("new.txt")); }
  EXPECT_FALSE(fs::exists(path("new.txt")));
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(OutputTest, TwoOutputsOfOneNameGetTwoTemporaries) {
  LuAfxsOutputFile a(wpath("out.txt")), b(wpath("out.txt"));
  EXPECT_NE(a.tempPath(), b.tempPath());
  EXPECT_EQ(temporaries().size(), 2u);
}

TEST_F(OutputTest, ACommitWhoseTemporaryWasRemovedFailsAndKeepsTheFinalFile) {
  writeText("out.txt", "old");
  LuAfxsOutputFile out(wpath("out.txt"));
  fs::remove(fs::path(out.tempPath()));  // as a writer link does on a failure
  LuAfxsOutputProblem p;
  EXPECT_FALSE(out.commit(p));
  EXPECT_EQ(p.errnum, ENOENT);
  EXPECT_EQ(readText(path("out.txt")), "old");
}

TEST_F(OutputTest, ACommitOverADirectoryFailsAndRemovesTheTemporary) {
  LuAfxsOutputFile out(wpath("out"));
  fill(out, "new");
  fs::create_directory(path("out"));
  writeText("out/inside", "x");
  LuAfxsOutputProblem p;
  EXPECT_FALSE(out.commit(p));
  EXPECT_NE(p.errnum, 0);
  EXPECT_TRUE(fs::is_directory(path("out")));
  EXPECT_EQ(readText(path("out/inside")), "x");
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(OutputTest, AMissingDirectoryIsACreationProblem) {
  LuAfxsOutputFile out(wpath("absent/out.txt"));
  EXPECT_FALSE(out.ok());
  EXPECT_EQ(out.creationProblem().errnum, ENOENT);
  LuAfxsOutputProblem p;
  EXPECT_FALSE(out.commit(p));
  EXPECT_EQ(p.errnum, ENOENT);
}

TEST_F(OutputTest, CompanionsGoWithTheTemporary) {
  {
    LuAfxsOutputFile out(wpath("out.txt"));
    out.addCompanion(out.tempPath() + L".tmp");
    writeBytes(fs::path(out.tempPath() + L".tmp"), {1, 2, 3});
  }
  EXPECT_TRUE(temporaries().empty());
}

TEST_F(OutputTest, RemovePendingOutputsRemovesEveryLiveTemporary) {
  LuAfxsOutputFile a(wpath("a.txt")), b(wpath("b.txt"));
  a.addCompanion(a.tempPath() + L".tmp");
  writeBytes(fs::path(a.tempPath() + L".tmp"), {1});
  ASSERT_EQ(temporaries().size(), 3u);
  luAfxsRemovePendingOutputs();
  EXPECT_TRUE(temporaries().empty());
}

#if !defined(_WIN32)
TEST_F(OutputTest, AReplacedFileKeepsItsPermissionBits) {
  writeText("out.txt", "old");
  fs::permissions(path("out.txt"), fs::perms(0640));
  LuAfxsOutputFile out(wpath("out.txt"));
  fill(out, "new");
  LuAfxsOutputProblem p;
  ASSERT_TRUE(out.commit(p));
  EXPECT_EQ(fs::status(path("out.txt")).permissions() & fs::perms::all, fs::perms(0640));
}

TEST_F(OutputTest, ACommitThroughASymlinkReplacesTheTargetAndKeepsTheLink) {
  fs::create_directory(path("sub"));
  writeText("sub/target.txt", "old");
  fs::create_symlink("sub/target.txt", path("link.txt"));
  LuAfxsOutputFile out(wpath("link.txt"));
  EXPECT_EQ(fs::path(out.finalPath()), path("sub/target.txt"));
  EXPECT_EQ(fs::path(out.tempPath()).parent_path(), path("sub"));
  fill(out, "new");
  LuAfxsOutputProblem p;
  ASSERT_TRUE(out.commit(p));
  EXPECT_TRUE(fs::is_symlink(path("link.txt")));
  EXPECT_EQ(readText(path("sub/target.txt")), "new");
}

// A handler as a front-end installs it: remove the temporaries, then die of the signal.
void removeAndReraise(int signal) {
  luAfxsRemovePendingOutputs();
  std::signal(signal, SIG_DFL);
  std::raise(signal);
}

TEST_F(OutputTest, ASignalHandlerLeavesNoTemporaryAndTheOldFileWhole) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  writeText("out.txt", "old");
  EXPECT_EXIT(
      {
        std::signal(SIGINT, removeAndReraise);
        LuAfxsOutputFile out(wpath("out.txt"));
        fill(out, "half written");
        std::raise(SIGINT);
        std::_Exit(0);
      },
      ::testing::KilledBySignal(SIGINT), "");
  EXPECT_EQ(readText(path("out.txt")), "old");
  EXPECT_TRUE(temporaries().empty());
}
#endif

}  // namespace
