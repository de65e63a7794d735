// Results flushed into arbitrary files, then the file loaded again.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lufuzz::silence();
  static const std::string path = lufuzz::scratchPath("flush");
  if (!lufuzz::writeFile(path, data, size)) return 0;
  {
    LuAfxsUserLink link(lufuzz::widen(path).c_str());
    LuAfxsUserDataSet set(link);
    if (!set.load(1)) return 0;
    for (LuAfxsUserData* record : set) {
      size_t n = record->getPlaneData().points.size();
      std::vector<double> values(n, 0.25);
      std::vector<LuVec3> results(record->getPlaneData().points);
      record->setDistances(values.data(), n);
      record->setResPoints(reinterpret_cast<const double(*)[3]>(results.data()), n);
      record->flush();
    }
    set.closefile();
  }
  LuAfxsUserLink again(lufuzz::widen(path).c_str());
  LuAfxsUserDataSet reloaded(again);
  reloaded.load(63);
  reloaded.closefile();
  return 0;
}
