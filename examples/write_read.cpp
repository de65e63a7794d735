// Writes a small cross-section file, then reads it back and attaches
// results to one plane subset.
//
//   example_write_read [file.afxs]
#include <cstdio>
#include <string>
#include <vector>

#include <luAnaf/luAnaf.h>

int main(int argc, char** argv) {
  std::string path = argc > 1 ? argv[1] : "example.afxs";
  std::wstring wpath(path.begin(), path.end());

  // ---- Write: header, then one record per plane subset.
  {
    LuAfxsCreateLink link(wpath.c_str());
    LuAfxsHeader header;
    header.version = 1;
    header.normal[2] = 1;  // planes z = const
    header.numPlanes = 3;
    header.distBwPlanes = 5;
    link.setHeader(header);
    if (!link.create(true)) return 1;
    for (uint32_t plane = 0; plane < 3; ++plane) {
      const double z = 5.0 * plane;
      const double points[4][3] = {{0, 0, z}, {10, 0, z}, {10, 10, z}, {0, 10, z}};
      const double normals[4][3] = {{0, -1, 0}, {1, 0, 0}, {0, 1, 0}, {-1, 0, 0}};
      const int segments[1] = {4};  // running totals: one segment of four points
      LuAfxsCreateData data(link, plane, /*subsetId=*/1);
      data.setPoints(points, 4);
      data.setNormals(normals, 4);
      data.setSegments(segments, 1);
      if (!data.flush()) return 1;
    }
    link.release();  // keep the file when the link goes
  }

  // ---- Read: every plane subset with every field group.
  LuAfxsUserLink link(wpath.c_str());
  LuAfxsUserDataSet set(link);
  // Note: a load that cannot verify the file deletes it (see luAfxsDataSet.h);
  // check unknown files with luAfxsInspect first.
  if (!set.load(LU_AFXS_MASK_ALL)) return 1;
  for (LuAfxsUserData* data : set) {
    const LuAfxsPlane& plane = data->getPlaneData();
    std::printf("plane %u subset %u: %zu points, fields 0x%02X\n", plane.planeId, plane.subsetId,
                plane.points.size(), data->fileState());
  }

  // ---- Update: result points and distances for plane 1.
  auto it = set.find(1, 1);
  if (it == set.end()) return 1;
  const LuAfxsPlane& plane = (*it)->getPlaneData();
  std::vector<double> distances(plane.points.size(), 0.1);
  std::vector<LuVec3> results = plane.points;
  for (LuVec3& r : results) r.z += 0.1;
  (*it)->setResPoints(reinterpret_cast<const double(*)[3]>(results.data()), results.size());
  (*it)->setDistances(distances.data(), distances.size());
  bool flushed = (*it)->flush();
  set.closefile();
  std::printf("results written: %s\n", flushed ? "yes" : "no");
  return flushed ? 0 : 1;
}
