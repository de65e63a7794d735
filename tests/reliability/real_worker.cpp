// A small client of the public API for the tests that run real processes on
// real file systems (tests/reliability/test_real_*.py): it writes, flushes
// results into, removes field groups from, and describes one file, prints one
// line when each operation returns, and exits with the operation's status.
//
//   real_worker write FILE PLANES POINTS    a file of PLANES planes, POINTS points each
//   real_worker flush FILE [--planes P,Q,...] [--wait]
//                                           results for every record (or those of the
//                                           planes listed); prints "loaded" after the
//                                           load; --wait: then reads one line first
//   real_worker remove FILE MASK            LuAfxsUserDataSet::remove(MASK)
//   real_worker digest FILE                 one JSON line: header, cameras and every
//                                           record's field groups as FNV-1a hashes
//
// Exit codes: 0 success, 1 the operation failed, 2 usage, 3 the file was
// refused before the operation (its inspection says a load would fail).
// Files whose inspection says a load would fail are never handed to a data
// set (its first load deletes such a file).
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <luAnaf/luAfxsFileCheck.h>
#include <luAnaf/luAnaf.h>

namespace {

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

void say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

// ---- Content: deterministic in plane id and point index.

LuVec3 pointOf(uint32_t plane, size_t i, size_t n) {
  const double a = 2 * M_PI * static_cast<double>(i) / static_cast<double>(n);
  const double r = 50 + plane % 7;
  return {r * std::cos(a), r * std::sin(a), 2.5 * plane};
}

LuVec3 normalOf(size_t i, size_t n) {
  const double a = 2 * M_PI * static_cast<double>(i) / static_cast<double>(n);
  return {std::cos(a), std::sin(a), 0};
}

const double (*raw(const std::vector<LuVec3>& v))[3] {
  return reinterpret_cast<const double(*)[3]>(v.data());
}

// ---- Verbs.

int writeFile(const std::string& path, uint32_t planes, size_t n) {
  LuAfxsCreateLink link(widen(path).c_str());
  LuAfxsHeader header;
  header.version = 1;
  header.normal[2] = 1;
  header.numPlanes = planes;
  header.distBwPlanes = 2.5;
  link.setHeader(header);
  LuAfxsCamerasTable cameras;
  cameras.cameras = {{0, 250, 50}, {250, 0, 50}};
  link.setCameras(cameras);
  bool ok = link.create(true);
  for (uint32_t plane = 0; ok && plane < planes; ++plane) {
    std::vector<LuVec3> points, normals;
    for (size_t i = 0; i < n; ++i) {
      points.push_back(pointOf(plane, i, n));
      normals.push_back(normalOf(i, n));
    }
    const int segments[2] = {static_cast<int>(n / 2), static_cast<int>(n)};
    std::vector<uint32_t> positions(n), counts(n, 1);
    for (size_t i = 0; i < n; ++i) positions[i] = static_cast<uint32_t>(1000 * plane + i);
    LuAfxsCreateData data(link, plane, /*subsetId=*/1);
    data.setPoints(raw(points), n);
    data.setNormals(raw(normals), n);
    data.setSegments(segments, 2);
    data.setAuxCtrlPos(positions.data(), n, counts.data(), n);
    ok = data.flush();
  }
  if (ok) link.release();
  say(ok ? "write ok" : "write failed");
  return ok ? 0 : 1;
}

bool loadable(const std::string& path) {
  LuAfxsInspection inspection = luAfxsInspect(widen(path));
  if (inspection.loadable()) return true;
  say("refused: a load would fail");
  return false;
}

bool flushOne(LuAfxsUserData& data) {
  const LuAfxsPlane& plane = data.getPlaneData();
  std::vector<LuVec3> results = plane.points;
  std::vector<double> distances(results.size());
  for (size_t i = 0; i < results.size(); ++i) {
    distances[i] = 0.5 + 0.001 * plane.planeId + 1e-6 * static_cast<double>(i);
    results[i].z += distances[i];
  }
  data.setResPoints(raw(results), results.size());
  data.setDistances(distances.data(), distances.size());
  return data.flush();
}

int flushFile(const std::string& path, const std::set<uint32_t>& planes, bool wait) {
  if (!loadable(path)) return 3;
  LuAfxsUserLink link(widen(path).c_str());
  LuAfxsUserDataSet set(link);
  if (!set.load(LU_AFXS_MASK_ALL)) {
    say("flush failed: load");
    return 1;
  }
  // The records are in memory; the file is opened again for each flush.
  set.closefile();
  say("loaded");
  if (wait) {
    std::string line;
    std::getline(std::cin, line);
  }
  bool all = true;
  for (LuAfxsUserData* data : set) {
    const LuAfxsPlane& plane = data->getPlaneData();
    if (!planes.empty() && planes.count(plane.planeId) == 0) continue;
    const bool ok = flushOne(*data);
    say("flush " + std::to_string(plane.planeId) + " " + (ok ? "ok" : "failed"));
    all = all && ok;
  }
  set.closefile();
  say(all ? "flush ok" : "flush failed");
  return all ? 0 : 1;
}

int removeFields(const std::string& path, unsigned long mask) {
  if (!loadable(path)) return 3;
  LuAfxsUserLink link(widen(path).c_str());
  LuAfxsUserDataSet set(link);
  const bool ok = set.remove(mask);
  say(ok ? "remove ok" : "remove failed");
  return ok ? 0 : 1;
}

// ---- Digest: FNV-1a over the raw bytes of each value.

struct Fnv {
  uint64_t h = 1469598103934665603ull;
  void add(const void* p, size_t n) {
    const unsigned char* b = static_cast<const unsigned char*>(p);
    for (size_t i = 0; i < n; ++i) h = (h ^ b[i]) * 1099511628211ull;
  }
  template <class T>
  void add(const std::vector<T>& v) {
    const uint64_t n = v.size();
    add(&n, sizeof n);
    if (!v.empty()) add(v.data(), v.size() * sizeof(T));
  }
  std::string hex() const {
    char text[24];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
  }
};

template <class... Vectors>
std::string hashOf(const Vectors&... vectors) {
  Fnv f;
  (f.add(vectors), ...);
  return "\"" + f.hex() + "\"";
}

// {"plane", "subset", "state", "n", then one hash per field group}.
std::string recordJson(const LuAfxsPlane& p, uint32_t fileState) {
  return "{\"plane\": " + std::to_string(p.planeId) +
         ", \"subset\": " + std::to_string(p.subsetId) +
         ", \"state\": " + std::to_string(fileState) +
         ", \"n\": " + std::to_string(p.points.size()) + ", \"points\": " + hashOf(p.points) +
         ", \"segments\": " + hashOf(p.segments) + ", \"normals\": " + hashOf(p.normals) +
         ", \"aux\": " + hashOf(p.auxCtrlFirst, p.auxCtrlOffsets, p.auxCtrlCounts, p.auxCtrlPos) +
         ", \"results\": " + hashOf(p.resPoints, p.distances) + "}";
}

int digest(const std::string& path) {
  LuAfxsInspection inspection = luAfxsInspect(widen(path));
  if (!inspection.loadable()) {
    say("{\"loadable\": false, \"problems\": " + std::to_string(inspection.problems.size()) + "}");
    return 1;
  }
  LuAfxsUserLink link(widen(path).c_str());
  LuAfxsUserDataSet set(link);
  if (!set.load(LU_AFXS_MASK_ALL)) {
    say("{\"loadable\": false, \"problems\": -1}");
    return 1;
  }
  const LuAfxsHeader& h = link.getHeader();
  Fnv header;
  header.add(h.point, sizeof h.point);
  header.add(h.normal, sizeof h.normal);
  header.add(&h.numPlanes, sizeof h.numPlanes);
  header.add(&h.distBwPlanes, sizeof h.distBwPlanes);
  Fnv cameras;
  cameras.add(link.getCameras().cameras);
  std::string out = "{\"loadable\": true, \"header\": \"" + header.hex() + "\", \"cameras\": \"" +
                    cameras.hex() +
                    "\", \"cameraCount\": " + std::to_string(link.getCameras().cameras.size()) +
                    ", \"records\": [";
  bool first = true;
  for (LuAfxsUserData* data : set) {
    const LuAfxsPlane& p = data->getPlaneData();
    out += std::string(first ? "" : ", ") + recordJson(p, data->fileState());
    first = false;
  }
  set.closefile();
  say(out + "]}");
  return 0;
}

int usage() {
  std::fputs(
      "usage: real_worker write FILE PLANES POINTS | flush FILE [--planes LIST] [--wait] | "
      "remove FILE MASK | digest FILE\n",
      stderr);
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return usage();
  const std::string verb = argv[1], path = argv[2];
  if (verb == "write" && argc == 5)
    return writeFile(path, static_cast<uint32_t>(std::atol(argv[3])),
                     static_cast<size_t>(std::atol(argv[4])));
  if (verb == "flush") {
    std::set<uint32_t> planes;
    bool wait = false;
    for (int i = 3; i < argc; ++i) {
      if (std::strcmp(argv[i], "--wait") == 0) {
        wait = true;
      } else if (std::strcmp(argv[i], "--planes") == 0 && i + 1 < argc) {
        std::istringstream list(argv[++i]);
        for (std::string item; std::getline(list, item, ',');)
          planes.insert(static_cast<uint32_t>(std::atol(item.c_str())));
      } else {
        return usage();
      }
    }
    return flushFile(path, planes, wait);
  }
  if (verb == "remove" && argc == 4) return removeFields(path, std::strtoul(argv[3], nullptr, 0));
  if (verb == "digest" && argc == 3) return digest(path);
  return usage();
}
