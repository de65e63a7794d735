// A uniform grid over the pieces of a set of polylines, for nearest-point
// queries in time independent of the number of pieces (for points near the
// polylines). Internal to section/.
#pragma once

#include <cstdint>
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
  double t = 0;        // position along the piece, 0 at a, 1 at b
  LuVec3 point{0, 0, 0};
  double distance2 = 0;
};

class SegmentGrid {
public:
  // Indexes the pieces; `points` must outlive the grid.
  SegmentGrid(const std::vector<LuVec3>& points, std::vector<GridPiece> pieces);
  // The nearest point on any piece; ties go to the piece of lowest index.
  // The grid must hold at least one piece.
  NearestPiece nearest(const LuVec3& q) const;
  const std::vector<GridPiece>& pieces() const { return m_pieces; }

private:
  void cellOf(const LuVec3& p, int64_t c[3]) const;
  void visitCell(int64_t x, int64_t y, int64_t z, const LuVec3& q, NearestPiece& best) const;
  void consider(uint32_t piece, const LuVec3& q, NearestPiece& best) const;

  const std::vector<LuVec3>& m_points;
  std::vector<GridPiece> m_pieces;
  LuVec3 m_min{0, 0, 0};
  double m_cell = 1;
  int64_t m_dims[3] = {1, 1, 1};
  std::vector<uint32_t> m_cellStart;  // CSR: pieces of cell i at [start[i], start[i + 1])
  std::vector<uint32_t> m_cellPieces;
};

}  // namespace lusection
