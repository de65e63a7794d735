// Reduced bulk loops for slow runs: scripts/valgrind.sh sets
// LUANAF_TEST_QUICK, and the suites' long sweeps (every fault index, every
// truncation offset, a thousand random files) then try every 7th case only.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace lutest {

// Whether LUANAF_TEST_QUICK is set to anything but "" or "0".
inline bool quickMode() {
  const char* value = std::getenv("LUANAF_TEST_QUICK");  // NOLINT(concurrency-mt-unsafe)
  return value != nullptr && *value != '\0' && std::strcmp(value, "0") != 0;
}

// Step of a bulk loop: 1 normally, 7 in quick mode.
inline size_t stride() { return quickMode() ? 7 : 1; }

}  // namespace lutest
