// Cutting meshes with plane families: closed solids, open surfaces and each
// documented degenerate case.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

#include <luAnaf/luAfxsSection.h>
#include <luAnaf/luAnaf.h>

namespace {

struct Mesh {
  std::vector<LuVec3> vertices;
  std::vector<uint32_t> faces;
};

// The unit cube [0,1]^3, wound counter-clockwise seen from outside.
Mesh cube() {
  Mesh m;
  m.vertices = {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0},
                {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}};
  m.faces = {0, 2, 1, 0, 3, 2,   // bottom (normal -z)
             4, 5, 6, 4, 6, 7,   // top
             0, 1, 5, 0, 5, 4,   // y = 0
             1, 2, 6, 1, 6, 5,   // x = 1
             2, 3, 7, 2, 7, 6,   // y = 1
             3, 0, 4, 3, 4, 7};  // x = 0
  return m;
}

// An octahedron with its equator vertices at the heights given.
Mesh octahedron(double e0, double e1, double e2, double e3) {
  Mesh m;
  m.vertices = {{1, 0, e0}, {0, 1, e1}, {-1, 0, e2}, {0, -1, e3}, {0, 0, 1}, {0, 0, -1}};
  for (uint32_t i = 0; i < 4; ++i) {
    uint32_t j = (i + 1) % 4;
    m.faces.insert(m.faces.end(), {i, j, 4});
    m.faces.insert(m.faces.end(), {j, i, 5});
  }
  return m;
}

// Every face with its own three vertices, as an STL file stores them.
Mesh soup(const Mesh& in) {
  Mesh m;
  for (uint32_t v : in.faces) {
    m.faces.push_back(static_cast<uint32_t>(m.vertices.size()));
    m.vertices.push_back(in.vertices[v]);
  }
  return m;
}

LuAfxsPlaneFamily planeAt(double z) {
  LuAfxsPlaneFamily f;
  f.origin = {0, 0, z};
  f.normal = {0, 0, 1};
  f.count = 1;
  f.spacing = 1;
  return f;
}

std::vector<LuAfxsContour> cut(const Mesh& m, const LuAfxsPlaneFamily& family,
                               LuAfxsSliceReport* report = nullptr) {
  std::vector<LuAfxsContour> out;
  EXPECT_TRUE(luAfxsSliceMesh(m.vertices, m.faces, family, out, report));
  return out;
}

double polylineLength(const LuAfxsContour& c) {
  double sum = 0;
  size_t first = 0;
  for (int32_t end : c.segments) {
    for (size_t i = first; i + 1 < static_cast<size_t>(end); ++i)
      sum += (c.points[i + 1] - c.points[i]).length();
    first = static_cast<size_t>(end);
  }
  return sum;
}

// Twice the signed area about +z of polyline `seg`.
double signedArea2(const LuAfxsContour& c, size_t seg) {
  size_t first = seg == 0 ? 0 : static_cast<size_t>(c.segments[seg - 1]);
  size_t end = static_cast<size_t>(c.segments[seg]);
  double a = 0;
  for (size_t i = first; i + 1 < end; ++i)
    a += c.points[i].x * c.points[i + 1].y - c.points[i + 1].x * c.points[i].y;
  return a;
}

bool hasRepeatedNeighbours(const LuAfxsContour& c) {
  for (size_t i = 0; i + 1 < c.points.size(); ++i)
    if (c.points[i] == c.points[i + 1]) return true;
  return false;
}

TEST(MeshSlicer, ClosedSolidGivesOneClosedCounterClockwiseLoop) {
  auto out = cut(cube(), planeAt(0.5));
  ASSERT_EQ(out.size(), 1u);
  const LuAfxsContour& c = out[0];
  ASSERT_EQ(c.segments.size(), 1u);
  EXPECT_EQ(c.closed[0], 1);
  EXPECT_EQ(c.points.front(), c.points.back());
  EXPECT_NEAR(polylineLength(c), 4.0, 1e-12);
  EXPECT_NEAR(signedArea2(c, 0), 2.0, 1e-12);
  for (const LuVec3& p : c.points) EXPECT_EQ(p.z, 0.5);
}

