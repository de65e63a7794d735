// luafxs dump: the points of a file with the chosen fields, as xyz, csv,
// ASCII or binary PLY, or JSON.
#include <cerrno>

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
  // JSON is written one record at a time: the load reads only the records'
  // field directories, and each record's fields are loaded as it is written
  // and released after, so memory does not grow with the file.
  const bool json = format == "json";
  auto file = loadChecked(args.file, json ? 0 : mask, false);
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
  std::vector<LuAfxsUserData*> records;  // those of chosen
  for (LuAfxsUserData* record : *file->set) {
    const LuAfxsPlane* p = &record->getPlaneData();
    if (args.plane >= 0 && p->planeId != static_cast<uint64_t>(args.plane)) continue;
    if (args.subset >= 0 && p->subsetId != static_cast<uint64_t>(args.subset)) continue;
    chosen.push_back(p);
    records.push_back(record);
  }
  if (chosen.empty() && (args.plane >= 0 || args.subset >= 0)) {
    error(args.file, "no plane subset matches the chosen --plane/--subset");
    return kExitBad;
  }
  bool loadFailed = false;
  size_t held = records.size();  // the record whose fields are loaded
  auto recordAt = [&](size_t i) -> const LuAfxsPlane* {
    if (held < records.size()) records[held]->release();
    held = i;
    if (records[i]->load(mask)) return &records[i]->getPlaneData();
    loadFailed = true;
    errno = EIO;
    return nullptr;
  };
  const bool binary = format == "ply-binary";
  auto body = [&](std::FILE* out) {
    if (format == "xyz") return writeXyz(out, chosen);
    if (format == "csv") return writeCsv(out, chosen, mask);
    if (json) return writeJson(out, args.file, records.size(), recordAt, mask);
    return writePly(out, chosen, mask, binary);
  };
  const bool written = writeOutputWith(args.output, binary, body);
  if (loadFailed) error(args.file, "the reader could not load the file");
  return written ? kExitOk : kExitBad;
}

}  // namespace luafxs
