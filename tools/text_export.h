// The text and PLY writers of luafxs dump: every value formatted straight
// into a buffer that goes out in chunks (no string per value, no array per
// point), the JSON one plane at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <luAnaf/luAnaf.h>

namespace luafxs {

// The text of a dump as it is formatted.
using TextBuffer = fmt::memory_buffer;

// Each writes its text to file in chunks of about 1 MiB (the text of the
// whole output is never held) and returns false when a write failed.
// One "x y z" line per point.
bool writeXyz(std::FILE* file, const std::vector<const LuAfxsPlane*>& planes);
// A header line, then one line per point: plane, subset, index, the
// segment (with segments in mask), x, y, z, then the fields of mask (empty
// cells where a plane's field does not run parallel to its points).
bool writeCsv(std::FILE* file, const std::vector<const LuAfxsPlane*>& planes, uint32_t mask);
// A PLY file of every point, ASCII or binary little-endian, with the
// properties of the fields of mask that some plane holds.
bool writePly(std::FILE* file, const std::vector<const LuAfxsPlane*>& planes, uint32_t mask,
              bool binary);
// The JSON document of `count` planes, written to out one plane at a time
// (one plane a line), so that no text of the whole file is ever held. Plane
// i is asked of planeAt just before it is written, so a caller can load each
// record then and release it at the next call; a null plane ends the
// document unfinished. False when a write failed or a plane was null.
bool writeJson(std::FILE* out, const std::string& file, size_t count,
               const std::function<const LuAfxsPlane*(size_t)>& planeAt, uint32_t mask);

}  // namespace luafxs
