// Visits every array of a plane (or the matching arrays of two planes), for
// code that treats all nine alike: handing arrays on, giving them back.
#pragma once

#include <luAnaf/luAfxsRecords.h>

namespace afxs {

template <typename F>
void forEachArray(LuAfxsPlane& a, LuAfxsPlane& b, F&& f) {
  f(a.points, b.points);
  f(a.normals, b.normals);
  f(a.segments, b.segments);
  f(a.auxCtrlFirst, b.auxCtrlFirst);
  f(a.auxCtrlOffsets, b.auxCtrlOffsets);
  f(a.auxCtrlCounts, b.auxCtrlCounts);
  f(a.auxCtrlPos, b.auxCtrlPos);
  f(a.resPoints, b.resPoints);
  f(a.distances, b.distances);
}

template <typename F>
void forEachArray(LuAfxsPlane& plane, F&& f) {
  forEachArray(plane, plane, [&f](auto& array, auto&) { f(array); });
}

}  // namespace afxs
