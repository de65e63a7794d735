// The library against the real system: a second process, a file replaced
// by another process, a FIFO, a full disk. POSIX only (fork, mkfifo,
// mount); each case skips itself where the system does not allow it.
#include <gtest/gtest.h>
#include <luAnaf/luAnaf.h>

#include "support/reader_files.h"
#include "support/test_support.h"

#if !defined(_WIN32)
#include <fcntl.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <iostream>
#include <map>

namespace lutest {
namespace {

// A child process that runs `hold` (which takes a file), tells the parent,
// and keeps what it took until the parent lets it go; its exit code is
// 0 when `hold` returned true. The parent must hold no file when forking:
// a child shares the locks of the descriptors it inherits.
class Child {
public:
  explicit Child(const std::function<bool()>& hold) {
    if (::pipe(m_ready) != 0 || ::pipe(m_go) != 0) return;
    m_pid = ::fork();
    if (m_pid == 0) {
      ::alarm(30);  // never outlive a parent that failed
      const char ok = hold() ? 'y' : 'n';
      if (::write(m_ready[1], &ok, 1) != 1) ::_exit(3);
      char go = 0;
      if (::read(m_go[0], &go, 1) != 1) ::_exit(4);
      ::_exit(ok == 'y' ? 0 : 1);
    }
  }
  ~Child() { finish(); }
  // Waits until the child holds what it took; whether it took it.
  bool ready() {
    char ok = 0;
    return m_pid > 0 && ::read(m_ready[0], &ok, 1) == 1 && ok == 'y';
  }
  // Lets the child go; its exit code.
  int finish() {
    if (m_pid <= 0) return m_status;
    const char go = 'g';
    if (::write(m_go[1], &go, 1) != 1) ::kill(m_pid, SIGKILL);
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_pid = -1;
    for (int fd : {m_ready[0], m_ready[1], m_go[0], m_go[1]}) ::close(fd);
    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 100;
    return m_status;
  }

private:
  int m_ready[2] = {-1, -1};
  int m_go[2] = {-1, -1};
  pid_t m_pid = -1;
  int m_status = -1;
};

class ProcessesTest : public ReaderTest {
protected:
  void SetUp() override {
    ReaderTest::SetUp();
    ::alarm(60);  // a test that blocks fails instead of hanging
  }
  void TearDown() override {
    ::alarm(0);
    ReaderTest::TearDown();
  }
  void writeSample(const std::string& name = "data.afxs") {
    ASSERT_TRUE(writeWithWriter(
        wpath(name), LuAfxsHeader(), {{1, 2, 3}},
        {{randomPlane(0, 1, 40, 11), 1 | 2 | 32}, {randomPlane(1, 1, 30, 12), 1 | 2 | 32}}));
  }
  const LuErrorReport* findReport(uint32_t code) const {
    for (const LuErrorReport& r : reports())
      if (r.code == code) return &r;
    return nullptr;
  }
  static std::wstring busyText() {
    const char* text = std::strerror(EBUSY);
    return std::wstring(text, text + std::strlen(text));
  }
};

// ---- One writer at a time ---------------------------------------------------

TEST_F(ProcessesTest, ALoadIsRefusedAsBusyWhileAnotherProcessWritesTheFile) {
  writeSample();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const std::wstring file = wpath("data.afxs");
  Child writer([&] {
    // Holds the file open for update: one writer at a time.
    static ProbeUserLink link(file.c_str());
    return link.verify(true) && link.openFile(0, true) != nullptr;
  });
  ASSERT_TRUE(writer.ready());
  {
    LuAfxsUserLink link(file.c_str());
    EXPECT_FALSE(link.verify(false));
    const LuErrorReport* busy = findReport(0xc41b0008);
    ASSERT_NE(busy, nullptr);
    EXPECT_EQ(busy->line, 454);
    EXPECT_TRUE(busy->hasSystemText);
    EXPECT_EQ(busy->systemText, busyText());
    // A data set's first load deletes a file it cannot verify, but a busy
    // file is another process's, not damaged: it stays.
    LuAfxsUserDataSet set(link);
    EXPECT_FALSE(set.load(LU_AFXS_MASK_ALL));
    EXPECT_TRUE(fs::exists(path("data.afxs")));
    // So does a second remove while the first holds the file.
    EXPECT_FALSE(set.remove(LU_AFXS_MASK_DISTANCES));
    EXPECT_FALSE(fs::exists(path("data.afxs.tmp")));
  }
  EXPECT_EQ(writer.finish(), 0);
  EXPECT_TRUE(readBytes(path("data.afxs")) == before);
  LuAfxsUserLink after(file.c_str());
  EXPECT_TRUE(after.verify(false));
}

TEST_F(ProcessesTest, AResultsFlushIsRefusedWhileAnotherProcessReadsTheFile) {
  writeSample();
  const std::wstring file = wpath("data.afxs");
  Child reader([&] {
    static LuAfxsUserLink link(file.c_str());
    static LuAfxsUserDataSet set(link);
    return set.load(LU_AFXS_MASK_ALL);  // keeps the file open, shared
  });
  ASSERT_TRUE(reader.ready());
  LuAfxsUserLink link(file.c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));  // readers share
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const double dist[1] = {1};
  (*set.begin())->setDistances(dist, 1);
  EXPECT_FALSE((*set.begin())->flush());
  const LuErrorReport* busy = findReport(0xc41b0008);
  ASSERT_NE(busy, nullptr);
  EXPECT_EQ(busy->systemText, busyText());
  EXPECT_NE(findReport(0xc41b0014), nullptr);
  EXPECT_TRUE(readBytes(path("data.afxs")) == before);
  EXPECT_EQ(reader.finish(), 0);
  // Once the reader is gone the same flush goes through.
  EXPECT_TRUE((*set.begin())->flush());
}

TEST_F(ProcessesTest, CreateIsRefusedOverAFileAnotherProcessWrites) {
  const std::wstring file = wpath("out.afxs");
  Child writer([&] {
    static LuAfxsCreateLink link(file.c_str());
    return link.create(true);
  });
  ASSERT_TRUE(writer.ready());
  const std::vector<uint8_t> before = readBytes(path("out.afxs"));
  {
    LuAfxsCreateLink link(file.c_str());
    EXPECT_FALSE(link.create(true));
    ASSERT_NE(findReport(0xc41b0003), nullptr);
    EXPECT_EQ(findReport(0xc41b0003)->line, 136);
  }
  // Neither the failed create nor its link's destructor took the file away.
  EXPECT_TRUE(fs::exists(path("out.afxs")));
  EXPECT_TRUE(readBytes(path("out.afxs")) == before);
  EXPECT_EQ(writer.finish(), 0);
}

// ---- A file replaced by another process -----------------------------------

TEST_F(ProcessesTest, AFlushAfterAnotherProcessRewroteTheFileChangesNothing) {
  writeSample();
  const std::wstring file = wpath("data.afxs");
  LuAfxsUserLink link(file.c_str());
  LuAfxsUserDataSet set(link);
  ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
  set.closefile();  // nothing held while the other process runs
  Child remover([&] {
    LuAfxsUserLink other(file.c_str());
    LuAfxsUserDataSet otherSet(other);
    return otherSet.remove(LU_AFXS_MASK_DISTANCES);
  });
  ASSERT_TRUE(remover.ready());
  EXPECT_EQ(remover.finish(), 0);
  const std::vector<uint8_t> rewritten = readBytes(path("data.afxs"));
  const double dist[1] = {1};
  (*set.begin())->setDistances(dist, 1);
  EXPECT_FALSE((*set.begin())->flush());
  set.closefile();
  EXPECT_NE(findReport(0xc41b0014), nullptr);
  EXPECT_TRUE(readBytes(path("data.afxs")) == rewritten);
}

// ---- Only regular files -----------------------------------------------------

TEST_F(ProcessesTest, AFifoIsRefusedAtOnceAndKept) {
  if (::mkfifo(path("pipe.afxs").c_str(), 0666) != 0) GTEST_SKIP() << "mkfifo not permitted";
  {
    LuAfxsUserLink link(wpath("pipe.afxs").c_str());
    EXPECT_FALSE(link.create(false));
    EXPECT_NE(findReport(0xc41b0007), nullptr);
    LuAfxsUserDataSet set(link);
    EXPECT_FALSE(set.load(LU_AFXS_MASK_ALL));
  }
  EXPECT_TRUE(fs::is_fifo(path("pipe.afxs")));
  capture().clear();
  {
    LuAfxsCreateLink out(wpath("pipe.afxs").c_str());
    EXPECT_FALSE(out.create(true));
    ASSERT_EQ(reports().size(), 1u);
    EXPECT_EQ(reports()[0].code, 0xc41b0003u);
  }
  EXPECT_TRUE(fs::is_fifo(path("pipe.afxs")));
  // A link whose file became a FIFO after it was read fails its open.
  writeSample();
  ProbeUserLink link(wpath("data.afxs").c_str());
  ASSERT_TRUE(link.verify(false));
  fs::remove(path("data.afxs"));
  ASSERT_EQ(::mkfifo(path("data.afxs").c_str(), 0666), 0);
  capture().clear();
  EXPECT_EQ(link.openFile(0, false), nullptr);
  EXPECT_NE(findReport(0xc41b0008), nullptr);
}

TEST_F(ProcessesTest, AFolderIsNeitherReadNorDeleted) {
  fs::create_directories(path("folder.afxs"));
  {
    LuAfxsUserLink link(wpath("folder.afxs").c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_FALSE(set.load(LU_AFXS_MASK_ALL));
    EXPECT_NE(findReport(0xc41b0007), nullptr);
    LuAfxsCreateLink out(wpath("folder.afxs").c_str());
    EXPECT_FALSE(out.create(true));
  }
  EXPECT_TRUE(fs::is_directory(path("folder.afxs")));
}

// ---- Kills -----------------------------------------------------------------

// Runs `work` in a child process and kills it after `delay` microseconds
// (or lets it end); true when it ended by itself.
bool runAndKill(const std::function<void()>& work, long delay) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    work();
    ::_exit(0);
  }
  ::usleep(static_cast<useconds_t>(delay));
  ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFEXITED(status);
}

