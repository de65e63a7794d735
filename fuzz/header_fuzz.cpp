// The header parser on arbitrary bytes.
#include "fuzz_common.h"

namespace {
struct HeaderLink : LuAfxsUserLink {
  using LuAfxsUserLink::LuAfxsUserLink;
  using LuAfxsUserLink::readHeader;
};
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  lufuzz::silence();
  static const std::string path = lufuzz::scratchPath("header");
  if (!lufuzz::writeFile(path, data, size)) return 0;
  HeaderLink link(lufuzz::widen(path).c_str());
  link.readHeader();
  return 0;
}
