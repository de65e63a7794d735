// luafxs validate: the deep check of a file through the inspection walk.
// Reads only; never hands the file to the reader.
#include <fmt/format.h>

#include "luafxs.h"

namespace luafxs {

int runValidate(const ValidateArgs& args) {
  LuAfxsInspection in = luAfxsInspect(widen(args.file), true);
  if (args.json) {
    fmt::print("{}\n", inspectionJson(args.file, in).dump(2));
  } else if (!in.opened) {
    // The reason follows on standard error.
  } else if (in.clean()) {
    fmt::print("{}: ok: {} records, {} planes, {} plane subsets, {} results records\n", args.file,
               in.records.size(), in.planes.size(), in.loadedSubsets, in.resultsRecords);
  } else {
    for (const LuAfxsInspectProblem& p : in.problems)
      fmt::print("{}: at {}: {}{}\n", args.file, hex32(p.offset), p.message,
                 p.breaksLoad ? " [the reader cannot load the file]" : "");
    fmt::print("{}: damaged: {} problem{}{}\n", args.file, in.problems.size(),
               in.problems.size() == 1 ? "" : "s",
               in.loadable() ? " (the reader can still load it)" : "");
  }
  if (!in.opened)
    error(args.file, openProblem(in));
  else if (!in.clean())
    error(args.file, fmt::format("damaged: {} problem{}", in.problems.size(),
                                 in.problems.size() == 1 ? "" : "s"));
  return in.opened && in.clean() ? kExitOk : kExitBad;
}

}  // namespace luafxs