// How long `work` takes in a child process, in microseconds.
long childDuration(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  const pid_t pid = ::fork();
  if (pid == 0) {
    work();
    ::_exit(0);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return static_cast<long>(std::chrono::duration_cast<std::chrono::microseconds>(
                               std::chrono::steady_clock::now() - start)
                               .count());
}

class KillTest : public ProcessesTest {
protected:
  // Many small records, so that a kill can hit any step of many appends.
  void writeMany() {
    std::vector<std::pair<LuAfxsPlane, uint32_t>> planes;
    for (uint32_t i = 0; i < 60; ++i) planes.push_back({randomPlane(i, 1, 20, i + 1), 1 | 2 | 32});
    ASSERT_TRUE(writeWithWriter(wpath("data.afxs"), LuAfxsHeader(), {{1, 2, 3}}, planes));
  }
  // Plane id -> points and distances (and result points when `withResults`)
  // as a fresh link reads a copy; empty when it does not load.
  std::map<uint32_t, std::string> planesOf(const fs::path& file, bool withResults) {
    fs::remove(path("probe.afxs"));
    fs::copy_file(file, path("probe.afxs"));
    LuAfxsUserLink link(wpath("probe.afxs").c_str());
    LuAfxsUserDataSet set(link);
    std::map<uint32_t, std::string> out;
    if (!set.load(LU_AFXS_MASK_ALL)) return out;
    for (const LuAfxsUserData* d : set) {
      const LuAfxsPlane& p = d->getPlaneData();
      std::string bytes(reinterpret_cast<const char*>(p.points.data()),
                        p.points.size() * sizeof(LuVec3));
      if (withResults)
        bytes.append(reinterpret_cast<const char*>(p.resPoints.data()),
                     p.resPoints.size() * sizeof(LuVec3));
      out[p.planeId] = bytes;
    }
    return out;
  }
};

TEST_F(KillTest, AKilledRunOfResultsFlushesLeavesAFileThatLoads) {
  writeMany();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const std::map<uint32_t, std::string> original = planesOf(path("data.afxs"), false);
  ASSERT_EQ(original.size(), 60u);
  const std::wstring file = wpath("data.afxs");
  auto flushAll = [&] {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(LU_AFXS_MASK_ALL)) return;
    for (LuAfxsUserData* d : set) {
      const uint32_t id = d->getPlaneData().planeId;
      const std::vector<LuVec3> res{{double(id), 1, 2}};
      d->setResPoints(reinterpret_cast<const double(*)[3]>(res.data()), res.size());
      d->flush();
    }
  };
  const long duration = childDuration(flushAll);
  int partial = 0;  // runs killed with some records flushed and some not
  for (int run = 0; run < 24; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    fs::remove(path("data.afxs"));
    writeBytes(path("data.afxs"), before);
    runAndKill(flushAll, duration * run / 20);
    const std::map<uint32_t, std::string> now = planesOf(path("data.afxs"), true);
    ASSERT_EQ(now.size(), original.size()) << "the file does not load";
    size_t withResults = 0;
    for (const auto& [id, bytes] : now) withResults += bytes.size() > original.at(id).size();
    partial += withResults != 0 && withResults != now.size();
    for (const auto& [id, bytes] : now) {
      const std::string& old = original.at(id);
      ASSERT_EQ(bytes.substr(0, old.size()), old);
      // Results, when there, are whole and the plane's own.
      const std::string results = bytes.substr(old.size());
      if (!results.empty()) {
        ASSERT_EQ(results.size(), sizeof(LuVec3));
        LuVec3 r;
        std::memcpy(&r, results.data(), sizeof r);
        EXPECT_EQ(r.x, double(id));
      }
    }
  }
  std::cout << "[ kills ] results flushes: " << partial << " of 24 runs killed midway\n";
}