TEST(MeshSlicer, NormalsLieInThePlaneAndPointOut) {
  auto out = cut(cube(), planeAt(0.25));
  ASSERT_EQ(out.size(), 1u);
  const LuAfxsContour& c = out[0];
  ASSERT_EQ(c.normals.size(), c.points.size());
  ASSERT_EQ(c.faces.size(), c.points.size());
  for (size_t i = 0; i < c.points.size(); ++i) {
    EXPECT_NEAR(c.normals[i].z, 0, 1e-15);
    EXPECT_NEAR(c.normals[i].length(), 1, 1e-12);
    LuVec3 fromCentre = c.points[i] - LuVec3{0.5, 0.5, 0.25};
    EXPECT_GT(c.normals[i].dot(fromCentre), 0) << i;
  }
}

TEST(MeshSlicer, InwardWindingReversesOrientationAndNormals) {
  Mesh m = cube();
  for (size_t f = 0; f < m.faces.size(); f += 3) std::swap(m.faces[f + 1], m.faces[f + 2]);
  auto out = cut(m, planeAt(0.5));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_NEAR(signedArea2(out[0], 0), -2.0, 1e-12);
  EXPECT_LT(out[0].normals[0].dot(out[0].points[0] - LuVec3{0.5, 0.5, 0.5}), 0);
}

TEST(MeshSlicer, FamilyCutsEveryPlaneWithItsId) {
  LuAfxsPlaneFamily f;
  ASSERT_TRUE(luAfxsFamilyByCount(cube().vertices, {0, 0, 2}, 4, nullptr, f));
  EXPECT_DOUBLE_EQ(f.spacing, 0.25);
  EXPECT_DOUBLE_EQ(f.origin.z, 0.125);
  auto out = cut(cube(), f);
  ASSERT_EQ(out.size(), 4u);
  for (uint32_t k = 0; k < 4; ++k) {
    EXPECT_EQ(out[k].planeId, k);
    for (const LuVec3& p : out[k].points) EXPECT_NEAR(p.z, 0.125 + 0.25 * k, 1e-15);
  }
}

TEST(MeshSlicer, FamilyBySpacingStartsAtTheOriginGiven) {
  LuAfxsPlaneFamily f;
  LuVec3 origin{0, 0, 0.1};
  ASSERT_TRUE(luAfxsFamilyBySpacing(cube().vertices, {0, 0, 1}, 0.3, &origin, f));
  EXPECT_EQ(f.count, 4u);  // 0.1, 0.4, 0.7 and 1.0, the top face
  EXPECT_FALSE(luAfxsFamilyBySpacing(cube().vertices, {0, 0, 0}, 0.3, nullptr, f));
  EXPECT_FALSE(luAfxsFamilyBySpacing(cube().vertices, {0, 0, 1}, -1, nullptr, f));
}

TEST(MeshSlicer, VertexOnThePlaneIsPassedThroughOnce) {
  Mesh m = octahedron(0, 0.2, 0.2, 0.2);
  auto out = cut(m, planeAt(0));
  ASSERT_EQ(out.size(), 1u);
  const LuAfxsContour& c = out[0];
  EXPECT_EQ(c.closed[0], 1);
  EXPECT_FALSE(hasRepeatedNeighbours(c));
  int atVertex = 0;
  for (const LuVec3& p : c.points) atVertex += p == LuVec3{1, 0, 0};
  EXPECT_GE(atVertex, 1);
  EXPECT_EQ(c.points.size(), 5u);  // four distinct points, the first repeated
}

TEST(MeshSlicer, VertexTouchingThePlaneFromBelowGivesNoCut) {
  LuAfxsSliceReport report;
  auto out = cut(octahedron(0, 0, 0, 0), planeAt(1), &report);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(report.droppedPolylines, 1u);
}

TEST(MeshSlicer, EdgesInThePlaneAreFollowedWhereFacesGoBelow) {
  auto out = cut(octahedron(0, 0, 0, 0), planeAt(0));
  ASSERT_EQ(out.size(), 1u);
  const LuAfxsContour& c = out[0];
  EXPECT_EQ(c.points.size(), 5u);
  EXPECT_NEAR(polylineLength(c), 4 * std::sqrt(2.0), 1e-12);
  EXPECT_GT(signedArea2(c, 0), 0);
}

