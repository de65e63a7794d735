// Field-group removal on arbitrary files; the mask comes from the first byte.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lufuzz::silence();
  if (size < 1) return 0;
  static const std::string path = lufuzz::scratchPath("remove");
  unsigned long mask = data[0] & 63u;
  if (!lufuzz::writeFile(path, data + 1, size - 1)) return 0;
  std::remove((path + ".tmp").c_str());
  {
    LuAfxsUserLink link(lufuzz::widen(path).c_str());
    LuAfxsUserDataSet set(link);
    set.remove(mask);
  }
  LuAfxsUserLink again(lufuzz::widen(path).c_str());
  LuAfxsUserDataSet reloaded(again);
  reloaded.load(63);
  reloaded.closefile();
  return 0;
}