TEST_F(KillTest, AKilledRemoveLeavesTheOriginalOrTheWholeRewrite) {
  writeMany();
  const std::vector<uint8_t> before = readBytes(path("data.afxs"));
  const std::wstring file = wpath("data.afxs");
  auto removeDistances = [&] {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    set.remove(LU_AFXS_MASK_DISTANCES);
  };
  const long duration = childDuration(removeDistances);
  const std::map<uint32_t, std::string> rewritten = planesOf(path("data.afxs"), false);
  ASSERT_EQ(rewritten.size(), 60u);
  int kept = 0, replaced = 0, window = 0;
  for (int run = 0; run < 24; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    fs::remove(path("data.afxs"));
    fs::remove(path("data.afxs.tmp"));
    writeBytes(path("data.afxs"), before);
    runAndKill(removeDistances, duration * run / 20);
    if (fs::exists(path("data.afxs"))) {
      const bool original = readBytes(path("data.afxs")) == before;
      if (!original) {
        EXPECT_EQ(planesOf(path("data.afxs"), false), rewritten) << "neither old nor new";
      }
      ++(original ? kept : replaced);
    } else {
      // The window between the delete and the move: the whole rewrite.
      ASSERT_TRUE(fs::exists(path("data.afxs.tmp"))) << "both gone";
      EXPECT_EQ(planesOf(path("data.afxs.tmp"), false), rewritten);
      ++window;
    }
  }
  std::cout << "[ kills ] remove: original kept " << kept << ", replaced " << replaced
            << ", in the window " << window << " of 24 runs\n";
}

