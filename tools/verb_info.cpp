// luafxs info: what a file holds, from its index only.
#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

nlohmann::json vec3(const double v[3]) { return nlohmann::json::array({v[0], v[1], v[2]}); }

// The cameras through the reader's link, only for a file the reader can open.
std::vector<LuVec3> readCameras(const std::string& path, const LuAfxsInspection& in) {
  if (!in.loadable() || in.cameras == 0) return {};
  LuAfxsUserLink link(widen(path).c_str());
  if (!link.verify(false)) return {};
  return link.getCameras().cameras;
}

}  // namespace

int runInfo(const InfoArgs& args) {
  // The deep walk, as validate does, so that both report the same problems
  // (it reads the segments and aux counts, never the points).
  LuAfxsInspection in = luAfxsInspect(widen(args.file), true);
  if (!in.opened) {
    if (args.json) fmt::print("{}\n", inspectionJson(args.file, in).dump(2));
    error(args.file, openProblem(in));
    return kExitBad;
  }
  std::vector<LuVec3> cameras = readCameras(args.file, in);
  std::vector<uint32_t> planeIds;
  for (const LuAfxsInspectPlane& p : in.planes) planeIds.push_back(p.planeId);

  if (args.json) {
    nlohmann::json cams = nlohmann::json::array();
    for (const LuVec3& c : cameras) cams.push_back({c.x, c.y, c.z});
    nlohmann::json out = inspectionJson(args.file, in);
    out.update({
        {"identifierOk", in.identifierOk},
        {"header",
         {{"version", in.hasVersion ? nlohmann::json(in.version) : nlohmann::json(nullptr)},
          {"firstRecord", static_cast<uint32_t>(in.firstRecord)},
          {"point", vec3(in.header.point)},
          {"normal", vec3(in.header.normal)},
          {"numPlanes", in.header.numPlanes},
          {"distBwPlanes", in.header.distBwPlanes},
          {"state", in.state},
          {"size", in.headerSize}}},
        {"cameras", cams},
        {"cameraCount", in.cameras},
        {"planes", in.planes.size()},
        {"planeIds", planeIds},
        {"resultsRecords", in.resultsRecords},
        {"subsetIds", in.subsetIds},
        {"fields",
         {{"all", in.stateAnd},
          {"any", in.stateUnion},
          {"allNames", maskNameList(in.stateAnd)},
          {"anyNames", maskNameList(in.stateUnion)}}},
    });
    fmt::print("{}\n", out.dump(2));
  } else {
    std::string planeText = fmt::format("{} in the file", in.planes.size());
    if (!in.planes.empty())
      planeText += fmt::format(" (numbers {} to {})", planeIds.front(), planeIds.back());
    fmt::print("file            {}\n", args.file);
    fmt::print("size            {} bytes\n", in.fileSize);
    if (in.headerParsed) {
      fmt::print("version         {}\n", in.hasVersion ? std::to_string(in.version) : "none");
      fmt::print("point           {:f} {:f} {:f}\n", in.header.point[0], in.header.point[1],
                 in.header.point[2]);
      fmt::print("normal          {:f} {:f} {:f}\n", in.header.normal[0], in.header.normal[1],
                 in.header.normal[2]);
      fmt::print("NUM_PLANES      {}\n", in.header.numPlanes);
      fmt::print("DIST_BW_PLANES  {:f}\n", in.header.distBwPlanes);
      fmt::print("first record    {}\n", hex32(static_cast<uint32_t>(in.firstRecord)));
      fmt::print("STATE line      {} ({})\n", hex32(in.state), maskNames(in.state));
    }
    fmt::print("cameras         {}\n", in.cameras);
    for (size_t i = 0; i < cameras.size(); ++i)
      fmt::print("  camera {:<6}  {:f} {:f} {:f}\n", i, cameras[i].x, cameras[i].y, cameras[i].z);
    fmt::print("planes          {}\n", planeText);
    fmt::print("plane subsets   {}\n", in.loadedSubsets);
    fmt::print("results records {}\n", in.resultsRecords);
    std::string ids;
    for (uint32_t id : in.subsetIds) ids += (ids.empty() ? "" : " ") + std::to_string(id);
    fmt::print("subset ids      {}\n", ids.empty() ? "none" : ids);
    fmt::print("fields, all     {} ({})\n", hex32(in.stateAnd), maskNames(in.stateAnd));
    fmt::print("fields, any     {} ({})\n", hex32(in.stateUnion), maskNames(in.stateUnion));
  }
  if (!in.clean()) {
    for (const LuAfxsInspectProblem& p : in.problems)
      error(args.file, fmt::format("at {}: {}", hex32(p.offset), p.message));
    return kExitBad;
  }
  return kExitOk;
}

}  // namespace luafxs
