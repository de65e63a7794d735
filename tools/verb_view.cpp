// luafxs view: one self-contained HTML page showing every plane of the files.
#include "luafxs.h"

namespace luafxs {

int runView(const ViewArgs& args) {
  if (!isStandardOutput(args.output) && !outputAllowed(args.output, args.files)) return kExitBad;
  std::vector<std::unique_ptr<LoadedFile>> files;
  std::vector<const LoadedFile*> loaded;
  bool anyPoints = false;
  for (const std::string& path : args.files) {
    auto file = loadChecked(path, LU_AFXS_MASK_ALL, false);
    if (!file) return kExitBad;
    for (const LuAfxsPlane* p : file->planes) anyPoints |= !p->points.empty();
    loaded.push_back(file.get());
    files.push_back(std::move(file));
  }
  if (!anyPoints) {
    error(args.files.front(), "holds no points to show");
    return kExitBad;
  }
  return writeOutput(args.output, viewHtml(loaded)) ? kExitOk : kExitBad;
}

}  // namespace luafxs
