// Pages of the process's own memory: whether the system has handed out the
// pages of a range yet, and faulting in a range's pages with one call
// instead of one fault per page.
#pragma once

#include <cstddef>

namespace luio {

// Whether the first whole page inside [data, data + size) has never been
// touched (not in memory): the pages of memory the allocator has just taken
// from the system. False where the platform cannot tell, and for a range
// holding no whole page.
bool untouched(const void* data, size_t size);

// Faults in, writable, every whole page inside [data, data + size) with one
// call (madvise MADV_POPULATE_WRITE), so that writing the range later costs
// no page faults. The contents are unchanged. Does nothing where the
// platform has no such call; false then, and when the call failed.
bool prefault(void* data, size_t size);

}  // namespace luio