TEST(MeshSlicer, FaceInThePlaneAtTheTopGivesItsOutline) {
  auto out = cut(cube(), planeAt(1));
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].closed[0], 1);
  EXPECT_NEAR(polylineLength(out[0]), 4.0, 1e-12);
}

TEST(MeshSlicer, FaceInThePlaneAtTheBottomGivesNoCut) {
  EXPECT_TRUE(cut(cube(), planeAt(0)).empty());
}

TEST(MeshSlicer, EmptyCutGivesNoContour) {
  LuAfxsPlaneFamily f = planeAt(5);
  f.count = 3;
  EXPECT_TRUE(cut(cube(), f).empty());
}

TEST(MeshSlicer, DuplicateVerticesAreMergedIntoOneLoop) {
  LuAfxsSliceReport report;
  auto out = cut(soup(cube()), planeAt(0.5), &report);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].segments.size(), 1u);
  EXPECT_EQ(out[0].closed[0], 1);
  EXPECT_EQ(report.mergedVertices, 36u - 8u);
}

TEST(MeshSlicer, FacesRepeatingAVertexAreSkipped) {
  Mesh m = cube();
  m.faces.insert(m.faces.end(), {0, 0, 6, 1, 6, 1});
  LuAfxsSliceReport report;
  auto out = cut(m, planeAt(0.5), &report);
  EXPECT_EQ(report.skippedFaces, 2u);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].segments.size(), 1u);
}

TEST(MeshSlicer, HoleGivesAnOpenPolyline) {
  Mesh m = cube();
  m.faces.erase(m.faces.begin() + 18, m.faces.begin() + 24);  // the side x = 1
  LuAfxsSliceReport report;
  auto out = cut(m, planeAt(0.5), &report);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].closed[0], 0);
  EXPECT_EQ(report.openPolylines, 1u);
  EXPECT_NEAR(polylineLength(out[0]), 3.0, 1e-12);
  // Counter-clockwise: from the hole's edge at y = 1 round to the one at y = 0.
  EXPECT_EQ(out[0].points.front(), (LuVec3{1, 1, 0.5}));
  EXPECT_EQ(out[0].points.back(), (LuVec3{1, 0, 0.5}));
}

TEST(MeshSlicer, NonManifoldEdgeContinuesIntoTheLowestFaceAndLosesNothing) {
  // Two cubes sharing the vertical edge x = 1, y = 1.
  Mesh a = cube(), b = cube();
  Mesh m = a;
  std::vector<uint32_t> map(8);
  for (uint32_t i = 0; i < 8; ++i) {
    LuVec3 v = b.vertices[i] + LuVec3{1, 1, 0};
    uint32_t found = 8;
    for (uint32_t j = 0; j < 8; ++j)
      if (a.vertices[j] == v) found = j;
    if (found == 8) {
      map[i] = static_cast<uint32_t>(m.vertices.size());
      m.vertices.push_back(v);
    } else {
      map[i] = found;
    }
  }
  for (uint32_t f : b.faces) m.faces.push_back(map[f]);
  LuAfxsSliceReport report;
  auto out = cut(m, planeAt(0.5), &report);
  EXPECT_EQ(report.nonManifoldEdges, 1u);
  ASSERT_EQ(out.size(), 1u);
  EXPECT_NEAR(polylineLength(out[0]), 8.0, 1e-12);
  for (uint8_t closed : out[0].closed) EXPECT_EQ(closed, 1);
}

TEST(MeshSlicer, RefusesAnEmptyOrFlatFamily) {
  std::vector<LuAfxsContour> out;
  LuAfxsPlaneFamily f = planeAt(0.5);
  f.count = 0;
  EXPECT_FALSE(luAfxsSliceMesh(cube().vertices, cube().faces, f, out));
  f = planeAt(0.5);
  f.normal = {0, 0, 0};
  EXPECT_FALSE(luAfxsSliceMesh(cube().vertices, cube().faces, f, out));
  f = planeAt(0.5);
  f.count = 2;
  f.spacing = 0;
  EXPECT_FALSE(luAfxsSliceMesh(cube().vertices, cube().faces, f, out));
}

