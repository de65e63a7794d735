// The cache of loaded arrays.
//
// A load reads every field of a plane-subset record into arrays of its own.
// Fresh memory is the larger part of a load's cost: the system hands it out
// page by page and zero-fills each page. So when a loaded record is
// destroyed (with its data set), its large arrays (32 KiB and more) are kept
// in one process-wide cache, up to a limit in bytes, and later loads take
// them instead of fresh memory. Loading a series of files one after another
// then costs about half as much from the second file on.
//
// The arrays stay with the process while the cache holds them. The default
// limit is 256 MiB; an application that needs the memory elsewhere lowers
// the limit or turns the cache off with a limit of 0. Every function here is
// safe to call from any thread.
#pragma once

#include <cstddef>

#include <luAnaf/luExport.h>

// The most bytes the cache keeps; 256 MiB unless set.
LUANAF_API size_t luAfxsArrayCacheLimit();
// Sets the limit. Arrays past a lowered limit are freed at once; 0 turns the
// cache off and frees everything it holds.
LUANAF_API void luAfxsSetArrayCacheLimit(size_t bytes);
// The bytes the cache holds now (the capacity of the arrays it keeps).
LUANAF_API size_t luAfxsArrayCacheBytes();
// Frees everything the cache holds; the limit stays.
LUANAF_API void luAfxsClearArrayCache();
