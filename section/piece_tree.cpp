// The box arithmetic of the piece tree; the building and the search are
// templates in the header.
#include "section/piece_tree.h"

#include <limits>

namespace lusection {

PieceTree::Box PieceTree::emptyBox() {
  const double inf = std::numeric_limits<double>::infinity();
  return {{inf, inf, inf}, {-inf, -inf, -inf}};
}

void PieceTree::widen(Box& box, const Box& by) {
  for (int k = 0; k < 3; ++k) {
    box.lo[k] = std::min(box.lo[k], by.lo[k]);
    box.hi[k] = std::max(box.hi[k], by.hi[k]);
  }
}

double PieceTree::distance2(const Box& box, const LuVec3& q, double slack) {
  double sum = 0;
  for (int k = 0; k < 3; ++k) {
    const double below = box.lo[k] - slack - q[k], above = q[k] - box.hi[k] - slack;
    const double gap = below > 0 ? below : above > 0 ? above : 0;
    sum += gap * gap;
  }
  return sum;
}

}  // namespace lusection