TEST(MeshSlicer, FacesSeenFromADirectionAreThoseTurnedTowardsIt) {
  Mesh m = cube();
  auto seen = luAfxsFacesSeenFrom(m.vertices, m.faces, {1, 0, 0}, 0);
  // x = 1 side only: its two faces (the top, bottom and y sides are at 90 degrees).
  EXPECT_EQ(seen.size(), 6u);
  auto grazing = luAfxsFacesSeenFrom(m.vertices, m.faces, {1, 0, 0}, 10);
  EXPECT_EQ(grazing.size(), 30u);  // all but the x = 0 side
}

TEST(MeshSlicer, VolumeIsPositiveForOutwardWinding) {
  Mesh m = cube();
  EXPECT_NEAR(luAfxsMeshVolume6(m.vertices, m.faces), 6.0, 1e-12);
}

// A closed UV sphere with every vertex moved along its radius at random
// (poles as single vertices, so no vertex repeats), wound outward.
Mesh bumpySphere(std::mt19937& random, uint32_t rings, uint32_t segments) {
  std::uniform_real_distribution<double> bump(0.8, 1.2);
  Mesh m;
  const double pi = 3.14159265358979323846;
  m.vertices.push_back({0, 0, bump(random)});
  for (uint32_t r = 1; r < rings; ++r)
    for (uint32_t k = 0; k < segments; ++k) {
      double theta = pi * r / rings, phi = 2 * pi * k / segments, b = bump(random);
      m.vertices.push_back({b * std::sin(theta) * std::cos(phi),
                            b * std::sin(theta) * std::sin(phi), b * std::cos(theta)});
    }
  m.vertices.push_back({0, 0, -bump(random)});
  const uint32_t south = static_cast<uint32_t>(m.vertices.size()) - 1;
  auto at = [&](uint32_t r, uint32_t k) { return 1 + (r - 1) * segments + k % segments; };
  for (uint32_t k = 0; k < segments; ++k) {
    m.faces.insert(m.faces.end(), {0, at(1, k), at(1, k + 1)});
    m.faces.insert(m.faces.end(), {south, at(rings - 1, k + 1), at(rings - 1, k)});
  }
  for (uint32_t r = 1; r + 1 < rings; ++r)
    for (uint32_t k = 0; k < segments; ++k) {
      uint32_t a = at(r, k), b = at(r, k + 1), c = at(r + 1, k), d = at(r + 1, k + 1);
      m.faces.insert(m.faces.end(), {a, c, d, a, d, b});
    }
  return m;
}

using CutPiece = std::tuple<double, double, double, double, double, double, uint32_t>;

// Every face's cut by every plane, found face by face: the point where the
// boundary goes down through the plane, the point where it comes back up
// (each measured from the edge's vertices in index order) and the face.
std::vector<CutPiece> cutFaceByFace(const Mesh& m, const LuAfxsPlaneFamily& family, uint32_t k) {
  auto height = [&](uint32_t v) { return (m.vertices[v] - family.origin).dot(family.normal); };
  const double h = static_cast<double>(k) * family.spacing;
  auto crossing = [&](uint32_t a, uint32_t b) {
    if (a > b) std::swap(a, b);
    double da = height(a) - h, db = height(b) - h;
    const LuVec3 &pa = m.vertices[a], &pb = m.vertices[b];
    return pa + (pb - pa) * (da / (da - db));
  };
  std::vector<CutPiece> pieces;
  for (uint32_t f = 0; f < m.faces.size() / 3; ++f) {
    LuVec3 from, to;
    int found = 0;
    for (int i = 0; i < 3; ++i) {
      uint32_t a = m.faces[3 * f + i], b = m.faces[3 * f + (i + 1) % 3];
      bool aboveA = height(a) >= h, aboveB = height(b) >= h;
      if (aboveA && !aboveB) from = crossing(a, b), found |= 1;
      if (!aboveA && aboveB) to = crossing(a, b), found |= 2;
    }
    if (found == 3) pieces.emplace_back(from.x, from.y, from.z, to.x, to.y, to.z, f);
  }
  std::sort(pieces.begin(), pieces.end());
  return pieces;
}

