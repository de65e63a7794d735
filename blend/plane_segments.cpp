// The split of a plane's points into segments, from the running point counts
// of its `segments` field.
#include <cstdint>
#include <vector>

#include <luAnaf/luAfxsDataSet.h>

// Appends one inclusive range per entry of `segments`: entry i ends at
// segments[i] - 1 and starts one past the end of the entry before it, read
// from `ends` as it stands (so both lists are expected to be empty on entry).
// Unsigned 32-bit arithmetic throughout, as intended: an entry of 0 gives an
// end of 0xFFFFFFFF and the next segment a start of 0. Nothing here reads the
// points; every user of the ranges skips indices past the plane's lists.
size_t LuAfxsUserDataSet::GetPlaneSegments(const LuAfxsPlane* plane,
                                           std::vector<unsigned int>& starts,
                                           std::vector<unsigned int>& ends) {
  const size_t n = plane->segments.size();
  if (n == 0) return 0;
  for (size_t i = 0; i < n; ++i) {
    ends.push_back(static_cast<uint32_t>(plane->segments[i]) - 1u);
    starts.push_back(i == 0 ? 0u : ends[i - 1] + 1u);
  }
  return n;
}
