// Writes the seed corpus of the fuzz targets: small valid files covering every
// record kind and field group, written by the library itself.
//   make_seeds DIR
#include <cmath>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

namespace {

std::wstring widen(const std::string& s) { return std::wstring(s.begin(), s.end()); }

struct Contour {
  std::vector<LuVec3> points, normals, results;
  std::vector<int> segments;
  std::vector<uint32_t> positions, counts;
  std::vector<double> distances;
};

Contour arc(int n, double radius, double z) {
  Contour c;
  for (int i = 0; i < n; ++i) {
    double a = 0.3 * i;
    LuVec3 p{radius * std::cos(a), radius * std::sin(a), z};
    LuVec3 nrm{std::cos(a), std::sin(a), 0};
    c.points.push_back(p);
    c.normals.push_back(nrm);
    c.results.push_back(p + nrm * 0.01);
    c.distances.push_back(0.01 * (i % 3));
    c.positions.push_back(100 + i);
    c.counts.push_back(1);
  }
  c.segments = {n / 2, n};
  return c;
}

const double (*raw(const std::vector<LuVec3>& v))[3] {
  return reinterpret_cast<const double(*)[3]>(v.data());
}

// mask selects the field groups; withResults appends a results record later.
bool writeSeed(const std::string& path, uint32_t mask, bool cameras, int planes, int subsets,
               bool withResults) {
  {
    LuAfxsCreateLink link(widen(path).c_str());
    LuAfxsHeader h;
    h.version = 2;
    h.normal[2] = 1;
    h.numPlanes = static_cast<uint64_t>(planes);
    h.distBwPlanes = 0.5;
    link.setHeader(h);
    if (cameras) {
      LuAfxsCamerasTable t;
      t.cameras = {{100, 0, 25}, {-100, 0, 25}};
      link.setCameras(t);
    }
    if (!link.create(true)) return false;
    for (int p = 0; p < planes; ++p) {
      for (int s = 1; s <= subsets; ++s) {
        Contour c = arc(6, 10.0 + s, 0.5 * p);
        LuAfxsCreateData d(link, static_cast<uint32_t>(p), static_cast<uint32_t>(s));
        if (mask & 1) d.setPoints(raw(c.points), c.points.size());
        if (mask & 4) d.setNormals(raw(c.normals), c.normals.size());
        if (mask & 2) d.setSegments(c.segments.data(), c.segments.size());
        if (mask & 8) d.setAuxCtrlPos(c.positions.data(), c.positions.size(), c.counts.data(), c.counts.size());
        if (!withResults) {
          if (mask & 16) d.setResPoints(raw(c.results), c.results.size());
          if (mask & 32) d.setDistances(c.distances.data(), c.distances.size());
        }
        if (!d.flush()) return false;
      }
    }
    link.release();
  }
  if (!withResults) return true;
  LuAfxsUserLink link(widen(path).c_str());
  LuAfxsUserDataSet set(link);
  if (!set.load(LU_AFXS_MASK_ALL)) return false;
  for (LuAfxsUserData* record : set) {
    Contour c = arc(static_cast<int>(record->getPlaneData().points.size()), 10, 0);
    record->setResPoints(raw(c.results), c.results.size());
    record->setDistances(c.distances.data(), c.distances.size());
    record->flush();
  }
  set.closefile();
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  std::string dir = argv[1];
  bool ok = writeSeed(dir + "/seed_points.afxs", 1, false, 1, 1, false) &&
            writeSeed(dir + "/seed_points_segments.afxs", 3, false, 2, 1, false) &&
            writeSeed(dir + "/seed_all_fields.afxs", 63, true, 2, 2, false) &&
            writeSeed(dir + "/seed_aux_only.afxs", 8, false, 1, 1, false) &&
            writeSeed(dir + "/seed_cameras_normals.afxs", 5, true, 1, 2, false) &&
            writeSeed(dir + "/seed_results_record.afxs", 15, false, 2, 1, true);
  return ok ? 0 : 1;
}
