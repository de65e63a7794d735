// Boxes over runs of consecutive pieces, and boxes over runs of those boxes,
// up to one box: pieces numbered along their polylines lie near their
// neighbours, so the boxes stay tight and a query far from every piece
// opens only the few boxes near its answer. Internal to section/.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include <luAnaf/luGeom.h>

namespace lusection {

class PieceTree {
public:
  static constexpr size_t kFanout = 8;

  // Boxes over `count` items; boxOf(i, lo, hi) widens lo and hi by the box
  // of item i.
  template <class BoxOf>
  PieceTree(size_t count, BoxOf&& boxOf);

  // Calls visit(i) for every item in a box whose squared distance from q
  // (the box widened by `slack`) is not above limit(), nearer boxes first;
  // limit() is asked again after every item, so it may shrink as items are
  // visited. visit(i) measures the item itself.
  template <class Limit, class Visit>
  void search(const LuVec3& q, double slack, Limit&& limit, Visit&& visit) const;

private:
  struct Box {
    LuVec3 lo, hi;
  };
  static Box emptyBox();
  static void widen(Box& box, const Box& by);
  static double distance2(const Box& box, const LuVec3& q, double slack);
  template <class Limit, class Visit>
  void searchNode(size_t level, size_t node, const LuVec3& q, double slack, Limit& limit,
                  Visit& visit) const;

  size_t m_count = 0;
  // m_levels[0] has a box per kFanout items, each next level a box per
  // kFanout boxes of the one before; the last has one box.
  std::vector<std::vector<Box>> m_levels;
};

template <class BoxOf>
PieceTree::PieceTree(size_t count, BoxOf&& boxOf) : m_count(count) {
  std::vector<Box> boxes((count + kFanout - 1) / kFanout, emptyBox());
  for (size_t i = 0; i < count; ++i) boxOf(i, boxes[i / kFanout].lo, boxes[i / kFanout].hi);
  m_levels.push_back(std::move(boxes));
  while (m_levels.back().size() > 1) {
    const std::vector<Box>& below = m_levels.back();
    std::vector<Box> above((below.size() + kFanout - 1) / kFanout, emptyBox());
    for (size_t i = 0; i < below.size(); ++i) widen(above[i / kFanout], below[i]);
    m_levels.push_back(std::move(above));
  }
}

template <class Limit, class Visit>
void PieceTree::search(const LuVec3& q, double slack, Limit&& limit, Visit&& visit) const {
  if (m_count == 0) return;
  const size_t top = m_levels.size() - 1;
  // NaN distances (boxes of NaN coordinates) are never above the limit.
  if (!(distance2(m_levels[top][0], q, slack) > limit()))
    searchNode(top, 0, q, slack, limit, visit);
}

template <class Limit, class Visit>
void PieceTree::searchNode(size_t level, size_t node, const LuVec3& q, double slack, Limit& limit,
                           Visit& visit) const {
  const size_t first = node * kFanout;
  if (level == 0) {
    for (size_t i = first; i < std::min(first + kFanout, m_count); ++i) visit(i);
    return;
  }
  const std::vector<Box>& children = m_levels[level - 1];
  std::pair<double, size_t> order[kFanout];
  size_t n = 0;
  for (size_t c = first; c < std::min(first + kFanout, children.size()); ++c) {
    const double d2 = distance2(children[c], q, slack);
    if (!(d2 > limit())) order[n++] = {d2 != d2 ? 0.0 : d2, c};
  }
  for (size_t i = 1; i < n; ++i)  // insertion sort: at most kFanout entries
    for (size_t j = i; j > 0 && order[j] < order[j - 1]; --j) std::swap(order[j], order[j - 1]);
  for (size_t i = 0; i < n; ++i)
    if (!(order[i].first > limit())) searchNode(level - 1, order[i].second, q, slack, limit, visit);
}

}  // namespace lusection
