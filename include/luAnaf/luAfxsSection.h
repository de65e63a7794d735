// Cutting a triangle mesh into the contours of a family of parallel planes,
// and comparing measured contours with nominal ones. Pure geometry on arrays
// the caller owns; no file is read or written here (the luafxs tool reads
// mesh files and writes the results through the links).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsRecords.h>
#include <luAnaf/luExport.h>
#include <luAnaf/luGeom.h>

// A family of parallel planes: plane k passes through origin + k * spacing *
// normal, for k from 0 to count - 1. `normal` is a unit vector. The same four
// values go into a file's header (point, normal, number of planes, distance
// between planes).
struct LuAfxsPlaneFamily {
  LuVec3 origin{0, 0, 0};
  LuVec3 normal{0, 0, 1};
  uint32_t count = 0;
  double spacing = 0;
};

// The polylines of one plane's cut. `segments` holds running point counts
// (one entry per polyline, as in LuAfxsPlane); a closed polyline repeats its
// first point as its last. `normals` is parallel to `points`: unit, in the
// plane, pointing out of the solid. `faces` is parallel to `points`: the
// face each point was cut from. `closed` has one entry per polyline.
struct LuAfxsContour {
  uint32_t planeId = 0;
  std::vector<LuVec3> points;
  std::vector<LuVec3> normals;
  std::vector<int32_t> segments;
  std::vector<uint32_t> faces;
  std::vector<uint8_t> closed;
};

// What the cut met on its way: counts of the documented degenerate cases.
struct LuAfxsSliceReport {
  uint64_t mergedVertices = 0;    // vertices equal to an earlier one, merged into it
  uint64_t skippedFaces = 0;      // faces with a repeated vertex (after merging) or out of range
  uint64_t nonManifoldEdges = 0;  // cut edges where more than one polyline continues
  uint64_t openPolylines = 0;
  uint64_t closedPolylines = 0;
  uint64_t droppedPolylines = 0;  // polylines that shrank to one point
  uint64_t cutPoints = 0;
};

// The family of `count` planes along `normal` (made unit) spread over the
// extent of the vertices: spacing = extent / count, plane 0 half a spacing
// above the lowest vertex. With `origin` given, plane 0 passes through it and
// spacing = (highest vertex - origin) / count. False when there are no
// vertices, count is 0, normal is zero, or the extent is empty.
LUANAF_API bool luAfxsFamilyByCount(const std::vector<LuVec3>& vertices, LuVec3 normal,
                                    uint32_t count, const LuVec3* origin,
                                    LuAfxsPlaneFamily& family);
// The family of planes `spacing` apart along `normal` that cover the
// vertices: plane 0 passes through `origin` when given, else half a spacing
// above the lowest vertex; planes continue up to the highest vertex. False
// when spacing is not positive, the normal is zero, or no plane meets the
// vertices.
LUANAF_API bool luAfxsFamilyBySpacing(const std::vector<LuVec3>& vertices, LuVec3 normal,
                                      double spacing, const LuVec3* origin,
                                      LuAfxsPlaneFamily& family);

// Six times the signed volume enclosed by the faces: positive when they are
// wound counter-clockwise seen from outside (the normals point out).
LUANAF_API double luAfxsMeshVolume6(const std::vector<LuVec3>& vertices,
                                    const std::vector<uint32_t>& faces);

// The faces (three vertex indices each) that a viewer looking from
// `direction` sees: those whose normal is within 90 + grazingDegrees degrees
// of it. Back faces are not culled by occlusion: a face hidden behind another
// one counts as seen.
LUANAF_API std::vector<uint32_t> luAfxsFacesSeenFrom(const std::vector<LuVec3>& vertices,
                                                     const std::vector<uint32_t>& faces,
                                                     LuVec3 direction, double grazingDegrees);

// Cuts the triangles `faces` (three indices into `vertices` each) with every
// plane of `family` and returns one contour per plane that the mesh meets
// (planes with an empty cut are left out), in plane order. Faces are taken
// as wound counter-clockwise seen from outside; polylines then run
// counter-clockwise seen from the tip of the family normal and their normals
// point out. Time is linear in faces + cut points; memory linear in the mesh
// plus one plane's cut.
//
// Rules for the degenerate cases:
// - A vertex exactly on a plane counts as lying above it (the side the normal
//   points to). A cut through a vertex therefore passes through that vertex;
//   the cut points that coincide there are kept once.
// - An edge or a face lying in a plane: all its vertices count as above; the
//   cut follows such edges only where the faces beside them go below.
// - Vertices with exactly equal coordinates are one vertex (so a mesh stored
//   as separate triangles, as STL does, is cut into connected polylines).
// - Faces that repeat a vertex (after that merge) are skipped.
// - A non-manifold edge (more than one cut continuing from it): the cut
//   arriving there continues into the first unused face of lowest index; a
//   cut left with no continuation ends, and the polyline is open.
// - A polyline that shrinks to one point (a vertex touching the plane from
//   below) is dropped.
// False, with nothing returned, when the family is empty or has a zero
// normal or spacing (with count > 1).
LUANAF_API bool luAfxsSliceMesh(const std::vector<LuVec3>& vertices,
                                const std::vector<uint32_t>& faces, const LuAfxsPlaneFamily& family,
                                std::vector<LuAfxsContour>& out,
                                LuAfxsSliceReport* report = nullptr);

// The comparison of one measured plane with the nominal plane of the same id.
struct LuAfxsPlaneDeviation {
  uint32_t planeId = 0;
  uint32_t subsetId = 0;             // of the measured plane
  std::vector<LuVec3> resultPoints;  // per measured point: nearest point on the nominal polylines
  std::vector<double> distances;     // per measured point: signed deviation, positive outside
  uint64_t count = 0;
  double min = 0, max = 0, mean = 0, rms = 0;
  uint32_t worstIndex = 0;  // the measured point of largest |distance|
};

// For each measured point: the nearest point on the nominal plane's
// polylines (the pieces between consecutive points of each segment, not only
// the points; a nominal plane without segments is one polyline) found with a
// spatial grid, and the signed deviation (point - nearest) . n, where n is
// the measured point's normal; without measured normals, the nominal
// polyline's normal interpolated at the nearest point; without either, the
// plain distance. Equal distances go to the piece of lowest index. False
// when the nominal plane has no points.
LUANAF_API bool luAfxsComparePlane(const LuAfxsPlane& measured, const LuAfxsPlane& nominal,
                                   LuAfxsPlaneDeviation& out);
