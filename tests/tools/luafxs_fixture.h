// The luafxs tests' fixture: runs the built tool on files the tests write.
#pragma once

#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace lutools {

struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

inline std::vector<std::vector<double>> square(double size, double z) {
  return {{0, 0, z}, {size, 0, z}, {size, size, z}, {0, size, z}};
}

// The input changed at random in one to four places: bytes overwritten,
// inserted, deleted, cut off or repeated, or one of `tokens` (extreme
// numbers, huge counts, stray separators) put in.
inline std::string mutated(std::string bytes, std::mt19937& random,
                           const std::vector<std::string>& tokens) {
  auto below = [&](size_t n) { return n == 0 ? size_t{0} : random() % n; };
  const size_t changes = 1 + below(4);
  for (size_t c = 0; c < changes; ++c) {
    const size_t at = below(bytes.size() + 1);
    switch (below(5)) {
      case 0:
        if (!bytes.empty()) bytes[below(bytes.size())] = static_cast<char>(random());
        break;
      case 1:
        bytes.insert(at, tokens[below(tokens.size())]);
        break;
      case 2:
        bytes.erase(at, 1 + below(16));
        break;
      case 3:
        bytes.resize(at);
        break;
      default:
        bytes.insert(at, bytes.substr(below(bytes.size() + 1), 1 + below(200)));
    }
  }
  return bytes;
}

// How many mutated inputs a test tries (`fallback` unless
// LUANAF_MUTATIONS=N), and the seed of their changes (LUANAF_MUTATION_SEED).
inline int mutationCount(int fallback) {
  const char* env = std::getenv("LUANAF_MUTATIONS");
  return env != nullptr && std::atoi(env) > 0 ? std::atoi(env) : fallback;
}
inline std::mt19937 mutationRandom() {
  const char* env = std::getenv("LUANAF_MUTATION_SEED");
  return std::mt19937(env != nullptr ? static_cast<unsigned>(std::atoi(env)) : 20261125u);
}

// Whether the tool's text holds only line feeds and printable bytes (no
// control character that a file's bytes could have carried in).
inline bool printableLines(const std::string& text) {
  return std::all_of(text.begin(), text.end(),
                     [](char c) { return c == '\n' || static_cast<unsigned char>(c) >= 0x20; });
}

class LuafxsTest : public lutest::TempDirTest {
protected:
  // Runs the tool with the arguments (already quoted where needed).
  Outcome run(const std::string& args) { return runWithStreamsIn(m_dir, args); }
  // The same with the tool's standard output and error kept in `io` and the
  // command line put behind `prefix` (e.g. "timeout 60 ").
  Outcome runWithStreamsIn(const std::filesystem::path& io, const std::string& args,
                           const std::string& prefix = "") {
    std::string out = (io / "stdout.txt").string(), err = (io / "stderr.txt").string();
    std::string command =
        prefix + "'" + LUAFXS_PATH + "' " + args + " >'" + out + "' 2>'" + err + "' </dev/null";
    int status = std::system(command.c_str());
    Outcome r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = lutest::readText(out);
    r.err = lutest::readText(err);
    return r;
  }
  std::string q(const std::string& name) { return "'" + path(name).string() + "'"; }

  // What a terminal shows of the tool's standard error (`script` gives the
  // tool one; its standard output is dropped; a terminal ends lines in
  // "\r\n"). False when there is no `script` to run it with.
  bool runOnTerminal(const std::string& args, std::string& screen) {
    if (std::system("command -v script >/dev/null 2>&1") != 0) return false;
    const std::string out = m_dir.string() + ".tty";
    std::string command = std::string("script -qec \"'") + LUAFXS_PATH + "' " + args +
                          " >/dev/null\" /dev/null >'" + out + "' 2>&1 </dev/null";
    int status = std::system(command.c_str());
    (void)status;  // the tool's exit code is not what is looked at
    screen = lutest::readText(out);
    std::filesystem::remove(out);
    return true;
  }

  // A file of `planes` planes with one subset: a 4-point square per plane
  // in two segments (2 + 2 points), with normals, and with result points and
  // distances when `results` is set.
  void writeFile(const std::string& name, uint32_t planes, uint32_t subset, bool results = false,
                 double size = 10) {
    LuAfxsCreateLink link(wpath(name).c_str());
    LuAfxsHeader header;
    header.version = 3;
    header.normal[2] = 1;
    header.numPlanes = planes;
    header.distBwPlanes = 2;
    link.setHeader(header);
    LuAfxsCamerasTable cameras;
    cameras.cameras.push_back({1, 2, 3});
    link.setCameras(cameras);
    ASSERT_TRUE(link.create(true));
    for (uint32_t p = 0; p < planes; ++p) {
      std::vector<std::vector<double>> pts = square(size, 2.0 * p);
      double points[4][3], normals[4][3], res[4][3];
      double distances[4];
      for (int i = 0; i < 4; ++i) {
        for (int k = 0; k < 3; ++k)
          points[i][k] = pts[static_cast<size_t>(i)][static_cast<size_t>(k)];
        normals[i][0] = 0, normals[i][1] = 0, normals[i][2] = 1;
        for (int k = 0; k < 3; ++k) res[i][k] = points[i][k] + (k == 2 ? 0.5 : 0);
        distances[i] = 0.25 * i;
      }
      int segments[2] = {2, 4};
      LuAfxsCreateData data(link, p, subset);
      data.setPoints(points, 4);
      data.setNormals(normals, 4);
      data.setSegments(segments, 2);
      if (results) {
        data.setResPoints(res, 4);
        data.setDistances(distances, 4);
      }
      ASSERT_TRUE(data.flush());
    }
    link.release();
  }

  void copySample(const std::string& sample, const std::string& name) {
    lutest::writeBytes(path(name), lutest::readBytes(lutest::dataFile(sample)));
  }

  // Damaged copies of the sample, by kind of damage.
  void writeDamaged(const std::string& kind, const std::string& name) {
    std::vector<uint8_t> bytes = lutest::readBytes(lutest::dataFile("all_fields.afxs"));
    if (kind == "identifier") {
      bytes[2] = 'x';
    } else if (kind == "loop") {
      // The first plane record's next field points back to the cameras record.
      lutest::putU32At(bytes, 0xFB + 4, 0xB3);
    } else if (kind == "truncated") {
      bytes.resize(bytes.size() / 2);
    } else if (kind == "count") {
      lutest::putU32At(bytes, 0x113 + 20, 0x7FFFFFF0);
    } else if (kind == "empty") {
      bytes.clear();
    }
    lutest::writeBytes(path(name), bytes);
  }
};

}  // namespace lutools
