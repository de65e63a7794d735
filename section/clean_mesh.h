// A mesh prepared for cutting: equal vertices merged into one, faces that
// repeat a vertex (after the merge) or point past the vertices dropped.
// Internal to section/.
#pragma once

#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsSection.h>

namespace lusection {

struct CleanMesh {
  std::vector<LuVec3> vertices;   // in the order of their first occurrence
  std::vector<uint32_t> faces;    // three per face
  std::vector<uint32_t> faceIds;  // the caller's index of each kept face
};

// Counts merged vertices and skipped faces into `report`.
CleanMesh cleanMesh(const std::vector<LuVec3>& vertices, const std::vector<uint32_t>& faces,
                    LuAfxsSliceReport& report);

}  // namespace lusection
