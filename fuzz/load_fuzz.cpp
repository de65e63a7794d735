// A full data-set load on arbitrary bytes, with a field mask taken from the
// first input byte, then a second load with every field.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lufuzz::silence();
  if (size < 1) return 0;
  static const std::string path = lufuzz::scratchPath("load");
  unsigned long mask = data[0] & 63u;
  if (!lufuzz::writeFile(path, data + 1, size - 1)) return 0;
  LuAfxsUserLink link(lufuzz::widen(path).c_str());
  LuAfxsUserDataSet set(link);
  if (set.load(mask)) {
    set.load(63);
    for (LuAfxsUserData* record : set) (void)record->getPlaneData().points.size();
  }
  set.closefile();
  return 0;
}
