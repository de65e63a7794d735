// A sparse uniform grid over the pieces of a set of polylines, for
// nearest-point queries in time independent of the number of pieces (for
// points near the polylines). Internal to section/.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include <luAnaf/luGeom.h>

namespace lusection {

// A piece from point `a` to point `b` of the polylines (a == b for a
// polyline of one point).
struct GridPiece {
  uint32_t a, b;
};

struct NearestPiece {
  uint32_t piece = 0;
  double t = 0;  // position along the piece, 0 at a, 1 at b
  LuVec3 point{0, 0, 0};
  double distance2 = 0;
};

class SegmentGrid {
public:
  // Indexes the pieces (at least one); `points` must outlive the grid.
  SegmentGrid(const std::vector<LuVec3>& points, std::vector<GridPiece> pieces);
  // The nearest point on any piece; ties go to the piece of lowest index.
  // `level` is where the search starts and is left where it ended: queries
  // in sequence along a contour keep it (any level gives the same answer).
  NearestPiece nearest(const LuVec3& q, size_t& level) const;
  const std::vector<GridPiece>& pieces() const { return m_pieces; }

private:
  struct Range {
    uint32_t begin, end;  // into Level::cellPieces
  };
  // One grid; the levels grow coarser by a factor, so that a query far from
  // the polylines (in cells of the finest level) is answered in a few rings
  // of a coarser one.
  struct Level {
    double cell = 1;
    int64_t dims[3] = {1, 1, 1};
    std::unordered_map<uint64_t, Range> cells;
    std::vector<uint32_t> cellPieces;
  };
  bool build(Level& level, double cell) const;
  void cellOf(const Level& level, const LuVec3& p, int64_t c[3]) const;
  static uint64_t key(int64_t x, int64_t y, int64_t z);
  bool searchRings(const Level& level, const LuVec3& q, NearestPiece& best) const;
  void visitCell(const Level& level, int64_t x, int64_t y, int64_t z, const LuVec3& q,
                 NearestPiece& best) const;
  void visitRange(const Level& level, const Range& r, const LuVec3& q, NearestPiece& best) const;
  void consider(uint32_t piece, const LuVec3& q, NearestPiece& best) const;
  void searchEveryCell(const Level& level, const LuVec3& q, NearestPiece& best) const;

  const std::vector<LuVec3>& m_points;
  std::vector<GridPiece> m_pieces;
  LuVec3 m_min{0, 0, 0};
  LuVec3 m_max{0, 0, 0};
  std::vector<Level> m_levels;  // finest first
};

}  // namespace lusection
