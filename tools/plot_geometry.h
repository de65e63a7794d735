// What plot and view share about a plane's shape: the two axes it is seen
// on, boxes, segment runs, and which points of one layer lie near or
// coincide with the points of others.
#pragma once

#include <cmath>
#include <cstddef>
#include <utility>
#include <vector>

#include <luAnaf/luAnaf.h>

namespace luafxs {

// A point projected onto the two axes of the drawing.
struct Point2 {
  double u = 0, v = 0;
};

// The axes of the drawing: u is the coordinate axis least aligned with the
// normal, made orthogonal to it; v = normal x u.
struct Frame {
  LuVec3 u{1, 0, 0}, v{0, 1, 0}, n{0, 0, 1};
  Point2 project(const LuVec3& p) const {
    return {p.x * u.x + p.y * u.y + p.z * u.z, p.x * v.x + p.y * v.y + p.z * v.z};
  }
  double depth(const LuVec3& p) const { return p.x * n.x + p.y * n.y + p.z * n.z; }
};
Frame frameFor(const double normal[3]);

struct Box {
  double u0 = INFINITY, v0 = INFINITY, u1 = -INFINITY, v1 = -INFINITY;
  bool empty() const { return !(u0 <= u1 && v0 <= v1); }
  void grow(const Point2& p);
  void grow(const Box& b);
  // Grows each side by `fraction` of the larger span (a point box by 1).
  Box padded(double fraction) const;
};

std::vector<Point2> projectAll(const std::vector<LuVec3>& points, const Frame& frame);

// [first, end) index ranges of the segments from the running counts; the
// points after the last usable count form one more segment.
std::vector<std::pair<size_t, size_t>> segmentRuns(const LuAfxsPlane& plane);

// The median distance between consecutive points (0 for fewer than two).
double typicalSpacing(const std::vector<Point2>& points);

// For each point of `a`, whether some point of `b` lies within `tolerance`.
std::vector<char> nearMask(const std::vector<Point2>& a, const std::vector<Point2>& b,
                           double tolerance);

// Where two layers overlap: the box of the longest run of consecutive points
// of `a` that lie within three typical spacings of `b`, and of the points of
// `b` that lie as near that run. Empty when they do not meet.
Box overlapBox(const std::vector<Point2>& a, const std::vector<Point2>& b);

// The blended stretch of a unified layer: its points that coincide with no
// point of the inputs (within a millionth of the drawing's extent), provided
// some of its points do coincide with input points (so the layer was made
// from them). All false otherwise.
std::vector<char> blendedMask(const std::vector<Point2>& unified,
                              const std::vector<const std::vector<Point2>*>& inputs);

// One layer of a plane as the blend marking sees it.
struct BlendLayer {
  const std::vector<Point2>* points;
  size_t file;  // which of the drawing's files it comes from
};

// The one place plot and view mark the blended stretch. `files` is the
// count of files of the whole drawing (one more than the highest file index
// of any layer, on any plane): the last of them is the unified file, the
// ones before it its inputs. For each layer of one plane: blendedMask of it
// against the plane's input layers when it belongs to the last file, empty
// otherwise (and for all when fewer than two files or no input layer).
std::vector<std::vector<char>> blendMarks(const std::vector<BlendLayer>& plane, size_t files);

// The files count blendMarks takes, from every plane of the drawing.
size_t drawingFiles(const std::vector<std::vector<BlendLayer>>& planes);

}  // namespace luafxs
