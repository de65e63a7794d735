// The cache of loaded arrays.
//
// A load reads every field of a plane-subset record into arrays of its own.
// Fresh memory is the larger part of a load's cost: the system hands it out
// page by page and zero-fills each page. So when a loaded record is
// destroyed (with its data set), its large arrays (8 KiB and more) are kept
// in one process-wide cache, up to a limit in bytes, and later loads take
// them instead of fresh memory. Loading a series of files one after another
// then costs about half as much from the second file on.
//
// The cache is off unless the client turns it on (luAfxsSetArrayCacheEnabled):
// by default, once a client has destroyed every data set, the library holds
// no more memory than it did before the first load. A client that loads file
// after file (a batch) turns it on; the arrays then stay with the process
// while the cache holds them. The limit is 256 MiB unless set; an
// application that needs the memory elsewhere lowers it, and a limit of 0
// keeps nothing. Every function here is safe to call from any thread.
#pragma once

#include <cstddef>

#include <luAnaf/luExport.h>

// Whether destroyed records' arrays are kept; false unless turned on.
LUANAF_API bool luAfxsArrayCacheEnabled();
// Turns the cache on or off. Turning it off frees everything it holds; the
// limit stays as it is.
LUANAF_API void luAfxsSetArrayCacheEnabled(bool on);
// The most bytes the cache keeps when on; 256 MiB unless set.
LUANAF_API size_t luAfxsArrayCacheLimit();
// Sets the limit. Arrays past a lowered limit are freed at once; 0 turns the
// cache off and frees everything it holds.
LUANAF_API void luAfxsSetArrayCacheLimit(size_t bytes);
// The bytes the cache holds now (the capacity of the arrays it keeps).
LUANAF_API size_t luAfxsArrayCacheBytes();
// Frees everything the cache holds; the limit stays.
LUANAF_API void luAfxsClearArrayCache();
