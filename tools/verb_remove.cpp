// luafxs remove: removes field groups from a file through the data set's
// rewrite, done on a copy beside the file that replaces it only when whole.
// Refuses a file with any problem (the rewrite would carry the damage on, and
// a failed load would delete the file), and refuses to remove points (the
// records would be damaged).
#include <filesystem>

#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

namespace {

constexpr const char* kRemovable = "normals,segments,aux,results,distances";

// The data set's rewrite on the temporary: it writes "<temporary>.tmp" and
// moves it over the temporary. False, after printing why, on any failure.
bool rewriteWithout(const std::string& shown, LuAfxsOutputFile& out, uint32_t mask) {
  out.addCompanion(out.tempPath() + L".tmp");
  std::error_code ec;
  std::filesystem::copy_file(std::filesystem::path(out.finalPath()),
                             std::filesystem::path(out.tempPath()),
                             std::filesystem::copy_options::overwrite_existing, ec);
  if (ec) {
    error(shown, "cannot be copied for the rewrite (" + ec.message() + "); it is left as it was");
    return false;
  }
  bool ok = false;
  {
    LuAfxsUserLink link(out.tempPath().c_str());
    LuAfxsUserDataSet set(link);
    ok = set.remove(mask);
  }
  LuAfxsInspection rewritten = luAfxsInspect(out.tempPath(), true);
  if (!ok || !rewritten.opened || !rewritten.clean() ||
      std::filesystem::exists(std::filesystem::path(out.tempPath() + L".tmp"), ec)) {
    error(shown, "the field groups could not be removed (the file is left as it was)");
    return false;
  }
  return true;
}

}  // namespace

int runRemove(const RemoveArgs& args) {
  uint32_t mask = 0;
  std::string bad;
  if (!parseFields(args.fields, mask, bad)) {
    error("", fmt::format("--fields: unknown field group '{}' (groups that may be removed: {})",
                          bad, kRemovable));
    return kExitUsage;
  }
  if (mask == 0) {
    error("", fmt::format("--fields: name at least one field group ({})", kRemovable));
    return kExitUsage;
  }
  if (mask & LU_AFXS_MASK_POINTS) {
    error("", fmt::format("--fields: points may not be removed: every other group belongs to them "
                          "and the file would be damaged (groups that may be removed: {})",
                          kRemovable));
    return kExitUsage;
  }
  // A rewrite through a symlink replaces its target and keeps the link.
  const std::string target = narrow(luAfxsResolveOutput(widen(args.file)));
  // Read-only, a directory or a special file: refused before anything is read or written.
  if (!outputAllowed(target, {})) return kExitBad;
  LuAfxsInspection before = luAfxsInspect(widen(target), true);
  if (!checkBeforeLoad(args.file, before, true)) return kExitBad;
  const uint32_t results = LU_AFXS_MASK_RESPOINTS | LU_AFXS_MASK_DISTANCES;
  if ((before.stateUnion & mask) == 0) {
    fmt::print("{}: nothing to remove ({} not in the file); the file is unchanged\n", args.file,
               maskNames(mask));
    return kExitOk;
  }
  if ((before.stateUnion & results & ~mask) != 0)
    warning(args.file,
            "removing any field group rewrites the file without result points and distances: "
            "they always go too");
  LuAfxsOutputFile out(widen(target));
  if (!out.ok()) {
    error(args.file, describe(out.creationProblem()) + "; nothing was removed");
    return kExitBad;
  }
  if (!rewriteWithout(args.file, out, mask) || !commitOutput(out, args.file)) return kExitBad;
  LuAfxsInspection after = luAfxsInspect(widen(target), false);
  fmt::print("{}: removed {}; the file now holds {} ({} plane subsets)\n", args.file,
             maskNames(before.stateUnion & (mask | results)), maskNames(after.stateUnion),
             after.loadedSubsets);
  return kExitOk;
}

}  // namespace luafxs
