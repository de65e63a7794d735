// The read-only inspection walk on arbitrary bytes: it must end, stay inside
// the file, and agree with the reader both ways: a file it calls loadable
// loads, and a file it calls damaged fails to load.
#include <luAnaf/luAfxsFileCheck.h>

#include <cstdlib>

#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lufuzz::silence();
  static const std::string path = lufuzz::scratchPath("inspect");
  if (!lufuzz::writeFile(path, data, size)) return 0;
  LuAfxsInspection in = luAfxsInspect(lufuzz::widen(path), true);
  // The inspection never changes the file; the load may delete it.
  LuAfxsUserLink link(lufuzz::widen(path).c_str());
  LuAfxsUserDataSet set(link);
  if (set.load(LU_AFXS_MASK_ALL) != in.loadable()) std::abort();
  return 0;
}
