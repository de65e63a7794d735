// The record-chain scan and the cameras record on arbitrary bytes.
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lufuzz::silence();
  static const std::string path = lufuzz::scratchPath("scan");
  if (!lufuzz::writeFile(path, data, size)) return 0;
  LuAfxsUserLink link(lufuzz::widen(path).c_str());
  if (link.create(false)) link.getCameras();
  return 0;
}