// ---- A full disk --------------------------------------------------------------

class FullDiskTest : public ProcessesTest {
protected:
  void SetUp() override {
    ProcessesTest::SetUp();
    m_mount = path("disk");
    fs::create_directories(m_mount);
    if (::mount("tmpfs", m_mount.c_str(), "tmpfs", 0, "size=256k") != 0) {
      m_mounted = false;
      GTEST_SKIP() << "mounting a tmpfs is not permitted here: " << std::strerror(errno);
    }
    m_mounted = true;
  }
  void TearDown() override {
    if (m_mounted) ::umount2(m_mount.c_str(), MNT_DETACH);
    ProcessesTest::TearDown();
  }
  std::wstring onDisk(const std::string& name) const { return (m_mount / name).wstring(); }
  // Fills what is left of the disk.
  void fill() {
    const int fd = ::open((m_mount / "filler").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    ASSERT_GE(fd, 0);
    std::vector<char> block(4096, 'x');
    while (::write(fd, block.data(), block.size()) > 0) {
    }
    while (::write(fd, block.data(), 1) > 0) {
    }
    ::close(fd);
  }
  bool loads(const std::wstring& file) {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    return set.load(LU_AFXS_MASK_ALL);
  }

  fs::path m_mount;
  bool m_mounted = false;
};

TEST_F(FullDiskTest, AResultsFlushOutOfSpaceLeavesTheFileAsItWas) {
  const std::wstring file = onDisk("data.afxs");
  ASSERT_TRUE(writeWithWriter(file, LuAfxsHeader(), {}, {{randomPlane(0, 1, 40, 11), 1 | 2}}));
  fill();
  const std::vector<uint8_t> before = readBytes(m_mount / "data.afxs");
  for (size_t count : {size_t{1000}, size_t{20000}}) {
    SCOPED_TRACE(count);
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    ASSERT_TRUE(set.load(LU_AFXS_MASK_ALL));
    const LuAfxsPlane p = randomPlane(0, 1, count, 5);
    (*set.begin())
        ->setResPoints(reinterpret_cast<const double(*)[3]>(p.resPoints.data()),
                       p.resPoints.size());
    EXPECT_FALSE((*set.begin())->flush());
    set.closefile();
    EXPECT_TRUE(readBytes(m_mount / "data.afxs") == before);
    EXPECT_TRUE(loads(file));
  }
}

TEST_F(FullDiskTest, ARemoveOutOfSpaceKeepsTheOriginal) {
  const std::wstring file = onDisk("data.afxs");
  ASSERT_TRUE(writeWithWriter(
      file, LuAfxsHeader(), {},
      {{randomPlane(0, 1, 500, 11), 1 | 2 | 32}, {randomPlane(1, 1, 500, 12), 1 | 2 | 32}}));
  // A second name for the file: deleting the original frees no space.
  fs::create_hard_link(m_mount / "data.afxs", m_mount / "link.afxs");
  fill();
  const std::vector<uint8_t> before = readBytes(m_mount / "data.afxs");
  {
    LuAfxsUserLink link(file.c_str());
    LuAfxsUserDataSet set(link);
    EXPECT_FALSE(set.remove(LU_AFXS_MASK_DISTANCES));
  }
  EXPECT_TRUE(readBytes(m_mount / "data.afxs") == before);
  EXPECT_FALSE(fs::exists(m_mount / "data.afxs.tmp"));
  EXPECT_TRUE(loads(file));
}

TEST_F(FullDiskTest, AWriterOutOfSpaceFailsAndLeavesNoFile) {
  fill();
  {
    LuAfxsCreateLink link(onDisk("out.afxs").c_str());
    bool ok = link.create(true);
    const LuAfxsPlane p = randomPlane(0, 1, 100, 3);
    LuAfxsCreateData data(link, 0, 1);
    data.setPoints(reinterpret_cast<const double(*)[3]>(p.points.data()), p.points.size());
    ok = ok && data.flush();
    link.release();
    link.closeFile(true);
    EXPECT_FALSE(ok && link.isOK());
    EXPECT_FALSE(reports().empty());
  }
  EXPECT_FALSE(fs::exists(m_mount / "out.afxs"));
}

}  // namespace
}  // namespace lutest

#endif  // !_WIN32