// The pieces of a contour: each point to the next on its polyline, with the
// face the point was cut from.
std::vector<CutPiece> piecesOf(const LuAfxsContour& c) {
  std::vector<CutPiece> pieces;
  size_t first = 0;
  for (int32_t end : c.segments) {
    for (size_t i = first; i + 1 < static_cast<size_t>(end); ++i) {
      const LuVec3 &a = c.points[i], &b = c.points[i + 1];
      pieces.emplace_back(a.x, a.y, a.z, b.x, b.y, b.z, c.faces[i]);
    }
    first = static_cast<size_t>(end);
  }
  std::sort(pieces.begin(), pieces.end());
  return pieces;
}

// On random closed meshes cut along random directions, the polylines are
// made of exactly the pieces a face-by-face cut gives, to the bit, each with
// its face, and every polyline closes.
TEST(MeshSlicer, PolylinesAreExactlyTheFaceByFaceCuts) {
  std::mt19937 random(5);
  std::uniform_real_distribution<double> direction(-1, 1);
  for (int round = 0; round < 20; ++round) {
    Mesh m = bumpySphere(random, 4 + round % 9, 5 + round % 13);
    LuVec3 normal{direction(random), direction(random), direction(random)};
    LuAfxsPlaneFamily family;
    ASSERT_TRUE(luAfxsFamilyByCount(m.vertices, normal, 7 + round, nullptr, family));
    LuAfxsSliceReport report;
    std::vector<LuAfxsContour> out = cut(m, family, &report);
    EXPECT_EQ(report.mergedVertices, 0u);
    EXPECT_EQ(report.openPolylines, 0u);
    EXPECT_EQ(report.nonManifoldEdges, 0u);
    size_t contour = 0;
    for (uint32_t k = 0; k < family.count; ++k) {
      std::vector<CutPiece> want = cutFaceByFace(m, family, k);
      if (want.empty()) continue;
      ASSERT_LT(contour, out.size());
      ASSERT_EQ(out[contour].planeId, k);
      EXPECT_EQ(piecesOf(out[contour]), want) << "round " << round << " plane " << k;
      for (uint8_t closed : out[contour].closed) EXPECT_EQ(closed, 1);
      ++contour;
    }
    EXPECT_EQ(contour, out.size());
  }
}

// The same mesh stored as separate triangles (as STL does), with -0.0 for
// some zero coordinates, is merged back and cut into the same polylines.
TEST(MeshSlicer, TriangleSoupIsCutLikeTheIndexedMesh) {
  std::mt19937 random(9);
  Mesh m = bumpySphere(random, 9, 12);
  m.vertices.push_back({0, 0, 0});  // an unused vertex at the origin
  Mesh s = soup(m);
  int zeros = 0;
  for (LuVec3& v : s.vertices)
    if (v.x == 0 && ++zeros % 4 < 2) v.x = -0.0;  // both poles get both zeros
  ASSERT_GT(zeros, 2);
  LuAfxsPlaneFamily family;
  ASSERT_TRUE(luAfxsFamilyByCount(m.vertices, {0.3, 0.1, 1}, 9, nullptr, family));
  LuAfxsSliceReport indexed, separate;
  std::vector<LuAfxsContour> a = cut(m, family, &indexed), b = cut(s, family, &separate);
  EXPECT_EQ(separate.mergedVertices, s.vertices.size() - (m.vertices.size() - 1));
  EXPECT_EQ(separate.closedPolylines, indexed.closedPolylines);
  EXPECT_EQ(separate.cutPoints, indexed.cutPoints);
  ASSERT_EQ(a.size(), b.size());
  for (size_t k = 0; k < a.size(); ++k) {
    ASSERT_EQ(a[k].points.size(), b[k].points.size());
    EXPECT_EQ(a[k].faces, b[k].faces);
    EXPECT_EQ(a[k].segments, b[k].segments);
    for (size_t i = 0; i < a[k].points.size(); ++i)
      EXPECT_NEAR((a[k].points[i] - b[k].points[i]).length(), 0, 1e-12);
  }
}

}  // namespace
