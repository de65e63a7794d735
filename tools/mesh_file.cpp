// Triangle meshes from PLY (ASCII and binary), STL (ASCII and binary) and
// OBJ files, read with assimp: every mesh of the file with its node
// transforms applied, polygons cut into triangles, points and lines left out.
#include <fmt/format.h>

#if !defined(LUAFXS_WITHOUT_MESH_READER)
#include <assimp/postprocess.h>
#include <assimp/scene.h>
#include <assimp/Importer.hpp>
#endif

#include "luafxs.h"

namespace luafxs {

bool readMesh(const std::string& path, MeshData& mesh, std::string& why) {
  mesh = MeshData{};
#if defined(LUAFXS_WITHOUT_MESH_READER)
  (void)path;
  why = "this build of luafxs reads no mesh files (it was built without assimp)";
  return false;
#else
  Assimp::Importer importer;
  // Only whole triangles: no normals generated, vertices kept as stored
  // (equal vertices are merged by the cut itself).
  importer.SetPropertyInteger(AI_CONFIG_PP_SBP_REMOVE,
                              aiPrimitiveType_POINT | aiPrimitiveType_LINE);
  const aiScene* scene = importer.ReadFile(
      path, aiProcess_Triangulate | aiProcess_PreTransformVertices | aiProcess_SortByPType);
  if (scene == nullptr) {
    why = fmt::format("cannot be read as a mesh ({})", importer.GetErrorString());
    return false;
  }
  for (unsigned m = 0; m < scene->mNumMeshes; ++m) {
    const aiMesh* in = scene->mMeshes[m];
    const uint64_t base = mesh.vertices.size();
    for (unsigned v = 0; v < in->mNumVertices; ++v)
      mesh.vertices.push_back({in->mVertices[v].x, in->mVertices[v].y, in->mVertices[v].z});
    for (unsigned f = 0; f < in->mNumFaces; ++f) {
      const aiFace& face = in->mFaces[f];
      if (face.mNumIndices != 3) continue;
      for (unsigned k = 0; k < 3; ++k)
        mesh.faces.push_back(static_cast<uint32_t>(base + face.mIndices[k]));
    }
  }
  if (mesh.vertices.size() > 0xFFFFFFFFu) {
    why = "has more than 4294967295 vertices";
    return false;
  }
  if (mesh.faces.empty()) {
    why = "holds no triangles";
    return false;
  }
  return true;
#endif
}

}  // namespace luafxs
