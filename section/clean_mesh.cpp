// Merging equal vertices with one flat open-addressing table of vertex
// numbers (no node per vertex): a vertex is looked up by its coordinates and
// takes the number of the first equal one. Equality is the coordinates'
// (==): -0.0 and 0.0 are one coordinate, and a vertex with a NaN coordinate
// equals none, not even itself.
#include "section/clean_mesh.h"

#include <cstring>

namespace lusection {

namespace {

constexpr uint32_t kFree = 0xFFFFFFFFu;

uint64_t coordinateHash(const LuVec3& v) {
  uint64_t bits[3];
  std::memcpy(bits, &v, sizeof bits);
  uint64_t h = bits[0] * 0x9E3779B97F4A7C15ull;
  h ^= bits[1] + 0x7F4A7C159E3779B9ull + (h << 6) + (h >> 2);
  h ^= bits[2] + 0x94D049BB133111EBull + (h << 6) + (h >> 2);
  return h * 0x9E3779B97F4A7C15ull;
}

// The number each input vertex gets in `kept`, appending the vertices met
// for the first time.
std::vector<uint32_t> mergeVertices(const std::vector<LuVec3>& vertices, std::vector<LuVec3>& kept,
                                    uint64_t& merged) {
  size_t capacity = 16;
  int shift = 60;
  while (capacity < 2 * vertices.size()) {
    capacity *= 2;
    --shift;
  }
  std::vector<uint32_t> table(capacity, kFree);
  const size_t mask = capacity - 1;
  std::vector<uint32_t> remap(vertices.size());
  kept.reserve(vertices.size());
  for (size_t i = 0; i < vertices.size(); ++i) {
    // -0.0 and 0.0 are one coordinate (and hash alike once added to 0.0).
    const LuVec3 v{vertices[i].x + 0.0, vertices[i].y + 0.0, vertices[i].z + 0.0};
    size_t slot = static_cast<size_t>(coordinateHash(v) >> shift);
    while (table[slot] != kFree && !(kept[table[slot]] == v)) slot = (slot + 1) & mask;
    if (table[slot] == kFree) {
      table[slot] = static_cast<uint32_t>(kept.size());
      kept.push_back(v);
    } else {
      ++merged;
    }
    remap[i] = table[slot];
  }
  return remap;
}

}  // namespace

CleanMesh cleanMesh(const std::vector<LuVec3>& vertices, const std::vector<uint32_t>& faces,
                    LuAfxsSliceReport& report) {
  CleanMesh mesh;
  const std::vector<uint32_t> remap = mergeVertices(vertices, mesh.vertices, report.mergedVertices);
  mesh.faces.reserve(faces.size() - faces.size() % 3);
  mesh.faceIds.reserve(faces.size() / 3);
  for (size_t f = 0; f + 2 < faces.size(); f += 3) {
    if (faces[f] >= vertices.size() || faces[f + 1] >= vertices.size() ||
        faces[f + 2] >= vertices.size()) {
      ++report.skippedFaces;
      continue;
    }
    uint32_t a = remap[faces[f]], b = remap[faces[f + 1]], c = remap[faces[f + 2]];
    if (a == b || b == c || c == a) {
      ++report.skippedFaces;
      continue;
    }
    mesh.faces.insert(mesh.faces.end(), {a, b, c});
    mesh.faceIds.push_back(static_cast<uint32_t>(f / 3));
  }
  return mesh;
}

}  // namespace lusection
