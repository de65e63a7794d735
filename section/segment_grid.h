// A sparse uniform grid over the pieces of a set of polylines, for
// nearest-point queries in time independent of the number of pieces (for
// points near the polylines). Internal to section/.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include <luAnaf/luGeom.h>

#include "section/flat_key_table.h"
#include "section/piece_tree.h"

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

// Where the last query ended, for the next one: queries in sequence along a
// contour find their answer near the last one, and the distance to it
// picks the grid level to search. Any hint gives the same answer; a good one
// only makes it cheaper.
struct SearchHint {
  uint32_t piece = 0xFFFFFFFFu;  // the last answer, measured before any cell
};

class SegmentGrid {
public:
  // Indexes the pieces (at least one); `points` must outlive the grid.
  SegmentGrid(const std::vector<LuVec3>& points, std::vector<GridPiece> pieces);
  // The nearest point on any piece; ties go to the piece of lowest index.
  // `hint` is read and left for the next query. Builds the coarser levels
  // when a query first needs them.
  NearestPiece nearest(const LuVec3& q, SearchHint& hint);
  const std::vector<GridPiece>& pieces() const { return m_pieces; }

private:
  // One grid; the levels grow coarser by a factor, so that a query far from
  // the polylines (in cells of the finest level) is answered in a few rings
  // of a coarser one. Cell n (numbered in the order the cells were met)
  // lists the pieces cellPieces[cellStarts[n], cellStarts[n + 1]).
  struct Level {
    double cell = 1;
    int64_t dims[3] = {1, 1, 1};
    FlatKeyTable cells;  // cell key -> cell number
    std::vector<uint32_t> cellStarts;
    std::vector<uint32_t> cellPieces;
  };
  struct CellIndex {
    int32_t c[3];
  };
  void placePoints(Level& finest);
  const Level* level(size_t i);
  bool build(Level& level, int shift) const;
  void cellOf(const Level& level, const LuVec3& p, int64_t c[3]) const;
  static uint64_t key(int64_t x, int64_t y, int64_t z);
  double gapBelow(const Level& level, int axis, int64_t c, double q) const;
  double gapAbove(const Level& level, int axis, int64_t c, double q) const;
  double axisGap(const Level& level, int axis, int64_t c, double q) const;
  bool beyond(double gap2, const NearestPiece& best) const;
  bool searchRings(const Level& level, const LuVec3& q, NearestPiece& best) const;
  void visitCell(const Level& level, int64_t x, int64_t y, int64_t z, const LuVec3& q,
                 NearestPiece& best) const;
  void visitCellNumber(const Level& level, uint32_t n, const LuVec3& q, NearestPiece& best) const;
  void visitPiece(uint32_t piece, const LuVec3& q, NearestPiece& best) const;
  void consider(uint32_t piece, const LuVec3& q, NearestPiece& best) const;
  void searchTree(const LuVec3& q, NearestPiece& best);
  size_t levelFor(double distance2) const;

  const std::vector<LuVec3>& m_points;
  std::vector<GridPiece> m_pieces;
  LuVec3 m_min{0, 0, 0};
  LuVec3 m_max{0, 0, 0};
  // How far a cell's computed bounds may miss the points filed in it
  // (rounding of the coordinates); cells are widened by it when bounding.
  double m_slack = 0;
  double m_extent = 0;
  std::vector<CellIndex> m_pointCells;  // each point's cell in the finest level
  std::vector<Level> m_levels;          // finest first
  std::unique_ptr<PieceTree> m_tree;    // built for the first query the levels do not settle
};

}  // namespace lusection
