// The text and PLY writers of luafxs dump: every value formatted straight
// into one growing buffer (no string per value, no array per point), the
// JSON one plane at a time into its output stream.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <luAnaf/luAnaf.h>

namespace luafxs {

// The text of a dump, before it is written in one go.
using TextBuffer = fmt::memory_buffer;

// Each appends its text to out.
// One "x y z" line per point.
void xyzText(TextBuffer& out, const std::vector<const LuAfxsPlane*>& planes);
// A header line, then one line per point: plane, subset, index, the
// segment (with segments in mask), x, y, z, then the fields of mask (empty
// cells where a plane's field does not run parallel to its points).
void csvText(TextBuffer& out, const std::vector<const LuAfxsPlane*>& planes, uint32_t mask);
// A PLY file of every point, ASCII or binary little-endian, with the
// properties of the fields of mask that some plane holds.
void plyText(TextBuffer& out, const std::vector<const LuAfxsPlane*>& planes, uint32_t mask,
             bool binary);
// The JSON document of the planes, written to out one plane at a time (one
// plane a line), so that no text of the whole file is ever held. False when
// a write failed.
bool writeJson(std::FILE* out, const std::string& file,
               const std::vector<const LuAfxsPlane*>& planes, uint32_t mask);

}  // namespace luafxs
