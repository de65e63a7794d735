// luafxs remove: removes field groups from a file through the data set's
// rewrite. Refuses a file with any problem: the rewrite would carry the
// damage on, and a failed load would delete the file.
#include <filesystem>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

int runRemove(const RemoveArgs& args) {
  uint32_t mask = 0;
  std::string bad;
  if (!parseFields(args.fields, mask, bad)) {
    error("", "--fields: unknown field group '" + bad +
                  "' (known: normals,segments,aux,results,distances)");
    return kExitUsage;
  }
  if (mask == 0) {
    error("", "--fields: name at least one field group");
    return kExitUsage;
  }
  LuAfxsInspection before = luAfxsInspect(widen(args.file), true);
  if (!checkBeforeLoad(args.file, before, true)) return kExitBad;
  std::error_code ec;
  auto perms = std::filesystem::status(args.file, ec).permissions();
  if (ec || (perms & std::filesystem::perms::owner_write) == std::filesystem::perms::none) {
    // The rewrite could not delete the old file and would leave "<file>.tmp" behind.
    error(args.file, "is read-only (owner-write bit clear); nothing was removed");
    return kExitBad;
  }
  const uint32_t results = LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES;
  if ((before.stateUnion & mask) != 0 && (before.stateUnion & results & ~mask) != 0)
    warning(args.file,
            "removing any field group rewrites the file without result points and distances: "
            "they always go too");
  bool ok = false;
  {
    LuAfxsUserLink link(widen(args.file).c_str());
    LuAfxsUserDataSet set(link);
    ok = set.remove(mask);
  }
  if (!ok) {
    error(args.file, "the field groups could not be removed (the file is left as it was)");
    return kExitBad;
  }
  if (std::filesystem::exists(args.file + ".tmp", ec)) {
    error(args.file,
          "the rewritten file could not be moved into place; it was left as " + args.file + ".tmp");
    return kExitBad;
  }
  LuAfxsInspection after = luAfxsInspect(widen(args.file), false);
  if ((before.stateUnion & mask) == 0) {
    fmt::print("{}: nothing to remove ({} not in the file); the file is unchanged\n", args.file,
               maskNames(mask));
  } else {
    fmt::print("{}: removed {}; the file now holds {} ({} plane subsets)\n", args.file,
               maskNames(before.stateUnion & (mask | results)), maskNames(after.stateUnion),
               after.loadedSubsets);
  }
  return kExitOk;
}

}  // namespace luafxs
