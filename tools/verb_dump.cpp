// luafxs dump: the points of a file with the chosen fields, as xyz, csv,
// ASCII or binary PLY, or JSON.
#include "luafxs.h"
#include "text_export.h"

namespace luafxs {

int runDump(const DumpArgs& args) {
  uint32_t mask = LU_AFXS_MASK_ALL;
  if (!args.fields.empty()) {
    std::string bad;
    if (!parseFields(args.fields, mask, bad)) {
      error("", "--fields: unknown field group '" + bad +
                    "' (known: points,normals,segments,aux,results,distances)");
      return kExitUsage;
    }
  }
  std::string format = args.format;
  if (args.binary) {
    if (format != "ply" && format != "ply-binary") {
      error("", "--binary goes with --format ply");
      return kExitUsage;
    }
    format = "ply-binary";
  }
  // Every dump is of points: a list without them gets them.
  mask |= LU_AFXS_MASK_POINTS;
  if (!isStandardOutput(args.output) && !outputAllowed(args.output, {args.file})) return kExitBad;
  auto file = loadChecked(args.file, mask, false);
  if (!file) {
    // A JSON reader still gets one object.
    if (format == "json" && isStandardOutput(args.output))
      writeOutput(args.output, nlohmann::json({{"file", args.file},
                                               {"error", "the file cannot be dumped"},
                                               {"fields", nlohmann::json::array()},
                                               {"planes", nlohmann::json::array()}})
                                       .dump() +
                                   "\n");
    return kExitBad;
  }
  // Only fields the file holds are dumped.
  mask &= file->inspection.stateUnion | LU_AFXS_MASK_POINTS;
  std::vector<const LuAfxsPlane*> chosen;
  for (const LuAfxsPlane* p : file->planes) {
    if (args.plane >= 0 && p->planeId != static_cast<uint64_t>(args.plane)) continue;
    if (args.subset >= 0 && p->subsetId != static_cast<uint64_t>(args.subset)) continue;
    chosen.push_back(p);
  }
  if (chosen.empty() && (args.plane >= 0 || args.subset >= 0)) {
    error(args.file, "no plane subset matches the chosen --plane/--subset");
    return kExitBad;
  }
  const bool binary = format == "ply-binary";
  auto body = [&](std::FILE* out) {
    if (format == "xyz") return writeXyz(out, chosen);
    if (format == "csv") return writeCsv(out, chosen, mask);
    if (format == "json") return writeJson(out, args.file, chosen, mask);
    return writePly(out, chosen, mask, binary);
  };
  return writeOutputWith(args.output, binary, body) ? kExitOk : kExitBad;
}

}  // namespace luafxs
