// The loader's side of the array cache (luAnaf/luAfxsArrayCache.h): sizing a
// field's array from a cached one, and giving a destroyed record's arrays
// back.
#pragma once

#include <cstddef>
#include <vector>

#include <luAnaf/luAfxsRecords.h>

namespace afxs {

// Gives `v` exactly `count` elements whose contents the caller overwrites in
// full: a cached array of a fitting capacity is taken when `v` is too small,
// and no element is zero-filled that such an array already had. The
// elements are unspecified until overwritten.
template <typename T>
void sizeForOverwrite(std::vector<T>& v, size_t count);

// Hands the large arrays of `plane` to the cache (or frees them, past the
// limit); every array of `plane` is empty afterwards. Never throws.
void recycleArrays(LuAfxsPlane& plane) noexcept;

}  // namespace afxs
